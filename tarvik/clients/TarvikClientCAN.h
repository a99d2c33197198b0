// CTarvikClientCAN: a CAN gateway (device type 2): bus configuration, acceptance
// filter and global settings, the device's clock, power and extension-card services,
// CAN frame transmission, and the CANopen master services that the device carries out.
//
// Received CAN frames and CANopen events come as indications; this class ignores them.
// CTarvikClientCANDll queues them or hands them to callbacks.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTCAN_H
#define TARVIK_CLIENTS_TARVIKCLIENTCAN_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <sys/time.h>

#include <atomic>
#include <string>

class TARVIK_API CTarvikClientCAN : public CTarvikClient
{
public:
    // Command numbers (tarvik/protocol/TarvikProtocolCAN.h); the command code is
    // 0x0200 | number, a confirmation 0x8200 | number.
    enum ECmd
    {
        TARVIK_CAN_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    // Flag bit of a received frame: its last 8 data bytes are a time stamp.
    static constexpr unsigned char kFlagTimeStamp = tarvik_protocol::can::kFlagTimeStamp;

    // The acceptance filter: sixteen words that the device interprets, sent and read in order.
    struct SConfigFilter
    {
        unsigned int nFilter[16];
    };

    // Status byte of an SDO answer that carries the node's abort code (CANopen's abort
    // command specifier); the code follows as 32 bits.
    static constexpr unsigned char kSDOAbortStatus = 0x80;
    // Most value bytes of an expedited SDO transfer.
    static constexpr unsigned char kSDOMaxValueSize = 4;

    // An SDO transfer as the device answered it (the ...Value services below).
    struct SSDOValue
    {
        unsigned char nStatus;   // the answer's status byte
        unsigned char nSize;     // number of value bytes received, 0..4
        unsigned int nValue;     // those bytes as an unsigned little-endian number
        unsigned int nAbortCode; // the node's SDO abort code; 0 when the answer carried none
    };

    explicit CTarvikClientCAN(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientCAN() override;

    // Open() of the engine stays available beside the CAN form below.
    using CTarvikClient::Open;
    // The engine's Open(), then SetConfig(bSendDataConfirm, bConfigFlag2).
    int Open(bool bSendDataConfirm, bool bConfigFlag2);

    // Every operation returns 0 or a result code (a device error reads 0x02xx, see
    // CTarvikClient::GetErrorMsg). Unless said otherwise, outputs are written only when
    // the result is 0 and the answer carries their bytes; otherwise they keep their values.

    // bSendDataConfirm: Write waits for the device's confirmation of every frame. Taken
    // over only when the device accepts it.
    int SetConfig(bool bSendDataConfirm, bool bConfigFlag2);
    // Also takes the device's first flag over as the Write mode.
    int GetConfig(bool& bSendDataConfirm, bool& bConfigFlag2);
    int SetFilter(const SConfigFilter& filter);
    int GetFilter(SConfigFilter& filter);
    int SetGlobals(unsigned int nBaudrate, unsigned char nSetting, bool bFlag1, bool bFlag2, bool bFlag3, bool bOption1,
                   unsigned int nOptionValue, bool bOption2);
    // Read in stages by the answer's length: setting and baud rate first (then the other
    // outputs are cleared), then each further field as far as the answer goes.
    int GetGlobals(unsigned int& nBaudrate, unsigned char& nSetting, bool& bFlag1, bool& bFlag2, bool& bFlag3,
                   bool& bOption1, unsigned int& nOptionValue, bool& bOption2);

    int SetZCardParameter(unsigned char nParam1, unsigned short nParam2, unsigned short nParam3);
    // nParam2 and nParam3 are each two bytes taken as signed and summed (high × 256 + low)
    // in 16 bits: a low byte of 0x80 or more lowers the high byte by one, as the device expects.
    int GetZCardParameter(unsigned char& nParam1, unsigned short& nParam2, unsigned short& nParam3);
    int SetTime(const timeval& tv);
    // The device's clock.
    int GetTime(bool& bTimeValid, timeval& tv);
    // nMax...: capacities of the three arrays (any may be null). The counts returned are
    // the device's; entries past a capacity, or past the end of the answer, are not stored.
    int GetPowerStatus(unsigned char nMaxValues, unsigned char& nValueCount, unsigned char nMaxStates1,
                       unsigned char& nStateCount1, unsigned char nMaxStates2, unsigned char& nStateCount2,
                       short& nStatusValue1, unsigned short& nStatusValue2, unsigned short& nStatusValue3,
                       bool& bStatusBit, unsigned short* pnValues, bool* pbStates1, bool* pbStates2);
    int SetPowerRelais(bool bOn);
    int SetActivePowerSupplies(unsigned int nMask);

    // Sends one frame (nLen data bytes from pcBuffer; none when it is null). Unconfirmed
    // mode: returns once sent; the seconds and microseconds (either pointer may be null)
    // are this PC's local wall-clock time counted from 1 January 1970. Confirmed mode:
    // waits for the device; its time of transmission is written whenever an answer with
    // it came, even one that reports an error.
    int Write(int nIdentifier, const char* pcBuffer, unsigned char nLen, unsigned char nFlags, int* pnSeconds,
              int* pnMicroseconds);
    // The device repeats the frame every nInterval while entry nIndex is enabled.
    int SetCyclicMessage(unsigned char nIndex, bool bEnable, unsigned int nInterval, int nIdentifier,
                         const char* pcBuffer, unsigned char nLen, unsigned char nFlags);
    // Connection supervision every nSeconds; sends nothing and returns 0.
    int StartAlive(unsigned int nSeconds);

    // CANopen master services; the device runs the protocol on the bus.
    int CANopenSetConfig(unsigned char nMode);
    // A one-byte answer gives nMode 0.
    int CANopenGetConfig(unsigned char& nMode);
    int CANopenSetSYNCMode(unsigned short nSYNCMode);
    int CANopenSendNMT(unsigned char nNode, unsigned char nCommand);
    int CANopenSendSYNC();
    int CANopenSendTIME(unsigned short nDays, unsigned int nMilliseconds);
    int CANopenSendPDO(unsigned char nSelector1, unsigned char nSelector2, unsigned char nLen, const char* pcBuffer);
    // The SDO services wait twice nTimeout (the device's own limit) for the answer.
    // nValue: the answer's value bytes, each taken as signed and summed at its place, so
    // a byte of 0x80 or more borrows from those above it (the device's encoding).
    int CANopenSendSDORead(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex, unsigned short nTimeout,
                           unsigned char& nStatus, unsigned int& nValue);
    int CANopenSendSDOWrite(unsigned char nNode, unsigned char nDataSize, unsigned short nIndex,
                            unsigned char nSubIndex, unsigned short nTimeout, unsigned int nData,
                            unsigned char& nStatus, unsigned int& nValue);
    // pcBuffer receives nLen = min(answer size - 2, nBufferSize) bytes from the answer's
    // status byte on: the first repeats nStatus, and the last data byte of a full
    // answer is not copied (the device's layout, kept).
    int CANopenSendSDOReadBlock(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                unsigned short nTimeout, unsigned short nBufferSize, unsigned char& nStatus,
                                unsigned short& nLen, unsigned char* pcBuffer);
    int CANopenSendSDOWriteBlock(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                 unsigned short nTimeout, unsigned short nLen, const unsigned char* pcBuffer,
                                 unsigned char& nStatus, unsigned int& nValue);

    // The same transfers with the value as it came: value is cleared, then on success
    // holds the status byte, the value bytes as an unsigned little-endian number and
    // their count; on a failure whose answer carries the node's abort (status 0x80 and
    // 32 bits), nAbortCode. A successful answer without a status byte or with more than
    // four value bytes gives 0x0C0000. A node that does not answer gives 0x0002FC,
    // CANopen mode off 0x0002FE, as the services above.
    int CANopenSDOReadValue(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                            unsigned short nTimeout, SSDOValue& value);
    int CANopenSDOWriteValue(unsigned char nNode, unsigned char nDataSize, unsigned short nIndex,
                             unsigned char nSubIndex, unsigned short nTimeout, unsigned int nData, SSDOValue& value);
    int CANopenSDOWriteBlockValue(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                  unsigned short nTimeout, unsigned short nLen, const unsigned char* pcBuffer,
                                  SSDOValue& value);
    // A block read that keeps every data byte of the answer: data is cleared, then on
    // success holds all bytes after the status byte; nAbortCode as above (0 if none).
    int CANopenSDOReadBlockData(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                unsigned short nTimeout, unsigned char& nStatus, std::string& data,
                                unsigned int& nAbortCode);
    // The standard meaning of an SDO abort code ("object does not exist" for
    // 0x06020000); "unknown abort code" for one that CANopen does not define.
    static const char* GetSDOAbortText(unsigned int nAbortCode);

    // Indications are ignored here (not taken: the engine drops them).
    bool DataIndRespond(CTarvikMsg* msg) override;

protected:
    // Whether Write waits for the device's confirmation of each frame.
    std::atomic<bool> m_bSendDataConfirm;

private:
    // The 6-byte SDO address block of 0x268, 0x26A and 0x26B.
    static std::string SDOAddress(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                  unsigned short nTimeout);
    // One SDO request waiting twice nTimeout; decodes status and value of the answer.
    int SDOTransfer(unsigned char cmd, std::string&& payload, unsigned short nTimeout, unsigned char& nStatus,
                    unsigned int& nValue);
    // One SDO request waiting twice nTimeout, its answer kept in reply.
    int SDORequest(unsigned char cmd, std::string&& payload, unsigned short nTimeout, CTarvikReply& reply);
    // The ...Value decode of an SDO answer.
    static int SDOValue(int result, const CTarvikReply& reply, SSDOValue& value);
    // The node's abort code from a failed SDO answer; 0 when it carries none.
    static unsigned int SDOAbortCode(int result, const CTarvikPayload& answer);
};

#endif
