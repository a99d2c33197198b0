#include "tarvik/clients/TarvikClientCANDll.h"

#include "tarvik/core/TarvikPayload.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

namespace
{
namespace can = tarvik_protocol::can;

// Records gathered per queue before the first batch, so a burst does not grow the lists.
constexpr size_t kGatherReserve = 256;
// Records a queue's ring starts with once something is queued; it doubles from there.
constexpr size_t kFirstRingRecords = 64;
// Records taken per lock by the batch fetch, decoded after the lock is released.
constexpr size_t kFetchChunk = 64;

// Data bytes a record of each queue keeps: all that its Get operation reads. A queued frame
// has at most 64 data bytes and an 8-byte time stamp after its head; a telegram of no known
// kind is handed out with up to 255 bytes after its head.
constexpr size_t kKeptPDO = can::kPDOHead + can::kMaxPDOData;
constexpr size_t kKeptFrame = can::kFrameHead + can::kMaxFDData + can::kTimeStampSize;

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

// The data field of a record (kept bytes only).
CTarvikPayload RecordData(const char* record)
{
    uint16_t size = 0;
    std::memcpy(&size, record, sizeof(size));
    return CTarvikPayload(record + CTarvikMsgQueue::kRecordHead, size);
}

// Bytes of a record in use: its size field and the data it keeps (the rest is never read).
size_t UsedBytes(const char* record)
{
    uint16_t size = 0;
    std::memcpy(&size, record, sizeof(size));
    return CTarvikMsgQueue::kRecordHead + size;
}

// What the Get operations read of a data field: a frame's head and the data its one-byte
// length covers; the fixed part of the other kinds.
size_t KeptSize(CTarvikClientCANDll::EQueue queue, size_t size)
{
    switch (queue)
    {
    case CTarvikClientCANDll::eQueueCAN:
    case CTarvikClientCANDll::eQueueUndefined: return can::kFrameHead + ((size - can::kFrameHead) & 0xFF);
    case CTarvikClientCANDll::eQueuePDO: return std::min(size, kKeptPDO);
    case CTarvikClientCANDll::eQueueSYNC: return std::min(size, can::kSYNCSize);
    case CTarvikClientCANDll::eQueueEMCY: return std::min(size, can::kEMCYSize);
    default: return std::min(size, can::kGUARDSize);
    }
}
} // namespace

// ---------------------------------------------------------------- CTarvikMsgQueue

CTarvikMsgQueue::CTarvikMsgQueue(size_t recordData)
    : m_nMaxSize(kDefaultMaxSize),
      // Whole 8-byte words, so that records stay aligned for the copies.
      m_nRecordSize((kRecordHead + std::min(recordData, kMaxRecordData) + 7) / 8 * 8), m_nCapacity(0), m_nHead(0),
      m_nCount(0)
{
}

void CTarvikMsgQueue::MakeRecord(char* record, const char* data, size_t size) const
{
    const uint16_t kept = static_cast<uint16_t>(std::min(size, m_nRecordSize - kRecordHead));
    std::memcpy(record, &kept, sizeof(kept));
    std::memcpy(record + kRecordHead, data, kept);
}

bool CTarvikMsgQueue::Grow()
{
    const size_t capacity = m_nCapacity;
    if (m_nCount < capacity)
        return true;
    try
    {
        // Not zeroed: the used bytes of a record are copied in before they are read. The records move over
        // oldest first, in two runs, so that the ring starts at 0 again.
        const size_t grown = std::max(kFirstRingRecords, 2 * capacity);
        std::unique_ptr<char[]> ring(new char[grown * m_nRecordSize]);
        const size_t firstRun = std::min(m_nCount, capacity - m_nHead);
        if (m_nCount > 0)
        {
            std::memcpy(ring.get(), m_pRing.get() + m_nHead * m_nRecordSize, firstRun * m_nRecordSize);
            std::memcpy(ring.get() + firstRun * m_nRecordSize, m_pRing.get(), (m_nCount - firstRun) * m_nRecordSize);
        }
        m_pRing.swap(ring);
        m_nCapacity = grown;
        m_nHead = 0;
        return true;
    }
    catch (...)
    {
        return false;
    }
}

size_t CTarvikMsgQueue::PushIfRoom(const char* records, size_t count)
{
    CMolLock lock(m_Mutex);
    const size_t maxSize = m_nMaxSize.load(std::memory_order_relaxed);
    size_t pushed = 0;
    for (; pushed < count && m_nCount < maxSize; ++pushed)
    {
        // Out of memory: the rest is lost like telegrams of a full queue.
        if (!Grow())
            break;
        size_t at = m_nHead + m_nCount;
        if (at >= m_nCapacity)
            at -= m_nCapacity;
        const char* record = records + pushed * m_nRecordSize;
        std::memcpy(m_pRing.get() + at * m_nRecordSize, record, UsedBytes(record));
        ++m_nCount;
    }
    return pushed;
}

size_t CTarvikMsgQueue::PopFront(char* out, size_t max, size_t& left)
{
    CMolLock lock(m_Mutex);
    const size_t taken = std::min(max, m_nCount);
    for (size_t i = 0; i < taken; ++i)
    {
        const char* record = m_pRing.get() + m_nHead * m_nRecordSize;
        std::memcpy(out + i * m_nRecordSize, record, UsedBytes(record));
        m_nHead = m_nHead + 1 == m_nCapacity ? 0 : m_nHead + 1;
    }
    m_nCount -= taken;
    left = m_nCount;
    return taken;
}

size_t CTarvikMsgQueue::Size()
{
    CMolLock lock(m_Mutex);
    return m_nCount;
}

void CTarvikMsgQueue::Clear()
{
    // Swapped out under the lock, freed after it.
    std::unique_ptr<char[]> dropped;
    CMolLock lock(m_Mutex);
    dropped.swap(m_pRing);
    m_nCapacity = 0;
    m_nHead = 0;
    m_nCount = 0;
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
      m_bQueuesEnabled(false), m_aoQueues{CTarvikMsgQueue(kKeptPDO),
                                          CTarvikMsgQueue(can::kSYNCSize),
                                          CTarvikMsgQueue(can::kEMCYSize),
                                          CTarvikMsgQueue(can::kGUARDSize),
                                          CTarvikMsgQueue(CTarvikMsgQueue::kMaxRecordData),
                                          CTarvikMsgQueue(kKeptFrame)},
      m_bInBatch(false), m_nGathered(0), m_anGathered{}, m_bHasReceiver(false), m_pReceiver(nullptr),
      m_nReceiverGeneration(0), m_anReceiverCalls{0, 0}
{
    static_assert(eQueuePDO == 0 && eQueueSYNC == 1 && eQueueEMCY == 2 && eQueueGUARD == 3 && eQueueUndefined == 4 &&
                      eQueueCAN == 5,
                  "the queues above are listed in this order");
    m_bSendDataConfirm.store(false, std::memory_order_relaxed);
    for (int i = 0; i < eQueueCount; ++i)
        m_aaGathered[i].reserve(kGatherReserve * m_aoQueues[i].GetRecordSize());
    for (auto& drops : m_aanDrops)
        for (std::atomic<unsigned long long>& count : drops)
            count.store(0, std::memory_order_relaxed);
}

CTarvikClientCANDll::~CTarvikClientCANDll()
{
    StopConnection();
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
    const bool confirmation = len >= 4 && (static_cast<unsigned char>(data[3]) & confirmationHigh) != 0;
    // A well-formed indication is handled from the frame's bytes, without a telegram object;
    // confirmations and malformed blocks take the engine's path.
    const CTarvikPayload frame(data, len);
    if (!confirmation && len >= CTarvikMsg::kOverhead && frame.U16At(0) + 2u == len)
    {
        if (IsTracing())
        {
            const CTarvikMsg seen(data, len);
            Trace(STarvikTrace::eReceived, &seen, true);
        }
        Indication(frame.U16At(2), CTarvikPayload(data + 6, len - CTarvikMsg::kOverhead));
        return;
    }
    if (m_nGathered > 0 && confirmation)
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
    Indication(msg->GetCmdCode(), CTarvikPayload(msg->GetData()));
    delete msg;
    return true;
}

void CTarvikClientCANDll::Indication(unsigned short cmd, const CTarvikPayload& data)
{
    // The command numbers below are this client's only when the high byte is its type.
    if ((cmd >> 8) != (static_cast<unsigned short>(MakeCmdCode(0)) >> 8))
        return;
    const SIndicationKind* kind = nullptr;
    for (const SIndicationKind& candidate : kKinds)
        if ((cmd & 0xFF) == candidate.m_nCmd)
        {
            kind = &candidate;
            break;
        }
    if (kind == nullptr)
        return;
    const EQueue queue = kind->m_eQueue;
    const size_t need = kind->m_nMinSize + (kind->m_bLengthByte ? data.At(can::kPDOLengthOffset) : 0);
    if (data.Size() < need)
    {
        Dropped(queue, eDropTooShort);
        return;
    }
    bool called = false;
    bool tooLong = false;
    if (queue == eQueueCAN)
        called = CallFrame(data, tooLong);
    else if (queue == eQueueUndefined)
        called = CallUndefined(data);
    else
        called = CallCANopen(data, queue);
    if (tooLong)
        Dropped(queue, eDropTooLong);
    if (tooLong || called)
        return;
    if (!m_bQueuesEnabled.load(std::memory_order_acquire))
    {
        Dropped(queue, eDropDisabled);
        return;
    }
    Enqueue(queue, data);
}

bool CTarvikClientCANDll::CallFrame(const CTarvikPayload& data, bool& tooLong)
{
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

bool CTarvikClientCANDll::CallUndefined(const CTarvikPayload& data)
{
    PCANopenUndefinedCallback fn = m_pfnUndefined.load(std::memory_order_acquire);
    if (fn == nullptr && !m_bHasReceiver.load(std::memory_order_acquire))
        return false;
    if (m_nGathered > 0)
        FlushGathered();
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

bool CTarvikClientCANDll::CallCANopen(const CTarvikPayload& data, EQueue queue)
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

void CTarvikClientCANDll::Enqueue(EQueue queue, const CTarvikPayload& data)
{
    CTarvikMsgQueue& target = m_aoQueues[queue];
    const size_t recordSize = target.GetRecordSize();
    const size_t kept = KeptSize(queue, data.Size());
    if (m_bInBatch)
    {
        std::vector<char>& gathered = m_aaGathered[queue];
        const size_t at = m_anGathered[queue] * recordSize;
        try
        {
            if (gathered.size() < at + recordSize)
                gathered.resize(at + recordSize);
            target.MakeRecord(gathered.data() + at, data.Data(), kept);
            ++m_anGathered[queue];
            ++m_nGathered;
            return;
        }
        catch (...)
        {
            // No room to gather it: what came before goes first, then this one on its own.
            FlushGathered();
        }
    }
    alignas(8) char record[CTarvikMsgQueue::kRecordHead + CTarvikMsgQueue::kMaxRecordData + 8];
    target.MakeRecord(record, data.Data(), kept);
    const size_t pushed = target.PushIfRoom(record, 1);
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
        const size_t gathered = m_anGathered[i];
        if (gathered == 0)
            continue;
        const EQueue queue = static_cast<EQueue>(i);
        // A full queue keeps its older telegrams and drops the newer ones.
        if (enabled)
            pushed[i] = m_aoQueues[i].PushIfRoom(m_aaGathered[i].data(), gathered);
        Dropped(queue, enabled ? eDropFull : eDropDisabled, gathered - pushed[i]);
        m_anGathered[i] = 0;
    }
    m_nGathered = 0;
    for (int i = 0; i < eQueueCount; ++i)
        Queued(static_cast<EQueue>(i), pushed[i]);
}

// ---------------------------------------------------------------- fetching

// A record of a queue, taken with the number left after it.
struct CTarvikClientCANDll::SRecord
{
    alignas(8) char m_acBytes[CTarvikMsgQueue::kRecordHead + CTarvikMsgQueue::kMaxRecordData + 8];
    size_t m_nLeft = 0;
    // The oldest record of queue; false when it is empty.
    bool Take(CTarvikMsgQueue& queue) { return queue.PopFront(m_acBytes, 1, m_nLeft) == 1; }
    CTarvikPayload Data() const { return RecordData(m_acBytes); }
    int Left() const { return static_cast<int>(m_nLeft); }
};

void CTarvikClientCANDll::DecodeFrame(const char* record, STarvikCanMessage& out)
{
    const CTarvikPayload data = RecordData(record);
    const unsigned char flags = data.At(can::kFrameFlagsOffset);
    timeval tv = {0, 0};
    unsigned char len = GetTime(flags, FrameData(data), FrameDataLen(data), tv);
    if (len > kMaxFrameData)
        len = kMaxFrameData;
    out.nIdentifier = ReadIdentifier(data);
    // Signed here, unsigned for the callbacks: both as the interface has always had them.
    out.nFlags = flags >= 0x80 ? static_cast<int>(flags) - 0x100 : static_cast<int>(flags);
    out.nLen = len;
    out.nSeconds = static_cast<int>(tv.tv_sec);
    out.nMicroseconds = static_cast<int>(tv.tv_usec);
    data.CopyTo(can::kFrameHead, out.acData, len);
}

int CTarvikClientCANDll::CANGetMessage(int* pnIdentifier, char* pcBuffer, unsigned char* pnLen, int* pnFlags,
                                       int* pnSeconds, int* pnMicroseconds)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueueCAN]))
        return -1;
    STarvikCanMessage frame;
    DecodeFrame(record.m_acBytes, frame);
    Put(pnIdentifier, frame.nIdentifier);
    Put(pnFlags, frame.nFlags);
    Put(pnLen, frame.nLen);
    Put(pnSeconds, frame.nSeconds);
    Put(pnMicroseconds, frame.nMicroseconds);
    if (pcBuffer != nullptr)
        std::memcpy(pcBuffer, frame.acData, frame.nLen);
    return record.Left();
}

int CTarvikClientCANDll::CANGetMessages(STarvikCanMessage* pMessages, int nMax, int* pnLeft)
{
    if (nMax < 0 || (pMessages == nullptr && nMax > 0))
        return TARVIK_ERR_INVALID_PARAMETER;
    CTarvikMsgQueue& queue = m_aoQueues[eQueueCAN];
    const size_t recordSize = queue.GetRecordSize();
    alignas(8) char records[kFetchChunk * (CTarvikMsgQueue::kRecordHead + kKeptFrame + 8)];
    size_t taken = 0, left = 0;
    // Each chunk under one lock, decoded after it; nMax 0 only reads the count.
    do
    {
        const size_t want = std::min(kFetchChunk, static_cast<size_t>(nMax) - taken);
        const size_t got = queue.PopFront(records, want, left);
        for (size_t i = 0; i < got; ++i)
            DecodeFrame(records + i * recordSize, pMessages[taken + i]);
        taken += got;
        if (got < want)
            break;
    } while (taken < static_cast<size_t>(nMax) && left > 0);
    Put(pnLeft, static_cast<int>(left));
    return static_cast<int>(taken);
}

int CTarvikClientCANDll::CANopenGetPDO(unsigned char* p1, unsigned char* p2, unsigned char* pnLen, char* pcBuffer)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueuePDO]))
        return -1;
    const CTarvikPayload data = record.Data();
    unsigned char len = data.At(can::kPDOLengthOffset) < kMaxPDOData ? data.At(can::kPDOLengthOffset)
                                                                     : static_cast<unsigned char>(kMaxPDOData);
    Put(p1, data.At(0));
    Put(p2, data.At(1));
    Put(pnLen, len);
    data.CopyTo(can::kPDOHead, pcBuffer, len);
    return record.Left();
}

int CTarvikClientCANDll::CANopenGetSYNC(unsigned char* pnValue)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueueSYNC]))
        return -1;
    Put(pnValue, record.Data().At(0));
    return record.Left();
}

int CTarvikClientCANDll::CANopenGetEMCY(unsigned char* pnNode, unsigned short* pnErrorCode,
                                        unsigned char* pnErrorRegister, unsigned char* pcData)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueueEMCY]))
        return -1;
    const CTarvikPayload data = record.Data();
    Put(pnNode, data.At(0));
    unsigned short code = 0;
    data.ReadU16(can::kEMCYCodeOffset, code);
    Put(pnErrorCode, code);
    Put(pnErrorRegister, data.At(can::kEMCYRegisterOffset));
    data.CopyTo(can::kEMCYDataOffset, pcData, can::kEMCYData);
    return record.Left();
}

int CTarvikClientCANDll::CANopenGetGUARD(unsigned char* pnNode, unsigned char* pnState)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueueGUARD]))
        return -1;
    const CTarvikPayload data = record.Data();
    Put(pnNode, data.At(0));
    Put(pnState, data.At(1));
    return record.Left();
}

int CTarvikClientCANDll::CANopenGetUndefined(int* pnIdentifier, unsigned char* p1, unsigned char* p2,
                                             unsigned char* pnLen, char* pcBuffer, int* pnSeconds, int* pnMicroseconds)
{
    SRecord record;
    if (!record.Take(m_aoQueues[eQueueUndefined]))
        return -1;
    const CTarvikPayload data = record.Data();
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
    return record.Left();
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
