#include "tarvik/hexfile/TarvikHexfile.h"

#include "tarvik/hexfile/TarvikHexDigitsPrivate.h"
#include "tarvik/hexfile/TarvikHexLineReader.h"
#include "tarvik/runtime/MolFile.h"
#include "tarvik/runtime/MolString.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>

using tarvik_detail::CTarvikHexLineReader;
using tarvik_detail::HexByte;
using tarvik_detail::HexByteAt;
using tarvik_detail::HexDigit;

namespace
{
// Intel HEX record types.
constexpr unsigned int kIntelData = 0;
constexpr unsigned int kIntelEndOfFile = 1;
constexpr unsigned int kIntelExtendedSegment = 2;
constexpr unsigned int kIntelExtendedLinear = 4;
constexpr unsigned int kIntelStartLinear = 5;

const char kMsgInvalidFormat[] = "Invalid format in data line: ";
const char kMsgInvalidLength[] = "Invalid format in data line (line length): ";
const char kMsgInvalidType[] = "Invalid record type in data line: ";
const char kMsgInvalidChecksum[] = "Invalid checksum in data line: ";
const char kMsgAbove4G[] = "Data addresses above 4 giga byte are not supported. ";
const char kMsgAbove4GPrinted[] = "Data addresses above 4 giga byte are not supported, m_nMaxAddr = ";

// count bytes from 2 * count hex digits into out; returns their sum.
unsigned int DecodeHex(const char* text, char* out, unsigned int count)
{
    unsigned int sum = 0;
    for (unsigned int i = 0; i < count; ++i, text += 2)
    {
        const unsigned int value = HexByte(text);
        sum += value;
        out[i] = static_cast<char>(value);
    }
    return sum;
}

void ReplaceNul(std::string& text)
{
    std::replace(text.begin(), text.end(), '\0', '.');
}
} // namespace

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
        CTarvikHexLineReader reader(stream);
        std::string line;
        line.reserve(CTarvikHexLineReader::kLineBufferSize + 1);
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
            // Decoded into a local buffer first: stores through a char pointer could alias any
            // member, which would keep the compiler from holding anything in registers.
            char bytes[256];
            sum += DecodeHex(text + 9, bytes, count);
            map.SetBytes(extendedAddress + offset, bytes, count, m_nMaxAddr);
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
        char bytes[256];
        DecodeHex(text + 4 + 2 * static_cast<size_t>(addressBytes), bytes, dataBytes);
        try
        {
            map.SetBytes(address, bytes, dataBytes, m_nMaxAddr);
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
