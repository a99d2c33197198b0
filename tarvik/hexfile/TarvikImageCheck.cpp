#include "tarvik/hexfile/TarvikImageCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <sys/stat.h>

namespace
{
typedef CTarvikImageCheck::EKind EKind;
typedef std::function<void(uint64_t, EKind, const std::string&)> TReport;

const char kUtf8Bom[] = "\xEF\xBB\xBF";
constexpr uint64_t kAddressLimit = 0x100000000ull;
// Lines are quoted in messages up to this many characters.
constexpr size_t kQuoted = 48;

// Intel HEX record types.
constexpr unsigned int kIntelData = 0;
constexpr unsigned int kIntelEnd = 1;
constexpr unsigned int kIntelSegment = 2;
constexpr unsigned int kIntelStartSegment = 3;
constexpr unsigned int kIntelLinear = 4;
constexpr unsigned int kIntelStartLinear = 5;

std::string Hex(uint64_t value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llX", digits, static_cast<unsigned long long>(value));
    return text;
}

int DigitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::string Quote(const std::string& line)
{
    std::string shown;
    for (char c : line.substr(0, kQuoted))
        shown += static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F ? '?' : c;
    return "\"" + shown + (line.size() > kQuoted ? "...\"" : "\"");
}

std::string Lines(uint64_t first, uint64_t last)
{
    return first == last ? "line " + std::to_string(first)
                         : "lines " + std::to_string(first) + "-" + std::to_string(last);
}

// Bytes given by consecutive records in a row; only where rows meet can data overlap.
struct SSpan
{
    uint64_t m_nStart;
    uint64_t m_nEnd; // one past the last byte
    uint64_t m_nFirstLine;
    uint64_t m_nLastLine;
};

// Reads the records of one text file into a byte map and reports what is wrong with them.
class CRecordParser
{
public:
    CRecordParser(bool intel, CTarvikHexfile::CByteMap& map, const TReport& report)
        : m_bIntel(intel), m_rMap(map), m_fnReport(report)
    {
    }

    // line is the caller's buffer, reused from line to line; it may be changed.
    void Line(uint64_t number, std::string& line)
    {
        m_nLastLine = number;
        while (!line.empty() && std::strchr(" \t\r\f\v", line.back()) != nullptr)
            line.pop_back();
        if (line.empty() || line[0] == ';' || line[0] == '#' || line.find_first_not_of(" \t") == std::string::npos)
            return;
        const char mark = m_bIntel ? ':' : 'S';
        if (line[0] != mark)
            return m_fnReport(number, CTarvikImageCheck::KindFormat,
                              std::string("not ") + (m_bIntel ? "an Intel HEX record" : "an S-record") + ": " +
                                  Quote(line));
        if (m_nEndLine != 0)
            m_fnReport(number, CTarvikImageCheck::KindAfterEnd,
                       "a record behind the end record of line " + std::to_string(m_nEndLine));
        if (m_bIntel)
            IntelRecord(number, line);
        else
            MotorolaRecord(number, line);
    }

    void Finish()
    {
        if (m_nEndLine == 0 && m_nLastLine != 0)
            m_fnReport(m_nLastLine, CTarvikImageCheck::KindMissingEnd,
                       std::string("the file ends without an end record (") +
                           (m_bIntel ? "type 01, :00000001FF" : "S7, S8 or S9") + "); it may be cut short");
        FindOverlaps();
    }

private:
    // The bytes of the hex text behind the first character (Intel) or the first two (S-records).
    // A character that is not a hex digit is reported once and counts as 0. False when the text
    // does not come in whole bytes.
    bool Decode(uint64_t number, const std::string& line, size_t from, std::vector<unsigned int>& bytes)
    {
        bytes.clear();
        m_bNonHex = false;
        for (size_t i = from; i < line.size(); ++i)
            if (DigitValue(line[i]) < 0)
            {
                m_bNonHex = true;
                m_fnReport(number, CTarvikImageCheck::KindNonHex,
                           "character " + Quote(std::string(1, line[i])) + " at column " + std::to_string(i + 1) +
                               " is not a hex digit");
                break;
            }
        for (size_t i = from; i + 1 < line.size(); i += 2)
            bytes.push_back(static_cast<unsigned int>(std::max(DigitValue(line[i]), 0) << 4 |
                                                      std::max(DigitValue(line[i + 1]), 0)));
        if ((line.size() - from) % 2 == 0)
            return true;
        m_fnReport(number, CTarvikImageCheck::KindByteCount, "the record does not end on a whole byte");
        return false;
    }

    void IntelRecord(uint64_t number, const std::string& line)
    {
        std::vector<unsigned int>& bytes = m_aBytes;
        const bool whole = Decode(number, line, 1, bytes);
        if (bytes.size() < 5)
            return m_fnReport(number, CTarvikImageCheck::KindFormat, "too short for a record: " + Quote(line));
        const unsigned int count = bytes[0];
        if (bytes.size() != count + 5 && whole)
            m_fnReport(number, CTarvikImageCheck::KindByteCount,
                       "the byte count " + Hex(count, 2) + " needs " + std::to_string(2 * count + 11) +
                           " characters, the line has " + std::to_string(line.size()));
        if (bytes.size() < count + 5)
            return; // the record's bytes are not all there
        unsigned int sum = 0;
        for (size_t i = 0; i < count + 4; ++i)
            sum += bytes[i];
        const unsigned int expected = (0u - sum) & 0xFF;
        // With a digit that is not one, the sum says nothing more.
        if (bytes[count + 4] != expected && !m_bNonHex)
            m_fnReport(number, CTarvikImageCheck::KindChecksum,
                       "wrong checksum " + Hex(bytes[count + 4], 2) + ", the record's bytes need " + Hex(expected, 2));
        const unsigned int offset = bytes[1] << 8 | bytes[2];
        const unsigned int type = bytes[3];
        switch (type)
        {
        case kIntelData: Data(number, m_nExtended + offset, bytes.data() + 4, count); break;
        case kIntelEnd:
            ExpectCount(number, count, 0, "an end record");
            m_nEndLine = m_nEndLine == 0 ? number : m_nEndLine;
            break;
        case kIntelSegment:
        case kIntelLinear:
            if (ExpectCount(number, count, 2, "an extended address record"))
                m_nExtended = static_cast<uint64_t>(bytes[4] << 8 | bytes[5]) << (type == kIntelLinear ? 16 : 4);
            break;
        case kIntelStartSegment:
        case kIntelStartLinear: ExpectCount(number, count, 4, "a start address record"); break;
        default:
            m_fnReport(number, CTarvikImageCheck::KindRecordType, "record type " + Hex(type, 2) + " is not Intel HEX");
        }
    }

    bool ExpectCount(uint64_t number, unsigned int count, unsigned int wanted, const char* what)
    {
        if (count == wanted)
            return true;
        m_fnReport(number, CTarvikImageCheck::KindByteCount,
                   std::string(what) + " has " + std::to_string(wanted) + " data bytes, this one " +
                       std::to_string(count));
        return false;
    }

    void MotorolaRecord(uint64_t number, const std::string& line)
    {
        static const unsigned int kAddressBytes[10] = {2, 2, 3, 4, 0, 2, 3, 4, 3, 2};
        const char kind = line.size() > 1 ? line[1] : '\0';
        if (kind < '0' || kind > '9' || kind == '4')
            return m_fnReport(number, CTarvikImageCheck::KindRecordType,
                              "record type " + Quote(line.substr(0, 2)) + " is not an S-record type");
        std::vector<unsigned int>& bytes = m_aBytes;
        const bool whole = Decode(number, line, 2, bytes);
        const unsigned int addressBytes = kAddressBytes[kind - '0'];
        if (bytes.empty())
            return m_fnReport(number, CTarvikImageCheck::KindFormat, "too short for a record: " + Quote(line));
        const unsigned int count = bytes[0];
        if (bytes.size() != count + 1 && whole)
            m_fnReport(number, CTarvikImageCheck::KindByteCount,
                       "the byte count " + Hex(count, 2) + " needs " + std::to_string(2 * count + 4) +
                           " characters, the line has " + std::to_string(line.size()));
        if (count < addressBytes + 1)
            return m_fnReport(number, CTarvikImageCheck::KindByteCount,
                              "the byte count " + Hex(count, 2) + " leaves no room for the address and checksum");
        if (bytes.size() < count + 1)
            return;
        unsigned int sum = 0;
        for (size_t i = 0; i < count; ++i)
            sum += bytes[i];
        const unsigned int expected = ~sum & 0xFF;
        if (bytes[count] != expected && !m_bNonHex)
            m_fnReport(number, CTarvikImageCheck::KindChecksum,
                       "wrong checksum " + Hex(bytes[count], 2) + ", the record's bytes need " + Hex(expected, 2));
        uint64_t address = 0;
        for (unsigned int i = 0; i < addressBytes; ++i)
            address = address << 8 | bytes[1 + i];
        switch (kind)
        {
        case '1':
        case '2':
        case '3':
            ++m_nDataRecords;
            Data(number, address, bytes.data() + 1 + addressBytes, count - addressBytes - 1);
            break;
        case '5':
        case '6':
            if (address != m_nDataRecords)
                m_fnReport(number, CTarvikImageCheck::KindRecordCount,
                           "the count record says " + std::to_string(address) + " data records, " +
                               std::to_string(m_nDataRecords) + " come before it");
            break;
        case '7':
        case '8':
        case '9': m_nEndLine = m_nEndLine == 0 ? number : m_nEndLine; break;
        default: break; // S0: a header
        }
    }

    void Data(uint64_t number, uint64_t address, const unsigned int* bytes, unsigned int count)
    {
        if (count == 0)
            return;
        if (address + count > kAddressLimit)
            m_fnReport(number, CTarvikImageCheck::KindAddress,
                       "data at " + Hex(address, 8) + " runs beyond 4 GiB; it wraps round to address 0");
        for (unsigned int i = 0; i < count; ++i)
            m_rMap.SetByte(static_cast<unsigned int>(address + i), static_cast<char>(bytes[i]));
        if (!m_vecSpans.empty() && m_vecSpans.back().m_nEnd == address)
        {
            m_vecSpans.back().m_nEnd += count;
            m_vecSpans.back().m_nLastLine = number;
        }
        else
            m_vecSpans.push_back({address, address + count, number, number});
    }

    // Rows of records in address order: a row that starts before the end of the rows below it
    // gives some of their bytes again.
    void FindOverlaps()
    {
        std::stable_sort(m_vecSpans.begin(), m_vecSpans.end(),
                         [](const SSpan& a, const SSpan& b) { return a.m_nStart < b.m_nStart; });
        const SSpan* reach = nullptr; // the row that reaches highest so far
        for (const SSpan& span : m_vecSpans)
        {
            if (reach != nullptr && span.m_nStart < reach->m_nEnd)
            {
                const bool later = span.m_nFirstLine > reach->m_nFirstLine;
                const SSpan& again = later ? span : *reach;
                const SSpan& first = later ? *reach : span;
                const uint64_t end = std::min(span.m_nEnd, reach->m_nEnd);
                m_fnReport(again.m_nFirstLine, CTarvikImageCheck::KindOverlap,
                           "data at " + Hex(span.m_nStart, 8) + "-" + Hex(end - 1, 8) + " is given by " +
                               Lines(first.m_nFirstLine, first.m_nLastLine) + " already");
            }
            if (reach == nullptr || span.m_nEnd > reach->m_nEnd)
                reach = &span;
        }
    }

    bool m_bIntel;
    CTarvikHexfile::CByteMap& m_rMap;
    const TReport& m_fnReport;
    uint64_t m_nExtended = 0;
    uint64_t m_nEndLine = 0;
    uint64_t m_nLastLine = 0;
    uint64_t m_nDataRecords = 0;
    bool m_bNonHex = false; // the line last decoded has a character that is no hex digit
    std::vector<SSpan> m_vecSpans;
    std::vector<unsigned int> m_aBytes; // the record being decoded, reused from line to line
};

bool IsRecordLine(const std::string& line, size_t from)
{
    return from < line.size() && (line[from] == ':' || line[from] == 'S');
}

// The format of a text by its first record: blank and comment lines and a byte-order mark
// before it do not count. Binary when another line comes first.
CTarvikHexfile::EType DetectType(const std::string& text)
{
    size_t pos = text.compare(0, 3, kUtf8Bom) == 0 ? 3 : 0;
    while (pos < text.size())
    {
        size_t end = text.find('\n', pos);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(pos, end - pos);
        const size_t first = line.find_first_not_of(" \t\r\f\v");
        if (first != std::string::npos && line[0] != ';' && line[0] != '#')
            return !IsRecordLine(line, 0) ? CTarvikHexfile::Binary
                   : line[0] == ':'       ? CTarvikHexfile::Intel
                                          : CTarvikHexfile::Motorola;
        pos = end + 1;
    }
    return CTarvikHexfile::Binary;
}
} // namespace

const size_t CTarvikImageCheck::m_nMaxKeptProblems;

std::string CTarvikImageCheck::SProblem::Describe() const
{
    return m_sFile + (m_nLine == 0 ? "" : ":" + std::to_string(m_nLine)) + ": " + m_sText;
}

CTarvikImageCheck::CTarvikImageCheck() : m_eType(CTarvikHexfile::Detect), m_nProblemCount(0) {}

const char* CTarvikImageCheck::KindName(EKind kind)
{
    switch (kind)
    {
    case KindOpen: return "cannot read";
    case KindEmpty: return "empty";
    case KindFormat: return "not a record";
    case KindNonHex: return "not hex";
    case KindByteCount: return "byte count";
    case KindChecksum: return "checksum";
    case KindRecordType: return "record type";
    case KindAddress: return "address";
    case KindMissingEnd: return "no end record";
    case KindAfterEnd: return "after end record";
    case KindRecordCount: return "record count";
    case KindOverlap: return "overlap";
    }
    return "unknown";
}

void CTarvikImageCheck::Report(uint64_t line, EKind kind, const std::string& text)
{
    if (++m_nProblemCount <= m_nMaxKeptProblems)
        m_vecProblems.push_back({m_sDisplay, line, kind, text});
}

bool CTarvikImageCheck::LoadFile(CTarvikHexfile& image, const char* name, CTarvikHexfile::EType type,
                                 const std::string& display)
{
    const std::string file = name == nullptr ? std::string() : name;
    std::ifstream stream;
    errno = 0;
    struct stat status;
    // A directory opens as a stream and fails only on reading it.
    const bool directory = name != nullptr && stat(name, &status) == 0 && S_ISDIR(status.st_mode);
    if (name != nullptr && !directory)
        stream.open(name, std::ios::binary);
    if (!stream.is_open())
    {
        m_sDisplay = display.empty() ? file : display;
        m_vecProblems.clear();
        m_nProblemCount = 0;
        Report(0, KindOpen, "cannot be opened: " + std::string(std::strerror(directory ? EISDIR : errno)));
        return false;
    }
    const bool good = Load(image, stream, type, display.empty() ? file : display);
    image.m_sFilename = file;
    return good;
}

bool CTarvikImageCheck::Load(CTarvikHexfile& image, std::istream& stream, CTarvikHexfile::EType type,
                             const std::string& display)
{
    m_sDisplay = display;
    m_vecProblems.clear();
    m_nProblemCount = 0;
    std::string text;
    try
    {
        std::ostringstream all;
        if (stream.rdbuf() != nullptr && stream.rdbuf()->sgetc() != std::char_traits<char>::eof())
            all << stream.rdbuf();
        if (stream.bad() || all.bad())
        {
            Report(0, KindOpen, "cannot be read: " + std::string(std::strerror(errno)));
            return false;
        }
        text = all.str();
    }
    catch (const std::exception&)
    {
        // A directory, a device that fails, or no memory for the contents.
        Report(0, KindOpen, "cannot be read: " + std::string(errno != 0 ? std::strerror(errno) : "read error"));
        return false;
    }
    return LoadText(image, text, type);
}

bool CTarvikImageCheck::LoadText(CTarvikHexfile& image, const std::string& text, CTarvikHexfile::EType type)
{
    m_eType = type == CTarvikHexfile::Detect ? DetectType(text) : type;
    try
    {
        image.ClearMemoryBlocks();
        image.m_nMaxAddr = 0;
        image.m_nMinAddr = 0;
        image.m_eType = m_eType;
        if (text.empty())
        {
            Report(0, KindEmpty, "the file is empty");
            return false;
        }
        if (m_eType == CTarvikHexfile::Binary)
        {
            if (text.size() > kAddressLimit)
                Report(0, KindAddress, "a binary file of more than 4 GiB does not fit the address space");
            else
                image.AddMemoryBlock(new CTarvikHexfile::SMemoryBlock(0, text.data(), text.size()));
            image.RecalcMinMax();
            return m_nProblemCount == 0;
        }
        CTarvikHexfile::CByteMap map;
        const TReport report = [this](uint64_t line, EKind kind, const std::string& what) { Report(line, kind, what); };
        CRecordParser parser(m_eType == CTarvikHexfile::Intel, map, report);
        size_t pos = text.compare(0, 3, kUtf8Bom) == 0 ? 3 : 0;
        std::string line;
        for (uint64_t number = 1; pos < text.size(); ++number)
        {
            size_t end = text.find('\n', pos);
            end = end == std::string::npos ? text.size() : end;
            line.assign(text, pos, end - pos);
            parser.Line(number, line);
            pos = end + 1;
        }
        parser.Finish();
        map.ToMemoryBlocks(image.m_vecBlocks);
        image.RecalcMinMax();
    }
    catch (const std::exception&)
    {
        image.ClearMemoryBlocks();
        Report(0, KindOpen, "cannot be read: not enough memory for the image");
        return false;
    }
    std::stable_sort(m_vecProblems.begin(), m_vecProblems.end(),
                     [](const SProblem& a, const SProblem& b) { return a.m_nLine < b.m_nLine; });
    return m_nProblemCount == 0;
}
