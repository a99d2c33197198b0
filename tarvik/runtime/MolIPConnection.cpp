#include "tarvik/runtime/MolIPConnection.h"

#include "tarvik/runtime/MolTime.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{
// The connection whose receive thread this is (null on every other thread). Set by
// the thread itself, so it is right even before ConnectReq has stored the handle.
thread_local const CMolIPConnection* t_pReceiving = nullptr;

void SetBlocking(int fd)
{
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

void SetIntOption(int fd, int level, int name, int value)
{
    setsockopt(fd, level, name, &value, sizeof(value));
}

// Waits for a non-blocking connect; returns the connection result.
int FinishConnect(int fd, int64_t deadlineUs)
{
    for (;;)
    {
        int64_t leftUs = deadlineUs - MolMonotonicMicroSeconds();
        if (leftUs <= 0)
            return CMolIPBase::eResultTimeout;
        struct pollfd pfd = {fd, POLLOUT, 0};
        int ready = poll(&pfd, 1, static_cast<int>((leftUs + 999) / 1000));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return CMolIPBase::eResultSocketError;
        if (ready == 0)
            return CMolIPBase::eResultTimeout;
        int error = 0;
        socklen_t size = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            return CMolIPBase::eResultSocketError;
        if (error == 0)
            return CMolIPBase::eResultSuccess;
        if (error == ETIMEDOUT)
            return CMolIPBase::eResultTimeout;
        return CMolIPBase::eResultNotConnected;
    }
}
} // namespace

CMolIPBase::~CMolIPBase() = default;

CMolIPConnection::CMolIPConnection()
    : m_nState(eStateIdle), m_nSocket(-1), m_bInBatch(false), m_nSendTimeoutMs(0),
      m_nFrameTimeoutMs(kMinFrameTimeoutMs), m_nAliveMs(0)
{
}

CMolIPConnection::~CMolIPConnection()
{
    Shutdown();
}

bool CMolIPConnection::OnReceiveThread() const
{
    return t_pReceiving == this;
}

int CMolIPConnection::OpenSocket(const char* host, unsigned short port, unsigned int timeoutMs)
{
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    struct addrinfo* list = nullptr;
    std::string service = std::to_string(port);
    if (host == nullptr || getaddrinfo(host, service.c_str(), &hints, &list) != 0 || list == nullptr)
        return eResultSocketError;

    int64_t deadlineUs = MolMonotonicMicroSeconds() + static_cast<int64_t>(timeoutMs) * 1000;
    int result = eResultNotConnected;
    for (struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next)
    {
        int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0)
        {
            result = eResultSocketError;
            continue;
        }
        int rc = connect(fd, ai->ai_addr, ai->ai_addrlen);
        if (rc == 0)
            result = eResultSuccess;
        else if (errno == EINPROGRESS)
            result = FinishConnect(fd, deadlineUs);
        else
            result = (errno == ECONNREFUSED || errno == ENETUNREACH || errno == EHOSTUNREACH) ? eResultNotConnected
                                                                                              : eResultSocketError;
        if (result == eResultSuccess)
        {
            SetBlocking(fd);
            SetIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
            m_nSocket = fd;
            break;
        }
        close(fd);
        if (result == eResultTimeout)
            break;
    }
    freeaddrinfo(list);
    return result;
}

int CMolIPConnection::ConnectReq(const char* host, unsigned short port, unsigned int timeoutMs, unsigned char,
                                 CMolIPBase::EProtocol, const std::string&, bool)
{
    if (OnReceiveThread())
        return eResultSocketError;
    std::lock_guard<std::mutex> life(m_oLifeMutex);
    if (m_nState.load() == eStateConnected)
        return eResultSuccess;
    // A connection that ended on its own still has a thread to join and a socket to close.
    JoinReceiver();
    m_nState = eStateConnecting;
    int result = OpenSocket(host, port, timeoutMs);
    if (result != eResultSuccess)
    {
        m_nState = eStateIdle;
        return result;
    }
    m_nSendTimeoutMs = 0;
    m_nFrameTimeoutMs = timeoutMs > kMinFrameTimeoutMs ? timeoutMs : kMinFrameTimeoutMs;
    ApplyAlive();
    m_oCutter.Reset();
    m_nState.store(eStateConnected, std::memory_order_release);
    // ConnectInd(true) runs on the receive thread but is over before ConnectReq
    // returns, so the connect report always comes before the first telegram sent.
    std::promise<void> announced;
    std::future<void> done = announced.get_future();
    try
    {
        m_oReceiver = std::thread(&CMolIPConnection::ReceiveLoop, this, &announced);
    }
    catch (...)
    {
        m_nState = eStateIdle;
        close(m_nSocket);
        m_nSocket = -1;
        return eResultSocketError;
    }
    done.wait();
    // The connect report may have closed it again (a Disconnect() from a callback),
    // or the peer closed at once.
    return m_nState.load(std::memory_order_acquire) == eStateConnected ? eResultSuccess : eResultNotConnected;
}

int CMolIPConnection::DisconnectReq(unsigned int)
{
    if (OnReceiveThread())
    {
        // Called from a callback: wake the loop, which ends after the callback returns.
        std::lock_guard<std::mutex> send(m_oSendMutex);
        if (m_nSocket >= 0)
            ::shutdown(m_nSocket, SHUT_RDWR);
        return m_nState.exchange(eStateClosed) == eStateConnected ? eResultSuccess : eResultNotConnected;
    }
    std::lock_guard<std::mutex> life(m_oLifeMutex);
    bool wasConnected = m_nState.load() == eStateConnected;
    JoinReceiver();
    return wasConnected ? eResultSuccess : eResultNotConnected;
}

void CMolIPConnection::Shutdown()
{
    if (OnReceiveThread())
        return;
    std::lock_guard<std::mutex> life(m_oLifeMutex);
    JoinReceiver();
}

// Caller holds m_oLifeMutex.
void CMolIPConnection::JoinReceiver()
{
    {
        std::lock_guard<std::mutex> send(m_oSendMutex);
        if (m_nSocket >= 0)
            ::shutdown(m_nSocket, SHUT_RDWR);
    }
    if (m_oReceiver.joinable())
        m_oReceiver.join();
    std::lock_guard<std::mutex> send(m_oSendMutex);
    if (m_nSocket >= 0)
    {
        close(m_nSocket);
        m_nSocket = -1;
    }
    if (m_nState.load() != eStateIdle)
        m_nState = eStateClosed;
}

int CMolIPConnection::DataReq(const char* data, unsigned short len, unsigned int timeoutMs)
{
    return DataReqLong(data, len, timeoutMs);
}

int CMolIPConnection::DataReqLong(const char* data, size_t len, unsigned int timeoutMs)
{
    std::lock_guard<std::mutex> send(m_oSendMutex);
    if (m_nState.load(std::memory_order_acquire) != eStateConnected || m_nSocket < 0)
        return eResultNotConnected;
    if (timeoutMs != m_nSendTimeoutMs)
    {
        struct timeval tv = {static_cast<time_t>(timeoutMs / 1000),
                             static_cast<suseconds_t>((timeoutMs % 1000) * 1000)};
        setsockopt(m_nSocket, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        m_nSendTimeoutMs = timeoutMs;
    }
    size_t sent = 0;
    while (sent < len)
    {
        ssize_t n = ::send(m_nSocket, data + sent, len - sent, MSG_NOSIGNAL);
        if (n > 0)
        {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        int result = (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))           ? eResultTimeout
                     : (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) ? eResultNotConnected
                                                                                    : eResultSocketError;
        // Part of a frame is out: the peer would take the next frame's bytes as its rest.
        if (sent > 0)
            ::shutdown(m_nSocket, SHUT_RDWR);
        return result;
    }
    return eResultSuccess;
}

void CMolIPConnection::SetAlive(unsigned int ms)
{
    m_nAliveMs = ms;
    std::lock_guard<std::mutex> send(m_oSendMutex);
    if (m_nSocket >= 0)
        ApplyAlive();
}

void CMolIPConnection::ApplyAlive()
{
    if (m_nSocket < 0)
        return;
    if (m_nAliveMs == 0)
    {
        SetIntOption(m_nSocket, SOL_SOCKET, SO_KEEPALIVE, 0);
        return;
    }
    int seconds = static_cast<int>((m_nAliveMs + 999) / 1000);
    SetIntOption(m_nSocket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetIntOption(m_nSocket, IPPROTO_TCP, TCP_KEEPIDLE, seconds);
    SetIntOption(m_nSocket, IPPROTO_TCP, TCP_KEEPINTVL, seconds);
    SetIntOption(m_nSocket, IPPROTO_TCP, TCP_KEEPCNT, 3);
    // Unacknowledged data also ends the connection after three intervals.
    SetIntOption(m_nSocket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(m_nAliveMs) * 3);
}

void CMolIPConnection::ReceiveLoop(std::promise<void>* announced)
{
    t_pReceiving = this;
    int fd = m_nSocket;
    ConnectInd(true);
    announced->set_value();
    const int64_t frameTimeoutUs = static_cast<int64_t>(m_nFrameTimeoutMs) * 1000;
    int64_t frameDeadlineUs = 0;
    for (;;)
    {
        // Between frames the thread blocks in recv() alone; a frame under way must end in time.
        if (m_oCutter.GetPending() > 0 && !WaitForRest(fd, frameDeadlineUs))
            break;
        size_t space = 0;
        char* into = m_oCutter.GetSpace(space);
        ssize_t n = recv(fd, into, space, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        bool wasPending = m_oCutter.GetPending() > 0;
        size_t frames = m_oCutter.Commit(static_cast<size_t>(n), &CMolIPConnection::DeliverFrame, this);
        if (m_bInBatch)
        {
            m_bInBatch = false;
            BatchInd(false);
        }
        // The clock runs from the first byte of the frame now at the front.
        if (m_oCutter.GetPending() > 0 && (frames > 0 || !wasPending))
            frameDeadlineUs = MolMonotonicMicroSeconds() + frameTimeoutUs;
    }
    {
        // The peer learns at once that this side has given up on the stream.
        std::lock_guard<std::mutex> send(m_oSendMutex);
        ::shutdown(fd, SHUT_RDWR);
    }
    m_nState.store(eStateClosed, std::memory_order_release);
    ConnectInd(false);
    t_pReceiving = nullptr;
}

// False when the rest of the frame did not come before the deadline (or the wait failed).
bool CMolIPConnection::WaitForRest(int fd, int64_t deadlineUs)
{
    for (;;)
    {
        int64_t leftUs = deadlineUs - MolMonotonicMicroSeconds();
        if (leftUs <= 0)
            return false;
        int64_t leftMs = (leftUs + 999) / 1000;
        struct pollfd pfd = {fd, POLLIN, 0};
        int ready = poll(&pfd, 1, leftMs > 0x7FFFFFFF ? -1 : static_cast<int>(leftMs));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

void CMolIPConnection::DeliverFrame(void* self, const char* frame, unsigned short len)
{
    CMolIPConnection* connection = static_cast<CMolIPConnection*>(self);
    // The batch begins with its first complete telegram, so a read of a frame's middle costs nothing.
    if (!connection->m_bInBatch)
    {
        connection->m_bInBatch = true;
        connection->BatchInd(true);
    }
    connection->DataInd(frame, len);
}

void CMolIPConnection::DataInd(const char*, unsigned short) {}

void CMolIPConnection::BatchInd(bool) {}

void CMolIPConnection::ConnectInd(bool) {}

bool CMolIPConnection::IsConnectMsgAccepted(const std::string&)
{
    return true;
}
