#include "sim/TarvikSimDeviceCAN.h"

#include "tarvik/core/TarvikPayload.h"

#include <algorithm>

namespace
{
namespace can = tarvik_protocol::can;

constexpr size_t kFrameHeader = can::kFrameHead;
constexpr size_t kGlobalsSize = 14;
constexpr size_t kGlobalsBaudrate = 1;
constexpr size_t kZCardSize = 7;
constexpr int64_t kUsPerSecond = 1000000;
const unsigned int kBaudrates[] = {10000, 20000, 50000, 100000, 125000, 250000, 500000, 800000, 1000000};
// Power model: nominal voltages of the supplies, board temperature, input voltage, load per supply.
const unsigned short kSupplyMillivolts[CTarvikSimDeviceCAN::kSupplies] = {5000, 12000, 3300, 24000};
constexpr short kTemperatureDeci = 253;
constexpr unsigned short kInputMillivolts = 24000;
constexpr unsigned short kLoadPerSupplyMa = 120;

std::string Stamp(int64_t us)
{
    return CTarvikMsg::ToChar(static_cast<int>(us / kUsPerSecond)) +
           CTarvikMsg::ToChar(static_cast<int>(us % kUsPerSecond));
}

std::string DefaultGlobals()
{
    std::string globals(kGlobalsSize, '\0');
    globals.replace(kGlobalsBaudrate, 4, CTarvikMsg::ToChar(CTarvikSimDeviceCAN::kDefaultBaudrate));
    return globals;
}
} // namespace

CTarvikSimDeviceCAN::CTarvikSimDeviceCAN(unsigned int index, std::shared_ptr<CTarvikSimCanBus> bus)
    : CTarvikSimDevice(eTarvikCAN, index), m_pBus(bus ? std::move(bus) : std::make_shared<CTarvikSimCanBus>()),
      m_sGlobals(DefaultGlobals()), m_anFilter{}, m_oCyclic(*m_pBus, *this), m_sZCard(5, '\0'), m_nClockUs(0),
      m_oClockSet(std::chrono::steady_clock::now()), m_bTimeValid(false), m_bRelay(false), m_nSupplies(0),
      m_oCanOpen(*m_pBus, *this, *this), m_nIndicationId(0), m_nDropped(0)
{
    m_pBus->Attach(this);
}

CTarvikSimDeviceCAN::~CTarvikSimDeviceCAN()
{
    m_pBus->Detach(this);
}

std::string CTarvikSimDeviceCAN::GetStationName() const
{
    return "can" + std::to_string(GetIndex());
}

void CTarvikSimDeviceCAN::OnAttach(unsigned long connection)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoClients[connection] = SClient();
}

void CTarvikSimDeviceCAN::OnDetach(unsigned long connection)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoClients.erase(connection);
}

std::vector<unsigned long> CTarvikSimDeviceCAN::GetConnections() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    std::vector<unsigned long> connections;
    for (const auto& client : m_aoClients)
        connections.push_back(client.first);
    return connections;
}

unsigned long CTarvikSimDeviceCAN::GetDroppedCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nDropped;
}

bool CTarvikSimDeviceCAN::IsCanOpenOn() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_oCanOpen.IsOn();
}

int64_t CTarvikSimDeviceCAN::GetClockUs() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return ClockUs();
}

int64_t CTarvikSimDeviceCAN::ClockUs() const
{
    auto elapsed = std::chrono::steady_clock::now() - m_oClockSet;
    return m_nClockUs + std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
}

size_t CTarvikSimDeviceCAN::StreamFrames(unsigned long connection, STarvikSimCanFrame frame, size_t count)
{
    bool timeStamps = false;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        auto it = m_aoClients.find(connection);
        if (it == m_aoClients.end())
            return 0;
        timeStamps = it->second.m_bTimeStamps;
    }
    // Without the lock: the wait for room must not hold up the gateway's other work.
    for (size_t i = 0; i < count; ++i)
    {
        if (frame.m_sData.size() >= 4)
            frame.m_sData.replace(0, 4, CTarvikMsg::ToChar(static_cast<unsigned int>(i)));
        CTarvikMsg msg;
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            msg = FrameTelegram(can::eCmdFrame, frame, timeStamps);
        }
        if (!IndicateToWait(connection, msg))
            return i;
    }
    return count;
}

bool CTarvikSimDeviceCAN::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    if (cmd < can::eCmdCANopenSetConfig || cmd > can::eCmdCANopenSDOWriteBlock)
        return HandleCanCommand(cmd, data, answer);
    CTarvikSimCanOpenMaster::SAnswer coAnswer;
    if (!m_oCanOpen.HandleCommand(cmd, data, coAnswer))
        return false;
    answer = Answer(coAnswer.m_nResult, coAnswer.m_sData);
    return true;
}

bool CTarvikSimDeviceCAN::HandleCanCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case can::eCmdFrame: answer = OnWrite(data); return true;
    case can::eCmdSetConfig: answer = OnSetConfig(data); return true;
    case can::eCmdGetConfig:
    {
        const SClient& client = m_aoClients[GetRequester()];
        answer = data.empty() ? Answer(eResultOk, TarvikSimU8(client.m_bConfirm) + TarvikSimU8(client.m_bTimeStamps))
                              : Answer(eResultFailed);
        return true;
    }
    case can::eCmdSetGlobals: answer = OnSetGlobals(data); return true;
    case can::eCmdGetGlobals:
        answer = data.empty() ? Answer(eResultOk, m_sGlobals) : Answer(eResultFailed);
        return true;
    case can::eCmdSetTime: answer = OnSetTime(data); return true;
    case can::eCmdGetTime:
        answer = data.empty() ? Answer(eResultOk, TarvikSimU8(m_bTimeValid) + Stamp(ClockUs())) : Answer(eResultFailed);
        return true;
    case can::eCmdSetFilter: answer = OnSetFilter(data); return true;
    case can::eCmdGetFilter:
    {
        std::string words;
        for (unsigned int word : m_anFilter)
            words += CTarvikMsg::ToChar(word);
        answer = data.empty() ? Answer(eResultOk, words) : Answer(eResultFailed);
        return true;
    }
    case can::eCmdGetPowerStatus: answer = data.empty() ? OnGetPowerStatus() : Answer(eResultFailed); return true;
    case can::eCmdSetPowerRelais: answer = OnSetPowerRelais(data); return true;
    case can::eCmdSetActivePowerSupplies:
        if (data.size() != 4)
            answer = Answer(eResultFailed);
        else
        {
            m_nSupplies = CTarvikPayload(data).U32At(0);
            answer = Answer(eResultOk);
        }
        return true;
    case can::eCmdSetCyclicMessage: answer = OnSetCyclic(data); return true;
    case can::eCmdSetZCardParameter: answer = OnSetZCard(data); return true;
    case can::eCmdGetZCardParameter:
        answer = data.empty() ? Answer(eResultOk, m_sZCard) : Answer(eResultFailed);
        return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceCAN::OnWrite(const std::string& data)
{
    if (data.size() < kFrameHeader)
        return Answer(eResultFailed);
    unsigned char result = Send(STarvikSimCanFrame::FromRequest(data, 0));
    int64_t sent = ClockUs();
    if (!m_aoClients[GetRequester()].m_bConfirm)
    {
        // Unconfirmed: a frame the gateway could not send is lost without a word.
        SkipAnswer();
        return std::string();
    }
    return result != eResultOk ? Answer(result) : Answer(eResultOk, Stamp(sent));
}

unsigned char CTarvikSimDeviceCAN::Send(const STarvikSimCanFrame& frame)
{
    if (!frame.IsSendable())
        return eResultTransmitError;
    // A frame nobody acknowledges is a NACK on a real bus.
    if (m_pBus->CountListeners(this) == 0)
        return eResultNack;
    m_pBus->Transmit(frame, this);
    return eResultOk;
}

std::string CTarvikSimDeviceCAN::OnSetConfig(const std::string& data)
{
    if (data.size() != 2)
        return Answer(eResultFailed);
    SClient& client = m_aoClients[GetRequester()];
    client.m_bConfirm = data[0] != 0;
    client.m_bTimeStamps = data[1] != 0;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetGlobals(const std::string& data)
{
    if (data.size() != kGlobalsSize)
        return Answer(eResultFailed);
    unsigned int rate = CTarvikPayload(data).U32At(kGlobalsBaudrate);
    if (std::find(std::begin(kBaudrates), std::end(kBaudrates), rate) == std::end(kBaudrates))
        return Answer(eResultNoBaudrate);
    m_sGlobals = data;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetTime(const std::string& data)
{
    if (data.size() != 8)
        return Answer(eResultFailed);
    int seconds = static_cast<int>(CTarvikPayload(data).U32At(0));
    int micros = static_cast<int>(CTarvikPayload(data).U32At(4));
    if (micros < 0 || micros >= kUsPerSecond)
        return Answer(eResultFailed);
    m_nClockUs = static_cast<int64_t>(seconds) * kUsPerSecond + micros;
    m_oClockSet = std::chrono::steady_clock::now();
    m_bTimeValid = true;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetFilter(const std::string& data)
{
    if (data.size() != 4 * kFilterWords)
        return Answer(eResultFailed);
    for (size_t i = 0; i < kFilterWords; ++i)
        m_anFilter[i] = CTarvikPayload(data).U32At(4 * i);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnGetPowerStatus() const
{
    std::string values;
    std::string supplies;
    unsigned short load = 0;
    for (size_t i = 0; i < kSupplies; ++i)
    {
        bool on = (m_nSupplies >> i & 1u) != 0;
        bool powered = on && m_bRelay;
        values += CTarvikMsg::ToChar(static_cast<unsigned short>(powered ? kSupplyMillivolts[i] : 0));
        supplies += TarvikSimU8(on);
        load = static_cast<unsigned short>(load + (powered ? kLoadPerSupplyMa : 0));
    }
    std::string status = TarvikSimU8(kSupplies) + TarvikSimU8(kSupplies) + TarvikSimU8(1) +
                         CTarvikMsg::ToChar(kTemperatureDeci) + CTarvikMsg::ToChar(kInputMillivolts) +
                         CTarvikMsg::ToChar(load) + TarvikSimU8(m_bRelay);
    return Answer(eResultOk, status + values + supplies + TarvikSimU8(m_bRelay));
}

std::string CTarvikSimDeviceCAN::OnSetPowerRelais(const std::string& data)
{
    if (data.size() != 1 || CTarvikPayload(data).At(0) > 1)
        return Answer(eResultFailed);
    m_bRelay = data[0] != 0;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetCyclic(const std::string& data)
{
    switch (m_oCyclic.Set(data))
    {
    case CTarvikSimCanCyclicTable::eSetDone: return Answer(eResultOk);
    case CTarvikSimCanCyclicTable::eSetNotSendable: return Answer(eResultTransmitError);
    default: return Answer(eResultFailed);
    }
}

std::string CTarvikSimDeviceCAN::OnSetZCard(const std::string& data)
{
    // The third value comes twice; a gateway that gets two different copies refuses.
    if (data.size() != kZCardSize || data.compare(3, 2, data, 5, 2) != 0)
        return Answer(eResultFailed);
    m_sZCard = data.substr(0, 5);
    return Answer(eResultOk);
}

void CTarvikSimDeviceCAN::OnRestart()
{
    ResetVolatile();
}

void CTarvikSimDeviceCAN::ResetVolatile()
{
    // What the gateway keeps in RAM; globals, Z-card parameters, the clock and the power
    // switches are kept in its EEPROM, battery-backed or latching.
    m_anFilter.fill(0);
    m_oCyclic.Reset();
    m_oCanOpen.Reset();
    for (auto& client : m_aoClients)
        client.second = SClient();
}

bool CTarvikSimDeviceCAN::Accepts(const STarvikSimCanFrame& frame) const
{
    bool anyMask = false;
    for (size_t i = 0; i < kFilterWords; i += 2)
    {
        unsigned int code = m_anFilter[i];
        unsigned int mask = m_anFilter[i + 1];
        if (mask == 0)
            continue;
        anyMask = true;
        if ((frame.m_nId & mask) == (code & mask))
            return true;
    }
    return !anyMask;
}

void CTarvikSimDeviceCAN::OnFrame(const STarvikSimCanFrame& frame)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (m_oCanOpen.IsOn())
        m_oCanOpen.OnFrame(frame);
    else if (Accepts(frame))
        IndicateFrame(can::eCmdFrame, frame);
}

void CTarvikSimDeviceCAN::OnTimer(unsigned int key)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (!m_oCyclic.OnTimer(key))
        m_oCanOpen.OnTimer(key);
}

CTarvikMsg CTarvikSimDeviceCAN::FrameTelegram(unsigned char cmd, const STarvikSimCanFrame& frame, bool timeStamp)
{
    unsigned char flags = frame.m_nFlags;
    std::string payload = CTarvikMsg::ToChar(static_cast<int>(frame.m_nId));
    payload += TarvikSimU8(timeStamp ? flags | STarvikSimCanFrame::kFlagTimeStamp
                                     : flags & ~STarvikSimCanFrame::kFlagTimeStamp);
    payload += frame.m_sData;
    if (timeStamp)
        payload += Stamp(ClockUs());
    unsigned short code = can::CmdCode(cmd);
    return CTarvikMsg(code, m_nIndicationId++, std::move(payload));
}

void CTarvikSimDeviceCAN::IndicateFrame(unsigned char cmd, const STarvikSimCanFrame& frame)
{
    for (const auto& client : m_aoClients)
        if (!IndicateTo(client.first, FrameTelegram(cmd, frame, client.second.m_bTimeStamps)))
            ++m_nDropped;
}

void CTarvikSimDeviceCAN::IndicateAll(unsigned char cmd, const std::string& data)
{
    CTarvikMsg msg(can::CmdCode(cmd), m_nIndicationId++, std::string(data));
    for (const auto& client : m_aoClients)
        if (!IndicateTo(client.first, msg))
            ++m_nDropped;
}
