#include "sim/TarvikSimOutbox.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

CTarvikSimOutbox::CTarvikSimOutbox(unsigned long id, size_t capacity)
    : m_nId(id), m_nCapacity(capacity), m_nFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), m_bClosed(m_nFd < 0)
{
}

CTarvikSimOutbox::~CTarvikSimOutbox()
{
    if (m_nFd >= 0)
        ::close(m_nFd);
}

bool CTarvikSimOutbox::Post(const CTarvikMsg& msg)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    return Append(msg, lock, false);
}

bool CTarvikSimOutbox::PostWait(const CTarvikMsg& msg)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    return Append(msg, lock, true);
}

bool CTarvikSimOutbox::Append(const CTarvikMsg& msg, std::unique_lock<std::mutex>& lock, bool wait)
{
    size_t size = msg.GetData().size() + CTarvikMsg::kOverhead;
    // A telegram larger than the whole box still goes out once the box is empty.
    auto fits = [&] { return m_sBytes.empty() || m_sBytes.size() + size <= m_nCapacity; };
    if (wait)
        m_oRoom.wait(lock, [&] { return m_bClosed || fits(); });
    if (m_bClosed || !fits())
        return false;
    bool wasEmpty = m_sBytes.empty();
    size_t used = m_sBytes.size();
    m_sBytes.resize(used + size);
    msg.GetMessageData(&m_sBytes[used]);
    // Signalled on the first telegram only: a stream of posts costs no system call each.
    if (wasEmpty)
    {
        uint64_t one = 1;
        ssize_t written = ::write(m_nFd, &one, sizeof(one));
        (void)written;
    }
    return true;
}

void CTarvikSimOutbox::Take(std::string& out)
{
    out.clear();
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        // Signalled only when bytes arrived in an empty box: nothing to clear otherwise,
        // and the common empty look costs no system call.
        if (m_sBytes.empty())
            return;
        m_sBytes.swap(out);
        uint64_t count = 0;
        ssize_t got = ::read(m_nFd, &count, sizeof(count));
        (void)got;
    }
    m_oRoom.notify_all();
}

void CTarvikSimOutbox::Close()
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bClosed = true;
    }
    m_oRoom.notify_all();
}
