// CTarvikClientCANDll: the CAN client that the device registry creates for a CAN
// gateway (CDeviceManager::OpenDevice, type 2). Beside everything CTarvikClientCAN does,
// it receives: each received CAN frame and each CANopen event (PDO, SYNC, EMCY, node
// guarding, telegrams of no known kind) goes either to the application's callback for
// its kind, called at once on the receive thread, or into a bounded queue of its kind,
// from which the application fetches it by polling.
//
// Queues: nothing is queued until SetMaxSizePerQueue(n) with n > 0. A full queue drops
// the newest telegram and keeps the older ones; GetDropCounts tells how many were lost.
//
// With a context of its own, the application receives through an ITarvikCanReceiver
// (SetReceiver), which gets what the plain callbacks do not take.
//
// Threads: callbacks run on the connection's receive thread without any lock of the
// library held; a callback may call back into this client (fetch from a queue, change
// the queue size, send an unconfirmed frame) but must not wait for a confirmation: the
// receive thread that would deliver it is the one running the callback. The Get
// operations may run on any thread. Set callbacks and the queue size before the traffic starts.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTCANDLL_H
#define TARVIK_CLIENTS_TARVIKCLIENTCANDLL_H

#include "tarvik/clients/TarvikCANCallbacks.h"
#include "tarvik/clients/TarvikCanReceiver.h"
#include "tarvik/clients/TarvikClientCAN.h"
#include "tarvik/core/TarvikPayload.h"
#include "tarvik/runtime/MolSync.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

// One bounded FIFO of indications, oldest first. Each is kept as a fixed-size record of
// the part of its data field that the Get operations read, in a ring that grows on
// demand up to m_nMaxSize and keeps its memory: a steady flow allocates nothing.
// m_Mutex guards the ring; the operations below take it themselves.
class TARVIK_API CTarvikMsgQueue
{
public:
    static constexpr size_t kDefaultMaxSize = 1000;
    // Record layout: a 16-bit size, then that many data bytes.
    static constexpr size_t kRecordHead = 2;
    // Most data bytes a record can hold (a frame head and 255 bytes after it).
    static constexpr size_t kMaxRecordData = 260;

    // recordData: data bytes each record holds (at most kMaxRecordData).
    explicit CTarvikMsgQueue(size_t recordData = kMaxRecordData);
    CTarvikMsgQueue(const CTarvikMsgQueue&) = delete;
    CTarvikMsgQueue& operator=(const CTarvikMsgQueue&) = delete;

    // Bytes of one record; records passed in and out are this far apart.
    size_t GetRecordSize() const { return m_nRecordSize; }
    // Fills record (GetRecordSize() bytes) from a data field, cut to what a record holds.
    void MakeRecord(char* record, const char* data, size_t size) const;
    // Appends the first of count records while the queue holds fewer than m_nMaxSize;
    // returns how many went in. Out of memory counts as full.
    size_t PushIfRoom(const char* records, size_t count);
    // Copies up to max of the oldest records into out and removes them; returns how many,
    // and in left how many stay, both under one lock.
    size_t PopFront(char* out, size_t max, size_t& left);
    size_t Size();
    // Empties the queue and gives its memory back (freed after the lock is released).
    void Clear();

    // Capacity; read and written without the lock.
    std::atomic<size_t> m_nMaxSize;
    CMolMutex m_Mutex;

private:
    // Caller holds m_Mutex. Room for one more record; false when out of memory.
    bool Grow();

    size_t m_nRecordSize;
    // m_nCapacity records of m_nRecordSize bytes; m_nCount of them from m_nHead on, wrapping.
    std::unique_ptr<char[]> m_pRing;
    size_t m_nCapacity;
    size_t m_nHead;
    size_t m_nCount;
};

class TARVIK_API CTarvikClientCANDll : public CTarvikClientCAN
{
public:
    // The six queues, one per kind of indication.
    using EQueue = ITarvikCanReceiver::EQueue;
    static constexpr EQueue eQueuePDO = ITarvikCanReceiver::eQueuePDO;
    static constexpr EQueue eQueueSYNC = ITarvikCanReceiver::eQueueSYNC;
    static constexpr EQueue eQueueEMCY = ITarvikCanReceiver::eQueueEMCY;
    static constexpr EQueue eQueueGUARD = ITarvikCanReceiver::eQueueGUARD;
    static constexpr EQueue eQueueUndefined = ITarvikCanReceiver::eQueueUndefined;
    static constexpr EQueue eQueueCAN = ITarvikCanReceiver::eQueueCAN;
    static constexpr int eQueueCount = ITarvikCanReceiver::eQueueCount;
    // Longest data of a received CAN frame (CAN FD); a longer one is discarded.
    static constexpr int kMaxFrameData = static_cast<int>(tarvik_protocol::can::kMaxFDData);
    // Longest PDO data handed out by CANopenGetPDO.
    static constexpr int kMaxPDOData = static_cast<int>(tarvik_protocol::can::kMaxPDOData);

    // nHandle: passed to every callback (the registry's handle of this device).
    CTarvikClientCANDll(int nHandle, int timeoutMs);
    // Stops the connection first, then drops the queues with what they hold.
    ~CTarvikClientCANDll() override;

    // One CAN frame callback at a time: each of these clears the other. Null: none.
    void SetCallback(PCANFrameCallback fn);
    void SetCallbackEx(PCANFrameCallbackEx fn);
    // All five CANopen callbacks at once; any may be null.
    void CANopenSetCallback(PCANopenPDOCallback pdo, PCANopenSYNCCallback sync, PCANopenEMCYCallback emcy,
                            PCANopenGUARDCallback guard, PCANopenUndefinedCallback undefined);
    // The receiver for what the C callbacks above do not take (see ITarvikCanReceiver);
    // null: none. It returns once no call of the old receiver is under way (unless
    // called from the receiver itself), so the old one may be destroyed then: clear it,
    // or stop the connection, before the receiver dies. Do not call it while holding a
    // lock that the old receiver takes.
    void SetReceiver(ITarvikCanReceiver* receiver);
    // A frame callback with a context pointer of the caller's, as a receiver of this
    // client's own (it replaces any receiver set before); null fn: none.
    void SetCallbackUser(PCANFrameCallbackUser fn, void* user);
    // n > 0: every queue holds up to n (a fuller one is not shortened, it stops growing)
    // and queueing starts. 0: queueing stops and every queue is emptied.
    void SetMaxSizePerQueue(unsigned long n);
    // What was dropped on arrival for one queue's kind; any thread.
    void GetDropCounts(EQueue queue, STarvikCanDropCounts& counts) const;

    // The Get operations take the oldest telegram of their queue. Each returns -1 when
    // the queue is empty, else how many are left after the one returned. Null outputs
    // are skipped.
    // Flags: the byte taken as signed (0x81 gives -127; the callbacks get 129). Length:
    // the data without its time stamp, at most 64; pcBuffer must hold 64 bytes.
    int CANGetMessage(int* pnIdentifier, char* pcBuffer, unsigned char* pnLen, int* pnFlags, int* pnSeconds,
                      int* pnMicroseconds);
    // Takes up to nMax of the oldest frames at once into pMessages, each as CANGetMessage
    // gives it. Returns how many were taken (0 when the queue is empty) and in *pnLeft (may
    // be null) how many are left; 0x920000 for nMax < 0, or a null pMessages with nMax > 0.
    int CANGetMessages(STarvikCanMessage* pMessages, int nMax, int* pnLeft);
    // Length: at most 8; pcBuffer must hold 8 bytes.
    int CANopenGetPDO(unsigned char* p1, unsigned char* p2, unsigned char* pnLen, char* pcBuffer);
    int CANopenGetSYNC(unsigned char* pnValue);
    // Error code from unsigned bytes (the callback widens the low byte with its sign);
    // pcData must hold 5 bytes.
    int CANopenGetEMCY(unsigned char* pnNode, unsigned short* pnErrorCode, unsigned char* pnErrorRegister,
                       unsigned char* pcData);
    int CANopenGetGUARD(unsigned char* pnNode, unsigned char* pnState);
    // Length: at most 8, but pcBuffer receives every byte after the flags, time stamp
    // included: it must hold 255 bytes.
    int CANopenGetUndefined(int* pnIdentifier, unsigned char* p1, unsigned char* p2, unsigned char* pnLen,
                            char* pcBuffer, int* pnSeconds, int* pnMicroseconds);

    // Time stamp splitter: with flag 0x04 the last 8 of nLen data bytes are seconds and
    // microseconds (tv, returns nLen - 8; fewer than 8 bytes: returns 0, tv unwritten);
    // without it tv = {0, 0} and nLen is returned.
    unsigned char GetTime(unsigned char nFlags, const char* pcData, unsigned short nLen, timeval& tv);
    // The device's clock (CTarvikClientCAN::GetTime), kept beside the splitter.
    using CTarvikClientCAN::GetTime;

    // Receive thread: each indication to its callback or queue; always takes the telegram.
    bool DataIndRespond(CTarvikMsg* msg) override;
    // Receive thread: queued telegrams of one socket read are appended with one lock per queue.
    void DataIndBatch(bool begin) override;
    // Receive thread: telegrams gathered so far go to their queues before a confirmation
    // is stored, so that a request that returns sees every indication that came before its answer.
    // A well-formed indication is handled straight from the frame's bytes, without a
    // telegram object: DataIndRespond takes those fed to the client from elsewhere.
    void DataInd(const char* data, unsigned short len) override;

private:
    enum EDrop
    {
        eDropDisabled,
        eDropFull,
        eDropTooLong,
        eDropTooShort,
        eDropCount,
    };
    // The frame callback with a context, as a receiver.
    class CUserFrameReceiver : public ITarvikCanReceiver
    {
    public:
        bool OnFrame(unsigned int nIdentifier, const char* pcData, int nLen, int nFlags, int nSeconds,
                     int nMicroseconds) override;
        PCANFrameCallbackUser m_pfnCallback = nullptr;
        void* m_pUser = nullptr;
    };

    // One indication's data field, by command code: to its callback, the receiver or its queue.
    void Indication(unsigned short cmd, const CTarvikPayload& data);
    // Queues a data field at once, or gathers it during a batch.
    void Enqueue(EQueue queue, const CTarvikPayload& data);
    // Appends what was gathered, each queue under its own lock in turn.
    void FlushGathered();
    // Telegrams of a queue that went in (tell the receiver) or were dropped for a reason.
    void Queued(EQueue queue, size_t count);
    void Dropped(EQueue queue, EDrop why, size_t count = 1);
    // Calls fn(receiver) when one is set, without any lock held; false when none took it.
    template <class Fn> bool ToReceiver(Fn fn);
    // Dispatch by kind; true when the telegram went to a callback or the receiver.
    bool CallFrame(const CTarvikPayload& data, bool& tooLong);
    bool CallUndefined(const CTarvikPayload& data);
    bool CallCANopen(const CTarvikPayload& data, EQueue queue);
    // Decodes a record of the CAN queue as CANGetMessage hands it out.
    void DecodeFrame(const char* record, STarvikCanMessage& out);
    struct SRecord;

    std::atomic<PCANFrameCallback> m_pfnCallback;
    std::atomic<PCANFrameCallbackEx> m_pfnCallbackEx;
    std::atomic<PCANopenPDOCallback> m_pfnPDO;
    std::atomic<PCANopenSYNCCallback> m_pfnSYNC;
    std::atomic<PCANopenEMCYCallback> m_pfnEMCY;
    std::atomic<PCANopenGUARDCallback> m_pfnGUARD;
    std::atomic<PCANopenUndefinedCallback> m_pfnUndefined;
    int m_nHandle;
    std::atomic<bool> m_bQueuesEnabled;
    CTarvikMsgQueue m_aoQueues[eQueueCount];
    // Receive thread only: a batch is under way, and the records gathered for each queue
    // meanwhile, in arrival order (the lists keep their memory from batch to batch).
    bool m_bInBatch;
    size_t m_nGathered;
    std::vector<char> m_aaGathered[eQueueCount];
    size_t m_anGathered[eQueueCount];
    // Drops per queue and reason.
    std::atomic<unsigned long long> m_aanDrops[eQueueCount][eDropCount];
    // The receiver and the calls of it under way. A call counts in the slot of the
    // generation it began in; SetReceiver starts a new generation and waits for the old
    // slot only, so calls of the new receiver cannot keep it waiting. The flag lets a
    // client without a receiver skip the lock.
    std::atomic<bool> m_bHasReceiver;
    std::mutex m_oReceiverMutex;
    std::condition_variable m_oReceiverIdle;
    ITarvikCanReceiver* m_pReceiver;
    unsigned int m_nReceiverGeneration;
    unsigned int m_anReceiverCalls[2];
    CUserFrameReceiver m_oUserReceiver;
};

#endif
