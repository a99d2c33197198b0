// Small pieces the benchmarks share: time, hand-built telegrams, whole reads and writes
// on a socket, percentiles.
#ifndef TARVIK_BENCH_BENCHUTIL_H
#define TARVIK_BENCH_BENCHUTIL_H

#include "tarvik/core/TarvikMsg.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <sys/socket.h>
#include <vector>

using CBenchClock = std::chrono::steady_clock;

inline double BenchSeconds(CBenchClock::time_point start, CBenchClock::time_point end = CBenchClock::now())
{
    return std::chrono::duration<double>(end - start).count();
}

// A telegram built by hand: length, command, id, data, XOR check byte.
inline std::string BenchTelegram(unsigned short cmd, short id, const std::string& data)
{
    std::string frame = CTarvikMsg::ToChar(static_cast<unsigned short>(data.size() + 5)) + CTarvikMsg::ToChar(cmd) +
                        CTarvikMsg::ToChar(id) + data;
    frame += static_cast<char>(CTarvikMsg::XorBytes(frame.data() + 2, frame.size() - 2));
    return frame;
}

// All len bytes, or false when the socket fails or closes.
inline bool BenchWriteAll(int fd, const char* buf, size_t len)
{
    while (len > 0)
    {
        ssize_t sent = ::send(fd, buf, len, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        buf += sent;
        len -= static_cast<size_t>(sent);
    }
    return true;
}

inline bool BenchReadAll(int fd, char* buf, size_t len)
{
    while (len > 0)
    {
        ssize_t got = ::recv(fd, buf, len, 0);
        if (got <= 0)
            return false;
        buf += got;
        len -= static_cast<size_t>(got);
    }
    return true;
}

// The value below which share (0..1) of the values lie; 0 for none.
inline double BenchPercentile(std::vector<double> values, double share)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(at, values.size() - 1)];
}

#endif
