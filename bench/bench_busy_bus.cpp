// Round trip of a request while the CAN bus is busy, against the simulator in this process:
// CTarvikClientCANDll::GetConfig to one CAN gateway, in blocks taken in turn with the bus idle
// and with the bus carrying RATE frames a second (the simulator's paced stream).
//
// The client receives the stream on the same connection that carries the requests, and a
// consumer thread drains its CAN queue as an application's polling thread would: the frames
// and the answer share one socket and one receive thread, so an answer can queue behind
// frames ahead of it. That is how an application that receives and sends through one gateway
// handle sees a busy bus, and the harder case: a second client of the same gateway would
// only compete for the CPU.
//
// Prints the figures, then exactly:
//   busy round trip p50 / idle p50: X
//   busy round trip p99 / idle p99: X
//
// With "split" the client's trace sink also takes the time each request leaves and each
// confirmation arrives on the receive thread, and the p99 of the round trip's three parts is
// printed: out (call to send), wire (send to the receive thread's cut of the answer: the
// simulator, the socket and the frames ahead of the answer) and hand-over (receive thread to
// the caller). The sink is called for every received frame, so those runs cost more.
//
//   bench_busy_bus [RATE] [REQUESTS] [split]  (defaults 30000 frames/s and 10000 requests per state)
#include "BenchUtil.h"
#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimDeviceCAN.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientCANDll.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace
{
constexpr int kBlock = 1000;
constexpr int kWarmUp = 500;
constexpr unsigned long kQueueSize = 1u << 16;
constexpr unsigned int kTimeoutMs = 5000;
// How long the stream runs before a busy block starts, so that the block sees it steady.
constexpr auto kSettle = std::chrono::milliseconds(100);

// Drains the CAN queue on its own thread.
class CConsumer
{
public:
    explicit CConsumer(CTarvikClientCANDll& client) : m_oClient(client), m_oThread([this] { Run(); }) {}
    ~CConsumer()
    {
        m_bStop = true;
        m_oThread.join();
    }
    size_t GetCount() const { return m_nCount.load(std::memory_order_relaxed); }

private:
    void Run()
    {
        int id = 0, flags = 0, sec = 0, us = 0;
        unsigned char len = 0;
        char data[64];
        while (!m_bStop.load(std::memory_order_relaxed))
        {
            size_t got = 0;
            while (m_oClient.CANGetMessage(&id, data, &len, &flags, &sec, &us) >= 0)
                ++got;
            m_nCount.fetch_add(got, std::memory_order_relaxed);
            if (got == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    CTarvikClientCANDll& m_oClient;
    std::atomic<size_t> m_nCount{0};
    std::atomic<bool> m_bStop{false};
    std::thread m_oThread;
};

// The parts of one round trip as the trace sink sees them (split runs).
struct SSplit
{
    std::atomic<int64_t> m_nSentNs{0};
    std::atomic<int64_t> m_nCutNs{0};
    std::vector<double> m_adOut, m_adWire, m_adHandOver;

    static void Sink(const STarvikTrace& trace, void* user)
    {
        auto& split = *static_cast<SSplit*>(user);
        const int64_t now = CBenchClock::now().time_since_epoch().count();
        if (trace.m_eKind == STarvikTrace::eSent)
            split.m_nSentNs = now;
        else if (trace.m_eKind == STarvikTrace::eReceived && (trace.m_nCmdCode & 0x8000) != 0)
            split.m_nCutNs = now;
    }
    void Add(int64_t beginNs, int64_t endNs)
    {
        m_adOut.push_back((m_nSentNs - beginNs) * 1e-3);
        m_adWire.push_back((m_nCutNs - m_nSentNs) * 1e-3);
        m_adHandOver.push_back((endNs - m_nCutNs) * 1e-3);
    }
    void Print(const char* state) const
    {
        std::printf("  %s p99 parts: out %.1f us, wire %.1f us, hand-over %.1f us\n", state,
                    BenchPercentile(m_adOut, 0.99), BenchPercentile(m_adWire, 0.99),
                    BenchPercentile(m_adHandOver, 0.99));
    }
};

// count requests, their round trips in microseconds appended to us; false on a failed request.
bool Requests(CTarvikClientCANDll& client, int count, std::vector<double>* us, SSplit* split = nullptr)
{
    for (int i = 0; i < count; ++i)
    {
        bool confirm = false, flag2 = false;
        const auto begin = CBenchClock::now();
        const int rc = client.GetConfig(confirm, flag2);
        const auto end = CBenchClock::now();
        if (us != nullptr)
            us->push_back(BenchSeconds(begin, end) * 1e6);
        if (split != nullptr)
            split->Add(begin.time_since_epoch().count(), end.time_since_epoch().count());
        if (rc != 0)
        {
            std::fprintf(stderr, "bench_busy_bus: GetConfig: %s\n", CTarvikClient::GetErrorMsg(rc).c_str());
            return false;
        }
    }
    return true;
}
} // namespace

int main(int argc, char** argv)
{
    const unsigned long rate = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 30000;
    const int requests = argc > 2 ? std::atoi(argv[2]) : 10000;
    if (rate == 0 || rate > CTarvikSimCanBus::kMaxStreamRate || requests < kBlock)
    {
        std::fprintf(stderr, "usage: bench_busy_bus [RATE 1..%lu] [REQUESTS >= %d]\n", CTarvikSimCanBus::kMaxStreamRate,
                     kBlock);
        return 2;
    }
    CTarvikSimServer server;
    server.SetCanNodeIds({});
    if (server.AddDevice(eTarvikCAN) != 0 || !server.Start())
    {
        std::fprintf(stderr, "bench_busy_bus: %s\n", server.GetLastError().c_str());
        return 1;
    }
    CTarvikSimCanBus& bus = *server.GetCanBus();
    auto* gateway = dynamic_cast<CTarvikSimDeviceCAN*>(server.GetDevice(eTarvikCAN));
    CTarvikClientCANDll client(1, kTimeoutMs);
    client.SetMaxSizePerQueue(kQueueSize);
    if (client.Connect("127.0.0.1", server.GetPort(eTarvikCAN)) != 0 || !Requests(client, kWarmUp, nullptr))
        return 1;
    CConsumer consumer(client);
    const bool splitting = argc > 3 && std::string(argv[3]) == "split";
    SSplit idleSplit, busySplit;

    std::vector<double> idle, busy;
    double busySeconds = 0;
    size_t busyFrames = 0;
    for (int done = 0; done < requests; done += kBlock)
    {
        if (splitting)
            client.SetTraceSink(&SSplit::Sink, &idleSplit);
        if (!Requests(client, kBlock, &idle, splitting ? &idleSplit : nullptr))
            return 1;
        if (splitting)
            client.SetTraceSink(&SSplit::Sink, &busySplit);
        bus.SetStream(rate);
        std::this_thread::sleep_for(kSettle);
        const size_t framesBefore = consumer.GetCount();
        const auto begin = CBenchClock::now();
        if (!Requests(client, kBlock, &busy, splitting ? &busySplit : nullptr))
            return 1;
        busySeconds += BenchSeconds(begin);
        busyFrames += consumer.GetCount() - framesBefore;
        bus.SetStream(0);
        // The frames still on their way go before the next idle block.
        bus.WaitDelivered();
        std::this_thread::sleep_for(kSettle);
    }
    client.StopConnection();

    const double idleP50 = BenchPercentile(idle, 0.50), idleP99 = BenchPercentile(idle, 0.99);
    const double busyP50 = BenchPercentile(busy, 0.50), busyP99 = BenchPercentile(busy, 0.99);
    std::printf("round trips of CAN GetConfig, %d idle and %d with the bus busy (blocks of %d in turn):\n", requests,
                requests, kBlock);
    std::printf("  idle: p50 %.1f us, p99 %.1f us\n", idleP50, idleP99);
    std::printf("  busy: p50 %.1f us, p99 %.1f us\n", busyP50, busyP99);
    if (splitting)
    {
        idleSplit.Print("idle");
        busySplit.Print("busy");
    }
    std::printf("  bus stream %lu frames/s; the client fetched %.0f frames/s during the busy blocks; the stream left "
                "out %lu frames, the gateway dropped %lu\n",
                rate, busyFrames / busySeconds, bus.GetStreamSkipped(), gateway->GetDroppedCount());
    std::printf("busy round trip p50 / idle p50: %.2f\n", busyP50 / idleP50);
    std::printf("busy round trip p99 / idle p99: %.2f\n", busyP99 / idleP99);
    return 0;
}
