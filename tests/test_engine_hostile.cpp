// The engine against a hostile gateway and a careless application: clients destroyed
// under a flood, a disconnect from the connect report, answers nobody asked for,
// stalled and garbled streams, trace sinks swapped while telegrams arrive.
#include "support/FakeGateway.h"
#include "support/ProbeClient.h"
#include "support/Wait.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientCAN.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/core/TarvikClient.h"
#include "tarvik/dll/DeviceManager.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 500;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways on fixed ports (127.0.44.x).
constexpr unsigned char kLoopbackNet = 44;
// How much later than its time-out a call may return.
constexpr auto kLateness = std::chrono::milliseconds(1000);

using CClock = std::chrono::steady_clock;

// Indications and unsolicited confirmations, with ids no request of these tests uses.
std::string FloodTelegrams(size_t count, size_t dataLen)
{
    std::string raw;
    for (size_t i = 0; i < count; ++i)
    {
        int id = -1 - static_cast<int>(i % 20000);
        std::string data(dataLen, static_cast<char>(i));
        raw += (i % 2 == 0) ? Telegram(0x0303, id, data) : Cnf(0x0303, id, data);
    }
    return raw;
}

// Received CAN frames and CANopen events, for the clients that queue them or call back.
std::string CANIndications(size_t count)
{
    std::string raw;
    for (size_t i = 0; i < count; ++i)
    {
        raw += Telegram(0x0203, 0, LE32(static_cast<unsigned int>(i)) + Frame({0x04}) + std::string(16, 'c'));
        raw += Telegram(0x0264 + (i % 3) * 4, 0, std::string(12, static_cast<char>(i)));
    }
    return raw;
}

void CountCANFrame(unsigned int, const char*, int, int, int) {}

// A client of an application's own that keeps what its indications say.
class CKeepingClient : public CTarvikClientSPI
{
public:
    explicit CKeepingClient(int timeout) : CTarvikClientSPI(timeout) { m_asSeen.reserve(16); }
    ~CKeepingClient() override { StopConnection(); }
    bool DataIndRespond(CTarvikMsg* msg) override
    {
        if (m_asSeen.size() == m_asSeen.capacity())
            m_asSeen.clear();
        m_asSeen.push_back(msg->GetData());
        return false;
    }
    void ConInd(bool connected) override { m_asSeen.push_back(connected ? "up" : "down"); }

private:
    std::vector<std::string> m_asSeen;
};

class CHostileTest : public CProbeFixture<kTimeoutMs>
{
protected:
    int Transact(const std::string& data = std::string()) { return m_oClient.Transact(0x0303, data, m_pCnf); }
    static bool WaitForState(CTarvikClient& client, int state)
    {
        return Eventually([&] { return client.GetConnectState() == state; });
    }
};
} // namespace

// ---------------------------------------------------------------- lifetime

TEST(HostileLifetime, EveryClientClassIsDestroyedSafelyWhileTelegramsArrive)
{
    const unsigned long lateBefore = CTarvikClient::GetLateStopCount();
    const std::string flood = FloodTelegrams(64, 24) + CANIndications(32);
    // A client connected to a gateway that floods it, destroyed by end() in the middle.
    // Whole writes keep the stream in step, so that the queues fill.
    auto underFlood = [&](CFakeGateway& gateway, size_t accepted, const std::function<void()>& end,
                          CFlood::EWrite write = CFlood::eCut) {
        ASSERT_TRUE(gateway.WaitForAccepted(accepted, kWaitMs)) << accepted;
        CFlood running(gateway, flood, write);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        end();
    };
    // An application's own class with members its overrides use, the CAN client of the
    // object layer, which the registry does not create, and the queueing CAN client with
    // small and large queues, its frames queued or handed to a callback.
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    for (int round = 0; round < 31; ++round)
    {
        std::unique_ptr<CTarvikClient> client;
        if (round < 20)
            client = std::make_unique<CKeepingClient>(kTimeoutMs);
        else if (round == 20)
            client = std::make_unique<CTarvikClientCAN>(kTimeoutMs);
        else
        {
            auto can = std::make_unique<CTarvikClientCANDll>(0, kTimeoutMs);
            can->SetMaxSizePerQueue(round % 2 == 0 ? 10 : 100000);
            if (round % 3 == 0)
                can->SetCallback(&CountCANFrame);
            client = std::move(can);
        }
        ASSERT_EQ(0, client->Connect("127.0.0.1", gateway.GetPort()));
        underFlood(
            gateway, round + 1, [&] { client.reset(); }, round > 20 ? CFlood::eWhole : CFlood::eCut);
    }
    // Every class the registry creates, by device type, the DIO and AD classes, and the base class itself.
    for (int type = 0; type <= 17; ++type)
    {
        CFakeGateway typed;
        ASSERT_TRUE(typed.StartOnLoopbackNet(kLoopbackNet, TarvikDevicePort(type))) << type;
        int handle = 0;
        int rc = CDeviceManager::OpenDevice(&handle, typed.GetAddress().c_str(), kTimeoutMs,
                                            static_cast<unsigned char>(type), 0, 1, true);
        if (rc == TARVIK_ERR_INVALID_DEVICE_TYPE)
        {
            // The client classes that the registry does not create, else the base class.
            std::unique_ptr<CTarvikClient> client;
            if (type == eTarvikDIO)
                client = std::make_unique<CTarvikClientDIO>(kTimeoutMs);
            else if (type == eTarvikAD)
                client = std::make_unique<CTarvikClientAD>(kTimeoutMs);
            else
                client = std::make_unique<CTarvikClient>(static_cast<ETarvikDevice>(type), kTimeoutMs);
            ASSERT_EQ(0, client->Connect(typed.GetAddress().c_str())) << type;
            underFlood(typed, 1, [&] { client.reset(); });
            continue;
        }
        ASSERT_EQ(0, rc) << type;
        // The CAN client queues what arrives, and hands frames to a callback.
        if (auto* can = dynamic_cast<CTarvikClientCANDll*>(CDeviceManager::GetDevice(handle)->m_pClient))
        {
            can->SetMaxSizePerQueue(16);
            can->SetCallback(&CountCANFrame);
        }
        underFlood(typed, 1, [&] { EXPECT_EQ(0, CDeviceManager::CloseDevice(handle)) << type; });
    }
    EXPECT_EQ(lateBefore, CTarvikClient::GetLateStopCount());
}

#ifndef __SANITIZE_THREAD__
// The count that the test above relies on does see a class that forgets the call.
TEST(HostileLifetime, ADerivedClassThatDoesNotStopItsConnectionIsCounted)
{
    struct CForgetful : CTarvikClientSPI
    {
        using CTarvikClientSPI::CTarvikClientSPI;
    };
    class CForgetfulDerived : public CTarvikClient
    {
    public:
        CForgetfulDerived() : CTarvikClient(eTarvikSPI, kTimeoutMs) {}
        ~CForgetfulDerived() override {}
    };
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    const unsigned long before = CTarvikClient::GetLateStopCount();
    {
        CForgetful stopping(kTimeoutMs);
        ASSERT_EQ(0, stopping.Connect("127.0.0.1", gateway.GetPort()));
    }
    EXPECT_EQ(before, CTarvikClient::GetLateStopCount());
    {
        CForgetfulDerived forgetful;
        ASSERT_EQ(0, forgetful.Connect("127.0.0.1", gateway.GetPort()));
    }
    EXPECT_EQ(before + 1, CTarvikClient::GetLateStopCount());
}
#endif

// ---------------------------------------------------------------- connect report

TEST(HostileConnect, DisconnectFromTheConnectReportDoesNotHangConnect)
{
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    struct CDisconnecting : CTarvikClient
    {
        CDisconnecting() : CTarvikClient(eTarvikSPI, kTimeoutMs) {}
        ~CDisconnecting() override { StopConnection(); }
        void ConInd(bool connected) override
        {
            if (connected && m_bDrop.load())
                Disconnect();
        }
        std::atomic<bool> m_bDrop{true};
    };
    static std::atomic<int> s_nSinkDrops{0};
    struct SSink
    {
        static void Drop(const STarvikTrace& trace, void* user)
        {
            if (trace.m_eKind == STarvikTrace::eConnected && s_nSinkDrops.fetch_sub(1) > 0)
                static_cast<CTarvikClient*>(user)->Disconnect();
        }
    };
    for (bool fromSink : {false, true})
    {
        CDisconnecting client;
        client.m_bDrop = !fromSink;
        s_nSinkDrops = fromSink ? 1 : 0;
        if (fromSink)
            client.SetTraceSink(&SSink::Drop, &client);
        auto connecting =
            std::async(std::launch::async, [&] { return client.Connect("127.0.0.1", gateway.GetPort()); });
        ASSERT_EQ(std::future_status::ready, connecting.wait_for(std::chrono::milliseconds(kWaitMs))) << fromSink;
        EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, connecting.get()) << fromSink;
        EXPECT_NE(CMolIPBase::eStateConnected, client.GetConnectState()) << fromSink;
        // The next Connect, with nobody disconnecting, holds.
        client.m_bDrop = false;
        EXPECT_EQ(0, client.Connect("127.0.0.1", gateway.GetPort())) << fromSink;
        EXPECT_EQ(CMolIPBase::eStateConnected, client.GetConnectState()) << fromSink;
    }
}

TEST_F(CHostileTest, ASecondConnectKeepsTheConnectionItHas)
{
    Answer([](short id) { return Cnf(0x0303, id, Frame({0})); });
    EXPECT_EQ(0, m_oClient.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
    EXPECT_EQ(0, Transact());
    EXPECT_FALSE(m_oGateway.WaitForAccepted(2, 50));
    EXPECT_EQ(1u, m_oGateway.GetFrames().size());
}

// ---------------------------------------------------------------- answers nobody asked for

TEST_F(CHostileTest, ADuplicateAnswerIsNotTakenWhenItsIdComesRoundAgain)
{
    Answer([](short id) { return Cnf(0x0303, id, Frame({0, 1})); });
    ASSERT_EQ(0, Transact());
    EXPECT_EQ(ToHex(Frame({0, 1})), ToHex(m_pCnf->GetData()));
    // The same answer again, after the request has taken the first.
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, m_pCnf->GetMsgID(), Frame({0, 2}))));
    m_oClient.Log(2);
    // The id counter wraps round to the same id; the gateway no longer answers.
    Answer([](short) { return std::string(); });
    for (int i = 0; i < 65535; ++i)
        m_oClient.NextMsgID();
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, Transact());
    EXPECT_EQ(nullptr, m_pCnf);
}

TEST_F(CHostileTest, AFloodOfUnsolicitedConfirmationsIsCappedAndRequestsStillComplete)
{
    // 20000 small ones, then 200 of 60 KiB: past the count cap, then the byte cap.
    for (const auto& flood : {std::make_pair(20000, 8), std::make_pair(200, 60 * 1024)})
    {
        std::string raw;
        for (int i = 0; i < flood.first; ++i)
            raw += Cnf(0x0303, -1 - i, std::string(static_cast<size_t>(flood.second), 'F'));
        size_t handled = m_oClient.Log(0).size();
        ASSERT_TRUE(m_oGateway.Send(raw));
        // Every telegram traced means every one stored (or dropped by the cap).
        m_oClient.Log(0, handled + static_cast<size_t>(flood.first));
        // The oldest go first: the last one sent is kept, the first is not.
        EXPECT_NE(nullptr, std::unique_ptr<CTarvikMsg>(m_oClient.GetMsg(static_cast<short>(-flood.first))));
        EXPECT_EQ(nullptr, std::unique_ptr<CTarvikMsg>(m_oClient.GetMsg(-1))) << flood.second;
        size_t bytes = 0;
        size_t stored = m_oClient.DrainStored(&bytes);
        EXPECT_LE(stored, CTarvikClient::kMaxPendingCount) << flood.second;
        EXPECT_LE(bytes, CTarvikClient::kMaxPendingBytes) << flood.second;
    }
    // Requests go on completing while a flood runs (about 20000 telegrams a second).
    Answer([](short id) { return Cnf(0x0303, id, Frame({0, 0x77})); });
    CProbeClient patient(kWaitMs);
    patient.SetTraceSink(nullptr, nullptr);
    Connect(patient);
    CFlood running(m_oGateway, FloodTelegrams(20, 16), CFlood::eCut, 1000);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(0, patient.Transact(0x0303, "", m_pCnf)) << i;
}

// A waiter woken by another id's confirmation looks again and waits out the rest.
TEST_F(CHostileTest, AWaitWokenByAnotherIdsConfirmationGoesOnWaiting)
{
    Answer([this](short id) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        m_oGateway.Send(Cnf(0x0303, static_cast<short>(id + 100), Frame({0, 1})));
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        return Cnf(0x0303, id, Frame({0, 2}));
    });
    auto start = CClock::now();
    ASSERT_EQ(0, Transact());
    EXPECT_GE(CClock::now() - start, std::chrono::milliseconds(85));
    EXPECT_EQ(ToHex(Frame({0, 2})), ToHex(m_pCnf->GetData()));
}

// ---------------------------------------------------------------- broken streams

TEST_F(CHostileTest, AFrameThatStallsEndsTheConnectionAndAReconnectRecovers)
{
    const std::pair<const char*, std::string> cases[] = {
        {"length 65535 then silence", Hex("FF FF 03 83")},
        {"garbage", Hex("13 00 55 AA 01 02 03") + std::string(300, '\x07')},
        {"a frame cut short", Cnf(0x0303, 0, Frame({0, 1, 2, 3})).substr(0, 9)},
    };
    for (const auto& c : cases)
    {
        std::string raw = c.second;
        Answer([raw](short) { return raw; });
        auto start = CClock::now();
        EXPECT_EQ(TARVIK_ERR_TIMEOUT, Transact()) << c.first;
        // The connection ends within the time-out of the frame's first byte.
        EXPECT_TRUE(WaitForState(m_oClient, CMolIPBase::eStateClosed)) << c.first;
        EXPECT_LT(CClock::now() - start, std::chrono::milliseconds(2 * kTimeoutMs) + kLateness) << c.first;
        EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, Transact()) << c.first;
        EXPECT_TRUE(m_oGateway.WaitForPeerClosed(m_nClients, kWaitMs)) << c.first;
        // Reconnected, the stream is in step again.
        Answer([](short id) { return Cnf(0x0303, id, Frame({0, 0x42})); });
        m_oClient.Disconnect();
        Connect(m_oClient);
        ASSERT_EQ(0, Transact()) << c.first;
        EXPECT_EQ(ToHex(Frame({0, 0x42})), ToHex(m_pCnf->GetData())) << c.first;
    }
    std::vector<std::string> log = m_oClient.Log(0);
    EXPECT_EQ(3, std::count(log.begin(), log.end(), "3 disconnected"));
}

// A frame whose bytes keep coming arrives when the whole is in within the time-out; too
// slowly for that (about a second of bytes, twice the time-out), it ends the connection.
TEST_F(CHostileTest, AFrameDribbledByteByByteArrivesOnlyWithinTheTimeOut)
{
    for (int pauseMs : {2, 10})
    {
        Answer([this, pauseMs](short id) {
            std::string raw = Cnf(0x0303, id, pauseMs == 2 ? Frame({0, 0x11, 0x22}) : std::string(100, '\0'));
            for (char byte : raw)
            {
                if (!m_oGateway.Send(std::string(1, byte)))
                    break;
                std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            }
            return std::string();
        });
        if (pauseMs == 2)
        {
            ASSERT_EQ(0, Transact());
            EXPECT_EQ(ToHex(Frame({0, 0x11, 0x22})), ToHex(m_pCnf->GetData()));
            EXPECT_EQ(CMolIPBase::eStateConnected, m_oClient.GetConnectState());
        }
        else
        {
            EXPECT_EQ(TARVIK_ERR_TIMEOUT, Transact());
            EXPECT_TRUE(WaitForState(m_oClient, CMolIPBase::eStateClosed));
        }
    }
}

// A send that the peer never reads ends with the time-out, not with a hang.
TEST_F(CHostileTest, ASendThePeerDoesNotReadIsCutShortByTheTimeOut)
{
    struct CPoster : CTarvikClientSPI
    {
        using CTarvikClientSPI::CTarvikClientSPI;
        ~CPoster() override { StopConnection(); }
    };
    // A listener that never accepts: the connection sits in its queue, unread.
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(addr);
    ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&addr), size));
    ASSERT_EQ(0, ::listen(listener, 4));
    ASSERT_EQ(0, ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &size));
    CPoster poster(kTimeoutMs);
    ASSERT_EQ(0, poster.Connect("127.0.0.1", ntohs(addr.sin_port)));
    const std::string big(65000, '\x01');
    short id = 0;
    int result = 0;
    CClock::duration slowest{};
    for (int i = 0; i < 2000 && result == 0; ++i)
    {
        auto start = CClock::now();
        result = poster.SequenceReq(big.data(), static_cast<unsigned short>(big.size()), &id);
        slowest = std::max(slowest, CClock::now() - start);
    }
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, result);
    EXPECT_LT(slowest, std::chrono::milliseconds(kTimeoutMs) + kLateness);
    // Part of a frame went out: the stream is out of step, so the connection ended.
    EXPECT_TRUE(WaitForState(poster, CMolIPBase::eStateClosed));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, poster.SequenceReq(big.data(), 10, &id));
    poster.StopConnection();
    ::close(listener);
}

// ---------------------------------------------------------------- trace sink

TEST_F(CHostileTest, TheTraceSinkAndItsUserPointerChangeTogether)
{
    struct SSink
    {
        std::atomic<long> m_nCalls{0};
        std::atomic<long> m_nTorn{0};
        std::atomic<bool> m_bRetired{false};
        std::atomic<long> m_nAfterRetired{0};
        static void A(const STarvikTrace&, void* user) { Check(user, 'A'); }
        static void B(const STarvikTrace&, void* user) { Check(user, 'B'); }
        static void Check(void* user, char name)
        {
            auto* self = static_cast<std::pair<char, SSink*>*>(user);
            self->second->m_nCalls++;
            if (self->first != name)
                self->second->m_nTorn++;
            if (self->second->m_bRetired.load())
                self->second->m_nAfterRetired++;
        }
    };
    SSink sink;
    std::pair<char, SSink*> userA('A', &sink);
    std::pair<char, SSink*> userB('B', &sink);
    m_oClient.SetTraceSink(nullptr, nullptr);
    {
        CFlood running(m_oGateway, FloodTelegrams(64, 4));
        auto until = CClock::now() + std::chrono::seconds(10);
        for (int i = 0; (i < 20000 || sink.m_nCalls.load() < 20000) && CClock::now() < until; ++i)
            (i % 2 == 0) ? m_oClient.SetTraceSink(&SSink::A, &userA) : m_oClient.SetTraceSink(&SSink::B, &userB);
        // Once switched off, the sink is done with: its data may go.
        m_oClient.SetTraceSink(nullptr, nullptr);
        sink.m_bRetired = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GT(sink.m_nCalls.load(), 0);
    EXPECT_EQ(0, sink.m_nTorn.load());
    EXPECT_EQ(0, sink.m_nAfterRetired.load());
}
