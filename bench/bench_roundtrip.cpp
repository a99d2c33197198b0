// Round trip of a request and its confirmation over loopback:
//   (a) CTarvikClientSPI::GetGlobals against the simulator in this process,
//   (b) a blocking-socket ping-pong with the same frame sizes (7-byte request,
//       15-byte answer) against a trivial echo server, as the reference for what the
//       kernel alone costs,
//   (c) the raw client against the simulator and the library against the echo server,
//       so that client and server costs can be told apart,
//   (d) 64-byte DataReq transfers, as transfers per second.
// Prints p50 and p99 of each, the number of stalls over 1 ms (a Nagle or delayed-ACK
// stall shows up as 40 ms), the like-for-like ratios "ratio p50 library/raw (same
// server): X.XX" (both against the simulator) and "ratio p50 library/raw (echo): X.XX"
// with their p99 lines, and last "ratio p50 library/raw: X.XX" (library and simulator
// against raw client and echo server).
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

// Echo server on its own thread: read one request, write one answer under the request's
// message id, until EOF. It serves one connection.
void RawServe(int listener)
{
    int fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0)
        return;
    NoDelay(fd);
    char request[64];
    std::string answer = kRawAnswer;
    while (BenchReadAll(fd, request, kRawRequest.size()))
    {
        answer[4] = request[4];
        answer[5] = request[5];
        answer.back() = static_cast<char>(CTarvikMsg::XorBytes(answer.data() + 2, answer.size() - 3));
        if (!BenchWriteAll(fd, answer.data(), answer.size()))
            break;
    }
    ::close(fd);
}

// The trivial echo server of the raw reference, with TCP_NODELAY.
class CEchoServer
{
public:
    ~CEchoServer()
    {
        if (m_oServer.joinable())
        {
            // Ends the accept() of a server that never got its client.
            ::shutdown(m_nListener, SHUT_RDWR);
            m_oServer.join();
        }
        if (m_nListener >= 0)
            ::close(m_nListener);
    }

    // Listens on loopback; 0 on failure.
    unsigned short Open()
    {
        m_nListener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (::bind(m_nListener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(m_nListener, 1) != 0 ||
            ::getsockname(m_nListener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            return 0;
        m_oServer = std::thread(RawServe, m_nListener);
        return ntohs(addr.sin_port);
    }

private:
    int m_nListener = -1;
    std::thread m_oServer;
};

// The raw client: one blocking send and one blocking recv per round trip, TCP_NODELAY.
class CRawClient
{
public:
    ~CRawClient()
    {
        if (m_nSocket >= 0)
            ::close(m_nSocket);
    }

    bool Open(unsigned short port)
    {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        m_nSocket = ::socket(AF_INET, SOCK_STREAM, 0);
        NoDelay(m_nSocket);
        if (port == 0 || ::connect(m_nSocket, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
            return false;
        // The server must answer with a frame of the reference size, or the reads lose step.
        char answer[64];
        if (!BenchWriteAll(m_nSocket, kRawRequest.data(), kRawRequest.size()) || !BenchReadAll(m_nSocket, answer, 2))
            return Fail();
        size_t size =
            (static_cast<size_t>(static_cast<unsigned char>(answer[1])) << 8 | static_cast<unsigned char>(answer[0])) +
            2;
        if (size != kRawAnswer.size())
            return Fail();
        return BenchReadAll(m_nSocket, answer + 2, kRawAnswer.size() - 2) || Fail();
    }

    bool Step()
    {
        char answer[64];
        return BenchWriteAll(m_nSocket, kRawRequest.data(), kRawRequest.size()) &&
               BenchReadAll(m_nSocket, answer, kRawAnswer.size());
    }

private:
    static bool Fail()
    {
        std::fprintf(stderr, "raw client: the server's answer is not %zu bytes long\n", kRawAnswer.size());
        return false;
    }

    int m_nSocket = -1;
};

// ---------------------------------------------------------------- library

// The simulator in this process with one SPI gateway.
class CSimulator
{
public:
    // The SPI gateway's port; 0 on failure.
    unsigned short Open()
    {
        if (m_oServer.AddDevice(eTarvikSPI, "127.0.0.1", 0) != 0 || !m_oServer.Start())
        {
            std::fprintf(stderr, "simulator: %s\n", m_oServer.GetLastError().c_str());
            return 0;
        }
        return m_oServer.GetPort(eTarvikSPI);
    }

private:
    CTarvikSimServer m_oServer;
};

// An SPI client of the library.
class CLibraryBench
{
public:
    CLibraryBench() : m_oClient(1000) {}

    bool Open(unsigned short port)
    {
        m_nResult = port != 0 ? m_oClient.Connect("127.0.0.1", port) : TARVIK_ERR_NOT_CONNECTED;
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

    CTarvikClientSPI m_oClient;
    int m_nResult = 0;
};

// The measurements, in the order they take turns.
enum ESample
{
    eLibrarySim,
    eRawEcho,
    eRawSim,
    eLibraryEcho,
    eDataReq,
    eSampleCount,
};

// The measurements take turns in blocks, so that a burst of load elsewhere on the
// machine falls on all of them alike instead of skewing the ratios.
bool Run(int iterations, std::vector<double> (&samples)[eSampleCount])
{
    // Servers first, so that they outlive their clients.
    CSimulator sim;
    CEchoServer echoForRaw, echoForLibrary;
    CLibraryBench library, libraryEcho;
    CRawClient rawEcho, rawSim;
    const unsigned short simPort = sim.Open();
    if (!library.Open(simPort) || !libraryEcho.Open(echoForLibrary.Open()) || !rawEcho.Open(echoForRaw.Open()) ||
        !rawSim.Open(simPort))
        return false;
    const std::function<bool()> steps[eSampleCount] = {
        [&] { return library.GetGlobals(); },     [&] { return rawEcho.Step(); },    [&] { return rawSim.Step(); },
        [&] { return libraryEcho.GetGlobals(); }, [&] { return library.DataReq(); },
    };
    for (int i = 0; i < kWarmUp; ++i)
        for (const auto& step : steps)
            if (!step())
                return false;
    for (int done = 0; done < iterations; done += kBlock)
    {
        int block = std::min(kBlock, iterations - done);
        for (int n = 0; n < eSampleCount; ++n)
            for (int i = 0; i < block; ++i)
                if (!TimeOnce(steps[n], samples[n]))
                    return false;
    }
    return true;
}

void PrintRatio(const char* which, const SStats& library, const SStats& raw)
{
    std::printf("ratio p50 library/raw%s: %.2f\n", which, library.m_dP50 / raw.m_dP50);
    std::printf("ratio p99 library/raw%s: %.2f\n", which, library.m_dP99 / raw.m_dP99);
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
    std::vector<double> samples[eSampleCount];
    if (!Run(iterations, samples))
        return 1;
    SStats stats[eSampleCount];
    for (int n = 0; n < eSampleCount; ++n)
        stats[n] = Summarise(samples[n]);
    std::printf("round trips over loopback, %d samples each (blocks of %d in turn) after %d warm-up rounds:\n",
                iterations, kBlock, kWarmUp);
    PrintStats("library GetGlobals", stats[eLibrarySim]);
    PrintStats("raw socket 7/15 bytes", stats[eRawEcho]);
    PrintStats("raw socket to simulator", stats[eRawSim]);
    PrintStats("library to echo server", stats[eLibraryEcho]);
    PrintStats("library DataReq 64 bytes", stats[eDataReq]);
    std::printf("  DataReq 64 bytes: %.0f transfers/s\n", 1e6 / stats[eDataReq].m_dMean);
    PrintRatio(" (same server)", stats[eLibrarySim], stats[eRawSim]);
    PrintRatio(" (echo)", stats[eLibraryEcho], stats[eRawEcho]);
    std::printf("ratio p99 library/raw: %.2f\n", stats[eLibrarySim].m_dP99 / stats[eRawEcho].m_dP99);
    std::printf("ratio p50 library/raw: %.2f\n", stats[eLibrarySim].m_dP50 / stats[eRawEcho].m_dP50);
    return 0;
}
