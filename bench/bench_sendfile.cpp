// Upload of a configuration file to the simulated test-system communication unit:
//   (a) CTarvikClientTestSystemCOM::SendFile over loopback, in MB/s;
//   (b) a raw stop-and-wait reference over the same socket path: the same telegrams
//       (32768-byte chunks, one in flight) built and sent by hand, the file read the
//       same way, against the same simulated unit;
//   (c) the peak resident size of a process that uploads a 16 MiB and a 256 MiB file,
//       each in a fresh process: it must not follow the file size.
// The CRC is computed once beforehand and given to both (a) and (b); its own speed is
// printed apart. Files go to $TMPDIR (default /tmp) and are removed.
//
//   bench_sendfile                 all of it: 64 MiB for speed, 16 and 256 MiB for memory
//   bench_sendfile speed MIB [RUNS]
//   bench_sendfile memory MIB
// The speed run ends with "ratio sendfile/raw: X" (best runs), the memory run with
// "peak_kib K" for scripts.
#include "BenchStatus.h"
#include "BenchUtil.h"
#include "sim/TarvikSimDeviceTestSystemCOM.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/core/TarvikMsg.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
constexpr size_t kChunk = CTarvikClientTestSystemCOM::kChunkSize;
constexpr double kMB = 1e6;
typedef std::chrono::steady_clock CClock;

// A file of mib MiB of varied bytes in $TMPDIR, written a MiB at a time; removed with the object.
class CBenchFile
{
public:
    explicit CBenchFile(unsigned long mib)
    {
        const char* dir = std::getenv("TMPDIR");
        m_sPath = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/tarvik-sendfile-XXXXXX";
        int fd = mkstemp(&m_sPath[0]);
        if (fd < 0)
        {
            m_sPath.clear();
            return;
        }
        std::string block(1 << 20, '\0');
        unsigned int state = 0x12345678;
        for (unsigned long i = 0; i < mib; ++i)
        {
            for (char& byte : block)
            {
                state = state * 1664525u + 1013904223u;
                byte = static_cast<char>(state >> 24);
            }
            if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
                m_sPath.clear();
        }
        close(fd);
        m_nSize = static_cast<double>(mib) * (1 << 20);
    }
    ~CBenchFile()
    {
        if (!m_sPath.empty())
            std::remove(m_sPath.c_str());
    }
    const std::string& Path() const { return m_sPath; }
    double Size() const { return m_nSize; }

private:
    std::string m_sPath;
    double m_nSize = 0;
};

double Seconds(CClock::time_point start)
{
    return std::chrono::duration<double>(CClock::now() - start).count();
}

// The upload by hand, stop and wait; returns the last result byte, -1 on a broken answer.
int RawUpload(CTarvikSimRawClient& raw, const std::string& path, unsigned int crc)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    unsigned int size = static_cast<unsigned int>(file.tellg());
    file.seekg(0);
    std::string name = CTarvikClientTestSystemCOM::GetFileName(path);
    std::string data =
        CTarvikMsg::ToChar(crc) + CTarvikMsg::ToChar(size) + std::string(1, static_cast<char>(name.size())) + name;
    unsigned short cmd = 0x0DD3;
    short id = 2;
    for (;;)
    {
        size_t start = data.size();
        data.resize(start + kChunk);
        file.read(&data[start], kChunk);
        data.resize(start + static_cast<size_t>(file.gcount()));
        std::string answer = raw.Transact(BenchTelegram(cmd, id++, data), 10000);
        if (answer.size() < 7)
            return -1;
        int result = static_cast<unsigned char>(answer[6]);
        if (result != CTarvikSimDeviceTestSystemCOM::eResultMoreData || file.fail())
            return result;
        cmd = 0x0DD4;
        data.clear();
    }
}

int Speed(unsigned long mib, int runs)
{
    CBenchFile file(mib);
    if (file.Path().empty())
        return 1;
    CTarvikSimServer server;
    if (server.AddDevice(eTarvikTestSystemCOM) != 0 || !server.Start())
        return 1;
    unsigned short port = server.GetPort(eTarvikTestSystemCOM);

    auto start = CClock::now();
    std::ifstream in(file.Path(), std::ios::binary);
    unsigned int crc = CTarvikClientTestSystemCOM::GetCRC32(in);
    std::printf("CRC-32 of %lu MiB: %.1f MB/s\n", mib, file.Size() / kMB / Seconds(start));

    CTarvikClientTestSystemCOM client(10000);
    CTarvikSimRawClient raw;
    if (client.Connect("127.0.0.1", port) != 0 || client.Open() != 0 || !raw.Connect("127.0.0.1", port))
        return 1;
    double bestLib = 1e9, bestRaw = 1e9;
    for (int run = 0; run < runs; ++run)
    {
        start = CClock::now();
        int result = client.SendFile(file.Path(), crc);
        double lib = Seconds(start);
        start = CClock::now();
        int rawResult = RawUpload(raw, file.Path(), crc);
        double rawSeconds = Seconds(start);
        if (result != 0 || rawResult != 0)
        {
            std::fprintf(stderr, "upload failed: library 0x%06X, raw %d\n", result, rawResult);
            return 1;
        }
        std::printf("run %d: SendFile %.1f MB/s, raw %.1f MB/s\n", run + 1, file.Size() / kMB / lib,
                    file.Size() / kMB / rawSeconds);
        bestLib = std::min(bestLib, lib);
        bestRaw = std::min(bestRaw, rawSeconds);
    }
    std::printf("SendFile %lu MiB in 32 KiB chunks: %.1f MB/s (best of %d)\n", mib, file.Size() / kMB / bestLib, runs);
    std::printf("raw stop-and-wait reference: %.1f MB/s (best of %d)\n", file.Size() / kMB / bestRaw, runs);
    std::printf("ratio sendfile/raw: %.2f\n", bestRaw / bestLib);
    return 0;
}

// One upload with CRC in this process (client and simulated unit), and its peak RSS.
int Memory(unsigned long mib)
{
    CBenchFile file(mib);
    CTarvikSimServer server;
    if (file.Path().empty() || server.AddDevice(eTarvikTestSystemCOM) != 0 || !server.Start())
        return 1;
    CTarvikClientTestSystemCOM client(10000);
    if (client.Connect("127.0.0.1", server.GetPort(eTarvikTestSystemCOM)) != 0 || client.Open() != 0)
        return 1;
    // Only what the upload adds counts: the peak starts again from the present size.
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = BenchStatusKib("self", "VmRSS");
    int result = client.SendFile(file.Path(), 0);
    const long peak = BenchStatusKib("self", "VmHWM");
    if (result != 0)
        return 1;
    std::printf("SendFile %lu MiB: RSS before %ld KiB, peak RSS %ld KiB (+%ld KiB)\n", mib, before, peak,
                peak - before);
    std::printf("peak_kib %ld\n", peak);
    return 0;
}

int InChild(const char* self, const char* mode, unsigned long mib)
{
    std::fflush(stdout);
    pid_t child = fork();
    if (child < 0)
        return 1;
    if (child == 0)
    {
        std::string size = std::to_string(mib);
        execl(self, self, mode, size.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc >= 3 && std::strcmp(argv[1], "speed") == 0)
        return Speed(std::strtoul(argv[2], nullptr, 10), argc >= 4 ? std::atoi(argv[3]) : 3);
    if (argc >= 3 && std::strcmp(argv[1], "memory") == 0)
        return Memory(std::strtoul(argv[2], nullptr, 10));
    if (argc != 1)
    {
        std::fprintf(stderr, "usage: bench_sendfile [speed MIB [RUNS] | memory MIB]\n");
        return 2;
    }
    int failed = InChild("/proc/self/exe", "memory", 16);
    failed |= InChild("/proc/self/exe", "memory", 256);
    failed |= InChild("/proc/self/exe", "speed", 64);
    return failed;
}
