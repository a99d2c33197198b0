// The client engine against a scripted gateway: request and confirmation matching,
// time-outs, bad, late and duplicate confirmations, indications, malformed blocks,
// message ids, default ports and the trace sink.
#include "support/FakeGateway.h"
#include "support/ProbeClient.h"

#include "tarvik/core/TarvikClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways on fixed ports (127.0.41.x).
constexpr unsigned char kLoopbackNet = 41;

typedef CProbeFixture<kTimeoutMs> CEngineTest;
} // namespace

TEST_F(CEngineTest, BadConfirmationsAreReportedAndStillHandedOver)
{
    const std::tuple<const char*, std::function<std::string(short)>, int> cases[] = {
        {"bad check byte", [](short id) { return TelegramWithCheck(0x8303, id, Frame({0}), 0x55); }, TARVIK_ERR_CRC},
        {"other command", [](short id) { return Cnf(0x0304, id, Frame({0})); }, TARVIK_ERR_NOT_CONFIRMED},
        {"other device type", [](short id) { return Cnf(0x0203, id, Frame({0})); }, TARVIK_ERR_NOT_CONFIRMED},
        // The check byte is looked at before the command code.
        {"both wrong", [](short id) { return TelegramWithCheck(0x8304, id, Frame({0}), 0x55); }, TARVIK_ERR_CRC},
    };
    for (const auto& c : cases)
    {
        Answer(std::get<1>(c));
        EXPECT_EQ(std::get<2>(c), m_oClient.Transact(0x0303, "", m_pCnf)) << std::get<0>(c);
        ASSERT_NE(nullptr, m_pCnf) << std::get<0>(c);
        EXPECT_EQ(ToHex(Frame({0})), ToHex(m_pCnf->GetData())) << std::get<0>(c);
    }
}

TEST_F(CEngineTest, NoConfirmationIsATimeOutAndALateOneIsNeverTakenByALaterRequest)
{
    // The first request (id 0) is not answered in time; its confirmation comes
    // while the second (id 1) waits and is not taken.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kTimeoutMs - 10));
    Answer([](short id) { return id == 1 ? Cnf(0x0303, 0, Frame({0, 0xAA})) : std::string(); });
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_EQ(nullptr, m_pCnf);
    // A stale copy in front of the right answer in the same write: the right one wins.
    Answer([](short id) { return Cnf(0x0303, 0, Frame({0, 0xAA})) + Cnf(0x0303, id, Frame({0, 0xBB})); });
    EXPECT_EQ(0, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_EQ(ToHex(Frame({0, 0xBB})), ToHex(m_pCnf->GetData()));
}

// Every wait drops the stored confirmations older than timeout / 100 whole seconds.
TEST_F(CEngineTest, StoredConfirmationsArePurgedByAgeAtTheNextWait)
{
    for (unsigned int timeout : {300u, 99u})
    {
        CProbeClient client(timeout);
        Connect(client);
        ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 0, Frame({0, 0xAA}))));
        client.Log(1);
        unsigned int noWait = 0;
        EXPECT_EQ(nullptr, client.WaitForMsg(99, &noWait));
        std::unique_ptr<CTarvikMsg> kept(client.GetMsg(0));
        // 300 ms keeps it for three seconds (time enough on a loaded machine); 99 ms for no time at all.
        EXPECT_EQ(timeout == 300, kept != nullptr) << timeout;
        client.Disconnect();
        ASSERT_TRUE(m_oGateway.WaitForPeerClosed(m_nClients - 1, kWaitMs));
    }
}

TEST_F(CEngineTest, SecondConfirmationUnderTheSameIdReplacesTheFirst)
{
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 7, Frame({0, 1})) + Cnf(0x0303, 7, Frame({0, 2}))));
    m_oClient.Log(2);
    std::unique_ptr<CTarvikMsg> cnf(m_oClient.GetMsg(7));
    ASSERT_NE(nullptr, cnf);
    EXPECT_EQ(ToHex(Frame({0, 2})), ToHex(cnf->GetData()));
    EXPECT_EQ(nullptr, m_oClient.GetMsg(7));
}

TEST_F(CEngineTest, IndicationsGoToTheDeviceClientAndAreNeverTakenAsConfirmations)
{
    // Same command and id as the request, without the confirmation bit, in front of
    // the confirmation in the same write.
    Answer([](short id) { return Telegram(0x0303, id, Frame({0, 0x44})) + Cnf(0x0303, id, Frame({0, 0x55})); });
    ASSERT_EQ(0, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_EQ(ToHex(Frame({0, 0x55})), ToHex(m_pCnf->GetData()));
    // Alone: the request times out.
    Answer([](short id) { return Telegram(0x0303, id, Frame({0, 0x44})); });
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_EQ(nullptr, m_oClient.GetMsg(1));
    EXPECT_EQ((std::vector<std::string>{"3 connected", "3 sent 0303 #0 []", "3 received 0303 #0 [00 44]",
                                        "indication 07 00 03 03 00 00 00 44 44", "3 received 8303 #0 [00 55]",
                                        "3 sent 0303 #1 []", "3 received 0303 #1 [00 44]",
                                        "indication 07 00 03 03 01 00 00 44 45"}),
              m_oClient.Log(3));
}

TEST_F(CEngineTest, MalformedBlocksAreDroppedAndTheStreamStaysInStep)
{
    // A 6-byte block that would be an indication, an empty block, a block too long
    // for a 16-bit size, then the answer.
    Answer([](short id) {
        return Hex("04 00 03 03 00 00") + Hex("00 00") + Hex("FF FF") + std::string(65535, '\x03') +
               Cnf(0x0303, id, Frame({0, 0x66}));
    });
    ASSERT_EQ(0, m_oClient.Transact(0x0303, "", m_pCnf));
    EXPECT_EQ(ToHex(Frame({0, 0x66})), ToHex(m_pCnf->GetData()));
    EXPECT_EQ((std::vector<std::string>{"3 connected", "3 sent 0303 #0 []", "3 received invalid", "3 received invalid",
                                        "3 received invalid", "3 received 8303 #0 [00 66]"}),
              m_oClient.Log(4));
}

TEST_F(CEngineTest, MessageIdsStartAtZeroRestartAtTwoAfterOpenAndWrapAtSixteenBits)
{
    Answer([](short id) { return Cnf(0x030C, id, Frame({0})); });
    EXPECT_EQ(0, m_oClient.NextMsgID());
    EXPECT_EQ(1, m_oClient.NextMsgID());
    EXPECT_EQ(0, m_oClient.Open());
    EXPECT_EQ(2, m_oClient.NextMsgID());
    while (m_oClient.NextMsgID() != 32766)
    {
    }
    ASSERT_EQ(0, m_oClient.Transact(0x030C, "", m_pCnf));
    ASSERT_EQ(0, m_oClient.Transact(0x030C, "", m_pCnf));
    EXPECT_EQ((std::vector<std::string>{Hex("05 00 0C 03 FF 7F 8F"), Hex("05 00 0C 03 00 80 8F")}),
              m_oGateway.GetFrames());
}

TEST_F(CEngineTest, TraceSinkSeesTelegramsBothWaysAndTheConnection)
{
    Answer([](short id) { return TelegramWithCheck(0x8303, id, Frame({0, 0x42}), 0) + Hex("04 00 03 03 00 00"); });
    EXPECT_EQ(TARVIK_ERR_CRC, m_oClient.Transact(0x0303, Frame({0x99}), m_pCnf));
    m_oClient.Log(2, 4);
    EXPECT_EQ(0, m_oClient.Disconnect());
    EXPECT_EQ(
        (std::vector<std::string>{"3 connected", "3 sent 0303 #0 [99]", "3 received 8303 #0 [00 42] bad check byte",
                                  "3 received invalid", "3 disconnected"}),
        m_oClient.Log(2, 5));
}

TEST(TarvikClientConnect, PortZeroMeansTheDeviceTypesDefaultPort)
{
    const std::pair<ETarvikDevice, unsigned short> cases[] = {{eTarvikSPI, 5002}, {eTarvikFirmware, 5099}};
    for (const auto& c : cases)
    {
        CFakeGateway gateway;
        ASSERT_TRUE(gateway.StartOnLoopbackNet(kLoopbackNet, c.second)) << c.second;
        CTarvikClient client(c.first, kTimeoutMs);
        EXPECT_EQ(0, client.Connect(gateway.GetAddress().c_str(), 0)) << c.second;
        EXPECT_TRUE(gateway.WaitForAccepted(1, kWaitMs)) << c.second;
    }
}
