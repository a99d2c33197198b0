// CTarvikClientCANDll: the CAN client that the device registry creates for a CAN
// gateway (CDeviceManager::OpenDevice, type 2). Beside everything CTarvikClientCAN does,
// it receives: each received CAN frame and each CANopen event (PDO, SYNC, EMCY, node
// guarding, telegrams of no known kind) goes either to the application's callback for
// its kind, called at once on the receive thread, or into a bounded queue of its kind,
// from which the application fetches it by polling.
//
// Queues: nothing is queued until SetMaxSizePerQueue(n) with n > 0. A full queue drops
// the newest telegram and keeps the older ones; nothing reports a drop.
//
// Threads: callbacks run on the connection's receive thread without any lock of the
// library held; a callback may call back into this client (fetch from a queue, change
// the queue size, send an unconfirmed frame) but must not wait for a confirmation: the
// receive thread that would deliver it is the one running the callback. The Get
// operations may run on any thread. Set callbacks and the queue size before the traffic starts.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTCANDLL_H
#define TARVIK_CLIENTS_TARVIKCLIENTCANDLL_H

#include "tarvik/clients/TarvikCANCallbacks.h"
#include "tarvik/clients/TarvikClientCAN.h"
#include "tarvik/runtime/MolSync.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <vector>

// One bounded FIFO of telegrams, held by value, oldest first. CTarvikClientCANDll works
// on its fields directly; m_Mutex guards m_Messages.
class TARVIK_API CTarvikMsgQueue
{
public:
    static constexpr size_t kDefaultMaxSize = 1000;

    CTarvikMsgQueue() : m_nMaxSize(kDefaultMaxSize) {}
    CTarvikMsgQueue(const CTarvikMsgQueue&) = delete;
    CTarvikMsgQueue& operator=(const CTarvikMsgQueue&) = delete;

    // Capacity; read and written without the lock.
    std::atomic<size_t> m_nMaxSize;
    CMolMutex m_Mutex;
    std::deque<CTarvikMsg> m_Messages;
};

class TARVIK_API CTarvikClientCANDll : public CTarvikClientCAN
{
public:
    // The six queues, one per kind of indication.
    enum EQueue
    {
        eQueuePDO = 0,
        eQueueSYNC = 1,
        eQueueEMCY = 2,
        eQueueGUARD = 3,
        eQueueUndefined = 4,
        eQueueCAN = 5,
        eQueueCount = 6,
    };
    // Longest data of a received CAN frame (CAN FD); a longer one is discarded.
    static constexpr int kMaxFrameData = 64;
    // Longest PDO data handed out by CANopenGetPDO.
    static constexpr int kMaxPDOData = 8;

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
    // n > 0: every queue holds up to n (a fuller one is not shortened, it stops growing)
    // and queueing starts. 0: queueing stops and every queue is emptied.
    void SetMaxSizePerQueue(unsigned long n);

    // The Get operations take the oldest telegram of their queue. Each returns -1 when
    // the queue is empty, else how many are left after the one returned. Null outputs
    // are skipped.
    // Flags: the byte taken as signed (0x81 gives -127; the callbacks get 129). Length:
    // the data without its time stamp, at most 64; pcBuffer must hold 64 bytes.
    int CANGetMessage(int* pnIdentifier, char* pcBuffer, unsigned char* pnLen, int* pnFlags, int* pnSeconds,
                      int* pnMicroseconds);
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
    void DataInd(const char* data, unsigned short len) override;

private:
    // Queues msg (owned) at once, or gathers it during a batch.
    void Enqueue(EQueue queue, CTarvikMsg* msg);
    // Appends what was gathered, each queue under its own lock in turn, and frees the telegrams.
    void FlushGathered();
    // Takes the oldest telegram of a queue into out; false when empty.
    bool TakeFront(EQueue queue, CTarvikMsg& out);
    // The number left in a queue.
    int Remaining(EQueue queue);
    // Dispatch by kind; true when the telegram went to a callback.
    bool CallFrame(const CTarvikMsg& msg, bool& discard);
    bool CallUndefined(const CTarvikMsg& msg);
    bool CallCANopen(const CTarvikMsg& msg);

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
    // Receive thread only: a batch is under way, and the telegrams gathered for each
    // queue meanwhile (owned), in arrival order.
    bool m_bInBatch;
    size_t m_nGathered;
    std::vector<CTarvikMsg*> m_aapGathered[eQueueCount];
};

#endif
