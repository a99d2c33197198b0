#include "sim/TarvikSimDeviceTestUnit.h"

#include "tarvik/core/TarvikPayload.h"

#include <algorithm>

CTarvikSimDeviceTestUnit::SLayout CTarvikSimDeviceTestUnit::DefaultLayout(ETarvikDevice type)
{
    switch (type)
    {
    case eTarvikTestSystemIO: return SLayout{16, 4, 0, 0};
    case eTarvikTestSystemPWR: return SLayout{8, 0, 0, 0};
    case eTarvikTestSystemRelay: return SLayout{0, 4, 32, 8};
    default: return SLayout{0, 0, 0, 0};
    }
}

CTarvikSimDeviceTestUnit::CTarvikSimDeviceTestUnit(ETarvikDevice type, unsigned int index)
    : CTarvikSimDeviceTestUnit(type, index, DefaultLayout(type))
{
}

CTarvikSimDeviceTestUnit::CTarvikSimDeviceTestUnit(ETarvikDevice type, unsigned int index, const SLayout& layout)
    : CTarvikSimDevice(type, index), m_anValues(layout.m_nValues, 0), m_anPower(layout.m_nPower, 0),
      m_abRelays(layout.m_nRelays, false), m_abButtons(layout.m_nButtons, false)
{
}

CTarvikSimDeviceTestUnit::~CTarvikSimDeviceTestUnit() = default;

std::string CTarvikSimDeviceTestUnit::GetName() const
{
    // The library's device names stop at type 9.
    switch (GetType())
    {
    case eTarvikTestSystemIO: return "Tarvik Test System IO";
    case eTarvikTestSystemPWR: return "Tarvik Test System Power";
    case eTarvikTestSystemRelay: return "Tarvik Test System Relay";
    default: return CTarvikSimDevice::GetName();
    }
}

bool CTarvikSimDeviceTestUnit::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    // A unit without a bank lacks its commands.
    switch (cmd)
    {
    case eCmdSetValue: answer = m_anValues.empty() ? Answer(eResultFailed) : SetWords(m_anValues, data); return true;
    case eCmdGetValue: answer = m_anValues.empty() ? Answer(eResultFailed) : GetWords(m_anValues, data); return true;
    case eCmdSetPower: answer = m_anPower.empty() ? Answer(eResultFailed) : SetWords(m_anPower, data); return true;
    case eCmdGetPower: answer = m_anPower.empty() ? Answer(eResultFailed) : GetWords(m_anPower, data); return true;
    case eCmdSetRelay: answer = SetRelay(data); return true;
    case eCmdGetButton: answer = GetButton(data); return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceTestUnit::SetWords(std::vector<unsigned short>& words, const std::string& data)
{
    if (data.size() % 2 != 0 || data.size() / 2 > words.size())
        return Answer(eResultFailed);
    const CTarvikPayload values(data);
    for (size_t i = 0; i < data.size() / 2; ++i)
        words[i] = values.U16At(2 * i);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceTestUnit::GetWords(const std::vector<unsigned short>& words, const std::string& data)
{
    if (!data.empty())
        return Answer(eResultFailed);
    std::string out;
    for (unsigned short word : words)
        out += CTarvikMsg::ToChar(word);
    return Answer(eResultOk, out);
}

std::string CTarvikSimDeviceTestUnit::SetRelay(const std::string& data)
{
    if (data.size() != 2 || static_cast<unsigned char>(data[0]) >= m_abRelays.size() ||
        static_cast<unsigned char>(data[1]) > 1)
        return Answer(eResultFailed);
    m_abRelays[static_cast<unsigned char>(data[0])] = data[1] != 0;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceTestUnit::GetButton(const std::string& data) const
{
    if (data.size() != 1 || static_cast<unsigned char>(data[0]) >= m_abButtons.size())
        return Answer(eResultFailed);
    return Answer(eResultOk, std::string(1, m_abButtons[static_cast<unsigned char>(data[0])] ? '\1' : '\0'));
}

void CTarvikSimDeviceTestUnit::OnRestart()
{
    std::fill(m_anValues.begin(), m_anValues.end(), 0);
    std::fill(m_anPower.begin(), m_anPower.end(), 0);
    std::fill(m_abRelays.begin(), m_abRelays.end(), false);
}

std::vector<unsigned short> CTarvikSimDeviceTestUnit::GetValues() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_anValues;
}

std::vector<unsigned short> CTarvikSimDeviceTestUnit::GetPower() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_anPower;
}

bool CTarvikSimDeviceTestUnit::IsRelayOn(size_t relay) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return relay < m_abRelays.size() && m_abRelays[relay];
}

void CTarvikSimDeviceTestUnit::PressButton(size_t button, bool pressed)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (button < m_abButtons.size())
        m_abButtons[button] = pressed;
}
