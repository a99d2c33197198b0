#include "tarvik/clients/TarvikClientCANDll.h"

#include "tarvik/core/TarvikPayload.h"

#include <cstring>

namespace
{
namespace can = tarvik_protocol::can;

// Room gathered per queue before the first batch, so a burst does not grow the lists.
constexpr size_t kGatherReserve = 256;

// Receiver calls under way on this thread, of any client: SetReceiver from inside a
// receiver must not wait for itself.
thread_local int t_nInReceiver = 0;

// Each kind of indication: its queue and the fixed part below which it is dropped on
// arrival, so that no decode and no callback reads bytes the device did not send. A PDO
// must also carry the data its length byte announces.
struct SIndicationKind
{
    unsigned char m_nCmd;
    CTarvikClientCANDll::EQueue m_eQueue;
    size_t m_nMinSize;
    bool m_bLengthByte;
};

constexpr SIndicationKind kKinds[] = {
    {CTarvikClientCAN::eCmdFrame, CTarvikClientCANDll::eQueueCAN, can::kFrameHead, false},
    {CTarvikClientCAN::eCmdCANopenUndefined, CTarvikClientCANDll::eQueueUndefined, can::kFrameHead, false},
    {CTarvikClientCAN::eCmdCANopenPDO, CTarvikClientCANDll::eQueuePDO, can::kPDOHead, true},
    {CTarvikClientCAN::eCmdCANopenSYNC, CTarvikClientCANDll::eQueueSYNC, can::kSYNCSize, false},
    {CTarvikClientCAN::eCmdCANopenEMCY, CTarvikClientCANDll::eQueueEMCY, can::kEMCYSize, false},
    {CTarvikClientCAN::eCmdCANopenGUARD, CTarvikClientCANDll::eQueueGUARD, can::kGUARDSize, false},
};

int ReadIdentifier(const CTarvikPayload& data)
{
    int identifier = 0;
    data.ReadS32(can::kFrameIdOffset, identifier);
    return identifier;
}

// Data bytes after the frame head, as one byte (the device's 8-bit length).
unsigned short FrameDataLen(const CTarvikPayload& data)
{
    return static_cast<unsigned char>(data.Size() - can::kFrameHead);
}

const char* FrameData(const CTarvikPayload& data)
{
    return data.Data() + can::kFrameHead;
}

template <class T> void Put(T* out, T value)
{
    if (out != nullptr)
        *out = value;
}
} // namespace

// ---------------------------------------------------------------- CTarvikMsgQueue

size_t CTarvikMsgQueue::PushIfRoom(CTarvikMsg* const* msgs, size_t count)
{
    CMolLock lock(m_Mutex);
    const size_t maxSize = m_nMaxSize.load(std::memory_order_relaxed);
    size_t pushed = 0;
    try
    {
        for (; pushed < count && m_Messages.size() < maxSize; ++pushed)
            m_Messages.push_back(std::move(*msgs[pushed]));
    }
    catch (...)
    {
        // Out of memory: the rest is lost like telegrams of a full queue.
    }
    return pushed;
}

bool CTarvikMsgQueue::PopFront(CTarvikMsg& out)
{
    CMolLock lock(m_Mutex);
    if (m_Messages.empty())
        return false;
    out = std::move(m_Messages.front());
    m_Messages.pop_front();
    return true;
}

size_t CTarvikMsgQueue::Size()
{
    CMolLock lock(m_Mutex);
    return m_Messages.size();
}

void CTarvikMsgQueue::Clear()
{
    // Swapped out under the lock, destroyed after it.
    std::deque<CTarvikMsg> dropped;
    CMolLock lock(m_Mutex);
    dropped.swap(m_Messages);
}

// ---------------------------------------------------------------- CTarvikClientCANDll

bool CTarvikClientCANDll::CUserFrameReceiver::OnFrame(unsigned int nIdentifier, const char* pcData, int nLen,
                                                      int nFlags, int nSeconds, int nMicroseconds)
{
    if (m_pfnCallback == nullptr)
        return false;
    m_pfnCallback(m_pUser, nIdentifier, pcData, nLen, nFlags, nSeconds, nMicroseconds);
    return true;
}

CTarvikClientCANDll::CTarvikClientCANDll(int nHandle, int timeoutMs)
    : CTarvikClientCAN(timeoutMs), m_pfnCallback(nullptr), m_pfnCallbackEx(nullptr), m_pfnPDO(nullptr),
      m_pfnSYNC(nullptr), m_pfnEMCY(nullptr), m_pfnGUARD(nullptr), m_pfnUndefined(nullptr), m_nHandle(nHandle),
      m_bQueuesEnabled(false), m_bInBatch(false), m_nGathered(0), m_bHasReceiver(false), m_pReceiver(nullptr),
      m_nReceiverGeneration(0), m_anReceiverCalls{0, 0}
{
    m_bSendDataConfirm.store(false, std::memory_order_relaxed);
    for (std::vector<CTarvikMsg*>& gathered : m_aapGathered)
        gathered.reserve(kGatherReserve);
    for (auto& drops : m_aanDrops)
        for (std::atomic<unsigned long long>& count : drops)
            count.store(0, std::memory_order_relaxed);
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

void CTarvikClientCANDll::SetReceiver(ITarvikCanReceiver* receiver)
{
    std::unique_lock<std::mutex> lock(m_oReceiverMutex);
    m_pReceiver = receiver;
    m_bHasReceiver.store(receiver != nullptr, std::memory_order_release);
    const unsigned int old = m_nReceiverGeneration++ & 1;
    // From inside a receiver the call under way is this very one: waiting would never end.
    if (t_nInReceiver == 0)
        m_oReceiverIdle.wait(lock, [this, old] { return m_anReceiverCalls[old] == 0; });
}

void CTarvikClientCANDll::SetCallbackUser(PCANFrameCallbackUser fn, void* user)
{
    // Off first: once that returns no call reads the old pair, so it can change.
    SetReceiver(nullptr);
    m_oUserReceiver.m_pfnCallback = fn;
    m_oUserReceiver.m_pUser = user;
    if (fn != nullptr)
        SetReceiver(&m_oUserReceiver);
}

template <class Fn> bool CTarvikClientCANDll::ToReceiver(Fn fn)
{
    if (!m_bHasReceiver.load(std::memory_order_acquire))
        return false;
    ITarvikCanReceiver* receiver = nullptr;
    unsigned int slot = 0;
    {
        std::lock_guard<std::mutex> lock(m_oReceiverMutex);
        receiver = m_pReceiver;
        if (receiver == nullptr)
            return false;
        slot = m_nReceiverGeneration & 1;
        ++m_anReceiverCalls[slot];
    }
    // Counted down however the receiver returns, or SetReceiver would wait for ever.
    struct SCallDone
    {
        CTarvikClientCANDll& m_oClient;
        unsigned int m_nSlot;
        ~SCallDone()
        {
            --t_nInReceiver;
            {
                std::lock_guard<std::mutex> lock(m_oClient.m_oReceiverMutex);
                --m_oClient.m_anReceiverCalls[m_nSlot];
            }
            m_oClient.m_oReceiverIdle.notify_all();
        }
    } done{*this, slot};
    ++t_nInReceiver;
    try
    {
        return fn(*receiver);
    }
    catch (...)
    {
        // Nothing crosses the receive thread: a receiver that throws took nothing.
        return false;
    }
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
        queue.Clear();
}

void CTarvikClientCANDll::GetDropCounts(EQueue queue, STarvikCanDropCounts& counts) const
{
    counts = STarvikCanDropCounts{};
    if (queue < 0 || queue >= eQueueCount)
        return;
    const auto& drops = m_aanDrops[queue];
    counts.nDisabled = drops[eDropDisabled].load(std::memory_order_relaxed);
    counts.nFull = drops[eDropFull].load(std::memory_order_relaxed);
    counts.nTooLong = drops[eDropTooLong].load(std::memory_order_relaxed);
    counts.nTooShort = drops[eDropTooShort].load(std::memory_order_relaxed);
}

void CTarvikClientCANDll::Dropped(EQueue queue, EDrop why, size_t count)
{
    m_aanDrops[queue][why].fetch_add(count, std::memory_order_relaxed);
}

void CTarvikClientCANDll::Queued(EQueue queue, size_t count)
{
    if (count != 0)
        ToReceiver([queue](ITarvikCanReceiver& receiver) {
            receiver.OnQueued(queue);
            return true;
        });
}

// ---------------------------------------------------------------- receive thread

void CTarvikClientCANDll::DataInd(const char* data, unsigned short len)
{
    // Bit 15 of the command code (bytes 2..3, little-endian) marks a confirmation.
    const unsigned char confirmationHigh = static_cast<unsigned char>(CTarvikMsg::kConfirmationBit >> 8);
    if (m_nGathered > 0 && len >= 4 && (static_cast<unsigned char>(data[3]) & confirmationHigh) != 0)
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
    const SIndicationKind* kind = nullptr;
    for (const SIndicationKind& candidate : kKinds)
        if (msg->GetCmdCode() == MakeCmdCode(candidate.m_nCmd))
        {
            kind = &candidate;
            break;
        }
    if (kind == nullptr)
    {
        delete msg;
        return true;
    }
    const EQueue queue = kind->m_eQueue;
    const CTarvikPayload data(msg->GetData());
    const size_t need = kind->m_nMinSize + (kind->m_bLengthByte ? data.At(can::kPDOLengthOffset) : 0);
    bool called = false;
    bool tooLong = false;
    if (data.Size() < need)
        Dropped(queue, eDropTooShort);
    else if (queue == eQueueCAN)
        called = CallFrame(*msg, tooLong);
    else if (queue == eQueueUndefined)
        called = CallUndefined(*msg);
    else
        called = CallCANopen(*msg, queue);
    if (tooLong)
        Dropped(queue, eDropTooLong);
    if (data.Size() < need || tooLong || called)
    {
        delete msg;
        return true;
    }
    if (!m_bQueuesEnabled.load(std::memory_order_acquire))
    {
        Dropped(queue, eDropDisabled);
        delete msg;
        return true;
    }
    Enqueue(queue, msg);
    return true;
}

bool CTarvikClientCANDll::CallFrame(const CTarvikMsg& msg, bool& tooLong)
{
    const CTarvikPayload data(msg.GetData());
    const unsigned char flags = data.At(can::kFrameFlagsOffset);
    timeval tv = {0, 0};
    unsigned char len = GetTime(flags, FrameData(data), FrameDataLen(data), tv);
    if (len > kMaxFrameData)
    {
        tooLong = true;
        return false;
    }
    PCANFrameCallback fn = m_pfnCallback.load(std::memory_order_acquire);
    PCANFrameCallbackEx fnEx = fn == nullptr ? m_pfnCallbackEx.load(std::memory_order_acquire) : nullptr;
    if (fn == nullptr && fnEx == nullptr && !m_bHasReceiver.load(std::memory_order_acquire))
        return false;
    // What came before this frame is in its queues before the application hears of it.
    if (m_nGathered > 0)
        FlushGathered();
    const unsigned int identifier = static_cast<unsigned int>(ReadIdentifier(data));
    const int seconds = static_cast<int>(tv.tv_sec), micros = static_cast<int>(tv.tv_usec);
    if (fn != nullptr)
        fn(identifier, FrameData(data), len, flags, m_nHandle);
    else if (fnEx != nullptr)
        fnEx(identifier, FrameData(data), len, flags, m_nHandle, seconds, micros);
    else
        return ToReceiver([&](ITarvikCanReceiver& receiver) {
            return receiver.OnFrame(identifier, FrameData(data), len, flags, seconds, micros);
        });
    return true;
}

bool CTarvikClientCANDll::CallUndefined(const CTarvikMsg& msg)
{
    PCANopenUndefinedCallback fn = m_pfnUndefined.load(std::memory_order_acquire);
    if (fn == nullptr && !m_bHasReceiver.load(std::memory_order_acquire))
        return false;
    if (m_nGathered > 0)
        FlushGathered();
    const CTarvikPayload data(msg.GetData());
    timeval tv = {0, 0};
    unsigned char len = GetTime(data.At(can::kFrameFlagsOffset), FrameData(data), FrameDataLen(data), tv);
    const int seconds = static_cast<int>(tv.tv_sec), micros = static_cast<int>(tv.tv_usec);
    // No length limit here: the device's own length goes to the callback.
    if (fn != nullptr)
    {
        fn(ReadIdentifier(data), data.At(0), data.At(1), len, FrameData(data), m_nHandle, seconds, micros);
        return true;
    }
    return ToReceiver([&](ITarvikCanReceiver& receiver) {
        return receiver.OnUndefined(ReadIdentifier(data), FrameData(data), len, seconds, micros);
    });
}

bool CTarvikClientCANDll::CallCANopen(const CTarvikMsg& msg, EQueue queue)
{
    PCANopenPDOCallback pdo = queue == eQueuePDO ? m_pfnPDO.load(std::memory_order_acquire) : nullptr;
    PCANopenSYNCCallback sync = queue == eQueueSYNC ? m_pfnSYNC.load(std::memory_order_acquire) : nullptr;
    PCANopenEMCYCallback emcy = queue == eQueueEMCY ? m_pfnEMCY.load(std::memory_order_acquire) : nullptr;
    PCANopenGUARDCallback guard = queue == eQueueGUARD ? m_pfnGUARD.load(std::memory_order_acquire) : nullptr;
    const bool any = pdo != nullptr || sync != nullptr || emcy != nullptr || guard != nullptr;
    if (!any && !m_bHasReceiver.load(std::memory_order_acquire))
        return false;
    if (m_nGathered > 0)
        FlushGathered();
    const CTarvikPayload data(msg.GetData());
    unsigned char extra[can::kEMCYData] = {};
    data.CopyTo(can::kEMCYDataOffset, extra, sizeof(extra));
    if (pdo != nullptr)
        pdo(data.At(0), data.At(1), data.At(2), data.Data() + can::kPDOHead, m_nHandle, 0, 0);
    else if (sync != nullptr)
        sync(data.At(0), m_nHandle, 0, 0);
    else if (emcy != nullptr)
    {
        // The low byte widened with its sign: 0x80 and above set the high byte to 0xFF.
        // CANopenGetEMCY and the receiver read both bytes unsigned; the paths differ on purpose.
        unsigned int wide = static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(data.At(1))));
        unsigned short code = static_cast<unsigned short>(wide | static_cast<unsigned int>(data.At(2)) << 8);
        emcy(data.At(0), code, data.At(can::kEMCYRegisterOffset), extra, m_nHandle, 0, 0);
    }
    else if (guard != nullptr)
        guard(data.At(0), data.At(1), m_nHandle, 0, 0);
    if (any)
        return true;
    return ToReceiver([&](ITarvikCanReceiver& receiver) {
        switch (queue)
        {
        case eQueuePDO: return receiver.OnPDO(data.At(0), data.At(1), data.At(2), data.Data() + can::kPDOHead);
        case eQueueSYNC: return receiver.OnSYNC(data.At(0));
        case eQueueEMCY:
        {
            unsigned short code = 0;
            data.ReadU16(can::kEMCYCodeOffset, code);
            return receiver.OnEMCY(data.At(0), code, data.At(can::kEMCYRegisterOffset), extra);
        }
        default: return receiver.OnGUARD(data.At(0), data.At(1));
        }
    });
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
    const size_t pushed = m_aoQueues[queue].PushIfRoom(&msg, 1);
    delete msg;
    if (pushed == 0)
        Dropped(queue, eDropFull);
    Queued(queue, pushed);
}

void CTarvikClientCANDll::FlushGathered()
{
    // Queueing switched off meanwhile: what was gathered is dropped, as it would have been.
    const bool enabled = m_bQueuesEnabled.load(std::memory_order_acquire);
    size_t pushed[eQueueCount] = {};
    for (int i = 0; i < eQueueCount; ++i)
    {
        std::vector<CTarvikMsg*>& gathered = m_aapGathered[i];
        if (gathered.empty())
            continue;
        const EQueue queue = static_cast<EQueue>(i);
        // A full queue keeps its older telegrams and drops the newer ones.
        if (enabled)
            pushed[i] = m_aoQueues[i].PushIfRoom(gathered.data(), gathered.size());
        Dropped(queue, enabled ? eDropFull : eDropDisabled, gathered.size() - pushed[i]);
        for (CTarvikMsg* msg : gathered)
            delete msg;
        gathered.clear();
    }
    m_nGathered = 0;
    for (int i = 0; i < eQueueCount; ++i)
        Queued(static_cast<EQueue>(i), pushed[i]);
}

// ---------------------------------------------------------------- fetching

int CTarvikClientCANDll::CANGetMessage(int* pnIdentifier, char* pcBuffer, unsigned char* pnLen, int* pnFlags,
                                       int* pnSeconds, int* pnMicroseconds)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueueCAN].PopFront(msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    const unsigned char flags = data.At(can::kFrameFlagsOffset);
    timeval tv = {0, 0};
    unsigned char len = GetTime(flags, FrameData(data), FrameDataLen(data), tv);
    if (len > kMaxFrameData)
        len = kMaxFrameData;
    Put(pnIdentifier, ReadIdentifier(data));
    // Signed here, unsigned for the callbacks: both as the interface has always had them.
    Put(pnFlags, static_cast<int>(static_cast<signed char>(flags)));
    Put(pnLen, len);
    Put(pnSeconds, static_cast<int>(tv.tv_sec));
    Put(pnMicroseconds, static_cast<int>(tv.tv_usec));
    data.CopyTo(can::kFrameHead, pcBuffer, len);
    return static_cast<int>(m_aoQueues[eQueueCAN].Size());
}

int CTarvikClientCANDll::CANopenGetPDO(unsigned char* p1, unsigned char* p2, unsigned char* pnLen, char* pcBuffer)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueuePDO].PopFront(msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    unsigned char len = data.At(can::kPDOLengthOffset) < kMaxPDOData ? data.At(can::kPDOLengthOffset)
                                                                     : static_cast<unsigned char>(kMaxPDOData);
    Put(p1, data.At(0));
    Put(p2, data.At(1));
    Put(pnLen, len);
    data.CopyTo(can::kPDOHead, pcBuffer, len);
    return static_cast<int>(m_aoQueues[eQueuePDO].Size());
}

int CTarvikClientCANDll::CANopenGetSYNC(unsigned char* pnValue)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueueSYNC].PopFront(msg))
        return -1;
    Put(pnValue, CTarvikPayload(msg.GetData()).At(0));
    return static_cast<int>(m_aoQueues[eQueueSYNC].Size());
}

int CTarvikClientCANDll::CANopenGetEMCY(unsigned char* pnNode, unsigned short* pnErrorCode,
                                        unsigned char* pnErrorRegister, unsigned char* pcData)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueueEMCY].PopFront(msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    Put(pnNode, data.At(0));
    unsigned short code = 0;
    data.ReadU16(can::kEMCYCodeOffset, code);
    Put(pnErrorCode, code);
    Put(pnErrorRegister, data.At(can::kEMCYRegisterOffset));
    data.CopyTo(can::kEMCYDataOffset, pcData, can::kEMCYData);
    return static_cast<int>(m_aoQueues[eQueueEMCY].Size());
}

int CTarvikClientCANDll::CANopenGetGUARD(unsigned char* pnNode, unsigned char* pnState)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueueGUARD].PopFront(msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    Put(pnNode, data.At(0));
    Put(pnState, data.At(1));
    return static_cast<int>(m_aoQueues[eQueueGUARD].Size());
}

int CTarvikClientCANDll::CANopenGetUndefined(int* pnIdentifier, unsigned char* p1, unsigned char* p2,
                                             unsigned char* pnLen, char* pcBuffer, int* pnSeconds, int* pnMicroseconds)
{
    CTarvikMsg msg;
    if (!m_aoQueues[eQueueUndefined].PopFront(msg))
        return -1;
    const CTarvikPayload data(msg.GetData());
    timeval tv = {0, 0};
    const unsigned short all = FrameDataLen(data);
    unsigned char len = GetTime(data.At(can::kFrameFlagsOffset), FrameData(data), all, tv);
    Put(pnIdentifier, ReadIdentifier(data));
    Put(p1, data.At(0));
    Put(p2, data.At(1));
    Put(pnLen, static_cast<unsigned char>(len < kMaxPDOData ? len : kMaxPDOData));
    Put(pnSeconds, static_cast<int>(tv.tv_sec));
    Put(pnMicroseconds, static_cast<int>(tv.tv_usec));
    // Every byte after the flags, time stamp included, whatever the length says.
    data.CopyTo(can::kFrameHead, pcBuffer, all);
    return static_cast<int>(m_aoQueues[eQueueUndefined].Size());
}

unsigned char CTarvikClientCANDll::GetTime(unsigned char nFlags, const char* pcData, unsigned short nLen, timeval& tv)
{
    if ((nFlags & kFlagTimeStamp) == 0)
    {
        tv.tv_sec = 0;
        tv.tv_usec = 0;
        return static_cast<unsigned char>(nLen);
    }
    const CTarvikPayload data(pcData, nLen);
    int seconds = 0, microseconds = 0;
    if (!data.ReadS32(nLen - can::kTimeStampSize, seconds) ||
        !data.ReadS32(nLen - can::kTimeStampSize + 4, microseconds))
        return 0;
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    return static_cast<unsigned char>(nLen - can::kTimeStampSize);
}
