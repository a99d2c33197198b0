#include "support/FakeGateway.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
bool WriteAll(int fd, const std::string& raw)
{
    for (size_t sent = 0; sent < raw.size();)
    {
        ssize_t n = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}
} // namespace

bool CFakeGateway::Start(const std::string& address, unsigned short port, EMode mode)
{
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    socklen_t size = sizeof(addr);
    struct sockaddr* sa = reinterpret_cast<struct sockaddr*>(&addr);
    int fd = -1;
    if (m_nListenFd >= 0 || inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1 ||
        (fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) < 0)
        return false;
    // A refusing gateway leaves SO_REUSEADDR off: otherwise a listening gateway of a
    // test running beside this one could bind the same address and port.
    int one = 1;
    if (mode != eModeRefuse)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    // Backlog 0 holds a single connection: the silent gateway fills it itself.
    if (::bind(fd, sa, size) != 0 || (mode != eModeRefuse && ::listen(fd, mode == eModeSilent ? 0 : 16) != 0) ||
        getsockname(fd, sa, &size) != 0)
    {
        ::close(fd);
        return false;
    }
    m_nListenFd = fd;
    m_sAddress = address;
    m_nPort = ntohs(addr.sin_port);
    if (mode == eModeSilent)
    {
        m_nFillerFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_nFillerFd < 0 || ::connect(m_nFillerFd, sa, size) != 0)
        {
            Stop();
            return false;
        }
    }
    if (mode == eModeAnswer)
        m_oAcceptThread = std::thread(&CFakeGateway::AcceptLoop, this);
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
    // Ends a waiting accept.
    if (m_nListenFd >= 0)
        ::shutdown(m_nListenFd, SHUT_RDWR);
    if (m_oAcceptThread.joinable())
        m_oAcceptThread.join();
    CloseClients();
    for (std::thread& thread : m_aoClientThreads)
        thread.join();
    m_aoClientThreads.clear();
    for (int* fd : {&m_nListenFd, &m_nFillerFd})
        if (*fd >= 0)
            ::close(*fd);
    m_nListenFd = m_nFillerFd = -1;
}

void CFakeGateway::SetHandler(THandler handler)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_fnHandler = std::move(handler);
}

void CFakeGateway::AnswerWith(const std::optional<std::string>& payload)
{
    if (!payload)
        return SetHandler(nullptr);
    std::string data = *payload;
    SetHandler([data](const std::string& f) {
        return tarvik_test::Cnf(tarvik_test::FrameCmd(f), tarvik_test::FrameId(f), data);
    });
}

std::vector<std::string> CFakeGateway::GetFrames() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_asFrames;
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

bool CFakeGateway::WaitForAccepted(size_t count, unsigned int timeoutMs) const
{
    return WaitFor([&] { return m_nAccepted >= count; }, timeoutMs);
}

bool CFakeGateway::WaitForPeerClosed(size_t count, unsigned int timeoutMs) const
{
    return WaitFor([&] { return m_nPeerClosed >= count; }, timeoutMs);
}

size_t CFakeGateway::GetPeerClosed() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nPeerClosed;
}

bool CFakeGateway::Send(const std::string& raw)
{
    // Under the lock, so that an answer is not interleaved mid-write.
    std::lock_guard<std::mutex> lock(m_oMutex);
    bool ok = !m_anClients.empty();
    for (int fd : m_anClients)
        ok = WriteAll(fd, raw) && ok;
    return ok;
}

bool CFakeGateway::SendNoWait(const std::string& raw)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    bool ok = !m_anClients.empty();
    for (int fd : m_anClients)
        ok = ::send(fd, raw.data(), raw.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(raw.size()) && ok;
    return ok;
}

// The client's thread sees the end of its stream and closes the socket.
void CFakeGateway::CloseClients()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    for (int fd : m_anClients)
        ::shutdown(fd, SHUT_RDWR);
    m_anClients.clear();
}

void CFakeGateway::AcceptLoop()
{
    for (int fd; (fd = ::accept4(m_nListenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
    {
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        // A write that the client does not read fails instead of hanging the test.
        struct timeval tv = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_anClients.push_back(fd);
        m_aoClientThreads.emplace_back(&CFakeGateway::ServeClient, this, fd);
        ++m_nAccepted;
        m_oChanged.notify_all();
    }
}

void CFakeGateway::ServeClient(int fd)
{
    std::string buffer;
    char chunk[65536];
    for (ssize_t n; (n = ::recv(fd, chunk, sizeof(chunk), 0)) > 0;)
    {
        buffer.append(chunk, static_cast<size_t>(n));
        size_t size = 0;
        while (buffer.size() >= 2 && buffer.size() >= (size = 2u + (static_cast<unsigned char>(buffer[0]) |
                                                                    (static_cast<unsigned char>(buffer[1]) << 8))))
        {
            std::string frame = buffer.substr(0, size);
            buffer.erase(0, size);
            THandler handler;
            {
                std::lock_guard<std::mutex> lock(m_oMutex);
                m_asFrames.push_back(frame);
                handler = m_fnHandler;
            }
            m_oChanged.notify_all();
            std::string answer = handler ? handler(frame) : std::string();
            std::lock_guard<std::mutex> lock(m_oMutex);
            if (!answer.empty())
                WriteAll(fd, answer);
        }
    }
    std::lock_guard<std::mutex> lock(m_oMutex);
    // Still listed: the client closed, not CloseClients().
    auto it = std::find(m_anClients.begin(), m_anClients.end(), fd);
    if (it != m_anClients.end())
    {
        m_anClients.erase(it);
        ++m_nPeerClosed;
    }
    ::close(fd);
    m_oChanged.notify_all();
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
    std::string digits, out;
    for (char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return out;
}

std::string ToHex(const std::string& bytes)
{
    std::string out;
    char digits[8];
    for (unsigned char byte : bytes)
    {
        std::snprintf(digits, sizeof(digits), out.empty() ? "%02X" : " %02X", byte);
        out += digits;
    }
    return out;
}

std::string TelegramWithCheck(unsigned int cmd, int id, const std::string& data, int check)
{
    int length = static_cast<int>(data.size()) + 5;
    int code = static_cast<int>(cmd);
    return Frame({length, length >> 8, code, code >> 8, id, id >> 8}) + data + Frame({check});
}

std::string Telegram(unsigned int cmd, int id, const std::string& data)
{
    // The check byte covers command code, id and data, one byte at a time.
    int check = static_cast<int>(cmd ^ (cmd >> 8)) ^ id ^ (id >> 8);
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
    return frame.size() < 6 ? 0 : static_cast<unsigned char>(frame[2]) | (static_cast<unsigned char>(frame[3]) << 8);
}

short FrameId(const std::string& frame)
{
    return frame.size() < 6
               ? 0
               : static_cast<short>(static_cast<unsigned char>(frame[4]) | (static_cast<unsigned char>(frame[5]) << 8));
}

std::string FrameData(const std::string& frame)
{
    return frame.size() < 7 ? std::string() : frame.substr(6, frame.size() - 7);
}

std::string LE32(unsigned int value)
{
    return Frame({static_cast<int>(value), static_cast<int>(value >> 8), static_cast<int>(value >> 16),
                  static_cast<int>(value >> 24)});
}

std::string HexNumbers(std::initializer_list<unsigned int> values, unsigned int sentinel)
{
    std::string out;
    char text[16];
    for (unsigned int value : values)
    {
        std::snprintf(text, sizeof(text), value == sentinel ? " -" : " %X", value);
        out += text;
    }
    return out.empty() ? out : out.substr(1);
}
} // namespace tarvik_test
