// Telegrams a simulated device sends unasked: order against the answers, streaming at
// the pace of the reader, and posts to a connection that has ended. The connection runs
// on one end of a socket pair; the test reads the other end frame by frame.
#include "support/FakeGateway.h"
#include "support/Wait.h"

#include "sim/TarvikSimConnection.h"
#include "sim/TarvikSimDevice.h"

#include <gtest/gtest.h>

#include <atomic>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kPush = 0x0550;       // answers, then indicates three times
constexpr unsigned int kIndication = 0x0551; // what it indicates

// A digital gateway with one extra command that indicates to its requester.
class CPushDevice : public CTarvikSimDevice
{
public:
    CPushDevice() : CTarvikSimDevice(eTarvikDIO, 0) {}
    std::atomic<int> m_nAttached{0};
    std::atomic<int> m_nDetached{0};

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override
    {
        if (cmd != (kPush & 0xFF))
            return false;
        for (short i = 1; i <= 3; ++i)
            IndicateTo(GetRequester(), CTarvikMsg(kIndication, i, std::string(data)));
        answer = Answer(eResultOk);
        return true;
    }
    void OnAttach(unsigned long) override { ++m_nAttached; }
    void OnDetach(unsigned long) override { ++m_nDetached; }
};

// The test's end of the socket pair: whole frames, with a time-out.
class CFrameReader
{
public:
    explicit CFrameReader(int fd) : m_nFd(fd) {}
    std::string Next(int timeoutMs = 5000)
    {
        while (m_sPending.size() < 2 || m_sPending.size() < Size())
        {
            pollfd pfd{m_nFd, POLLIN, 0};
            char buf[65536];
            if (::poll(&pfd, 1, timeoutMs) <= 0)
                return std::string();
            ssize_t got = ::recv(m_nFd, buf, sizeof(buf), 0);
            if (got <= 0)
                return std::string();
            m_sPending.append(buf, static_cast<size_t>(got));
        }
        std::string frame = m_sPending.substr(0, Size());
        m_sPending.erase(0, frame.size());
        return frame;
    }

private:
    size_t Size() const
    {
        return 2 + (static_cast<unsigned char>(m_sPending[0]) | static_cast<unsigned char>(m_sPending[1]) << 8);
    }
    int m_nFd;
    std::string m_sPending;
};

class SimUnasked : public ::testing::Test
{
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        m_nPeer = fds[1];
        m_pConnection = std::make_unique<CTarvikSimConnection>(fds[0], m_oDevice, m_oFaults);
        m_pConnection->Start();
    }
    void TearDown() override
    {
        m_pConnection.reset();
        if (m_nPeer >= 0)
            ::close(m_nPeer);
    }
    void Send(const std::string& frame)
    {
        ASSERT_EQ(ssize_t(frame.size()), ::send(m_nPeer, frame.data(), frame.size(), 0));
    }

    STarvikSimFaults m_oFaults;
    CPushDevice m_oDevice;
    std::unique_ptr<CTarvikSimConnection> m_pConnection;
    int m_nPeer = -1;
};
} // namespace

TEST_F(SimUnasked, WhatARequestIndicatesFollowsItsAnswer)
{
    EXPECT_EQ(1, m_oDevice.m_nAttached.load());
    EXPECT_EQ(1u, m_oDevice.GetConnectionCount());
    CFrameReader reader(m_nPeer);
    for (std::string data : {"ab", "cd"})
    {
        Send(Telegram(kPush, 7, data));
        EXPECT_EQ(ToHex(Cnf(kPush, 7, Frame({0}))), ToHex(reader.Next()));
        for (int i = 1; i <= 3; ++i)
            EXPECT_EQ(ToHex(Telegram(kIndication, i, data)), ToHex(reader.Next()));
    }
}

TEST_F(SimUnasked, AStreamGoesAtTheReadersPaceAndAnswersStayWhole)
{
    unsigned long connection = m_pConnection->GetId();
    // 20 MB: five times what the outbox holds.
    constexpr int kCount = 20000;
    const std::string payload(1000, 'p');
    std::thread streamer([&] {
        for (int i = 0; i < kCount; ++i)
            if (!m_oDevice.IndicateToWait(connection,
                                          CTarvikMsg(kIndication, static_cast<short>(i), std::string(payload))))
                return;
    });
    // The reader starts late: the box fills, and the streamer waits instead of dropping.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    CFrameReader reader(m_nPeer);
    Send(Telegram(kPush, 0x7777, ""));
    int next = 0;
    int answers = 0;
    int pushed = 0;
    while (next < kCount)
    {
        std::string frame = reader.Next();
        if (frame == Cnf(kPush, 0x7777, Frame({0})))
            ++answers;
        else if (pushed < 3 && frame == Telegram(kIndication, pushed + 1, ""))
            ++pushed;
        else if (frame == Telegram(kIndication, static_cast<short>(next), payload))
            ++next;
        else
            break;
    }
    EXPECT_EQ(kCount, next) << "the stream broke off or came out of order";
    // Ends the connection, which releases a streamer still waiting for room.
    m_pConnection.reset();
    streamer.join();
    EXPECT_EQ(1, answers);
    EXPECT_EQ(3, pushed);
}

TEST_F(SimUnasked, PostsToAnEndedConnectionFailAndDoNotWait)
{
    unsigned long connection = m_pConnection->GetId();
    std::atomic<bool> stopped{false};
    // Nobody reads: the streamer fills the box and waits for room...
    std::thread streamer([&] {
        while (m_oDevice.IndicateToWait(connection, CTarvikMsg(kIndication, 1, std::string(1000, 'x'))))
        {
        }
        stopped = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // ...until the peer goes away.
    ::close(m_nPeer);
    m_nPeer = -1;
    streamer.join();
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(Eventually([this] { return m_oDevice.m_nDetached.load() != 0; }));
    EXPECT_EQ(1, m_oDevice.m_nDetached.load());
    EXPECT_EQ(0u, m_oDevice.GetConnectionCount());
    EXPECT_FALSE(m_oDevice.IndicateTo(connection, CTarvikMsg(kIndication, 2, "")));
    EXPECT_FALSE(m_oDevice.Indicate(CTarvikMsg(kIndication, 3, "")));
}
