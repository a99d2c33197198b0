#include "sim/TarvikSimConnection.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
// The largest frame: a length field of 65535 plus the field itself.
constexpr size_t kMaxFrame = 65537;
// Bytes asked of one recv(); a whole burst of pipelined requests fits.
constexpr size_t kReadChunk = 65536;
constexpr size_t kLengthField = 2;

size_t FrameSize(const char* p)
{
    return (static_cast<unsigned char>(p[0]) | static_cast<size_t>(static_cast<unsigned char>(p[1])) << 8) +
           kLengthField;
}
} // namespace

CTarvikSimConnection::CTarvikSimConnection(int socket, CTarvikSimDevice& device, const STarvikSimFaults& faults)
    : m_nSocket(socket), m_oDevice(device), m_oFaults(faults), m_bFinished(false), m_bStop(false),
      m_aReceive(kMaxFrame + kReadChunk)
{
}

CTarvikSimConnection::~CTarvikSimConnection()
{
    RequestStop();
    if (m_oThread.joinable())
        m_oThread.join();
    // Closed only here, after the join: no other thread can still use the descriptor.
    ::close(m_nSocket);
}

void CTarvikSimConnection::Start()
{
    m_oThread = std::thread(&CTarvikSimConnection::Run, this);
}

void CTarvikSimConnection::RequestStop()
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bStop = true;
    }
    m_oWake.notify_all();
    // Wakes a blocked recv() or send().
    ::shutdown(m_nSocket, SHUT_RDWR);
}

void CTarvikSimConnection::Run()
{
    size_t used = 0;
    bool open = true;
    while (open)
    {
        ssize_t got = ::recv(m_nSocket, m_aReceive.data() + used, m_aReceive.size() - used, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        used += static_cast<size_t>(got);
        size_t pos = 0;
        while (open && used - pos >= kLengthField)
        {
            size_t size = FrameSize(m_aReceive.data() + pos);
            if (used - pos < size)
                break;
            open = HandleFrame(m_aReceive.data() + pos, size);
            pos += size;
        }
        // What is left is part of one frame, shorter than kMaxFrame: a whole chunk fits behind it.
        if (pos > 0 && used > pos)
            std::memmove(m_aReceive.data(), m_aReceive.data() + pos, used - pos);
        used -= pos;
    }
    m_bFinished = true;
}

bool CTarvikSimConnection::HandleFrame(const char* frame, size_t len)
{
    if (len < CTarvikMsg::kOverhead)
        return true;
    // Built from its fields rather than parsed: the parser takes 16-bit sizes, and the
    // largest frames are 65537 bytes. The constructor computes the check byte.
    unsigned short cmd = 0;
    short id = 0;
    CTarvikMsg::FromChar(cmd, frame + 2);
    CTarvikMsg::FromChar(id, frame + 4);
    CTarvikMsg req(cmd, id, std::string(frame + 6, len - CTarvikMsg::kOverhead));
    if (req.GetCRC() != static_cast<unsigned char>(frame[len - 1]))
        return true;
    CTarvikMsg cnf;
    if (!m_oDevice.HandleRequest(req, cnf))
        return true;
    if (!WaitDelay(m_oFaults.m_nDelayMs.load()))
        return false;
    switch (m_oFaults.m_eFault.load())
    {
    case eTarvikSimFaultSilent: return true;
    case eTarvikSimFaultClose: ::shutdown(m_nSocket, SHUT_RDWR); return false;
    case eTarvikSimFaultBadCRC: return Send(cnf, true);
    case eTarvikSimFaultWrongCmd:
    {
        unsigned short code = cnf.GetCmdCode();
        code = static_cast<unsigned short>((code & 0xFF00) | ((code + 1) & 0x00FF));
        std::string data = cnf.GetData();
        return Send(CTarvikMsg(code, cnf.GetMsgID(), std::move(data)), false);
    }
    case eTarvikSimFaultNone: break;
    }
    return Send(cnf, false);
}

bool CTarvikSimConnection::WaitDelay(unsigned int ms)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    if (ms != 0)
        m_oWake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_bStop; });
    return !m_bStop;
}

bool CTarvikSimConnection::Send(const CTarvikMsg& cnf, bool badCRC)
{
    m_aSend.resize(cnf.GetData().size() + CTarvikMsg::kOverhead);
    size_t size = cnf.GetMessageData(m_aSend.data());
    if (badCRC)
        m_aSend[size - 1] = static_cast<char>(~m_aSend[size - 1]);
    // One send() carries the whole answer unless the socket buffer is full.
    size_t sent = 0;
    while (sent < size)
    {
        ssize_t n = ::send(m_nSocket, m_aSend.data() + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}
