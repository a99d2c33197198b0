// The simulator's server: ports and hosts, several clients, fault modes, and a clean
// stop while clients are connected.
#include "support/FakeGateway.h"

#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kInfo = 0x0309;
constexpr unsigned int kReadDigital = 0x0340;
constexpr unsigned int kWriteDigital = 0x0341;
constexpr unsigned int kDataReq = 0x0303;
constexpr unsigned int kSequence = 0x0314;

const char* const kInfoRequest = "05 00 09 03 02 00 08";
const char* const kInfoAnswer = "1A 00 09 83 02 00 00"
                                " F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00"
                                " B5";

// Polls cond until it holds or a generous limit passes (the limit only ends a hang).
template <typename F> bool Eventually(F cond)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!cond())
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A port on addr that was free a moment ago.
unsigned short FreePort(const char* addr)
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    ::inet_pton(AF_INET, addr, &sa.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa));
    socklen_t len = sizeof(sa);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    ::close(fd);
    return ntohs(sa.sin_port);
}

class SimServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, m_oServer.AddDevice(eTarvikSPI));
        ASSERT_TRUE(m_oServer.Start());
        ASSERT_TRUE(m_oClient.Connect("127.0.0.1", Port()));
    }

    unsigned short Port() const { return m_oServer.GetPort(eTarvikSPI); }

    CTarvikSimServer m_oServer;
    CTarvikSimRawClient m_oClient;
};
} // namespace

TEST(SimServerSetup, StandardPortsFollowTypeAndIndex)
{
    EXPECT_EQ(5002, CTarvikSimServer::GetStandardPort(eTarvikSPI));
    EXPECT_EQ(5202, CTarvikSimServer::GetStandardPort(eTarvikSPI, 2));
    EXPECT_EQ(5001, CTarvikSimServer::GetStandardPort(eTarvikCAN, 0));
    EXPECT_EQ(5116, CTarvikSimServer::GetStandardPort(eTarvikTestSystemRelay, 1));
}

TEST(SimServerSetup, ExplicitHostAndPort)
{
    // A loopback address of its own, as the C interface tests use with port 5002.
    const char* host = "127.0.0.93";
    unsigned short port = FreePort(host);
    ASSERT_NE(0, port);
    CTarvikSimServer server;
    ASSERT_EQ(0, server.AddDevice(eTarvikSPI, host, port)) << server.GetLastError();
    EXPECT_EQ(port, server.GetPort(eTarvikSPI));
    EXPECT_EQ(host, server.GetHost(eTarvikSPI));
    ASSERT_TRUE(server.Start());

    CTarvikSimRawClient client;
    ASSERT_TRUE(client.Connect(host, port));
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(client.Transact(Hex(kInfoRequest))));
    // Not on another loopback address.
    CTarvikSimRawClient elsewhere;
    EXPECT_FALSE(elsewhere.Connect("127.0.0.94", port, 500));
}

TEST(SimServerSetup, AddDeviceAndStartReportTheirErrors)
{
    CTarvikSimServer server;
    EXPECT_FALSE(server.Start()) << "nothing to emulate";
    EXPECT_EQ(EINVAL, server.AddDevice(eTarvikCAN)) << "no model of this type yet";
    EXPECT_EQ(EINVAL, server.AddDevice(eTarvikSPI, "no.such.host.invalid"));
    EXPECT_FALSE(server.GetLastError().empty());
    EXPECT_EQ(nullptr, server.GetDevice(eTarvikSPI));
    EXPECT_EQ(0, server.GetPort(eTarvikSPI));

    ASSERT_EQ(0, server.AddDevice(eTarvikSPI));
    EXPECT_EQ(EEXIST, server.AddDevice(eTarvikSPI));

    CTarvikSimServer second;
    EXPECT_EQ(EADDRINUSE, second.AddDevice(eTarvikSPI, "127.0.0.1", server.GetPort(eTarvikSPI)));

    ASSERT_TRUE(server.Start());
    EXPECT_TRUE(server.Start()) << "a second Start is harmless";
    EXPECT_EQ(EBUSY, server.AddDevice(eTarvikSPI, "127.0.0.1", 0));
    server.Stop();
    EXPECT_FALSE(server.IsRunning());
    EXPECT_FALSE(server.Start()) << "a stopped server stays stopped";
    server.Stop();
}

TEST(SimServerSetup, StopWithoutStartReleasesThePort)
{
    unsigned short port = 0;
    {
        CTarvikSimServer server;
        ASSERT_EQ(0, server.AddDevice(eTarvikSPI));
        port = server.GetPort(eTarvikSPI);
    }
    CTarvikSimServer again;
    EXPECT_EQ(0, again.AddDevice(eTarvikSPI, "127.0.0.1", port));
}

TEST_F(SimServer, SeveralClientsAtOnceEachGetTheirOwnAnswers)
{
    auto* spi = dynamic_cast<CTarvikSimDeviceSPI*>(m_oServer.GetDevice(eTarvikSPI));
    ASSERT_NE(nullptr, spi);
    constexpr int kClients = 8;
    constexpr int kRounds = 200;
    // Each client reads its own EEPROM page, marked with its number.
    for (int c = 0; c < kClients; ++c)
        spi->PokeEeprom(0x100 * c, std::string(8, static_cast<char>(0xC0 + c)));

    std::vector<std::thread> threads;
    std::vector<int> failures(kClients, 0);
    for (int c = 0; c < kClients; ++c)
        threads.emplace_back(
            [this, c, &failures]
            {
                CTarvikSimRawClient client;
                if (!client.Connect("127.0.0.1", Port()))
                {
                    failures[c] = kRounds;
                    return;
                }
                std::string read = Frame({0x03, c, 0x00}) + std::string(8, '\0');
                std::string expected = Hex("00 FF FF FF") + std::string(8, static_cast<char>(0xC0 + c));
                for (int i = 0; i < kRounds; ++i)
                {
                    int id = c * 1000 + i;
                    if (client.Transact(Telegram(kDataReq, id, read)) != Cnf(kDataReq, id, expected))
                        ++failures[c];
                }
            });
    for (auto& thread : threads)
        thread.join();
    for (int c = 0; c < kClients; ++c)
        EXPECT_EQ(0, failures[c]) << "client " << c;
    EXPECT_GE(m_oServer.GetDevice(eTarvikSPI)->GetRequestCount(), static_cast<unsigned long>(kClients * kRounds));
}

TEST_F(SimServer, StopEndsConnectedAndWaitingClients)
{
    CTarvikSimRawClient idle;
    CTarvikSimRawClient waiting;
    ASSERT_TRUE(idle.Connect("127.0.0.1", Port()));
    ASSERT_TRUE(waiting.Connect("127.0.0.1", Port()));
    ASSERT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.Transact(Hex(kInfoRequest))));
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 3; }));

    // One request is held back by a long answer delay when the server stops.
    m_oServer.SetAnswerDelay(60000);
    ASSERT_TRUE(waiting.Send(Hex(kInfoRequest)));
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetDevice(eTarvikSPI)->GetRequestCount() == 2; }));
    m_oServer.Stop();

    EXPECT_FALSE(m_oServer.IsRunning());
    EXPECT_EQ(0u, m_oServer.GetConnectionCount());
    for (CTarvikSimRawClient* client : {&idle, &waiting, &m_oClient})
    {
        EXPECT_EQ("", client->ReceiveFrame(5000));
        EXPECT_TRUE(client->IsPeerClosed());
    }
    CTarvikSimRawClient late;
    EXPECT_FALSE(late.Connect("127.0.0.1", Port(), 500));
}

TEST_F(SimServer, DelayedAnswerArrivesLate)
{
    m_oServer.SetAnswerDelay(300);
    EXPECT_EQ(300u, m_oServer.GetAnswerDelay());
    ASSERT_TRUE(m_oClient.Send(Hex(kInfoRequest)));
    EXPECT_EQ("", m_oClient.ReceiveFrame(50)) << "answered before its delay";
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.ReceiveFrame(5000)));
    m_oServer.SetAnswerDelay(0);
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.Transact(Hex(kInfoRequest))));
}

TEST_F(SimServer, SilentDeviceActsButDoesNotAnswer)
{
    m_oServer.SetFault(eTarvikSimFaultSilent);
    EXPECT_EQ(eTarvikSimFaultSilent, m_oServer.GetFault());
    EXPECT_EQ("", m_oClient.Transact(Telegram(kWriteDigital, 1, LE32(0x600D)), 200));
    EXPECT_FALSE(m_oClient.IsPeerClosed());
    EXPECT_EQ(0x600Du, m_oServer.GetDevice(eTarvikSPI)->GetDigitalOutputs());

    m_oServer.SetFault(eTarvikSimFaultNone);
    EXPECT_EQ(ToHex(Cnf(kReadDigital, 2, Hex("00") + LE32(0xA55A) + LE32(0x600D))),
              ToHex(m_oClient.Transact(Telegram(kReadDigital, 2, ""))));
}

TEST_F(SimServer, CorruptAnswersOnDemand)
{
    // The good answer with its check byte inverted (0xB5 -> 0x4A).
    m_oServer.SetFault(eTarvikSimFaultBadCRC);
    EXPECT_EQ(ToHex(Hex("1A 00 09 83 02 00 00"
                        " F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00"
                        " 4A")),
              ToHex(m_oClient.Transact(Hex(kInfoRequest))));

    // Command number one higher (0x8309 -> 0x830A), check byte right for it.
    m_oServer.SetFault(eTarvikSimFaultWrongCmd);
    std::string answer = m_oClient.Transact(Hex(kInfoRequest));
    EXPECT_EQ(ToHex(Cnf(0x030A, 2, FrameData(Hex(kInfoAnswer)))), ToHex(answer));

    m_oServer.SetFault(eTarvikSimFaultNone);
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.Transact(Hex(kInfoRequest))));
}

TEST_F(SimServer, CloseFaultDropsTheConnectionButKeepsListening)
{
    m_oServer.SetFault(eTarvikSimFaultClose);
    EXPECT_EQ("", m_oClient.Transact(Hex(kInfoRequest)));
    EXPECT_TRUE(m_oClient.IsPeerClosed());
    EXPECT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 0; }));

    m_oServer.SetFault(eTarvikSimFaultNone);
    CTarvikSimRawClient next;
    ASSERT_TRUE(next.Connect("127.0.0.1", Port()));
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(next.Transact(Hex(kInfoRequest))));
}

TEST_F(SimServer, CloseConnectionsDropsEveryClient)
{
    CTarvikSimRawClient second;
    ASSERT_TRUE(second.Connect("127.0.0.1", Port()));
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 2; }));

    m_oServer.CloseConnections();
    for (CTarvikSimRawClient* client : {&m_oClient, &second})
    {
        EXPECT_EQ("", client->ReceiveFrame(5000));
        EXPECT_TRUE(client->IsPeerClosed());
    }
    EXPECT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 0; }));

    ASSERT_TRUE(m_oClient.Connect("127.0.0.1", Port()));
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.Transact(Hex(kInfoRequest))));
    EXPECT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 1; }));
}

TEST_F(SimServer, ClientsComingAndGoingAreCleanedUp)
{
    for (int i = 0; i < 50; ++i)
    {
        CTarvikSimRawClient client;
        ASSERT_TRUE(client.Connect("127.0.0.1", Port()));
        ASSERT_EQ(ToHex(Cnf(kInfo, i, FrameData(Hex(kInfoAnswer)))), ToHex(client.Transact(Telegram(kInfo, i, ""))));
    }
    EXPECT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 1; }));
}

TEST_F(SimServer, ClientVanishingMidFrameOrUnreadLeavesTheServerWell)
{
    {
        CTarvikSimRawClient half;
        ASSERT_TRUE(half.Connect("127.0.0.1", Port()));
        ASSERT_TRUE(half.Send(Hex("FF FF 09 03 02 00") + std::string(1000, '\0')));
    }
    {
        // Many requests whose answers are never read: the server's writes back up.
        CTarvikSimRawClient greedy;
        ASSERT_TRUE(greedy.Connect("127.0.0.1", Port()));
        // Sequences of one READ of 65529 bytes: 10-byte requests, 64 KiB answers.
        std::string burst;
        for (int i = 0; i < 100; ++i)
            burst += Telegram(kSequence, i, Hex("04 F9 FF"));
        ASSERT_TRUE(greedy.Send(burst));
    }
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.Transact(Hex(kInfoRequest))));
    EXPECT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 1; }));
}
