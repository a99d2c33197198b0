// Memory figures of a process, read from /proc/<pid>/status, for the benchmarks.
#ifndef TARVIK_BENCH_BENCHSTATUS_H
#define TARVIK_BENCH_BENCHSTATUS_H

#include <cstdlib>
#include <fstream>
#include <string>

// A field such as "VmRSS" or "VmHWM" of /proc/<pid>/status in KiB ("self": this process);
// -1 when it is not there.
inline long BenchStatusKib(const std::string& pid, const char* field)
{
    std::ifstream status("/proc/" + pid + "/status");
    std::string line;
    const std::string key = std::string(field) + ":";
    while (std::getline(status, line))
        if (line.compare(0, key.size(), key) == 0)
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
    return -1;
}

#endif
