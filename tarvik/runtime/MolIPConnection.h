// TCP client connection with its own receive thread, on POSIX sockets.
#ifndef TARVIK_RUNTIME_MOLIPCONNECTION_H
#define TARVIK_RUNTIME_MOLIPCONNECTION_H

#include "tarvik/core/TarvikExport.h"

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
class TARVIK_API CMolIPConnection : public CMolIPBase
{
public:
    // Largest block DataInd() can be given: a 65535 length field plus the prefix.
    static constexpr size_t kMaxFrameSize = 65537;
    // The receive buffer starts this small and grows on demand.
    static constexpr size_t kInitialBufferSize = 4096;

    CMolIPConnection();
    ~CMolIPConnection() override;
    CMolIPConnection(const CMolIPConnection&) = delete;
    CMolIPConnection& operator=(const CMolIPConnection&) = delete;

    // Opens the connection within timeoutMs. deviceType, protocol, connectMsg and
    // flag are accepted for the callers' sake and do not change the connection.
    int ConnectReq(const char* host, unsigned short port, unsigned int timeoutMs, unsigned char deviceType,
                   CMolIPBase::EProtocol protocol, const std::string& connectMsg, bool flag);
    // Closes the connection and joins the receive thread (unless called on it).
    int DisconnectReq(unsigned int timeoutMs);
    // Sends one whole frame; partial writes are completed, a closed peer gives an error, never SIGPIPE.
    int DataReq(const char* data, unsigned short len, unsigned int timeoutMs);
    // Sends a frame longer than 65535 bytes (the length of DataReq is 16 bits wide).
    int DataReqLong(const char* data, size_t len, unsigned int timeoutMs);
    // Supervises the connection: TCP keep-alive probes every ms milliseconds and a
    // user time-out, so that a dead peer ends in ConnectInd(false). 0 switches it off.
    void SetAlive(unsigned int ms);
    int GetState() const { return m_nState.load(std::memory_order_acquire); }
    // Stops the receive thread and closes the socket without further callbacks' effect.
    void Shutdown();

protected:
    // Called on the receive thread once per complete telegram; len = length field + 2
    // (a block of more than 65535 bytes arrives with its length cut to 16 bits).
    virtual void DataInd(const char* data, unsigned short len);
    // Called on the receive thread after the connection came up and when it ended.
    virtual void ConnectInd(bool connected);
    virtual bool IsConnectMsgAccepted(const std::string& msg);

private:
    void ReceiveLoop(std::promise<void>* announced);
    size_t CutFrames(size_t filled);
    int OpenSocket(const char* host, unsigned short port, unsigned int timeoutMs);
    void ApplyAlive();
    void JoinReceiver();
    bool OnReceiveThread() const;

    std::atomic<int> m_nState;
    int m_nSocket;
    std::thread m_oReceiver;
    std::vector<char> m_aBuffer;
    std::mutex m_oSendMutex;
    std::mutex m_oLifeMutex;
    unsigned int m_nSendTimeoutMs;
    unsigned int m_nAliveMs;
};

#endif
