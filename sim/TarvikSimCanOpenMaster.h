// The CANopen master of a simulated CAN gateway: the services 0x260..0x26B that the
// gateway carries out on the bus for its clients, and in CANopen mode the sorting of
// received frames into CANopen indications:
//   SYNC 0x264, EMCY 0x266, TPDO1..4 0x267 (node, PDO number, length, data), heartbeats
//   0x26C GUARD (node, state) when a node's state changes or its heartbeat stays away
//   for 1.5 heartbeat periods (state 0xFF), and every other frame 0x26D.
// All services but 0x260/0x261 answer 0xFE until CANopen mode is set (0x260 with a
// non-zero mode). 0xFC: the node did not answer (none with that id, stopped or
// unpowered); 0xFD: the node aborted the SDO transfer (status 0x80 and the 32-bit abort
// code follow).
//
// Every method runs with the gateway's lock held; the master reaches the clients and
// the bus through the gateway (CGateway) and the bus's timers.
#ifndef TARVIK_SIM_TARVIKSIMCANOPENMASTER_H
#define TARVIK_SIM_TARVIKSIMCANOPENMASTER_H

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimCanStation.h"

#include <map>
#include <string>

class CTarvikSimCanOpenMaster
{
public:
    enum EResult
    {
        eResultCoTimeout = 0xFC,
        eResultCoNack = 0xFD,
        eResultCoOff = 0xFE,
    };
    // GUARD state reported when a node's heartbeat stays away.
    static constexpr unsigned char kGuardLost = 0xFF;
    // Timer keys of the master; the gateway's own keys stay below kTimerSync.
    static constexpr unsigned int kTimerSync = 0x40;
    static constexpr unsigned int kTimerGuardBase = 0x100;

    // What the master needs of the gateway it runs in.
    class CGateway
    {
    public:
        virtual ~CGateway() = default;
        // Puts a frame on the bus: 0, or the gateway's transmit error or NACK result.
        virtual unsigned char Send(const STarvikSimCanFrame& frame) = 0;
        // Whether the acceptance filter lets a frame through.
        virtual bool Accepts(const STarvikSimCanFrame& frame) const = 0;
        // An indication to every client: a CANopen event, or a frame in the frame layout.
        virtual void IndicateAll(unsigned char cmd, const std::string& data) = 0;
        virtual void IndicateFrame(unsigned char cmd, const STarvikSimCanFrame& frame) = 0;
    };
    // A service's answer: the result byte and the data after it.
    struct SAnswer
    {
        unsigned char m_nResult = 0;
        std::string m_sData;
    };

    // owner: the station the master's timers call back (the gateway, which hands them on).
    CTarvikSimCanOpenMaster(CTarvikSimCanBus& bus, CTarvikSimCanStation& owner, CGateway& gateway);

    bool IsOn() const { return m_nMode != 0; }
    // A service 0x60..0x6B; false for a number that is no request (0x66, EMCY).
    bool HandleCommand(unsigned char cmd, const std::string& data, SAnswer& answer);
    // A frame from the bus while CANopen mode is on.
    void OnFrame(const STarvikSimCanFrame& frame);
    // A timer of the master is due; false for a key that is not the master's.
    bool OnTimer(unsigned int key);
    // CANopen mode off, its timers stopped (a restart of the gateway).
    void Reset();

private:
    SAnswer SetConfig(const std::string& data);
    SAnswer SetSyncMode(const std::string& data);
    SAnswer Nmt(const std::string& data);
    SAnswer Time(const std::string& data);
    SAnswer Pdo(const std::string& data);
    SAnswer SdoRead(const std::string& data, bool block);
    SAnswer SdoWrite(const std::string& data);
    SAnswer SdoWriteBlock(const std::string& data);
    static SAnswer SdoAnswer(unsigned int abort, const std::string& data);
    unsigned int NodeRead(unsigned char node, unsigned short index, unsigned char sub, std::string& value) const;
    unsigned int NodeWrite(unsigned char node, unsigned short index, unsigned char sub, const std::string& value);
    void OnHeartbeat(unsigned char node, unsigned char state);
    void Stop();

    CTarvikSimCanBus& m_oBus;
    CTarvikSimCanStation& m_oOwner;
    CGateway& m_oGateway;
    unsigned char m_nMode;
    unsigned short m_nSyncPeriod;
    // Last state each node's heartbeat reported.
    std::map<unsigned char, unsigned char> m_anNodeStates;
};

#endif
