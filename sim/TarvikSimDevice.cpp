#include "sim/TarvikSimDevice.h"

#include "tarvik/core/TarvikPayload.h"

#include "sim/TarvikSimOutbox.h"

#include <algorithm>

namespace
{
// Fixed parts of the Info record: what a gateway of this series reports.
constexpr unsigned int kSerialBase = 21000000;
constexpr unsigned char kHardwareMajor = 1;
constexpr unsigned char kHardwareMinor = 2;
constexpr unsigned char kFirmwareMajor = 2;
constexpr unsigned char kFirmwareMinor = 18;
constexpr unsigned short kFirmwareBuild = 263;
constexpr unsigned short kProductionYear = 2023;
constexpr unsigned char kProductionMonth = 6;
constexpr unsigned char kProductionDay = 14;
constexpr size_t kInfoTypeByte = 18;
constexpr size_t kInfoIndexByte = 19;
} // namespace

CTarvikSimDevice::CTarvikSimDevice(ETarvikDevice type, unsigned int index)
    : m_eType(type), m_nIndex(index), m_nInputs(kDefaultInputs), m_nOutputs(0), m_anAnalog(kAnalogChannels, 0),
      m_nRequests(0), m_bSkipAnswer(false), m_oStarted(std::chrono::steady_clock::now())
{
}

CTarvikSimDevice::~CTarvikSimDevice() = default;

namespace
{
thread_local unsigned long t_nRequester = 0;
thread_local short t_nRequestID = 0;
} // namespace

short CTarvikSimDevice::GetRequestID()
{
    return t_nRequestID;
}

unsigned long CTarvikSimDevice::GetRequester()
{
    return t_nRequester;
}

void CTarvikSimDevice::SetRequester(unsigned long connection)
{
    t_nRequester = connection;
}

void CTarvikSimDevice::Attach(const std::shared_ptr<CTarvikSimOutbox>& outbox)
{
    {
        std::lock_guard<std::mutex> lock(m_oOutletMutex);
        m_aoOutlets.push_back(outbox);
    }
    OnAttach(outbox->GetId());
}

void CTarvikSimDevice::Detach(unsigned long connection)
{
    {
        std::lock_guard<std::mutex> lock(m_oOutletMutex);
        auto it = std::find_if(
            m_aoOutlets.begin(), m_aoOutlets.end(),
            [connection](const std::shared_ptr<CTarvikSimOutbox>& box) { return box->GetId() == connection; });
        if (it == m_aoOutlets.end())
            return;
        m_aoOutlets.erase(it);
    }
    OnDetach(connection);
}

size_t CTarvikSimDevice::GetConnectionCount() const
{
    std::lock_guard<std::mutex> lock(m_oOutletMutex);
    return m_aoOutlets.size();
}

bool CTarvikSimDevice::PostsUnasked() const
{
    return true;
}

void CTarvikSimDevice::OnAttach(unsigned long) {}

void CTarvikSimDevice::OnDetach(unsigned long) {}

bool CTarvikSimDevice::Indicate(const CTarvikMsg& msg)
{
    // Post never waits for a socket, so the list may stay locked meanwhile.
    std::lock_guard<std::mutex> lock(m_oOutletMutex);
    bool taken = false;
    for (const auto& box : m_aoOutlets)
        taken = box->Post(msg) || taken;
    return taken;
}

bool CTarvikSimDevice::IndicateTo(unsigned long connection, const CTarvikMsg& msg)
{
    std::shared_ptr<CTarvikSimOutbox> box = FindOutlet(connection);
    return box && box->Post(msg);
}

bool CTarvikSimDevice::IndicateToWait(unsigned long connection, const CTarvikMsg& msg)
{
    std::shared_ptr<CTarvikSimOutbox> box = FindOutlet(connection);
    return box && box->PostWait(msg);
}

std::shared_ptr<CTarvikSimOutbox> CTarvikSimDevice::FindOutlet(unsigned long connection) const
{
    std::lock_guard<std::mutex> lock(m_oOutletMutex);
    for (const auto& box : m_aoOutlets)
        if (box->GetId() == connection)
            return box;
    return nullptr;
}

std::string CTarvikSimDevice::GetName() const
{
    return TarvikDeviceName(m_eType);
}

bool CTarvikSimDevice::HandleRequest(const CTarvikMsg& req, CTarvikMsg& cnf)
{
    if (req.IsConfirmation())
        return false;
    unsigned short code = req.GetCmdCode();
    unsigned char cmd = static_cast<unsigned char>(code & 0xFF);
    std::string answer;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        ++m_nRequests;
        t_nRequestID = req.GetMsgID();
        // A telegram for another device type reaches a port that cannot serve it.
        bool known = ((code >> 8) & 0x7F) == static_cast<unsigned int>(m_eType) &&
                     (HandleCommonCommand(cmd, req.GetData(), answer) || HandleCommand(cmd, req.GetData(), answer));
        if (m_bSkipAnswer)
        {
            m_bSkipAnswer = false;
            return false;
        }
        if (!known || answer.empty())
            answer = Answer(eResultFailed);
    }
    // The answer never outgrows a telegram: devices check their data sizes.
    cnf =
        CTarvikMsg(static_cast<unsigned short>(code | CTarvikMsg::kConfirmationBit), req.GetMsgID(), std::move(answer));
    return true;
}

bool CTarvikSimDevice::HandleCommonCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case tarvik_protocol::common::eCmdInfo:
        answer = data.empty() ? Answer(eResultOk, GetInfoRecord()) : Answer(eResultFailed);
        return true;
    case tarvik_protocol::common::eCmdStatus:
        answer = data.empty() ? Answer(eResultOk, StatusText()) : Answer(eResultFailed);
        return true;
    case tarvik_protocol::common::eCmdRestart:
        if (!data.empty())
        {
            answer = Answer(eResultFailed);
            return true;
        }
        RestartLocked();
        answer = Answer(eResultOk);
        return true;
    case tarvik_protocol::common::eCmdBaseReadDigital:
        answer = data.empty() ? Answer(eResultOk, CTarvikMsg::ToChar(m_nInputs) + CTarvikMsg::ToChar(m_nOutputs))
                              : Answer(eResultFailed);
        return true;
    case tarvik_protocol::common::eCmdBaseWriteDigital:
        if (data.size() != 4)
        {
            answer = Answer(eResultFailed);
            return true;
        }
        m_nOutputs = CTarvikPayload(data).U32At(0);
        answer = Answer(eResultOk);
        return true;
    case tarvik_protocol::common::eCmdReadAnalog:
    {
        if (!data.empty())
        {
            answer = Answer(eResultFailed);
            return true;
        }
        std::string values = CTarvikMsg::ToChar(static_cast<unsigned int>(m_anAnalog.size()));
        for (unsigned int value : m_anAnalog)
            values += CTarvikMsg::ToChar(value);
        answer = Answer(eResultOk, values);
        return true;
    }
    case tarvik_protocol::common::eCmdWriteAnalog:
        if (data.size() % 4 != 0 || data.size() / 4 > m_anAnalog.size())
        {
            answer = Answer(eResultFailed);
            return true;
        }
        for (size_t i = 0; i < data.size() / 4; ++i)
            m_anAnalog[i] = CTarvikPayload(data).U32At(4 * i);
        answer = Answer(eResultOk);
        return true;
    default: return false;
    }
}

bool CTarvikSimDevice::HandleCommand(unsigned char, const std::string&, std::string&)
{
    return false;
}

void CTarvikSimDevice::OnRestart() {}

std::string CTarvikSimDevice::Answer(unsigned char result, const std::string& data)
{
    std::string answer(1, static_cast<char>(result));
    answer += data;
    return answer;
}

std::string CTarvikSimDevice::StatusText() const
{
    auto up = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_oStarted);
    return GetName() + " #" + std::to_string(m_nIndex) + " ready, up " + std::to_string(up.count()) + " s, " +
           std::to_string(m_nRequests) + " requests";
}

std::string CTarvikSimDevice::GetInfoRecord() const
{
    std::string info(kInfoSize, '\0');
    std::string serial = CTarvikMsg::ToChar(kSerialBase + 1000u * static_cast<unsigned int>(m_eType) + m_nIndex);
    info.replace(0, 4, serial);
    info[4] = static_cast<char>(kHardwareMajor);
    info[5] = static_cast<char>(kHardwareMinor);
    info[6] = static_cast<char>(kFirmwareMajor);
    info[7] = static_cast<char>(kFirmwareMinor);
    info.replace(8, 2, CTarvikMsg::ToChar(kFirmwareBuild));
    info.replace(10, 2, CTarvikMsg::ToChar(kProductionYear));
    info[12] = static_cast<char>(kProductionMonth);
    info[13] = static_cast<char>(kProductionDay);
    info[kInfoTypeByte] = static_cast<char>(m_eType);
    info[kInfoIndexByte] = static_cast<char>(m_nIndex & 0xFF);
    return info;
}

void CTarvikSimDevice::Restart()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    RestartLocked();
}

void CTarvikSimDevice::RestartLocked()
{
    // The inputs belong to the wiring outside the gateway and survive a restart.
    m_nOutputs = 0;
    std::fill(m_anAnalog.begin(), m_anAnalog.end(), 0u);
    m_oStarted = std::chrono::steady_clock::now();
    OnRestart();
}

unsigned int CTarvikSimDevice::GetDigitalOutputs() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nOutputs;
}

unsigned int CTarvikSimDevice::GetDigitalInputs() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nInputs;
}

void CTarvikSimDevice::SetDigitalInputs(unsigned int inputs)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nInputs = inputs;
}

std::vector<unsigned int> CTarvikSimDevice::GetAnalogValues() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_anAnalog;
}

unsigned long CTarvikSimDevice::GetRequestCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nRequests;
}
