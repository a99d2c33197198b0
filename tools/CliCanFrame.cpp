#include "CliCanFrame.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace
{
constexpr unsigned int kMaxStandardId = 0x7FF;
constexpr unsigned int kMaxExtendedId = 0x1FFFFFFF;
constexpr size_t kStandardDigits = 3;
constexpr size_t kExtendedDigits = 8;
// Linux's CAN_ERR_FLAG: the identifier of an error frame carries it.
constexpr unsigned int kErrorFrameFlag = 0x20000000;
const char kHexDigits[] = "0123456789ABCDEF";

int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool ParseHexNumber(const std::string& text, unsigned int& value)
{
    if (text.empty())
        return false;
    value = 0;
    for (char c : text)
    {
        int digit = HexValue(c);
        if (digit < 0)
            return false;
        value = value << 4 | static_cast<unsigned int>(digit);
    }
    return true;
}

// Data bytes: pairs of hex digits, optionally separated by dots (cansend's 11.22.33).
bool ParseData(const std::string& text, SCliCanFrame& frame, unsigned int maxLen, std::string& error)
{
    size_t i = 0;
    unsigned int len = 0;
    while (i < text.size())
    {
        if (text[i] == '.')
        {
            ++i;
            continue;
        }
        if (i + 1 >= text.size() || HexValue(text[i]) < 0 || HexValue(text[i + 1]) < 0)
        {
            error = "data must be pairs of hex digits";
            return false;
        }
        if (len == maxLen)
        {
            error = "data longer than " + std::to_string(maxLen) + " bytes";
            return false;
        }
        frame.m_aData[len++] = static_cast<unsigned char>(HexValue(text[i]) << 4 | HexValue(text[i + 1]));
        i += 2;
    }
    frame.m_nLen = static_cast<unsigned char>(len);
    return true;
}

bool ParseId(const std::string& text, SCliCanFrame& frame, std::string& error)
{
    unsigned int id = 0;
    if ((text.size() != kStandardDigits && text.size() != kExtendedDigits) || !ParseHexNumber(text, id))
    {
        error = "identifier must be 3 (standard) or 8 (extended) hex digits";
        return false;
    }
    frame.m_bExtended = text.size() == kExtendedDigits;
    if (id > (frame.m_bExtended ? kMaxExtendedId : kMaxStandardId))
    {
        error = frame.m_bExtended ? "extended identifier above 1FFFFFFF" : "standard identifier above 7FF";
        return false;
    }
    frame.m_nId = id;
    return true;
}

void AppendHexByte(std::string& out, unsigned char byte)
{
    out += kHexDigits[byte >> 4];
    out += kHexDigits[byte & 0x0F];
}

std::string IdText(const SCliCanFrame& frame)
{
    char id[16];
    std::snprintf(id, sizeof(id), frame.m_bExtended ? "%08X" : "%03X", frame.m_nId);
    return id;
}
} // namespace

bool SCliCanFrame::operator==(const SCliCanFrame& other) const
{
    return m_nId == other.m_nId && m_bExtended == other.m_bExtended && m_bRemote == other.m_bRemote &&
           m_bFD == other.m_bFD && m_nFDFlags == other.m_nFDFlags && m_nLen == other.m_nLen &&
           std::memcmp(m_aData, other.m_aData, m_nLen) == 0;
}

bool CliParseCanFrame(const std::string& text, SCliCanFrame& frame, std::string& error)
{
    frame = SCliCanFrame();
    size_t hash = text.find('#');
    if (hash == std::string::npos)
    {
        error = "expected ID#DATA";
        return false;
    }
    if (!ParseId(text.substr(0, hash), frame, error))
        return false;
    std::string rest = text.substr(hash + 1);
    if (!rest.empty() && rest[0] == '#')
    {
        // CAN FD: one flags digit, then up to 64 bytes.
        if (rest.size() < 2 || HexValue(rest[1]) < 0)
        {
            error = "CAN FD frame needs a flags digit after ##";
            return false;
        }
        frame.m_bFD = true;
        frame.m_nFDFlags = static_cast<unsigned char>(HexValue(rest[1]));
        return ParseData(rest.substr(2), frame, SCliCanFrame::kMaxFD, error);
    }
    if (!rest.empty() && (rest[0] == 'R' || rest[0] == 'r'))
    {
        frame.m_bRemote = true;
        if (rest.size() == 1)
            return true;
        if (rest.size() != 2 || rest[1] < '0' || rest[1] > '8')
        {
            error = "remote frame length must be one digit 0..8";
            return false;
        }
        frame.m_nLen = static_cast<unsigned char>(rest[1] - '0');
        return true;
    }
    return ParseData(rest, frame, SCliCanFrame::kMaxClassic, error);
}

std::string CliCanFrameText(const SCliCanFrame& frame)
{
    std::string out = IdText(frame) + "#";
    if (frame.m_bRemote)
    {
        out += 'R';
        if (frame.m_nLen > 0 && frame.m_nLen <= SCliCanFrame::kMaxClassic)
            out += static_cast<char>('0' + frame.m_nLen);
        return out;
    }
    if (frame.m_bFD)
    {
        out += '#';
        out += kHexDigits[frame.m_nFDFlags & 0x0F];
    }
    for (unsigned int i = 0; i < frame.m_nLen; ++i)
        AppendHexByte(out, frame.m_aData[i]);
    return out;
}

std::string CliCandumpLine(const SCliCanFrame& frame, const std::string& interfaceName)
{
    // candump pads a classic length to "   [n]" and a CAN FD length to "  [nn]".
    char len[16];
    if (frame.m_bFD)
        std::snprintf(len, sizeof(len), "  [%02u]", static_cast<unsigned int>(frame.m_nLen));
    else
        std::snprintf(len, sizeof(len), "   [%u]", static_cast<unsigned int>(frame.m_nLen));
    std::string out = "  " + interfaceName + "  " + IdText(frame) + len + " ";
    if (frame.m_bRemote)
        return out + " remote request";
    for (unsigned int i = 0; i < frame.m_nLen; ++i)
    {
        out += ' ';
        AppendHexByte(out, frame.m_aData[i]);
    }
    return out;
}

std::string CliCanLogLine(const SCliCanFrame& frame, int64_t seconds, unsigned int microseconds,
                          const std::string& interfaceName)
{
    char stamp[48];
    std::snprintf(stamp, sizeof(stamp), "(%010" PRId64 ".%06u) ", seconds, microseconds % 1000000);
    return stamp + interfaceName + " " + CliCanFrameText(frame);
}

bool CliParseCanLogLine(const std::string& line, SCliCanFrame& frame, int64_t& microsecondsSinceEpoch,
                        std::string& interfaceName, std::string& error)
{
    error.clear();
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#')
        return false;
    long long seconds = 0;
    unsigned int micros = 0;
    char name[64];
    char text[256];
    int fraction = 0;
    if (std::sscanf(line.c_str() + start, "(%lld.%6u%n) %63s %255s", &seconds, &micros, &fraction, name, text) != 4)
    {
        error = "not a log line: " + line;
        return false;
    }
    // "%6u" reads up to six digits; fewer mean a short fraction, scaled to microseconds.
    const char* dot = std::strchr(line.c_str() + start, '.');
    int digits = fraction - static_cast<int>(dot - (line.c_str() + start)) - 1;
    for (int i = digits; i < 6; ++i)
        micros *= 10;
    interfaceName = name;
    microsecondsSinceEpoch = static_cast<int64_t>(seconds) * 1000000 + micros;
    return CliParseCanFrame(text, frame, error);
}

bool CliCanLogLineIsErrorFrame(const std::string& line)
{
    char text[256];
    if (std::sscanf(line.c_str(), " (%*[^)]) %*s %255s", text) != 1)
        return false;
    const char* hash = std::strchr(text, '#');
    unsigned int id = 0;
    return hash != nullptr && static_cast<size_t>(hash - text) == kExtendedDigits &&
           ParseHexNumber(std::string(text, kExtendedDigits), id) && (id & kErrorFrameFlag) != 0;
}
