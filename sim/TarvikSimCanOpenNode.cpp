#include "sim/TarvikSimCanOpenNode.h"

#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikPayload.h"

#include <algorithm>

namespace
{
constexpr unsigned int kTimerHeartbeat = 0;
constexpr unsigned short kIndexErrorRegister = 0x1001;
constexpr unsigned short kIndexHeartbeat = 0x1017;
constexpr unsigned short kFirstApplicationIndex = 0x2000;
constexpr unsigned int kVendorId = 0x0000054A;
constexpr unsigned int kProductCode = 0x00002301;
constexpr unsigned int kRevision = 0x00010002;
constexpr unsigned int kSerialBase = 1000;
// Application entries mapped into the PDOs, in mapping order.
const unsigned short kPdoIndices[] = {0x2000, 0x2001, 0x2002};
constexpr unsigned short kDomainIndex = 0x2100;

std::string DomainPattern(unsigned char id)
{
    std::string data(CTarvikSimCanOpenNode::kDomainSize, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>((i * 7 + id) & 0xFF);
    return data;
}

unsigned short ReadU16(const std::string& value)
{
    unsigned short result = 0;
    CTarvikPayload(value).ReadU16(0, result);
    return result;
}
} // namespace

CTarvikSimCanOpenNode::CTarvikSimCanOpenNode(unsigned char id, CTarvikSimCanPort& bus)
    : m_nId(id), m_oBus(bus), m_eState(eStatePreOperational), m_bPowered(true)
{
    BuildDictionary();
}

void CTarvikSimCanOpenNode::BuildDictionary()
{
    auto add = [this](unsigned short index, unsigned char sub, size_t size, bool writable, const std::string& value) {
        m_aoEntries.push_back(SEntry{index, sub, size, writable, value, value});
    };
    add(0x1000, 0, 4, false, CTarvikMsg::ToChar(kDeviceType));
    add(kIndexErrorRegister, 0, 1, false, TarvikSimU8(0));
    add(kIndexHeartbeat, 0, 2, true, CTarvikMsg::ToChar(static_cast<unsigned short>(0)));
    add(0x1018, 0, 1, false, TarvikSimU8(4));
    add(0x1018, 1, 4, false, CTarvikMsg::ToChar(kVendorId));
    add(0x1018, 2, 4, false, CTarvikMsg::ToChar(kProductCode));
    add(0x1018, 3, 4, false, CTarvikMsg::ToChar(kRevision));
    add(0x1018, 4, 4, false, CTarvikMsg::ToChar(kSerialBase + m_nId));
    add(kPdoIndices[0], 0, 1, true, TarvikSimU8(0));
    add(kPdoIndices[1], 0, 2, true, CTarvikMsg::ToChar(static_cast<unsigned short>(0)));
    add(kPdoIndices[2], 0, 4, true, CTarvikMsg::ToChar(0u));
    add(kDomainIndex, 0, 0, true, DomainPattern(m_nId));
}

std::string CTarvikSimCanOpenNode::GetStationName() const
{
    return "node" + std::to_string(m_nId);
}

CTarvikSimCanOpenNode::EState CTarvikSimCanOpenNode::GetState() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_eState;
}

unsigned short CTarvikSimCanOpenNode::GetHeartbeatTime() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return ReadU16(Find(kIndexHeartbeat, 0)->m_sValue);
}

CTarvikSimCanOpenNode::SEntry* CTarvikSimCanOpenNode::Find(unsigned short index, unsigned char sub)
{
    auto it = std::find_if(m_aoEntries.begin(), m_aoEntries.end(),
                           [index, sub](const SEntry& e) { return e.m_nIndex == index && e.m_nSub == sub; });
    return it != m_aoEntries.end() ? &*it : nullptr;
}

const CTarvikSimCanOpenNode::SEntry* CTarvikSimCanOpenNode::Find(unsigned short index, unsigned char sub) const
{
    return const_cast<CTarvikSimCanOpenNode*>(this)->Find(index, sub);
}

bool CTarvikSimCanOpenNode::HasIndex(unsigned short index) const
{
    return std::any_of(m_aoEntries.begin(), m_aoEntries.end(),
                       [index](const SEntry& e) { return e.m_nIndex == index; });
}

unsigned int CTarvikSimCanOpenNode::SdoRead(unsigned short index, unsigned char sub, std::string& value) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (!m_bPowered || m_eState == eStateStopped)
        return eSdoNoAnswer;
    unsigned int forced = ForcedAbort(index, sub);
    if (forced != eSdoOk)
        return forced;
    const SEntry* entry = Find(index, sub);
    if (entry == nullptr)
        return HasIndex(index) ? eAbortNoSubIndex : eAbortNoObject;
    value = entry->m_sValue;
    return eSdoOk;
}

unsigned int CTarvikSimCanOpenNode::CheckWrite(const SEntry* entry, unsigned short index, size_t size) const
{
    if (entry == nullptr)
        return HasIndex(index) ? eAbortNoSubIndex : eAbortNoObject;
    if (!entry->m_bWritable)
        return eAbortReadOnly;
    if (entry->m_nSize == 0)
        return size <= kDomainSize ? eSdoOk : eAbortLengthHigh;
    return size == entry->m_nSize ? eSdoOk : eAbortLengthMismatch;
}

unsigned int CTarvikSimCanOpenNode::SdoWrite(unsigned short index, unsigned char sub, const std::string& value)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (!m_bPowered || m_eState == eStateStopped)
        return eSdoNoAnswer;
    unsigned int forced = ForcedAbort(index, sub);
    if (forced != eSdoOk)
        return forced;
    SEntry* entry = Find(index, sub);
    unsigned int abort = CheckWrite(entry, index, value.size());
    if (abort != eSdoOk)
        return abort;
    entry->m_sValue = value;
    if (index == kIndexHeartbeat)
        ApplyHeartbeatTime();
    return eSdoOk;
}

void CTarvikSimCanOpenNode::SetSdoAbort(unsigned short index, unsigned char sub, unsigned int code)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (code == eSdoOk)
        m_anAborts.erase(static_cast<unsigned int>(index) << 8 | sub);
    else
        m_anAborts[static_cast<unsigned int>(index) << 8 | sub] = code;
}

unsigned int CTarvikSimCanOpenNode::ForcedAbort(unsigned short index, unsigned char sub) const
{
    auto it = m_anAborts.find(static_cast<unsigned int>(index) << 8 | sub);
    return it != m_anAborts.end() ? it->second : static_cast<unsigned int>(eSdoOk);
}

bool CTarvikSimCanOpenNode::GetObject(unsigned short index, unsigned char sub, std::string& value) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    const SEntry* entry = Find(index, sub);
    if (entry == nullptr)
        return false;
    value = entry->m_sValue;
    return true;
}

bool CTarvikSimCanOpenNode::RaiseEmcy(unsigned short code, unsigned char errorRegister, const std::string& data)
{
    STarvikSimCanFrame frame;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (!m_bPowered || m_eState == eStateStopped)
            return false;
        Find(kIndexErrorRegister, 0)->m_sValue = TarvikSimU8(code == 0 ? 0 : errorRegister);
        frame.m_nId = kCobEmcy + m_nId;
        std::string manufacturer = data.substr(0, kEmcyDataSize);
        manufacturer.resize(kEmcyDataSize, '\0');
        frame.m_sData = CTarvikMsg::ToChar(code) + TarvikSimU8(errorRegister) + manufacturer;
    }
    m_oBus.Transmit(frame, this);
    return true;
}

void CTarvikSimCanOpenNode::SetPowered(bool on)
{
    Frames out;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (m_bPowered == on)
            return;
        m_bPowered = on;
        if (on)
            Reset(true, out);
        else
            m_oBus.KillTimer(this, kTimerHeartbeat);
    }
    Send(out);
}

void CTarvikSimCanOpenNode::OnFrame(const STarvikSimCanFrame& frame)
{
    if ((frame.m_nFlags & (STarvikSimCanFrame::kFlagExtended | STarvikSimCanFrame::kFlagRemote)) != 0)
        return;
    Frames out;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (!m_bPowered)
            return;
        const std::string& data = frame.m_sData;
        if (frame.m_nId == kCobNmt && data.size() == 2 &&
            (data[1] == 0 || static_cast<unsigned char>(data[1]) == m_nId))
            OnNmt(static_cast<unsigned char>(data[0]), out);
        else if (frame.m_nId == kCobSync && m_eState == eStateOperational)
            out.push_back(STarvikSimCanFrame{static_cast<unsigned int>(kCobTpdo1 + m_nId), 0, PdoData(), 0, {}});
        else if (frame.m_nId == static_cast<unsigned int>(kCobRpdo1 + m_nId) && m_eState == eStateOperational)
            StorePdo(data);
    }
    Send(out);
}

void CTarvikSimCanOpenNode::OnNmt(unsigned char command, Frames& out)
{
    switch (command)
    {
    case eNmtStart: SetState(eStateOperational, out); break;
    case eNmtStop: SetState(eStateStopped, out); break;
    case eNmtPreOperational: SetState(eStatePreOperational, out); break;
    case eNmtResetNode: Reset(true, out); break;
    case eNmtResetCommunication: Reset(false, out); break;
    default: break;
    }
}

void CTarvikSimCanOpenNode::Reset(bool wholeDictionary, Frames& out)
{
    for (SEntry& entry : m_aoEntries)
        if (wholeDictionary || entry.m_nIndex < kFirstApplicationIndex)
            entry.m_sValue = entry.m_sDefault;
    ApplyHeartbeatTime();
    m_eState = eStateBootUp;
    out.push_back(Heartbeat());
    m_eState = eStatePreOperational;
}

void CTarvikSimCanOpenNode::SetState(EState state, Frames& out)
{
    if (m_eState == state)
        return;
    m_eState = state;
    unsigned short period = ReadU16(Find(kIndexHeartbeat, 0)->m_sValue);
    if (period == 0)
        return;
    // Report the change at once, and count the next period from here.
    out.push_back(Heartbeat());
    m_oBus.SetTimer(this, kTimerHeartbeat, period, period);
}

void CTarvikSimCanOpenNode::ApplyHeartbeatTime()
{
    unsigned short period = ReadU16(Find(kIndexHeartbeat, 0)->m_sValue);
    if (period == 0)
        m_oBus.KillTimer(this, kTimerHeartbeat);
    else
        m_oBus.SetTimer(this, kTimerHeartbeat, period, period);
}

void CTarvikSimCanOpenNode::OnTimer(unsigned int key)
{
    Frames out;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (key == kTimerHeartbeat && m_bPowered)
            out.push_back(Heartbeat());
    }
    Send(out);
}

STarvikSimCanFrame CTarvikSimCanOpenNode::Heartbeat() const
{
    return STarvikSimCanFrame{static_cast<unsigned int>(kCobHeartbeat + m_nId), 0, TarvikSimU8(m_eState), 0, {}};
}

std::string CTarvikSimCanOpenNode::PdoData() const
{
    std::string data;
    for (unsigned short index : kPdoIndices)
        data += Find(index, 0)->m_sValue;
    return data;
}

void CTarvikSimCanOpenNode::StorePdo(const std::string& data)
{
    size_t pos = 0;
    for (unsigned short index : kPdoIndices)
    {
        SEntry* entry = Find(index, 0);
        if (pos + entry->m_nSize > data.size())
            return;
        entry->m_sValue = data.substr(pos, entry->m_nSize);
        pos += entry->m_nSize;
    }
}

void CTarvikSimCanOpenNode::Send(const Frames& frames)
{
    // Outside the node's lock: the other nodes get the frame on this thread.
    for (const STarvikSimCanFrame& frame : frames)
        m_oBus.Transmit(frame, this);
}
