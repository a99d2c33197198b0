#include "sim/TarvikSimRawClient.h"

#include "tarvik/core/TarvikPayload.h"

#include <cerrno>
#include <chrono>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
// Waits until fd is ready for events or the deadline passes.
bool WaitReady(int fd, short events, std::chrono::steady_clock::time_point deadline)
{
    for (;;)
    {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd pfd{fd, events, 0};
        int rc = ::poll(&pfd, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (rc > 0)
            return true;
        if (rc == 0 || errno != EINTR)
            return false;
    }
}
} // namespace

CTarvikSimRawClient::CTarvikSimRawClient() : m_nSocket(-1), m_bPeerClosed(false) {}

CTarvikSimRawClient::~CTarvikSimRawClient()
{
    Close();
}

bool CTarvikSimRawClient::Connect(const std::string& host, unsigned short port, unsigned int timeoutMs)
{
    Close();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (addrinfo* ai = list; ai != nullptr && m_nSocket < 0; ai = ai->ai_next)
    {
        int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
        if (fd < 0)
            continue;
        int rc = ::connect(fd, ai->ai_addr, ai->ai_addrlen);
        int error = rc == 0 ? 0 : errno;
        if (error == EINPROGRESS && WaitReady(fd, POLLOUT, deadline))
        {
            socklen_t len = sizeof(error);
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
        }
        if (error != 0)
        {
            ::close(fd);
            continue;
        }
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        m_nSocket = fd;
    }
    ::freeaddrinfo(list);
    m_bPeerClosed = false;
    m_sPending.clear();
    return m_nSocket >= 0;
}

void CTarvikSimRawClient::Close()
{
    if (m_nSocket >= 0)
        ::close(m_nSocket);
    m_nSocket = -1;
}

bool CTarvikSimRawClient::Send(const std::string& bytes)
{
    if (m_nSocket < 0)
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    size_t sent = 0;
    while (sent < bytes.size())
    {
        ssize_t n = ::send(m_nSocket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0)
        {
            sent += static_cast<size_t>(n);
            continue;
        }
        int error = n < 0 ? errno : EPIPE;
        if (error != EINTR && (error != EAGAIN || !WaitReady(m_nSocket, POLLOUT, deadline)))
            return false;
    }
    return true;
}

bool CTarvikSimRawClient::Fill(size_t want, unsigned int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[65536];
    while (m_sPending.size() < want)
    {
        ssize_t n = ::recv(m_nSocket, buffer, sizeof(buffer), 0);
        if (n > 0)
            m_sPending.append(buffer, static_cast<size_t>(n));
        else if (n == 0)
        {
            m_bPeerClosed = true;
            return false;
        }
        else
        {
            int error = errno;
            if (error == EINTR || (error == EAGAIN && WaitReady(m_nSocket, POLLIN, deadline)))
                continue;
            if (error == ECONNRESET)
                m_bPeerClosed = true;
            return false;
        }
    }
    return true;
}

std::string CTarvikSimRawClient::ReceiveFrame(unsigned int timeoutMs)
{
    if (m_nSocket < 0 || !Fill(2, timeoutMs))
        return std::string();
    size_t size = CTarvikPayload(m_sPending).U16At(0) + size_t(2);
    if (!Fill(size, timeoutMs))
        return std::string();
    std::string frame = m_sPending.substr(0, size);
    m_sPending.erase(0, size);
    return frame;
}

std::string CTarvikSimRawClient::Transact(const std::string& bytes, unsigned int timeoutMs)
{
    return Send(bytes) ? ReceiveFrame(timeoutMs) : std::string();
}
