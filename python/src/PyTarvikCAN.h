#ifndef TARVIK_PYTHON_PYTARVIKCAN_H
#define TARVIK_PYTHON_PYTARVIKCAN_H

#include "PyTarvikClientBase.h"

void PyTarvikBindCAN(py::module_& module);

#endif
