#include "sim/TarvikSimCanPacer.h"

#include <algorithm>

namespace
{
constexpr uint64_t kNsPerSecond = 1000000000;
} // namespace

CTarvikSimCanPacer::CTarvikSimCanPacer(unsigned long rate, Clock::time_point start)
    : m_nRate(std::max(rate, 1ul)), m_oStart(start), m_nDone(0), m_nTaken(0), m_nSkipped(0),
      m_nBurst(std::max<uint64_t>(1, uint64_t(m_nRate) * kCatchUpMs / 1000))
{
}

uint64_t CTarvikSimCanPacer::DueBy(Clock::time_point now) const
{
    if (now < m_oStart)
        return 0;
    const uint64_t ns =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - m_oStart).count());
    // Whole seconds and the rest apart, so that hours of streaming do not overflow.
    return ns / kNsPerSecond * m_nRate + ns % kNsPerSecond * m_nRate / kNsPerSecond + 1;
}

size_t CTarvikSimCanPacer::Take(Clock::time_point now)
{
    const uint64_t due = DueBy(now);
    if (due <= m_nDone)
        return 0;
    uint64_t count = due - m_nDone;
    if (count > m_nBurst)
    {
        m_nSkipped += count - m_nBurst;
        count = m_nBurst;
    }
    m_nDone = due;
    m_nTaken += count;
    return static_cast<size_t>(count);
}

CTarvikSimCanPacer::Clock::time_point CTarvikSimCanPacer::NextDue() const
{
    // Frame m_nDone is the next one: due at m_nDone / rate seconds, rounded up to a nanosecond
    // so that DueBy counts it at that instant.
    const uint64_t seconds = m_nDone / m_nRate;
    const uint64_t rest = m_nDone % m_nRate;
    const uint64_t ns = seconds * kNsPerSecond + (rest * kNsPerSecond + m_nRate - 1) / m_nRate;
    return m_oStart + std::chrono::nanoseconds(ns);
}
