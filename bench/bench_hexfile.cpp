// Load speed and memory of memory images.
//
//   bench_hexfile gen intel|srec FILE MIB   write a MIB-MiB image at address 0 (16-byte records)
//   bench_hexfile gen sparse|dense FILE KIB write an Intel HEX file of about KIB KiB: one-byte
//                                           records each on a new 4 KiB page, or 16-byte records
//                                           back to back from address 0
//   bench_hexfile load FILE [RUNS]          load FILE RUNS times (default 5), print the best
//   bench_hexfile memory FILE               load FILE once, print what the load cost in memory
//   bench_hexfile                           all of it: 16 MiB images of both formats, 1.5 MiB
//                                           sparse and dense files, in a temporary directory
//
// "load" ends with the line "seconds S" (best run), "memory" with "peak_kib K" (the rise of
// the process's peak resident size over its size before the load) for scripts. Run "memory"
// in a fresh process for each file: the peak of a process never comes down again.
#include "BenchStatus.h"
#include "tarvik/hexfile/TarvikHexfile.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <malloc.h>
#include <string>
#include <sys/wait.h>
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
        std::fprintf(stderr, "unknown format %s (intel, srec, sparse or dense)\n", format);
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

// An Intel HEX file of about kib KiB: records of recordBytes bytes at addresses k * stride, with
// an extended linear address record before the first record of every 64 KiB.
int GenerateIntelText(const char* path, unsigned long kib, unsigned int recordBytes, unsigned int stride)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    const size_t size = kib * 1024;
    uint32_t upper = 0;
    auto put = [&text](unsigned int value, int digits) {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            text += kDigits[(value >> shift) & 0xF];
    };
    for (uint32_t k = 0; text.size() < size; ++k)
    {
        const uint32_t address = k * stride;
        if ((address >> 16) != upper)
        {
            upper = address >> 16;
            text += ":02000004";
            put(upper, 4);
            put((0u - ((upper >> 8) + (upper & 0xFF) + 6)) & 0xFF, 2);
            text += '\n';
        }
        unsigned int sum = recordBytes + ((address >> 8) & 0xFF) + (address & 0xFF);
        text += ':';
        put(recordBytes, 2);
        put(address & 0xFFFF, 4);
        text += "00";
        for (unsigned int i = 0; i < recordBytes; ++i)
        {
            const unsigned int byte = (k * 7 + i * 13 + 1) & 0xFF;
            sum += byte;
            put(byte, 2);
        }
        put((0u - sum) & 0xFF, 2);
        text += '\n';
    }
    text += ":00000001FF\n";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    return out.good() ? 0 : 1;
}

// Loads path into image: the seconds it took, or a negative number (message printed) on failure.
double TimedLoad(CTarvikHexfile& image, const char* path)
{
    auto start = std::chrono::steady_clock::now();
    uint32_t result = image.LoadFile(path);
    auto stop = std::chrono::steady_clock::now();
    if (result != 0)
    {
        std::fprintf(stderr, "%s\n", image.GetErrorMessage().c_str());
        return -1.0;
    }
    return std::chrono::duration<double>(stop - start).count();
}

// Best time of runs loads, or a negative number when a load fails.
double TimeLoad(const char* path, int runs, uint64_t& bytes)
{
    double best = -1.0;
    for (int run = 0; run < runs; ++run)
    {
        CTarvikHexfile image;
        double seconds = TimedLoad(image, path);
        if (seconds < 0)
            return -1.0;
        bytes = image.GetTotalBytes();
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

// One load in this process: the rise of the peak resident size over the size before the load,
// and what the heap still holds afterwards (the blocks of the image).
int Memory(const char* path)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const double fileKib = static_cast<double>(in.tellg()) / 1024.0;
    in.close();
    // The peak (VmHWM) belongs to the address space, which exec makes new; setting it back to
    // the present size leaves only what the load adds.
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = BenchStatusKib("self", "VmRSS");
    const size_t heapBefore = mallinfo2().uordblks + mallinfo2().hblkhd;
    CTarvikHexfile image;
    const double seconds = TimedLoad(image, path);
    if (seconds < 0)
        return 1;
    const long peak = BenchStatusKib("self", "VmHWM") - before;
    const size_t held = mallinfo2().uordblks + mallinfo2().hblkhd - heapBefore;
    std::printf("tarvik memory %s: file %.0f KiB, %llu bytes in %zu blocks, load %.4f s, peak RSS %ld KiB, "
                "+%ld KiB by the load (%.1fx the file), heap held after the load %.0f KiB\n",
                path, fileKib, static_cast<unsigned long long>(image.GetTotalBytes()), image.GetMemoryBlocks().size(),
                seconds, peak + before, peak, peak / fileKib, held / 1024.0);
    std::printf("peak_kib %ld\n", peak);
    return 0;
}

// "memory" in a child process of its own, so that every file starts from a fresh peak.
int MemoryInChild(const char* self, const std::string& path)
{
    std::fflush(stdout);
    pid_t child = fork();
    if (child < 0)
        return 1;
    if (child == 0)
    {
        execl(self, self, "memory", path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return 1;
    return WEXITSTATUS(status);
}

int All(const char* self)
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
    std::string sparse = std::string(dir) + "/sparse.hex";
    std::string dense = std::string(dir) + "/dense.hex";
    if (rc == 0)
        rc = GenerateIntelText(sparse.c_str(), 1536, 1, 4096) | GenerateIntelText(dense.c_str(), 1536, 16, 16);
    if (rc == 0)
        rc = MemoryInChild(self, sparse);
    if (rc == 0)
        rc = MemoryInChild(self, dense);
    std::remove(sparse.c_str());
    std::remove(dense.c_str());
    rmdir(dir);
    return rc;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc == 1)
        return All("/proc/self/exe");
    if (argc == 5 && std::strcmp(argv[1], "gen") == 0)
    {
        const unsigned long size = std::strtoul(argv[4], nullptr, 10);
        if (std::strcmp(argv[2], "sparse") == 0)
            return GenerateIntelText(argv[3], size, 1, 4096);
        if (std::strcmp(argv[2], "dense") == 0)
            return GenerateIntelText(argv[3], size, 16, 16);
        return Generate(argv[2], argv[3], size);
    }
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "load") == 0)
        return Load(argv[2], argc == 4 ? std::atoi(argv[3]) : 5);
    if (argc == 3 && std::strcmp(argv[1], "memory") == 0)
        return Memory(argv[2]);
    std::fprintf(stderr,
                 "usage: %s [gen intel|srec FILE MIB | gen sparse|dense FILE KIB | load FILE [RUNS] | "
                 "memory FILE]\n",
                 argv[0]);
    return 2;
}
