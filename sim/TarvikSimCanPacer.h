// The deadline clock of a frame stream: frame n is due at start + n / rate, whenever the
// sender comes round to look, so late wake-ups do not add up to a slower stream.
//
// A sender that was held up sends what fell due in one burst, up to the frames of
// kCatchUpMs; a longer lag is forgiven (counted in GetSkipped) instead of flooding the
// bus afterwards. Not locked: its owner's lock covers it.
#ifndef TARVIK_SIM_TARVIKSIMCANPACER_H
#define TARVIK_SIM_TARVIKSIMCANPACER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

class CTarvikSimCanPacer
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr unsigned int kCatchUpMs = 50;

    // Frame 0 is due at start.
    CTarvikSimCanPacer(unsigned long rate, Clock::time_point start);

    // The number of frames to send now (the caller sends them all), at most the catch-up burst.
    size_t Take(Clock::time_point now);
    // When the next frame falls due.
    Clock::time_point NextDue() const;
    unsigned long GetRate() const { return m_nRate; }
    // Frames handed out by Take, and frames forgiven after a lag longer than the burst.
    uint64_t GetTaken() const { return m_nTaken; }
    uint64_t GetSkipped() const { return m_nSkipped; }

private:
    // Frames due from start up to now (frame 0 included).
    uint64_t DueBy(Clock::time_point now) const;

    unsigned long m_nRate;
    Clock::time_point m_oStart;
    // Frames of the schedule that are done: handed out or skipped.
    uint64_t m_nDone;
    uint64_t m_nTaken;
    uint64_t m_nSkipped;
    uint64_t m_nBurst;
};

#endif
