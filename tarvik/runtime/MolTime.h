// Time values of the runtime: points in time (UTC and local) and spans.
#ifndef TARVIK_RUNTIME_MOLTIME_H
#define TARVIK_RUNTIME_MOLTIME_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstdint>
#include <string>

// A signed span of time with nanosecond resolution.
class TARVIK_API CMolTimeDiff
{
public:
    CMolTimeDiff(int days = 0, int hours = 0, int minutes = 0, int seconds = 0, int milliseconds = 0,
                 int microseconds = 0, int nanoseconds = 0);
    static CMolTimeDiff FromNanoSeconds(int64_t ns);

    int64_t GetTotalMilliSeconds() const { return m_nNanoSeconds / 1000000; }
    int64_t GetTotalMicroSeconds() const { return m_nNanoSeconds / 1000; }
    int64_t GetTotalNanoSeconds() const { return m_nNanoSeconds; }

private:
    int64_t m_nNanoSeconds;
};

// A point in time, nanoseconds since 1970-01-01 00:00:00 UTC.
class TARVIK_API CMolUTCTime
{
public:
    enum ETimeFormat
    {
        // "YYYY-MM-DD hh:mm:ss[.fff]" (also with 'T' between date and time)
        eFormatISO = 0,
        // "DD.MM.YYYY hh:mm:ss[.fff]", or the date alone for its midnight
        eFormatGerman = 1,
    };

    CMolUTCTime(long seconds = 0, int nanoseconds = 0);
    virtual ~CMolUTCTime();

    void CurrentUTCTime();
    void SubTime(unsigned days, unsigned hours, unsigned minutes, unsigned seconds, unsigned milliseconds,
                 unsigned microseconds, unsigned nanoseconds);

    CMolUTCTime& operator+=(const CMolTimeDiff& diff);
    bool operator<(const CMolUTCTime& other) const { return m_nNanoSeconds < other.m_nNanoSeconds; }
    bool operator==(const CMolUTCTime& other) const { return m_nNanoSeconds == other.m_nNanoSeconds; }

    int64_t GetNanoSeconds() const { return m_nNanoSeconds; }
    bool IsEmpty() const { return m_nNanoSeconds == 0; }
    // "YYYY-MM-DD hh:mm:ss.ffffff" in this object's time zone.
    std::string ToString() const;

protected:
    // Parses text as wall-clock time; localTime chooses the zone. False leaves the value empty.
    bool Parse(const std::string& text, ETimeFormat format, bool localTime);

    int64_t m_nNanoSeconds;
    bool m_bLocal;
};

TARVIK_API CMolTimeDiff operator-(const CMolUTCTime& a, const CMolUTCTime& b);

// A point in time shown and parsed in the local time zone.
class TARVIK_API CMolLocalTime : public CMolUTCTime
{
public:
    CMolLocalTime(long seconds = 0, int nanoseconds = 0);
    CMolLocalTime(const std::string& text, CMolUTCTime::ETimeFormat format, int reserved = 0);
    ~CMolLocalTime() override;

    void CurrentLocalTime();
    CMolLocalTime& operator+=(const CMolTimeDiff& diff);
    bool operator<(const CMolLocalTime& other) const { return CMolUTCTime::operator<(other); }
};

// Monotonic milliseconds/microseconds for deadlines; never jumps with the wall clock.
TARVIK_API int64_t MolMonotonicMicroSeconds();

#endif
