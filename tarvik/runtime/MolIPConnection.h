// TCP client connection with its own receive thread, on POSIX sockets.
#ifndef TARVIK_RUNTIME_MOLIPCONNECTION_H
#define TARVIK_RUNTIME_MOLIPCONNECTION_H

#include "tarvik/runtime/MolFrameCutter.h"
#include "tarvik/runtime/TarvikExport.h"

#include <atomic>
#include <cstdint>
#include <future>
#include <mutex>
#include <string>
#include <thread>

class TARVIK_API CMolIPBase
{
public:
    // Passed through from the caller; the connection treats every value alike.
    enum EProtocol
    {
        eProtocolNone = 0,
        eProtocolTarvik = 1,
    };

    // Results of the connection operations.
    enum EResult
    {
        eResultSuccess = 1,
        eResultSocketError = 2,
        eResultNotConnected = 3,
        eResultTimeout = 4,
        eResultInitializing = 5,
        eResultNotInitialized = 6,
        eResultConnectionLimit = 7,
    };

    // Connection states; only eStateConnected (3) is relied on by callers.
    enum EState
    {
        eStateIdle = 0,
        eStateConnecting = 2,
        eStateConnected = 3,
        eStateClosed = 4,
    };

    virtual ~CMolIPBase();
};

// One TCP connection. Telegrams are cut from the byte stream by their 2-byte
// little-endian length prefix and handed to DataInd() one at a time, in arrival
// order, on the connection's receive thread.
//
// A frame that has begun must be complete within the connect time-out (at least
// kMinFrameTimeoutMs): a peer that stalls mid-frame, or sent a length field that
// nothing follows, has lost step with the stream, and the connection ends as if
// the peer had closed it (ConnectInd(false)).
class TARVIK_API CMolIPConnection : public CMolIPBase
{
public:
    // Shortest wait for the rest of a frame, whatever the connect time-out.
    static constexpr unsigned int kMinFrameTimeoutMs = 100;

    CMolIPConnection();
    ~CMolIPConnection() override;
    CMolIPConnection(const CMolIPConnection&) = delete;
    CMolIPConnection& operator=(const CMolIPConnection&) = delete;

    // Opens the connection within timeoutMs. deviceType, protocol, connectMsg and
    // flag are accepted for the callers' sake and do not change the connection.
    int ConnectReq(const char* host, unsigned short port, unsigned int timeoutMs, unsigned char deviceType,
                   CMolIPBase::EProtocol protocol, const std::string& connectMsg, bool flag);
    // Closes the connection and joins the receive thread. Called on the receive
    // thread (from a callback) it only closes; the thread ends after the callback.
    int DisconnectReq(unsigned int timeoutMs);
    // Sends one whole frame; partial writes are completed, a closed peer gives an error, never SIGPIPE.
    int DataReq(const char* data, unsigned short len, unsigned int timeoutMs);
    // Sends a frame longer than 65535 bytes (the length of DataReq is 16 bits wide).
    int DataReqLong(const char* data, size_t len, unsigned int timeoutMs);
    // Supervises the connection: TCP keep-alive probes every ms milliseconds and a
    // user time-out, so that a dead peer ends in ConnectInd(false). 0 switches it off.
    void SetAlive(unsigned int ms);
    int GetState() const { return m_nState.load(std::memory_order_acquire); }
    // Closes the connection and joins the receive thread: once it returns, no callback
    // runs or will run until the next ConnectReq. Does nothing on the receive thread.
    void Shutdown();
    // True on this connection's own receive thread (inside a callback).
    bool OnReceiveThread() const;

protected:
    // Called on the receive thread once per complete telegram; len = length field + 2.
    // A frame too long for a 16-bit size (65536 or 65537 bytes) arrives as an empty
    // block, so that it is dropped as malformed and the stream stays in step.
    virtual void DataInd(const char* data, unsigned short len);
    // Called on the receive thread around the telegrams that one socket read completed:
    // true before the first DataInd, false after the last. A read that completes none
    // calls neither. Lets a receiver take a lock once per read instead of once per telegram.
    virtual void BatchInd(bool begin);
    // Called on the receive thread after the connection came up and when it ended.
    virtual void ConnectInd(bool connected);
    virtual bool IsConnectMsgAccepted(const std::string& msg);

private:
    void ReceiveLoop(std::promise<void>* announced);
    bool WaitForRest(int fd, int64_t deadlineUs);
    static void DeliverFrame(void* self, const char* frame, unsigned short len);
    int OpenSocket(const char* host, unsigned short port, unsigned int timeoutMs);
    void ApplyAlive();
    void JoinReceiver();

    std::atomic<int> m_nState;
    int m_nSocket;
    std::thread m_oReceiver;
    CMolFrameCutter m_oCutter;
    // A batch of telegrams is being delivered (receive thread only).
    bool m_bInBatch;
    std::mutex m_oSendMutex;
    std::mutex m_oLifeMutex;
    unsigned int m_nSendTimeoutMs;
    unsigned int m_nFrameTimeoutMs;
    std::atomic<unsigned int> m_nAliveMs;
};

#endif
