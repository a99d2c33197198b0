// The runtime: the TCP connection with its receive thread and frame cutting,
// events, mutexes, threads, time values and text helpers.
#include "support/FakeGateway.h"

#include "tarvik/runtime/MolFile.h"
#include "tarvik/runtime/MolIPConnection.h"
#include "tarvik/runtime/MolString.h"
#include "tarvik/runtime/MolSync.h"
#include "tarvik/runtime/MolTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kWaitMs = 5000;

int64_t ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

// Records what the receive thread delivers.
class CRecordingConnection : public CMolIPConnection
{
public:
    CRecordingConnection() : m_bDisconnectOnData(false) {}
    ~CRecordingConnection() override { Shutdown(); }

    int Connect(const CFakeGateway& gw, unsigned int timeoutMs = 2000)
    {
        return ConnectReq(gw.GetAddress().c_str(), gw.GetPort(), timeoutMs, 3, CMolIPBase::eProtocolTarvik,
                          std::string(), true);
    }

    bool WaitForBlocks(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return m_asBlocks.size() >= count; });
    }

    bool WaitForIndications(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return m_abConnectInd.size() >= count; });
    }

    std::vector<std::string> Blocks()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_asBlocks;
    }

    std::vector<bool> Indications()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_abConnectInd;
    }

    std::vector<unsigned short> Lengths()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_anLengths;
    }

    std::atomic<bool> m_bDisconnectOnData;

protected:
    void DataInd(const char* data, unsigned short len) override
    {
        if (m_bDisconnectOnData)
            DisconnectReq(100);
        std::lock_guard<std::mutex> lock(m_oMutex);
        // A block cut to 16 bits says less than it carries; keep what it says.
        m_asBlocks.emplace_back(data, len);
        m_anLengths.push_back(len);
        m_oChanged.notify_all();
    }

    void ConnectInd(bool connected) override
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_abConnectInd.push_back(connected);
        m_oChanged.notify_all();
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<std::string> m_asBlocks;
    std::vector<unsigned short> m_anLengths;
    std::vector<bool> m_abConnectInd;
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

    CFakeGateway m_oGateway;
    CRecordingConnection m_oConnection;
};
} // namespace

TEST(MolIPConnection, ConnectTimesOutWhereNothingAnswers)
{
    CFakeGateway silent;
    ASSERT_TRUE(silent.Start("127.0.0.1", 0, CFakeGateway::eModeSilent));
    CRecordingConnection connection;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CMolIPBase::eResultTimeout, connection.Connect(silent, 200));
    int64_t elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 180);
    EXPECT_LT(elapsed, 10000);
    EXPECT_NE(CMolIPBase::eStateConnected, connection.GetState());
    EXPECT_TRUE(connection.Indications().empty());
}

TEST(MolIPConnection, RefusedConnectionIsNotConnected)
{
    CFakeGateway refusing;
    ASSERT_TRUE(refusing.Start("127.0.0.1", 0, CFakeGateway::eModeRefuse));
    CRecordingConnection connection;
    EXPECT_EQ(CMolIPBase::eResultNotConnected, connection.Connect(refusing));
    EXPECT_NE(CMolIPBase::eStateConnected, connection.GetState());
    EXPECT_TRUE(connection.Indications().empty());
}

TEST(MolIPConnection, MissingHostIsASocketError)
{
    CRecordingConnection connection;
    EXPECT_EQ(CMolIPBase::eResultSocketError,
              connection.ConnectReq(nullptr, 5002, 100, 3, CMolIPBase::eProtocolTarvik, std::string(), true));
}

TEST(MolIPConnection, NeverConnectedRefusesToSendOrDisconnect)
{
    CRecordingConnection connection;
    EXPECT_EQ(CMolIPBase::eResultNotConnected, connection.DataReq("\x05\x00", 2, 100));
    EXPECT_EQ(CMolIPBase::eResultNotConnected, connection.DisconnectReq(100));
}

TEST_F(CConnectionTest, ConnectReportsTheStateAndIndication)
{
    EXPECT_EQ(CMolIPBase::eStateConnected, m_oConnection.GetState());
    ASSERT_TRUE(m_oConnection.WaitForIndications(1));
    EXPECT_EQ(std::vector<bool>{true}, m_oConnection.Indications());
}

TEST_F(CConnectionTest, SendsTheFrameAsGiven)
{
    const std::string frame = Hex("05 00 0C 03 02 00 0D");
    EXPECT_EQ(CMolIPBase::eResultSuccess,
              m_oConnection.DataReq(frame.data(), static_cast<unsigned short>(frame.size()), 1000));
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
    EXPECT_EQ(ToHex(frame), ToHex(m_oGateway.GetFrames()[0]));
}

TEST_F(CConnectionTest, FrameSplitOverSeveralWritesArrivesWhole)
{
    const std::string frame = Hex("08 00 03 83 02 00 00 11 22 B1");
    // Split inside the length prefix, inside the header and inside the data.
    ASSERT_TRUE(
        m_oGateway.SendParts({frame.substr(0, 1), frame.substr(1, 3), frame.substr(4, 4), frame.substr(8)}, 30));
    ASSERT_TRUE(m_oConnection.WaitForBlocks(1));
    // One byte at a time.
    std::vector<std::string> bytes;
    for (char c : frame)
        bytes.emplace_back(1, c);
    ASSERT_TRUE(m_oGateway.SendParts(bytes, 5));
    ASSERT_TRUE(m_oConnection.WaitForBlocks(2));
    std::vector<std::string> blocks = m_oConnection.Blocks();
    ASSERT_EQ(2u, blocks.size());
    EXPECT_EQ(ToHex(frame), ToHex(blocks[0]));
    EXPECT_EQ(ToHex(frame), ToHex(blocks[1]));
}

TEST_F(CConnectionTest, SeveralFramesInOneWriteArriveOneByOneInOrder)
{
    const std::string a = Hex("05 00 0C 83 02 00 8D");
    const std::string b = Hex("06 00 03 03 FE FF AA AB");
    // A block whose length field is 0 is cut as a block of two bytes.
    const std::string empty = Hex("00 00");
    const std::string c = Hex("08 00 03 83 02 00 00 11 22 B1");
    // The last frame starts in the first write and ends in the second.
    ASSERT_TRUE(m_oGateway.SendParts({a + b + empty + c.substr(0, 5), c.substr(5)}, 30));
    ASSERT_TRUE(m_oConnection.WaitForBlocks(4));
    std::vector<std::string> blocks = m_oConnection.Blocks();
    ASSERT_EQ(4u, blocks.size());
    EXPECT_EQ(ToHex(a), ToHex(blocks[0]));
    EXPECT_EQ(ToHex(b), ToHex(blocks[1]));
    EXPECT_EQ(ToHex(empty), ToHex(blocks[2]));
    EXPECT_EQ(ToHex(c), ToHex(blocks[3]));
}

TEST_F(CConnectionTest, FramesLargerThanTheFirstBufferArriveWhole)
{
    // Around and far beyond the initial 4 KiB up to the largest block whose size
    // fits the 16-bit length of DataInd, each followed by a small frame in the same
    // write so that the rest is kept across the buffer's growth.
    const std::string small = Hex("05 00 0C 83 02 00 8D");
    std::vector<std::string> expected;
    for (size_t size : {4089u, 4090u, 4091u, 8200u, 65000u, 65528u})
    {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<char>(i * 7 + size);
        std::string big = Telegram(0x8303, static_cast<int>(size), data);
        ASSERT_TRUE(m_oGateway.Send(big + small));
        expected.push_back(big);
        expected.push_back(small);
    }
    ASSERT_TRUE(m_oConnection.WaitForBlocks(expected.size()));
    std::vector<std::string> blocks = m_oConnection.Blocks();
    ASSERT_EQ(expected.size(), blocks.size());
    for (size_t i = 0; i < expected.size(); ++i)
    {
        EXPECT_EQ(expected[i].size(), blocks[i].size()) << i;
        EXPECT_TRUE(expected[i] == blocks[i]) << i;
    }
}

TEST_F(CConnectionTest, BlockOfMaximalLengthIsCutToSixteenBitsAndTheStreamStaysInStep)
{
    // Length field 0xFFFF: 65537 bytes, delivered with its length cut to 16 bits.
    std::string huge = Hex("FF FF") + std::string(65535, '\x11');
    const std::string small = Hex("05 00 0C 83 02 00 8D");
    ASSERT_TRUE(m_oGateway.Send(huge + small));
    ASSERT_TRUE(m_oConnection.WaitForBlocks(2));
    std::vector<unsigned short> lengths = m_oConnection.Lengths();
    ASSERT_EQ(2u, lengths.size());
    EXPECT_EQ(1u, lengths[0]);
    EXPECT_EQ(ToHex(small), ToHex(m_oConnection.Blocks()[1]));
}

TEST_F(CConnectionTest, PeerCloseIsReportedAndEndsTheConnection)
{
    m_oGateway.CloseClients();
    ASSERT_TRUE(m_oConnection.WaitForIndications(2));
    EXPECT_EQ((std::vector<bool>{true, false}), m_oConnection.Indications());
    EXPECT_NE(CMolIPBase::eStateConnected, m_oConnection.GetState());
    // Sending now is an error, not a SIGPIPE.
    EXPECT_EQ(CMolIPBase::eResultNotConnected, m_oConnection.DataReq("\x05\x00\x0C\x03\x02\x00\x0D", 7, 100));
}

TEST_F(CConnectionTest, SendingWhileThePeerClosesNeverRaisesSigpipe)
{
    // Sends race the close: some reach a socket whose peer is gone. With
    // SIGPIPE at its default action a single unguarded send would end the program.
    std::thread closer(
        [this]
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            m_oGateway.CloseClients();
        });
    const std::string frame = Hex("C6 00") + std::string(198, '\0');
    int result = CMolIPBase::eResultSuccess;
    auto start = std::chrono::steady_clock::now();
    while (result == CMolIPBase::eResultSuccess && ElapsedMs(start) < kWaitMs)
        result = m_oConnection.DataReq(frame.data(), static_cast<unsigned short>(frame.size()), 1000);
    closer.join();
    EXPECT_NE(CMolIPBase::eResultSuccess, result);
}

TEST_F(CConnectionTest, DisconnectEndsTheConnectionAndItCanConnectAgain)
{
    EXPECT_EQ(CMolIPBase::eResultSuccess, m_oConnection.DisconnectReq(1000));
    EXPECT_NE(CMolIPBase::eStateConnected, m_oConnection.GetState());
    EXPECT_EQ((std::vector<bool>{true, false}), m_oConnection.Indications());
    ASSERT_TRUE(m_oGateway.WaitForPeerClosed(1, kWaitMs));
    EXPECT_EQ(CMolIPBase::eResultNotConnected, m_oConnection.DisconnectReq(1000));

    ASSERT_EQ(CMolIPBase::eResultSuccess, m_oConnection.Connect(m_oGateway));
    EXPECT_EQ(CMolIPBase::eStateConnected, m_oConnection.GetState());
    ASSERT_TRUE(m_oGateway.WaitForAccepted(2, kWaitMs));
    const std::string frame = Hex("05 00 0C 83 02 00 8D");
    ASSERT_TRUE(m_oGateway.Send(frame));
    ASSERT_TRUE(m_oConnection.WaitForBlocks(1));
    EXPECT_EQ(ToHex(frame), ToHex(m_oConnection.Blocks()[0]));
}

TEST_F(CConnectionTest, ConnectsAgainAfterThePeerClosed)
{
    m_oGateway.CloseClients();
    ASSERT_TRUE(m_oConnection.WaitForIndications(2));
    ASSERT_EQ(CMolIPBase::eResultSuccess, m_oConnection.Connect(m_oGateway));
    ASSERT_TRUE(m_oConnection.WaitForIndications(3));
    EXPECT_EQ((std::vector<bool>{true, false, true}), m_oConnection.Indications());
    const std::string frame = Hex("05 00 0C 03 02 00 0D");
    EXPECT_EQ(CMolIPBase::eResultSuccess, m_oConnection.DataReq(frame.data(), 7, 1000));
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
}

TEST_F(CConnectionTest, DisconnectFromTheReceiveThreadDoesNotDeadlock)
{
    m_oConnection.m_bDisconnectOnData = true;
    ASSERT_TRUE(m_oGateway.Send(Hex("05 00 0C 83 02 00 8D")));
    ASSERT_TRUE(m_oConnection.WaitForIndications(2));
    EXPECT_NE(CMolIPBase::eStateConnected, m_oConnection.GetState());
    ASSERT_TRUE(m_oGateway.WaitForPeerClosed(1, kWaitMs));
}

// ---------------------------------------------------------------- sync

TEST(MolEvent, SignalIsKeptUntilAWaitTakesIt)
{
    CMolEvent event;
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    EXPECT_TRUE(event.Wait(0));
    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(MolEvent, WaitEndsOnSignalFromAnotherThreadOrAfterItsTime)
{
    CMolEvent event;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.Wait(100));
    EXPECT_GE(ElapsedMs(start), 90);

    std::thread signaller(
        [&]
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            event.Signal();
        });
    start = std::chrono::steady_clock::now();
    EXPECT_TRUE(event.Wait(kWaitMs));
    EXPECT_LT(ElapsedMs(start), kWaitMs);
    signaller.join();
}

// Two threads sharing one client's event must both look again on every signal,
// or one of them sleeps through the confirmation it waits for.
TEST(MolEvent, OneSignalWakesEveryWaiter)
{
    CMolEvent event;
    std::atomic<int> woken{0};
    std::atomic<int> waiting{0};
    auto waiter = [&]
    {
        ++waiting;
        if (event.Wait(kWaitMs))
            ++woken;
    };
    std::thread first(waiter);
    std::thread second(waiter);
    while (waiting < 2)
        std::this_thread::yield();
    // Both threads are inside Wait (or about to be) before the single signal.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    event.Signal();
    first.join();
    second.join();
    EXPECT_EQ(woken, 2);
}

TEST(MolMutex, LockWithTimeOutFailsWhileAnotherThreadHoldsIt)
{
    CMolMutex mutex;
    ASSERT_TRUE(mutex.Lock(0xFFFFFFFFu));
    bool taken = true;
    std::thread other([&] { taken = mutex.Lock(50); });
    other.join();
    EXPECT_FALSE(taken);
    mutex.Unlock();
    std::thread again(
        [&]
        {
            taken = mutex.Lock(1000);
            if (taken)
                mutex.Unlock();
        });
    again.join();
    EXPECT_TRUE(taken);
}

namespace
{
class CPollingThread : public CMolThread
{
public:
    CPollingThread() : m_nRounds(0) {}
    ~CPollingThread() override { Terminate(); }
    std::atomic<int> m_nRounds;

protected:
    void Run() override
    {
        while (!IsTerminationRequested())
        {
            ++m_nRounds;
            Sleep(0, 1);
        }
    }
};
} // namespace

TEST(MolThread, RunsUntilTerminatedAndCanStartAgain)
{
    CPollingThread thread;
    ASSERT_TRUE(thread.Initialize());
    ASSERT_TRUE(thread.Start());
    auto start = std::chrono::steady_clock::now();
    while (thread.m_nRounds < 3 && ElapsedMs(start) < kWaitMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_FALSE(thread.IsTerminationRequested());
    thread.Terminate();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.IsTerminationRequested());

    int rounds = thread.m_nRounds;
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(thread.IsTerminationRequested());
    start = std::chrono::steady_clock::now();
    while (thread.m_nRounds == rounds && ElapsedMs(start) < kWaitMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GT(thread.m_nRounds, rounds);
    thread.Terminate();
}

// ---------------------------------------------------------------- time

TEST(MolTime, SpansAddUpAndKeepTheirSign)
{
    CMolTimeDiff span(1, 2, 3, 4, 5, 6, 7);
    EXPECT_EQ(((24 + 2) * 60 + 3) * 60000LL + 4005, span.GetTotalMilliSeconds());
    EXPECT_EQ((((24 + 2) * 60 + 3) * 60000LL + 4005) * 1000 + 6, span.GetTotalMicroSeconds());
    EXPECT_EQ(-1500, CMolTimeDiff(0, 0, 0, -1, -500).GetTotalMilliSeconds());
}

TEST(MolTime, DifferenceOrderAndArithmeticOfPointsInTime)
{
    CMolLocalTime a(1000, 0);
    CMolLocalTime b(1002, 500000000);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_EQ(2500, (b - a).GetTotalMilliSeconds());
    EXPECT_EQ(-2500000, (a - b).GetTotalMicroSeconds());

    b.SubTime(0, 0, 0, 2, 500, 0, 0);
    EXPECT_EQ(0, (b - a).GetTotalMilliSeconds());
    a += CMolTimeDiff(0, 0, 1);
    EXPECT_EQ(60000, (a - b).GetTotalMilliSeconds());

    CMolLocalTime empty(0, 0);
    EXPECT_TRUE(empty.IsEmpty());
    CMolLocalTime now(0, 0);
    now.CurrentLocalTime();
    CMolUTCTime utc;
    utc.CurrentUTCTime();
    EXPECT_LT(std::llabs((utc - now).GetTotalMilliSeconds()), 5000);
}

TEST(MolTime, ParsesDeviceTimeTexts)
{
    CMolLocalTime iso("2023-12-31 23:59:58.250", CMolUTCTime::eFormatISO);
    CMolLocalTime isoT("2024-01-01T00:00:01", CMolUTCTime::eFormatISO);
    CMolLocalTime german("01.01.2024 00:00:01.5", CMolUTCTime::eFormatGerman);
    ASSERT_FALSE(iso.IsEmpty());
    ASSERT_FALSE(isoT.IsEmpty());
    ASSERT_FALSE(german.IsEmpty());
    EXPECT_EQ(2750, (isoT - iso).GetTotalMilliSeconds());
    EXPECT_EQ(500, (german - isoT).GetTotalMilliSeconds());
    EXPECT_EQ("2023-12-31 23:59:58.250000", iso.ToString());

    EXPECT_TRUE(CMolLocalTime("yesterday", CMolUTCTime::eFormatISO).IsEmpty());
    EXPECT_TRUE(CMolLocalTime("2023-13-01 00:00:00", CMolUTCTime::eFormatISO).IsEmpty());
    EXPECT_TRUE(CMolLocalTime("2023-12-31 23:59:58", CMolUTCTime::eFormatGerman).IsEmpty());
}

// ---------------------------------------------------------------- text and files

TEST(MolString, TrimRemovesWhiteSpaceAtBothEndsOnly)
{
    const char* const cases[][2] = {
        {"", ""},
        {"   ", ""},
        {"abc", "abc"},
        {" \t\r\n\v\fabc", "abc"},
        {"abc \t\r\n", "abc"},
        {"  a b\tc  ", "a b\tc"},
        {":10000000\r\n", ":10000000"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c[1], MolStrTrim(c[0])) << "'" << c[0] << "'";
    EXPECT_EQ("", MolStrTrim(static_cast<const char*>(nullptr)));
    EXPECT_EQ("a", MolStrTrim(std::string("\0 a \0", 5)));
}

TEST(MolString, DumpLineShowsOffsetHexAndText)
{
    const char data[] = "ABCDEFGHIJKLMNOPQ\x01";
    EXPECT_EQ("00000000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP",
              MolMemDumpLine(data, 18, 0));
    EXPECT_EQ("00000010: 51 01" + std::string(14u * 3, ' ') + "  Q.", MolMemDumpLine(data, 18, 16));
    EXPECT_EQ("", MolMemDumpLine(data, 18, 18));
    EXPECT_EQ("32", MolToString(32));
    EXPECT_EQ("-65281", MolToString(-65281));
}

TEST(MolFile, StatusOfAnExistingAndAMissingFile)
{
    char path[] = "/tmp/tarvik_runtime_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "hello", 5));
    close(fd);
    CMolFileStatus status;
    EXPECT_TRUE(CMolFile::GetStatus(path, status));
    EXPECT_TRUE(status.m_bExists);
    EXPECT_TRUE(status.m_bRegular);
    EXPECT_EQ(5u, status.m_nSize);
    std::remove(path);
    EXPECT_FALSE(CMolFile::GetStatus(path, status));
    EXPECT_FALSE(status.m_bExists);
    EXPECT_FALSE(CMolFile::GetStatus(nullptr, status));
}
