#include "tarvik/core/TarvikVersionText.h"

#include "tarvik/TarvikVersion.h"

std::string TarvikVersionText(const std::string& program)
{
    return program + " " TARVIK_VERSION_STRING " (" TARVIK_DLL_VERSION_TEXT ")";
}
