// The SPI client: bus settings, transfers, synchronous and asynchronous sequences,
// and the EEPROM addressing helpers.
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientSPI.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 200;
constexpr unsigned int kWaitMs = 5000;

int64_t ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

class CSPITest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_oGateway.Start("127.0.0.1"));
        ASSERT_EQ(0, m_oClient.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
        ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
        // Opened: the first request carries id 2.
        ASSERT_EQ(0, m_oClient.Open());
    }

    // Answers every request with its own command code and this payload.
    void AnswerWith(const std::string& payload)
    {
        m_oGateway.SetHandler([payload](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), payload); });
    }

    std::vector<std::string> Frames(size_t count)
    {
        EXPECT_TRUE(m_oGateway.WaitForFrames(count, kWaitMs));
        return m_oGateway.GetFrames();
    }

    CFakeGateway m_oGateway;
    CTarvikClientSPI m_oClient{static_cast<int>(kTimeoutMs)};
};
} // namespace

TEST_F(CSPITest, SetGlobalsSendsRateAndThreeSettings)
{
    AnswerWith(Frame({0}));
    EXPECT_EQ(0, m_oClient.SetGlobals(1000000, 1, 2, 3));
    EXPECT_EQ(ToHex(Hex("0C 00 07 03 02 00 40 42 0F 00 01 02 03 0B")), ToHex(Frames(1).at(0)));
    AnswerWith(Frame({0x21}));
    EXPECT_EQ(0x0321, m_oClient.SetGlobals(1000000, 1, 2, 3));
}

TEST_F(CSPITest, GetGlobalsWritesItsOutputsOnlyFromACompleteSuccessfulAnswer)
{
    const std::string values = Hex("40 42 0F 00 01 02 03");
    struct SCase
    {
        const char* m_sName;
        bool m_bAnswered;
        std::string m_sPayload;
        int m_nResult;
        bool m_bSet;
    };
    const SCase cases[] = {
        {"complete", true, Frame({0}) + values, 0, true},
        {"with more", true, Frame({0}) + values + Frame({9}), 0, true},
        {"one byte short", true, Frame({0}) + values.substr(0, 6), 0, false},
        {"device error", true, Frame({0x20}) + values, 0x0320, false},
        {"no answer", false, "", TARVIK_ERR_TIMEOUT, false},
    };
    for (const SCase& c : cases)
    {
        if (c.m_bAnswered)
            AnswerWith(c.m_sPayload);
        else
            m_oGateway.SetHandler(nullptr);
        unsigned int rate = 7;
        unsigned char s1 = 7, s2 = 7, s3 = 7;
        EXPECT_EQ(c.m_nResult, m_oClient.GetGlobals(rate, s1, s2, s3)) << c.m_sName;
        EXPECT_EQ(c.m_bSet ? 1000000u : 7u, rate) << c.m_sName;
        EXPECT_EQ(c.m_bSet ? 1 : 7, s1) << c.m_sName;
        EXPECT_EQ(c.m_bSet ? 2 : 7, s2) << c.m_sName;
        EXPECT_EQ(c.m_bSet ? 3 : 7, s3) << c.m_sName;
    }
    EXPECT_EQ(ToHex(Hex("05 00 08 03 02 00 09")), ToHex(Frames(1).at(0)));
}

TEST_F(CSPITest, DataReqPadsTheSentBytesToTheReceiveLength)
{
    struct SCase
    {
        std::string m_sSend;
        unsigned short m_nRecvLen;
        std::string m_sRequest;
    };
    const SCase cases[] = {
        {Frame({1, 2}), 5, Hex("0A 00 03 03 02 00 01 02 00 00 00 01")},
        {Frame({1, 2, 3, 4, 5}), 2, Hex("0A 00 03 03 02 00 01 02 03 04 05 03")},
        {"", 3, Hex("08 00 03 03 02 00 00 00 00 02")},
        {"", 0, Hex("05 00 03 03 02 00 02")},
    };
    for (const SCase& c : cases)
    {
        // A fresh client each time, so that every request carries id 2.
        CTarvikClientSPI client(kTimeoutMs);
        ASSERT_EQ(0, client.Connect("127.0.0.1", m_oGateway.GetPort()));
        client.Open();
        m_oGateway.ClearFrames();
        AnswerWith(Frame({0}));
        char recv[8] = {};
        EXPECT_EQ(0,
                  client.DataReq(c.m_sSend.data(), static_cast<unsigned short>(c.m_sSend.size()), recv, c.m_nRecvLen));
        EXPECT_EQ(ToHex(c.m_sRequest), ToHex(Frames(1).at(0)));
    }
}

TEST_F(CSPITest, DataReqCopiesWhatArrivedEvenWithADeviceError)
{
    struct SCase
    {
        const char* m_sName;
        bool m_bAnswered;
        std::string m_sPayload;
        unsigned short m_nRecvLen;
        int m_nResult;
        std::string m_sRecv;
    };
    const SCase cases[] = {
        {"full", true, Frame({0, 0xA1, 0xA2, 0xA3, 0xA4}), 4, 0, Hex("A1 A2 A3 A4 EE EE")},
        {"more than asked", true, Frame({0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}), 2, 0, Hex("A1 A2 EE EE EE EE")},
        {"fewer than asked", true, Frame({0, 0xA1}), 4, 0, Hex("A1 EE EE EE EE EE")},
        {"device error", true, Frame({0x20, 0xA1, 0xA2}), 4, 0x0320, Hex("A1 A2 EE EE EE EE")},
        {"result byte only", true, Frame({0x21}), 4, 0x0321, Hex("EE EE EE EE EE EE")},
        {"no answer", false, "", 4, TARVIK_ERR_TIMEOUT, Hex("EE EE EE EE EE EE")},
    };
    for (const SCase& c : cases)
    {
        if (c.m_bAnswered)
            AnswerWith(c.m_sPayload);
        else
            m_oGateway.SetHandler(nullptr);
        std::string recv(6, '\xEE');
        EXPECT_EQ(c.m_nResult, m_oClient.DataReq("\x01\x02", 2, &recv[0], c.m_nRecvLen)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sRecv), ToHex(recv)) << c.m_sName;
    }
    AnswerWith(Frame({0, 0xA1}));
    EXPECT_EQ(0, m_oClient.DataReq("\x01", 1, nullptr, 0));
}

TEST_F(CSPITest, SynchronousSequenceHandsOutTheAnswerFromItsResultByteOn)
{
    struct SCase
    {
        const char* m_sName;
        bool m_bAnswered;
        std::string m_sPayload;
        unsigned short m_nOutLen;
        int m_nResult;
        std::string m_sOut;
    };
    const SCase cases[] = {
        {"room to spare", true, Frame({0, 0x11, 0x22}), 6, 0, Hex("00 11 22 EE EE EE")},
        {"cut to the room", true, Frame({0, 0x11, 0x22}), 2, 0, Hex("00 11 EE EE EE EE")},
        {"unknown op code", true, Frame({0x30, 0x99}), 6, 0x0330, Hex("30 99 EE EE EE EE")},
        {"no answer", false, "", 6, TARVIK_ERR_TIMEOUT, Hex("EE EE EE EE EE EE")},
    };
    for (const SCase& c : cases)
    {
        if (c.m_bAnswered)
            AnswerWith(c.m_sPayload);
        else
            m_oGateway.SetHandler(nullptr);
        std::string out(6, '\xEE');
        EXPECT_EQ(c.m_nResult, m_oClient.SequenceReq("\x10\x20", 2, &out[0], c.m_nOutLen)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sOut), ToHex(out)) << c.m_sName;
    }
    EXPECT_EQ(ToHex(Hex("07 00 14 03 02 00 10 20 25")), ToHex(Frames(1).at(0)));
    AnswerWith(Frame({0, 0x11}));
    EXPECT_EQ(0, m_oClient.SequenceReq("\x10\x20", 2, nullptr, 6));
}

TEST_F(CSPITest, AsynchronousSequenceIsCollectedLaterByItsId)
{
    // Answers carry the request's id so that each collection can be told apart.
    m_oGateway.SetHandler(
        [](const std::string& f) {
            return Cnf(0x0314, FrameId(f), Frame({0, 0x11, static_cast<int>(FrameId(f))}));
        });
    short first = -1, second = -1;
    EXPECT_EQ(0, m_oClient.SequenceReq("\x10\x20", 2, &first));
    EXPECT_EQ(0, m_oClient.SequenceReq("\x10\x20", 2, &second));
    EXPECT_EQ(2, first);
    EXPECT_EQ(3, second);
    std::vector<std::string> frames = Frames(2);
    EXPECT_EQ(ToHex(Hex("07 00 14 03 02 00 10 20 25")), ToHex(frames.at(0)));
    EXPECT_EQ(ToHex(Hex("07 00 14 03 03 00 10 20 24")), ToHex(frames.at(1)));

    // Collected in the other order; the answer after the result byte is copied.
    std::string out(4, '\xEE');
    EXPECT_EQ(0, m_oClient.SequenceGetCnf(second, &out[0], 4));
    EXPECT_EQ(ToHex(Hex("11 03 EE EE")), ToHex(out));
    out.assign(4, '\xEE');
    EXPECT_EQ(0, m_oClient.SequenceGetCnf(first, &out[0], 1));
    EXPECT_EQ(ToHex(Hex("11 EE EE EE")), ToHex(out));
    // Taken once only.
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_oClient.SequenceGetCnf(first, &out[0], 4));

    // The id pointer may be null.
    EXPECT_EQ(0, m_oClient.SequenceReq("\x10\x20", 2, nullptr));
}

TEST_F(CSPITest, AsynchronousSequenceReportsBadOrMissingAnswers)
{
    struct SCase
    {
        const char* m_sName;
        CFakeGateway::THandler m_fnAnswer;
        int m_nResult;
        std::string m_sOut;
    };
    const SCase cases[] = {
        {"device error",
         [](const std::string& f) {
             return Cnf(0x0314, FrameId(f), Frame({0x31, 0x77}));
         },
         0x0331, Hex("77 EE")},
        {"empty confirmation", [](const std::string& f) { return Cnf(0x0314, FrameId(f), ""); }, 0x0C0300,
         Hex("EE EE")},
        {"wrong command",
         [](const std::string& f) {
             return Cnf(0x0303, FrameId(f), Frame({0, 0x77}));
         },
         TARVIK_ERR_NOT_CONFIRMED, Hex("EE EE")},
        {"wrong check byte",
         [](const std::string& f) {
             return TelegramWithCheck(0x8314, FrameId(f), Frame({0, 0x77}), 0);
         },
         TARVIK_ERR_CRC, Hex("EE EE")},
        {"no answer", nullptr, TARVIK_ERR_TIMEOUT, Hex("EE EE")},
    };
    for (const SCase& c : cases)
    {
        m_oGateway.SetHandler(c.m_fnAnswer);
        short id = 0;
        ASSERT_EQ(0, m_oClient.SequenceReq("\x10", 1, &id)) << c.m_sName;
        std::string out(2, '\xEE');
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.m_nResult, m_oClient.SequenceGetCnf(id, &out[0], 2)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sOut), ToHex(out)) << c.m_sName;
        if (c.m_nResult == TARVIK_ERR_TIMEOUT)
        {
            EXPECT_GE(ElapsedMs(start), kTimeoutMs - 10);
            EXPECT_LT(ElapsedMs(start), 10000);
        }
    }
}

TEST_F(CSPITest, AsynchronousSequenceOnALostConnectionReportsTheSendFailure)
{
    m_oGateway.CloseClients();
    auto start = std::chrono::steady_clock::now();
    while (m_oClient.GetConnectState() == CMolIPBase::eStateConnected && ElapsedMs(start) < kWaitMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    short id = -1;
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, m_oClient.SequenceReq("\x10", 1, &id));
    // The id was drawn and is handed out all the same.
    EXPECT_EQ(2, id);
}

TEST_F(CSPITest, DataTooLongForATelegramIsRefusedWithoutSending)
{
    // The length field counts data + 5 in 16 bits: 65530 bytes of data at most.
    AnswerWith(Frame({0}));
    const std::string tooLong(65531, '\x5A');
    std::string recv = Hex("EE EE");
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_oClient.DataReq(tooLong.data(), 65531, &recv[0], 2));
    EXPECT_EQ(ToHex(Hex("EE EE")), ToHex(recv));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_oClient.SequenceReq(tooLong.data(), 65531, &recv[0], 2));
    short id = 77;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_oClient.SequenceReq(tooLong.data(), 65531, &id));
    EXPECT_EQ(77, id);

    // The longest one goes out whole, and the stream stays in step after the refusals.
    const std::string longest(65530, '\x5A');
    EXPECT_EQ(0, m_oClient.SequenceReq(longest.data(), 65530, &id));
    EXPECT_EQ(0, m_oClient.WriteDigital(1));
    std::vector<std::string> frames = Frames(2);
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ(ToHex(Hex("FF FF 14 03")), ToHex(frames[0].substr(0, 4)));
    EXPECT_EQ(65537u, frames[0].size());
    EXPECT_EQ(0x0341u, FrameCmd(frames[1]));
}

TEST_F(CSPITest, DigitalInputsAndOutputsAreTheBaseCommands)
{
    AnswerWith(Frame({0}) + LE32(0x89ABCDEF) + LE32(0x01234567));
    unsigned int in = 0, out = 0;
    EXPECT_EQ(0, m_oClient.ReadDigital(in, out));
    EXPECT_EQ(0x89ABCDEFu, in);
    EXPECT_EQ(0x01234567u, out);
    AnswerWith(Frame({0}));
    EXPECT_EQ(0, m_oClient.WriteDigital(0x12345678));
    std::vector<std::string> frames = Frames(2);
    EXPECT_EQ(ToHex(Hex("05 00 40 03 02 00 41")), ToHex(frames.at(0)));
    EXPECT_EQ(ToHex(Hex("09 00 41 03 03 00 78 56 34 12 49")), ToHex(frames.at(1)));
}

TEST(TarvikClientSPIHelpers, ToOffsetGivesTheLowBytesMostSignificantFirst)
{
    struct SCase
    {
        int m_nFormat;
        std::string m_sBytes;
    };
    const SCase cases[] = {
        {1, Hex("04")}, {2, Hex("03 04")}, {3, Hex("02 03 04")}, {4, Hex("01 02 03 04")}, {0, ""}, {5, ""}, {-1, ""},
    };
    for (const SCase& c : cases)
        EXPECT_EQ(ToHex(c.m_sBytes),
                  ToHex(CTarvikClientSPI::ToOffset(0x01020304, static_cast<EOffsetFormat>(c.m_nFormat))))
            << c.m_nFormat;
}

TEST(TarvikClientSPIHelpers, EEPROMSlaveAddressCarriesTheHighOffsetBits)
{
    struct SCase
    {
        unsigned short m_nSub;
        unsigned int m_nOffset;
        unsigned int m_nFlags;
        unsigned int m_nAddress;
    };
    const SCase cases[] = {
        {0, 0x0134, 0x0108, 0xA2},                             // 8 address bits, one extra: offset bit 8 in bit 1
        {5, 0x0000, 0x0010, 0xAA},                             // no extra bits: three sub-address bits
        {7, 0x0000, 0x0008, 0xAE},  {0, 0x0134, 0x0008, 0xA0}, // without extra bits the offset stays out
        {0, 0x0080, 0x0107, 0xA2},                             // 7 address bits, one extra: offset bit 7
        {7, 0x03FF, 0x0208, 0xAE},                             // two extra bits, one sub-address bit
        {3, 0x0700, 0x0308, 0xAE},                             // three extra bits, no sub-address
        {3, 0x1FFFF, 0x0110, 0xAE},                            // 16 address bits, one extra: offset bit 16
        {0, 0x10000, 0x0114, 0xA2},                            // more than 16 address bits count as 16
        {2, 0x1234, 0x0410, 0xA4},                             // flag bits above bit 9 are ignored
    };
    for (const SCase& c : cases)
        EXPECT_EQ(c.m_nAddress, CTarvikClientSPI::GetEEPROMSlaveAddress(c.m_nSub, c.m_nOffset, c.m_nFlags))
            << std::hex << c.m_nSub << " " << c.m_nOffset << " " << c.m_nFlags;
}
