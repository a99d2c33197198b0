#include "sim/TarvikSimDeviceTestSystemCOM.h"

#include "tarvik/core/TarvikPayload.h"

namespace
{
// The unit answers the command numbers its client sends.
namespace wire = tarvik_protocol::testsystem_com;
// Reads a length-prefixed name at pos and moves pos past it; false when it is cut short.
bool ReadName(const std::string& data, size_t& pos, std::string& name)
{
    if (pos >= data.size())
        return false;
    size_t len = static_cast<unsigned char>(data[pos]);
    if (data.size() - pos - 1 < len)
        return false;
    name = data.substr(pos + 1, len);
    pos += 1 + len;
    return true;
}
} // namespace

CTarvikSimDeviceTestSystemCOM::CTarvikSimDeviceTestSystemCOM(unsigned int index)
    : CTarvikSimDevice(eTarvikTestSystemCOM, index), m_nTransfers(0)
{
}

CTarvikSimDeviceTestSystemCOM::~CTarvikSimDeviceTestSystemCOM() = default;

bool CTarvikSimDeviceTestSystemCOM::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case wire::eCmdSetConfig: answer = SetConfig(data); return true;
    case wire::eCmdGetConfig: answer = data.empty() ? Answer(eResultOk, m_sActive) : Answer(eResultFailed); return true;
    case wire::eCmdIsConfigAvailable: answer = IsConfigAvailable(data); return true;
    case wire::eCmdFileStart: answer = FileStart(data); return true;
    case wire::eCmdFileData: answer = FileData(data); return true;
    case wire::eCmdInstallConfig: answer = InstallConfig(data); return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceTestSystemCOM::SetConfig(const std::string& data)
{
    size_t pos = 0;
    std::string name;
    if (!ReadName(data, pos, name) || pos != data.size())
        return Answer(eResultFailed);
    if (m_asConfigs.count(name) == 0)
        return Answer(eResultStartFailed);
    if (name == m_sActive)
        return Answer(eResultAlreadyActive);
    m_sActive = name;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceTestSystemCOM::IsConfigAvailable(const std::string& data) const
{
    size_t pos = 0;
    std::string name;
    if (!ReadName(data, pos, name) || pos != data.size())
        return Answer(eResultFailed);
    unsigned int crc = 0;
    auto config = m_asConfigs.find(name);
    bool available = config != m_asConfigs.end();
    if (available)
    {
        auto file = m_aoFiles.find(config->second);
        crc = file != m_aoFiles.end() ? file->second.m_nCRC : 0;
    }
    return Answer(eResultOk, std::string(1, available ? '\1' : '\0') + CTarvikMsg::ToChar(crc));
}

std::string CTarvikSimDeviceTestSystemCOM::FileStart(const std::string& data)
{
    m_oTransfer = STransfer();
    size_t pos = 8;
    std::string name;
    if (data.size() < pos || !ReadName(data, pos, name))
        return Answer(eResultFailed);
    ++m_nTransfers;
    m_oTransfer.m_bActive = true;
    m_oTransfer.m_sName = name;
    m_oTransfer.m_nCRC = CTarvikPayload(data).U32At(0);
    m_oTransfer.m_nSize = CTarvikPayload(data).U32At(4);
    return Accept(data.data() + pos, data.size() - pos);
}

std::string CTarvikSimDeviceTestSystemCOM::FileData(const std::string& data)
{
    if (!m_oTransfer.m_bActive)
        return Answer(eResultFailed);
    return Accept(data.data(), data.size());
}

// Takes the next bytes of the upload; answers "more" until the announced size is in,
// then checks the CRC and stores the file.
std::string CTarvikSimDeviceTestSystemCOM::Accept(const char* bytes, size_t len)
{
    STransfer& transfer = m_oTransfer;
    transfer.m_oCRC.process_bytes(bytes, len);
    transfer.m_nReceived += len;
    if (transfer.m_nReceived < transfer.m_nSize)
        return Answer(eResultMoreData);
    transfer.m_bActive = false;
    if (transfer.m_nReceived > transfer.m_nSize || transfer.m_oCRC.checksum() != transfer.m_nCRC)
        return Answer(eResultCRCMismatch);
    m_aoFiles[transfer.m_sName] = SFile{transfer.m_nSize, transfer.m_nCRC};
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceTestSystemCOM::InstallConfig(const std::string& data)
{
    size_t pos = 4;
    std::string config, file;
    if (data.size() < pos || !ReadName(data, pos, config) || !ReadName(data, pos, file) || pos != data.size())
        return Answer(eResultFailed);
    auto stored = m_aoFiles.find(file);
    if (stored == m_aoFiles.end())
        return Answer(eResultFileOpen);
    if (stored->second.m_nCRC != CTarvikPayload(data).U32At(0))
        return Answer(eResultCRCMismatch);
    m_asConfigs[config] = file;
    m_sActive = config;
    return Answer(eResultOk);
}

void CTarvikSimDeviceTestSystemCOM::OnRestart()
{
    // Stored files and configurations are the unit's flash; an upload is not.
    m_oTransfer = STransfer();
}

bool CTarvikSimDeviceTestSystemCOM::GetFile(const std::string& name, unsigned int& size, unsigned int& crc) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    auto file = m_aoFiles.find(name);
    if (file == m_aoFiles.end())
        return false;
    size = file->second.m_nSize;
    crc = file->second.m_nCRC;
    return true;
}

std::string CTarvikSimDeviceTestSystemCOM::GetConfigFile(const std::string& config) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    auto found = m_asConfigs.find(config);
    return found != m_asConfigs.end() ? found->second : std::string();
}

std::string CTarvikSimDeviceTestSystemCOM::GetActiveConfig() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_sActive;
}

unsigned long CTarvikSimDeviceTestSystemCOM::GetTransferCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nTransfers;
}

void CTarvikSimDeviceTestSystemCOM::PresetConfig(const std::string& config, const std::string& file, unsigned int size,
                                                 unsigned int crc)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoFiles[file] = SFile{size, crc};
    m_asConfigs[config] = file;
}
