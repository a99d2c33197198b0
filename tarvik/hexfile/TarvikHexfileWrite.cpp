#include "tarvik/hexfile/TarvikHexfile.h"

#include "tarvik/hexfile/TarvikHexDigitsPrivate.h"
#include "tarvik/hexfile/TarvikHexOutBuffer.h"
#include "tarvik/runtime/MolString.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>

using tarvik_detail::CTarvikHexOutBuffer;
using tarvik_detail::kLowerDigits;
using tarvik_detail::kUpperDigits;
using tarvik_detail::PutHex;

namespace
{
constexpr unsigned int kBytesPerRecord = 16;

const char kMsgBinaryRefused[] =
    "Data could not be saved in binary format because of StartAddress != 0 OR multiple blocks in hex data.\n\n";
} // namespace

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
        CTarvikHexOutBuffer out(stream);
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
    CTarvikHexOutBuffer out(stream);
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
