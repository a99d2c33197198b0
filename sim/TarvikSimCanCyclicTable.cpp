#include "sim/TarvikSimCanCyclicTable.h"

#include "tarvik/core/TarvikPayload.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

namespace
{
namespace can = tarvik_protocol::can;

constexpr size_t kIntervalOffset = 1;
constexpr size_t kFrameOffset = 5;
} // namespace

CTarvikSimCanCyclicTable::CTarvikSimCanCyclicTable(CTarvikSimCanBus& bus, CTarvikSimCanStation& owner)
    : m_oBus(bus), m_oOwner(owner)
{
}

CTarvikSimCanCyclicTable::ESet CTarvikSimCanCyclicTable::Set(const std::string& data)
{
    const CTarvikPayload payload(data);
    if (payload.Size() == 0)
        return eSetMalformed;
    const unsigned int index = payload.At(0) & ~can::kCyclicEnable & 0xFF;
    const bool enable = (payload.At(0) & can::kCyclicEnable) != 0;
    if (index >= kEntries || (enable && payload.Size() < kFrameOffset + can::kFrameHead))
        return eSetMalformed;
    if (!enable)
    {
        m_aoEntries[index].m_bEnabled = false;
        m_oBus.KillTimer(&m_oOwner, index);
        return eSetDone;
    }
    unsigned int interval = 0;
    payload.ReadU32(kIntervalOffset, interval);
    STarvikSimCanFrame frame = STarvikSimCanFrame::FromRequest(data, kFrameOffset);
    if (interval == 0)
        return eSetMalformed;
    if (!frame.IsSendable())
        return eSetNotSendable;
    m_aoEntries[index] = SEntry{true, frame};
    m_oBus.SetTimer(&m_oOwner, index, 0, interval);
    return eSetDone;
}

bool CTarvikSimCanCyclicTable::OnTimer(unsigned int key)
{
    if (key >= kEntries)
        return false;
    // Checked under the gateway's lock: once a disable is answered, no more frames go out.
    if (m_aoEntries[key].m_bEnabled)
        m_oBus.Transmit(m_aoEntries[key].m_oFrame, &m_oOwner);
    return true;
}

void CTarvikSimCanCyclicTable::Reset()
{
    for (size_t i = 0; i < kEntries; ++i)
    {
        m_aoEntries[i].m_bEnabled = false;
        m_oBus.KillTimer(&m_oOwner, static_cast<unsigned int>(i));
    }
}
