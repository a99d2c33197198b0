#include "sim/TarvikSimCanOpenMaster.h"

#include "sim/TarvikSimCanOpenNode.h"
#include "sim/TarvikSimDevice.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikPayload.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <algorithm>
#include <iterator>

namespace
{
namespace can = tarvik_protocol::can;

constexpr unsigned char kOk = CTarvikSimDevice::eResultOk;
constexpr unsigned char kFailed = CTarvikSimDevice::eResultFailed;
constexpr size_t kSdoAddressSize = 6; // node(1) index(2) sub(1) timeout(2)
constexpr size_t kSdoWriteSize = 11;  // node(1) size(1) index(2) sub(1) timeout(2) data(4)
constexpr size_t kSdoWriteData = 7;
constexpr size_t kExpeditedMax = 4;
constexpr unsigned char kSdoAbortStatus = 0x80;
constexpr unsigned char kMaxNodeId = 127;
constexpr unsigned char kPdoCount = 4;
// Node id and function code of a standard identifier.
constexpr unsigned int kNodeMask = 0x7F;
constexpr unsigned int kFunctionMask = 0x780;
constexpr unsigned int kCobLastTpdo = 0x480;
constexpr unsigned int kCobPdoStep = 0x100;
constexpr unsigned int kTpdoBit = 0x80;
constexpr size_t kEmcyFrameSize = 8;
constexpr unsigned char kHeartbeatStateMask = 0x7F;

bool IsStandard(const STarvikSimCanFrame& frame)
{
    return (frame.m_nFlags & (STarvikSimCanFrame::kFlagExtended | STarvikSimCanFrame::kFlagRemote)) == 0;
}

CTarvikSimCanOpenMaster::SAnswer Result(unsigned char result, std::string data = std::string())
{
    return CTarvikSimCanOpenMaster::SAnswer{result, std::move(data)};
}
} // namespace

CTarvikSimCanOpenMaster::CTarvikSimCanOpenMaster(CTarvikSimCanBus& bus, CTarvikSimCanStation& owner, CGateway& gateway)
    : m_oBus(bus), m_oOwner(owner), m_oGateway(gateway), m_nMode(0), m_nSyncPeriod(0)
{
}

bool CTarvikSimCanOpenMaster::HandleCommand(unsigned char cmd, const std::string& data, SAnswer& answer)
{
    if (cmd == can::eCmdCANopenSetConfig)
    {
        answer = SetConfig(data);
        return true;
    }
    if (cmd == can::eCmdCANopenGetConfig)
    {
        answer = data.empty() ? Result(kOk, TarvikSimU8(m_nMode)) : Result(kFailed);
        return true;
    }
    if (cmd == can::eCmdCANopenEMCY)
        return false;
    if (m_nMode == 0)
    {
        answer = Result(eResultCoOff);
        return true;
    }
    switch (cmd)
    {
    case can::eCmdCANopenSetSYNCMode: answer = SetSyncMode(data); break;
    case can::eCmdCANopenSendNMT: answer = Nmt(data); break;
    case can::eCmdCANopenSYNC:
        answer = data.empty()
                     ? Result(m_oGateway.Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobSync, 0, {}, 0, {}}))
                     : Result(kFailed);
        break;
    case can::eCmdCANopenSendTIME: answer = Time(data); break;
    case can::eCmdCANopenPDO: answer = Pdo(data); break;
    case can::eCmdCANopenSDORead: answer = SdoRead(data, false); break;
    case can::eCmdCANopenSDOWrite: answer = SdoWrite(data); break;
    case can::eCmdCANopenSDOReadBlock: answer = SdoRead(data, true); break;
    default: answer = SdoWriteBlock(data); break;
    }
    return true;
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SetConfig(const std::string& data)
{
    if (data.size() != 1)
        return Result(kFailed);
    m_nMode = CTarvikPayload(data).At(0);
    if (m_nMode == 0)
        Stop();
    return Result(kOk);
}

void CTarvikSimCanOpenMaster::Reset()
{
    m_nMode = 0;
    Stop();
}

void CTarvikSimCanOpenMaster::Stop()
{
    m_nSyncPeriod = 0;
    m_oBus.KillTimer(&m_oOwner, kTimerSync);
    for (const auto& node : m_anNodeStates)
        m_oBus.KillTimer(&m_oOwner, kTimerGuardBase + node.first);
    m_anNodeStates.clear();
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SetSyncMode(const std::string& data)
{
    if (data.size() != 2)
        return Result(kFailed);
    m_nSyncPeriod = CTarvikPayload(data).U16At(0);
    if (m_nSyncPeriod == 0)
        m_oBus.KillTimer(&m_oOwner, kTimerSync);
    else
        m_oBus.SetTimer(&m_oOwner, kTimerSync, m_nSyncPeriod, m_nSyncPeriod);
    return Result(kOk);
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::Nmt(const std::string& data)
{
    static const unsigned char kCommands[] = {
        CTarvikSimCanOpenNode::eNmtStart, CTarvikSimCanOpenNode::eNmtStop, CTarvikSimCanOpenNode::eNmtPreOperational,
        CTarvikSimCanOpenNode::eNmtResetNode, CTarvikSimCanOpenNode::eNmtResetCommunication};
    if (data.size() != 2 || CTarvikPayload(data).At(0) > kMaxNodeId ||
        std::find(std::begin(kCommands), std::end(kCommands), CTarvikPayload(data).At(1)) == std::end(kCommands))
        return Result(kFailed);
    // On the bus the command comes first, then the node.
    const std::string payload = TarvikSimU8(CTarvikPayload(data).At(1)) + TarvikSimU8(CTarvikPayload(data).At(0));
    return Result(m_oGateway.Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobNmt, 0, payload, 0, {}}));
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::Time(const std::string& data)
{
    if (data.size() != 6)
        return Result(kFailed);
    // TIME_OF_DAY: milliseconds after midnight, then days since 1984.
    std::string payload = data.substr(2, 4) + data.substr(0, 2);
    return Result(m_oGateway.Send(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobTime, 0, payload, 0, {}}));
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::Pdo(const std::string& data)
{
    if (data.size() < 2 || CTarvikPayload(data).At(0) == 0 || CTarvikPayload(data).At(0) > kMaxNodeId ||
        CTarvikPayload(data).At(1) == 0 || CTarvikPayload(data).At(1) > kPdoCount)
        return Result(kFailed);
    unsigned int id =
        CTarvikSimCanOpenNode::kCobRpdo1 + kCobPdoStep * (CTarvikPayload(data).At(1) - 1u) + CTarvikPayload(data).At(0);
    return Result(m_oGateway.Send(STarvikSimCanFrame{id, 0, data.substr(2), 0, {}}));
}

unsigned int CTarvikSimCanOpenMaster::NodeRead(unsigned char node, unsigned short index, unsigned char sub,
                                               std::string& value) const
{
    CTarvikSimCanOpenNode* target = m_oBus.GetNode(node);
    return target != nullptr ? target->SdoRead(index, sub, value) : CTarvikSimCanOpenNode::eSdoNoAnswer;
}

unsigned int CTarvikSimCanOpenMaster::NodeWrite(unsigned char node, unsigned short index, unsigned char sub,
                                                const std::string& value)
{
    CTarvikSimCanOpenNode* target = m_oBus.GetNode(node);
    return target != nullptr ? target->SdoWrite(index, sub, value) : CTarvikSimCanOpenNode::eSdoNoAnswer;
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SdoAnswer(unsigned int abort, const std::string& data)
{
    if (abort == CTarvikSimCanOpenNode::eSdoNoAnswer)
        return Result(eResultCoTimeout);
    if (abort != CTarvikSimCanOpenNode::eSdoOk)
        return Result(eResultCoNack, TarvikSimU8(kSdoAbortStatus) + CTarvikMsg::ToChar(abort));
    return Result(kOk, TarvikSimU8(0) + data);
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SdoRead(const std::string& data, bool block)
{
    if (data.size() != kSdoAddressSize)
        return Result(kFailed);
    std::string value;
    unsigned int abort =
        NodeRead(CTarvikPayload(data).At(0), CTarvikPayload(data).U16At(1), CTarvikPayload(data).At(3), value);
    if (block || abort != CTarvikSimCanOpenNode::eSdoOk)
        return SdoAnswer(abort, value);
    // An expedited transfer carries at most four bytes; larger entries need a block read.
    // The answer holds as many value bytes as the node sent (its size indication).
    if (value.size() > kExpeditedMax)
        return SdoAnswer(CTarvikSimCanOpenNode::eAbortLengthHigh, value);
    return SdoAnswer(abort, value);
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SdoWrite(const std::string& data)
{
    if (data.size() != kSdoWriteSize)
        return Result(kFailed);
    size_t size = CTarvikPayload(data).At(1);
    if (size == 0 || size > kExpeditedMax)
        return SdoAnswer(CTarvikSimCanOpenNode::eAbortLengthMismatch, std::string());
    std::string value = data.substr(kSdoWriteData, size);
    unsigned int abort =
        NodeWrite(CTarvikPayload(data).At(0), CTarvikPayload(data).U16At(2), CTarvikPayload(data).At(4), value);
    return SdoAnswer(abort, value);
}

CTarvikSimCanOpenMaster::SAnswer CTarvikSimCanOpenMaster::SdoWriteBlock(const std::string& data)
{
    if (data.size() < kSdoAddressSize)
        return Result(kFailed);
    std::string value = data.substr(kSdoAddressSize);
    unsigned int abort =
        NodeWrite(CTarvikPayload(data).At(0), CTarvikPayload(data).U16At(1), CTarvikPayload(data).At(3), value);
    return SdoAnswer(abort, CTarvikMsg::ToChar(static_cast<unsigned int>(value.size())));
}

void CTarvikSimCanOpenMaster::OnFrame(const STarvikSimCanFrame& frame)
{
    const std::string& data = frame.m_sData;
    unsigned int id = frame.m_nId;
    unsigned char node = static_cast<unsigned char>(id & kNodeMask);
    unsigned int function = id & kFunctionMask;
    bool standard = IsStandard(frame);
    if (standard && id == CTarvikSimCanOpenNode::kCobSync)
        m_oGateway.IndicateAll(can::eCmdCANopenSYNC, TarvikSimU8(CTarvikPayload(data).At(0)));
    else if (standard && function == CTarvikSimCanOpenNode::kCobEmcy && node != 0)
    {
        std::string emcy = data.substr(0, kEmcyFrameSize);
        emcy.resize(kEmcyFrameSize, '\0');
        m_oGateway.IndicateAll(can::eCmdCANopenEMCY, TarvikSimU8(node) + emcy);
    }
    else if (standard && function >= CTarvikSimCanOpenNode::kCobTpdo1 && function <= kCobLastTpdo &&
             (function & kTpdoBit) != 0 && node != 0 && data.size() <= STarvikSimCanFrame::kMaxClassic)
    {
        unsigned int pdo = (function - CTarvikSimCanOpenNode::kCobTpdo1) / kCobPdoStep + 1;
        m_oGateway.IndicateAll(can::eCmdCANopenPDO,
                               TarvikSimU8(node) + TarvikSimU8(pdo) + TarvikSimU8(data.size()) + data);
    }
    else if (standard && function == CTarvikSimCanOpenNode::kCobHeartbeat && node != 0 && data.size() == 1)
        OnHeartbeat(node, CTarvikPayload(data).At(0) & kHeartbeatStateMask);
    else if (m_oGateway.Accepts(frame))
        m_oGateway.IndicateFrame(can::eCmdCANopenUndefined, frame);
}

void CTarvikSimCanOpenMaster::OnHeartbeat(unsigned char node, unsigned char state)
{
    auto it = m_anNodeStates.find(node);
    if (it == m_anNodeStates.end() || it->second != state)
    {
        m_anNodeStates[node] = state;
        m_oGateway.IndicateAll(can::eCmdCANopenGUARD, TarvikSimU8(node) + TarvikSimU8(state));
    }
    // The master expects the next heartbeat within 1.5 of the node's period.
    CTarvikSimCanOpenNode* producer = m_oBus.GetNode(node);
    unsigned int period = producer != nullptr ? producer->GetHeartbeatTime() : 0;
    if (period == 0)
        m_oBus.KillTimer(&m_oOwner, kTimerGuardBase + node);
    else
        m_oBus.SetTimer(&m_oOwner, kTimerGuardBase + node, period + period / 2, 0);
}

bool CTarvikSimCanOpenMaster::OnTimer(unsigned int key)
{
    if (key == kTimerSync)
    {
        if (m_nMode != 0 && m_nSyncPeriod != 0)
            m_oBus.Transmit(STarvikSimCanFrame{CTarvikSimCanOpenNode::kCobSync, 0, {}, 0, {}}, &m_oOwner);
        return true;
    }
    if (key < kTimerGuardBase)
        return false;
    unsigned char node = static_cast<unsigned char>(key - kTimerGuardBase);
    if (m_nMode != 0 && m_anNodeStates.erase(node) != 0)
        m_oGateway.IndicateAll(can::eCmdCANopenGUARD, TarvikSimU8(node) + TarvikSimU8(kGuardLost));
    return true;
}
