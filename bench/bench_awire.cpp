// Whole-file write of a 1 MiB Intel HEX image to the simulated AWire target (in this
// process, programming at once) through CTarvikClientAWire::WriteFile, then its verify:
//   - bytes per second of the writing step and of write + verify;
//   - the limit over this loopback: one round trip of a 32 KiB block write (request out,
//     confirmation and final progress report back) measured with a raw client; with two
//     writes in flight the gateway always holds the next chunk while it works on one, so
//     at best two chunks complete per round trip: limit = 2 x 32768 / round trip. The
//     verify reads one chunk per round trip of a 32 KiB read, stop and wait.
//   - the bound the file-write thread's poll pause would set if it always slept its full
//     Sleep(0, 1): at most two chunks per pause. A progress report ends the pause at once,
//     so the write runs well above that bound, near the loopback limit.
// Loading the file (WriteFile parses it before the thread starts) is timed on its own
// and is not part of the writing step. The last line is "ratio awire
// write/limit: X" for scripts.
//
//   bench_awire [RUNS]
#include "BenchUtil.h"
#include "sim/TarvikSimDeviceAWire.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
typedef std::chrono::steady_clock CClock;
typedef CTarvikClientAWire::FileStep FileStep;
constexpr size_t kImageSize = 1 << 20;
constexpr size_t kChunk = CTarvikClientAWire::kMaxChunk;
constexpr double kMB = 1e6;
constexpr int kRoundTrips = 200;

double Seconds(CClock::time_point start, CClock::time_point end = CClock::now())
{
    return std::chrono::duration<double>(end - start).count();
}

// A 1 MiB Intel HEX file of varied bytes in $TMPDIR; removed with the object.
class CBenchImage
{
public:
    CBenchImage()
    {
        const char* dir = std::getenv("TMPDIR");
        m_sPath = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/tarvik-awire-XXXXXX";
        int fd = mkstemp(&m_sPath[0]);
        if (fd < 0)
        {
            m_sPath.clear();
            return;
        }
        close(fd);
        std::string data(kImageSize, '\0');
        unsigned int state = 0x2468ACE1;
        for (char& c : data)
        {
            state = state * 1664525u + 1013904223u;
            c = static_cast<char>(state >> 24);
        }
        CTarvikHexfile hex;
        hex.AddMemoryBlock(0, data.data(), static_cast<unsigned int>(data.size()));
        if (hex.SaveFile(m_sPath.c_str(), CTarvikHexfile::Intel) != 0)
            m_sPath.clear();
    }
    ~CBenchImage()
    {
        if (!m_sPath.empty())
            std::remove(m_sPath.c_str());
    }
    const std::string& Path() const { return m_sPath; }

private:
    std::string m_sPath;
};

// Median round trip of a 32 KiB block write (write it, see its confirmation and its final
// report) and of a 32 KiB read, by hand on the same loopback.
bool RoundTrips(unsigned short port, double& write, double& read)
{
    CTarvikSimRawClient raw;
    if (!raw.Connect("127.0.0.1", port))
        return false;
    std::string block =
        CTarvikMsg::ToChar(0u) + CTarvikMsg::ToChar(static_cast<unsigned short>(kChunk)) + std::string(kChunk, '\xFF');
    std::string request = CTarvikMsg::ToChar(0u) + CTarvikMsg::ToChar(static_cast<unsigned short>(kChunk));
    std::vector<double> writes, reads;
    for (int i = 0; i < kRoundTrips; ++i)
    {
        auto start = CClock::now();
        if (raw.Transact(BenchTelegram(0x0EE0, static_cast<short>(i), block)).empty() || raw.ReceiveFrame().empty())
            return false;
        writes.push_back(Seconds(start));
        start = CClock::now();
        if (raw.Transact(BenchTelegram(0x0EE3, static_cast<short>(i), request)).size() < kChunk)
            return false;
        reads.push_back(Seconds(start));
    }
    write = BenchPercentile(writes, 0.5);
    read = BenchPercentile(reads, 0.5);
    return true;
}

double PollPause()
{
    std::vector<double> pauses;
    for (int i = 0; i < 100; ++i)
    {
        auto start = CClock::now();
        CMolThread::Sleep(0, 1);
        pauses.push_back(Seconds(start));
    }
    return BenchPercentile(pauses, 0.5);
}

// Shortest time WriteFile took to load the image, in seconds.
double g_dLoading = 1e9;

// One whole-file write; the seconds of the writing step and of all of it.
bool WriteOnce(CTarvikClientAWire& client, const std::string& path, double& writing, double& total)
{
    if (client.Erase(0) != 0)
        return false;
    auto loading = CClock::now();
    if (client.WriteFile(path) != 0)
        return false;
    // WriteFile loads the image before the thread starts: the writing step begins here.
    auto start = CClock::now();
    g_dLoading = std::min(g_dLoading, Seconds(loading, start));
    CClock::time_point written = start;
    for (;;)
    {
        FileStep::EFileStep step = FileStep::eNotStarted;
        unsigned char percent = 0;
        if (client.GetWriteFileStatus(step, percent) != 0)
            return false;
        if (step >= FileStep::eVerifying && written == start)
            written = CClock::now();
        if (step == FileStep::eDone || step == FileStep::eFailed)
        {
            writing = Seconds(start, written);
            total = Seconds(start);
            if (step != FileStep::eDone)
                std::fprintf(stderr, "file write ended in step %d\n", step);
            return step == FileStep::eDone;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}
} // namespace

int main(int argc, char** argv)
{
    int runs = argc >= 2 ? std::atoi(argv[1]) : 5;
    CBenchImage image;
    CTarvikSimServer server;
    if (image.Path().empty() || server.AddDevice(eTarvikAWire) != 0 || !server.Start())
        return 1;
    unsigned short port = server.GetPort(eTarvikAWire);
    static_cast<CTarvikSimDeviceAWire*>(server.GetDevice(eTarvikAWire))->SetGeometry(kImageSize, 256);
    double rttWrite = 0, rttRead = 0;
    if (!RoundTrips(port, rttWrite, rttRead))
        return 1;
    CTarvikClientAWire client(10000);
    if (client.Connect("127.0.0.1", port) != 0 || client.Open() != 0)
        return 1;
    double bestWriting = 1e9, bestTotal = 1e9;
    for (int run = 0; run < runs; ++run)
    {
        double writing = 0, total = 0;
        if (!WriteOnce(client, image.Path(), writing, total))
        {
            std::fprintf(stderr, "file write failed\n");
            return 1;
        }
        std::printf("run %d: write %.1f MB/s, write + verify %.1f MB/s\n", run + 1, kImageSize / kMB / writing,
                    kImageSize / kMB / total);
        bestWriting = std::min(bestWriting, writing);
        bestTotal = std::min(bestTotal, total);
    }
    const double chunks = static_cast<double>(kImageSize) / kChunk;
    const double pause = PollPause();
    const double writeLimit = 2 * kChunk / rttWrite;
    const double totalLimit = kImageSize / (chunks * rttWrite / 2 + chunks * rttRead);
    const double pauseBound = 2 * kChunk / pause;
    std::printf("round trip of a 32 KiB block write: %.0f us, of a 32 KiB read: %.0f us (median of %d)\n",
                rttWrite * 1e6, rttRead * 1e6, kRoundTrips);
    std::printf("poll pause Sleep(0, 1): %.0f us; two chunks per pause allow %.1f MB/s\n", pause * 1e6,
                pauseBound / kMB);
    std::printf("write + verify of 1 MiB: %.1f MB/s (best of %d), limit %.1f MB/s\n", kImageSize / kMB / bestTotal,
                runs, totalLimit / kMB);
    std::printf("loading the 1 MiB image (Intel HEX): %.2f ms\n", g_dLoading * 1e3);
    std::printf("write of 1 MiB: %.1f MB/s (best of %d), limit %.1f MB/s (2 chunks per round trip)\n",
                kImageSize / kMB / bestWriting, runs, writeLimit / kMB);
    std::printf("ratio awire write/poll-pause bound: %.2f\n", kImageSize / bestWriting / pauseBound);
    std::printf("ratio awire write/limit: %.2f\n", kImageSize / bestWriting / writeLimit);
    return 0;
}
