// The version texts of the library: the C interface's own text and the line that
// the programs built on the library print for --version.
#ifndef TARVIK_CORE_TARVIKVERSIONTEXT_H
#define TARVIK_CORE_TARVIKVERSIONTEXT_H

#include "tarvik/runtime/TarvikExport.h"

#include <string>

// The C interface's version text, as gsDLLVersionString and DLLInfo give it. A macro,
// so that gsDLLVersionString is set before any code of the process runs.
#define TARVIK_DLL_VERSION_TEXT "Tarvik SPI DLL V1.3-2.18"

// "<program> 1.3.18 (Tarvik SPI DLL V1.3-2.18)": the package version with the C
// interface's version text.
TARVIK_API std::string TarvikVersionText(const std::string& program);

#endif
