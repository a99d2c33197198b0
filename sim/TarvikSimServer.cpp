#include "sim/TarvikSimServer.h"

#include "sim/TarvikSimConnection.h"
#include "sim/TarvikSimRegistry.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
// Hundreds of clients connecting in a burst: a short queue drops their SYNs, and each
// retry costs a second (16 slots made 512 connects take 2 s instead of 0.1 s).
constexpr int kBacklog = 128;
constexpr auto kNoDescriptorPause = std::chrono::milliseconds(10);

unsigned short BoundPort(int socket)
{
    sockaddr_storage address{};
    socklen_t len = sizeof(address);
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &len) != 0)
        return 0;
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

// A listening socket on the first address of host that binds; -1 with errno set.
int OpenListener(const std::string& host, unsigned short port, std::string& error)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    std::string service = std::to_string(port);
    int rc = ::getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(), &hints, &list);
    if (rc != 0)
    {
        error = std::string("cannot resolve ") + host + ": " + ::gai_strerror(rc);
        errno = EINVAL;
        return -1;
    }
    int fd = -1;
    int lastErrno = EADDRNOTAVAIL;
    for (addrinfo* ai = list; ai != nullptr && fd < 0; ai = ai->ai_next)
    {
        fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
        if (fd < 0)
        {
            lastErrno = errno;
            continue;
        }
        // A restarted simulator gets its fixed port back while old connections linger.
        int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, kBacklog) != 0)
        {
            lastErrno = errno;
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(list);
    if (fd < 0)
    {
        error = "cannot listen on " + host + ":" + service + ": " + std::strerror(lastErrno);
        errno = lastErrno;
    }
    return fd;
}
} // namespace

CTarvikSimServer::CTarvikSimServer()
    : m_anCanNodeIds(CTarvikSimCanBus::DefaultNodeIds()), m_nWakeFd(-1), m_bRunning(false), m_bStopped(false),
      m_nRefused(0)
{
}

CTarvikSimServer::~CTarvikSimServer()
{
    Stop();
}

unsigned short CTarvikSimServer::GetStandardPort(ETarvikDevice type, unsigned int index)
{
    return TarvikDevicePort(type, static_cast<int>(index));
}

int CTarvikSimServer::AddDevice(ETarvikDevice type, const std::string& host, unsigned short port, unsigned int index)
{
    if (m_bRunning || m_bStopped)
        return Fail(EBUSY, "devices can only be added before the server starts");
    if (FindEndpoint(type, index) != nullptr)
        return Fail(EEXIST, TarvikDeviceName(type) + " #" + std::to_string(index) + " is already emulated");
    if (type == eTarvikCAN && !m_pCanBus)
        m_pCanBus = std::make_shared<CTarvikSimCanBus>(m_anCanNodeIds);
    SEndpoint endpoint{CTarvikSimRegistry::Create(type, index, m_pCanBus), host, 0, -1};
    if (!endpoint.m_pDevice)
        return Fail(EINVAL, "no model of device type " + std::to_string(static_cast<int>(type)));
    int rc = Listen(endpoint, port);
    if (rc != 0)
        return rc;
    m_aoEndpoints.push_back(std::move(endpoint));
    return 0;
}

int CTarvikSimServer::Listen(SEndpoint& endpoint, unsigned short port)
{
    std::string error;
    endpoint.m_nSocket = OpenListener(endpoint.m_sHost, port, error);
    if (endpoint.m_nSocket < 0)
        return Fail(errno, error);
    endpoint.m_nPort = BoundPort(endpoint.m_nSocket);
    return 0;
}

int CTarvikSimServer::Fail(int error, const std::string& text)
{
    m_sLastError = text;
    return error;
}

bool CTarvikSimServer::Start()
{
    if (m_bRunning)
        return true;
    if (m_bStopped || m_aoEndpoints.empty())
    {
        Fail(EINVAL, m_bStopped ? "the server was stopped" : "no device to emulate");
        return false;
    }
    m_nWakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_nWakeFd < 0)
    {
        Fail(errno, std::string("eventfd: ") + std::strerror(errno));
        return false;
    }
    m_bRunning = true;
    m_oThread = std::thread(&CTarvikSimServer::Run, this);
    return true;
}

void CTarvikSimServer::Stop()
{
    if (m_bRunning.exchange(false))
    {
        uint64_t one = 1;
        ssize_t written = ::write(m_nWakeFd, &one, sizeof(one));
        (void)written;
        m_oThread.join();
    }
    m_bStopped = true;
    std::list<std::unique_ptr<CTarvikSimConnection>> connections;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        connections.swap(m_aoConnections);
    }
    // Wake all first, so that they wind down together; the destructors join.
    for (auto& connection : connections)
        connection->RequestStop();
    connections.clear();
    // Only now: a connection writes to it as it ends.
    if (m_nWakeFd >= 0)
        ::close(m_nWakeFd);
    m_nWakeFd = -1;
    CloseListeners();
}

void CTarvikSimServer::CloseListeners()
{
    for (SEndpoint& endpoint : m_aoEndpoints)
    {
        if (endpoint.m_nSocket >= 0)
            ::close(endpoint.m_nSocket);
        endpoint.m_nSocket = -1;
    }
}

void CTarvikSimServer::Run()
{
    std::vector<pollfd> fds(m_aoEndpoints.size() + 1);
    fds[0] = pollfd{m_nWakeFd, POLLIN, 0};
    for (size_t i = 0; i < m_aoEndpoints.size(); ++i)
        fds[i + 1] = pollfd{m_aoEndpoints[i].m_nSocket, POLLIN, 0};
    while (m_bRunning)
    {
        int rc = ::poll(fds.data(), fds.size(), -1);
        if (rc < 0 && errno != EINTR)
            break;
        if (rc <= 0)
            continue;
        // Woken by Stop() or by connections that ended: reap them now, not on the next accept.
        if (fds[0].revents & POLLIN)
        {
            uint64_t count = 0;
            ssize_t got = ::read(m_nWakeFd, &count, sizeof(count));
            (void)got;
            ReapFinished();
        }
        for (size_t i = 0; i < m_aoEndpoints.size() && m_bRunning; ++i)
            if (fds[i + 1].revents & POLLIN)
                AcceptClients(m_aoEndpoints[i]);
    }
}

void CTarvikSimServer::AcceptClients(SEndpoint& endpoint)
{
    for (;;)
    {
        int fd = ::accept4(endpoint.m_nSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
        {
            // EAGAIN: all taken. An aborted connection is simply gone. Out of
            // descriptors: the client stays queued, so pause rather than spin on poll().
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EMFILE || errno == ENFILE)
                std::this_thread::sleep_for(kNoDescriptorPause);
            return;
        }
        if (IsFull())
        {
            // A gateway with all its connection slots taken accepts and closes at once,
            // so the client learns it at its first request instead of hanging.
            ++m_nRefused;
            ::close(fd);
            continue;
        }
        // Answers are small and awaited one by one: do not let Nagle hold them back.
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        auto connection = std::make_unique<CTarvikSimConnection>(fd, *endpoint.m_pDevice, m_oFaults, m_nWakeFd);
        connection->Start();
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_aoConnections.push_back(std::move(connection));
    }
}

void CTarvikSimServer::ReapFinished()
{
    std::list<std::unique_ptr<CTarvikSimConnection>> finished;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        for (auto it = m_aoConnections.begin(); it != m_aoConnections.end();)
        {
            auto next = std::next(it);
            if ((*it)->IsFinished())
                finished.splice(finished.end(), m_aoConnections, it);
            it = next;
        }
    }
    if (finished.empty())
        return;
    // Joined outside the lock; their threads have ended already.
    finished.clear();
    // The threads' arenas and stacks would otherwise stay with the process.
    ::malloc_trim(0);
}

bool CTarvikSimServer::IsFull() const
{
    unsigned int limit = m_oFaults.m_nMaxConnections.load();
    return limit != 0 && GetConnectionCount() >= limit;
}

void CTarvikSimServer::ClearFaults()
{
    m_oFaults.m_eFault = eTarvikSimFaultNone;
    m_oFaults.m_nDelayMs = 0;
    m_oFaults.m_nJitterMs = 0;
    m_oFaults.m_nDropPercent = 0;
    m_oFaults.m_nSeed = kTarvikSimDefaultSeed;
    m_oFaults.m_nIndications = 0;
    m_oFaults.m_nStrayCnfs = 0;
    m_oFaults.m_nCloseAfter = 0;
    m_oFaults.m_nDribbleMs = 0;
    m_oFaults.m_nMaxConnections = 0;
}

void CTarvikSimServer::CloseConnections()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    for (auto& connection : m_aoConnections)
        connection->RequestStop();
}

size_t CTarvikSimServer::GetConnectionCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return static_cast<size_t>(std::count_if(m_aoConnections.begin(), m_aoConnections.end(),
                                             [](const auto& connection) { return !connection->IsFinished(); }));
}

const CTarvikSimServer::SEndpoint* CTarvikSimServer::FindEndpoint(ETarvikDevice type) const
{
    for (const SEndpoint& endpoint : m_aoEndpoints)
        if (endpoint.m_pDevice->GetType() == type)
            return &endpoint;
    return nullptr;
}

const CTarvikSimServer::SEndpoint* CTarvikSimServer::FindEndpoint(ETarvikDevice type, unsigned int index) const
{
    for (const SEndpoint& endpoint : m_aoEndpoints)
        if (endpoint.m_pDevice->GetType() == type && endpoint.m_pDevice->GetIndex() == index)
            return &endpoint;
    return nullptr;
}

unsigned short CTarvikSimServer::GetPort(ETarvikDevice type) const
{
    const SEndpoint* endpoint = FindEndpoint(type);
    return endpoint != nullptr ? endpoint->m_nPort : 0;
}

unsigned short CTarvikSimServer::GetPort(ETarvikDevice type, unsigned int index) const
{
    const SEndpoint* endpoint = FindEndpoint(type, index);
    return endpoint != nullptr ? endpoint->m_nPort : 0;
}

std::string CTarvikSimServer::GetHost(ETarvikDevice type) const
{
    const SEndpoint* endpoint = FindEndpoint(type);
    return endpoint != nullptr ? endpoint->m_sHost : std::string();
}

CTarvikSimDevice* CTarvikSimServer::GetDevice(ETarvikDevice type) const
{
    const SEndpoint* endpoint = FindEndpoint(type);
    return endpoint != nullptr ? endpoint->m_pDevice.get() : nullptr;
}

CTarvikSimDevice* CTarvikSimServer::GetDevice(ETarvikDevice type, unsigned int index) const
{
    const SEndpoint* endpoint = FindEndpoint(type, index);
    return endpoint != nullptr ? endpoint->m_pDevice.get() : nullptr;
}

std::vector<ETarvikDevice> CTarvikSimServer::GetDeviceTypes() const
{
    std::vector<ETarvikDevice> types;
    for (const SEndpoint& endpoint : m_aoEndpoints)
        types.push_back(endpoint.m_pDevice->GetType());
    return types;
}

std::vector<CTarvikSimDevice*> CTarvikSimServer::GetDevices() const
{
    std::vector<CTarvikSimDevice*> devices;
    for (const SEndpoint& endpoint : m_aoEndpoints)
        devices.push_back(endpoint.m_pDevice.get());
    return devices;
}
