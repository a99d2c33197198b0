#include "tarvik/clients/TarvikClientTestSystemCOM.h"

#include <boost/crc.hpp>

namespace
{
// A name on the wire: its length byte, then the characters. The byte is the low 8 bits
// of the length; the name itself is not cut.
std::string LengthPrefixed(const std::string& text)
{
    std::string out(1, static_cast<char>(text.size() & 0xFF));
    out += text;
    return out;
}

// Appends up to size bytes of the file to out; false once a read falls short (end of
// file or error), which is what ends the transfer.
bool AppendChunk(std::ifstream& file, std::string& out, size_t size)
{
    size_t start = out.size();
    out.resize(start + size);
    file.read(&out[start], static_cast<std::streamsize>(size));
    out.resize(start + static_cast<size_t>(file.gcount()));
    return !file.fail();
}
} // namespace

CTarvikClientTestSystemCOM::CTarvikClientTestSystemCOM(int timeoutMs)
    : CTarvikClient(eTarvikTestSystemCOM, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientTestSystemCOM::~CTarvikClientTestSystemCOM()
{
    StopConnection();
}

int CTarvikClientTestSystemCOM::SetConfig(const std::string& sName)
{
    CTarvikReply reply;
    return Request(eCmdSetConfig, LengthPrefixed(sName), reply);
}

int CTarvikClientTestSystemCOM::GetConfig(std::string& sName)
{
    CTarvikReply reply;
    int result = Request(eCmdGetConfig, nullptr, 0, reply);
    if (result == 0)
        sName = reply.Substr(1);
    return result;
}

int CTarvikClientTestSystemCOM::IsConfigAvailable(const std::string& sName, bool& bAvailable, unsigned int& nCRC)
{
    CTarvikReply reply;
    int result = Request(eCmdIsConfigAvailable, LengthPrefixed(sName), reply);
    unsigned char available = 0;
    if (result != 0 || !reply.ReadU8(1, available))
        return result;
    bAvailable = available != 0;
    if (bAvailable)
        reply.ReadU32(2, nCRC);
    return result;
}

int CTarvikClientTestSystemCOM::SendFile(const std::string& sPath, unsigned int nCRC)
{
    std::ifstream file(sPath, std::ios::binary);
    if (!file.is_open())
        return eResultFileOpen;
    if (nCRC == 0)
        nCRC = GetCRC32(file);
    file.seekg(0, std::ios::end);
    std::streamoff size = file.tellg();
    file.seekg(0, std::ios::beg);

    std::string payload = CTarvikMsg::ToChar(nCRC);
    payload += CTarvikMsg::ToChar(static_cast<unsigned int>(size)); // the low 32 bits
    payload += LengthPrefixed(GetFileName(sPath));
    bool more = AppendChunk(file, payload, kChunkSize);
    CTarvikReply reply;
    int result = Request(eCmdFileStart, std::move(payload), reply);
    // Only the low byte is looked at: the unit's "send more" is 0x21 in it.
    while ((result & 0xFF) == kMoreData && more)
    {
        std::string chunk;
        more = AppendChunk(file, chunk, kChunkSize);
        result = Request(eCmdFileData, std::move(chunk), reply);
    }
    return result;
}

int CTarvikClientTestSystemCOM::InstallConfig(const std::string& sName, const std::string& sPath)
{
    unsigned int crc = 0;
    {
        std::ifstream file(sPath, std::ios::binary);
        if (!file.is_open())
            return eResultFileOpen;
        crc = GetCRC32(file);
    }
    bool available = false;
    // Unlike any CRC of the file, so that an answer without a CRC never looks the same.
    unsigned int unitCRC = ~crc;
    int result = IsConfigAvailable(sName, available, unitCRC);
    if (result != 0)
        return result;
    if (available && unitCRC == crc)
        return 0;
    result = SendFile(sPath, crc);
    if (result != 0)
        return result;
    std::string payload = CTarvikMsg::ToChar(crc);
    payload += LengthPrefixed(sName);
    payload += LengthPrefixed(GetFileName(sPath));
    CTarvikReply reply;
    return Request(eCmdInstallConfig, std::move(payload), reply);
}

std::string CTarvikClientTestSystemCOM::GetFileName(const std::string& sPath)
{
    size_t slash = sPath.find_last_of("/\\");
    return slash == std::string::npos ? sPath : sPath.substr(slash + 1);
}

unsigned int CTarvikClientTestSystemCOM::GetCRC32(std::ifstream& file)
{
    if (!file.is_open())
        return 0;
    file.clear();
    file.seekg(0, std::ios::beg);
    boost::crc_32_type crc;
    char block[kCRCBlockSize];
    do
    {
        file.read(block, sizeof(block));
        crc.process_bytes(block, static_cast<size_t>(file.gcount()));
    } while (file);
    file.clear();
    return crc.checksum();
}
