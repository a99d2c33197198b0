// A station on the simulated CAN bus (a gateway or a CANopen node), as the bus sees it,
// the frame the bus carries, and the bus as a station sees it.
//
// Flags of a frame: the gateway's flags byte (tarvik/protocol/TarvikProtocolCAN.h).
// Bit 0x04 marks a time stamp appended to a received frame's telegram; it never travels
// on the bus itself.
#ifndef TARVIK_SIM_TARVIKSIMCANSTATION_H
#define TARVIK_SIM_TARVIKSIMCANSTATION_H

#include "tarvik/core/TarvikPayload.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <cstddef>
#include <cstdint>
#include <string>

// One byte of a telegram or a frame (the low byte of value).
inline std::string TarvikSimU8(unsigned int value)
{
    return std::string(1, static_cast<char>(value & 0xFF));
}

struct STarvikSimCanFrame
{
    static constexpr unsigned char kFlagExtended = tarvik_protocol::can::kFlagExtended;
    static constexpr unsigned char kFlagRemote = tarvik_protocol::can::kFlagRemote;
    static constexpr unsigned char kFlagTimeStamp = tarvik_protocol::can::kFlagTimeStamp;
    static constexpr unsigned char kFlagFD = tarvik_protocol::can::kFlagFD;
    static constexpr size_t kMaxClassic = tarvik_protocol::can::kMaxClassicData;
    static constexpr size_t kMaxFD = tarvik_protocol::can::kMaxFDData;
    static constexpr unsigned int kMaxStandardId = 0x7FF;
    static constexpr unsigned int kMaxExtendedId = 0x1FFFFFFF;

    unsigned int m_nId = 0;
    unsigned char m_nFlags = 0;
    std::string m_sData;
    // Filled in by the bus: wall-clock microseconds since 1970 when it went out, and
    // who sent it ("can0", "can1" for gateways by port index, "node2", "test").
    int64_t m_nTimeUs = 0;
    std::string m_sSender;

    // The frame part of a request (Write, cyclic message) from pos on: identifier,
    // flags, data. The caller has checked that the head is there.
    static STarvikSimCanFrame FromRequest(const std::string& data, size_t pos)
    {
        STarvikSimCanFrame frame;
        const CTarvikPayload payload(data);
        payload.ReadU32(pos + tarvik_protocol::can::kFrameIdOffset, frame.m_nId);
        frame.m_nFlags = payload.At(pos + tarvik_protocol::can::kFrameFlagsOffset);
        const size_t head = pos + tarvik_protocol::can::kFrameHead;
        frame.m_sData = head < data.size() ? data.substr(head) : std::string();
        return frame;
    }

    // Whether a CAN controller can send it: identifier within 11 or 29 bits, at most
    // 8 data bytes (64 for CAN FD).
    bool IsSendable() const
    {
        unsigned int maxId = (m_nFlags & kFlagExtended) != 0 ? kMaxExtendedId : kMaxStandardId;
        size_t maxData = (m_nFlags & kFlagFD) != 0 ? kMaxFD : kMaxClassic;
        return m_nId <= maxId && m_sData.size() <= maxData;
    }
};

class CTarvikSimCanStation
{
public:
    virtual ~CTarvikSimCanStation() = default;
    // Station name as the bus log shows it.
    virtual std::string GetStationName() const = 0;
    // A frame another station sent. Gateways get it on the bus thread, nodes on the
    // sender's thread; the bus holds no lock of its own during the call.
    virtual void OnFrame(const STarvikSimCanFrame& frame) = 0;
    // A timer set with CTarvikSimCanBus::SetTimer is due (bus thread, no bus lock held).
    virtual void OnTimer(unsigned int key) = 0;
};

// What a station sees of the bus it is on: sending and its timers. A CANopen node
// knows the bus only through this, so the node's model does not depend on the bus's.
class CTarvikSimCanPort
{
public:
    virtual ~CTarvikSimCanPort() = default;
    // Sends a frame from sender (null: from outside); returns its time stamp. Any thread.
    virtual int64_t Transmit(STarvikSimCanFrame frame, const CTarvikSimCanStation* sender) = 0;
    // Calls owner->OnTimer(key) after firstMs, then every periodMs (0: once). Replaces a
    // timer of the same owner and key.
    virtual void SetTimer(CTarvikSimCanStation* owner, unsigned int key, unsigned int firstMs,
                          unsigned int periodMs) = 0;
    virtual void KillTimer(CTarvikSimCanStation* owner, unsigned int key) = 0;
};

#endif
