#include "sim/TarvikSimDeviceFirmware.h"

#include "tarvik/core/TarvikPayload.h"

#include <algorithm>

namespace
{
// The device answers the command numbers its client sends.
namespace wire = tarvik_protocol::firmware;
constexpr size_t kAddressSize = 4;

// The address field: four bytes, most significant first.
size_t Address(const std::string& data)
{
    size_t address = 0;
    for (size_t i = 0; i < kAddressSize; ++i)
        address = address << 8 | static_cast<unsigned char>(data[i]);
    return address;
}

// A layout-2 information image as the gateways leave the factory.
std::string FactoryImage()
{
    std::string image(CTarvikSimDeviceFirmware::kEEPromSize, '\xFF');
    image.replace(0x00, 4, CTarvikMsg::ToChar(0x00002000u));
    image.replace(0x04, 4, CTarvikMsg::ToChar(0x00010203u));
    image.replace(0x08, 4, CTarvikMsg::ToChar(0x0001010Au));
    image.replace(0x0C, 4, CTarvikMsg::ToChar(2u));
    image.replace(0x10, 4, CTarvikMsg::ToChar(20261122u));
    image[0x14] = 3;
    image[0x15] = 0x1B;
    image.replace(0x20, 16, "TARVIK-GW-000001");
    image[0x30] = 1;
    image.replace(0x40, 4, CTarvikMsg::ToChar(0x12345678u));
    image.replace(0x44, 2, CTarvikMsg::ToChar(static_cast<unsigned short>(0x0ABC)));
    return image;
}
} // namespace

CTarvikSimDeviceFirmware::CTarvikSimDeviceFirmware(unsigned int index)
    : CTarvikSimDevice(eTarvikFirmware, index), m_sEEProm(FactoryImage()), m_sFlash(kBlockSize * kBlockCount, '\xFF')
{
}

CTarvikSimDeviceFirmware::~CTarvikSimDeviceFirmware() = default;

std::string CTarvikSimDeviceFirmware::GetName() const
{
    return "Tarvik Firmware";
}

bool CTarvikSimDeviceFirmware::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case wire::eCmdGetEEPromInfo:
        answer = Answer(eResultOk, CTarvikMsg::ToChar(static_cast<unsigned short>(kEEPromPage)) +
                                       CTarvikMsg::ToChar(static_cast<unsigned int>(kEEPromSize)));
        return true;
    case wire::eCmdReadEEProm: answer = ReadEEProm(data); return true;
    case wire::eCmdWriteEEProm: answer = WriteEEProm(data); return true;
    case wire::eCmdClearFlash:
        m_sFlash.assign(m_sFlash.size(), '\xFF');
        answer = Answer(eResultOk);
        return true;
    case wire::eCmdReadFlash: answer = ReadFlash(data); return true;
    case wire::eCmdWriteFlash: answer = WriteFlash(data); return true;
    case wire::eCmdRestart: answer = Answer(eResultOk); return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceFirmware::ReadEEProm(const std::string& data) const
{
    if (data.size() != kAddressSize + 2)
        return Answer(eResultFailed);
    size_t address = Address(data);
    size_t len = CTarvikPayload(data).U16At(kAddressSize);
    if (address > kEEPromSize || len > kEEPromSize - address)
        return Answer(eResultEEProm);
    return Answer(eResultOk, m_sEEProm.substr(address, len));
}

std::string CTarvikSimDeviceFirmware::WriteEEProm(const std::string& data)
{
    if (data.size() < kAddressSize)
        return Answer(eResultFailed);
    size_t address = Address(data);
    size_t len = data.size() - kAddressSize;
    if (address > kEEPromSize || len > kEEPromSize - address)
        return Answer(eResultEEProm);
    m_sEEProm.replace(address, len, data, kAddressSize, len);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceFirmware::ReadFlash(const std::string& data) const
{
    if (data.size() != 2 || CTarvikPayload(data).U16At(0) >= kBlockCount)
        return Answer(eResultFailed);
    return Answer(eResultOk, data + m_sFlash.substr(CTarvikPayload(data).U16At(0) * kBlockSize, kBlockSize));
}

std::string CTarvikSimDeviceFirmware::WriteFlash(const std::string& data)
{
    if (data.size() != 2 + kBlockSize || CTarvikPayload(data).U16At(0) >= kBlockCount)
        return Answer(eResultFailed);
    m_sFlash.replace(CTarvikPayload(data).U16At(0) * kBlockSize, kBlockSize, data, 2, kBlockSize);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceFirmware::PeekEeprom(size_t address, size_t len) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return address < kEEPromSize ? m_sEEProm.substr(address, len) : std::string();
}

void CTarvikSimDeviceFirmware::PokeEeprom(size_t address, const std::string& data)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (address < kEEPromSize)
    {
        size_t len = std::min(data.size(), kEEPromSize - address);
        m_sEEProm.replace(address, len, data, 0, len);
    }
}

std::string CTarvikSimDeviceFirmware::PeekBlock(size_t block) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return block < kBlockCount ? m_sFlash.substr(block * kBlockSize, kBlockSize) : std::string();
}
