// Text helpers of the runtime.
#ifndef TARVIK_RUNTIME_MOLSTRING_H
#define TARVIK_RUNTIME_MOLSTRING_H

#include "tarvik/runtime/TarvikExport.h"

#include <sstream>
#include <string>

// Copy of text without leading and trailing white space (blank, tab, CR, LF, VT, FF, NUL).
TARVIK_API std::string MolStrTrim(const char* text);
// Overload for texts that may hold NUL characters.
TARVIK_API std::string MolStrTrim(const std::string& text);

// One line of a hexadecimal dump of up to 16 bytes of data starting at offset:
// "OOOOOOOO: XX XX ...  ASCII". An offset at or past len gives an empty string.
TARVIK_API std::string MolMemDumpLine(const char* data, unsigned long len, unsigned long offset);

// Decimal (or streamed) text of a value.
template <typename T> std::string MolToString(const T& value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

#endif
