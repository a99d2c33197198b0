// Whole-file write of a 1 MiB Intel HEX image to the simulated AWire target (in this
// process, programming at once) through CTarvikClientAWire::WriteImage, then its verify,
// against the limit of the loopback for the same writes:
//   - the limit: a raw client writes the same 1 MiB in the same 32 KiB chunks with two in
//     flight, as the file write does (the next chunk goes out once the final report of the
//     one before the last came back), and the time from its first byte out to the last
//     report is the best any client can do over this loopback with that window;
//   - the library's write: bytes per second of the writing step, and of write + verify.
// The two are taken in turn, limit then write, RUNS times in the same run, so that both
// see the same machine; the ratio is the median of the RUNS pairs.
//
// A round trip of a single 32 KiB block write (stop and wait) is printed beside it: two
// chunks per round trip would be the limit if a round trip were only waiting, but over the
// loopback it is mostly copying, which a second chunk in flight overlaps only in part.
// The bound the file-write thread's poll pause would set if it always slept its full
// Sleep(0, 1) is printed too: a progress report ends the pause at once.
// The writing step runs from the client's first chunk out to its last progress report in,
// as the client's trace sink sees them: the same two ends as the limit's (the sink's own
// cost, a check-byte pass over each chunk, counts against the library). The image is loaded
// from its Intel HEX file once, timed on its own; each write starts from it. A warm-up pair
// runs first and is not counted. The last line is "ratio awire write/limit: X" for scripts.
//
//   bench_awire [RUNS]      (default 5)
#include "BenchUtil.h"
#include "sim/TarvikSimDeviceAWire.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <atomic>
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
        std::string& data = m_sData;
        data.assign(kImageSize, '\0');
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
    const std::string& Data() const { return m_sData; }

private:
    std::string m_sPath;
    std::string m_sData;
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

// The 16-bit field at pos of a frame (little-endian), 0 past its end.
unsigned int FrameU16(const std::string& frame, size_t pos)
{
    if (pos + 2 > frame.size())
        return 0;
    return static_cast<unsigned char>(frame[pos]) |
           static_cast<unsigned int>(static_cast<unsigned char>(frame[pos + 1])) << 8;
}

// The limit: image written by a raw client in kChunk chunks, two in flight; seconds from
// the first chunk out to the last final report, or a negative number on failure. Each chunk's
// telegram is built as it goes out (data copied in, check byte), as any client must.
double PipelinedWrite(CTarvikSimRawClient& raw, const std::string& image)
{
    constexpr unsigned int kReport = 0x0EE1;
    const size_t chunks = (image.size() + kChunk - 1) / kChunk;
    const auto start = CClock::now();
    size_t sent = 0, finished = 0;
    while (finished < chunks)
    {
        while (sent < chunks && sent < finished + 2)
        {
            const size_t length = std::min(kChunk, image.size() - sent * kChunk);
            std::string data = CTarvikMsg::ToChar(static_cast<unsigned int>(sent * kChunk)) +
                               CTarvikMsg::ToChar(static_cast<unsigned short>(length));
            data.append(image, sent * kChunk, length);
            if (!raw.Send(BenchTelegram(0x0EE0, static_cast<short>(sent + 1), data)))
                return -1.0;
            ++sent;
        }
        // Frame: length(2) command(2) id(2) data; a report's data: handle(2) state(1) done(2).
        const std::string frame = raw.ReceiveFrame();
        if (frame.empty())
            return -1.0;
        if (FrameU16(frame, 2) != kReport || frame.size() <= 8)
            continue;
        if (frame[8] == CTarvikSimDeviceAWire::eStateFailed)
            return -1.0;
        finished += frame[8] == CTarvikSimDeviceAWire::eStateFinished;
    }
    return Seconds(start);
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

// Times of the writing step as the client's trace sees them: its first chunk leaving and the
// last progress report arriving, like the limit's clock; the status poll then need not be fine.
struct SWriteTimes
{
    std::atomic<int64_t> m_nFirstChunkNs{0};
    std::atomic<int64_t> m_nLastReportNs{0};

    static void Sink(const STarvikTrace& trace, void* user)
    {
        auto& times = *static_cast<SWriteTimes*>(user);
        const int64_t now = CClock::now().time_since_epoch().count();
        if (trace.m_eKind == STarvikTrace::eSent && trace.m_nCmdCode == 0x0EE0)
        {
            int64_t none = 0;
            times.m_nFirstChunkNs.compare_exchange_strong(none, now);
        }
        else if (trace.m_eKind == STarvikTrace::eReceived && trace.m_nCmdCode == 0x0EE1)
            times.m_nLastReportNs = now;
    }
};

// One whole-file write; the seconds of the writing step and of all of it.
bool WriteOnce(CTarvikClientAWire& client, const CTarvikHexfile& image, SWriteTimes& times, double& writing,
               double& total)
{
    if (client.Erase(0) != 0)
        return false;
    times.m_nFirstChunkNs = 0;
    times.m_nLastReportNs = 0;
    auto start = CClock::now();
    if (client.WriteImage(image) != 0)
        return false;
    for (;;)
    {
        FileStep::EFileStep step = FileStep::eNotStarted;
        unsigned char percent = 0;
        if (client.GetWriteFileStatus(step, percent) != 0)
            return false;
        if (step == FileStep::eDone || step == FileStep::eFailed)
        {
            total = Seconds(start);
            writing = static_cast<double>(times.m_nLastReportNs - times.m_nFirstChunkNs) * 1e-9;
            if (step != FileStep::eDone)
                std::fprintf(stderr, "file write ended in step %d\n", step);
            return step == FileStep::eDone;
        }
        // Coarse: a poll that wakes often takes a CPU from the write on a small machine.
        std::this_thread::sleep_for(std::chrono::microseconds(200));
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
    CTarvikHexfile loaded;
    const auto loading = CClock::now();
    if (loaded.LoadFile(image.Path().c_str()) != 0)
        return 1;
    const double loadSeconds = Seconds(loading);
    CTarvikClientAWire client(10000);
    CTarvikSimRawClient raw;
    if (client.Connect("127.0.0.1", port) != 0 || client.Open() != 0 || !raw.Connect("127.0.0.1", port))
        return 1;
    SWriteTimes times;
    client.SetTraceSink(&SWriteTimes::Sink, &times);
    std::vector<double> ratios, limits;
    double bestWriting = 1e9, bestTotal = 1e9;
    // Run 0 warms up both sides (first-touch of buffers, the thread's first start) and is not counted.
    for (int run = 0; run <= runs; ++run)
    {
        const double limit = PipelinedWrite(raw, image.Data());
        double writing = 0, total = 0;
        if (limit < 0 || !WriteOnce(client, loaded, times, writing, total))
        {
            std::fprintf(stderr, "file write failed\n");
            return 1;
        }
        if (run == 0)
            continue;
        std::printf("run %d: limit %.1f MB/s, write %.1f MB/s, write + verify %.1f MB/s\n", run,
                    kImageSize / kMB / limit, kImageSize / kMB / writing, kImageSize / kMB / total);
        ratios.push_back(limit / writing);
        limits.push_back(limit);
        bestWriting = std::min(bestWriting, writing);
        bestTotal = std::min(bestTotal, total);
    }
    const double chunks = static_cast<double>(kImageSize) / kChunk;
    const double pause = PollPause();
    const double pauseBound = 2 * kChunk / pause;
    const double limit = BenchPercentile(limits, 0.5);
    std::printf("round trip of a 32 KiB block write: %.0f us (two chunks per round trip: %.1f MB/s), of a 32 KiB "
                "read: %.0f us (median of %d)\n",
                rttWrite * 1e6, 2 * kChunk / rttWrite / kMB, rttRead * 1e6, kRoundTrips);
    std::printf("poll pause Sleep(0, 1): %.0f us; two chunks per pause allow %.1f MB/s\n", pause * 1e6,
                pauseBound / kMB);
    std::printf("write + verify of 1 MiB: %.1f MB/s (best of %d), limit %.1f MB/s\n", kImageSize / kMB / bestTotal,
                runs, kImageSize / (limit + chunks * rttRead) / kMB);
    std::printf("loading the 1 MiB image (Intel HEX): %.2f ms\n", loadSeconds * 1e3);
    std::printf("write of 1 MiB: %.1f MB/s (best of %d), limit %.1f MB/s (median; 2 chunks in flight, raw client)\n",
                kImageSize / kMB / bestWriting, runs, kImageSize / limit / kMB);
    std::printf("ratio awire write/poll-pause bound: %.2f\n", kImageSize / bestWriting / pauseBound);
    std::printf("ratio awire write/limit: %.2f\n", BenchPercentile(ratios, 0.5));
    return 0;
}
