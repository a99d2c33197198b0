// The library's clients against the simulator's fault modes: the result code each
// fault gives, that no call overruns its time-out, and how the client recovers: the
// next request succeeds, or after a broken stream the connection ends on its own and
// a Disconnect and Connect bring it back.
#include "support/FakeGateway.h"
#include "support/SimFixture.h"
#include "support/Wait.h"

#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
// What a call may take beyond its time-out.
constexpr auto kSlack = std::chrono::milliseconds(500);
constexpr int kOk = 0;
constexpr int kTimeout = TARVIK_ERR_TIMEOUT;
constexpr int kNotConnected = TARVIK_ERR_NOT_CONNECTED;

// EEPROM contents the reading operations expect.
constexpr unsigned int kMarkAddress = 0x0010;
const std::string kMark = Hex("AB CD EF 01");

// Operations of the SPI client and of every client, each checking its answer: a
// result of 0 with the wrong data counts as kWrongData.
enum EOp
{
    eOpGetGlobals,
    eOpDataReq,
    eOpSequence,
    eOpInfo,
    eOpStatus,
    eOpReadAnalog,
};
constexpr int kWrongData = -1;

int Check(int rc, bool good)
{
    return rc != 0 || good ? rc : kWrongData;
}

int Call(CTarvikClientSPI& client, EOp op)
{
    switch (op)
    {
    case eOpGetGlobals:
    {
        unsigned int rate = 0;
        unsigned char s1 = 1, s2 = 1, s3 = 1;
        int rc = client.GetGlobals(rate, s1, s2, s3);
        return Check(rc, rate == CTarvikSimDeviceSPI::kDefaultRate && s1 == 0 && s2 == 0 && s3 == 0);
    }
    case eOpDataReq:
    {
        // READ at the mark: three bytes clocked in during the instruction, then the mark.
        const char send[] = {0x03, 0x00, static_cast<char>(kMarkAddress)};
        char recv[7] = {};
        int rc = client.DataReq(send, sizeof(send), recv, sizeof(recv));
        return Check(rc, std::string(recv + 3, 4) == kMark);
    }
    case eOpSequence:
    {
        // SELECT, WRITE [READ 00 10], READ 4, DESELECT; asynchronous, collected by id.
        const std::string script = Hex("01 03 03 00 03 00 10 04 04 00 02");
        short id = -1;
        int rc = client.SequenceReq(script.data(), static_cast<unsigned short>(script.size()), &id);
        if (rc != 0)
            return rc;
        char out[4] = {};
        rc = client.SequenceGetCnf(id, out, sizeof(out));
        return Check(rc, std::string(out, 4) == kMark);
    }
    case eOpInfo:
    {
        STarvikDeviceInfo info = {};
        int rc = client.Info(&info);
        // Serial number 21003000, little-endian.
        return Check(rc, ToHex(std::string(reinterpret_cast<char*>(info.m_abData), 4)) == "F8 7A 40 01");
    }
    case eOpStatus:
    {
        std::string text;
        int rc = client.Status(text);
        return Check(rc, text.compare(0, 19, "Tarvik SPI #0 ready") == 0);
    }
    case eOpReadAnalog:
    {
        unsigned int first = 0;
        unsigned int values[8] = {};
        unsigned short count = 8;
        int rc = client.ReadAnalog(first, values, count);
        return Check(rc, first == 8 && count == 8);
    }
    }
    return kWrongData;
}

// Runs op and checks that it returned within its time-out and a little more.
int TimedCall(CTarvikClientSPI& client, EOp op)
{
    auto start = std::chrono::steady_clock::now();
    int rc = Call(client, op);
    auto took = std::chrono::steady_clock::now() - start;
    // An asynchronous sequence is one send and one wait: both bounded alike.
    EXPECT_LE(took, std::chrono::milliseconds(kTimeoutMs) + kSlack) << "call took too long";
    return rc;
}

class CSimFaultTest : public CSimServerFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartSim({{eTarvikSPI, 0}}));
        auto* spi = Model<CTarvikSimDeviceSPI>(eTarvikSPI);
        ASSERT_NE(nullptr, spi);
        spi->PokeEeprom(kMarkAddress, kMark);
    }

    std::unique_ptr<CTarvikClientSPI> Connected(unsigned int timeoutMs = kTimeoutMs)
    {
        auto client = std::make_unique<CTarvikClientSPI>(timeoutMs);
        EXPECT_EQ(0, client->Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
        client->Open();
        return client;
    }

    // After a broken stream: the connection ends by itself, requests fail at once as
    // not connected, and a new connection works.
    void ExpectReconnectRecovers(CTarvikClientSPI& client, EOp op)
    {
        EXPECT_TRUE(Eventually([&] { return client.GetConnectState() != CMolIPBase::eStateConnected; }))
            << "the connection did not end";
        EXPECT_EQ(kNotConnected, TimedCall(client, op));
        client.Disconnect();
        ASSERT_EQ(0, client.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
        EXPECT_EQ(kOk, TimedCall(client, op));
    }
};

enum ERecovery
{
    eNextSucceeds,   // the stream is in step: the next request is answered
    eAfterReconnect, // the stream is broken: the connection ends, a new one works
};

typedef std::function<void(CTarvikSimServer&)> TSetFault;

TSetFault Fault(ETarvikSimFault fault)
{
    return [fault](CTarvikSimServer& server) { server.SetFault(fault); };
}

typedef CTarvikSimServer S;

TSetFault Set(void (S::*set)(unsigned int), unsigned int value)
{
    return [set, value](CTarvikSimServer& server) { (server.*set)(value); };
}

TSetFault Delay(unsigned int ms, unsigned int jitterMs)
{
    return [ms, jitterMs](CTarvikSimServer& server) { server.SetAnswerDelay(ms, jitterMs); };
}

struct SFaultCase
{
    const char* m_pName;
    TSetFault m_fnSet;
    EOp m_eOp;
    // Calls that succeed before the one that meets the fault.
    int m_nGoodBefore;
    std::vector<int> m_anResults;
    ERecovery m_eRecovery;
};

TEST_F(CSimFaultTest, EachFaultGivesItsResultAndTheClientRecovers)
{
    const SFaultCase cases[] = {
        {"silent", Fault(eTarvikSimFaultSilent), eOpGetGlobals, 0, {kTimeout}, eNextSucceeds},
        {"every answer dropped", Set(&S::SetDropPercent, 100), eOpDataReq, 0, {kTimeout}, eNextSucceeds},
        {"bad check byte", Fault(eTarvikSimFaultBadCRC), eOpInfo, 0, {TARVIK_ERR_CRC}, eNextSucceeds},
        {"wrong command code", Fault(eTarvikSimFaultWrongCmd), eOpStatus, 0, {TARVIK_ERR_NOT_CONFIRMED}, eNextSucceeds},
        {"wrong message id", Fault(eTarvikSimFaultWrongId), eOpGetGlobals, 0, {kTimeout}, eNextSucceeds},
        {"wrong message id, asynchronous", Fault(eTarvikSimFaultWrongId), eOpSequence, 0, {kTimeout}, eNextSucceeds},
        {"answered twice", Fault(eTarvikSimFaultTwice), eOpSequence, 0, {kOk}, eNextSucceeds},
        {"indications", Set(&S::SetIndications, 3), eOpReadAnalog, 0, {kOk}, eNextSucceeds},
        {"stray confirmations", Set(&S::SetStrayConfirmations, 5), eOpDataReq, 0, {kOk}, eNextSucceeds},
        {"delay and jitter within the time-out", Delay(100, 50), eOpGetGlobals, 0, {kOk}, eNextSucceeds},
        {"delay beyond the time-out", Delay(kTimeoutMs + 100, 0), eOpInfo, 0, {kTimeout}, eNextSucceeds},
        {"dribbled within the time-out", Set(&S::SetDribble, 5), eOpGetGlobals, 0, {kOk}, eNextSucceeds},
        {"garbage", Fault(eTarvikSimFaultGarbage), eOpGetGlobals, 0, {kTimeout}, eAfterReconnect},
        {"huge length field, then a stall", Fault(eTarvikSimFaultStall), eOpDataReq, 0, {kTimeout}, eAfterReconnect},
        {"closed mid-frame", Fault(eTarvikSimFaultCloseMidFrame), eOpInfo, 0, {kTimeout}, eAfterReconnect},
        {"closed for an answer", Fault(eTarvikSimFaultClose), eOpStatus, 0, {kTimeout, kNotConnected}, eAfterReconnect},
        {"closed after 3", Set(&S::SetCloseAfter, 3), eOpGetGlobals, 3, {kTimeout, kNotConnected}, eAfterReconnect},
    };
    for (const SFaultCase& c : cases)
    {
        SCOPED_TRACE(c.m_pName);
        auto client = Connected();
        c.m_fnSet(m_oServer);
        for (int i = 0; i < c.m_nGoodBefore; ++i)
            EXPECT_EQ(kOk, TimedCall(*client, c.m_eOp));
        int rc = TimedCall(*client, c.m_eOp);
        EXPECT_NE(c.m_anResults.end(), std::find(c.m_anResults.begin(), c.m_anResults.end(), rc))
            << "result 0x" << std::hex << rc;
        m_oServer.ClearFaults();
        if (c.m_eRecovery == eNextSucceeds)
            EXPECT_EQ(kOk, TimedCall(*client, c.m_eOp));
        else
            ExpectReconnectRecovers(*client, c.m_eOp);
    }
}

TEST_F(CSimFaultTest, DropsFollowTheSeedOnEveryConnection)
{
    m_oServer.SetSeed(7);
    m_oServer.SetDropPercent(50);
    std::vector<std::string> patterns;
    for (int connection = 0; connection < 2; ++connection)
    {
        auto client = Connected(100);
        std::string pattern;
        for (int i = 0; i < 12; ++i)
        {
            int rc = Call(*client, eOpGetGlobals);
            ASSERT_TRUE(rc == kOk || rc == kTimeout) << std::hex << rc;
            pattern += rc == kOk ? '+' : '-';
        }
        patterns.push_back(pattern);
    }
    EXPECT_EQ(patterns[0], patterns[1]);
    EXPECT_NE(std::string::npos, patterns[0].find('+')) << patterns[0];
    EXPECT_NE(std::string::npos, patterns[0].find('-')) << patterns[0];
}

TEST_F(CSimFaultTest, FaultsChangedWhileRequestsRunGiveOnlyTheirOwnResults)
{
    auto client = Connected();
    std::atomic<bool> done{false};
    std::thread changer([&] {
        const ETarvikSimFault faults[] = {eTarvikSimFaultBadCRC, eTarvikSimFaultWrongCmd, eTarvikSimFaultNone};
        for (unsigned int i = 0; !done; ++i)
        {
            m_oServer.SetFault(faults[i % 3]);
            m_oServer.SetAnswerDelay(i % 2, i % 3);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const int allowed[] = {kOk, TARVIK_ERR_CRC, TARVIK_ERR_NOT_CONFIRMED};
    for (int i = 0; i < 300; ++i)
    {
        int rc = TimedCall(*client, i % 2 ? eOpGetGlobals : eOpDataReq);
        EXPECT_NE(std::end(allowed), std::find(std::begin(allowed), std::end(allowed), rc)) << std::hex << rc;
    }
    done = true;
    changer.join();
    m_oServer.ClearFaults();
    EXPECT_EQ(kOk, TimedCall(*client, eOpSequence));
}

TEST_F(CSimFaultTest, ClientBeyondTheConnectionLimitIsTurnedAway)
{
    m_oServer.SetMaxConnections(1);
    auto first = Connected();
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 1; }));
    // The gateway accepts, then closes at once: the connect succeeds, or sees the close
    // already; a request on it fails either way.
    CTarvikClientSPI second(kTimeoutMs);
    int rc = second.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI));
    EXPECT_TRUE(rc == kOk || rc == kNotConnected) << std::hex << rc;
    rc = TimedCall(second, eOpGetGlobals);
    EXPECT_TRUE(rc == kNotConnected || rc == kTimeout) << std::hex << rc;
    EXPECT_EQ(1u, m_oServer.GetRefusedCount());
    EXPECT_EQ(kOk, TimedCall(*first, eOpGetGlobals));

    first->Disconnect();
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 0; }));
    second.Disconnect();
    ASSERT_EQ(0, second.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
    EXPECT_EQ(kOk, TimedCall(second, eOpGetGlobals));
}

// Every device family meets the faults alike: the transport codes are the engine's,
// the stream stays in step after a wrong answer, and a stalled frame ends the
// connection until it is made again.
struct SFamily
{
    const char* m_pName;
    ETarvikDevice m_eType;
    std::function<std::unique_ptr<CTarvikClient>()> m_fnCreate;
    // One request of the family's own; its result code.
    std::function<int(CTarvikClient&)> m_fnCall;
};

template <class TClient> std::function<std::unique_ptr<CTarvikClient>()> Make()
{
    return [] { return std::make_unique<TClient>(static_cast<int>(kTimeoutMs)); };
}

template <class TClient> std::function<int(CTarvikClient&)> Op(std::function<int(TClient&)> call)
{
    return [call](CTarvikClient& client) { return call(static_cast<TClient&>(client)); };
}

const std::vector<SFamily>& Families()
{
    static const std::vector<SFamily> families = {
        {"dio", eTarvikDIO, Make<CTarvikClientDIO>(), Op<CTarvikClientDIO>([](CTarvikClientDIO& c) {
             unsigned int i = 0, o = 0;
             return c.Read(i, o);
         })},
        {"ad", eTarvikAD, Make<CTarvikClientAD>(), Op<CTarvikClientAD>([](CTarvikClientAD& c) {
             std::vector<unsigned int> v;
             return c.Read(v);
         })},
        {"tscom", eTarvikTestSystemCOM, Make<CTarvikClientTestSystemCOM>(),
         Op<CTarvikClientTestSystemCOM>([](CTarvikClientTestSystemCOM& c) {
             std::string n;
             return c.GetConfig(n);
         })},
        {"tsio", eTarvikTestSystemIO, Make<CTarvikClientTestSystemIO>(),
         Op<CTarvikClientTestSystemIO>([](CTarvikClientTestSystemIO& c) {
             unsigned short w[4] = {};
             return c.GetValue(w, 2);
         })},
        {"tspwr", eTarvikTestSystemPWR, Make<CTarvikClientTestSystemPWR>(),
         Op<CTarvikClientTestSystemPWR>([](CTarvikClientTestSystemPWR& c) {
             unsigned short w[4] = {};
             return c.GetValue(w, 2);
         })},
        {"tsrelay", eTarvikTestSystemRelay, Make<CTarvikClientTestSystemRelay>(),
         Op<CTarvikClientTestSystemRelay>([](CTarvikClientTestSystemRelay& c) { return c.SetRelay(1, true); })},
        {"renesas", eTarvikRenesas, Make<CTarvikClientRenesas>(),
         Op<CTarvikClientRenesas>([](CTarvikClientRenesas& c) { return c.Init(); })},
        {"i2c", eTarvikI2C, Make<CTarvikClientI2C>(), Op<CTarvikClientI2C>([](CTarvikClientI2C& c) {
             unsigned int r = 0;
             return c.GetBaudrate(r);
         })},
        {"awire", eTarvikAWire, Make<CTarvikClientAWire>(), Op<CTarvikClientAWire>([](CTarvikClientAWire& c) {
             unsigned int v = 0;
             std::string s;
             return c.GetConfig(v, v, v, v, s);
         })},
        {"can", eTarvikCAN, Make<CTarvikClientCAN>(), Op<CTarvikClientCAN>([](CTarvikClientCAN& c) {
             unsigned int rate = 0, option = 0;
             unsigned char setting = 0xEE;
             bool f1 = true, f2 = true, f3 = true, o1 = true, o2 = true;
             int rc = c.GetGlobals(rate, setting, f1, f2, f3, o1, option, o2);
             // Only the gateway's power-up globals, decoded whole, count as an answer.
             return rc != 0 || (rate == 500000 && setting == 0 && !f1 && !o2) ? rc : -1;
         })},
        {"firmware", eTarvikFirmware, Make<CTarvikClientFirmware>(),
         Op<CTarvikClientFirmware>([](CTarvikClientFirmware& c) {
             int n = 0;
             return c.GetEEPromInfo(n);
         })},
    };
    return families;
}

// One test a family: each waits out two time-outs, and ctest runs them side by side.
class SimFaultFamilies : public ::testing::TestWithParam<size_t>
{
};

TEST_P(SimFaultFamilies, EveryDeviceFamilyMeetsTheFaultsAlike)
{
    const SFamily& family = Families()[GetParam()];
    const std::pair<ETarvikSimFault, int> answers[] = {
        {eTarvikSimFaultBadCRC, TARVIK_ERR_CRC},
        {eTarvikSimFaultWrongCmd, TARVIK_ERR_NOT_CONFIRMED},
        {eTarvikSimFaultWrongId, kTimeout},
        {eTarvikSimFaultTwice, kOk},
    };
    CTarvikSimServer server;
    ASSERT_EQ(0, server.AddDevice(family.m_eType)) << family.m_pName;
    ASSERT_TRUE(server.Start());
    std::unique_ptr<CTarvikClient> client = family.m_fnCreate();
    ASSERT_EQ(0, client->Connect("127.0.0.1", server.GetPort(family.m_eType))) << family.m_pName;
    client->Open();
    EXPECT_EQ(kOk, family.m_fnCall(*client)) << family.m_pName;
    for (const auto& answer : answers)
    {
        server.SetFault(answer.first);
        EXPECT_EQ(answer.second, family.m_fnCall(*client)) << family.m_pName << " fault " << answer.first;
        server.ClearFaults();
        EXPECT_EQ(kOk, family.m_fnCall(*client)) << family.m_pName << " after fault " << answer.first;
    }
    server.SetFault(eTarvikSimFaultStall);
    EXPECT_EQ(kTimeout, family.m_fnCall(*client)) << family.m_pName;
    server.ClearFaults();
    EXPECT_TRUE(Eventually([&] { return family.m_fnCall(*client) == kNotConnected; })) << family.m_pName;
    client->Disconnect();
    ASSERT_EQ(0, client->Connect("127.0.0.1", server.GetPort(family.m_eType))) << family.m_pName;
    EXPECT_EQ(kOk, family.m_fnCall(*client)) << family.m_pName << " after reconnect";
}

INSTANTIATE_TEST_SUITE_P(Each, SimFaultFamilies, ::testing::Range<size_t>(0, Families().size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                             return std::string(Families()[info.param].m_pName);
                         });
} // namespace
