// Hex digits of the text formats, shared by the reader, the writer and the dumps.
#ifndef TARVIK_HEXFILE_TARVIKHEXDIGITSPRIVATE_H
#define TARVIK_HEXFILE_TARVIKHEXDIGITSPRIVATE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarvik_detail
{
constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kLowerDigits[] = "0123456789abcdef";

// Value of every character as a hex digit; anything that is not a hex digit counts as 0.
struct SHexTable
{
    unsigned char m_aValue[256];
    constexpr SHexTable() : m_aValue()
    {
        for (int c = '0'; c <= '9'; ++c)
            m_aValue[c] = static_cast<unsigned char>(c - '0');
        for (int c = 'A'; c <= 'F'; ++c)
            m_aValue[c] = static_cast<unsigned char>(c - 'A' + 10);
        for (int c = 'a'; c <= 'f'; ++c)
            m_aValue[c] = static_cast<unsigned char>(c - 'a' + 10);
    }
};
constexpr SHexTable kHex;

inline unsigned int HexDigit(char c)
{
    return kHex.m_aValue[static_cast<unsigned char>(c)];
}

inline unsigned int HexByte(const char* p)
{
    return (HexDigit(p[0]) << 4) | HexDigit(p[1]);
}

// A field that the record's own count does not cover may lie past the line's end; such
// characters read as NUL, which is not a hex digit.
inline unsigned int HexByteAt(const std::string& line, size_t index)
{
    char high = index < line.size() ? line[index] : '\0';
    char low = index + 1 < line.size() ? line[index + 1] : '\0';
    return (HexDigit(high) << 4) | HexDigit(low);
}

inline char* PutHex(char* p, uint32_t value, int digits, const char* table)
{
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
        *p++ = table[(value >> shift) & 0xF];
    return p;
}
} // namespace tarvik_detail

#endif
