// The client engine against a scripted gateway: request and confirmation matching,
// time-outs, bad confirmations, late and duplicate confirmations, indications,
// malformed blocks, message ids, default ports and the trace sink.
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/core/TarvikClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 200;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways on fixed ports (127.0.41.x).
constexpr unsigned char kLoopbackNet = 41;

int64_t ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

// Collects what the trace sink reports.
class CTraceLog
{
public:
    struct SEntry
    {
        STarvikTrace::EKind m_eKind;
        unsigned short m_nCmdCode;
        short m_nMsgID;
        std::string m_sData;
        bool m_bValid;
        bool m_bCRCValid;
        int m_nDeviceType;
    };

    static void Sink(const STarvikTrace& trace, void* user)
    {
        CTraceLog* log = static_cast<CTraceLog*>(user);
        std::lock_guard<std::mutex> lock(log->m_oMutex);
        log->m_aEntries.push_back({trace.m_eKind, trace.m_nCmdCode, trace.m_nMsgID,
                                   std::string(trace.m_pData, trace.m_nDataLen), trace.m_bValid, trace.m_bCRCValid,
                                   trace.m_nDeviceType});
        log->m_oChanged.notify_all();
    }

    size_t Count(STarvikTrace::EKind kind) const
    {
        size_t count = 0;
        for (const SEntry& entry : m_aEntries)
            count += entry.m_eKind == kind ? 1 : 0;
        return count;
    }

    // Waits until the sink has seen count telegrams of this kind.
    bool WaitFor(STarvikTrace::EKind kind, size_t count)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return Count(kind) >= count; });
    }

    std::vector<SEntry> Entries()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_aEntries;
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<SEntry> m_aEntries;
};

// An SPI-typed client that shows what the engine hands to a device client.
class CProbeClient : public CTarvikClient
{
public:
    explicit CProbeClient(unsigned int timeout) : CTarvikClient(eTarvikSPI, timeout), m_bTake(false)
    {
        SetTraceSink(&CTraceLog::Sink, &m_oTrace);
    }
    ~CProbeClient() override
    {
        // The receive thread calls into this class: stop it before the members go.
        GetConnection().Shutdown();
    }

    using CTarvikClient::NextMsgID;
    using CTarvikClient::Request;

    bool DataIndRespond(CTarvikMsg* msg) override
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_asIndications.push_back(msg->GetMessageData());
        if (!m_bTake)
            return false;
        m_apTaken.emplace_back(msg);
        return true;
    }

    // Counts the blocks the engine has finished with (stored, offered or dropped).
    void DataInd(const char* data, unsigned short len) override
    {
        CTarvikClient::DataInd(data, len);
        std::lock_guard<std::mutex> lock(m_oMutex);
        ++m_nHandled;
        m_oChanged.notify_all();
    }

    bool WaitForHandled(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return m_nHandled >= count; });
    }

    void ConInd(bool connected) override
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_abConInd.push_back(connected);
    }

    std::vector<std::string> Indications()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_asIndications;
    }

    std::vector<bool> ConIndications()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_abConInd;
    }

    // Sends cmd with data under the next id and waits as SendMsg does.
    int Transact(unsigned short cmd, const std::string& data, CTarvikMsg*& cnf, const unsigned int* waitMs = nullptr)
    {
        CTarvikMsg req(cmd, NextMsgID(), data.data(), static_cast<unsigned short>(data.size()));
        return SendMsg(req, cnf, waitMs);
    }

    CTraceLog m_oTrace;
    bool m_bTake;

private:
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    size_t m_nHandled = 0;
    std::vector<std::string> m_asIndications;
    std::vector<std::unique_ptr<CTarvikMsg>> m_apTaken;
    std::vector<bool> m_abConInd;
};

// Answers every request with a successful confirmation carrying extra after the result byte.
CFakeGateway::THandler AnswerOk(const std::string& extra = std::string())
{
    return [extra](const std::string& frame) { return Cnf(FrameCmd(frame), FrameId(frame), Frame({0}) + extra); };
}

class CEngineTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_oGateway.Start("127.0.0.1")); }

    // Returns once the gateway has accepted the client, so that Send() reaches it.
    void Connect(CTarvikClient& client)
    {
        size_t accepted = m_oGateway.GetAcceptedCount();
        ASSERT_EQ(0, client.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
        ASSERT_TRUE(m_oGateway.WaitForAccepted(accepted + 1, kWaitMs));
    }

    CFakeGateway m_oGateway;
};
} // namespace

TEST_F(CEngineTest, ConfirmationWithTheRequestsIdIsHandedOver)
{
    m_oGateway.SetHandler(AnswerOk(Frame({0x11, 0x22})));
    CProbeClient client(kTimeoutMs);
    Connect(client);
    CTarvikMsg* cnf = nullptr;
    ASSERT_EQ(0, client.Transact(0x0303, Frame({0xAB}), cnf));
    ASSERT_NE(nullptr, cnf);
    std::unique_ptr<CTarvikMsg> owned(cnf);
    EXPECT_EQ(ToHex(Hex("08 00 03 83 00 00 00 11 22 B3")), ToHex(cnf->GetMessageData()));
    EXPECT_EQ(ToHex(Hex("06 00 03 03 00 00 AB AB")), ToHex(m_oGateway.GetFrames().at(0)));
}

TEST_F(CEngineTest, NoConfirmationIsATimeOutAfterTheClientsTimeOut)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    CTarvikMsg* cnf = nullptr;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.Transact(0x0303, "", cnf));
    int64_t elapsed = ElapsedMs(start);
    EXPECT_EQ(nullptr, cnf);
    EXPECT_GE(elapsed, kTimeoutMs - 10);
    EXPECT_LT(elapsed, 10000);
}

TEST_F(CEngineTest, ExplicitWaitReplacesTheClientsTimeOut)
{
    m_oGateway.SetHandler(AnswerOk());
    m_oGateway.SetAnswerDelay(250);
    CProbeClient client(100);
    Connect(client);
    CTarvikMsg* cnf = nullptr;
    unsigned int longWait = 3000;
    EXPECT_EQ(0, client.Transact(0x0303, "", cnf, &longWait));
    delete cnf;

    // A wait of 0 looks once and gives up; the answer that comes later stays behind.
    cnf = nullptr;
    unsigned int noWait = 0;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.Transact(0x0303, "", cnf, &noWait));
    EXPECT_EQ(nullptr, cnf);
}

TEST_F(CEngineTest, BadConfirmationsAreReportedAndStillHandedOver)
{
    struct SCase
    {
        const char* m_sName;
        std::function<std::string(const std::string&)> m_fnAnswer;
        int m_nResult;
    };
    const SCase cases[] = {
        {"wrong check byte",
         [](const std::string& f) { return TelegramWithCheck(0x8303, FrameId(f), Frame({0}), 0x55); }, TARVIK_ERR_CRC},
        {"other command", [](const std::string& f) { return Cnf(0x0304, FrameId(f), Frame({0})); },
         TARVIK_ERR_NOT_CONFIRMED},
        {"other device type", [](const std::string& f) { return Cnf(0x0203, FrameId(f), Frame({0})); },
         TARVIK_ERR_NOT_CONFIRMED},
        // The check byte is looked at before the command code.
        {"both wrong", [](const std::string& f) { return TelegramWithCheck(0x8304, FrameId(f), Frame({0}), 0x55); },
         TARVIK_ERR_CRC},
    };
    CProbeClient client(kTimeoutMs);
    Connect(client);
    for (const SCase& c : cases)
    {
        m_oGateway.SetHandler(c.m_fnAnswer);
        CTarvikMsg* cnf = nullptr;
        EXPECT_EQ(c.m_nResult, client.Transact(0x0303, "", cnf)) << c.m_sName;
        ASSERT_NE(nullptr, cnf) << c.m_sName;
        EXPECT_EQ(ToHex(Frame({0})), ToHex(cnf->GetData())) << c.m_sName;
        delete cnf;
    }
}

TEST_F(CEngineTest, CommandsReportBadConfirmationsWithoutDecodingThem)
{
    CTarvikClientSPI client(kTimeoutMs);
    Connect(client);
    client.Open();
    char recv[4] = {'x', 'x', 'x', 'x'};

    m_oGateway.SetHandler(
        [](const std::string& f) {
            return TelegramWithCheck(0x8303, FrameId(f), Frame({0, 1, 2, 3, 4}), 0);
        });
    EXPECT_EQ(TARVIK_ERR_CRC, client.DataReq("\x01", 1, recv, 4));
    m_oGateway.SetHandler([](const std::string& f) { return Cnf(0x0314, FrameId(f), Frame({0, 1, 2, 3, 4})); });
    EXPECT_EQ(TARVIK_ERR_NOT_CONFIRMED, client.DataReq("\x01", 1, recv, 4));
    EXPECT_EQ("xxxx", std::string(recv, 4));

    // An empty confirmation is invalid, with the client's device type.
    m_oGateway.SetHandler([](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), ""); });
    EXPECT_EQ(0x0C0300, client.SetGlobals(1, 2, 3, 4));
    EXPECT_EQ(0x0C0300, client.DataReq("\x01", 1, recv, 4));
    EXPECT_EQ("xxxx", std::string(recv, 4));
}

TEST_F(CEngineTest, CopyingSendMsgFillsEveryFieldOfTheCallersTelegram)
{
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return TelegramWithCheck(0x8303, FrameId(f), Frame({0, 9}), 0x77);
        });
    CProbeClient client(kTimeoutMs);
    Connect(client);
    CTarvikMsg req(0x0303, 5, nullptr, 0);
    CTarvikMsg cnf;
    EXPECT_EQ(TARVIK_ERR_CRC, client.SendMsg(req, cnf, nullptr));
    EXPECT_EQ(ToHex(Hex("07 00 03 83 05 00 00 09 77")), ToHex(cnf.GetMessageData()));

    // Nothing arrived: the caller's telegram stays as it was.
    m_oGateway.SetHandler(nullptr);
    CTarvikMsg untouched(0x1234, 9, "\x01", 1);
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.SendMsg(req, untouched, nullptr));
    EXPECT_EQ(ToHex(CTarvikMsg(0x1234, 9, "\x01", 1).GetMessageData()), ToHex(untouched.GetMessageData()));
}

TEST_F(CEngineTest, SendFailureIsReturnedAtOnceWithTheConfirmationUntouched)
{
    CProbeClient client(kTimeoutMs);
    CTarvikMsg sentinel;
    CTarvikMsg* cnf = &sentinel;
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, client.Transact(0x0303, "", cnf));
    EXPECT_EQ(&sentinel, cnf);
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, client.Disconnect());
}

TEST_F(CEngineTest, LateConfirmationIsNeverTakenByALaterRequest)
{
    CTarvikClientSPI client(kTimeoutMs);
    Connect(client);
    char recv[1] = {'x'};
    // The first request (id 0) is never answered in time.
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.DataReq("\x01", 1, recv, 1));

    // Its confirmation comes while the second request (id 1) waits: not taken.
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return FrameId(f) == 1 ? Cnf(0x0303, 0, Frame({0, 0xAA})) : std::string();
        });
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.DataReq("\x02", 1, recv, 1));
    EXPECT_EQ('x', recv[0]);

    // A stale copy in front of the right answer in the same write: the right one wins.
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return Cnf(0x0303, 0, Frame({0, 0xAA})) + Cnf(0x0303, FrameId(f), Frame({0, 0xBB}));
        });
    EXPECT_EQ(0, client.DataReq("\x03", 1, recv, 1));
    EXPECT_EQ('\xBB', recv[0]);
}

TEST_F(CEngineTest, LateConfirmationIsKeptForTenTimesTheTimeOut)
{
    CProbeClient client(100);
    Connect(client);
    CTarvikMsg* cnf = nullptr;
    ASSERT_EQ(TARVIK_ERR_TIMEOUT, client.Transact(0x0303, "", cnf));
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 0, Frame({0, 0xAA}))));
    ASSERT_TRUE(client.WaitForHandled(1));

    // Every wait purges; one second has not passed, so it is still there.
    unsigned int noWait = 0;
    EXPECT_EQ(nullptr, client.WaitForMsg(99, &noWait));
    std::unique_ptr<CTarvikMsg> kept(client.GetMsg(0));
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(ToHex(Frame({0, 0xAA})), ToHex(kept->GetData()));
}

TEST_F(CEngineTest, LateConfirmationIsPurgedAfterTenTimesTheTimeOut)
{
    // 100 ms: everything older than 100 / 100 = 1 s goes at the next wait.
    CProbeClient client(100);
    Connect(client);
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 0, Frame({0, 0xAA}))));
    ASSERT_TRUE(client.WaitForHandled(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    // Taking it without a wait shows it was still stored until the purge.
    unsigned int noWait = 0;
    EXPECT_EQ(nullptr, client.WaitForMsg(99, &noWait));
    EXPECT_EQ(nullptr, client.GetMsg(0));
}

TEST_F(CEngineTest, TimeOutUnderOneHundredMillisecondsPurgesEveryOlderConfirmation)
{
    // 99 / 100 = 0 s: the next wait drops whatever arrived before it.
    CProbeClient client(99);
    Connect(client);
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 0, Frame({0, 0xAA}))));
    ASSERT_TRUE(client.WaitForHandled(1));
    unsigned int noWait = 0;
    EXPECT_EQ(nullptr, client.WaitForMsg(99, &noWait));
    EXPECT_EQ(nullptr, client.GetMsg(0));
}

TEST_F(CEngineTest, SecondConfirmationUnderTheSameIdReplacesTheFirst)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    ASSERT_TRUE(m_oGateway.Send(Cnf(0x0303, 7, Frame({0, 1})) + Cnf(0x0303, 7, Frame({0, 2}))));
    ASSERT_TRUE(client.WaitForHandled(2));
    unsigned int noWait = 0;
    std::unique_ptr<CTarvikMsg> cnf(client.WaitForMsg(7, &noWait));
    ASSERT_NE(nullptr, cnf);
    EXPECT_EQ(ToHex(Frame({0, 2})), ToHex(cnf->GetData()));
    EXPECT_EQ(nullptr, client.GetMsg(7));
}

TEST_F(CEngineTest, IndicationsGoToTheDeviceClientAndAreNeverTakenAsConfirmations)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    // Same command and id as the request, but without the confirmation bit.
    const std::string indication = Telegram(0x0303, 0, Frame({0, 0x44}));
    m_oGateway.SetHandler([indication](const std::string&) { return std::string(indication); });
    CTarvikMsg* cnf = nullptr;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.Transact(0x0303, "", cnf));
    EXPECT_EQ(nullptr, cnf);
    EXPECT_EQ(nullptr, client.GetMsg(0));

    // In front of the confirmation in the same write: both find their way.
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return Telegram(0x0303, FrameId(f), Frame({0, 0x44})) + Cnf(0x0303, FrameId(f), Frame({0, 0x55}));
        });
    ASSERT_EQ(0, client.Transact(0x0303, "", cnf));
    ASSERT_NE(nullptr, cnf);
    EXPECT_EQ(ToHex(Frame({0, 0x55})), ToHex(cnf->GetData()));
    delete cnf;

    // Unsolicited, between requests.
    ASSERT_TRUE(m_oGateway.Send(Telegram(0x0210, 0x1234, Frame({1, 2, 3}))));
    ASSERT_TRUE(client.WaitForHandled(4));
    std::vector<std::string> seen = client.Indications();
    ASSERT_EQ(3u, seen.size());
    EXPECT_EQ(ToHex(indication), ToHex(seen[0]));
    EXPECT_EQ(ToHex(Telegram(0x0303, 1, Frame({0, 0x44}))), ToHex(seen[1]));
    EXPECT_EQ(ToHex(Telegram(0x0210, 0x1234, Frame({1, 2, 3}))), ToHex(seen[2]));
    EXPECT_EQ(nullptr, client.GetMsg(0x1234));
}

TEST_F(CEngineTest, DeviceClientMayKeepTheIndicationsItTakes)
{
    CProbeClient client(kTimeoutMs);
    client.m_bTake = true;
    Connect(client);
    ASSERT_TRUE(m_oGateway.Send(Telegram(0x0210, 1, Frame({1})) + Telegram(0x0210, 2, Frame({2}))));
    ASSERT_TRUE(client.WaitForHandled(2));
    EXPECT_EQ(2u, client.Indications().size());
}

TEST_F(CEngineTest, MalformedBlocksAreDroppedAndTheStreamStaysInStep)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    m_oGateway.SetHandler(
        [](const std::string& f)
        {
            // A 6-byte block that would be an indication, an empty block, then the answer.
            return Hex("04 00 03 03 00 00") + Hex("00 00") + Cnf(0x0303, FrameId(f), Frame({0, 0x66}));
        });
    CTarvikMsg* cnf = nullptr;
    ASSERT_EQ(0, client.Transact(0x0303, "", cnf));
    std::unique_ptr<CTarvikMsg> owned(cnf);
    EXPECT_EQ(ToHex(Frame({0, 0x66})), ToHex(cnf->GetData()));
    EXPECT_TRUE(client.Indications().empty());

    // A block too long for a 16-bit size, then an answer.
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return Hex("FF FF") + std::string(65535, '\x03') + Cnf(0x0303, FrameId(f), Frame({0, 0x77}));
        });
    ASSERT_EQ(0, client.Transact(0x0303, "", cnf));
    owned.reset(cnf);
    EXPECT_EQ(ToHex(Frame({0, 0x77})), ToHex(cnf->GetData()));
    EXPECT_TRUE(client.Indications().empty());

    size_t invalid = 0;
    for (const CTraceLog::SEntry& entry : client.m_oTrace.Entries())
        invalid += (entry.m_eKind == STarvikTrace::eReceived && !entry.m_bValid) ? 1 : 0;
    EXPECT_EQ(3u, invalid);
}

TEST_F(CEngineTest, BlocksThatDisagreeWithTheirLengthFieldAreDropped)
{
    CProbeClient client(kTimeoutMs);
    const std::string blocks[] = {
        Hex("05 00 03 83 07 00"),       // 6 bytes
        Hex("09 00 03 83 07 00 00 84"), // length field 9 on 8 bytes
        Hex("04 00 03 03 07 00 04 03"), // an indication that is too short for its field
    };
    for (const std::string& block : blocks)
        client.DataInd(block.data(), static_cast<unsigned short>(block.size()));
    EXPECT_EQ(nullptr, client.GetMsg(7));
    EXPECT_TRUE(client.Indications().empty());

    // The same path takes a well-formed block.
    const std::string good = Cnf(0x0303, 7, Frame({0}));
    client.DataInd(good.data(), static_cast<unsigned short>(good.size()));
    std::unique_ptr<CTarvikMsg> cnf(client.GetMsg(7));
    EXPECT_NE(nullptr, cnf);
}

TEST_F(CEngineTest, MessageIdsStartAtZeroRestartAtTwoAfterOpenAndWrapAtSixteenBits)
{
    m_oGateway.SetHandler(AnswerOk());
    CProbeClient client(kTimeoutMs);
    Connect(client);
    EXPECT_EQ(0, client.NextMsgID());
    EXPECT_EQ(1, client.NextMsgID());
    EXPECT_EQ(0, client.Open());
    EXPECT_EQ(2, client.NextMsgID());
    while (client.NextMsgID() != 32766)
    {
    }
    CTarvikMsg* cnf = nullptr;
    ASSERT_EQ(0, client.Transact(0x030C, "", cnf));
    delete cnf;
    ASSERT_EQ(0, client.Transact(0x030C, "", cnf));
    delete cnf;
    std::vector<std::string> frames = m_oGateway.GetFrames();
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ(ToHex(Hex("05 00 0C 03 FF 7F 8F")), ToHex(frames[0]));
    EXPECT_EQ(ToHex(Hex("05 00 0C 03 00 80 8F")), ToHex(frames[1]));
    EXPECT_EQ(-32767, client.NextMsgID());
    while (client.NextMsgID() != -1)
    {
    }
    EXPECT_EQ(0, client.NextMsgID());
}

TEST_F(CEngineTest, RequestRefusesAPayloadTooLongForATelegram)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    CTarvikReply reply;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, client.Request(0x03, std::string(65531, '\0'), reply));
    EXPECT_FALSE(reply.HasCnf());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, m_oGateway.GetFrameCount());
}

TEST_F(CEngineTest, PeerCloseWakesNobodyAndLaterRequestsAreNotConnected)
{
    CProbeClient client(kTimeoutMs);
    Connect(client);
    m_oGateway.SetHandler(
        [this](const std::string&)
        {
            m_oGateway.CloseClients();
            return std::string();
        });
    CTarvikMsg* cnf = nullptr;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.Transact(0x0303, "", cnf));
    int64_t elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, kTimeoutMs - 10);
    EXPECT_LT(elapsed, 10000);
    ASSERT_TRUE(client.m_oTrace.WaitFor(STarvikTrace::eDisconnected, 1));
    EXPECT_NE(CMolIPBase::eStateConnected, client.GetConnectState());
    EXPECT_EQ((std::vector<bool>{true, false}), client.ConIndications());
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, client.Transact(0x0303, "", cnf));

    // Connecting again brings it back.
    m_oGateway.SetHandler(AnswerOk());
    ASSERT_EQ(0, client.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
    ASSERT_EQ(0, client.Transact(0x0303, "", cnf));
    delete cnf;
}

TEST_F(CEngineTest, TraceSinkSeesTelegramsBothWaysAndTheConnection)
{
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return TelegramWithCheck(0x8303, FrameId(f), Frame({0, 0x42}), 0) + Hex("04 00 03 03 00 00");
        });
    CProbeClient client(kTimeoutMs);
    Connect(client);
    // The connection is reported from the receive thread once it runs.
    ASSERT_TRUE(client.m_oTrace.WaitFor(STarvikTrace::eConnected, 1));
    CTarvikMsg* cnf = nullptr;
    EXPECT_EQ(TARVIK_ERR_CRC, client.Transact(0x0303, Frame({0x99}), cnf));
    delete cnf;
    ASSERT_TRUE(client.m_oTrace.WaitFor(STarvikTrace::eReceived, 2));
    EXPECT_EQ(0, client.Disconnect());
    ASSERT_TRUE(client.m_oTrace.WaitFor(STarvikTrace::eDisconnected, 1));

    std::vector<CTraceLog::SEntry> entries = client.m_oTrace.Entries();
    ASSERT_EQ(5u, entries.size());
    EXPECT_EQ(STarvikTrace::eConnected, entries[0].m_eKind);
    EXPECT_EQ(STarvikTrace::eSent, entries[1].m_eKind);
    EXPECT_EQ(0x0303, entries[1].m_nCmdCode);
    EXPECT_EQ(0, entries[1].m_nMsgID);
    EXPECT_EQ(ToHex(Frame({0x99})), ToHex(entries[1].m_sData));
    EXPECT_TRUE(entries[1].m_bValid);
    EXPECT_TRUE(entries[1].m_bCRCValid);
    EXPECT_EQ(eTarvikSPI, entries[1].m_nDeviceType);
    EXPECT_EQ(STarvikTrace::eReceived, entries[2].m_eKind);
    EXPECT_EQ(0x8303, entries[2].m_nCmdCode);
    EXPECT_EQ(ToHex(Frame({0, 0x42})), ToHex(entries[2].m_sData));
    EXPECT_TRUE(entries[2].m_bValid);
    EXPECT_FALSE(entries[2].m_bCRCValid);
    EXPECT_EQ(STarvikTrace::eReceived, entries[3].m_eKind);
    EXPECT_FALSE(entries[3].m_bValid);
    EXPECT_EQ(STarvikTrace::eDisconnected, entries[4].m_eKind);

    // Switched off, the sink hears nothing more.
    client.SetTraceSink(nullptr, nullptr);
    m_oGateway.SetHandler(AnswerOk());
    ASSERT_EQ(0, client.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
    ASSERT_EQ(0, client.Transact(0x0303, "", cnf));
    delete cnf;
    EXPECT_EQ(5u, client.m_oTrace.Entries().size());
}

TEST(TarvikClientConnect, PortZeroMeansTheDeviceTypesDefaultPort)
{
    struct SCase
    {
        ETarvikDevice m_eType;
        unsigned short m_nPort;
    };
    const SCase cases[] = {{eTarvikSPI, 5002}, {eTarvikDIO, 5004}, {eTarvikFirmware, 5099}};
    for (const SCase& c : cases)
    {
        CFakeGateway gateway;
        ASSERT_TRUE(gateway.StartOnLoopbackNet(kLoopbackNet, c.m_nPort)) << c.m_nPort;
        CTarvikClient client(c.m_eType, kTimeoutMs);
        EXPECT_EQ(0, client.Connect(gateway.GetAddress().c_str(), 0)) << c.m_nPort;
        EXPECT_EQ(CMolIPBase::eStateConnected, client.GetConnectState());
        EXPECT_TRUE(gateway.WaitForAccepted(1, kWaitMs)) << c.m_nPort;
    }
}

TEST(TarvikClientConnect, ConnectFailuresBecomeResultCodes)
{
    CFakeGateway refusing;
    ASSERT_TRUE(refusing.Start("127.0.0.1", 0, CFakeGateway::eModeRefuse));
    CTarvikClientSPI client(kTimeoutMs);
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, client.Connect("127.0.0.1", refusing.GetPort()));

    CFakeGateway silent;
    ASSERT_TRUE(silent.Start("127.0.0.1", 0, CFakeGateway::eModeSilent));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, client.Connect("127.0.0.1", silent.GetPort()));
    EXPECT_GE(ElapsedMs(start), kTimeoutMs - 10);
    EXPECT_NE(CMolIPBase::eStateConnected, client.GetConnectState());
}
