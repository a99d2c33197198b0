#include "tarvik/dll/TarvikDllCAN.h"

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/dll/TarvikDllPrivate.h"

#include <algorithm>
#include <cstring>

using tarvik_dll::COut;
using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
constexpr size_t kMaxFrameLen = 0xFF;
constexpr size_t kMaxBlockLen = 0xFFFF;
constexpr int kNothingFetched = -1;

static_assert(TARVIK_CAN_FRAME_DATA == CTarvikClientCANDll::kMaxFrameData, "frame buffer size");
static_assert(TARVIK_CANOPEN_PDO_DATA == CTarvikClientCANDll::kMaxPDOData, "PDO buffer size");
static_assert(TARVIK_CAN_FILTER_WORDS == sizeof(CTarvikClientCAN::SConfigFilter::nFilter) / sizeof(unsigned int),
              "filter words");
static_assert(TARVIK_CAN_QUEUE_CAN == CTarvikClientCANDll::eQueueCAN &&
                  TARVIK_CAN_QUEUE_PDO == CTarvikClientCANDll::eQueuePDO &&
                  TARVIK_CAN_QUEUE_SYNC == CTarvikClientCANDll::eQueueSYNC &&
                  TARVIK_CAN_QUEUE_EMCY == CTarvikClientCANDll::eQueueEMCY &&
                  TARVIK_CAN_QUEUE_GUARD == CTarvikClientCANDll::eQueueGUARD &&
                  TARVIK_CAN_QUEUE_UNDEFINED == CTarvikClientCANDll::eQueueUndefined &&
                  TARVIK_CAN_QUEUE_COUNT == CTarvikClientCANDll::eQueueCount,
              "queue numbers");
static_assert(TARVIK_CANOPEN_EMCY_DATA == tarvik_protocol::can::kEMCYData, "EMCY data");
static_assert(TARVIK_CAN_MAX_QUEUE_SIZE < TARVIK_ERR_INVALID_HANDLE, "counts stay below the handle codes");

// The CAN client's Open with both flags; the C open picks the one its arguments ask for.
template <bool bConfirm, bool bFlag2> int PrepareCAN(CTarvikClient& client)
{
    return static_cast<CTarvikClientCAN&>(client).Open(bConfirm, bFlag2);
}

// A yes/no output of the client that reaches a C int. The client writes a bool only
// when the answer carries it; a caller's value is rewritten only when the truth changed,
// so an output the client left alone keeps its exact value.
class CBoolOut
{
public:
    explicit CBoolOut(int* target)
        : m_pTarget(target), m_bBefore(target != nullptr && *target != 0), m_bValue(m_bBefore)
    {
    }
    ~CBoolOut()
    {
        if (m_pTarget != nullptr && m_bValue != m_bBefore)
            *m_pTarget = m_bValue ? 1 : 0;
    }
    CBoolOut(const CBoolOut&) = delete;
    CBoolOut& operator=(const CBoolOut&) = delete;
    bool& operator*() { return m_bValue; }

private:
    int* m_pTarget;
    bool m_bBefore;
    bool m_bValue;
};

// Moves the client's states into the caller's bytes; like CBoolOut, a byte keeps its
// value unless the truth changed.
void PutStates(const bool* from, unsigned char* to, unsigned count)
{
    for (unsigned i = 0; i < count && to != nullptr; ++i)
        if (from[i] != (to[i] != 0))
            to[i] = from[i] ? 1 : 0;
}

// A buffer that receives up to need bytes: null is skipped, a shorter one refused.
bool IsOutBuffer(const void* buf, int len, int need)
{
    return buf == nullptr || len >= need;
}

// A buffer and its length as the client takes them; false: answer 0x920000.
template <typename T> bool Fit(const void* buf, int len, size_t max, T& out)
{
    return IsBuffer(buf, len) && FitLength(len, max, out);
}

// A caller's list capacity as the client's byte: negative refused, above 255 cut (no
// count reaches it).
bool Capacity(int capacity, unsigned char& out)
{
    if (capacity < 0)
        return false;
    out = static_cast<unsigned char>(capacity > 0xFF ? 0xFF : capacity);
    return true;
}

// The Get operations: as WithClient, but a count is no result code, so an entry
// without a client, and a failure inside, give -1 (nothing fetched), never 0 or 0xFF.
template <typename Call> int Fetch(int handle, Call call)
{
    try
    {
        CDevice* device = CDeviceManager::GetDevice(handle);
        if (device == nullptr)
            return TARVIK_ERR_INVALID_HANDLE;
        if (device->m_pClient == nullptr)
            return kNothingFetched;
        auto* can = dynamic_cast<CTarvikClientCANDll*>(device->m_pClient);
        if (can == nullptr)
            return TARVIK_ERR_INVALID_DEVICE_TYPE;
        return call(*can);
    }
    catch (...)
    {
        return kNothingFetched;
    }
}

// The outputs of the ...Value functions, each written when its pointer is not null.
void PutSDOValue(const CTarvikClientCAN::SSDOValue& sdo, unsigned char* status, unsigned int* value,
                 unsigned char* size, unsigned int* abortCode)
{
    if (status != nullptr)
        *status = sdo.nStatus;
    if (value != nullptr)
        *value = sdo.nValue;
    if (size != nullptr)
        *size = sdo.nSize;
    if (abortCode != nullptr)
        *abortCode = sdo.nAbortCode;
}
} // namespace

int CANDeviceOpen(int* handle, const char* host, int timeoutMs, int portIndex, int sendDataConfirm, int configFlag2)
{
    static const tarvik_dll::PPrepare prepares[2][2] = {{PrepareCAN<false, false>, PrepareCAN<false, true>},
                                                        {PrepareCAN<true, false>, PrepareCAN<true, true>}};
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, eTarvikCAN, portIndex,
                                       prepares[sendDataConfirm != 0][configFlag2 != 0]);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int CANDeviceClose(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientCAN>(handle);
}

int CANOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex, int sendDataConfirm, int configFlag2)
{
    return CANDeviceOpen(handle, host, timeoutMs, portIndex, sendDataConfirm, configFlag2);
}

int CANCloseDevice(int handle)
{
    return CANDeviceClose(handle);
}

int CANSetConfig(int handle, int sendDataConfirm, int configFlag2)
{
    return WithClient<CTarvikClientCAN>(
        handle, [&](CTarvikClientCAN& can) { return can.SetConfig(sendDataConfirm != 0, configFlag2 != 0); });
}

int CANGetConfig(int handle, int* sendDataConfirm, int* configFlag2)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        CBoolOut confirm(sendDataConfirm), flag2(configFlag2);
        return can.GetConfig(*confirm, *flag2);
    });
}

int CANSetFilter(int handle, const unsigned int* words, int count)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        if (words == nullptr || count != TARVIK_CAN_FILTER_WORDS)
            return TARVIK_ERR_INVALID_PARAMETER;
        CTarvikClientCAN::SConfigFilter filter;
        std::copy(words, words + TARVIK_CAN_FILTER_WORDS, filter.nFilter);
        return can.SetFilter(filter);
    });
}

int CANGetFilter(int handle, unsigned int* words, int count)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        if (!IsOutBuffer(words, count, TARVIK_CAN_FILTER_WORDS))
            return TARVIK_ERR_INVALID_PARAMETER;
        // The caller's words stay as they were unless a whole filter came.
        CTarvikClientCAN::SConfigFilter filter;
        for (int i = 0; i < TARVIK_CAN_FILTER_WORDS; ++i)
            filter.nFilter[i] = words != nullptr ? words[i] : 0;
        int result = can.GetFilter(filter);
        if (words != nullptr)
            std::copy(filter.nFilter, filter.nFilter + TARVIK_CAN_FILTER_WORDS, words);
        return result;
    });
}

int CANSetGlobals(int handle, unsigned int baudrate, unsigned char setting, int flag1, int flag2, int flag3,
                  int option1, unsigned int optionValue, int option2)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        return can.SetGlobals(baudrate, setting, flag1 != 0, flag2 != 0, flag3 != 0, option1 != 0, optionValue,
                              option2 != 0);
    });
}

int CANGetGlobals(int handle, unsigned int* baudrate, unsigned char* setting, int* flag1, int* flag2, int* flag3,
                  int* option1, unsigned int* optionValue, int* option2)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        COut<unsigned int> rate(baudrate), value(optionValue);
        COut<unsigned char> set(setting);
        CBoolOut f1(flag1), f2(flag2), f3(flag3), o1(option1), o2(option2);
        return can.GetGlobals(*rate, *set, *f1, *f2, *f3, *o1, *value, *o2);
    });
}

int CANSetZCardParameter(int handle, unsigned char param1, unsigned short param2, unsigned short param3)
{
    return WithClient<CTarvikClientCAN>(
        handle, [&](CTarvikClientCAN& can) { return can.SetZCardParameter(param1, param2, param3); });
}

int CANGetZCardParameter(int handle, unsigned char* param1, unsigned short* param2, unsigned short* param3)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        COut<unsigned char> p1(param1);
        COut<unsigned short> p2(param2), p3(param3);
        return can.GetZCardParameter(*p1, *p2, *p3);
    });
}

int CANSetTime(int handle, int seconds, int microseconds)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        timeval tv = {};
        tv.tv_sec = seconds;
        tv.tv_usec = microseconds;
        return can.SetTime(tv);
    });
}

int CANGetTime(int handle, int* timeValid, int* seconds, int* microseconds)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        CBoolOut valid(timeValid);
        COut<int> sec(seconds), usec(microseconds);
        timeval tv = {};
        tv.tv_sec = *sec;
        tv.tv_usec = *usec;
        int result = can.GetTime(*valid, tv);
        *sec = static_cast<int>(tv.tv_sec);
        *usec = static_cast<int>(tv.tv_usec);
        return result;
    });
}

int CANGetPowerStatus(int handle, unsigned char* valueCount, unsigned char* stateCount1, unsigned char* stateCount2,
                      short* statusValue1, unsigned short* statusValue2, unsigned short* statusValue3, int* statusBit,
                      unsigned short* values, int maxValues, unsigned char* states1, int maxStates1,
                      unsigned char* states2, int maxStates2)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        unsigned char nValues = 0, nStates1 = 0, nStates2 = 0;
        if (!Capacity(maxValues, nValues) || !Capacity(maxStates1, nStates1) || !Capacity(maxStates2, nStates2))
            return TARVIK_ERR_INVALID_PARAMETER;
        // The client stores bools; C gets bytes, and the states it does not store stay.
        bool bStates1[0x100], bStates2[0x100];
        for (unsigned i = 0; i < nStates1 && states1 != nullptr; ++i)
            bStates1[i] = states1[i] != 0;
        for (unsigned i = 0; i < nStates2 && states2 != nullptr; ++i)
            bStates2[i] = states2[i] != 0;
        COut<unsigned char> count(valueCount), count1(stateCount1), count2(stateCount2);
        COut<short> status1(statusValue1);
        COut<unsigned short> status2(statusValue2), status3(statusValue3);
        CBoolOut bit(statusBit);
        int result = can.GetPowerStatus(nValues, *count, nStates1, *count1, nStates2, *count2, *status1, *status2,
                                        *status3, *bit, values, states1 != nullptr ? bStates1 : nullptr,
                                        states2 != nullptr ? bStates2 : nullptr);
        PutStates(bStates1, states1, nStates1);
        PutStates(bStates2, states2, nStates2);
        return result;
    });
}

int CANSetPowerRelais(int handle, int on)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) { return can.SetPowerRelais(on != 0); });
}

int CANSetActivePowerSupplies(int handle, unsigned int mask)
{
    return WithClient<CTarvikClientCAN>(handle,
                                        [&](CTarvikClientCAN& can) { return can.SetActivePowerSupplies(mask); });
}

int CANWrite(int handle, int identifier, const char* data, int len, unsigned char flags, int* seconds,
             int* microseconds)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        unsigned char count = 0;
        if (!Fit(data, len, kMaxFrameLen, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.Write(identifier, data, count, flags, seconds, microseconds);
    });
}

int CANSetCyclicMessage(int handle, unsigned char index, int enable, unsigned int interval, int identifier,
                        const char* data, int len, unsigned char flags)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        unsigned char count = 0;
        if (!Fit(data, len, kMaxFrameLen, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.SetCyclicMessage(index, enable != 0, interval, identifier, data, count, flags);
    });
}

int CANStartAlive(int handle, unsigned int seconds)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) { return can.StartAlive(seconds); });
}

int CANSetCallback(int handle, PCANFrameCallback callback)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        can.SetCallback(callback);
        return 0;
    });
}

int CANSetCallbackEx(int handle, PCANFrameCallbackEx callback)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        can.SetCallbackEx(callback);
        return 0;
    });
}

int CANSetCallbackUser(int handle, PCANFrameCallbackUser callback, void* user)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        can.SetCallbackUser(callback, user);
        return 0;
    });
}

int CANGetDropCounts(int handle, int queue, STarvikCanDropCounts* counts)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        if (counts == nullptr || queue < 0 || queue >= TARVIK_CAN_QUEUE_COUNT)
            return TARVIK_ERR_INVALID_PARAMETER;
        can.GetDropCounts(static_cast<CTarvikClientCANDll::EQueue>(queue), *counts);
        return 0;
    });
}

int CANSetMaxSizePerQueue(int handle, unsigned long size)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        if (size > TARVIK_CAN_MAX_QUEUE_SIZE)
            return TARVIK_ERR_INVALID_PARAMETER;
        can.SetMaxSizePerQueue(size);
        return 0;
    });
}

int CANGetMessage(int handle, int* identifier, char* buf, int bufLen, unsigned char* len, int* flags, int* seconds,
                  int* microseconds)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) {
        if (!IsOutBuffer(buf, bufLen, TARVIK_CAN_FRAME_DATA))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.CANGetMessage(identifier, buf, len, flags, seconds, microseconds);
    });
}

int CANGetMessages(int handle, STarvikCanMessage* messages, int max, int* left)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) { return can.CANGetMessages(messages, max, left); });
}

int CANopenSetConfig(int handle, unsigned char mode)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) { return can.CANopenSetConfig(mode); });
}

int CANopenGetConfig(int handle, unsigned char* mode)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        COut<unsigned char> out(mode);
        return can.CANopenGetConfig(*out);
    });
}

int CANopenSetSYNCMode(int handle, unsigned short syncMode)
{
    return WithClient<CTarvikClientCAN>(handle,
                                        [&](CTarvikClientCAN& can) { return can.CANopenSetSYNCMode(syncMode); });
}

int CANopenSendNMT(int handle, unsigned char node, unsigned char command)
{
    return WithClient<CTarvikClientCAN>(handle,
                                        [&](CTarvikClientCAN& can) { return can.CANopenSendNMT(node, command); });
}

int CANopenSendSYNC(int handle)
{
    return WithClient<CTarvikClientCAN>(handle, [](CTarvikClientCAN& can) { return can.CANopenSendSYNC(); });
}

int CANopenSendTIME(int handle, unsigned short days, unsigned int milliseconds)
{
    return WithClient<CTarvikClientCAN>(handle,
                                        [&](CTarvikClientCAN& can) { return can.CANopenSendTIME(days, milliseconds); });
}

int CANopenSendPDO(int handle, unsigned char selector1, unsigned char selector2, const char* data, int len)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        unsigned char count = 0;
        if (!Fit(data, len, kMaxFrameLen, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.CANopenSendPDO(selector1, selector2, count, data);
    });
}

int CANopenSendSDORead(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                       unsigned short timeout, unsigned char* status, unsigned int* value)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        COut<unsigned char> st(status);
        COut<unsigned int> val(value);
        return can.CANopenSendSDORead(node, index, subIndex, timeout, *st, *val);
    });
}

int CANopenSendSDOWrite(int handle, unsigned char node, unsigned char dataSize, unsigned short index,
                        unsigned char subIndex, unsigned short timeout, unsigned int data, unsigned char* status,
                        unsigned int* value)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        COut<unsigned char> st(status);
        COut<unsigned int> val(value);
        return can.CANopenSendSDOWrite(node, dataSize, index, subIndex, timeout, data, *st, *val);
    });
}

int CANopenSDOReadValue(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                        unsigned short timeout, unsigned char* status, unsigned int* value, unsigned char* size,
                        unsigned int* abortCode)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        CTarvikClientCAN::SSDOValue sdo{};
        int result = can.CANopenSDOReadValue(node, index, subIndex, timeout, sdo);
        PutSDOValue(sdo, status, value, size, abortCode);
        return result;
    });
}

int CANopenSDOWriteValue(int handle, unsigned char node, unsigned char dataSize, unsigned short index,
                         unsigned char subIndex, unsigned short timeout, unsigned int data, unsigned char* status,
                         unsigned int* value, unsigned char* size, unsigned int* abortCode)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        CTarvikClientCAN::SSDOValue sdo{};
        int result = can.CANopenSDOWriteValue(node, dataSize, index, subIndex, timeout, data, sdo);
        PutSDOValue(sdo, status, value, size, abortCode);
        return result;
    });
}

int CANopenSDOAbortText(unsigned int abortCode, char* buf, int size)
{
    const char* text = CTarvikClientCAN::GetSDOAbortText(abortCode);
    const int whole = static_cast<int>(std::strlen(text)) + 1;
    if (buf != nullptr && size > 0)
    {
        const int copied = whole < size ? whole - 1 : size - 1;
        std::memcpy(buf, text, static_cast<size_t>(copied));
        buf[copied] = '\0';
    }
    return whole;
}

int CANopenSendSDOReadBlock(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                            unsigned short timeout, unsigned char* buf, int bufLen, unsigned char* status,
                            unsigned short* len)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        if (bufLen < 0)
            return TARVIK_ERR_INVALID_PARAMETER;
        // Only a capacity: one answer never carries more than 16 bits of bytes. A null
        // buffer is skipped, so it takes nothing.
        auto capacity = static_cast<unsigned short>(buf == nullptr ? 0 : bufLen > 0xFFFF ? 0xFFFF : bufLen);
        COut<unsigned char> st(status);
        COut<unsigned short> got(len);
        return can.CANopenSendSDOReadBlock(node, index, subIndex, timeout, capacity, *st, *got, buf);
    });
}

int CANopenSendSDOWriteBlock(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                             unsigned short timeout, const unsigned char* data, int len, unsigned char* status,
                             unsigned int* value)
{
    return WithClient<CTarvikClientCAN>(handle, [&](CTarvikClientCAN& can) {
        unsigned short count = 0;
        if (!Fit(data, len, kMaxBlockLen, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned char> st(status);
        COut<unsigned int> val(value);
        return can.CANopenSendSDOWriteBlock(node, index, subIndex, timeout, count, data, *st, *val);
    });
}

int CANopenSetCallback(int handle, PCANopenPDOCallback pdo, PCANopenSYNCCallback sync, PCANopenEMCYCallback emcy,
                       PCANopenGUARDCallback guard, PCANopenUndefinedCallback undefined)
{
    return WithClient<CTarvikClientCANDll>(handle, [&](CTarvikClientCANDll& can) {
        can.CANopenSetCallback(pdo, sync, emcy, guard, undefined);
        return 0;
    });
}

int CANopenGetPDO(int handle, unsigned char* selector1, unsigned char* selector2, unsigned char* len, char* buf,
                  int bufLen)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) {
        if (!IsOutBuffer(buf, bufLen, TARVIK_CANOPEN_PDO_DATA))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.CANopenGetPDO(selector1, selector2, len, buf);
    });
}

int CANopenGetSYNC(int handle, unsigned char* value)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) { return can.CANopenGetSYNC(value); });
}

int CANopenGetEMCY(int handle, unsigned char* node, unsigned short* errorCode, unsigned char* errorRegister,
                   unsigned char* data, int dataLen)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) {
        if (!IsOutBuffer(data, dataLen, TARVIK_CANOPEN_EMCY_DATA))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.CANopenGetEMCY(node, errorCode, errorRegister, data);
    });
}

int CANopenGetGUARD(int handle, unsigned char* node, unsigned char* state)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) { return can.CANopenGetGUARD(node, state); });
}

int CANopenGetUndefined(int handle, int* identifier, unsigned char* byte0, unsigned char* byte1, unsigned char* len,
                        char* buf, int bufLen, int* seconds, int* microseconds)
{
    return Fetch(handle, [&](CTarvikClientCANDll& can) {
        if (!IsOutBuffer(buf, bufLen, TARVIK_CANOPEN_UNDEFINED_DATA))
            return TARVIK_ERR_INVALID_PARAMETER;
        return can.CANopenGetUndefined(identifier, byte0, byte1, len, buf, seconds, microseconds);
    });
}
