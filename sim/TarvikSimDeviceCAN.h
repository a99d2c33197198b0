// The CAN gateway (device type 2). Every gateway of one simulator sits on one shared
// CAN bus (CTarvikSimCanBus) with the bus's CANopen nodes, so frames one client writes
// reach the clients of the other gateways.
//
// Commands (data after the result byte in the answers; all integers little-endian):
//   0x03 Write         id(4) flags(1) data -> sends the frame; confirmed only for a
//                      client whose send-confirm flag is set: time of transmission,
//                      seconds(4) microseconds(4) by the gateway's clock
//   0x05 SetConfig     send-confirm(1) time-stamps(1), per client connection
//   0x06 GetConfig     -> the two flags of this connection
//   0x07 SetGlobals    setting(1) baud rate(4) flag1 flag2 flag3 option1(1 each)
//                      option value(4) option2(1); a baud rate other than 10k, 20k, 50k,
//                      100k, 125k, 250k, 500k, 800k, 1M gives 0x24 and keeps the old globals
//   0x08 GetGlobals    -> the 14 bytes as set (power-up: setting 0, 500000, rest 0)
//   0x0B SetTime       seconds(4) microseconds(4) -> the clock runs on from there
//   0x0E GetTime       -> valid(1) seconds(4) microseconds(4); until set, the clock
//                      counts from 0 at power-up and valid is 0
//   0x20 SetFilter     16 words = 8 pairs (code, mask): a received frame passes when
//                      (id & mask) == (code & mask) for a pair whose mask is not 0,
//                      or when no mask is set at all (power-up)
//   0x21 GetFilter     -> the 16 words
//   0x22 GetPowerStatus -> 4 supply voltages (mV, 0 when off), 4 supply states, 1 relay
//                      state; temperature 0.1 degC (signed), input mV, load mA; relay bit
//   0x23 SetPowerRelais on(1)       0x24 SetActivePowerSupplies mask(4)
//   0x25 SetCyclicMessage the gateway's cyclic messages (CTarvikSimCanCyclicTable)
//   0x51 SetZCardParameter p1(1) p2(2) p3(2) p3(2), both p3 alike; 0x52 Get -> p1 p2 p3
//   0x60..0x6B         CANopen master services (CTarvikSimCanOpenMaster)
// Result bytes: 0x20 no other station on the bus acknowledges, 0x21 a frame the
// controller cannot send (identifier past 11/29 bits, more than 8 data bytes, 64 with
// the FD flag), 0x24 invalid baud rate, 0xFF malformed request; 0xFC..0xFE of the
// CANopen master.
//
// Received frames: to every client of the gateway as 0x203 indications (id, flags,
// data, and seconds and microseconds with flag 0x04 for a connection that asked for
// time stamps), through the acceptance filter. In CANopen mode the CANopen master sorts
// them into CANopen indications.
#ifndef TARVIK_SIM_TARVIKSIMDEVICECAN_H
#define TARVIK_SIM_TARVIKSIMDEVICECAN_H

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimCanCyclicTable.h"
#include "sim/TarvikSimCanOpenMaster.h"
#include "sim/TarvikSimCanStation.h"
#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <array>
#include <map>
#include <memory>

class CTarvikSimDeviceCAN : public CTarvikSimDevice,
                            public CTarvikSimCanStation,
                            private CTarvikSimCanOpenMaster::CGateway
{
public:
    enum ECanResult
    {
        eResultNack = 0x20,
        eResultTransmitError = 0x21,
        eResultNoBaudrate = 0x24,
    };
    static constexpr size_t kFilterWords = 16;
    static constexpr size_t kSupplies = 4;
    static constexpr unsigned int kDefaultBaudrate = 500000;

    // Joins bus, or a bus of its own when none is given.
    explicit CTarvikSimDeviceCAN(unsigned int index, std::shared_ptr<CTarvikSimCanBus> bus = nullptr);
    // Leaves the bus first: the bus thread is out of this object before any of it goes.
    ~CTarvikSimDeviceCAN() override;

    const std::shared_ptr<CTarvikSimCanBus>& GetBus() const { return m_pBus; }
    // Client connections now attached, for IndicateTo and StreamFrames.
    std::vector<unsigned long> GetConnections() const;
    // Sends count 0x203 indications of frame to one connection as fast as its socket
    // takes them (bytes 0..3 of data, when there are four, carry the running number);
    // blocks; the number sent, short of count once the connection ends.
    size_t StreamFrames(unsigned long connection, STarvikSimCanFrame frame, size_t count);
    // Indications that did not fit a connection's outbox and were lost.
    unsigned long GetDroppedCount() const;
    bool IsCanOpenOn() const;
    // The gateway's clock, microseconds since 1970 once set.
    int64_t GetClockUs() const;

    std::string GetStationName() const override;
    void OnFrame(const STarvikSimCanFrame& frame) override;
    void OnTimer(unsigned int key) override;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;
    void OnAttach(unsigned long connection) override;
    void OnDetach(unsigned long connection) override;

private:
    struct SClient
    {
        bool m_bConfirm = false;
        bool m_bTimeStamps = false;
    };

    bool HandleCanCommand(unsigned char cmd, const std::string& data, std::string& answer);
    std::string OnWrite(const std::string& data);
    std::string OnSetConfig(const std::string& data);
    std::string OnSetGlobals(const std::string& data);
    std::string OnSetTime(const std::string& data);
    std::string OnSetFilter(const std::string& data);
    std::string OnGetPowerStatus() const;
    std::string OnSetPowerRelais(const std::string& data);
    std::string OnSetCyclic(const std::string& data);
    std::string OnSetZCard(const std::string& data);

    // CTarvikSimCanOpenMaster::CGateway. Send: 0, eResultTransmitError or eResultNack.
    unsigned char Send(const STarvikSimCanFrame& frame) override;
    bool Accepts(const STarvikSimCanFrame& frame) const override;
    void IndicateFrame(unsigned char cmd, const STarvikSimCanFrame& frame) override;
    void IndicateAll(unsigned char cmd, const std::string& data) override;
    CTarvikMsg FrameTelegram(unsigned char cmd, const STarvikSimCanFrame& frame, bool timeStamp);
    void ResetVolatile();
    int64_t ClockUs() const;

    std::shared_ptr<CTarvikSimCanBus> m_pBus;
    std::map<unsigned long, SClient> m_aoClients;
    std::string m_sGlobals;
    std::array<unsigned int, kFilterWords> m_anFilter;
    CTarvikSimCanCyclicTable m_oCyclic;
    std::string m_sZCard;
    // The clock: m_nClockUs at m_oClockSet, running on with the steady clock.
    int64_t m_nClockUs;
    std::chrono::steady_clock::time_point m_oClockSet;
    bool m_bTimeValid;
    bool m_bRelay;
    unsigned int m_nSupplies;
    CTarvikSimCanOpenMaster m_oCanOpen;
    short m_nIndicationId;
    unsigned long m_nDropped;
};

#endif
