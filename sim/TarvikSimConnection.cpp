#include "sim/TarvikSimConnection.h"

#include "tarvik/core/TarvikPayload.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
// The largest frame: a length field of 65535 plus the field itself.
constexpr size_t kMaxFrame = 65537;
// What an idle connection keeps for receiving and sending; a request of a few
// kilobytes, or a burst of small pipelined ones, fits without growing.
constexpr size_t kInitialBuffer = 4096;
constexpr size_t kLengthField = 2;
constexpr size_t kGarbageBytes = 32;
// Ids of stray confirmations: 0x4000..0x7FFF, clear of the ids a fresh client draws.
constexpr unsigned short kStrayIdBase = 0x4000;
constexpr unsigned short kStrayIdMask = 0x3FFF;

size_t FrameSize(const char* p)
{
    return CTarvikPayload(p, kLengthField).U16At(0) + kLengthField;
}

// SplitMix64: a good spread from a plain counter, and the same sequence on every platform.
std::atomic<unsigned long> g_nNextConnectionId{1};

uint64_t Mix(uint64_t z)
{
    z += 0x9E3779B97F4A7C15u;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}
} // namespace

CTarvikSimConnection::CTarvikSimConnection(int socket, CTarvikSimDevice& device, const STarvikSimFaults& faults,
                                           int wakeFd)
    : m_nSocket(socket), m_oDevice(device), m_oFaults(faults), m_nWakeFd(wakeFd), m_bFinished(false), m_bStop(false),
      m_nRequests(0), m_nDraws(0), m_nUnasked(0), m_bStalled(false), m_aReceive(kInitialBuffer),
      m_pOutbox(std::make_shared<CTarvikSimOutbox>(g_nNextConnectionId++))
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
    // Attached before the first request can arrive: the device may indicate at once.
    m_oDevice.Attach(m_pOutbox);
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

void CTarvikSimConnection::Close()
{
    ::shutdown(m_nSocket, SHUT_RDWR);
}

void CTarvikSimConnection::Run()
{
    size_t used = 0;
    bool open = true;
    // The last read took all the socket had: the next one waits. A device that only
    // answers is waited for in recv() itself, so that a request costs one read.
    bool drained = true;
    const bool watchOutbox = m_oDevice.PostsUnasked();
    while (open)
    {
        MakeRoom(used);
        if (drained && watchOutbox && !(SendPosted() && WaitReadable()))
            break;
        const size_t space = m_aReceive.size() - used;
        ssize_t got = ::recv(m_nSocket, m_aReceive.data() + used, space, drained && !watchOutbox ? 0 : MSG_DONTWAIT);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        {
            drained = true;
            continue;
        }
        if (got <= 0)
            break;
        // A read that did not fill the room found the socket empty; a full one may have left more.
        drained = static_cast<size_t>(got) < space;
        used += static_cast<size_t>(got);
        size_t pos = 0;
        while (open && used - pos >= kLengthField)
        {
            size_t size = FrameSize(m_aReceive.data() + pos);
            if (used - pos < size)
                break;
            // What the request queued goes out right behind its answer, before the next
            // request of the same read is handled.
            open = HandleFrame(m_aReceive.data() + pos, size) && SendPosted();
            pos += size;
        }
        if (pos > 0 && used > pos)
            std::memmove(m_aReceive.data(), m_aReceive.data() + pos, used - pos);
        used -= pos;
        // A large frame is done with: give its memory back.
        if (used == 0 && m_aReceive.size() > kInitialBuffer)
            std::vector<char>(kInitialBuffer).swap(m_aReceive);
    }
    // No post after this one can be waiting for a thread that no longer sends.
    m_pOutbox->Close();
    m_oDevice.Detach(m_pOutbox->GetId());
    m_bFinished = true;
    if (m_nWakeFd >= 0)
    {
        uint64_t one = 1;
        ssize_t written = ::write(m_nWakeFd, &one, sizeof(one));
        (void)written;
    }
}

bool CTarvikSimConnection::WaitReadable()
{
    pollfd fds[2] = {{m_nSocket, POLLIN, 0}, {m_pOutbox->GetFd(), POLLIN, 0}};
    for (;;)
    {
        int rc = ::poll(fds, 2, -1);
        if (rc < 0 && errno != EINTR)
            return false;
        // Readable, closed or failed: recv() tells which.
        if (rc > 0 && fds[0].revents != 0)
            return true;
        if (rc > 0 && !SendPosted())
            return false;
    }
}

bool CTarvikSimConnection::SendPosted()
{
    m_pOutbox->Take(m_sPosted);
    if (m_sPosted.empty() || m_bStalled)
        return true;
    bool sent = SendBytes(m_sPosted.data(), m_sPosted.size());
    // A burst of megabytes is not kept for an idle connection.
    if (m_sPosted.capacity() > CTarvikSimOutbox::kDefaultCapacity / 4)
        std::string().swap(m_sPosted);
    return sent;
}

void CTarvikSimConnection::MakeRoom(size_t used)
{
    if (used < m_aReceive.size())
        return;
    // Full, and all that is in it is the start of one frame (complete ones are gone).
    size_t grown = std::max(FrameSize(m_aReceive.data()), 2 * m_aReceive.size());
    m_aReceive.resize(std::min(grown, kMaxFrame));
}

bool CTarvikSimConnection::HandleFrame(const char* frame, size_t len)
{
    if (len < CTarvikMsg::kOverhead)
        return true;
    // Built from its fields rather than parsed: the parser takes 16-bit sizes, and the
    // largest frames are 65537 bytes. The constructor computes the check byte.
    const CTarvikPayload header(frame, len);
    unsigned short cmd = 0;
    short id = 0;
    header.ReadU16(2, cmd);
    header.ReadS16(4, id);
    CTarvikMsg req(cmd, id, std::string(frame + 6, len - CTarvikMsg::kOverhead));
    if (req.GetCRC() != static_cast<unsigned char>(frame[len - 1]))
        return true;
    CTarvikMsg cnf;
    CTarvikSimDevice::SetRequester(m_pOutbox->GetId());
    bool answered = m_oDevice.HandleRequest(req, cnf);
    CTarvikSimDevice::SetRequester(0);
    if (!answered)
        return true;
    ++m_nRequests;
    unsigned int closeAfter = m_oFaults.m_nCloseAfter.load();
    if (closeAfter != 0 && m_nRequests > closeAfter)
    {
        Close();
        return false;
    }
    if (m_bStalled)
        return true;
    unsigned int delay = m_oFaults.m_nDelayMs.load();
    unsigned int jitter = m_oFaults.m_nJitterMs.load();
    if (jitter != 0)
        delay += static_cast<unsigned int>(Draw() % (jitter + 1ull));
    if (!WaitDelay(delay))
        return false;
    unsigned int drop = m_oFaults.m_nDropPercent.load();
    if (drop != 0 && Draw() % 100 < drop)
        return true;
    return SendExtras(cnf) && Answer(cnf);
}

bool CTarvikSimConnection::Answer(const CTarvikMsg& cnf)
{
    unsigned short code = cnf.GetCmdCode();
    switch (m_oFaults.m_eFault.load())
    {
    case eTarvikSimFaultSilent: return true;
    case eTarvikSimFaultClose: Close(); return false;
    case eTarvikSimFaultBadCRC:
    {
        std::string frame = cnf.GetMessageData();
        frame.back() = static_cast<char>(~frame.back());
        return SendBytes(frame.data(), frame.size());
    }
    case eTarvikSimFaultWrongCmd:
        code = static_cast<unsigned short>((code & 0xFF00) | ((code + 1) & 0x00FF));
        return Send(CTarvikMsg(code, cnf.GetMsgID(), std::string(cnf.GetData())));
    case eTarvikSimFaultWrongId:
        return Send(CTarvikMsg(code, static_cast<short>(cnf.GetMsgID() + 1), std::string(cnf.GetData())));
    case eTarvikSimFaultTwice: return Send(cnf) && Send(cnf);
    case eTarvikSimFaultGarbage:
    {
        std::string garbage;
        while (garbage.size() < kGarbageBytes)
        {
            uint64_t bits = Draw();
            garbage.append(reinterpret_cast<const char*>(&bits), sizeof(bits));
        }
        return SendBytes(garbage.data(), garbage.size());
    }
    case eTarvikSimFaultStall:
    {
        std::string frame = cnf.GetMessageData();
        frame[0] = frame[1] = '\xFF';
        m_bStalled = true;
        return SendBytes(frame.data(), frame.size());
    }
    case eTarvikSimFaultCloseMidFrame:
    {
        std::string frame = cnf.GetMessageData();
        SendBytes(frame.data(), frame.size() / 2);
        Close();
        return false;
    }
    case eTarvikSimFaultNone: break;
    }
    return Send(cnf);
}

bool CTarvikSimConnection::SendExtras(const CTarvikMsg& cnf)
{
    auto type = static_cast<unsigned short>(cnf.GetCmdCode() & 0x7F00);
    for (unsigned int i = m_oFaults.m_nIndications.load(); i > 0; --i)
    {
        short id = static_cast<short>(m_nUnasked++);
        if (!Send(CTarvikMsg(static_cast<unsigned short>(type | kTarvikSimIndicationCmd), id,
                             CTarvikMsg::ToChar(static_cast<unsigned int>(m_nRequests)))))
            return false;
    }
    for (unsigned int i = m_oFaults.m_nStrayCnfs.load(); i > 0; --i)
    {
        auto id = static_cast<short>(kStrayIdBase | (m_nUnasked++ & kStrayIdMask));
        if (!Send(CTarvikMsg(cnf.GetCmdCode(), id, std::string(cnf.GetData()))))
            return false;
    }
    return true;
}

uint64_t CTarvikSimConnection::Draw()
{
    return Mix(m_oFaults.m_nSeed.load() ^ Mix(m_nDraws++));
}

bool CTarvikSimConnection::WaitDelay(unsigned int ms)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    if (ms != 0)
        m_oWake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_bStop; });
    return !m_bStop;
}

bool CTarvikSimConnection::Send(const CTarvikMsg& msg)
{
    m_sSend.resize(msg.GetData().size() + CTarvikMsg::kOverhead);
    size_t size = msg.GetMessageData(&m_sSend[0]);
    bool sent = SendBytes(m_sSend.data(), size);
    if (m_sSend.capacity() > kInitialBuffer)
        std::string().swap(m_sSend);
    return sent;
}

bool CTarvikSimConnection::SendBytes(const char* data, size_t size)
{
    unsigned int pause = m_oFaults.m_nDribbleMs.load();
    if (pause == 0)
        return SendAll(data, size);
    for (size_t i = 0; i < size; ++i)
        if ((i > 0 && !WaitDelay(pause)) || !SendAll(data + i, 1))
            return false;
    return true;
}

bool CTarvikSimConnection::SendAll(const char* data, size_t size)
{
    // One send() carries the whole answer unless the socket buffer is full.
    size_t sent = 0;
    while (sent < size)
    {
        ssize_t n = ::send(m_nSocket, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}
