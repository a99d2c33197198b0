#include "tarvik/runtime/MolString.h"

#include <cstring>

namespace
{
bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f' || c == '\0';
}

std::string Trim(const char* text, size_t len)
{
    size_t begin = 0;
    while (begin < len && IsSpace(text[begin]))
        ++begin;
    size_t end = len;
    while (end > begin && IsSpace(text[end - 1]))
        --end;
    return std::string(text + begin, end - begin);
}

constexpr unsigned long kDumpBytesPerLine = 16;
constexpr char kHexDigits[] = "0123456789ABCDEF";
} // namespace

std::string MolStrTrim(const char* text)
{
    if (text == nullptr)
        return std::string();
    return Trim(text, std::strlen(text));
}

std::string MolStrTrim(const std::string& text)
{
    return Trim(text.data(), text.size());
}

std::string MolMemDumpLine(const char* data, unsigned long len, unsigned long offset)
{
    if (data == nullptr || offset >= len)
        return std::string();
    unsigned long count = len - offset < kDumpBytesPerLine ? len - offset : kDumpBytesPerLine;
    std::string line;
    line.reserve(80);
    for (int shift = 28; shift >= 0; shift -= 4)
        line += kHexDigits[(offset >> shift) & 0xF];
    line += ':';
    for (unsigned long i = 0; i < kDumpBytesPerLine; ++i)
    {
        line += ' ';
        if (i < count)
        {
            unsigned char byte = static_cast<unsigned char>(data[offset + i]);
            line += kHexDigits[byte >> 4];
            line += kHexDigits[byte & 0xF];
        }
        else
            line += "  ";
    }
    line += "  ";
    for (unsigned long i = 0; i < count; ++i)
    {
        unsigned char byte = static_cast<unsigned char>(data[offset + i]);
        line += (byte >= 0x20 && byte < 0x7F) ? static_cast<char>(byte) : '.';
    }
    return line;
}
