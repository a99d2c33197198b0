// The simulated CAN gateways on their shared bus, over raw sockets: two gateways
// exchange frames, the filter, cyclic messages, confirmations with the gateway's time,
// the remembered settings, and the CANopen master with its nodes. Requests and answers
// are hand-written; indications are read as they arrive between the answers.
#include "support/FakeGateway.h"
#include "support/SimFixture.h"
#include "support/Wait.h"

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimCanOpenNode.h"
#include "sim/TarvikSimCanPacer.h"
#include "sim/TarvikSimDeviceCAN.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <thread>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kWrite = 0x0203;
constexpr unsigned int kSetConfig = 0x0205;
constexpr unsigned int kSetTime = 0x020B;
constexpr unsigned int kGetTime = 0x020E;
constexpr unsigned int kSetFilter = 0x0220;
constexpr unsigned int kCyclic = 0x0225;
constexpr unsigned int kCoSetConfig = 0x0260;
constexpr unsigned int kCoNmt = 0x0263;
constexpr unsigned int kCoSync = 0x0264;
constexpr unsigned int kCoEmcy = 0x0266;
constexpr unsigned int kCoPdo = 0x0267;
constexpr unsigned int kSdoRead = 0x0268;
constexpr unsigned int kSdoWrite = 0x0269;
constexpr unsigned int kSdoReadBlock = 0x026A;
constexpr unsigned int kSdoWriteBlock = 0x026B;
constexpr unsigned int kCoGuard = 0x026C;
constexpr unsigned int kCoUndefined = 0x026D;
constexpr unsigned int kWaitMs = 3000;

unsigned int U32At(const std::string& bytes, size_t pos)
{
    unsigned int value = 0;
    for (size_t i = 0; i < 4 && pos + i < bytes.size(); ++i)
        value |= static_cast<unsigned int>(static_cast<unsigned char>(bytes[pos + i])) << (8 * i);
    return value;
}

// A raw client of one gateway that keeps the indications it meets while waiting for answers.
struct SGatewayClient
{
    CTarvikSimRawClient m_oRaw;
    std::deque<std::string> m_asIndications;
    int m_nNextId = 0x100;

    // The answer's data field as hex; its code and id are checked on the way.
    std::string Ask(unsigned int cmd, const std::string& hexData)
    {
        int id = m_nNextId++;
        if (!m_oRaw.Send(Telegram(cmd, id, Hex(hexData))))
            return "send failed";
        for (;;)
        {
            std::string frame = m_oRaw.ReceiveFrame(kWaitMs);
            if (frame.empty())
                return "no answer";
            if ((FrameCmd(frame) & 0x8000) == 0)
            {
                m_asIndications.push_back(frame);
                continue;
            }
            EXPECT_EQ(ToHex(Cnf(cmd, id, FrameData(frame))), ToHex(frame));
            return ToHex(FrameData(frame));
        }
    }
    // The data of the next indication of cmd whose data starts with prefix (hex),
    // skipping the others.
    std::string Next(unsigned int cmd, const std::string& prefix = std::string())
    {
        for (;;)
        {
            std::string frame;
            if (!m_asIndications.empty())
            {
                frame = m_asIndications.front();
                m_asIndications.pop_front();
            }
            else
                frame = m_oRaw.ReceiveFrame(kWaitMs);
            if (frame.empty())
                return "none";
            std::string data = ToHex(FrameData(frame));
            if (FrameCmd(frame) == cmd && data.compare(0, prefix.size(), prefix) == 0)
                return data;
        }
    }
};

class SimCan : public CSimServerFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartSim({{eTarvikCAN, 0}, {eTarvikCAN, 1}}));
        m_pBus = m_oServer.GetCanBus().get();
        for (unsigned int i = 0; i < 2; ++i)
        {
            ASSERT_NE(nullptr, m_apGateway[i] = Model<CTarvikSimDeviceCAN>(eTarvikCAN, i));
            ASSERT_TRUE(m_aoClient[i].m_oRaw.Connect("127.0.0.1", m_oServer.GetPort(eTarvikCAN, i)));
            // The answer also tells that the gateway has taken the connection on.
            ASSERT_EQ("00", m_aoClient[i].Ask(kSetConfig, "01 00"));
        }
    }
    void CanOpenOn(SGatewayClient& client) { ASSERT_EQ("00", client.Ask(kCoSetConfig, "01")); }

    CTarvikSimCanBus* m_pBus = nullptr;
    CTarvikSimDeviceCAN* m_apGateway[2] = {};
    SGatewayClient m_aoClient[2];
    SGatewayClient& m_oA = m_aoClient[0];
    SGatewayClient& m_oB = m_aoClient[1];
};
} // namespace

TEST_F(SimCan, GatewaysOfOneTypeAreKeptByPortIndex)
{
    EXPECT_NE(m_oServer.GetPort(eTarvikCAN, 0), m_oServer.GetPort(eTarvikCAN, 1));
    EXPECT_EQ(m_oServer.GetPort(eTarvikCAN, 0), m_oServer.GetPort(eTarvikCAN));
    EXPECT_EQ(EBUSY, m_oServer.AddDevice(eTarvikCAN, "127.0.0.1", 0, 2));
    CTarvikSimServer other;
    ASSERT_EQ(0, other.AddDevice(eTarvikCAN, "127.0.0.1", 0, 1));
    EXPECT_EQ(EEXIST, other.AddDevice(eTarvikCAN, "127.0.0.1", 0, 1));
    EXPECT_EQ(nullptr, other.GetDevice(eTarvikCAN, 0));
    EXPECT_EQ(1u, other.GetDevice(eTarvikCAN)->GetIndex());
}

TEST_F(SimCan, AWrittenFrameReachesTheOtherGatewayAndTheLog)
{
    // A confirmed: result 0 and a time of transmission; B unconfirmed: no answer at all.
    std::string cnf = m_oA.Ask(kWrite, "23 01 00 00 00 DE AD");
    EXPECT_EQ(9u * 3 - 1, cnf.size()) << cnf;
    EXPECT_EQ("23 01 00 00 00 DE AD", m_oB.Next(kWrite));
    ASSERT_EQ("00", m_oB.Ask(kSetConfig, "00 00"));
    ASSERT_TRUE(m_oB.m_oRaw.Send(Telegram(kWrite, 7, Hex("78 56 34 12 01 01 02 03"))));
    EXPECT_EQ("78 56 34 12 01 01 02 03", m_oA.Next(kWrite));
    EXPECT_EQ("00 00 00", m_oB.Ask(0x0206, ""));
    std::vector<STarvikSimCanFrame> log = m_pBus->GetLog();
    ASSERT_EQ(2u, log.size());
    EXPECT_EQ(0x123u, log[0].m_nId);
    EXPECT_EQ("can0", log[0].m_sSender);
    EXPECT_EQ(0x12345678u, log[1].m_nId);
    EXPECT_EQ("can1", log[1].m_sSender);
    // Frames a CAN controller cannot send: 12-bit standard identifier, 9 bytes classic.
    EXPECT_EQ("21", m_oA.Ask(kWrite, "00 08 00 00 00"));
    EXPECT_EQ("21", m_oA.Ask(kWrite, "01 00 00 00 00 01 02 03 04 05 06 07 08 09"));
    EXPECT_EQ(2u, m_pBus->GetFrameCount());
}

TEST_F(SimCan, TimesComeFromEachGatewaysClock)
{
    EXPECT_EQ("00 00", m_oA.Ask(kGetTime, "").substr(0, 5));
    // A at 1700000000.5 s, B at 1600000000 s; B asks for time stamps.
    ASSERT_EQ("00", m_oA.Ask(kSetTime, "00 F1 53 65 20 A1 07 00"));
    ASSERT_EQ("00", m_oB.Ask(kSetTime, "00 10 5E 5F 00 00 00 00"));
    ASSERT_EQ("00", m_oB.Ask(kSetConfig, "00 01"));
    std::string time = Hex(m_oA.Ask(kGetTime, ""));
    ASSERT_EQ(10u, time.size());
    EXPECT_EQ(1, time[1]);
    std::string sent = Hex(m_oA.Ask(kWrite, "11 00 00 00 00 AA"));
    ASSERT_EQ(9u, sent.size());
    EXPECT_GE(U32At(sent, 1), 1700000000u);
    EXPECT_LT(U32At(sent, 1), 1700000060u);
    std::string stamped = Hex(m_oB.Next(kWrite));
    ASSERT_EQ(14u, stamped.size());
    EXPECT_EQ(Hex("11 00 00 00 04 AA"), stamped.substr(0, 6));
    EXPECT_GE(U32At(stamped, 6), 1600000000u);
    EXPECT_LT(U32At(stamped, 6), 1600000060u);
}

TEST_F(SimCan, TheFilterLetsOnlyMatchingFramesThrough)
{
    // Pair 0: code 0x100, mask 0x700; the other seven unused.
    ASSERT_EQ("00", m_oB.Ask(kSetFilter, "00 01 00 00 00 07 00 00" + std::string(14 * 8, '0')));
    EXPECT_EQ("00 " + ToHex(Hex("00 01 00 00 00 07 00 00") + std::string(56, '\0')), m_oB.Ask(0x0221, ""));
    m_oA.Ask(kWrite, "23 02 00 00 00 01");
    m_oA.Ask(kWrite, "23 01 00 00 00 02");
    EXPECT_EQ("23 01 00 00 00 02", m_oB.Next(kWrite));
    ASSERT_TRUE(m_pBus->WaitDelivered());
    EXPECT_TRUE(m_oB.m_asIndications.empty());
}

TEST_F(SimCan, CyclicMessagesRepeatUntilDisabled)
{
    auto count = [this] {
        size_t n = 0;
        for (const STarvikSimCanFrame& frame : m_pBus->GetLog())
            n += frame.m_nId == 0x321;
        return n;
    };
    EXPECT_EQ("FF", m_oA.Ask(kCyclic, "90 14 00 00 00 21 03 00 00 00 01"));
    EXPECT_EQ("00", m_oA.Ask(kCyclic, "83 14 00 00 00 21 03 00 00 00 01"));
    EXPECT_TRUE(Eventually([&] { return count() >= 4; }));
    EXPECT_EQ("21 03 00 00 00 01", m_oB.Next(kWrite));
    EXPECT_EQ("00", m_oA.Ask(kCyclic, "03"));
    size_t stopped = count();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(stopped, count());
}

// Settings the gateway remembers, each answered as sent; a bad baud rate changes nothing.
TEST_F(SimCan, SettingsAreRememberedAndBadOnesRefused)
{
    struct SRow
    {
        unsigned int m_nCmd;
        const char* m_pData;
        const char* m_pAnswer;
    };
    const SRow rows[] = {
        {0x0208, "", "00 00 20 A1 07 00 00 00 00 00 00 00 00 00 00"},
        {0x0207, "03 40 42 0F 00 01 00 01 01 78 56 34 12 01", "00"},
        {0x0207, "03 39 30 00 00 00 00 00 00 00 00 00 00 00", "24"},
        {0x0207, "03 40 42 0F 00", "FF"},
        {0x0208, "", "00 03 40 42 0F 00 01 00 01 01 78 56 34 12 01"},
        {0x0251, "01 03 02 05 04 05 04", "00"},
        {0x0251, "01 03 02 05 04 06 04", "FF"},
        {0x0252, "", "00 01 03 02 05 04"},
        {0x0224, "05 00 00 00", "00"},
        {0x0223, "01", "00"},
        // 4 values, 4 supply states, 1 relay state; 25.3 degC, 24 V in, 240 mA; relay on;
        // supplies 0 and 2 at 5 V and 3.3 V.
        {0x0222, "", "00 04 04 01 FD 00 C0 5D F0 00 01 88 13 00 00 E4 0C 00 00 01 00 01 00 01"},
        {0x0206, "", "00 01 00"},
        {0x0261, "", "00 00"},
        {0x0268, "02 00 10 00 F4 01", "FE"},
        {0x0264, "", "FE"},
    };
    for (const SRow& row : rows)
        EXPECT_EQ(row.m_pAnswer, m_oA.Ask(row.m_nCmd, row.m_pData)) << std::hex << row.m_nCmd << " " << row.m_pData;
    // Another connection sees the gateway's settings but has its own send-confirm flag.
    SGatewayClient other;
    ASSERT_TRUE(other.m_oRaw.Connect("127.0.0.1", m_oServer.GetPort(eTarvikCAN, 0)));
    EXPECT_EQ("00 01 03 02 05 04", other.Ask(0x0252, ""));
    EXPECT_EQ("00 00 00", other.Ask(0x0206, ""));
}

// SDO services on node 2 in CANopen mode: result, status and value or abort code.
TEST_F(SimCan, SdoTransfersActOnTheObjectDictionary)
{
    CanOpenOn(m_oA);
    struct SRow
    {
        unsigned int m_nCmd;
        const char* m_pData;
        const char* m_pAnswer;
    };
    const SRow rows[] = {
        {kSdoRead, "02 00 10 00 F4 01", "00 00 91 01 00 00"},
        {kSdoRead, "02 18 10 04 F4 01", "00 00 EA 03 00 00"},
        {kSdoRead, "02 00 30 00 F4 01", "FD 80 00 00 02 06"},
        {kSdoRead, "02 18 10 09 F4 01", "FD 80 11 00 09 06"},
        {kSdoRead, "02 00 21 00 F4 01", "FD 80 12 00 07 06"},
        {kSdoRead, "09 00 10 00 F4 01", "FC"},
        {kSdoWrite, "02 04 02 20 00 F4 01 78 56 34 12", "00 00 78 56 34 12"},
        {kSdoRead, "02 02 20 00 F4 01", "00 00 78 56 34 12"},
        {kSdoWrite, "02 01 01 20 00 F4 01 AA 00 00 00", "FD 80 10 00 07 06"},
        {kSdoWrite, "02 04 00 10 00 F4 01 00 00 00 00", "FD 80 02 00 01 06"},
        {kSdoWriteBlock, "02 00 21 00 F4 01 01 02 03", "00 00 03 00 00 00"},
        {kSdoReadBlock, "02 00 21 00 F4 01", "00 00 01 02 03"},
        {kSdoWriteBlock, "02 01 20 00 F4 01 01 02 03", "FD 80 10 00 07 06"},
        {kSdoRead, "03 01 20 00 F4 01", "00 00 00 00"},
    };
    for (const SRow& row : rows)
        EXPECT_EQ(row.m_pAnswer, m_oA.Ask(row.m_nCmd, row.m_pData)) << std::hex << row.m_nCmd << " " << row.m_pData;

    // A node told to abort an entry does so with that code, or stays silent, until told 0.
    CTarvikSimCanOpenNode& node = *m_pBus->GetNode(2);
    node.SetSdoAbort(0x1000, 0, 0x08000022);
    EXPECT_EQ("FD 80 22 00 00 08", m_oA.Ask(kSdoRead, "02 00 10 00 F4 01"));
    node.SetSdoAbort(0x1000, 0, CTarvikSimCanOpenNode::eSdoNoAnswer);
    EXPECT_EQ("FC", m_oA.Ask(kSdoWrite, "02 04 00 10 00 F4 01 00 00 00 00"));
    node.SetSdoAbort(0x1000, 0, 0);
    EXPECT_EQ("00 00 91 01 00 00", m_oA.Ask(kSdoRead, "02 00 10 00 F4 01"));
}

TEST_F(SimCan, BlockTransfersMoveTheWholeDomain)
{
    CanOpenOn(m_oA);
    std::string domain;
    ASSERT_TRUE(m_pBus->GetNode(3)->GetObject(0x2100, 0, domain));
    ASSERT_EQ(CTarvikSimCanOpenNode::kDomainSize, domain.size());
    EXPECT_EQ("00 00 " + ToHex(domain), m_oA.Ask(kSdoReadBlock, "03 00 21 00 F4 01"));
    std::string image(3000, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>(i * 13);
    EXPECT_EQ("00 00 B8 0B 00 00", m_oA.Ask(kSdoWriteBlock, "03 00 21 00 F4 01 " + ToHex(image)));
    EXPECT_EQ("00 00 " + ToHex(image), m_oA.Ask(kSdoReadBlock, "03 00 21 00 F4 01"));
    EXPECT_EQ("FD 80 12 00 07 06", m_oA.Ask(kSdoWriteBlock, "03 00 21 00 F4 01 " + ToHex(domain + "x")));
}

TEST_F(SimCan, NmtSyncHeartbeatsAndEmergenciesComeBackAsIndications)
{
    CanOpenOn(m_oA);
    // Node 2: 0x2000..0x2002 = 11, 2222, 33333333 for its PDO; heartbeat every 30 ms.
    m_oA.Ask(kSdoWrite, "02 01 00 20 00 F4 01 11 00 00 00");
    m_oA.Ask(kSdoWrite, "02 02 01 20 00 F4 01 22 22 00 00");
    m_oA.Ask(kSdoWrite, "02 04 02 20 00 F4 01 33 33 33 33");
    m_oA.Ask(kSdoWrite, "02 02 17 10 00 F4 01 1E 00 00 00");
    EXPECT_EQ("02 7F", m_oA.Next(kCoGuard));
    // Pre-operational nodes send no PDO on SYNC; operational ones do.
    EXPECT_EQ("00", m_oA.Ask(kCoSync, ""));
    EXPECT_EQ("00", m_oA.Ask(kCoNmt, "02 01"));
    EXPECT_EQ(CTarvikSimCanOpenNode::eStateOperational, m_pBus->GetNode(2)->GetState());
    EXPECT_EQ("02 05", m_oA.Next(kCoGuard));
    EXPECT_EQ("00", m_oA.Ask(kCoSync, ""));
    EXPECT_EQ("02 01 07 11 22 22 33 33 33 33", m_oA.Next(kCoPdo));
    // The other gateway, not in CANopen mode, sees the same traffic as plain frames.
    EXPECT_EQ("00 00 00 00 00 01 02", m_oB.Next(kWrite, "00 00 00 00"));
    EXPECT_TRUE(m_pBus->GetNode(3)->RaiseEmcy(0x1081, 0x11, Hex("01 02 03 04 05")));
    EXPECT_EQ("03 81 10 11 01 02 03 04 05", m_oA.Next(kCoEmcy));
    EXPECT_EQ("00", m_oA.Ask(kCoNmt, "03 02"));
    EXPECT_FALSE(m_pBus->GetNode(3)->RaiseEmcy(0x1000, 0x01));
    // A node that falls silent is reported lost; back on, it boots.
    m_pBus->GetNode(2)->SetPowered(false);
    EXPECT_EQ("02 FF", m_oA.Next(kCoGuard));
    m_pBus->GetNode(2)->SetPowered(true);
    m_pBus->Inject(STarvikSimCanFrame{0x702, 0, Hex("7F"), 0, {}});
    EXPECT_EQ("02 00", m_oA.Next(kCoGuard));
    EXPECT_EQ("02 7F", m_oA.Next(kCoGuard));
    // Frames of no CANopen service arrive as undefined ones.
    m_pBus->Inject(STarvikSimCanFrame{0x123, 0, Hex("AB"), 0, {}});
    EXPECT_EQ("23 01 00 00 00 AB", m_oA.Next(kCoUndefined));
    EXPECT_EQ("00", m_oA.Ask(kCoPdo, "03 01 01 02"));
}

TEST_F(SimCan, StreamedFramesArriveInOrder)
{
    std::vector<unsigned long> connections = m_apGateway[1]->GetConnections();
    ASSERT_EQ(1u, connections.size());
    constexpr size_t kCount = 20000;
    std::thread streamer([&] {
        m_apGateway[1]->StreamFrames(connections[0], {0x55, 0, std::string(8, '\0'), 0, {}}, kCount);
    });
    size_t inOrder = 0;
    for (size_t i = 0; i < kCount; ++i)
    {
        std::string frame = m_oB.m_oRaw.ReceiveFrame(kWaitMs);
        inOrder +=
            FrameData(frame) == Hex("55 00 00 00 00") + LE32(static_cast<unsigned int>(i)) + std::string(4, '\0');
    }
    streamer.join();
    EXPECT_EQ(kCount, inOrder);
    EXPECT_EQ(0u, m_apGateway[1]->GetDroppedCount());
}

// The deadline clock on a made-up time line: due frames by the schedule, never by the gaps
// between looks; a lag longer than the catch-up burst is forgiven, not sent in a flood.
TEST(SimCanPacer, FramesFallDueByTheScheduleAndALongLagIsForgiven)
{
    using std::chrono::microseconds;
    const CTarvikSimCanPacer::Clock::time_point start{};
    CTarvikSimCanPacer pacer(1000, start);
    const struct
    {
        long m_nAtUs;
        size_t m_nTaken;
        long m_nNextDueUs;
    } steps[] = {
        {0, 1, 1000},           // frame 0 is due at the start
        {999, 0, 1000},         // frame 1 not yet
        {1000, 1, 2000},        // exactly at its deadline
        {10500, 9, 11000},      // a late look takes what fell due meanwhile: frames 2..10
        {10900, 0, 11000},      // the schedule did not slip by the late look
        {1000000, 50, 1001000}, // 990 due, the burst is 50 ms of frames
        {1001000, 1, 1002000},  // and the schedule goes on from now
    };
    for (const auto& step : steps)
    {
        SCOPED_TRACE(step.m_nAtUs);
        EXPECT_EQ(step.m_nTaken, pacer.Take(start + microseconds(step.m_nAtUs)));
        EXPECT_EQ(start + microseconds(step.m_nNextDueUs), pacer.NextDue());
    }
    EXPECT_EQ(62u, pacer.GetTaken());
    EXPECT_EQ(940u, pacer.GetSkipped());
    // A rate that does not divide a second: frame 1 of 3 a second is due at 1/3 s, rounded up.
    using std::chrono::nanoseconds;
    CTarvikSimCanPacer third(3, start);
    EXPECT_EQ(1u, third.Take(start));
    EXPECT_EQ(start + nanoseconds(333333334), third.NextDue());
    EXPECT_EQ(0u, third.Take(start + nanoseconds(333333333)));
    EXPECT_EQ(1u, third.Take(start + nanoseconds(333333334)));
    EXPECT_EQ(start + nanoseconds(666666667), third.NextDue());
}

TEST_F(SimCan, TheBusStreamsAtItsRateToEveryClient)
{
    EXPECT_FALSE(m_pBus->SetStream(CTarvikSimCanBus::kMaxStreamRate + 1));
    EXPECT_EQ(0u, m_pBus->GetStreamRate());
    ASSERT_TRUE(m_pBus->SetStream(2000));
    EXPECT_EQ(2000u, m_pBus->GetStreamRate());
    // At least 200 frames, in order and numbered from 0, within a deadline far above their 0.1 s.
    for (SGatewayClient* client : {&m_oA, &m_oB})
        for (unsigned int i = 0; i < 200; ++i)
            ASSERT_EQ("55 00 00 00 00 " + ToHex(LE32(i)) + " 00 00 00 00", client->Next(kWrite)) << i;
    ASSERT_TRUE(m_pBus->SetStream(0));
    const unsigned long streamed = m_pBus->GetStreamedCount();
    EXPECT_GE(streamed, 200u);
    // Stopped: a frame sent afterwards reaches B (so the bus thread has run on), and the
    // stream added nothing meanwhile.
    m_oA.Ask(kWrite, "66 00 00 00 00 01");
    EXPECT_EQ("66 00 00 00 00 01", m_oB.Next(kWrite, "66"));
    EXPECT_EQ(streamed, m_pBus->GetStreamedCount());
    EXPECT_EQ(0u, m_pBus->GetStreamRate());
}
