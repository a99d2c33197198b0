#ifndef TARVIK_PYTHON_PYTARVIKFAMILIES_H
#define TARVIK_PYTHON_PYTARVIKFAMILIES_H

#include "PyTarvikClientBase.h"

// The clients without receive queues: SPI, I2C, DIO, AD, Renesas, Firmware, AWire, the test system.
void PyTarvikBindFamilies(py::module_& module);

#endif
