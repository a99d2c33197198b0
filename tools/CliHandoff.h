// What a receive-thread callback hands to the command's printing thread: a bounded
// queue, so that a slow terminal costs frames (counted) rather than memory without end,
// and the callback never waits for the output.
#ifndef TARVIK_TOOLS_CLIHANDOFF_H
#define TARVIK_TOOLS_CLIHANDOFF_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

template <typename T> class CCliHandoff
{
public:
    explicit CCliHandoff(size_t backlog) : m_nBacklog(backlog) {}

    // Any thread; drops (and counts) an item past the backlog.
    void Push(T item)
    {
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            if (m_aqItems.size() >= m_nBacklog)
            {
                ++m_nLost;
                return;
            }
            m_aqItems.push_back(std::move(item));
        }
        m_oReady.notify_one();
    }
    // Waits up to waitMs for items; swaps them all into out.
    void Take(std::deque<T>& out, unsigned int waitMs)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        m_oReady.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return !m_aqItems.empty(); });
        out.swap(m_aqItems);
    }
    unsigned long GetLost() const
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_nLost;
    }

private:
    const size_t m_nBacklog;
    mutable std::mutex m_oMutex;
    std::condition_variable m_oReady;
    std::deque<T> m_aqItems;
    unsigned long m_nLost = 0;
};

#endif
