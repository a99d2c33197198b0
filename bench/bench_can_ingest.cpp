// Ingest of received CAN frames over loopback: a plain socket thread writes a pre-built
// stream of 0x203 indications (8 data bytes each) as fast as the connection takes them,
//   (a) to a CTarvikClientCANDll whose CAN queue a consumer thread drains with
//       CANGetMessages (and once more with CANGetMessage, one at a time): frames
//       received, parsed, queued and fetched per second,
//   (b) to the same client with a frame callback instead: frames handed over per second,
//   (c) to a raw reader that only reads the stream and cuts it with the runtime's frame
//       cutter: what the kernel and the cutting alone cost.
// Then the round trip of requests issued during a full-speed flood, answered by the same
// sender between its writes, while the consumer drains the queue.
//
// Prints the figures, then exactly:
//   ingest queued: N frames/s
//   ingest queued one at a time: N frames/s
//   ingest callback: N frames/s
//   ingest raw: N frames/s
//   flood round trip p50: N us
//   flood round trip p99: N us
//   ratio ingest queued/raw: X
//
//   bench_can_ingest [FRAMES] [REQUESTS]     (defaults 4000000 and 500)
#include "BenchUtil.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/runtime/MolFrameCutter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
using CClock = std::chrono::steady_clock;

// Frames per write of the sender: small enough that an answer gets in between soon.
constexpr size_t kChunkFrames = 256;
// How long a run may take before it is given up.
constexpr auto kRunLimit = std::chrono::seconds(60);
constexpr size_t kQueueSize = 1u << 20;
constexpr int kSendBuffer = 64 * 1024;
constexpr unsigned int kTimeoutMs = 5000;

// One 0x203 indication: identifier, flags 0, 8 data bytes.
std::string Indication(unsigned int i)
{
    std::string data = CTarvikMsg::ToChar(static_cast<int>(i & 0x7FF));
    data += '\0';
    data += CTarvikMsg::ToChar(static_cast<unsigned long>(i));
    return CTarvikMsg(0x0203, 0, data.data(), static_cast<unsigned short>(data.size())).GetMessageData();
}

// A gateway of one connection: streams indications and answers requests between writes.
class CFloodSender
{
public:
    ~CFloodSender() { Stop(); }

    bool Listen()
    {
        m_nListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (::bind(m_nListener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(m_nListener, 1) != 0 ||
            ::getsockname(m_nListener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            return false;
        m_nPort = ntohs(addr.sin_port);
        return true;
    }
    unsigned short GetPort() const { return m_nPort; }

    // Accepts the client and streams total frames (0: until Stop), answering requests.
    void Start(size_t total)
    {
        m_nTotal = total;
        m_oSender = std::thread([this] { Serve(); });
    }
    void Stop()
    {
        m_bStop = true;
        // Wakes an accept() still waiting, and the reader.
        if (m_nListener >= 0)
            ::shutdown(m_nListener, SHUT_RDWR);
        if (m_nSocket >= 0)
            ::shutdown(m_nSocket, SHUT_RDWR);
        if (m_oSender.joinable())
            m_oSender.join();
        if (m_oReader.joinable())
            m_oReader.join();
        if (m_nSocket >= 0)
            ::close(m_nSocket);
        if (m_nListener >= 0)
            ::close(m_nListener);
        m_nSocket = -1;
        m_nListener = -1;
    }
    // When the last frame was written.
    CClock::time_point GetDone() const { return m_oDone; }

private:
    void Serve()
    {
        int fd = ::accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        // A gateway's send buffer is small; the client's receive buffer is the kernel's.
        int buffer = kSendBuffer;
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
        m_nSocket = fd;
        m_oReader = std::thread([this] { Answer(); });
        std::string chunk;
        for (unsigned int i = 0; i < kChunkFrames; ++i)
            chunk += Indication(i);
        const size_t frameSize = chunk.size() / kChunkFrames;
        for (size_t sent = 0; !m_bStop.load(std::memory_order_relaxed) && (m_nTotal == 0 || sent < m_nTotal);)
        {
            size_t frames = m_nTotal == 0 ? kChunkFrames : std::min(kChunkFrames, m_nTotal - sent);
            if (!BenchWriteAll(fd, chunk.data(), frames * frameSize))
                break;
            sent += frames;
            if (m_bAnswers.load(std::memory_order_acquire))
                WriteAnswers(fd);
        }
        m_oDone = CClock::now();
        // Answers to requests after the stream ended still go out.
        while (!m_bStop.load())
        {
            if (m_bAnswers.load(std::memory_order_acquire))
                WriteAnswers(fd);
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    }

    void WriteAnswers(int fd)
    {
        std::string answers;
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            answers.swap(m_sAnswers);
            m_bAnswers = false;
        }
        BenchWriteAll(fd, answers.data(), answers.size());
    }

    // Reads the client's requests and queues a confirmation for each: result 0, mode 5.
    void Answer()
    {
        CMolFrameCutter cutter;
        for (;;)
        {
            size_t space = 0;
            char* into = cutter.GetSpace(space);
            ssize_t n = ::recv(m_nSocket, into, space, 0);
            if (n <= 0)
                return;
            cutter.Commit(static_cast<size_t>(n), &CFloodSender::OnRequest, this);
        }
    }
    static void OnRequest(void* self, const char* frame, unsigned short len)
    {
        CTarvikMsg req(frame, len);
        CTarvikMsg cnf(static_cast<unsigned short>(req.GetCmdCode() | CTarvikMsg::kConfirmationBit), req.GetMsgID(),
                       "\x00\x05", 2);
        CFloodSender* sender = static_cast<CFloodSender*>(self);
        std::lock_guard<std::mutex> lock(sender->m_oMutex);
        sender->m_sAnswers += cnf.GetMessageData();
        sender->m_bAnswers = true;
    }

    int m_nListener = -1;
    std::atomic<int> m_nSocket{-1};
    unsigned short m_nPort = 0;
    size_t m_nTotal = 0;
    std::atomic<bool> m_bStop{false};
    std::thread m_oSender;
    std::thread m_oReader;
    std::mutex m_oMutex;
    std::string m_sAnswers;
    std::atomic<bool> m_bAnswers{false};
    CClock::time_point m_oDone;
};

// Frames the batch fetch takes at once.
constexpr int kFetchBatch = 256;
// Frames fetched one at a time before the count is published.
constexpr size_t kPublishEvery = 1024;

// Drains the CAN queue on its own thread, as an application's polling thread would: with
// the batch fetch, or one frame at a time.
class CConsumer
{
public:
    CConsumer(CTarvikClientCANDll& client, bool batch)
        : m_oClient(client), m_bBatch(batch), m_oThread([this] { Run(); })
    {
    }
    ~CConsumer()
    {
        m_bStop = true;
        m_oThread.join();
    }
    size_t GetCount() const { return m_nCount.load(std::memory_order_acquire); }
    CClock::time_point GetLast() const
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_oLast;
    }

private:
    void Run()
    {
        int id = 0, flags = 0, sec = 0, us = 0;
        unsigned char len = 0;
        char data[64];
        std::vector<STarvikCanMessage> batch(kFetchBatch);
        while (!m_bStop.load(std::memory_order_relaxed))
        {
            size_t got = 0;
            if (m_bBatch)
            {
                int left = 0;
                got = static_cast<size_t>(std::max(0, m_oClient.CANGetMessages(batch.data(), kFetchBatch, &left)));
            }
            else
                while (got < kPublishEvery && m_oClient.CANGetMessage(&id, data, &len, &flags, &sec, &us) >= 0)
                    ++got;
            if (got == 0)
            {
                // Empty: the receive thread needs the CPU more than this poll does.
                std::this_thread::sleep_for(std::chrono::microseconds(50));
                continue;
            }
            Publish(got);
        }
    }

    // The count goes up as it grows, so that a queue that never runs empty still shows progress.
    void Publish(size_t got)
    {
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            m_oLast = CClock::now();
        }
        m_nCount.fetch_add(got, std::memory_order_release);
    }

    CTarvikClientCANDll& m_oClient;
    bool m_bBatch;
    std::atomic<size_t> m_nCount{0};
    std::atomic<bool> m_bStop{false};
    mutable std::mutex m_oMutex;
    CClock::time_point m_oLast;
    std::thread m_oThread;
};

std::atomic<size_t> g_nCalled{0};
void CountFrame(unsigned int, const char*, int, int, int)
{
    g_nCalled.fetch_add(1, std::memory_order_relaxed);
}

// Waits until count() reaches total, or stops growing for a second; false on the time limit.
template <class TCount> bool WaitForCount(TCount count, size_t total)
{
    auto limit = CClock::now() + kRunLimit;
    size_t last = 0;
    auto lastChange = CClock::now();
    while (CClock::now() < limit)
    {
        size_t now = count();
        if (now >= total)
            return true;
        if (now != last)
        {
            last = now;
            lastChange = CClock::now();
        }
        else if (CClock::now() - lastChange > std::chrono::seconds(1))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

double PerSecond(size_t frames, CClock::duration took)
{
    return static_cast<double>(frames) / std::chrono::duration<double>(took).count();
}

// (a) and (b): the client receives total frames, into its queue (fetched in batches or one
// at a time) or to the callback.
bool RunClient(size_t total, bool callback, bool batch, double& rate, size_t& lost)
{
    CFloodSender sender;
    if (!sender.Listen())
        return false;
    CTarvikClientCANDll client(1, kTimeoutMs);
    client.SetMaxSizePerQueue(kQueueSize);
    g_nCalled = 0;
    if (callback)
        client.SetCallback(&CountFrame);
    sender.Start(total);
    auto start = CClock::now();
    if (client.Connect("127.0.0.1", sender.GetPort()) != 0)
        return false;
    bool ok = true;
    size_t got = 0;
    CClock::time_point end;
    if (callback)
    {
        ok = WaitForCount([] { return g_nCalled.load(std::memory_order_relaxed); }, total);
        end = CClock::now();
        got = g_nCalled.load();
    }
    else
    {
        CConsumer consumer(client, batch);
        ok = WaitForCount([&] { return consumer.GetCount(); }, total);
        got = consumer.GetCount();
        end = consumer.GetLast();
    }
    client.StopConnection();
    sender.Stop();
    rate = PerSecond(got, end - start);
    lost = total - std::min(total, got);
    return ok;
}

struct SRawCount
{
    size_t m_nFrames = 0;
    size_t m_nBytes = 0;
    static void Sink(void* self, const char*, unsigned short len)
    {
        SRawCount* count = static_cast<SRawCount*>(self);
        ++count->m_nFrames;
        count->m_nBytes += len;
    }
};

// (c): read and cut the same stream, nothing else.
bool RunRaw(size_t total, double& rate)
{
    CFloodSender sender;
    if (!sender.Listen())
        return false;
    sender.Start(total);
    auto start = CClock::now();
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(sender.GetPort());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
        return false;
    CMolFrameCutter cutter;
    SRawCount count;
    while (count.m_nFrames < total)
    {
        size_t space = 0;
        char* into = cutter.GetSpace(space);
        ssize_t n = ::recv(fd, into, space, 0);
        if (n <= 0)
            break;
        cutter.Commit(static_cast<size_t>(n), &SRawCount::Sink, &count);
    }
    rate = PerSecond(count.m_nFrames, CClock::now() - start);
    ::close(fd);
    sender.Stop();
    return count.m_nFrames == total;
}

// Requests one at a time while the sender floods at full speed and the consumer drains.
bool RunFloodRoundTrip(int requests, std::vector<double>& us)
{
    CFloodSender sender;
    if (!sender.Listen())
        return false;
    CTarvikClientCANDll client(1, kTimeoutMs);
    client.SetMaxSizePerQueue(kQueueSize);
    sender.Start(0);
    if (client.Connect("127.0.0.1", sender.GetPort()) != 0)
        return false;
    CConsumer consumer(client, true);
    // Let the flood fill the connection first.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    bool ok = true;
    for (int i = 0; i < requests && ok; ++i)
    {
        unsigned char mode = 0;
        auto begin = CClock::now();
        int rc = client.CANopenGetConfig(mode);
        us.push_back(std::chrono::duration<double, std::micro>(CClock::now() - begin).count());
        if (rc != 0 || mode != 5)
        {
            std::fprintf(stderr, "flood round trip: %s\n", CTarvikClient::GetErrorMsg(rc).c_str());
            ok = false;
        }
    }
    std::printf("  during the round trips the consumer fetched %zu frames\n", consumer.GetCount());
    client.StopConnection();
    sender.Stop();
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    size_t frames = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 4000000;
    int requests = argc > 2 ? std::atoi(argv[2]) : 500;
    if (frames < 10000 || requests < 10)
    {
        std::fprintf(stderr, "usage: bench_can_ingest [FRAMES >= 10000] [REQUESTS >= 10]\n");
        return 2;
    }
    double queued = 0, single = 0, called = 0, raw = 0;
    size_t lostQueued = 0, lostSingle = 0, lostCalled = 0;
    if (!RunClient(frames, false, true, queued, lostQueued) || !RunClient(frames, false, false, single, lostSingle) ||
        !RunClient(frames, true, false, called, lostCalled) || !RunRaw(frames, raw))
    {
        std::fprintf(stderr, "bench_can_ingest: a run did not complete\n");
        return 1;
    }
    std::vector<double> us;
    if (!RunFloodRoundTrip(requests, us))
        return 1;
    std::printf("CAN ingest over loopback, %zu frames of 8 data bytes (20-byte telegrams) per run:\n", frames);
    std::printf("  queued and fetched by a consumer thread, %d at a time: lost %zu\n", kFetchBatch, lostQueued);
    std::printf("  queued and fetched one at a time: lost %zu\n", lostSingle);
    std::printf("  handed to a callback: lost %zu\n", lostCalled);
    std::printf("ingest queued: %.0f frames/s\n", queued);
    std::printf("ingest queued one at a time: %.0f frames/s\n", single);
    std::printf("ingest callback: %.0f frames/s\n", called);
    std::printf("ingest raw: %.0f frames/s\n", raw);
    std::printf("flood round trip p50: %.0f us\n", BenchPercentile(us, 0.50));
    std::printf("flood round trip p99: %.0f us\n", BenchPercentile(us, 0.99));
    std::printf("ratio ingest queued/raw: %.2f\n", queued / raw);
    return 0;
}
