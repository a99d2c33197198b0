// Soak and scale against a tarvik-sim process (started and stopped by run_soak.sh):
//
//   bench_soak roundtrip HOST PORT [ROUNDS]
//       ROUNDS GetGlobals on one client (default 1000000); peak RSS of this process
//       after the warm-up and at the end, which should be the same.
//   bench_soak scale HOST PORT SIM_PID [CLIENTS] [REQUESTS] [THREADS] [WAVES]
//       WAVES times: CLIENTS clients connected at once (default 512), each doing
//       REQUESTS GetGlobals (default 100) from THREADS threads (default 4), then all
//       disconnected. Prints this process's RSS per client and the simulator's RSS
//       before, at the peak of each wave and after it.
//
// Every line of figures starts with the name of what it measures; failures are
// counted and make the exit code 1.
#include "BenchStatus.h"
#include "tarvik/clients/TarvikClientSPI.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
constexpr unsigned int kTimeoutMs = 5000;
constexpr long kWarmUpRounds = 20000;
constexpr auto kSettleLimit = std::chrono::seconds(5);
constexpr auto kSettlePoll = std::chrono::milliseconds(50);

// Each client has a socket and a receive thread: take every descriptor allowed.
void RaiseFileLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max)
    {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

bool GetGlobalsOnce(CTarvikClientSPI& client)
{
    unsigned int rate = 0;
    unsigned char s1 = 0, s2 = 0, s3 = 0;
    return client.GetGlobals(rate, s1, s2, s3) == 0 && rate != 0;
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

int RunRoundTrips(const char* host, unsigned short port, long rounds)
{
    CTarvikClientSPI client(kTimeoutMs);
    int rc = client.Connect(host, port);
    if (rc != 0)
    {
        std::fprintf(stderr, "bench_soak: connect to %s:%u: 0x%06X\n", host, port, static_cast<unsigned>(rc));
        return 1;
    }
    long failures = 0;
    long warmUp = std::min(rounds, kWarmUpRounds);
    for (long i = 0; i < warmUp; ++i)
        failures += GetGlobalsOnce(client) ? 0 : 1;
    // Read and printed once before the figure is taken, so that the stream buffers of
    // both are not counted as growth.
    std::printf("client RSS before warm-up: %ld KiB\n", BenchStatusKib("self", "VmRSS"));
    long hwmWarm = BenchStatusKib("self", "VmHWM");
    std::printf("client RSS after warm-up (%ld rounds): %ld KiB (peak %ld KiB)\n", warmUp,
                BenchStatusKib("self", "VmRSS"), hwmWarm);
    std::fflush(stdout);
    auto start = std::chrono::steady_clock::now();
    for (long i = warmUp; i < rounds; ++i)
        failures += GetGlobalsOnce(client) ? 0 : 1;
    double took = Seconds(start);
    long timed = rounds - warmUp;
    long hwmEnd = BenchStatusKib("self", "VmHWM");
    std::printf("client RSS at the end: %ld KiB (peak %ld KiB, %+ld KiB since warm-up)\n",
                BenchStatusKib("self", "VmRSS"), hwmEnd, hwmEnd - hwmWarm);
    std::printf("round trips: %ld GetGlobals on one client, %ld failed, %.1f s, %.1f us each\n", rounds, failures, took,
                timed > 0 ? took * 1e6 / static_cast<double>(timed) : 0.0);
    client.Disconnect();
    return failures == 0 ? 0 : 1;
}

// The simulator's RSS once it stops changing (it reaps and trims in the background).
long SettledRss(const std::string& pid)
{
    auto deadline = std::chrono::steady_clock::now() + kSettleLimit;
    long last = BenchStatusKib(pid, "VmRSS");
    for (;;)
    {
        std::this_thread::sleep_for(kSettlePoll);
        long now = BenchStatusKib(pid, "VmRSS");
        if (now == last || std::chrono::steady_clock::now() > deadline)
            return now;
        last = now;
    }
}

struct SScale
{
    const char* m_pHost;
    unsigned short m_nPort;
    std::string m_sSimPid;
    int m_nClients;
    int m_nRequests;
    int m_nThreads;
};

// One wave: all clients up, every request done, figures taken, all down. Failures returned.
long RunWave(const SScale& scale, int wave)
{
    long selfBefore = BenchStatusKib("self", "VmRSS");
    std::vector<std::unique_ptr<CTarvikClientSPI>> clients;
    long failures = 0;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < scale.m_nClients; ++i)
    {
        clients.push_back(std::make_unique<CTarvikClientSPI>(kTimeoutMs));
        if (clients.back()->Connect(scale.m_pHost, scale.m_nPort) != 0)
            ++failures;
    }
    double connected = Seconds(start);
    // Each thread serves its own slice of the clients, one request at a time per client.
    std::atomic<long> failed{0};
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(scale.m_nThreads));
    start = std::chrono::steady_clock::now();
    for (int t = 0; t < scale.m_nThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < scale.m_nRequests; ++r)
                for (int c = t; c < scale.m_nClients; c += scale.m_nThreads)
                    if (!GetGlobalsOnce(*clients[c]))
                        ++failed;
        });
    for (auto& thread : threads)
        thread.join();
    double served = Seconds(start);
    failures += failed.load();
    long selfPeak = BenchStatusKib("self", "VmRSS");
    long simPeak = BenchStatusKib(scale.m_sSimPid, "VmRSS");
    std::printf("wave %d: %d clients connected in %.2f s, %ld requests in %.2f s, %ld failed\n", wave, scale.m_nClients,
                connected, static_cast<long>(scale.m_nClients) * scale.m_nRequests, served, failures);
    std::printf("wave %d: client process RSS %ld -> %ld KiB, %.1f KiB per client\n", wave, selfBefore, selfPeak,
                static_cast<double>(selfPeak - selfBefore) / scale.m_nClients);
    for (auto& client : clients)
        client->Disconnect();
    clients.clear();
    long simAfter = SettledRss(scale.m_sSimPid);
    std::printf("wave %d: simulator RSS at peak %ld KiB, after all left %ld KiB\n", wave, simPeak, simAfter);
    return failures;
}

int RunScale(const SScale& scale, int waves)
{
    RaiseFileLimit();
    long simBefore = BenchStatusKib(scale.m_sSimPid, "VmRSS");
    if (simBefore < 0)
    {
        std::fprintf(stderr, "bench_soak: no process %s\n", scale.m_sSimPid.c_str());
        return 1;
    }
    std::printf("simulator RSS before: %ld KiB\n", simBefore);
    long failures = 0;
    long simPeak = 0;
    for (int wave = 1; wave <= waves; ++wave)
    {
        failures += RunWave(scale, wave);
        simPeak = std::max(simPeak, BenchStatusKib(scale.m_sSimPid, "VmHWM"));
    }
    long simAfter = BenchStatusKib(scale.m_sSimPid, "VmRSS");
    std::printf("simulator RSS before %ld KiB, peak %ld KiB, after %ld KiB: %+.1f KiB per connection left behind\n",
                simBefore, simPeak, simAfter,
                static_cast<double>(simAfter - simBefore) / (static_cast<double>(scale.m_nClients) * waves));
    std::printf("scale: %ld failures\n", failures);
    return failures == 0 ? 0 : 1;
}

int Usage()
{
    std::fprintf(stderr, "usage: bench_soak roundtrip HOST PORT [ROUNDS]\n"
                         "       bench_soak scale HOST PORT SIM_PID [CLIENTS] [REQUESTS] [THREADS] [WAVES]\n");
    return 2;
}

int Arg(int argc, char** argv, int i, int fallback)
{
    return argc > i ? std::atoi(argv[i]) : fallback;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return Usage();
    std::string mode = argv[1];
    const char* host = argv[2];
    auto port = static_cast<unsigned short>(std::atoi(argv[3]));
    if (mode == "roundtrip")
        return RunRoundTrips(host, port, argc > 4 ? std::atol(argv[4]) : 1000000L);
    if (mode == "scale" && argc >= 5)
    {
        SScale scale{host, port, argv[4], Arg(argc, argv, 5, 512), Arg(argc, argv, 6, 100), Arg(argc, argv, 7, 4)};
        if (scale.m_nClients <= 0 || scale.m_nThreads <= 0)
            return Usage();
        return RunScale(scale, Arg(argc, argv, 8, 2));
    }
    return Usage();
}
