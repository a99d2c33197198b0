#include "sim/TarvikSimDeviceCAN.h"

#include "sim/TarvikSimCanOpenNode.h"
#include "tarvik/core/TarvikPayload.h"

#include <algorithm>

namespace
{
namespace can = tarvik_protocol::can;

constexpr size_t kFrameHeader = can::kFrameHead;
constexpr size_t kGlobalsSize = 14;
constexpr size_t kGlobalsBaudrate = 1;
constexpr size_t kZCardSize = 7;
constexpr size_t kSdoAddressSize = 6;   // node(1) index(2) sub(1) timeout(2)
constexpr size_t kSdoWriteSize = 11;    // node(1) size(1) index(2) sub(1) timeout(2) data(4)
constexpr size_t kExpeditedMax = 4;
constexpr unsigned char kSdoAbortStatus = 0x80;
constexpr unsigned char kMaxNodeId = 127;
constexpr unsigned char kPdoCount = 4;
constexpr int64_t kUsPerSecond = 1000000;
// Timer keys: cyclic entries 0..15, then SYNC, then heartbeat supervision per node.
constexpr unsigned int kTimerSync = 0x40;
constexpr unsigned int kTimerGuardBase = 0x100;
const unsigned int kBaudrates[] = {10000, 20000, 50000, 100000, 125000, 250000, 500000, 800000, 1000000};
// Power model: nominal voltages of the supplies, board temperature, input voltage, load per supply.
const unsigned short kSupplyMillivolts[CTarvikSimDeviceCAN::kSupplies] = {5000, 12000, 3300, 24000};
constexpr short kTemperatureDeci = 253;
constexpr unsigned short kInputMillivolts = 24000;
constexpr unsigned short kLoadPerSupplyMa = 120;

std::string U8(unsigned int value)
{
    return std::string(1, static_cast<char>(value & 0xFF));
}

// Readers of a request's bytes; a byte past the end reads 0 (callers check the size first).
unsigned char Byte(const std::string& data, size_t pos)
{
    return CTarvikPayload(data).At(pos);
}

unsigned short LE16(const std::string& data, size_t pos)
{
    unsigned short value = 0;
    CTarvikPayload(data).ReadU16(pos, value);
    return value;
}

unsigned int LE32(const std::string& data, size_t pos)
{
    unsigned int value = 0;
    CTarvikPayload(data).ReadU32(pos, value);
    return value;
}

std::string Stamp(int64_t us)
{
    return CTarvikMsg::ToChar(static_cast<int>(us / kUsPerSecond)) + CTarvikMsg::ToChar(static_cast<int>(us % kUsPerSecond));
}

// The frame of a Write or cyclic request: identifier, flags, data from pos on.
STarvikSimCanFrame ParseFrame(const std::string& data, size_t pos)
{
    STarvikSimCanFrame frame;
    frame.m_nId = LE32(data, pos);
    frame.m_nFlags = Byte(data, pos + 4);
    frame.m_sData = data.substr(pos + kFrameHeader);
    return frame;
}

bool IsStandard(const STarvikSimCanFrame& frame)
{
    return (frame.m_nFlags & (STarvikSimCanFrame::kFlagExtended | STarvikSimCanFrame::kFlagRemote)) == 0;
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
      m_sGlobals(DefaultGlobals()), m_anFilter{}, m_sZCard(5, '\0'), m_nClockUs(0),
      m_oClockSet(std::chrono::steady_clock::now()), m_bTimeValid(false), m_bRelay(false), m_nSupplies(0),
      m_nCoMode(0), m_nSyncPeriod(0), m_nIndicationId(0), m_nDropped(0)
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
    return m_nCoMode != 0;
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
    if (cmd >= can::eCmdCANopenSetConfig && cmd <= can::eCmdCANopenSDOWriteBlock)
        return HandleCanOpenCommand(cmd, data, answer);
    return HandleCanCommand(cmd, data, answer);
}

bool CTarvikSimDeviceCAN::HandleCanCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case can::eCmdFrame:
        answer = OnWrite(data);
        return true;
    case can::eCmdSetConfig:
        answer = OnSetConfig(data);
        return true;
    case can::eCmdGetConfig:
    {
        const SClient& client = m_aoClients[GetRequester()];
        answer = data.empty() ? Answer(eResultOk, U8(client.m_bConfirm) + U8(client.m_bTimeStamps))
                              : Answer(eResultFailed);
        return true;
    }
    case can::eCmdSetGlobals:
        answer = OnSetGlobals(data);
        return true;
    case can::eCmdGetGlobals:
        answer = data.empty() ? Answer(eResultOk, m_sGlobals) : Answer(eResultFailed);
        return true;
    case can::eCmdSetTime:
        answer = OnSetTime(data);
        return true;
    case can::eCmdGetTime:
        answer = data.empty() ? Answer(eResultOk, U8(m_bTimeValid) + Stamp(ClockUs())) : Answer(eResultFailed);
        return true;
    case can::eCmdSetFilter:
        answer = OnSetFilter(data);
        return true;
    case can::eCmdGetFilter:
    {
        std::string words;
        for (unsigned int word : m_anFilter)
            words += CTarvikMsg::ToChar(word);
        answer = data.empty() ? Answer(eResultOk, words) : Answer(eResultFailed);
        return true;
    }
    case can::eCmdGetPowerStatus:
        answer = data.empty() ? OnGetPowerStatus() : Answer(eResultFailed);
        return true;
    case can::eCmdSetPowerRelais:
        answer = OnSetPowerRelais(data);
        return true;
    case can::eCmdSetActivePowerSupplies:
        if (data.size() != 4)
            answer = Answer(eResultFailed);
        else
        {
            m_nSupplies = LE32(data, 0);
            answer = Answer(eResultOk);
        }
        return true;
    case can::eCmdSetCyclicMessage:
        answer = OnSetCyclic(data);
        return true;
    case can::eCmdSetZCardParameter:
        answer = OnSetZCard(data);
        return true;
    case can::eCmdGetZCardParameter:
        answer = data.empty() ? Answer(eResultOk, m_sZCard) : Answer(eResultFailed);
        return true;
    default:
        return false;
    }
}

std::string CTarvikSimDeviceCAN::OnWrite(const std::string& data)
{
    if (data.size() < kFrameHeader)
        return Answer(eResultFailed);
    unsigned char result = Send(ParseFrame(data, 0));
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
    unsigned int rate = LE32(data, kGlobalsBaudrate);
    if (std::find(std::begin(kBaudrates), std::end(kBaudrates), rate) == std::end(kBaudrates))
        return Answer(eResultNoBaudrate);
    m_sGlobals = data;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetTime(const std::string& data)
{
    if (data.size() != 8)
        return Answer(eResultFailed);
    int seconds = static_cast<int>(LE32(data, 0));
    int micros = static_cast<int>(LE32(data, 4));
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
        m_anFilter[i] = LE32(data, 4 * i);
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
        supplies += U8(on);
        load = static_cast<unsigned short>(load + (powered ? kLoadPerSupplyMa : 0));
    }
    std::string status = U8(kSupplies) + U8(kSupplies) + U8(1) + CTarvikMsg::ToChar(kTemperatureDeci) +
                         CTarvikMsg::ToChar(kInputMillivolts) + CTarvikMsg::ToChar(load) + U8(m_bRelay);
    return Answer(eResultOk, status + values + supplies + U8(m_bRelay));
}

std::string CTarvikSimDeviceCAN::OnSetPowerRelais(const std::string& data)
{
    if (data.size() != 1 || Byte(data, 0) > 1)
        return Answer(eResultFailed);
    m_bRelay = data[0] != 0;
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetCyclic(const std::string& data)
{
    if (data.empty())
        return Answer(eResultFailed);
    unsigned int index = Byte(data, 0) & ~can::kCyclicEnable & 0xFF;
    bool enable = (Byte(data, 0) & can::kCyclicEnable) != 0;
    if (index >= kCyclicEntries || (enable && data.size() < 5 + kFrameHeader))
        return Answer(eResultFailed);
    if (!enable)
    {
        m_aoCyclic[index].m_bEnabled = false;
        m_pBus->KillTimer(this, index);
        return Answer(eResultOk);
    }
    unsigned int interval = LE32(data, 1);
    STarvikSimCanFrame frame = ParseFrame(data, 5);
    if (interval == 0)
        return Answer(eResultFailed);
    if (!frame.IsSendable())
        return Answer(eResultTransmitError);
    m_aoCyclic[index] = SCyclic{true, frame};
    m_pBus->SetTimer(this, index, 0, interval);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnSetZCard(const std::string& data)
{
    // The third value comes twice; a gateway that gets two different copies refuses.
    if (data.size() != kZCardSize || data.compare(3, 2, data, 5, 2) != 0)
        return Answer(eResultFailed);
    m_sZCard = data.substr(0, 5);
    return Answer(eResultOk);
}

bool CTarvikSimDeviceCAN::HandleCanOpenCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    if (cmd == can::eCmdCANopenSetConfig)
    {
        answer = OnCoSetConfig(data);
        return true;
    }
    if (cmd == can::eCmdCANopenGetConfig)
    {
        answer = data.empty() ? Answer(eResultOk, U8(m_nCoMode)) : Answer(eResultFailed);
        return true;
    }
    if (cmd == can::eCmdCANopenEMCY)
        return false;
    if (m_nCoMode == 0)
    {
        answer = Answer(eResultCoOff);
        return true;
    }
    switch (cmd)
    {
    case can::eCmdCANopenSetSYNCMode:
        answer = OnCoSetSyncMode(data);
        break;
    case can::eCmdCANopenSendNMT:
        answer = OnCoNmt(data);
        break;
    case can::eCmdCANopenSYNC:
        answer = data.empty() ? Answer(Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobSync, 0, {}, 0, {}}))
                              : Answer(eResultFailed);
        break;
    case can::eCmdCANopenSendTIME:
        answer = OnCoTime(data);
        break;
    case can::eCmdCANopenPDO:
        answer = OnCoPdo(data);
        break;
    case can::eCmdCANopenSDORead:
        answer = OnSdoRead(data, false);
        break;
    case can::eCmdCANopenSDOWrite:
        answer = OnSdoWrite(data);
        break;
    case can::eCmdCANopenSDOReadBlock:
        answer = OnSdoRead(data, true);
        break;
    default:
        answer = OnSdoWriteBlock(data);
        break;
    }
    return true;
}

std::string CTarvikSimDeviceCAN::OnCoSetConfig(const std::string& data)
{
    if (data.size() != 1)
        return Answer(eResultFailed);
    m_nCoMode = Byte(data, 0);
    if (m_nCoMode == 0)
        StopCanOpen();
    return Answer(eResultOk);
}

void CTarvikSimDeviceCAN::StopCanOpen()
{
    m_nSyncPeriod = 0;
    m_pBus->KillTimer(this, kTimerSync);
    for (const auto& node : m_anNodeStates)
        m_pBus->KillTimer(this, kTimerGuardBase + node.first);
    m_anNodeStates.clear();
}

std::string CTarvikSimDeviceCAN::OnCoSetSyncMode(const std::string& data)
{
    if (data.size() != 2)
        return Answer(eResultFailed);
    m_nSyncPeriod = LE16(data, 0);
    if (m_nSyncPeriod == 0)
        m_pBus->KillTimer(this, kTimerSync);
    else
        m_pBus->SetTimer(this, kTimerSync, m_nSyncPeriod, m_nSyncPeriod);
    return Answer(eResultOk);
}

std::string CTarvikSimDeviceCAN::OnCoNmt(const std::string& data)
{
    static const unsigned char kCommands[] = {
        CTarvikSimCanOpenNode::eNmtStart, CTarvikSimCanOpenNode::eNmtStop, CTarvikSimCanOpenNode::eNmtPreOperational,
        CTarvikSimCanOpenNode::eNmtResetNode, CTarvikSimCanOpenNode::eNmtResetCommunication};
    if (data.size() != 2 || Byte(data, 0) > kMaxNodeId ||
        std::find(std::begin(kCommands), std::end(kCommands), Byte(data, 1)) == std::end(kCommands))
        return Answer(eResultFailed);
    // On the bus the command comes first, then the node.
    return Answer(Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobNmt, 0, U8(Byte(data, 1)) + U8(Byte(data, 0)), 0, {}}));
}

std::string CTarvikSimDeviceCAN::OnCoTime(const std::string& data)
{
    if (data.size() != 6)
        return Answer(eResultFailed);
    // TIME_OF_DAY: milliseconds after midnight, then days since 1984.
    std::string payload = data.substr(2, 4) + data.substr(0, 2);
    return Answer(Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobTime, 0, payload, 0, {}}));
}

std::string CTarvikSimDeviceCAN::OnCoPdo(const std::string& data)
{
    if (data.size() < 2 || Byte(data, 0) == 0 || Byte(data, 0) > kMaxNodeId || Byte(data, 1) == 0 ||
        Byte(data, 1) > kPdoCount)
        return Answer(eResultFailed);
    unsigned int id = CTarvikSimCanOpenNode::kCobRpdo1 + 0x100u * (Byte(data, 1) - 1u) + Byte(data, 0);
    return Answer(Send(STarvikSimCanFrame{id, 0, data.substr(2), 0, {}}));
}

unsigned int CTarvikSimDeviceCAN::NodeRead(unsigned char node, unsigned short index, unsigned char sub,
                                           std::string& value) const
{
    CTarvikSimCanOpenNode* target = m_pBus->GetNode(node);
    return target != nullptr ? target->SdoRead(index, sub, value) : CTarvikSimCanOpenNode::eSdoNoAnswer;
}

unsigned int CTarvikSimDeviceCAN::NodeWrite(unsigned char node, unsigned short index, unsigned char sub,
                                            const std::string& value)
{
    CTarvikSimCanOpenNode* target = m_pBus->GetNode(node);
    return target != nullptr ? target->SdoWrite(index, sub, value) : CTarvikSimCanOpenNode::eSdoNoAnswer;
}

std::string CTarvikSimDeviceCAN::SdoAnswer(unsigned int abort, const std::string& data)
{
    if (abort == CTarvikSimCanOpenNode::eSdoNoAnswer)
        return Answer(eResultCoTimeout);
    if (abort != CTarvikSimCanOpenNode::eSdoOk)
        return Answer(eResultCoNack, U8(kSdoAbortStatus) + CTarvikMsg::ToChar(abort));
    return Answer(eResultOk, U8(0) + data);
}

std::string CTarvikSimDeviceCAN::OnSdoRead(const std::string& data, bool block)
{
    if (data.size() != kSdoAddressSize)
        return Answer(eResultFailed);
    std::string value;
    unsigned int abort = NodeRead(Byte(data, 0), LE16(data, 1), Byte(data, 3), value);
    if (block || abort != CTarvikSimCanOpenNode::eSdoOk)
        return SdoAnswer(abort, value);
    // An expedited transfer carries at most four bytes; larger entries need a block read.
    // The answer holds as many value bytes as the node sent (its size indication).
    if (value.size() > kExpeditedMax)
        return SdoAnswer(CTarvikSimCanOpenNode::eAbortLengthHigh, value);
    return SdoAnswer(abort, value);
}

std::string CTarvikSimDeviceCAN::OnSdoWrite(const std::string& data)
{
    if (data.size() != kSdoWriteSize)
        return Answer(eResultFailed);
    size_t size = Byte(data, 1);
    if (size == 0 || size > kExpeditedMax)
        return SdoAnswer(CTarvikSimCanOpenNode::eAbortLengthMismatch, std::string());
    std::string value = data.substr(7, size);
    unsigned int abort = NodeWrite(Byte(data, 0), LE16(data, 2), Byte(data, 4), value);
    return SdoAnswer(abort, value);
}

std::string CTarvikSimDeviceCAN::OnSdoWriteBlock(const std::string& data)
{
    if (data.size() < kSdoAddressSize)
        return Answer(eResultFailed);
    std::string value = data.substr(kSdoAddressSize);
    unsigned int abort = NodeWrite(Byte(data, 0), LE16(data, 1), Byte(data, 3), value);
    return SdoAnswer(abort, CTarvikMsg::ToChar(static_cast<unsigned int>(value.size())));
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
    for (size_t i = 0; i < kCyclicEntries; ++i)
    {
        m_aoCyclic[i].m_bEnabled = false;
        m_pBus->KillTimer(this, static_cast<unsigned int>(i));
    }
    m_nCoMode = 0;
    StopCanOpen();
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
    if (m_nCoMode != 0)
        OnCanOpenFrame(frame);
    else if (Accepts(frame))
        IndicateFrame(can::eCmdFrame, frame);
}

void CTarvikSimDeviceCAN::OnCanOpenFrame(const STarvikSimCanFrame& frame)
{
    const std::string& data = frame.m_sData;
    unsigned int id = frame.m_nId;
    unsigned char node = static_cast<unsigned char>(id & 0x7F);
    unsigned int function = id & 0x780;
    bool standard = IsStandard(frame);
    if (standard && id == CTarvikSimCanOpenNode::kCobSync)
        IndicateAll(can::eCmdCANopenSYNC, U8(data.empty() ? 0 : Byte(data, 0)));
    else if (standard && function == CTarvikSimCanOpenNode::kCobEmcy && node != 0)
    {
        std::string emcy = data.substr(0, 8);
        emcy.resize(8, '\0');
        IndicateAll(can::eCmdCANopenEMCY, U8(node) + emcy);
    }
    else if (standard && function >= CTarvikSimCanOpenNode::kCobTpdo1 && function <= 0x480 && (function & 0x80) != 0 &&
             node != 0 && data.size() <= STarvikSimCanFrame::kMaxClassic)
        IndicateAll(can::eCmdCANopenPDO, U8(node) + U8((function - CTarvikSimCanOpenNode::kCobTpdo1) / 0x100 + 1) +
                                   U8(data.size()) + data);
    else if (standard && function == CTarvikSimCanOpenNode::kCobHeartbeat && node != 0 && data.size() == 1)
        OnHeartbeat(node, Byte(data, 0) & 0x7F);
    else if (Accepts(frame))
        IndicateFrame(can::eCmdCANopenUndefined, frame);
}

void CTarvikSimDeviceCAN::OnHeartbeat(unsigned char node, unsigned char state)
{
    auto it = m_anNodeStates.find(node);
    if (it == m_anNodeStates.end() || it->second != state)
    {
        m_anNodeStates[node] = state;
        IndicateAll(can::eCmdCANopenGUARD, U8(node) + U8(state));
    }
    // The master expects the next heartbeat within 1.5 of the node's period.
    CTarvikSimCanOpenNode* producer = m_pBus->GetNode(node);
    unsigned int period = producer != nullptr ? producer->GetHeartbeatTime() : 0;
    if (period == 0)
        m_pBus->KillTimer(this, kTimerGuardBase + node);
    else
        m_pBus->SetTimer(this, kTimerGuardBase + node, period + period / 2, 0);
}

void CTarvikSimDeviceCAN::OnTimer(unsigned int key)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (key < kCyclicEntries)
    {
        // Checked under the lock: once a disable is answered, no more frames go out.
        if (m_aoCyclic[key].m_bEnabled)
            m_pBus->Transmit(m_aoCyclic[key].m_oFrame, this);
    }
    else if (key == kTimerSync)
    {
        if (m_nCoMode != 0 && m_nSyncPeriod != 0)
            m_pBus->Transmit(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobSync, 0, {}, 0, {}}, this);
    }
    else if (key >= kTimerGuardBase)
    {
        unsigned char node = static_cast<unsigned char>(key - kTimerGuardBase);
        if (m_nCoMode != 0 && m_anNodeStates.erase(node) != 0)
            IndicateAll(can::eCmdCANopenGUARD, U8(node) + U8(kGuardLost));
    }
}

CTarvikMsg CTarvikSimDeviceCAN::FrameTelegram(unsigned char cmd, const STarvikSimCanFrame& frame, bool timeStamp)
{
    unsigned char flags = frame.m_nFlags;
    std::string payload = CTarvikMsg::ToChar(static_cast<int>(frame.m_nId));
    payload += U8(timeStamp ? flags | STarvikSimCanFrame::kFlagTimeStamp : flags & ~STarvikSimCanFrame::kFlagTimeStamp);
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
