/* Older include path of the export macro; the macro lives on the runtime floor now. */
#ifndef TARVIK_CORE_TARVIKEXPORT_H
#define TARVIK_CORE_TARVIKEXPORT_H

#include "tarvik/runtime/TarvikExport.h"

#endif
