#include "sim/TarvikSimDeviceSPI.h"

#include "tarvik/core/TarvikPayload.h"

#include "sim/TarvikSimSpiSequence.h"

namespace
{
constexpr size_t kGlobalsSize = 7;
// Room for the answer data after the result byte.
constexpr size_t kMaxAnswer = CTarvikSimDevice::kMaxData - 1;
} // namespace

CTarvikSimDeviceSPI::CTarvikSimDeviceSPI(unsigned int index)
    : CTarvikSimDevice(eTarvikSPI, index), m_nRate(kDefaultRate), m_nSetting1(0), m_nSetting2(0), m_nSetting3(0),
      m_oEeprom()
{
}

CTarvikSimDeviceSPI::~CTarvikSimDeviceSPI() = default;

bool CTarvikSimDeviceSPI::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case eCmdDataReq: answer = DataReq(data); return true;
    case eCmdSetGlobals: answer = SetGlobals(data); return true;
    case eCmdGetGlobals: answer = GetGlobalsAnswer(data); return true;
    case eCmdSequence: answer = Sequence(data); return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceSPI::DataReq(const std::string& data)
{
    if (data.size() > kMaxAnswer)
        return Answer(eTarvikSimSpiInconsistent);
    std::string answer = Answer(eTarvikSimSpiOk);
    if (data.empty())
        return answer;
    answer.reserve(data.size() + 1);
    // One transfer is one chip-select frame, full duplex.
    m_oEeprom.Select();
    for (char mosi : data)
        answer.push_back(static_cast<char>(m_oEeprom.Transfer(static_cast<unsigned char>(mosi))));
    m_oEeprom.Deselect();
    return answer;
}

std::string CTarvikSimDeviceSPI::SetGlobals(const std::string& data)
{
    if (data.size() != kGlobalsSize)
        return Answer(eTarvikSimSpiInconsistent);
    const CTarvikPayload globals(data);
    m_nRate = globals.U32At(0);
    m_nSetting1 = globals.At(4);
    m_nSetting2 = globals.At(5);
    m_nSetting3 = globals.At(6);
    return Answer(eTarvikSimSpiOk);
}

std::string CTarvikSimDeviceSPI::GetGlobalsAnswer(const std::string& data) const
{
    if (!data.empty())
        return Answer(eTarvikSimSpiInconsistent);
    std::string globals = CTarvikMsg::ToChar(m_nRate);
    globals.push_back(static_cast<char>(m_nSetting1));
    globals.push_back(static_cast<char>(m_nSetting2));
    globals.push_back(static_cast<char>(m_nSetting3));
    return Answer(eTarvikSimSpiOk, globals);
}

std::string CTarvikSimDeviceSPI::Sequence(const std::string& data)
{
    CTarvikSimSpiSequence sequence;
    unsigned char result = sequence.Parse(data, kMaxAnswer);
    if (result != eTarvikSimSpiOk)
        return Answer(result);
    std::string out;
    result = sequence.Run(m_oEeprom, out);
    return result == eTarvikSimSpiOk ? Answer(result, out) : Answer(result);
}

void CTarvikSimDeviceSPI::OnRestart()
{
    m_nRate = kDefaultRate;
    m_nSetting1 = 0;
    m_nSetting2 = 0;
    m_nSetting3 = 0;
    m_oEeprom.Reset();
}

void CTarvikSimDeviceSPI::GetGlobals(unsigned int& rate, unsigned char& setting1, unsigned char& setting2,
                                     unsigned char& setting3) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    rate = m_nRate;
    setting1 = m_nSetting1;
    setting2 = m_nSetting2;
    setting3 = m_nSetting3;
}

std::string CTarvikSimDeviceSPI::PeekEeprom(size_t address, size_t len) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_oEeprom.Peek(address, len);
}

void CTarvikSimDeviceSPI::PokeEeprom(size_t address, const std::string& data)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_oEeprom.Poke(address, data);
}

void CTarvikSimDeviceSPI::EraseEeprom()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_oEeprom.Erase();
}

unsigned char CTarvikSimDeviceSPI::GetEepromStatus() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_oEeprom.GetStatus();
}

void CTarvikSimDeviceSPI::SetEepromWriteCycleMs(unsigned int ms)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_oEeprom.SetWriteCycleMs(ms);
}
