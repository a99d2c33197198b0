// The runtime: the TCP connection with its receive thread and frame cutting, and events.
#include "support/FakeGateway.h"
#include "support/Wait.h"

#include "tarvik/runtime/MolIPConnection.h"
#include "tarvik/runtime/MolSync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kWaitMs = 5000;
const std::string kSmall = Hex("05 00 0C 83 02 00 8D");
const std::string kUp = "connected", kDown = "closed";

// Whether the thread tid of this process sleeps in the kernel (state S in its stat line).
bool IsAsleep(long tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // "tid (name) S ...": the state follows the name, which may hold blanks.
    size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

int64_t ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

// Logs what the receive thread delivers in order: blocks, and kUp / kDown for the
// connect indications.
class CRecordingConnection : public CMolIPConnection
{
public:
    ~CRecordingConnection() override { Shutdown(); }

    int Connect(const CFakeGateway& gw, unsigned int timeoutMs = 2000)
    {
        return ConnectReq(gw.GetAddress().c_str(), gw.GetPort(), timeoutMs, 3, eProtocolTarvik, std::string(), true);
    }
    int Send(const std::string& frame)
    {
        return DataReq(frame.data(), static_cast<unsigned short>(frame.size()), 1000);
    }
    // The log once it holds count entries (as far as it got after the wait).
    std::vector<std::string> Log(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return m_asLog.size() >= count; });
        return m_asLog;
    }

protected:
    void DataInd(const char* data, unsigned short len) override { Add(std::string(data, len)); }
    void ConnectInd(bool connected) override { Add(connected ? kUp : kDown); }

private:
    void Add(const std::string& entry)
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_asLog.push_back(entry);
        m_oChanged.notify_all();
    }

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<std::string> m_asLog;
};

class CConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_oGateway.Start("127.0.0.1"));
        ASSERT_EQ(CMolIPBase::eResultSuccess, m_oConnection.Connect(m_oGateway));
        ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
    }

    // Sends the parts as separate writes with a pause after each.
    void SendParts(const std::vector<std::string>& parts, unsigned int pauseMs)
    {
        for (const std::string& part : parts)
        {
            ASSERT_TRUE(m_oGateway.Send(part));
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        }
    }

    CFakeGateway m_oGateway;
    CRecordingConnection m_oConnection;
};
} // namespace

TEST(MolIPConnection, ConnectTimesOutWhereNothingAnswersAndIsRefusedWhereNothingListens)
{
    CFakeGateway silent, refusing;
    ASSERT_TRUE(silent.Start("127.0.0.1", 0, CFakeGateway::eModeSilent));
    ASSERT_TRUE(refusing.Start("127.0.0.1", 0, CFakeGateway::eModeRefuse));
    CRecordingConnection connection;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CMolIPBase::eResultTimeout, connection.Connect(silent, 200));
    EXPECT_GE(ElapsedMs(start), 180);
    EXPECT_EQ(CMolIPBase::eResultNotConnected, connection.Connect(refusing));
    EXPECT_NE(CMolIPBase::eStateConnected, connection.GetState());
    EXPECT_EQ(CMolIPBase::eResultNotConnected, connection.Send(kSmall));
    EXPECT_TRUE(connection.Log(0).empty());
}

TEST_F(CConnectionTest, FramesAreCutFromTheStreamWhereverTheWritesEnd)
{
    const std::string frame = Hex("08 00 03 83 02 00 00 11 22 B1");
    // Split inside the length prefix, inside the header and inside the data ...
    SendParts({frame.substr(0, 1), frame.substr(1, 3), frame.substr(4, 4), frame.substr(8)}, 30);
    // ... one byte at a time ...
    std::vector<std::string> bytes;
    for (char c : frame)
        bytes.emplace_back(1, c);
    SendParts(bytes, 5);
    // ... and several in one write, with an empty block (length field 0, cut as two
    // bytes) and a frame that ends in the next write.
    SendParts({kSmall + Hex("00 00") + frame.substr(0, 5), frame.substr(5)}, 30);
    EXPECT_EQ((std::vector<std::string>{kUp, frame, frame, kSmall, Hex("00 00"), frame}), m_oConnection.Log(6));
}

TEST_F(CConnectionTest, FramesLargerThanTheFirstBufferArriveWhole)
{
    // Around and far beyond the initial buffer, each followed by a small frame in
    // the same write, so that the rest is kept across the buffer's growth.
    std::vector<std::string> expected = {kUp};
    for (size_t size : {4089u, 4090u, 4091u, 65000u, 65528u})
    {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<char>(i * 7 + size);
        std::string big = Telegram(0x8303, static_cast<int>(size), data);
        ASSERT_TRUE(m_oGateway.Send(big + kSmall));
        expected.insert(expected.end(), {big, kSmall});
    }
    EXPECT_TRUE(expected == m_oConnection.Log(expected.size()));
}

// A signal cuts a send short once part of the frame is out: the next send must go on
// at the first byte not sent. The peer reads nothing until then, so the send blocks
// with the socket's buffers full.
TEST(MolIPConnection, ASendCutShortGoesOnWhereItStopped)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addrLen = sizeof(addr);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(listener, 1));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &addrLen));
    CRecordingConnection connection;
    ASSERT_EQ(CMolIPBase::eResultSuccess, connection.ConnectReq("127.0.0.1", ntohs(addr.sin_port), 2000, 3,
                                                                CMolIPBase::eProtocolTarvik, std::string(), true));
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    // Far more than the socket buffers hold.
    std::string sent(16 << 20, '\0');
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<char>(i ^ (i >> 8) ^ (i >> 16));
    std::atomic<long> tid{0};
    int result = -1;
    std::thread sender([&] {
        tid = syscall(SYS_gettid);
        result = connection.DataReqLong(sent.data(), sent.size(), 30000);
    });
    EXPECT_TRUE(Eventually([&] { return tid.load() != 0 && IsAsleep(tid.load()); }));
    pthread_kill(sender.native_handle(), SIGUSR1);
    std::string got;
    std::vector<char> buf(1 << 16);
    for (ssize_t n = 1; got.size() < sent.size() && n > 0;)
    {
        n = recv(peer, buf.data(), buf.size(), 0);
        got.append(buf.data(), static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    sender.join();
    EXPECT_EQ(CMolIPBase::eResultSuccess, result);
    ASSERT_EQ(sent.size(), got.size());
    EXPECT_TRUE(sent == got) << "first wrong byte at "
                             << std::mismatch(sent.begin(), sent.end(), got.begin()).first - sent.begin();
    close(peer);
    close(listener);
}

TEST_F(CConnectionTest, PeerCloseIsReportedAndTheConnectionCanBeOpenedAgain)
{
    m_oGateway.CloseClients();
    EXPECT_EQ((std::vector<std::string>{kUp, kDown}), m_oConnection.Log(2));
    EXPECT_NE(CMolIPBase::eStateConnected, m_oConnection.GetState());
    EXPECT_EQ(CMolIPBase::eResultNotConnected, m_oConnection.Send(kSmall));

    ASSERT_EQ(CMolIPBase::eResultSuccess, m_oConnection.Connect(m_oGateway));
    EXPECT_EQ(CMolIPBase::eStateConnected, m_oConnection.GetState());
    ASSERT_TRUE(m_oGateway.WaitForAccepted(2, kWaitMs));
    EXPECT_EQ(CMolIPBase::eResultSuccess, m_oConnection.Send(kSmall));
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
    EXPECT_EQ(ToHex(kSmall), ToHex(m_oGateway.GetFrames()[0]));
    ASSERT_TRUE(m_oGateway.Send(kSmall));
    EXPECT_EQ((std::vector<std::string>{kUp, kDown, kUp, kSmall}), m_oConnection.Log(4));
}

TEST_F(CConnectionTest, SendingWhileThePeerClosesNeverRaisesSigpipe)
{
    // Sends race the close: some reach a socket whose peer is gone. With SIGPIPE at
    // its default action a single unguarded send would end the program.
    std::thread closer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_oGateway.CloseClients();
    });
    const std::string frame = Hex("C6 00") + std::string(198, '\0');
    int result = CMolIPBase::eResultSuccess;
    auto start = std::chrono::steady_clock::now();
    while (result == CMolIPBase::eResultSuccess && ElapsedMs(start) < kWaitMs)
        result = m_oConnection.Send(frame);
    closer.join();
    EXPECT_NE(CMolIPBase::eResultSuccess, result);
}

// Two threads sharing one client's event must both look again on every signal,
// or one of them sleeps through the confirmation it waits for.
TEST(MolEvent, OneSignalWakesEveryWaiter)
{
    CMolEvent event;
    std::atomic<int> woken{0};
    std::atomic<long> tids[2] = {{0}, {0}};
    auto waiter = [&](int i) {
        tids[i] = ::syscall(SYS_gettid);
        if (event.Wait(kWaitMs))
            ++woken;
    };
    std::thread first(waiter, 0), second(waiter, 1);
    // Both threads asleep inside Wait before the single signal, seen a few times in a
    // row so that a short sleep on the way in does not count. The limit only ends a hang.
    int asleep = 0;
    for (auto start = std::chrono::steady_clock::now(); asleep < 5 && ElapsedMs(start) < kWaitMs / 2;
         std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        asleep = tids[0] != 0 && tids[1] != 0 && IsAsleep(tids[0]) && IsAsleep(tids[1]) ? asleep + 1 : 0;
    EXPECT_EQ(5, asleep);
    event.Signal();
    first.join();
    second.join();
    EXPECT_EQ(2, woken);
}
