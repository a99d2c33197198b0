#include "tarvik/clients/TarvikClientCAN.h"

#include "tarvik/runtime/MolTime.h"

namespace
{
constexpr size_t kFilterWords = 16;
// The local wall clock is counted from local midnight of this day.
const char* const kLocalEpoch = "01.01.1970";

char Flag(bool value)
{
    return value ? 1 : 0;
}

char Byte(unsigned int value)
{
    return static_cast<char>(value & 0xFF);
}

// A byte taken as signed and widened: the device's encoding of values built from bytes.
unsigned int SignedByte(unsigned char value)
{
    return static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(value)));
}

// The meanings of the SDO abort codes that CANopen defines.
struct SAbortText
{
    unsigned int nCode;
    const char* pText;
};
const SAbortText kAbortTexts[] = {
    {0x05030000, "toggle bit not alternated"},
    {0x05040000, "SDO protocol timed out"},
    {0x05040001, "client/server command specifier not valid or unknown"},
    {0x05040002, "invalid block size"},
    {0x05040003, "invalid sequence number"},
    {0x05040004, "CRC error"},
    {0x05040005, "out of memory"},
    {0x06010000, "unsupported access to an object"},
    {0x06010001, "attempt to read a write-only object"},
    {0x06010002, "attempt to write a read-only object"},
    {0x06020000, "object does not exist"},
    {0x06040041, "object cannot be mapped to the PDO"},
    {0x06040042, "the objects to be mapped would exceed the PDO length"},
    {0x06040043, "general parameter incompatibility"},
    {0x06040047, "general internal incompatibility in the device"},
    {0x06060000, "access failed due to a hardware error"},
    {0x06070010, "data type does not match, length of service parameter does not match"},
    {0x06070012, "data type does not match, length of service parameter too high"},
    {0x06070013, "data type does not match, length of service parameter too low"},
    {0x06090011, "sub-index does not exist"},
    {0x06090030, "invalid value for parameter"},
    {0x06090031, "value of parameter written too high"},
    {0x06090032, "value of parameter written too low"},
    {0x06090036, "maximum value is less than minimum value"},
    {0x060A0023, "resource not available: SDO connection"},
    {0x08000000, "general error"},
    {0x08000020, "data cannot be transferred or stored to the application"},
    {0x08000021, "data cannot be transferred or stored to the application because of local control"},
    {0x08000022, "data cannot be transferred or stored to the application because of the present device state"},
    {0x08000023, "object dictionary dynamic generation failed or no object dictionary is present"},
    {0x08000024, "no data available"},
};

// Identifier, flags and nLen data bytes: the frame part of 0x203 and 0x225.
std::string FramePart(int nIdentifier, unsigned char nFlags, const char* pcBuffer, unsigned char nLen)
{
    std::string part = CTarvikMsg::ToChar(nIdentifier);
    part += static_cast<char>(nFlags);
    if (pcBuffer != nullptr)
        part.append(pcBuffer, nLen);
    return part;
}
} // namespace

CTarvikClientCAN::CTarvikClientCAN(int timeoutMs)
    : CTarvikClient(eTarvikCAN, static_cast<unsigned int>(timeoutMs)), m_bSendDataConfirm(false)
{
}

CTarvikClientCAN::~CTarvikClientCAN()
{
    StopConnection();
}

int CTarvikClientCAN::Open(bool bSendDataConfirm, bool bConfigFlag2)
{
    int result = CTarvikClient::Open();
    if (result != 0)
        return result;
    return SetConfig(bSendDataConfirm, bConfigFlag2);
}

// ---------------------------------------------------------------- configuration

int CTarvikClientCAN::SetConfig(bool bSendDataConfirm, bool bConfigFlag2)
{
    std::string payload{Flag(bSendDataConfirm), Flag(bConfigFlag2)};
    CTarvikReply reply;
    int result = Request(eCmdSetConfig, std::move(payload), reply);
    if (result == 0)
        m_bSendDataConfirm.store(bSendDataConfirm, std::memory_order_relaxed);
    return result;
}

int CTarvikClientCAN::GetConfig(bool& bSendDataConfirm, bool& bConfigFlag2)
{
    CTarvikReply reply;
    int result = Request(eCmdGetConfig, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    if (result == 0 && answer.Size() > 2)
    {
        bSendDataConfirm = answer.At(1) == 1;
        bConfigFlag2 = answer.At(2) == 1;
        m_bSendDataConfirm.store(bSendDataConfirm, std::memory_order_relaxed);
    }
    return result;
}

int CTarvikClientCAN::SetFilter(const SConfigFilter& filter)
{
    std::string payload;
    payload.reserve(4 * kFilterWords);
    for (size_t i = 0; i < kFilterWords; ++i)
        payload += CTarvikMsg::ToChar(filter.nFilter[i]);
    CTarvikReply reply;
    return Request(eCmdSetFilter, std::move(payload), reply);
}

int CTarvikClientCAN::GetFilter(SConfigFilter& filter)
{
    CTarvikReply reply;
    int result = Request(eCmdGetFilter, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    if (result == 0 && answer.Size() > 4 * kFilterWords)
        for (size_t i = 0; i < kFilterWords; ++i)
            answer.ReadU32(1 + 4 * i, filter.nFilter[i]);
    return result;
}

int CTarvikClientCAN::SetGlobals(unsigned int nBaudrate, unsigned char nSetting, bool bFlag1, bool bFlag2, bool bFlag3,
                                 bool bOption1, unsigned int nOptionValue, bool bOption2)
{
    // The setting leads on the wire, ahead of the baud rate.
    std::string payload(1, static_cast<char>(nSetting));
    payload += CTarvikMsg::ToChar(nBaudrate);
    payload += Flag(bFlag1);
    payload += Flag(bFlag2);
    payload += Flag(bFlag3);
    payload += Flag(bOption1);
    payload += CTarvikMsg::ToChar(nOptionValue);
    payload += Flag(bOption2);
    CTarvikReply reply;
    return Request(eCmdSetGlobals, std::move(payload), reply);
}

int CTarvikClientCAN::GetGlobals(unsigned int& nBaudrate, unsigned char& nSetting, bool& bFlag1, bool& bFlag2,
                                 bool& bFlag3, bool& bOption1, unsigned int& nOptionValue, bool& bOption2)
{
    CTarvikReply reply;
    int result = Request(eCmdGetGlobals, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    const size_t size = answer.Size();
    if (result != 0 || size <= 5)
        return result;
    // Older firmware sends fewer fields: what it leaves out reads false/0.
    bFlag1 = bFlag2 = bFlag3 = bOption1 = bOption2 = false;
    nOptionValue = 0;
    nSetting = answer.At(1);
    answer.ReadU32(2, nBaudrate);
    // The three flags are set only by exactly 1, the two options by any non-zero byte.
    if (size > 6)
        bFlag1 = answer.At(6) == 1;
    if (size > 7)
        bFlag2 = answer.At(7) == 1;
    if (size > 8)
        bFlag3 = answer.At(8) == 1;
    if (size > 13)
    {
        bOption1 = answer.At(9) != 0;
        answer.ReadU32(10, nOptionValue);
        if (size > 14)
            bOption2 = answer.At(14) != 0;
    }
    return result;
}

// ---------------------------------------------------------------- device services

int CTarvikClientCAN::SetZCardParameter(unsigned char nParam1, unsigned short nParam2, unsigned short nParam3)
{
    // The device expects the third value twice.
    std::string payload(1, static_cast<char>(nParam1));
    payload += CTarvikMsg::ToChar(nParam2);
    payload += CTarvikMsg::ToChar(nParam3);
    payload += CTarvikMsg::ToChar(nParam3);
    CTarvikReply reply;
    return Request(eCmdSetZCardParameter, std::move(payload), reply);
}

int CTarvikClientCAN::GetZCardParameter(unsigned char& nParam1, unsigned short& nParam2, unsigned short& nParam3)
{
    CTarvikReply reply;
    int result = Request(eCmdGetZCardParameter, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    if (result == 0 && answer.Size() > 5)
    {
        nParam1 = answer.At(1);
        nParam2 = static_cast<unsigned short>((SignedByte(answer.At(3)) << 8) + SignedByte(answer.At(2)));
        nParam3 = static_cast<unsigned short>((SignedByte(answer.At(5)) << 8) + SignedByte(answer.At(4)));
    }
    return result;
}

int CTarvikClientCAN::SetTime(const timeval& tv)
{
    std::string payload = CTarvikMsg::ToChar(static_cast<int>(tv.tv_sec));
    payload += CTarvikMsg::ToChar(static_cast<int>(tv.tv_usec));
    CTarvikReply reply;
    return Request(eCmdSetTime, std::move(payload), reply);
}

int CTarvikClientCAN::GetTime(bool& bTimeValid, timeval& tv)
{
    CTarvikReply reply;
    int result = Request(eCmdGetTime, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    int seconds = 0, microseconds = 0;
    if (result == 0 && answer.Size() > 9 && answer.ReadS32(2, seconds) && answer.ReadS32(6, microseconds))
    {
        bTimeValid = answer.At(1) != 0;
        tv.tv_sec = seconds;
        tv.tv_usec = microseconds;
    }
    return result;
}

int CTarvikClientCAN::GetPowerStatus(unsigned char nMaxValues, unsigned char& nValueCount, unsigned char nMaxStates1,
                                     unsigned char& nStateCount1, unsigned char nMaxStates2,
                                     unsigned char& nStateCount2, short& nStatusValue1, unsigned short& nStatusValue2,
                                     unsigned short& nStatusValue3, bool& bStatusBit, unsigned short* pnValues,
                                     bool* pbStates1, bool* pbStates2)
{
    CTarvikReply reply;
    int result = Request(eCmdGetPowerStatus, nullptr, 0, reply);
    const CTarvikPayload answer = reply.Payload();
    if (result != 0 || answer.Size() <= 12)
        return result;
    nValueCount = answer.At(1);
    nStateCount1 = answer.At(2);
    nStateCount2 = answer.At(3);
    answer.ReadS16(4, nStatusValue1);
    answer.ReadU16(6, nStatusValue2);
    answer.ReadU16(8, nStatusValue3);
    bStatusBit = (answer.At(10) & 0x01) != 0;
    // Each list starts where the previous one's announced entries end, stored or not;
    // an entry the answer does not carry leaves its slot alone.
    size_t pos = 11;
    for (unsigned int i = 0; i < nValueCount; ++i, pos += 2)
        if (i < nMaxValues && pnValues != nullptr)
            answer.ReadU16(pos, pnValues[i]);
    unsigned char state = 0;
    for (unsigned int i = 0; i < nStateCount1; ++i, ++pos)
        if (i < nMaxStates1 && pbStates1 != nullptr && answer.ReadU8(pos, state))
            pbStates1[i] = (state & 0x01) != 0;
    for (unsigned int i = 0; i < nStateCount2; ++i, ++pos)
        if (i < nMaxStates2 && pbStates2 != nullptr && answer.ReadU8(pos, state))
            pbStates2[i] = (state & 0x01) != 0;
    return result;
}

int CTarvikClientCAN::SetPowerRelais(bool bOn)
{
    CTarvikReply reply;
    return Request(eCmdSetPowerRelais, std::string(1, Flag(bOn)), reply);
}

int CTarvikClientCAN::SetActivePowerSupplies(unsigned int nMask)
{
    CTarvikReply reply;
    return Request(eCmdSetActivePowerSupplies, CTarvikMsg::ToChar(nMask), reply);
}

// ---------------------------------------------------------------- transmission

int CTarvikClientCAN::Write(int nIdentifier, const char* pcBuffer, unsigned char nLen, unsigned char nFlags,
                            int* pnSeconds, int* pnMicroseconds)
{
    std::string frame = FramePart(nIdentifier, nFlags, pcBuffer, nLen);
    if (!m_bSendDataConfirm.load(std::memory_order_relaxed))
    {
        int result = Post(eCmdFrame, frame.data(), frame.size(), nullptr);
        if (pnSeconds == nullptr && pnMicroseconds == nullptr)
            return result;
        // The local wall clock, not UTC: applications compare it with their local time stamps.
        CMolLocalTime now(0, 0);
        now.CurrentLocalTime();
        CMolTimeDiff since = now - CMolLocalTime(kLocalEpoch, CMolUTCTime::eFormatGerman, 0);
        if (pnSeconds != nullptr)
            *pnSeconds = static_cast<int>(since.GetTotalMilliSeconds() / 1000);
        if (pnMicroseconds != nullptr)
            *pnMicroseconds = static_cast<int>(since.GetTotalMicroSeconds() % 1000000);
        return result;
    }
    CTarvikReply reply;
    int result = Request(eCmdFrame, std::move(frame), reply);
    // The device's time of transmission, from any answer that carries it.
    const CTarvikPayload answer = reply.Payload();
    if (answer.Size() > 8)
    {
        if (pnSeconds != nullptr)
            answer.ReadS32(1, *pnSeconds);
        if (pnMicroseconds != nullptr)
            answer.ReadS32(5, *pnMicroseconds);
    }
    return result;
}

int CTarvikClientCAN::SetCyclicMessage(unsigned char nIndex, bool bEnable, unsigned int nInterval, int nIdentifier,
                                       const char* pcBuffer, unsigned char nLen, unsigned char nFlags)
{
    // The index is OR-ed in as given: its own bit 7 also reads as "enabled".
    std::string payload(1, static_cast<char>(nIndex | (bEnable ? tarvik_protocol::can::kCyclicEnable : 0x00)));
    payload += CTarvikMsg::ToChar(nInterval);
    payload += FramePart(nIdentifier, nFlags, pcBuffer, nLen);
    CTarvikReply reply;
    return Request(eCmdSetCyclicMessage, std::move(payload), reply);
}

int CTarvikClientCAN::StartAlive(unsigned int nSeconds)
{
    GetConnection().SetAlive(nSeconds * 1000);
    return 0;
}

bool CTarvikClientCAN::DataIndRespond(CTarvikMsg*)
{
    return false;
}

// ---------------------------------------------------------------- CANopen

int CTarvikClientCAN::CANopenSetConfig(unsigned char nMode)
{
    CTarvikReply reply;
    return Request(eCmdCANopenSetConfig, std::string(1, static_cast<char>(nMode)), reply);
}

int CTarvikClientCAN::CANopenGetConfig(unsigned char& nMode)
{
    CTarvikReply reply;
    int result = Request(eCmdCANopenGetConfig, nullptr, 0, reply);
    if (result == 0 && reply.Size() > 0)
        nMode = reply.Payload().At(1);
    return result;
}

int CTarvikClientCAN::CANopenSetSYNCMode(unsigned short nSYNCMode)
{
    CTarvikReply reply;
    return Request(eCmdCANopenSetSYNCMode, CTarvikMsg::ToChar(nSYNCMode), reply);
}

int CTarvikClientCAN::CANopenSendNMT(unsigned char nNode, unsigned char nCommand)
{
    CTarvikReply reply;
    return Request(eCmdCANopenSendNMT, std::string{Byte(nNode), Byte(nCommand)}, reply);
}

int CTarvikClientCAN::CANopenSendSYNC()
{
    CTarvikReply reply;
    return Request(eCmdCANopenSYNC, nullptr, 0, reply);
}

int CTarvikClientCAN::CANopenSendTIME(unsigned short nDays, unsigned int nMilliseconds)
{
    std::string payload = CTarvikMsg::ToChar(nDays);
    payload += CTarvikMsg::ToChar(nMilliseconds);
    CTarvikReply reply;
    return Request(eCmdCANopenSendTIME, std::move(payload), reply);
}

int CTarvikClientCAN::CANopenSendPDO(unsigned char nSelector1, unsigned char nSelector2, unsigned char nLen,
                                     const char* pcBuffer)
{
    // No length byte: unlike the PDO indication, which carries one.
    std::string payload{Byte(nSelector1), Byte(nSelector2)};
    if (pcBuffer != nullptr)
        payload.append(pcBuffer, nLen);
    CTarvikReply reply;
    return Request(eCmdCANopenPDO, std::move(payload), reply);
}

std::string CTarvikClientCAN::SDOAddress(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                         unsigned short nTimeout)
{
    std::string block(1, Byte(nNode));
    block += CTarvikMsg::ToChar(nIndex);
    block += Byte(nSubIndex);
    block += CTarvikMsg::ToChar(nTimeout);
    return block;
}

int CTarvikClientCAN::SDOTransfer(unsigned char cmd, std::string&& payload, unsigned short nTimeout,
                                  unsigned char& nStatus, unsigned int& nValue)
{
    CTarvikReply reply;
    int result = SDORequest(cmd, std::move(payload), nTimeout, reply);
    const CTarvikPayload answer = reply.Payload();
    const size_t size = answer.Size();
    if (result != 0 || size <= 1)
        return result;
    nStatus = answer.At(1);
    // Each value byte is signed and added at its place: a byte of 0x80 or more borrows
    // from the ones above it. The device encodes values this way.
    if (size > 2)
        nValue = SignedByte(answer.At(2));
    for (size_t pos = 3; pos <= 5 && pos < size; ++pos)
        nValue += SignedByte(answer.At(pos)) << (8 * (pos - 2));
    return result;
}

int CTarvikClientCAN::CANopenSendSDORead(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                         unsigned short nTimeout, unsigned char& nStatus, unsigned int& nValue)
{
    return SDOTransfer(eCmdCANopenSDORead, SDOAddress(nNode, nIndex, nSubIndex, nTimeout), nTimeout, nStatus, nValue);
}

int CTarvikClientCAN::CANopenSendSDOWrite(unsigned char nNode, unsigned char nDataSize, unsigned short nIndex,
                                          unsigned char nSubIndex, unsigned short nTimeout, unsigned int nData,
                                          unsigned char& nStatus, unsigned int& nValue)
{
    // The data size sits between node and index here, unlike the other SDO requests.
    std::string payload{Byte(nNode), Byte(nDataSize)};
    payload += CTarvikMsg::ToChar(nIndex);
    payload += Byte(nSubIndex);
    payload += CTarvikMsg::ToChar(nTimeout);
    payload += CTarvikMsg::ToChar(nData);
    return SDOTransfer(eCmdCANopenSDOWrite, std::move(payload), nTimeout, nStatus, nValue);
}

int CTarvikClientCAN::CANopenSendSDOReadBlock(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                              unsigned short nTimeout, unsigned short nBufferSize,
                                              unsigned char& nStatus, unsigned short& nLen, unsigned char* pcBuffer)
{
    const unsigned int waitMs = 2u * nTimeout;
    CTarvikReply reply;
    int result = Request(eCmdCANopenSDOReadBlock, SDOAddress(nNode, nIndex, nSubIndex, nTimeout), reply, &waitMs);
    const CTarvikPayload answer = reply.Payload();
    if (result != 0 || answer.Size() <= 1)
        return result;
    nStatus = answer.At(1);
    size_t sent = answer.Size() - 2;
    nLen = static_cast<unsigned short>(sent < nBufferSize ? sent : nBufferSize);
    // From the status byte on, one byte short of the data's end: the device's layout.
    answer.CopyTo(1, pcBuffer, nLen);
    return result;
}

int CTarvikClientCAN::CANopenSendSDOWriteBlock(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                               unsigned short nTimeout, unsigned short nLen,
                                               const unsigned char* pcBuffer, unsigned char& nStatus,
                                               unsigned int& nValue)
{
    std::string payload = SDOAddress(nNode, nIndex, nSubIndex, nTimeout);
    if (pcBuffer != nullptr)
        payload.append(reinterpret_cast<const char*>(pcBuffer), nLen);
    return SDOTransfer(eCmdCANopenSDOWriteBlock, std::move(payload), nTimeout, nStatus, nValue);
}

// ---------------------------------------------------------------- SDO values as received

int CTarvikClientCAN::SDORequest(unsigned char cmd, std::string&& payload, unsigned short nTimeout, CTarvikReply& reply)
{
    // The device may take nTimeout for the transfer: the library waits twice as long.
    const unsigned int waitMs = 2u * nTimeout;
    return Request(cmd, std::move(payload), reply, &waitMs);
}

unsigned int CTarvikClientCAN::SDOAbortCode(int result, const CTarvikPayload& answer)
{
    // The gateway reports the node's abort with a failure result, status 0x80 and the code.
    unsigned int code = 0;
    if (result == 0 || answer.At(1) != kSDOAbortStatus || !answer.ReadU32(2, code))
        return 0;
    return code;
}

int CTarvikClientCAN::SDOValue(int result, const CTarvikReply& reply, SSDOValue& value)
{
    value = SSDOValue{};
    const CTarvikPayload answer = reply.Payload();
    if (result != 0)
    {
        value.nAbortCode = SDOAbortCode(result, answer);
        return result;
    }
    // Status byte, then at most four value bytes: anything else is not an SDO answer.
    if (answer.Size() < 2 || answer.Size() - 2 > kSDOMaxValueSize)
        return TARVIK_ERR_CNF_INVALID;
    value.nStatus = answer.At(1);
    value.nSize = static_cast<unsigned char>(answer.Size() - 2);
    for (size_t i = 0; i < value.nSize; ++i)
        value.nValue |= static_cast<unsigned int>(answer.At(2 + i)) << (8 * i);
    return result;
}

int CTarvikClientCAN::CANopenSDOReadValue(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                          unsigned short nTimeout, SSDOValue& value)
{
    CTarvikReply reply;
    int result = SDORequest(eCmdCANopenSDORead, SDOAddress(nNode, nIndex, nSubIndex, nTimeout), nTimeout, reply);
    return SDOValue(result, reply, value);
}

int CTarvikClientCAN::CANopenSDOWriteValue(unsigned char nNode, unsigned char nDataSize, unsigned short nIndex,
                                           unsigned char nSubIndex, unsigned short nTimeout, unsigned int nData,
                                           SSDOValue& value)
{
    std::string payload{Byte(nNode), Byte(nDataSize)};
    payload += CTarvikMsg::ToChar(nIndex);
    payload += Byte(nSubIndex);
    payload += CTarvikMsg::ToChar(nTimeout);
    payload += CTarvikMsg::ToChar(nData);
    CTarvikReply reply;
    int result = SDORequest(eCmdCANopenSDOWrite, std::move(payload), nTimeout, reply);
    return SDOValue(result, reply, value);
}

int CTarvikClientCAN::CANopenSDOWriteBlockValue(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                                unsigned short nTimeout, unsigned short nLen,
                                                const unsigned char* pcBuffer, SSDOValue& value)
{
    std::string payload = SDOAddress(nNode, nIndex, nSubIndex, nTimeout);
    if (pcBuffer != nullptr)
        payload.append(reinterpret_cast<const char*>(pcBuffer), nLen);
    CTarvikReply reply;
    int result = SDORequest(eCmdCANopenSDOWriteBlock, std::move(payload), nTimeout, reply);
    return SDOValue(result, reply, value);
}

int CTarvikClientCAN::CANopenSDOReadBlockData(unsigned char nNode, unsigned short nIndex, unsigned char nSubIndex,
                                              unsigned short nTimeout, unsigned char& nStatus, std::string& data,
                                              unsigned int& nAbortCode)
{
    data.clear();
    CTarvikReply reply;
    int result = SDORequest(eCmdCANopenSDOReadBlock, SDOAddress(nNode, nIndex, nSubIndex, nTimeout), nTimeout, reply);
    nAbortCode = SDOAbortCode(result, reply.Payload());
    if (result != 0)
        return result;
    if (!reply.ReadU8(1, nStatus))
        return TARVIK_ERR_CNF_INVALID;
    data = reply.Substr(2);
    return result;
}

const char* CTarvikClientCAN::GetSDOAbortText(unsigned int nAbortCode)
{
    for (const SAbortText& row : kAbortTexts)
        if (row.nCode == nAbortCode)
            return row.pText;
    return "unknown abort code";
}
