#include "sim/TarvikSimDeviceI2C.h"

#include "tarvik/core/TarvikPayload.h"

#include <thread>

namespace
{
// The device answers the command numbers its client sends.
namespace wire = tarvik_protocol::i2c;
constexpr size_t kMaxAnswer = CTarvikSimDevice::kMaxData - 1;
// Slave u16, address count u8, offset of four bytes.
constexpr size_t kEEPromHeader = 7;
constexpr size_t kPollHeader = 9;
constexpr unsigned char kStopAfter = 0x01;
} // namespace

CTarvikSimDeviceI2C::CTarvikSimDeviceI2C(unsigned int index)
    : CTarvikSimDevice(eTarvikI2C, index), m_nRate(kDefaultRate), m_pActive(nullptr), m_bRawStarted(false)
{
    m_aoChips.emplace_back("24C256", 32768, 64, 2, 0xA0);
    m_aoChips.emplace_back("24C04", 512, 16, 1, 0xA4);
    m_aoChips.emplace_back("24C02", 256, 8, 1, 0xA8);
}

CTarvikSimDeviceI2C::~CTarvikSimDeviceI2C() = default;

bool CTarvikSimDeviceI2C::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case wire::eCmdReset:
        StopBus();
        m_bRawStarted = false;
        answer = Answer(eResultOk);
        return true;
    case wire::eCmdSetBaudrate:
        if (data.size() != 4)
            return answer = Answer(eResultFailed), true;
        m_nRate = CTarvikPayload(data).U32At(0);
        answer = Answer(eResultOk);
        return true;
    case wire::eCmdGetBaudrate: answer = Answer(eResultOk, CTarvikMsg::ToChar(m_nRate)); return true;
    case wire::eCmdRead: answer = Read(data); return true;
    case wire::eCmdWrite: answer = Write(data); return true;
    case wire::eCmdReadEEProm: answer = ReadEEProm(data); return true;
    case wire::eCmdWriteEEProm: answer = WriteEEProm(data, false); return true;
    case wire::eCmdWriteEEPromPollAck: answer = WriteEEProm(data, true); return true;
    case wire::eCmdSequence: answer = Sequence(data); return true;
    case wire::eCmdRAWStart:
        StopBus();
        m_bRawStarted = true;
        answer = Answer(eResultOk);
        return true;
    case wire::eCmdRAWSend: answer = RawSend(data); return true;
    case wire::eCmdRAWGet: answer = RawGet(data); return true;
    case wire::eCmdRAWStop:
        StopBus();
        m_bRawStarted = false;
        answer = Answer(eResultOk);
        return true;
    default: return false;
    }
}

CTarvikSimEeprom24* CTarvikSimDeviceI2C::Start(unsigned char address)
{
    StopBus();
    for (CTarvikSimEeprom24& chip : m_aoChips)
        if (chip.Matches(address))
            return m_pActive = chip.Start(address) ? &chip : nullptr;
    return nullptr;
}

void CTarvikSimDeviceI2C::StopBus()
{
    if (m_pActive != nullptr)
        m_pActive->Stop();
    m_pActive = nullptr;
}

std::string CTarvikSimDeviceI2C::Read(const std::string& data)
{
    if (data.size() != 4 || CTarvikPayload(data).U16At(2) > kMaxAnswer)
        return Answer(eResultFailed);
    CTarvikSimEeprom24* chip = Start(static_cast<unsigned char>(CTarvikPayload(data).U16At(0) | 1));
    if (chip == nullptr)
        return Answer(eResultNack);
    std::string bytes;
    for (unsigned short i = CTarvikPayload(data).U16At(2); i > 0; --i)
        bytes += static_cast<char>(chip->Read());
    StopBus();
    return Answer(eResultOk, bytes);
}

std::string CTarvikSimDeviceI2C::Write(const std::string& data)
{
    if (data.size() < 2)
        return Answer(eResultFailed);
    CTarvikSimEeprom24* chip = Start(static_cast<unsigned char>(CTarvikPayload(data).U16At(0) & 0xFE));
    if (chip == nullptr)
        return Answer(eResultNack, CTarvikMsg::ToChar(static_cast<unsigned short>(0)));
    unsigned short acked = 0;
    for (size_t i = 2; i < data.size() && chip->Write(static_cast<unsigned char>(data[i])); ++i)
        ++acked;
    StopBus();
    unsigned char result =
        acked == data.size() - 2 ? static_cast<unsigned char>(eResultOk) : static_cast<unsigned char>(eResultNack);
    return Answer(result, CTarvikMsg::ToChar(acked));
}

bool CTarvikSimDeviceI2C::AddressEEProm(unsigned char slave, unsigned char count, const char* offset)
{
    CTarvikSimEeprom24* chip = Start(static_cast<unsigned char>(slave & 0xFE));
    if (chip == nullptr || count > 4)
        return false;
    // The low count bytes of the offset field, most significant first.
    for (unsigned char i = 0; i < count; ++i)
        if (!chip->Write(static_cast<unsigned char>(offset[4 - count + i])))
            return false;
    return true;
}

std::string CTarvikSimDeviceI2C::ReadEEProm(const std::string& data)
{
    if (data.size() != kEEPromHeader + 2 || CTarvikPayload(data).U16At(kEEPromHeader) > kMaxAnswer)
        return Answer(eResultFailed);
    unsigned char slave = static_cast<unsigned char>(CTarvikPayload(data).U16At(0));
    if (!AddressEEProm(slave, static_cast<unsigned char>(data[2]), data.data() + 3))
        return StopBus(), Answer(eResultNack);
    // Repeated start in read form; the chip keeps the address just set.
    CTarvikSimEeprom24* chip = m_pActive;
    if (!chip->Start(static_cast<unsigned char>(slave | 1)))
        return StopBus(), Answer(eResultNack);
    std::string bytes;
    for (unsigned short i = CTarvikPayload(data).U16At(kEEPromHeader); i > 0; --i)
        bytes += static_cast<char>(chip->Read());
    StopBus();
    return Answer(eResultOk, bytes);
}

std::string CTarvikSimDeviceI2C::WriteEEProm(const std::string& data, bool poll)
{
    size_t header = poll ? kPollHeader : kEEPromHeader;
    if (data.size() < header)
        return Answer(eResultFailed);
    unsigned char slave = static_cast<unsigned char>(CTarvikPayload(data).U16At(0));
    size_t count = poll ? 4 : 2;
    if (!AddressEEProm(slave, static_cast<unsigned char>(data[count]), data.data() + count + 1))
        return StopBus(), Answer(eResultNack);
    for (size_t i = header; i < data.size(); ++i)
        m_pActive->Write(static_cast<unsigned char>(data[i]));
    StopBus();
    if (poll && !PollAck(slave, CTarvikPayload(data).U16At(2)))
        return Answer(eResultPollTimeout);
    return Answer(eResultOk);
}

bool CTarvikSimDeviceI2C::PollAck(unsigned char slave, unsigned int ms)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;)
    {
        bool acked = Start(static_cast<unsigned char>(slave & 0xFE)) != nullptr;
        StopBus();
        if (acked)
            return true;
        if (std::chrono::steady_clock::now() >= until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string CTarvikSimDeviceI2C::Sequence(const std::string& data)
{
    if (data.size() < 2)
        return Answer(eResultFailed);
    std::string read;
    unsigned short done = 0;
    for (size_t pos = 2; pos < data.size(); ++done)
    {
        if (data.size() - pos < 4)
            return Answer(eResultFailed);
        unsigned char address = static_cast<unsigned char>(CTarvikPayload(data).U16At(pos));
        unsigned short len = CTarvikPayload(data).U16At(pos + 2);
        pos += 4;
        bool reading = (address & 1) != 0;
        if ((!reading && data.size() - pos < len) || (reading && read.size() + len > kMaxAnswer - 2))
            return Answer(eResultFailed);
        CTarvikSimEeprom24* chip = Start(address);
        if (chip == nullptr)
            return Answer(eResultNack, CTarvikMsg::ToChar(done) + read);
        for (unsigned short i = 0; i < len; ++i)
            if (reading)
                read += static_cast<char>(chip->Read());
            else
                chip->Write(static_cast<unsigned char>(data[pos + i]));
        if (!reading)
            pos += len;
        StopBus();
    }
    return Answer(eResultOk, CTarvikMsg::ToChar(done) + read);
}

std::string CTarvikSimDeviceI2C::RawSend(const std::string& data)
{
    if (data.size() != 2)
        return Answer(eResultFailed);
    unsigned char byte = static_cast<unsigned char>(data[0]);
    bool acked = false;
    if (m_bRawStarted)
    {
        // The first byte after a start condition is the address.
        m_bRawStarted = false;
        acked = Start(byte) != nullptr;
    }
    else if (m_pActive != nullptr)
        acked = m_pActive->Write(byte);
    if (data[1] & kStopAfter)
        StopBus();
    return Answer(acked ? static_cast<unsigned char>(eResultOk) : static_cast<unsigned char>(eResultNack));
}

std::string CTarvikSimDeviceI2C::RawGet(const std::string& data)
{
    if (data.size() != 1)
        return Answer(eResultFailed);
    if (m_pActive == nullptr)
        return Answer(eResultNack);
    std::string byte(1, static_cast<char>(m_pActive->Read()));
    if (data[0] & kStopAfter)
        StopBus();
    return Answer(eResultOk, byte);
}

void CTarvikSimDeviceI2C::OnRestart()
{
    StopBus();
    m_bRawStarted = false;
    m_nRate = kDefaultRate;
    for (CTarvikSimEeprom24& chip : m_aoChips)
        chip.Reset();
}

std::string CTarvikSimDeviceI2C::PeekEeprom(EChip chip, size_t address, size_t len) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_aoChips.at(chip).Peek(address, len);
}

void CTarvikSimDeviceI2C::PokeEeprom(EChip chip, size_t address, const std::string& data)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoChips.at(chip).Poke(address, data);
}

void CTarvikSimDeviceI2C::SetEepromWriteCycleMs(unsigned int ms)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    for (CTarvikSimEeprom24& chip : m_aoChips)
        chip.SetWriteCycleMs(ms);
}

unsigned int CTarvikSimDeviceI2C::GetRate() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nRate;
}
