#include "tarvik/runtime/MolTime.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace
{
constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerMs = 1000 * kNsPerUs;
constexpr int64_t kNsPerSec = 1000 * kNsPerMs;
constexpr int64_t kNsPerMin = 60 * kNsPerSec;
constexpr int64_t kNsPerHour = 60 * kNsPerMin;
constexpr int64_t kNsPerDay = 24 * kNsPerHour;

int64_t SpanNs(int64_t d, int64_t h, int64_t m, int64_t s, int64_t ms, int64_t us, int64_t ns)
{
    return d * kNsPerDay + h * kNsPerHour + m * kNsPerMin + s * kNsPerSec + ms * kNsPerMs + us * kNsPerUs + ns;
}

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Reads the fraction after a '.' as nanoseconds (up to 9 digits).
int64_t ParseFraction(const char* p)
{
    int64_t value = 0;
    int digits = 0;
    for (; *p >= '0' && *p <= '9' && digits < 9; ++p, ++digits)
        value = value * 10 + (*p - '0');
    for (; digits < 9; ++digits)
        value *= 10;
    return value;
}
} // namespace

CMolTimeDiff::CMolTimeDiff(int days, int hours, int minutes, int seconds, int milliseconds, int microseconds,
                           int nanoseconds)
    : m_nNanoSeconds(SpanNs(days, hours, minutes, seconds, milliseconds, microseconds, nanoseconds))
{
}

CMolTimeDiff CMolTimeDiff::FromNanoSeconds(int64_t ns)
{
    CMolTimeDiff diff;
    diff.m_nNanoSeconds = ns;
    return diff;
}

CMolUTCTime::CMolUTCTime(long seconds, int nanoseconds)
    : m_nNanoSeconds(static_cast<int64_t>(seconds) * kNsPerSec + nanoseconds), m_bLocal(false)
{
}

CMolUTCTime::~CMolUTCTime() = default;

void CMolUTCTime::CurrentUTCTime()
{
    m_nNanoSeconds = NowNs();
}

void CMolUTCTime::SubTime(unsigned days, unsigned hours, unsigned minutes, unsigned seconds, unsigned milliseconds,
                          unsigned microseconds, unsigned nanoseconds)
{
    m_nNanoSeconds -= SpanNs(days, hours, minutes, seconds, milliseconds, microseconds, nanoseconds);
}

CMolUTCTime& CMolUTCTime::operator+=(const CMolTimeDiff& diff)
{
    m_nNanoSeconds += diff.GetTotalNanoSeconds();
    return *this;
}

std::string CMolUTCTime::ToString() const
{
    time_t secs = static_cast<time_t>(m_nNanoSeconds / kNsPerSec);
    long micros = static_cast<long>((m_nNanoSeconds % kNsPerSec) / kNsPerUs);
    if (micros < 0)
    {
        micros += 1000000;
        --secs;
    }
    struct tm parts = {};
    if (m_bLocal)
        localtime_r(&secs, &parts);
    else
        gmtime_r(&secs, &parts);
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%06ld", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, micros);
    return text;
}

bool CMolUTCTime::Parse(const std::string& text, ETimeFormat format, bool localTime)
{
    m_nNanoSeconds = 0;
    struct tm parts = {};
    int consumed = 0;
    int fields = 0;
    if (format == eFormatGerman)
    {
        fields = std::sscanf(text.c_str(), "%d.%d.%d %d:%d:%d%n", &parts.tm_mday, &parts.tm_mon, &parts.tm_year,
                             &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &consumed);
        // A date alone ("01.01.1970") is its midnight.
        if (fields == 3 && std::sscanf(text.c_str(), "%*d.%*d.%*d%n", &consumed) >= 0 &&
            static_cast<size_t>(consumed) == text.size())
            fields = 6;
    }
    else
    {
        char sep = ' ';
        fields = std::sscanf(text.c_str(), "%d-%d-%d%c%d:%d:%d%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday, &sep,
                             &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &consumed);
        if (fields == 7 && sep != ' ' && sep != 'T')
            fields = 0;
        else if (fields == 7)
            fields = 6;
    }
    if (fields != 6 || parts.tm_mon < 1 || parts.tm_mon > 12 || parts.tm_mday < 1 || parts.tm_mday > 31)
        return false;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    time_t secs = localTime ? mktime(&parts) : timegm(&parts);
    if (secs == static_cast<time_t>(-1))
        return false;
    int64_t fraction = 0;
    if (static_cast<size_t>(consumed) < text.size() && text[consumed] == '.')
        fraction = ParseFraction(text.c_str() + consumed + 1);
    m_nNanoSeconds = static_cast<int64_t>(secs) * kNsPerSec + fraction;
    return true;
}

CMolTimeDiff operator-(const CMolUTCTime& a, const CMolUTCTime& b)
{
    return CMolTimeDiff::FromNanoSeconds(a.GetNanoSeconds() - b.GetNanoSeconds());
}

CMolLocalTime::CMolLocalTime(long seconds, int nanoseconds) : CMolUTCTime(seconds, nanoseconds)
{
    m_bLocal = true;
}

CMolLocalTime::CMolLocalTime(const std::string& text, CMolUTCTime::ETimeFormat format, int)
{
    m_bLocal = true;
    Parse(text, format, true);
}

CMolLocalTime::~CMolLocalTime() = default;

void CMolLocalTime::CurrentLocalTime()
{
    m_nNanoSeconds = NowNs();
}

CMolLocalTime& CMolLocalTime::operator+=(const CMolTimeDiff& diff)
{
    CMolUTCTime::operator+=(diff);
    return *this;
}

int64_t MolMonotonicMicroSeconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
