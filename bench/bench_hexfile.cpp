// Load speed of memory images.
//
//   bench_hexfile gen intel|srec FILE MIB   write a MIB-MiB image at address 0 (16-byte records)
//   bench_hexfile load FILE [RUNS]          load FILE RUNS times (default 5), print the best
//   bench_hexfile                           both formats, 16 MiB each, in a temporary directory
//
// "load" ends with the line "seconds S" (best run) for scripts.
#include "tarvik/hexfile/TarvikHexfile.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{
constexpr double kMiB = 1024.0 * 1024.0;

int Generate(const char* format, const char* path, unsigned long mib)
{
    CTarvikHexfile::EType type = CTarvikHexfile::Intel;
    if (std::strcmp(format, "srec") == 0)
        type = CTarvikHexfile::Motorola;
    else if (std::strcmp(format, "intel") != 0)
    {
        std::fprintf(stderr, "unknown format %s (intel or srec)\n", format);
        return 2;
    }
    std::vector<char> bytes(mib * 1024 * 1024);
    // Varied data, so that every hex digit and both letter cases of the parser are exercised.
    uint32_t state = 0x12345678;
    for (char& byte : bytes)
    {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    CTarvikHexfile image;
    image.AddMemoryBlock(0, bytes.data(), static_cast<unsigned int>(bytes.size()));
    uint32_t result = image.SaveFile(path, type);
    if (result != 0)
    {
        std::fprintf(stderr, "%s\n", image.GetErrorMessage().c_str());
        return 1;
    }
    return 0;
}

// Best time of runs loads, or a negative number when a load fails.
double TimeLoad(const char* path, int runs, uint64_t& bytes)
{
    double best = -1.0;
    for (int run = 0; run < runs; ++run)
    {
        CTarvikHexfile image;
        auto start = std::chrono::steady_clock::now();
        uint32_t result = image.LoadFile(path);
        auto stop = std::chrono::steady_clock::now();
        if (result != 0)
        {
            std::fprintf(stderr, "%s\n", image.GetErrorMessage().c_str());
            return -1.0;
        }
        bytes = image.GetTotalBytes();
        double seconds = std::chrono::duration<double>(stop - start).count();
        if (best < 0 || seconds < best)
            best = seconds;
    }
    return best;
}

int Load(const char* path, int runs)
{
    uint64_t bytes = 0;
    double best = TimeLoad(path, runs, bytes);
    if (best < 0)
        return 1;
    std::printf("tarvik load %s: %.2f MiB in %.4f s (best of %d), %.1f MiB/s\n", path, bytes / kMiB, best, runs,
                bytes / kMiB / best);
    std::printf("seconds %.6f\n", best);
    return 0;
}

int All()
{
    char dir[] = "/tmp/tarvik_bench_hexXXXXXX";
    if (mkdtemp(dir) == nullptr)
        return 1;
    std::string intel = std::string(dir) + "/image.hex";
    std::string srec = std::string(dir) + "/image.s28";
    int rc = Generate("intel", intel.c_str(), 16);
    if (rc == 0)
        rc = Generate("srec", srec.c_str(), 16);
    if (rc == 0)
        rc = Load(intel.c_str(), 5);
    if (rc == 0)
        rc = Load(srec.c_str(), 5);
    std::remove(intel.c_str());
    std::remove(srec.c_str());
    rmdir(dir);
    return rc;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc == 1)
        return All();
    if (argc == 5 && std::strcmp(argv[1], "gen") == 0)
        return Generate(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10));
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "load") == 0)
        return Load(argv[2], argc == 4 ? std::atoi(argv[3]) : 5);
    std::fprintf(stderr, "usage: %s [gen intel|srec FILE MIB | load FILE [RUNS]]\n", argv[0]);
    return 2;
}
