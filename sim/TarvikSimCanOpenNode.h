// A CANopen node on the simulated CAN bus, with a small object dictionary:
//   0x1000/0 u32 ro  device type 0x00000191
//   0x1001/0 u8  ro  error register (set by an EMCY, cleared by an EMCY of code 0)
//   0x1017/0 u16 rw  heartbeat producer time, ms (0: no heartbeat)
//   0x1018/0..4 ro   identity: count 4, vendor, product code, revision, serial 1000 + id
//   0x2000/0 u8  rw, 0x2001/0 u16 rw, 0x2002/0 u32 rw: mapped, in this order, into
//            TPDO1 (0x180 + id, 7 bytes, sent on SYNC) and RPDO1 (0x200 + id)
//   0x2100/0 domain rw, up to 4096 bytes; holds 4096 bytes of pattern at power-up
// NMT commands (frame 0x000: command, node or 0 for all) change its state: 0x01 start,
// 0x02 stop, 0x80 pre-operational, 0x81 reset node (whole dictionary back to power-up),
// 0x82 reset communication (0x1000..0x1FFF back). A reset sends the boot-up message
// (0x700 + id, one byte 0) and ends in pre-operational. With a heartbeat time set, the
// node sends its state on 0x700 + id at that period and at once on every change.
//
// The gateway, as CANopen master, reaches the dictionary at the telegram level through
// SdoRead and SdoWrite; a stopped or unpowered node does not answer them. Frames the
// node sends (boot-up, heartbeat, PDO, EMCY) go on the bus like any other.
#ifndef TARVIK_SIM_TARVIKSIMCANOPENNODE_H
#define TARVIK_SIM_TARVIKSIMCANOPENNODE_H

#include "sim/TarvikSimCanStation.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class CTarvikSimCanOpenNode : public CTarvikSimCanStation
{
public:
    enum EState
    {
        eStateBootUp = 0x00,
        eStateStopped = 0x04,
        eStateOperational = 0x05,
        eStatePreOperational = 0x7F,
    };
    enum ENmtCommand
    {
        eNmtStart = 0x01,
        eNmtStop = 0x02,
        eNmtPreOperational = 0x80,
        eNmtResetNode = 0x81,
        eNmtResetCommunication = 0x82,
    };
    // SDO abort codes the node answers with; kSdoNoAnswer: the node stays silent.
    enum ESdoAbort : unsigned int
    {
        eSdoOk = 0,
        eAbortReadOnly = 0x06010002,
        eAbortNoObject = 0x06020000,
        eAbortLengthMismatch = 0x06070010,
        eAbortLengthHigh = 0x06070012,
        eAbortNoSubIndex = 0x06090011,
        eSdoNoAnswer = 0xFFFFFFFF,
    };

    static constexpr unsigned short kCobNmt = 0x000;
    static constexpr unsigned short kCobSync = 0x080;
    static constexpr unsigned short kCobEmcy = 0x080;
    static constexpr unsigned short kCobTime = 0x100;
    static constexpr unsigned short kCobTpdo1 = 0x180;
    static constexpr unsigned short kCobRpdo1 = 0x200;
    static constexpr unsigned short kCobHeartbeat = 0x700;
    static constexpr unsigned int kDeviceType = 0x00000191;
    static constexpr size_t kDomainSize = 4096;
    static constexpr size_t kEmcyDataSize = 5;

    CTarvikSimCanOpenNode(unsigned char id, CTarvikSimCanPort& bus);
    CTarvikSimCanOpenNode(const CTarvikSimCanOpenNode&) = delete;
    CTarvikSimCanOpenNode& operator=(const CTarvikSimCanOpenNode&) = delete;

    unsigned char GetNodeId() const { return m_nId; }
    EState GetState() const;
    bool IsPowered() const { return m_bPowered.load(); }
    // Off: silent, timers stop. On: power-up dictionary, boot-up, pre-operational.
    void SetPowered(bool on);
    unsigned short GetHeartbeatTime() const;

    // Reads the whole value of an entry; an abort code, or eSdoNoAnswer.
    unsigned int SdoRead(unsigned short index, unsigned char sub, std::string& value) const;
    // Writes an entry: a fixed-size entry takes exactly its size, the domain up to its capacity.
    unsigned int SdoWrite(unsigned short index, unsigned char sub, const std::string& value);
    // For tests: every SDO transfer of index/sub is aborted with code from now on (0
    // ends it), whether or not the entry exists.
    void SetSdoAbort(unsigned short index, unsigned char sub, unsigned int code);
    // For tests: an entry's value whatever the state and access; false if there is none.
    bool GetObject(unsigned short index, unsigned char sub, std::string& value) const;
    // Sends an EMCY (0x080 + id: code, error register, 5 bytes) and keeps the error
    // register in 0x1001; false when stopped or unpowered (a node sends none then).
    bool RaiseEmcy(unsigned short code, unsigned char errorRegister, const std::string& data = std::string());

    std::string GetStationName() const override;
    void OnFrame(const STarvikSimCanFrame& frame) override;
    void OnTimer(unsigned int key) override;

private:
    struct SEntry
    {
        unsigned short m_nIndex;
        unsigned char m_nSub;
        size_t m_nSize; // 0: domain of variable length
        bool m_bWritable;
        std::string m_sValue;
        std::string m_sDefault;
    };
    using Frames = std::vector<STarvikSimCanFrame>;

    void BuildDictionary();
    SEntry* Find(unsigned short index, unsigned char sub);
    const SEntry* Find(unsigned short index, unsigned char sub) const;
    bool HasIndex(unsigned short index) const;
    // The code SetSdoAbort set for index/sub, else eSdoOk (lock held).
    unsigned int ForcedAbort(unsigned short index, unsigned char sub) const;
    unsigned int CheckWrite(const SEntry* entry, unsigned short index, size_t size) const;
    void OnNmt(unsigned char command, Frames& out);
    void Reset(bool wholeDictionary, Frames& out);
    void SetState(EState state, Frames& out);
    void ApplyHeartbeatTime();
    STarvikSimCanFrame Heartbeat() const;
    std::string PdoData() const;
    void StorePdo(const std::string& data);
    void Send(const Frames& frames);

    const unsigned char m_nId;
    CTarvikSimCanPort& m_oBus;
    mutable std::mutex m_oMutex;
    std::vector<SEntry> m_aoEntries;
    // Aborts set by SetSdoAbort: (index << 8 | sub) -> code.
    std::map<unsigned int, unsigned int> m_anAborts;
    EState m_eState;
    std::atomic<bool> m_bPowered;
};

#endif
