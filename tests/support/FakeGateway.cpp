#include "support/FakeGateway.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
// A write that a client does not read within this time fails instead of hanging the test.
constexpr int kSendTimeoutSeconds = 5;
// How long the silent mode waits for its own connection to fill the accept queue.
constexpr int kFillerConnectMs = 2000;
constexpr size_t kReadChunk = 65536;

size_t FrameSize(const std::string& buffer)
{
    return static_cast<size_t>(static_cast<unsigned char>(buffer[0]) | (static_cast<unsigned char>(buffer[1]) << 8)) +
           2;
}

void CloseFd(int& fd)
{
    if (fd >= 0)
    {
        ::close(fd);
        fd = -1;
    }
}
} // namespace

struct CFakeGateway::SClient
{
    int m_nFd;
    std::string m_sBuffer;
};

CFakeGateway::CFakeGateway()
    : m_nPort(0), m_eMode(eModeAnswer), m_nListenFd(-1), m_nFillerFd(-1), m_anWakeFd{-1, -1}, m_bStop(false),
      m_nAnswerDelayMs(0), m_nAccepted(0), m_nPeerClosed(0), m_bCloseRequested(false), m_nCloseGeneration(0)
{
}

CFakeGateway::~CFakeGateway()
{
    Stop();
}

bool CFakeGateway::Start(const std::string& address, unsigned short port, EMode mode)
{
    if (m_nListenFd >= 0)
        return false;
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1)
        return false;

    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    // A refusing gateway leaves SO_REUSEADDR off: otherwise a listening gateway of a
    // test running beside this one could bind the same address and port.
    if (mode != eModeRefuse)
    {
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    }
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0)
    {
        ::close(fd);
        return false;
    }
    socklen_t size = sizeof(addr);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &size);

    // The smallest backlog: one connection that nobody accepts fills the queue.
    int backlog = mode == eModeSilent ? 0 : 16;
    if (mode != eModeRefuse && ::listen(fd, backlog) != 0)
    {
        ::close(fd);
        return false;
    }
    m_nListenFd = fd;
    m_sAddress = address;
    m_nPort = ntohs(addr.sin_port);
    m_eMode = mode;
    m_bStop = false;

    if (mode == eModeSilent)
    {
        m_nFillerFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (m_nFillerFd < 0)
        {
            Stop();
            return false;
        }
        int rc = ::connect(m_nFillerFd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
        if (rc != 0 && errno == EINPROGRESS)
        {
            struct pollfd pfd = {m_nFillerFd, POLLOUT, 0};
            rc = poll(&pfd, 1, kFillerConnectMs) == 1 ? 0 : -1;
        }
        if (rc != 0)
        {
            Stop();
            return false;
        }
        return true;
    }
    if (mode == eModeRefuse)
        return true;

    if (pipe2(m_anWakeFd, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        Stop();
        return false;
    }
    m_oThread = std::thread(&CFakeGateway::ServiceLoop, this);
    return true;
}

bool CFakeGateway::StartOnLoopbackNet(unsigned char net, unsigned short port, EMode mode)
{
    for (int host = 1; host <= 254; ++host)
        if (Start("127.0." + std::to_string(net) + "." + std::to_string(host), port, mode))
            return true;
    return false;
}

void CFakeGateway::Stop()
{
    m_bStop = true;
    if (m_oThread.joinable())
    {
        Wake();
        m_oThread.join();
    }
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        for (auto& client : m_apClients)
            CloseFd(client->m_nFd);
        m_apClients.clear();
        ++m_nCloseGeneration;
    }
    m_oChanged.notify_all();
    CloseFd(m_nListenFd);
    CloseFd(m_nFillerFd);
    CloseFd(m_anWakeFd[0]);
    CloseFd(m_anWakeFd[1]);
}

void CFakeGateway::SetHandler(THandler handler)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_fnHandler = std::move(handler);
}

void CFakeGateway::SetAnswerDelay(unsigned int ms)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nAnswerDelayMs = ms;
}

std::vector<std::string> CFakeGateway::GetFrames() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_asFrames;
}

size_t CFakeGateway::GetFrameCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_asFrames.size();
}

void CFakeGateway::ClearFrames()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_asFrames.clear();
}

bool CFakeGateway::WaitFor(const std::function<bool()>& done, unsigned int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    return m_oChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}

bool CFakeGateway::WaitForFrames(size_t count, unsigned int timeoutMs) const
{
    return WaitFor([&] { return m_asFrames.size() >= count; }, timeoutMs);
}

size_t CFakeGateway::GetAcceptedCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nAccepted;
}

size_t CFakeGateway::GetPeerClosedCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nPeerClosed;
}

bool CFakeGateway::WaitForAccepted(size_t count, unsigned int timeoutMs) const
{
    return WaitFor([&] { return m_nAccepted >= count; }, timeoutMs);
}

bool CFakeGateway::WaitForPeerClosed(size_t count, unsigned int timeoutMs) const
{
    return WaitFor([&] { return m_nPeerClosed >= count; }, timeoutMs);
}

bool CFakeGateway::WriteAll(int fd, const std::string& raw)
{
    size_t sent = 0;
    while (sent < raw.size())
    {
        ssize_t n = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n > 0)
            sent += static_cast<size_t>(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return false;
    }
    return true;
}

bool CFakeGateway::Send(const std::string& raw)
{
    // The client list lock keeps the service thread from closing a socket mid-write.
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (m_apClients.empty())
        return false;
    bool ok = true;
    for (auto& client : m_apClients)
        ok = WriteAll(client->m_nFd, raw) && ok;
    return ok;
}

bool CFakeGateway::SendParts(const std::vector<std::string>& parts, unsigned int pauseMs)
{
    bool ok = true;
    for (size_t i = 0; i < parts.size(); ++i)
    {
        if (i > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        ok = Send(parts[i]) && ok;
    }
    return ok;
}

void CFakeGateway::CloseClients()
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    if (!m_oThread.joinable())
        return;
    m_bCloseRequested = true;
    Wake();
    // From the handler (the service thread) the close happens after it returns.
    if (std::this_thread::get_id() == m_oThread.get_id())
        return;
    unsigned int generation = m_nCloseGeneration;
    m_oChanged.wait(lock, [&] { return m_nCloseGeneration != generation; });
}

void CFakeGateway::Wake()
{
    if (m_anWakeFd[1] >= 0)
    {
        char byte = 0;
        ssize_t ignored = ::write(m_anWakeFd[1], &byte, 1);
        (void)ignored;
    }
}

// Caller holds m_oMutex.
void CFakeGateway::CloseAllClientsLocked()
{
    for (auto& client : m_apClients)
        CloseFd(client->m_nFd);
    m_apClients.clear();
    m_bCloseRequested = false;
    ++m_nCloseGeneration;
}

void CFakeGateway::ServiceLoop()
{
    std::vector<struct pollfd> fds;
    std::vector<SClient*> polled;
    while (!m_bStop)
    {
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            if (m_bCloseRequested)
            {
                CloseAllClientsLocked();
                m_oChanged.notify_all();
            }
            // Only this thread adds or removes clients, so the pointers stay valid
            // through the poll below.
            fds.clear();
            polled.clear();
            fds.push_back({m_anWakeFd[0], POLLIN, 0});
            fds.push_back({m_nListenFd, POLLIN, 0});
            for (auto& client : m_apClients)
            {
                fds.push_back({client->m_nFd, POLLIN, 0});
                polled.push_back(client.get());
            }
        }
        int ready = poll(fds.data(), fds.size(), -1);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        if (fds[0].revents != 0)
        {
            char drain[64];
            while (::read(m_anWakeFd[0], drain, sizeof(drain)) > 0)
            {
            }
        }
        if (m_bStop)
            break;
        if (fds[1].revents & POLLIN)
            AcceptClient();
        std::vector<SClient*> closed;
        for (size_t i = 0; i < polled.size(); ++i)
        {
            if (fds[i + 2].revents == 0)
                continue;
            if (!ReadClient(*polled[i]))
                closed.push_back(polled[i]);
        }
        if (!closed.empty())
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            for (SClient* gone : closed)
            {
                for (auto it = m_apClients.begin(); it != m_apClients.end(); ++it)
                {
                    if (it->get() != gone)
                        continue;
                    CloseFd((*it)->m_nFd);
                    m_apClients.erase(it);
                    ++m_nPeerClosed;
                    break;
                }
            }
            m_oChanged.notify_all();
        }
    }
}

void CFakeGateway::AcceptClient()
{
    int fd = ::accept4(m_nListenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    struct timeval tv = {kSendTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    std::unique_ptr<SClient> client(new SClient());
    client->m_nFd = fd;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_apClients.push_back(std::move(client));
        ++m_nAccepted;
    }
    m_oChanged.notify_all();
}

bool CFakeGateway::ReadClient(SClient& client)
{
    char chunk[kReadChunk];
    ssize_t n = ::recv(client.m_nFd, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
        return true;
    if (n <= 0)
        return false;
    client.m_sBuffer.append(chunk, static_cast<size_t>(n));
    while (client.m_sBuffer.size() >= 2 && client.m_sBuffer.size() >= FrameSize(client.m_sBuffer))
    {
        size_t size = FrameSize(client.m_sBuffer);
        std::string frame = client.m_sBuffer.substr(0, size);
        client.m_sBuffer.erase(0, size);
        HandleFrame(client, frame);
    }
    return true;
}

void CFakeGateway::HandleFrame(SClient& client, const std::string& frame)
{
    THandler handler;
    unsigned int delayMs = 0;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_asFrames.push_back(frame);
        handler = m_fnHandler;
        delayMs = m_nAnswerDelayMs;
    }
    m_oChanged.notify_all();
    if (!handler)
        return;
    std::string answer = handler(frame);
    if (answer.empty())
        return;
    if (delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    // Under the list lock like Send(), so that a concurrent Send() cannot
    // interleave its bytes with this answer.
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (client.m_nFd >= 0)
        WriteAll(client.m_nFd, answer);
}

// ---------------------------------------------------------------- golden frames

namespace tarvik_test
{
std::string Frame(std::initializer_list<int> bytes)
{
    std::string out;
    for (int byte : bytes)
        out += static_cast<char>(byte & 0xFF);
    return out;
}

std::string Hex(const std::string& text)
{
    std::string out;
    int high = -1;
    for (char c : text)
    {
        int digit = -1;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        if (digit < 0)
            continue;
        if (high < 0)
            high = digit;
        else
        {
            out += static_cast<char>(high * 16 + digit);
            high = -1;
        }
    }
    return out;
}

std::string ToHex(const std::string& bytes)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        unsigned char byte = static_cast<unsigned char>(bytes[i]);
        if (i > 0)
            out += ' ';
        out += kDigits[byte >> 4];
        out += kDigits[byte & 0xF];
    }
    return out;
}

std::string TelegramWithCheck(unsigned int cmd, int id, const std::string& data, int check)
{
    size_t length = data.size() + 5;
    std::string out;
    out += static_cast<char>(length & 0xFF);
    out += static_cast<char>((length >> 8) & 0xFF);
    out += static_cast<char>(cmd & 0xFF);
    out += static_cast<char>((cmd >> 8) & 0xFF);
    out += static_cast<char>(id & 0xFF);
    out += static_cast<char>((id >> 8) & 0xFF);
    out += data;
    out += static_cast<char>(check & 0xFF);
    return out;
}

std::string Telegram(unsigned int cmd, int id, const std::string& data)
{
    // The check byte covers command code, id and data, one byte at a time.
    int check = static_cast<int>((cmd & 0xFF) ^ ((cmd >> 8) & 0xFF)) ^ (id & 0xFF) ^ ((id >> 8) & 0xFF);
    for (char c : data)
        check ^= static_cast<unsigned char>(c);
    return TelegramWithCheck(cmd, id, data, check);
}

std::string Cnf(unsigned int cmd, int id, const std::string& data)
{
    return Telegram(cmd | 0x8000u, id, data);
}

unsigned int FrameCmd(const std::string& frame)
{
    if (frame.size() < 6)
        return 0;
    return static_cast<unsigned char>(frame[2]) | (static_cast<unsigned char>(frame[3]) << 8);
}

short FrameId(const std::string& frame)
{
    if (frame.size() < 6)
        return 0;
    return static_cast<short>(static_cast<unsigned char>(frame[4]) | (static_cast<unsigned char>(frame[5]) << 8));
}

std::string FrameData(const std::string& frame)
{
    if (frame.size() < 7)
        return std::string();
    return frame.substr(6, frame.size() - 7);
}

std::string LE32(unsigned int value)
{
    return Frame({static_cast<int>(value & 0xFF), static_cast<int>((value >> 8) & 0xFF),
                  static_cast<int>((value >> 16) & 0xFF), static_cast<int>((value >> 24) & 0xFF)});
}
} // namespace tarvik_test
