// The simulated SPI gateway over a raw socket: common commands, the 25xx EEPROM on its
// bus, sequences, the byte stream, several clients, fault modes and a stop with clients
// connected. Requests and answers are hand-written frames.
#include "support/FakeGateway.h"
#include "support/SimFixture.h"
#include "support/Wait.h"

#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kDataReq = 0x0303;
constexpr unsigned int kReadDigital = 0x0340;
constexpr unsigned int kWriteDigital = 0x0341;
constexpr unsigned int kSequence = 0x0314;

// Info, id 2, and its answer for SPI at port index 0: serial 21003000, hardware 1.2,
// firmware 2.18 build 263, made 2023-06-14, device type 3 at info byte 18, index 0.
const char* const kInfoRequest = "05 00 09 03 02 00 08";
const std::string kInfoAnswer = "1A 00 09 83 02 00 00 F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00 B5";

// EEPROM instructions: WREN, WRITE and READ at a 16-bit address.
const std::string kWREN = Hex("06");
std::string Address(unsigned int address)
{
    return Frame({static_cast<int>(address >> 8), static_cast<int>(address & 0xFF)});
}
std::string Read(unsigned int address, size_t len)
{
    return Hex("03") + Address(address) + std::string(len, '\0');
}
std::string Write(unsigned int address, const std::string& data)
{
    return Hex("02") + Address(address) + data;
}

class Sim : public CSimServerFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartSim({{eTarvikSPI, 0}}));
        ASSERT_NE(nullptr, m_pDevice = Model<CTarvikSimDeviceSPI>(eTarvikSPI));
        ASSERT_TRUE(Connect(m_oClient));
    }

    bool Connect(CTarvikSimRawClient& client) { return client.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)); }

    // Sends a request given as hex text; the answer as hex text.
    std::string Ask(const std::string& hex) { return ToHex(m_oClient.Transact(Hex(hex))); }

    // Data field of the answer (result byte first); its code, id, length and check
    // byte are checked on the way.
    std::string Request(unsigned int cmd, const std::string& data)
    {
        int id = m_nNextId++;
        std::string answer = m_oClient.Transact(Telegram(cmd, id, data));
        EXPECT_EQ(ToHex(Cnf(cmd, id, FrameData(answer))), ToHex(answer));
        return FrameData(answer);
    }

    CTarvikSimDeviceSPI* m_pDevice = nullptr;
    CTarvikSimRawClient m_oClient;
    int m_nNextId = 0x100;
};
} // namespace

TEST_F(Sim, CommonCommandValuesPersistAcrossConnections)
{
    EXPECT_EQ(kInfoAnswer, Ask(kInfoRequest));
    // WriteDigital 0x12345678; WriteAnalog 100, 2000, 0xDEADBEEF.
    EXPECT_EQ("06 00 41 83 05 00 00 C7", Ask("09 00 41 03 05 00 78 56 34 12 4F"));
    EXPECT_EQ("06 00 43 83 07 00 00 C7", Ask("11 00 43 03 07 00 64 00 00 00 D0 07 00 00 EF BE AD DE D6"));

    CTarvikSimRawClient other;
    ASSERT_TRUE(Connect(other));
    // Inputs 0x0000A55A beside the outputs; 8 channels, five of them still 0.
    EXPECT_EQ("0E 00 40 83 06 00 00 5A A5 00 00 78 56 34 12 32", ToHex(other.Transact(Hex("05 00 40 03 06 00 45"))));
    EXPECT_EQ("2A 00 42 83 08 00 00 08 00 00 00 64 00 00 00 D0 07 00 00 EF BE AD DE"
              " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 50",
              ToHex(other.Transact(Hex("05 00 42 03 08 00 49"))));
}

TEST_F(Sim, RestartClearsTheOutputsButKeepsTheEeprom)
{
    Request(kDataReq, kWREN);
    Request(kDataReq, Write(0x0200, Hex("5A")));
    ASSERT_EQ(Hex("00"), Request(kWriteDigital, LE32(0xFFFF0000u)));

    EXPECT_EQ("06 00 0C 83 04 00 00 8B", Ask("05 00 0C 03 04 00 0B"));
    EXPECT_EQ(Hex("00") + LE32(0xA55A) + LE32(0), Request(kReadDigital, ""));
    EXPECT_EQ(Hex("00 FF FF FF 5A"), Request(kDataReq, Read(0x0200, 1)));
}

TEST_F(Sim, EepromThroughDataReqWrapsWithinItsPageAndNeedsWriteEnable)
{
    // WREN; WRITE at 0x007C: 11 22 33 44 fill the page up to 0x7F, 55 66 wrap to 0x40.
    EXPECT_EQ("07 00 03 83 12 00 00 FF 6D", Ask("06 00 03 03 12 00 06 14"));
    EXPECT_EQ("0F 00 03 83 13 00 00 FF FF FF FF FF FF FF FF FF 6C",
              Ask("0E 00 03 03 13 00 02 00 7C 11 22 33 44 55 66 1A"));
    // READ 6 at 0x007C runs on into the next page, still erased.
    EXPECT_EQ("0F 00 03 83 14 00 00 FF FF FF 11 22 33 44 FF FF 2F",
              Ask("0E 00 03 03 14 00 03 00 7C 00 00 00 00 00 00 6B"));
    EXPECT_EQ(Hex("00 FF FF FF 55 66 FF"), Request(kDataReq, Read(0x0040, 3)));

    // The write cleared the write-enable latch: the next WRITE is ignored.
    Request(kDataReq, Write(0x007C, Hex("00")));
    EXPECT_EQ(Hex("11"), m_pDevice->PeekEeprom(0x7C, 1));
}

TEST_F(Sim, SequencesRunOnTheBusAndBadOnesTouchNothing)
{
    m_pDevice->PokeEeprom(0x7C, Hex("11 22 33 44"));
    // SELECT, WRITE 03 00 7C, READ 4, DESELECT.
    EXPECT_EQ("0A 00 14 83 15 00 00 11 22 33 44 C6", Ask("10 00 14 03 15 00 01 03 03 00 03 00 7C 04 04 00 02 7E"));
    // Unknown op code 0x30.
    EXPECT_EQ("06 00 14 83 16 00 30 B1", Ask("06 00 14 03 16 00 30 31"));

    // SELECT, WRITE [WREN], DESELECT, SELECT, WRITE [WRITE 0x0400: 77]: writes if it runs.
    const std::string writing = Hex("01 03 01 00 06 02 01 03 04 00 02 04 00 77");
    std::string longDelays;
    for (int i = 0; i < 17; ++i)
        longDelays += Hex("06 60 EA"); // DELAY 60 ms
    struct SCase
    {
        const char* m_pName;
        std::string m_sScript;
        int m_nResult;
    };
    const SCase cases[] = {
        {"unknown op code", writing + Hex("08"), 0x30},
        {"WRITE with fewer bytes than counted", writing + Hex("03 04 00 01 02 03"), 0x20},
        {"READ without its count", writing + Hex("04"), 0x20},
        {"delays over one second", writing + longDelays, 0x31},
    };
    for (const SCase& c : cases)
    {
        EXPECT_EQ(ToHex(Frame({c.m_nResult})), ToHex(Request(kSequence, c.m_sScript))) << c.m_pName;
        EXPECT_EQ(Hex("FF"), m_pDevice->PeekEeprom(0x400, 1)) << c.m_pName;
    }

    // POLL RDSR for WIP clear within 5 ms while the write cycle takes a minute.
    m_pDevice->SetEepromWriteCycleMs(60000);
    EXPECT_EQ(Hex("31"), Request(kSequence, writing + Hex("02 07 05 01 00 05 00")));
}

TEST_F(Sim, UnknownCommandFails)
{
    EXPECT_EQ("06 00 55 83 09 00 FF 20", Ask("05 00 55 03 09 00 5F"));
}

TEST_F(Sim, MalformedFramesAreDroppedAndTheNextFrameIsAnswered)
{
    struct SCase
    {
        const char* m_pName;
        std::string m_sBytes;
    };
    const SCase cases[] = {
        {"length 0", Hex("00 00")},
        {"length 3", Hex("03 00 AA BB CC")},
        {"length 4 cuts the telegram short", Hex("04 00 09 03 02 00")},
        {"bad check byte", Hex("09 00 41 03 05 00 78 56 34 12 4E")},
        {"largest frame, bad check byte", Hex("FF FF") + std::string(65535, '\x01')},
    };
    for (const SCase& c : cases)
    {
        // The bad frame and a good request in one write.
        ASSERT_TRUE(m_oClient.Send(c.m_sBytes + Hex(kInfoRequest))) << c.m_pName;
        EXPECT_EQ(kInfoAnswer, ToHex(m_oClient.ReceiveFrame())) << c.m_pName;
    }
    EXPECT_EQ(0u, m_pDevice->GetDigitalOutputs()) << "the rejected write reached the outputs";
}

TEST_F(Sim, SeveralClientsAtOnceEachGetTheirOwnAnswers)
{
    constexpr int kClients = 8;
    constexpr int kRounds = 100;
    // Each client reads its own EEPROM page, marked with its number.
    for (int c = 0; c < kClients; ++c)
        m_pDevice->PokeEeprom(0x100 * c, std::string(8, static_cast<char>(0xC0 + c)));
    std::vector<int> failures(kClients, 0);
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c)
        threads.emplace_back([this, c, &failures] {
            CTarvikSimRawClient client;
            failures[c] = Connect(client) ? 0 : kRounds;
            std::string expected = Hex("00 FF FF FF") + std::string(8, static_cast<char>(0xC0 + c));
            for (int i = 0; i < kRounds && failures[c] == 0; ++i)
            {
                int id = c * 1000 + i;
                if (client.Transact(Telegram(kDataReq, id, Read(0x100 * c, 8))) != Cnf(kDataReq, id, expected))
                    ++failures[c];
            }
        });
    for (auto& thread : threads)
        thread.join();
    for (int c = 0; c < kClients; ++c)
        EXPECT_EQ(0, failures[c]) << "client " << c;
}

TEST_F(Sim, StopEndsConnectedAndWaitingClients)
{
    CTarvikSimRawClient idle;
    CTarvikSimRawClient waiting;
    ASSERT_TRUE(Connect(idle));
    ASSERT_TRUE(Connect(waiting));
    ASSERT_EQ(kInfoAnswer, Ask(kInfoRequest));
    ASSERT_TRUE(Eventually([this] { return m_oServer.GetConnectionCount() == 3; }));
    // One request is held back by a long answer delay when the server stops.
    m_oServer.SetAnswerDelay(60000);
    ASSERT_TRUE(waiting.Send(Hex(kInfoRequest)));
    ASSERT_TRUE(Eventually([this] { return m_pDevice->GetRequestCount() == 2; }));

    m_oServer.Stop();
    EXPECT_EQ(0u, m_oServer.GetConnectionCount());
    for (CTarvikSimRawClient* client : {&idle, &waiting, &m_oClient})
    {
        EXPECT_EQ("", client->ReceiveFrame(5000));
        EXPECT_TRUE(client->IsPeerClosed());
    }
    CTarvikSimRawClient late;
    EXPECT_FALSE(Connect(late));
}

TEST_F(Sim, FaultModesShapeTheAnswer)
{
    m_oServer.SetFault(eTarvikSimFaultSilent);
    EXPECT_EQ("", ToHex(m_oClient.Transact(Hex(kInfoRequest), 300)));
    // The good answer with its check byte inverted.
    m_oServer.SetFault(eTarvikSimFaultBadCRC);
    EXPECT_EQ(kInfoAnswer.substr(0, kInfoAnswer.size() - 2) + "4A", Ask(kInfoRequest));
    // Command number one higher, check byte right for it.
    m_oServer.SetFault(eTarvikSimFaultWrongCmd);
    EXPECT_EQ(ToHex(Cnf(0x030A, 2, FrameData(Hex(kInfoAnswer)))), Ask(kInfoRequest));

    m_oServer.SetFault(eTarvikSimFaultNone);
    m_oServer.SetAnswerDelay(300);
    ASSERT_TRUE(m_oClient.Send(Hex(kInfoRequest)));
    EXPECT_EQ("", ToHex(m_oClient.ReceiveFrame(50))) << "answered before its delay";
    EXPECT_EQ(kInfoAnswer, ToHex(m_oClient.ReceiveFrame(5000)));
    m_oServer.SetAnswerDelay(0);

    m_oServer.SetFault(eTarvikSimFaultClose);
    EXPECT_EQ("", Ask(kInfoRequest));
    EXPECT_TRUE(m_oClient.IsPeerClosed());
    // The server still listens.
    m_oServer.SetFault(eTarvikSimFaultNone);
    CTarvikSimRawClient next;
    ASSERT_TRUE(Connect(next));
    EXPECT_EQ(kInfoAnswer, ToHex(next.Transact(Hex(kInfoRequest))));
}
