// Round trip of a request and its confirmation over loopback:
//   (a) CTarvikClientSPI::GetGlobals against the simulator in this process,
//   (b) a blocking-socket ping-pong with the same frame sizes (7-byte request,
//       15-byte answer) as the reference for what the kernel alone costs,
//   (c) 64-byte DataReq transfers, as transfers per second.
// Prints p50 and p99 of each, the number of stalls over 1 ms (a Nagle or delayed-ACK
// stall shows up as 40 ms), and last "ratio p50 library/raw: X.XX".
//
//   bench_roundtrip [ITERATIONS]      (default 20000, after 2000 warm-up rounds)
#include "BenchUtil.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/core/TarvikMsg.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{
constexpr int kWarmUp = 2000;
constexpr int kBlock = 1000;
constexpr double kStallUs = 1000.0;
constexpr size_t kDataReqBytes = 64;

struct SStats
{
    double m_dP50;
    double m_dP99;
    double m_dMax;
    double m_dMean;
    size_t m_nStalls;
};

SStats Summarise(std::vector<double> us)
{
    std::sort(us.begin(), us.end());
    SStats stats = {};
    size_t n = us.size();
    stats.m_dP50 = us[n / 2];
    stats.m_dP99 = us[std::min(n - 1, n * 99 / 100)];
    stats.m_dMax = us.back();
    double sum = 0;
    for (double v : us)
    {
        sum += v;
        if (v > kStallUs)
            ++stats.m_nStalls;
    }
    stats.m_dMean = sum / static_cast<double>(n);
    return stats;
}

// Times one call of step() into us; false from step() aborts.
bool TimeOnce(const std::function<bool()>& step, std::vector<double>& us)
{
    auto start = std::chrono::steady_clock::now();
    if (!step())
        return false;
    std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    us.push_back(took.count());
    return true;
}

void PrintStats(const char* name, const SStats& stats)
{
    std::printf("  %-26s p50 %7.1f us  p99 %7.1f us  max %8.1f us  stalls>1ms %zu\n", name, stats.m_dP50, stats.m_dP99,
                stats.m_dMax, stats.m_nStalls);
}

// ---------------------------------------------------------------- raw reference

void NoDelay(int fd)
{
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// The GetGlobals exchange as it appears on the wire.
const std::string kRawRequest = CTarvikMsg(0x0308, 2, nullptr, 0).GetMessageData();
const std::string kRawAnswer = CTarvikMsg(0x8308, 2, "\x00\x40\x42\x0F\x00\x00\x00\x00", 8).GetMessageData();

// Echo server on its own thread: read one request, write one answer, until EOF.
void RawServe(int listener)
{
    int fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0)
        return;
    NoDelay(fd);
    char request[64];
    while (BenchReadAll(fd, request, kRawRequest.size()) && BenchWriteAll(fd, kRawAnswer.data(), kRawAnswer.size()))
    {
    }
    ::close(fd);
}

// Client and echo server of the raw reference, both ends with TCP_NODELAY.
class CRawPingPong
{
public:
    ~CRawPingPong()
    {
        if (m_nSocket >= 0)
            ::close(m_nSocket);
        if (m_oServer.joinable())
            m_oServer.join();
        if (m_nListener >= 0)
            ::close(m_nListener);
    }

    bool Open()
    {
        m_nListener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (::bind(m_nListener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(m_nListener, 1) != 0 ||
            ::getsockname(m_nListener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            return false;
        m_oServer = std::thread(RawServe, m_nListener);
        m_nSocket = ::socket(AF_INET, SOCK_STREAM, 0);
        NoDelay(m_nSocket);
        return ::connect(m_nSocket, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    }

    bool Step()
    {
        char answer[64];
        return BenchWriteAll(m_nSocket, kRawRequest.data(), kRawRequest.size()) &&
               BenchReadAll(m_nSocket, answer, kRawAnswer.size());
    }

private:
    int m_nListener = -1;
    int m_nSocket = -1;
    std::thread m_oServer;
};

// ---------------------------------------------------------------- library

// An SPI client connected to the simulator in this process.
class CLibraryBench
{
public:
    CLibraryBench() : m_oClient(1000) {}

    bool Open()
    {
        if (m_oServer.AddDevice(eTarvikSPI, "127.0.0.1", 0) != 0 || !m_oServer.Start())
        {
            std::fprintf(stderr, "simulator: %s\n", m_oServer.GetLastError().c_str());
            return false;
        }
        m_nResult = m_oClient.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI));
        if (m_nResult == 0)
            m_nResult = m_oClient.Open();
        return Check();
    }

    bool GetGlobals()
    {
        unsigned int rate = 0;
        unsigned char s1 = 0, s2 = 0, s3 = 0;
        m_nResult = m_oClient.GetGlobals(rate, s1, s2, s3);
        return Check();
    }

    // A 25xx READ of 61 bytes: 64 bytes each way.
    bool DataReq()
    {
        char send[kDataReqBytes] = {0x03, 0x00, 0x00};
        char recv[kDataReqBytes];
        m_nResult = m_oClient.DataReq(send, kDataReqBytes, recv, kDataReqBytes);
        return Check();
    }

private:
    bool Check() const
    {
        if (m_nResult != 0)
            std::fprintf(stderr, "library: %s\n", CTarvikClient::GetErrorMsg(m_nResult).c_str());
        return m_nResult == 0;
    }

    // Declared first so that it outlives the client.
    CTarvikSimServer m_oServer;
    CTarvikClientSPI m_oClient;
    int m_nResult = 0;
};

struct SSamples
{
    std::vector<double> m_adLibrary;
    std::vector<double> m_adRaw;
    std::vector<double> m_adDataReq;
};

// The three measurements take turns in blocks, so that a burst of load elsewhere on
// the machine falls on all of them alike instead of skewing the ratio.
bool Run(int iterations, SSamples& samples)
{
    CLibraryBench library;
    CRawPingPong raw;
    if (!library.Open() || !raw.Open())
        return false;
    auto getGlobals = [&] { return library.GetGlobals(); };
    auto rawStep = [&] { return raw.Step(); };
    auto dataReq = [&] { return library.DataReq(); };
    for (int i = 0; i < kWarmUp; ++i)
        if (!getGlobals() || !rawStep() || !dataReq())
            return false;
    for (int done = 0; done < iterations; done += kBlock)
    {
        int block = std::min(kBlock, iterations - done);
        for (int i = 0; i < block; ++i)
            if (!TimeOnce(getGlobals, samples.m_adLibrary))
                return false;
        for (int i = 0; i < block; ++i)
            if (!TimeOnce(rawStep, samples.m_adRaw))
                return false;
        for (int i = 0; i < block; ++i)
            if (!TimeOnce(dataReq, samples.m_adDataReq))
                return false;
    }
    return true;
}
} // namespace

int main(int argc, char** argv)
{
    int iterations = argc > 1 ? std::atoi(argv[1]) : 20000;
    if (iterations < 100)
    {
        std::fprintf(stderr, "usage: bench_roundtrip [ITERATIONS >= 100]\n");
        return 2;
    }
    SSamples samples;
    if (!Run(iterations, samples))
        return 1;
    SStats library = Summarise(samples.m_adLibrary);
    SStats raw = Summarise(samples.m_adRaw);
    SStats dataReq = Summarise(samples.m_adDataReq);
    std::printf("round trips over loopback, %d samples each (blocks of %d in turn) after %d warm-up rounds:\n",
                iterations, kBlock, kWarmUp);
    PrintStats("library GetGlobals", library);
    PrintStats("raw socket 7/15 bytes", raw);
    PrintStats("library DataReq 64 bytes", dataReq);
    std::printf("  DataReq 64 bytes: %.0f transfers/s\n", 1e6 / dataReq.m_dMean);
    std::printf("ratio p50 library/raw: %.2f\n", library.m_dP50 / raw.m_dP50);
    return 0;
}
