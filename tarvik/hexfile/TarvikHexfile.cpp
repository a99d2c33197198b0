#include "tarvik/hexfile/TarvikHexfile.h"

#include "tarvik/runtime/MolFile.h"
#include "tarvik/runtime/MolString.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>

namespace
{
// Intel HEX record types.
constexpr unsigned int kIntelData = 0;
constexpr unsigned int kIntelEndOfFile = 1;
constexpr unsigned int kIntelExtendedSegment = 2;
constexpr unsigned int kIntelExtendedLinear = 4;
constexpr unsigned int kIntelStartLinear = 5;

constexpr unsigned int kPageSize = 4096;
constexpr unsigned int kPageMask = kPageSize - 1;
// A page is stored in slices of 64 bytes, one present bit each in a 64-bit word.
constexpr unsigned int kSliceSize = 64;
constexpr size_t kRunReserve = 0x40000;

// The line reader takes at most this many characters plus the terminator.
constexpr size_t kLineBufferSize = 1024;
constexpr size_t kReadChunk = 1 << 16;

constexpr unsigned int kBytesPerRecord = 16;

const char kUpperDigits[] = "0123456789ABCDEF";
const char kLowerDigits[] = "0123456789abcdef";

const char kMsgInvalidFormat[] = "Invalid format in data line: ";
const char kMsgInvalidLength[] = "Invalid format in data line (line length): ";
const char kMsgInvalidType[] = "Invalid record type in data line: ";
const char kMsgInvalidChecksum[] = "Invalid checksum in data line: ";
const char kMsgAbove4G[] = "Data addresses above 4 giga byte are not supported. ";
const char kMsgAbove4GPrinted[] = "Data addresses above 4 giga byte are not supported, m_nMaxAddr = ";
const char kMsgBinaryRefused[] =
    "Data could not be saved in binary format because of StartAddress != 0 OR multiple blocks in hex data.\n\n";

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

void ReplaceNul(std::string& text)
{
    std::replace(text.begin(), text.end(), '\0', '.');
}

// Reads lines exactly as istream::getline(buffer, 1024, '\n') would, but from large blocks of
// the stream's buffer, so that a multi-megabyte file costs no stream call per line:
// - a newline within the first 1024 characters ends the line; it is consumed and becomes a NUL
//   at the end of the line text;
// - 1023 characters without a newline behind them put the reader in the failed state: those
//   characters are the line, and the next read extracts nothing;
// - the end of the input ends a last line without newline; the next read extracts nothing.
class CLineReader
{
public:
    explicit CLineReader(std::istream& stream)
        : m_pSource(stream.good() ? stream.rdbuf() : nullptr), m_vecBuffer(kReadChunk), m_nPos(0), m_nEnd(0),
          m_bSourceEnd(m_pSource == nullptr), m_bStopped(m_pSource == nullptr)
    {
    }

    // Returns the number of characters extracted (newline included); 0 ends the input.
    size_t ReadLine(std::string& line)
    {
        if (m_bStopped)
            return 0;
        if (m_nEnd - m_nPos < kLineBufferSize && !m_bSourceEnd)
            Fill();
        size_t available = m_nEnd - m_nPos;
        const char* begin = m_vecBuffer.data() + m_nPos;
        const char* newline = static_cast<const char*>(std::memchr(begin, '\n', std::min(available, kLineBufferSize)));
        if (newline != nullptr)
        {
            size_t length = static_cast<size_t>(newline - begin);
            line.assign(begin, length);
            line.push_back('\0');
            m_nPos += length + 1;
            return length + 1;
        }
        m_bStopped = true;
        if (available >= kLineBufferSize)
        {
            line.assign(begin, kLineBufferSize - 1);
            return kLineBufferSize - 1;
        }
        if (available == 0)
            return 0;
        line.assign(begin, available);
        m_nPos = m_nEnd;
        return available;
    }

private:
    void Fill()
    {
        if (m_nPos > 0)
        {
            std::memmove(m_vecBuffer.data(), m_vecBuffer.data() + m_nPos, m_nEnd - m_nPos);
            m_nEnd -= m_nPos;
            m_nPos = 0;
        }
        while (m_nEnd < kLineBufferSize && !m_bSourceEnd)
        {
            std::streamsize got = m_pSource->sgetn(m_vecBuffer.data() + m_nEnd,
                                                   static_cast<std::streamsize>(m_vecBuffer.size() - m_nEnd));
            if (got <= 0)
                m_bSourceEnd = true;
            else
                m_nEnd += static_cast<size_t>(got);
        }
    }

    std::streambuf* m_pSource;
    std::vector<char> m_vecBuffer;
    size_t m_nPos;
    size_t m_nEnd;
    bool m_bSourceEnd;
    bool m_bStopped;
};

// Collects written text and hands it to the stream in large pieces.
class COutBuffer
{
public:
    explicit COutBuffer(std::ostream& stream) : m_oStream(stream) { m_sText.reserve(kCapacity + 128); }
    ~COutBuffer() { Flush(); }

    // Room for one record of at most 128 characters.
    char* Reserve()
    {
        if (m_sText.size() > kCapacity)
            Flush();
        size_t used = m_sText.size();
        m_sText.resize(used + 128);
        return &m_sText[used];
    }
    void Commit(const char* end) { m_sText.resize(static_cast<size_t>(end - m_sText.data())); }
    void Flush()
    {
        if (!m_sText.empty())
            m_oStream.write(m_sText.data(), static_cast<std::streamsize>(m_sText.size()));
        m_sText.clear();
        m_oStream.flush();
    }

private:
    static constexpr size_t kCapacity = 1 << 16;
    std::ostream& m_oStream;
    std::string m_sText;
};
} // namespace

bool CTarvikHexfile::s_bFirstTime = true;
unsigned int CTarvikHexfile::nTempFilenameLfdNr = 1;
const uint64_t CTarvikHexfile::m_nMaxAddressSupported;

// ---------------------------------------------------------------------------------------------
// SMemoryBlock

CTarvikHexfile::SMemoryBlock::SMemoryBlock() : m_nStartAddress(0), m_nLength(0), m_pData(nullptr) {}

CTarvikHexfile::SMemoryBlock::SMemoryBlock(uint64_t start, const char* data, uint64_t length)
    : m_nStartAddress(start), m_nLength(length), m_pData(new char[length]())
{
    if (data != nullptr && length > 0)
        std::memcpy(m_pData, data, length);
}

CTarvikHexfile::SMemoryBlock::~SMemoryBlock()
{
    delete[] m_pData;
}

bool CTarvikHexfile::SMemoryBlock::operator==(const SMemoryBlock& other) const
{
    if (m_nLength != other.m_nLength)
        return false;
    return m_nLength == 0 || std::memcmp(m_pData, other.m_pData, m_nLength) == 0;
}

// ---------------------------------------------------------------------------------------------
// CByteMap

CTarvikHexfile::CByteMap::CByteMap()
    : m_nLastPageBase(0), m_pLastPage(nullptr), m_nLastSliceBase(0), m_pLastSlice(nullptr)
{
}

void CTarvikHexfile::CByteMap::SelectSlice(unsigned int base)
{
    const unsigned int pageBase = base & ~kPageMask;
    if (m_pLastPage == nullptr || pageBase != m_nLastPageBase)
    {
        m_pLastPage = &m_mapPages[pageBase];
        m_nLastPageBase = pageBase;
    }
    SPage& page = *m_pLastPage;
    const unsigned int slice = (base & kPageMask) / kSliceSize;
    const uint64_t bit = uint64_t(1) << slice;
    const size_t place = static_cast<size_t>(__builtin_popcountll(page.m_nSlices & (bit - 1)));
    if ((page.m_nSlices & bit) == 0)
    {
        page.m_vecSlices.insert(page.m_vecSlices.begin() + static_cast<std::ptrdiff_t>(place), SSlice());
        page.m_nSlices |= bit;
    }
    m_nLastSliceBase = base;
    m_pLastSlice = &page.m_vecSlices[place];
}

void CTarvikHexfile::CByteMap::ToMemoryBlocks(std::vector<SMemoryBlock*>& blocks)
{
    for (SMemoryBlock* block : blocks)
        delete block;
    blocks.clear();
    if (m_mapPages.empty())
        return;

    std::vector<char> run;
    run.reserve(kRunReserve);
    uint64_t runStart = 0;
    uint64_t expected = 0;
    for (const auto& page : m_mapPages)
    {
        uint64_t slices = page.second.m_nSlices;
        for (const SSlice& slice : page.second.m_vecSlices)
        {
            // The slices are stored in address order; the lowest bit left is this one's.
            const unsigned int sliceIndex = static_cast<unsigned int>(__builtin_ctzll(slices));
            slices &= slices - 1;
            const uint64_t sliceAddress = static_cast<uint64_t>(page.first) + sliceIndex * kSliceSize;
            // Taken span by span of present bytes, which is the same as byte by byte.
            uint64_t present = slice.m_nPresent;
            unsigned int index = 0;
            while (present != 0)
            {
                const unsigned int skip = static_cast<unsigned int>(__builtin_ctzll(present));
                index += skip;
                present >>= skip;
                // Above the bytes still to look at, present holds zeros: only a full slice
                // has no zero bit at all.
                const unsigned int length =
                    present == ~uint64_t(0) ? kSliceSize : static_cast<unsigned int>(__builtin_ctzll(~present));
                const uint64_t address = sliceAddress + index;
                if (address > expected)
                {
                    if (!run.empty())
                        blocks.push_back(new SMemoryBlock(runStart, run.data(), run.size()));
                    run.clear();
                    runStart = address;
                    expected = address;
                }
                run.insert(run.end(), slice.m_acData + index, slice.m_acData + index + length);
                expected += length;
                index += length;
                present = length < kSliceSize ? present >> length : 0;
            }
        }
    }
    if (!run.empty())
        blocks.push_back(new SMemoryBlock(runStart, run.data(), run.size()));
}

void CTarvikHexfile::CByteMap::Clear()
{
    m_mapPages.clear();
    m_pLastPage = nullptr;
    m_pLastSlice = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Image

CTarvikHexfile::CTarvikHexfile() : m_eType(Detect), m_nMaxAddr(0), m_nMinAddr(0) {}

CTarvikHexfile::~CTarvikHexfile()
{
    ClearMemoryBlocks();
}

void CTarvikHexfile::AddMemoryBlock(unsigned int start, const char* data, unsigned int length)
{
    try
    {
        std::unique_ptr<SMemoryBlock> block(new SMemoryBlock(start, data, length));
        m_vecBlocks.push_back(block.get());
        (void)block.release(); // the list owns it now
    }
    catch (const std::bad_alloc&)
    {
        return;
    }
    // An empty block holds no address, so it cannot raise the maximum.
    if (length == 0)
        return;
    unsigned int last = start + length - 1;
    if (last > m_nMaxAddr)
        m_nMaxAddr = last;
}

void CTarvikHexfile::AddMemoryBlock(SMemoryBlock* block)
{
    if (block == nullptr)
        return;
    try
    {
        m_vecBlocks.push_back(block);
    }
    catch (const std::bad_alloc&)
    {
        delete block;
        return;
    }
    if (block->m_nLength == 0)
        return;
    uint64_t last = block->m_nStartAddress + block->m_nLength - 1;
    if (last > m_nMaxAddr)
        m_nMaxAddr = last;
}

void CTarvikHexfile::ClearMemoryBlocks()
{
    for (SMemoryBlock* block : m_vecBlocks)
        delete block;
    m_vecBlocks.clear();
}

void CTarvikHexfile::RecalcMinMax()
{
    m_nMaxAddr = 0;
    for (size_t i = 0; i < m_vecBlocks.size(); ++i)
    {
        const SMemoryBlock* block = m_vecBlocks[i];
        if (block->m_nStartAddress + block->m_nLength > m_nMaxAddr)
            m_nMaxAddr = block->m_nStartAddress + block->m_nLength - 1;
        if (i == 0 || block->m_nStartAddress < m_nMinAddr)
            m_nMinAddr = block->m_nStartAddress;
    }
}

char CTarvikHexfile::GetDataByte(uint64_t address) const
{
    if (address > m_nMaxAddr)
        return 0;
    for (const SMemoryBlock* block : m_vecBlocks)
    {
        if (address >= block->m_nStartAddress && address - block->m_nStartAddress < block->m_nLength)
            return block->m_pData[address - block->m_nStartAddress];
    }
    return 0;
}

void CTarvikHexfile::SetDataByte(uint64_t address, char value)
{
    for (SMemoryBlock* block : m_vecBlocks)
    {
        if (address >= block->m_nStartAddress && address - block->m_nStartAddress < block->m_nLength)
        {
            block->m_pData[address - block->m_nStartAddress] = value;
            return;
        }
    }
    // A new byte stays a block of its own, even right beside another block.
    try
    {
        std::unique_ptr<SMemoryBlock> block(new SMemoryBlock(address, &value, 1));
        m_vecBlocks.push_back(block.get());
        (void)block.release(); // the list owns it now
    }
    catch (const std::bad_alloc&)
    {
        return;
    }
    RecalcMinMax();
}

uint64_t CTarvikHexfile::GetTotalBytes() const
{
    uint64_t total = 0;
    for (const SMemoryBlock* block : m_vecBlocks)
        total += block->m_nLength;
    return total;
}

// ---------------------------------------------------------------------------------------------
// Reading

uint32_t CTarvikHexfile::LoadFile(const char* name, EType type)
{
    m_sErrorMessage.clear();
    if (name == nullptr)
        return ResultOk;
    uint32_t result = ResultOk;
    try
    {
        m_sFilename = name;
        std::ifstream stream(name);
        if (!stream.is_open())
        {
            m_sErrorMessage = std::string("File <") + name + "> could not be opened.";
            return ResultOpenFailed;
        }
        result = AnalizeFile(stream, type);
        stream.close();
        if (result == ResultOk && m_eType == Binary)
            result = LoadFileBinary(name);
        if (result == ResultInvalidFormat || result == ResultChecksumOrAddress)
            m_sErrorMessage =
                std::string("File <") + name + ">: checksum error.\n\n" + m_sErrorMessage + "\nIgnore error? ";
        else if (result != ResultOk)
            m_sErrorMessage = std::string("File <") + name + ">: could not be opened.\n\n" + m_sErrorMessage;
    }
    catch (const std::exception&)
    {
        // Out of memory for the image: the file cannot be taken in.
        m_sErrorMessage.clear();
        return ResultOpenFailed;
    }
    return result;
}

uint32_t CTarvikHexfile::AnalizeFile(std::istream& stream, EType type)
{
    try
    {
        CLineReader reader(stream);
        std::string line;
        line.reserve(kLineBufferSize + 1);
        size_t extracted = reader.ReadLine(line);
        if (extracted == 0)
            return ResultEmptyOrAddress;

        if (type != Detect)
        {
            m_eType = type;
            if (type == Binary)
                return ResultOk;
        }
        else if (line[0] == ':')
            m_eType = Intel;
        else if (line[0] == 'S')
            m_eType = Motorola;
        else
        {
            m_eType = Binary;
            return ResultOk;
        }

        CByteMap map;
        unsigned int extendedAddress = 0;
        uint32_t result = ResultOk;
        const bool intel = m_eType == Intel;
        while (extracted > 0)
        {
            uint32_t lineResult = intel ? AnalizeLineIntel(line, map, extendedAddress) : AnalizeLineMotorola(line, map);
            // Messages are set only together with a non-zero result, so only then can they hold
            // the NUL that ends every line.
            if (lineResult != ResultOk)
            {
                ReplaceNul(m_sErrorMessage);
                result = lineResult;
            }
            extracted = reader.ReadLine(line);
        }

        map.ToMemoryBlocks(m_vecBlocks);
        if (!intel)
            RecalcMinMax();
        map.Clear();
        return result;
    }
    catch (const std::exception&)
    {
        m_sErrorMessage.clear();
        return ResultOpenFailed;
    }
}

uint32_t CTarvikHexfile::AnalizeLineIntel(const std::string& line, CByteMap& map, unsigned int& extendedAddress)
{
    const size_t length = line.size();
    if (length == 0 || line[0] == ';')
        return ResultOk;
    if (line[0] != ':' || length < 11)
    {
        if (MolStrTrim(line.c_str()).empty())
            return ResultOk;
        m_sErrorMessage = kMsgInvalidFormat + line;
        return ResultInvalidFormat;
    }

    const char* text = line.data();
    const unsigned int count = HexByte(text + 1);
    const unsigned int offset = (HexByte(text + 3) << 8) | HexByte(text + 5);
    const unsigned int type = HexByte(text + 7);
    if (2 * count + 11 > length)
    {
        m_sErrorMessage = kMsgInvalidFormat + line;
        return ResultInvalidFormat;
    }
    const unsigned int checksum = HexByte(text + 2 * static_cast<size_t>(count) + 9);
    unsigned int sum = count + (offset >> 8) + (offset & 0xFF) + type;

    try
    {
        switch (type)
        {
        case kIntelData:
        {
            const char* data = text + 9;
            const unsigned int base = extendedAddress + offset;
            for (unsigned int i = 0; i < count; ++i, data += 2)
            {
                unsigned int value = HexByte(data);
                sum += value;
                unsigned int address = base + i;
                map.SetByte(address, static_cast<char>(value));
                if (address > m_nMaxAddr)
                    m_nMaxAddr = address;
            }
            break;
        }
        case kIntelEndOfFile: break;
        case kIntelExtendedSegment:
        case kIntelExtendedLinear:
        {
            unsigned int high = HexByteAt(line, 9);
            unsigned int low = HexByteAt(line, 11);
            sum += high + low;
            unsigned int value = (high << 8) | low;
            extendedAddress = type == kIntelExtendedLinear ? value << 16 : value << 4;
            if (extendedAddress < m_nMinAddr || s_bFirstTime)
            {
                m_nMinAddr = extendedAddress;
                s_bFirstTime = false;
            }
            break;
        }
        case kIntelStartLinear:
            for (size_t index = 9; index < 17; index += 2)
                sum += HexByteAt(line, index);
            break;
        default:
            // Start segment address (3) is refused like an unknown type.
            m_sErrorMessage = kMsgInvalidType + line;
            return ResultInvalidRecordType;
        }
    }
    catch (const std::bad_alloc&)
    {
        m_sErrorMessage.clear();
        return ResultOpenFailed;
    }

    if (((0u - sum) & 0xFF) != checksum)
    {
        m_sErrorMessage = kMsgInvalidChecksum + line;
        std::cout << m_sErrorMessage << std::endl;
        return ResultChecksumOrAddress;
    }
    if (m_nMaxAddr > m_nMaxAddressSupported)
    {
        m_sErrorMessage = kMsgAbove4G;
        std::cout << kMsgAbove4GPrinted << m_nMaxAddr << std::endl;
        return ResultEmptyOrAddress;
    }
    return ResultOk;
}

uint32_t CTarvikHexfile::AnalizeLineMotorola(const std::string& line, CByteMap& map)
{
    const size_t length = line.size();
    if (length == 0)
        return ResultOk;
    if (line[0] != 'S' || length < 8)
    {
        if (MolStrTrim(line.c_str()).empty())
            return ResultOk;
        m_sErrorMessage = kMsgInvalidFormat + line;
        return ResultInvalidFormat;
    }

    unsigned int addressBytes = 0;
    switch (line[1])
    {
    case '0': // header
    case '5': // record count
    case '7': // start addresses
    case '8':
    case '9': break;
    case '1': addressBytes = 2; break;
    case '2': addressBytes = 3; break;
    case '3': addressBytes = 4; break;
    default: m_sErrorMessage = kMsgInvalidType + line; return ResultInvalidRecordType;
    }

    if (addressBytes > 0)
    {
        const char* text = line.data();
        const unsigned int count = HexByte(text + 2);
        // A count below address size + 1 would make the data length negative.
        if (2 * count + 4 > length || count < addressBytes + 1)
        {
            m_sErrorMessage = kMsgInvalidLength + line;
            return ResultInvalidFormat;
        }
        unsigned int address = 0;
        for (unsigned int i = 0; i < 2 * addressBytes; ++i)
            address = (address << 4) | HexDigit(text[4 + i]);
        const unsigned int dataBytes = count - addressBytes - 1;
        const char* data = text + 4 + 2 * static_cast<size_t>(addressBytes);
        try
        {
            for (unsigned int i = 0; i < dataBytes; ++i, data += 2)
            {
                unsigned int target = address + i;
                map.SetByte(target, static_cast<char>(HexByte(data)));
                if (target > m_nMaxAddr)
                    m_nMaxAddr = target;
            }
        }
        catch (const std::bad_alloc&)
        {
            m_sErrorMessage.clear();
            return ResultOpenFailed;
        }
    }

    // The S-record checksum is not verified.
    if (m_nMaxAddr > m_nMaxAddressSupported)
    {
        m_sErrorMessage = kMsgAbove4G;
        std::cout << kMsgAbove4GPrinted << m_nMaxAddr << std::endl;
        return ResultChecksumOrAddress;
    }
    return ResultOk;
}

uint32_t CTarvikHexfile::LoadFileBinary(const char* name)
{
    CMolFileStatus status;
    if (name == nullptr || !CMolFile::GetStatus(name, status) || !status.m_bExists)
        return ResultOpenFailed;
    std::ifstream stream(name, std::ios::in | std::ios::binary);
    if (!stream.is_open())
        return ResultOpenFailed;
    try
    {
        const uint32_t size = static_cast<uint32_t>(status.m_nSize);
        std::unique_ptr<SMemoryBlock> block(new SMemoryBlock(0, nullptr, size));
        stream.read(block->m_pData, static_cast<std::streamsize>(size));
        AddMemoryBlock(block.release());
    }
    catch (const std::bad_alloc&)
    {
        return ResultOpenFailed;
    }
    return ResultOk;
}

// ---------------------------------------------------------------------------------------------
// Writing

uint32_t CTarvikHexfile::SaveFile(const char* name, EType type)
{
    m_sErrorMessage.clear();
    if (name == nullptr)
        return ResultOk;
    try
    {
        std::ofstream stream(name, std::ios::out | std::ios::trunc);
        if (!stream.is_open())
        {
            m_sErrorMessage = std::string("File ") + name + " could not be opened.\n\n";
            return ResultOpenFailed;
        }
        bool saved = false;
        if (type == Intel)
            saved = SaveAsFileIntel(stream);
        else if (type == Motorola)
            saved = SaveAsFileMotorola(stream);
        else
        {
            stream.close();
            stream.open(name, std::ios::out | std::ios::binary | std::ios::trunc);
            saved = SaveAsFileBinary(stream) == ResultOk;
        }
        stream.close();
        if (!saved)
        {
            m_sErrorMessage = std::string("File ") + name + " could not be saved.\n\n" + m_sErrorMessage;
            return ResultSaveFailed;
        }
        m_sFilename = name;
    }
    catch (const std::exception&)
    {
        return ResultSaveFailed;
    }
    return ResultOk;
}

bool CTarvikHexfile::SaveAsFileIntel(std::ostream& stream)
{
    // The stream is switched to upper case just before the first data record, so an extended
    // address record that opens the file keeps lower-case letters.
    bool upper = (stream.flags() & std::ios::uppercase) != 0;
    uint32_t currentUpper = 0;
    {
        COutBuffer out(stream);
        for (const SMemoryBlock* block : m_vecBlocks)
        {
            for (uint64_t offset = 0; offset < block->m_nLength; offset += kBytesPerRecord)
            {
                const uint32_t address = static_cast<uint32_t>(block->m_nStartAddress + offset);
                const unsigned int count =
                    static_cast<unsigned int>(std::min<uint64_t>(kBytesPerRecord, block->m_nLength - offset));
                char* p = out.Reserve();
                if ((address & 0xFFFF0000u) != currentUpper)
                {
                    const uint32_t value = address >> 16;
                    const uint32_t checksum = (0u - ((value >> 8) + (value & 0xFF) + 6)) & 0xFF;
                    const char* digits = upper ? kUpperDigits : kLowerDigits;
                    std::memcpy(p, ":02000004", 9);
                    p = PutHex(p + 9, value, 4, digits);
                    p = PutHex(p, checksum, 2, digits);
                    *p++ = '\n';
                    currentUpper = address & 0xFFFF0000u;
                }
                upper = true;
                uint32_t sum = count + ((address >> 8) & 0xFF) + (address & 0xFF);
                *p++ = ':';
                p = PutHex(p, count, 2, kUpperDigits);
                p = PutHex(p, address & 0xFFFF, 4, kUpperDigits);
                *p++ = '0';
                *p++ = '0';
                const unsigned char* data = reinterpret_cast<const unsigned char*>(block->m_pData + offset);
                for (unsigned int i = 0; i < count; ++i)
                {
                    sum += data[i];
                    p = PutHex(p, data[i], 2, kUpperDigits);
                }
                p = PutHex(p, (0u - sum) & 0xFF, 2, kUpperDigits);
                *p++ = '\n';
                out.Commit(p);
            }
        }
        char* p = out.Reserve();
        static const char kEndRecord[] = ":00000001FF\n";
        std::memcpy(p, kEndRecord, sizeof(kEndRecord) - 1);
        out.Commit(p + sizeof(kEndRecord) - 1);
    }
    if (upper)
        stream.setf(std::ios::uppercase);
    return true;
}

bool CTarvikHexfile::SaveAsFileMotorola(std::ostream& stream)
{
    COutBuffer out(stream);
    for (const SMemoryBlock* block : m_vecBlocks)
    {
        for (uint64_t offset = 0; offset < block->m_nLength; offset += kBytesPerRecord)
        {
            const uint64_t fullAddress = block->m_nStartAddress + offset;
            const uint32_t address = static_cast<uint32_t>(fullAddress);
            const unsigned int count =
                static_cast<unsigned int>(std::min<uint64_t>(kBytesPerRecord, block->m_nLength - offset));
            char type = '3';
            unsigned int addressBytes = 4;
            if (fullAddress <= 0xFFFF)
            {
                type = '1';
                addressBytes = 2;
            }
            else if (fullAddress < 0x1000000)
            {
                type = '2';
                addressBytes = 3;
            }
            const unsigned int recordCount = count + addressBytes + 1;
            uint32_t sum =
                recordCount + (address >> 24) + ((address >> 16) & 0xFF) + ((address >> 8) & 0xFF) + (address & 0xFF);
            char* p = out.Reserve();
            *p++ = 'S';
            *p++ = type;
            p = PutHex(p, recordCount, 2, kUpperDigits);
            p = PutHex(p, address, static_cast<int>(2 * addressBytes), kUpperDigits);
            const unsigned char* data = reinterpret_cast<const unsigned char*>(block->m_pData + offset);
            for (unsigned int i = 0; i < count; ++i)
            {
                sum += data[i];
                p = PutHex(p, data[i], 2, kUpperDigits);
            }
            p = PutHex(p, ~sum & 0xFF, 2, kUpperDigits);
            *p++ = '\n';
            out.Commit(p);
        }
    }
    return true;
}

uint32_t CTarvikHexfile::SaveAsFileBinary(std::ostream& stream)
{
    if (m_vecBlocks.empty())
        return ResultOk;
    // The test is on the image's minimum, not on the block's own start.
    if (m_vecBlocks.size() == 1 && m_nMinAddr == 0)
    {
        const SMemoryBlock* block = m_vecBlocks.front();
        stream.write(block->m_pData, static_cast<std::streamsize>(block->m_nLength));
        stream.flush();
        return ResultOk;
    }
    m_sErrorMessage = kMsgBinaryRefused + m_sErrorMessage;
    return ResultBinaryRefused;
}

void CTarvikHexfile::SetFilename(const char* name)
{
    if (name != nullptr)
        m_sFilename = name;
    else
        m_sFilename = "tmp" + MolToString(nTempFilenameLfdNr++);
}

std::string CTarvikHexfile::GetSizeString(int bytes) const
{
    if (bytes % 1024 != 0)
        return MolToString(bytes) + " byte";
    return MolToString(bytes / 1024) + " kbyte";
}

// ---------------------------------------------------------------------------------------------
// Dumps

void CTarvikHexfile::MemDumpLine(const char* data, const bool* present, uint64_t size, uint64_t offset, char* out,
                                 unsigned long* written, uint64_t bytesPerLine, uint64_t /*address*/) const
{
    if (out == nullptr)
        return;
    char* p = out + std::strlen(out);
    const uint64_t remaining = (data != nullptr && present != nullptr && offset < size) ? size - offset : 0;
    for (uint64_t i = 0; i < bytesPerLine; ++i)
    {
        if (i % 8 == 0)
            *p++ = ' ';
        if (i < remaining && present[offset + i])
        {
            unsigned char byte = static_cast<unsigned char>(data[offset + i]);
            *p++ = kUpperDigits[byte >> 4];
            *p++ = kUpperDigits[byte & 0xF];
            *p++ = ' ';
        }
        else if (i < remaining)
        {
            std::memcpy(p, "-- ", 3);
            p += 3;
        }
        else
        {
            std::memcpy(p, "   ", 3);
            p += 3;
        }
    }
    for (uint64_t i = 0; i < bytesPerLine; ++i)
    {
        if (i >= remaining || !present[offset + i])
        {
            *p++ = ' ';
            continue;
        }
        unsigned char byte = static_cast<unsigned char>(data[offset + i]);
        *p++ = (byte < 0x20 || byte >= 0x7F) ? '.' : static_cast<char>(byte);
    }
    *p = '\0';
    if (written != nullptr)
        *written = static_cast<unsigned long>(p - out + 1);
}

void CTarvikHexfile::MemDump(const char* data, const bool* present, uint64_t size, char* out, uint64_t bytesPerLine,
                             uint64_t address) const
{
    if (out == nullptr || bytesPerLine == 0)
        return;
    const uint64_t lines = size / bytesPerLine + (size % bytesPerLine != 0 ? 1 : 0);
    char* p = out;
    for (uint64_t k = 0; k < lines; ++k)
    {
        // Later lines start at the position just behind the previous newline; an explicit
        // NUL there keeps them from being appended to stale text in the caller's buffer.
        if (k > 0)
            *p = '\0';
        unsigned long written = 0;
        MemDumpLine(data, present, size, k * bytesPerLine, p, &written, bytesPerLine, address + k * bytesPerLine);
        p += written - 1;
        *p++ = '\n';
    }
    *p = '\0';
}

void CTarvikHexfile::GetPrintDump(char* out, uint64_t bytesPerLine, uint64_t from, uint64_t to) const
{
    if (out == nullptr || bytesPerLine == 0)
        return;
    const uint64_t high = std::min(m_nMaxAddr, to);
    const uint64_t low = std::min(m_nMaxAddr, from);
    // A range that ends before it starts (or spans all 2^64 addresses) is an empty dump.
    if (low > high || high - low == UINT64_MAX)
    {
        *out = '\0';
        return;
    }
    const uint64_t size = high - low + 1;
    std::unique_ptr<char[]> data;
    std::unique_ptr<bool[]> present;
    try
    {
        data.reset(new char[size]());
        present.reset(new bool[size]());
    }
    catch (const std::bad_alloc&)
    {
        *out = '\0';
        return;
    }
    for (const SMemoryBlock* block : m_vecBlocks)
    {
        if (block->m_nStartAddress + block->m_nLength < low)
            continue;
        if (block->m_nStartAddress > high)
            break;
        uint64_t source = 0;
        uint64_t target = 0;
        uint64_t count = 0;
        if (block->m_nStartAddress < low)
        {
            source = low - block->m_nStartAddress;
            count = std::min(size, block->m_nLength - source);
        }
        else
        {
            target = block->m_nStartAddress - low;
            count = std::min(size - target, block->m_nLength);
        }
        std::memcpy(data.get() + target, block->m_pData + source, count);
        std::fill(present.get() + target, present.get() + target + count, true);
    }
    MemDump(data.get(), present.get(), size, out, bytesPerLine, low);
}

void CTarvikHexfile::GetPrintDump(char* out, uint64_t bytesPerLine) const
{
    GetPrintDump(out, bytesPerLine, 0, m_nMaxAddr);
}

uint64_t CTarvikHexfile::GetNumberOfBytesNeedForLine(unsigned int bytesPerLine) const
{
    // A full line: three characters per byte, one blank per group of eight, one character
    // per byte, and the NUL. Measured on a scratch line, as the dump itself writes it.
    const uint64_t need = 4ull * bytesPerLine + (bytesPerLine + 7ull) / 8 + 1;
    static const char kScratch[512] = {};
    static const bool kPresent[512] = {};
    std::unique_ptr<char[]> line(new (std::nothrow) char[need]());
    if (!line)
        return need;
    unsigned long written = 0;
    MemDumpLine(kScratch, kPresent, sizeof(kScratch), 0, line.get(), &written, bytesPerLine, 0);
    return written;
}
