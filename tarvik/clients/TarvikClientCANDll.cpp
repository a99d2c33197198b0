#include "tarvik/clients/TarvikClientCANDll.h"

#include "tarvik/core/TarvikPayload.h"

#include <cstring>

namespace
{
// Fixed part of each kind of indication: a shorter one is dropped on arrival, so that
// no decode and no callback reads bytes the device did not send.
constexpr size_t kFrameHead = 5;    // identifier, flags
constexpr size_t kPDOHead = 3;      // two selectors, length byte
constexpr size_t kSYNCSize = 1;
constexpr size_t kEMCYSize = 9;     // node, error code, register, 5 data bytes
constexpr size_t kEMCYData = 5;
constexpr size_t kGUARDSize = 2;
constexpr size_t kTimeStampSize = 8;
// Room gathered per queue before the first batch, so a burst does not grow the lists.
constexpr size_t kGatherReserve = 256;

int ReadIdentifier(const CTarvikPayload& data)
{
    int identifier = 0;
    data.ReadS32(0, identifier);
    return identifier;
}

// Data bytes after the frame head, as one byte (the device's 8-bit length).
unsigned short FrameDataLen(const CTarvikPayload& data)
{
    return static_cast<unsigned char>(data.Size() - kFrameHead);
}

template <class T> void Put(T* out, T value)
{
    if (out != nullptr)
        *out = value;
}
} // namespace

CTarvikClientCANDll::CTarvikClientCANDll(int nHandle, int timeoutMs)
    : CTarvikClientCAN(timeoutMs), m_pfnCallback(nullptr), m_pfnCallbackEx(nullptr), m_pfnPDO(nullptr),
      m_pfnSYNC(nullptr), m_pfnEMCY(nullptr), m_pfnGUARD(nullptr), m_pfnUndefined(nullptr), m_nHandle(nHandle),
      m_bQueuesEnabled(false), m_bInBatch(false), m_nGathered(0)
{
    m_bSendDataConfirm.store(false, std::memory_order_relaxed);
    for (std::vector<CTarvikMsg*>& gathered : m_aapGathered)
        gathered.reserve(kGatherReserve);
}

CTarvikClientCANDll::~CTarvikClientCANDll()
{
    StopConnection();
    // Only a batch cut short by an exception leaves telegrams gathered.
    for (std::vector<CTarvikMsg*>& gathered : m_aapGathered)
        for (CTarvikMsg* msg : gathered)
            delete msg;
}

// ---------------------------------------------------------------- settings

void CTarvikClientCANDll::SetCallback(PCANFrameCallback fn)
{
    m_pfnCallback.store(fn, std::memory_order_release);
    m_pfnCallbackEx.store(nullptr, std::memory_order_release);
}

void CTarvikClientCANDll::SetCallbackEx(PCANFrameCallbackEx fn)
{
    m_pfnCallback.store(nullptr, std::memory_order_release);
    m_pfnCallbackEx.store(fn, std::memory_order_release);
}

void CTarvikClientCANDll::CANopenSetCallback(PCANopenPDOCallback pdo, PCANopenSYNCCallback sync,
                                             PCANopenEMCYCallback emcy, PCANopenGUARDCallback guard,
                                             PCANopenUndefinedCallback undefined)
{
    m_pfnPDO.store(pdo, std::memory_order_release);
    m_pfnSYNC.store(sync, std::memory_order_release);
    m_pfnEMCY.store(emcy, std::memory_order_release);
    m_pfnGUARD.store(guard, std::memory_order_release);
    m_pfnUndefined.store(undefined, std::memory_order_release);
}

void CTarvikClientCANDll::SetMaxSizePerQueue(unsigned long n)
{
    if (n != 0)
    {
        for (CTarvikMsgQueue& queue : m_aoQueues)
            queue.m_nMaxSize.store(n, std::memory_order_relaxed);
        m_bQueuesEnabled.store(true, std::memory_order_release);
        return;
    }
    m_bQueuesEnabled.store(false, std::memory_order_release);
    for (CTarvikMsgQueue& queue : m_aoQueues)
    {
        // Swapped out under the lock, destroyed after it.
        std::deque<CTarvikMsg> dropped;
        CMolLock lock(queue.m_Mutex);
        dropped.swap(queue.m_Messages);
    }
}

// ---------------------------------------------------------------- receive thread

void CTarvikClientCANDll::DataInd(const char* data, unsigned short len)
{
    // Bit 15 of the command code (bytes 2..3, little-endian) marks a confirmation.
    if (m_nGathered > 0 && len >= 4 && (static_cast<unsigned char>(data[3]) & 0x80) != 0)
        FlushGathered();
    CTarvikClient::DataInd(data, len);
}

void CTarvikClientCANDll::DataIndBatch(bool begin)
{
    m_bInBatch = begin;
    if (!begin && m_nGathered > 0)
        FlushGathered();
}

bool CTarvikClientCANDll::DataIndRespond(CTarvikMsg* msg)
{
    const CTarvikPayload data(msg->GetData());
    EQueue queue = eQueueCount;
    bool called = false;
    bool discard = false;
    const unsigned short cmd = msg->GetCmdCode();
    if (cmd == MakeCmdCode(eCmdFrame))
    {
        queue = eQueueCAN;
        called = CallFrame(*msg, discard);
    }
    else if (cmd == MakeCmdCode(eCmdCANopenUndefined))
    {
        queue = eQueueUndefined;
        discard = data.Size() < kFrameHead;
        called = !discard && CallUndefined(*msg);
    }
    else if (cmd == MakeCmdCode(eCmdCANopenPDO) || cmd == MakeCmdCode(eCmdCANopenSYNC) ||
             cmd == MakeCmdCode(eCmdCANopenEMCY) || cmd == MakeCmdCode(eCmdCANopenGUARD))
    {
        queue = cmd == MakeCmdCode(eCmdCANopenPDO)    ? eQueuePDO
                : cmd == MakeCmdCode(eCmdCANopenSYNC) ? eQueueSYNC
                : cmd == MakeCmdCode(eCmdCANopenEMCY) ? eQueueEMCY
                                                      : eQueueGUARD;
        size_t need = queue == eQueuePDO    ? kPDOHead + data.At(2)
                      : queue == eQueueSYNC ? kSYNCSize
                      : queue == eQueueEMCY ? kEMCYSize
                                            : kGUARDSize;
        discard = data.Size() < need;
        called = !discard && CallCANopen(*msg);
    }
    if (queue == eQueueCount || called || discard || !m_bQueuesEnabled.load(std::memory_order_acquire))
    {
        delete msg;
        return true;
    }
    Enqueue(queue, msg);
    return true;
}

bool CTarvikClientCANDll::CallFrame(const CTarvikMsg& msg, bool& discard)
{
    const CTarvikPayload data(msg.GetData());
    if (data.Size() < kFrameHead)
    {
        discard = true;
        return false;
    }
    const unsigned char flags = data.At(4);
    timeval tv = {0, 0};
    unsigned char len = GetTime(flags, data.Data() + kFrameHead, FrameDataLen(data), tv);
    if (len > kMaxFrameData)
    {
        discard = true;
        return false;
    }
    PCANFrameCallback fn = m_pfnCallback.load(std::memory_order_acquire);
    PCANFrameCallbackEx fnEx = fn == nullptr ? m_pfnCallbackEx.load(std::memory_order_acquire) : nullptr;
    if (fn == nullptr && fnEx == nullptr)
        return false;
    // What came before this frame is in its queues before the application hears of it.
    if (m_nGathered > 0)
        FlushGathered();
    const unsigned int identifier = static_cast<unsigned int>(ReadIdentifier(data));
    if (fn != nullptr)
        fn(identifier, data.Data() + kFrameHead, len, flags, m_nHandle);
    else
        fnEx(identifier, data.Data() + kFrameHead, len, flags, m_nHandle, static_cast<int>(tv.tv_sec),
             static_cast<int>(tv.tv_usec));
    return true;
}

bool CTarvikClientCANDll::CallUndefined(const CTarvikMsg& msg)
{
    PCANopenUndefinedCallback fn = m_pfnUndefined.load(std::memory_order_acquire);
    if (fn == nullptr)
        return false;
    if (m_nGathered > 0)
        FlushGathered();
    const CTarvikPayload data(msg.GetData());
    timeval tv = {0, 0};
    unsigned char len = GetTime(data.At(4), data.Data() + kFrameHead, FrameDataLen(data), tv);
    // No length limit here: the device's own length goes to the callback.
    fn(ReadIdentifier(data), data.At(0), data.At(1), len, data.Data() + kFrameHead, m_nHandle,
       static_cast<int>(tv.tv_sec), static_cast<int>(tv.tv_usec));
    return true;
}

bool CTarvikClientCANDll::CallCANopen(const CTarvikMsg& msg)
{
    const unsigned char cmd = static_cast<unsigned char>(msg.GetCmdCode() & 0xFF);
    PCANopenPDOCallback pdo = cmd == eCmdCANopenPDO ? m_pfnPDO.load(std::memory_order_acquire) : nullptr;
    PCANopenSYNCCallback sync = cmd == eCmdCANopenSYNC ? m_pfnSYNC.load(std::memory_order_acquire) : nullptr;
    PCANopenEMCYCallback emcy = cmd == eCmdCANopenEMCY ? m_pfnEMCY.load(std::memory_order_acquire) : nullptr;
    PCANopenGUARDCallback guard = cmd == eCmdCANopenGUARD ? m_pfnGUARD.load(std::memory_order_acquire) : nullptr;
    if (pdo == nullptr && sync == nullptr && emcy == nullptr && guard == nullptr)
        return false;
    if (m_nGathered > 0)
        FlushGathered();
    const CTarvikPayload data(msg.GetData());
    if (pdo != nullptr)
        pdo(data.At(0), data.At(1), data.At(2), data.Data() + kPDOHead, m_nHandle, 0, 0);
    else if (sync != nullptr)
        sync(data.At(0), m_nHandle, 0, 0);
    else if (emcy != nullptr)
    {
        unsigned char extra[kEMCYData];
        data.CopyTo(4, extra, sizeof(extra));
        // The low byte widened with its sign: 0x80 and above set the high byte to 0xFF.
        // CANopenGetEMCY reads both bytes unsigned; the two paths differ on purpose.
        unsigned int wide = static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(data.At(1))));
        unsigned short code = static_cast<unsigned short>(wide | static_cast<unsigned int>(data.At(2)) << 8);
        emcy(data.At(0), code, data.At(3), extra, m_nHandle, 0, 0);
    }
    else
        guard(data.At(0), data.At(1), m_nHandle, 0, 0);
    return true;
}

void CTarvikClientCANDll::Enqueue(EQueue queue, CTarvikMsg* msg)
{
    if (m_bInBatch)
    {
        try
        {
            m_aapGathered[queue].push_back(msg);
            ++m_nGathered;
            return;
        }
        catch (...)
        {
            // No room to gather it: what came before goes first, then this one on its own.
            FlushGathered();
        }
    }
    CTarvikMsgQueue& target = m_aoQueues[queue];
    {
        CMolLock lock(target.m_Mutex);
        if (target.m_Messages.size() < target.m_nMaxSize.load(std::memory_order_relaxed))
        {
            try
            {
                target.m_Messages.push_back(std::move(*msg));
            }
            catch (...)
            {
                // Out of memory: lost like a telegram of a full queue.
            }
        }
    }
    delete msg;
}

void CTarvikClientCANDll::FlushGathered()
{
    // Queueing switched off meanwhile: what was gathered is dropped, as it would have been.
    const bool enabled = m_bQueuesEnabled.load(std::memory_order_acquire);
    for (int i = 0; i < eQueueCount; ++i)
    {
        std::vector<CTarvikMsg*>& gathered = m_aapGathered[i];
        if (gathered.empty())
            continue;
        if (enabled)
        {
            CTarvikMsgQueue& target = m_aoQueues[i];
            CMolLock lock(target.m_Mutex);
            const size_t maxSize = target.m_nMaxSize.load(std::memory_order_relaxed);
            try
            {
                // A full queue keeps its older telegrams and drops the newer ones.
                for (size_t k = 0; k < gathered.size() && target.m_Messages.size() < maxSize; ++k)
                    target.m_Messages.push_back(std::move(*gathered[k]));
            }
            catch (...)
            {
                // Out of memory: the rest is lost like telegrams of a full queue.
            }
        }
        for (CTarvikMsg* msg : gathered)
            delete msg;
        gathered.clear();
    }
    m_nGathered = 0;
}

// ---------------------------------------------------------------- fetching

bool CTarvikClientCANDll::TakeFront(EQueue queue, CTarvikMsg& out)
{
    CTarvikMsgQueue& source = m_aoQueues[queue];
    CMolLock lock(source.m_Mutex);
    if (source.m_Messages.empty())
        return false;
    out = std::move(source.m_Messages.front());
    source.m_Messages.pop_front();
    return true;
}

int CTarvikClientCANDll::Remaining(EQueue queue)
{
    CTarvikMsgQueue& source = m_aoQueues[queue];
    CMolLock lock(source.m_Mutex);
    return static_cast<int>(source.m_Messages.size());
}

int CTarvikClientCANDll::CANGetMessage(int* pnIdentifier, char* pcBuffer, unsigned char* pnLen, int* pnFlags,
                                       int* pnSeconds, int* pnMicroseconds)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueueCAN, msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    const unsigned char flags = data.At(4);
    timeval tv = {0, 0};
    unsigned char len = GetTime(flags, data.Data() + kFrameHead, FrameDataLen(data), tv);
    if (len > kMaxFrameData)
        len = kMaxFrameData;
    Put(pnIdentifier, ReadIdentifier(data));
    // Signed here, unsigned for the callbacks: both as the interface has always had them.
    Put(pnFlags, static_cast<int>(static_cast<signed char>(flags)));
    Put(pnLen, len);
    Put(pnSeconds, static_cast<int>(tv.tv_sec));
    Put(pnMicroseconds, static_cast<int>(tv.tv_usec));
    data.CopyTo(kFrameHead, pcBuffer, len);
    return Remaining(eQueueCAN);
}

int CTarvikClientCANDll::CANopenGetPDO(unsigned char* p1, unsigned char* p2, unsigned char* pnLen, char* pcBuffer)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueuePDO, msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    unsigned char len = data.At(2) < kMaxPDOData ? data.At(2) : static_cast<unsigned char>(kMaxPDOData);
    Put(p1, data.At(0));
    Put(p2, data.At(1));
    Put(pnLen, len);
    data.CopyTo(kPDOHead, pcBuffer, len);
    return Remaining(eQueuePDO);
}

int CTarvikClientCANDll::CANopenGetSYNC(unsigned char* pnValue)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueueSYNC, msg))
        return -1;
    Put(pnValue, CTarvikPayload(msg.GetData()).At(0));
    return Remaining(eQueueSYNC);
}

int CTarvikClientCANDll::CANopenGetEMCY(unsigned char* pnNode, unsigned short* pnErrorCode,
                                        unsigned char* pnErrorRegister, unsigned char* pcData)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueueEMCY, msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    Put(pnNode, data.At(0));
    Put(pnErrorCode, static_cast<unsigned short>(data.At(2) << 8 | data.At(1)));
    Put(pnErrorRegister, data.At(3));
    data.CopyTo(4, pcData, kEMCYData);
    return Remaining(eQueueEMCY);
}

int CTarvikClientCANDll::CANopenGetGUARD(unsigned char* pnNode, unsigned char* pnState)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueueGUARD, msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    Put(pnNode, data.At(0));
    Put(pnState, data.At(1));
    return Remaining(eQueueGUARD);
}

int CTarvikClientCANDll::CANopenGetUndefined(int* pnIdentifier, unsigned char* p1, unsigned char* p2,
                                             unsigned char* pnLen, char* pcBuffer, int* pnSeconds,
                                             int* pnMicroseconds)
{
    CTarvikMsg msg;
    if (!TakeFront(eQueueUndefined, msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    timeval tv = {0, 0};
    const unsigned short all = FrameDataLen(data);
    unsigned char len = GetTime(data.At(4), data.Data() + kFrameHead, all, tv);
    Put(pnIdentifier, ReadIdentifier(data));
    Put(p1, data.At(0));
    Put(p2, data.At(1));
    Put(pnLen, static_cast<unsigned char>(len < kMaxPDOData ? len : kMaxPDOData));
    Put(pnSeconds, static_cast<int>(tv.tv_sec));
    Put(pnMicroseconds, static_cast<int>(tv.tv_usec));
    // Every byte after the flags, time stamp included, whatever the length says.
    data.CopyTo(kFrameHead, pcBuffer, all);
    return Remaining(eQueueUndefined);
}

unsigned char CTarvikClientCANDll::GetTime(unsigned char nFlags, const char* pcData, unsigned short nLen, timeval& tv)
{
    if ((nFlags & kFlagTimeStamp) == 0)
    {
        tv.tv_sec = 0;
        tv.tv_usec = 0;
        return static_cast<unsigned char>(nLen);
    }
    if (nLen < kTimeStampSize || pcData == nullptr)
        return 0;
    int seconds = 0, microseconds = 0;
    CTarvikMsg::FromChar(seconds, pcData + nLen - kTimeStampSize);
    CTarvikMsg::FromChar(microseconds, pcData + nLen - kTimeStampSize / 2);
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    return static_cast<unsigned char>(nLen - kTimeStampSize);
}
