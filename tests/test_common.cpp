// The commands that every gateway understands: exact request frames, result codes
// and which outputs each command writes or leaves alone.
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/core/TarvikClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 200;
constexpr unsigned int kWaitMs = 5000;
constexpr unsigned int kUntouched = 0xDEADBEEF;

// No answer at all.
const char* const kNoAnswer = nullptr;

class CCommonTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_oGateway.Start("127.0.0.1"));
        NewClient();
    }

    // A fresh, opened SPI client: its first request carries id 2.
    void NewClient()
    {
        m_pClient.reset();
        m_pClient.reset(new CTarvikClientSPI(kTimeoutMs));
        ASSERT_EQ(0, m_pClient->Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
        ASSERT_EQ(0, m_pClient->Open());
        m_oGateway.ClearFrames();
    }

    // Answers every request with a confirmation of the given payload (null: no answer).
    void AnswerWith(const char* payload, size_t size)
    {
        if (payload == nullptr)
        {
            m_oGateway.SetHandler(nullptr);
            return;
        }
        std::string data(payload, size);
        m_oGateway.SetHandler([data](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), data); });
    }
    void AnswerWith(const std::string& payload) { AnswerWith(payload.data(), payload.size()); }

    std::string OnlyFrame()
    {
        EXPECT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
        std::vector<std::string> frames = m_oGateway.GetFrames();
        EXPECT_EQ(1u, frames.size());
        return frames.empty() ? std::string() : frames[0];
    }

    CFakeGateway m_oGateway;
    std::unique_ptr<CTarvikClientSPI> m_pClient;
};

struct SAnswer
{
    bool m_bAnswered;
    std::string m_sPayload;
};
const SAnswer kSilence = {false, ""};
SAnswer Payload(const std::string& payload)
{
    return {true, payload};
}
} // namespace

TEST_F(CCommonTest, EachCommandSendsItsExactRequest)
{
    struct SCase
    {
        const char* m_sName;
        std::function<int(CTarvikClient&)> m_fnCall;
        std::string m_sRequest;
    };
    const SCase cases[] = {
        {"Restart", [](CTarvikClient& c) { return c.Restart(); }, Hex("05 00 0C 03 02 00 0D")},
        {"Info", [](CTarvikClient& c) { return c.Info(nullptr); }, Hex("05 00 09 03 02 00 08")},
        {"Status",
         [](CTarvikClient& c)
         {
             std::string text;
             return c.Status(text);
         },
         Hex("05 00 0A 03 02 00 0B")},
        {"BaseReadDigital",
         [](CTarvikClient& c)
         {
             unsigned int in = 0, out = 0;
             return c.BaseReadDigital(in, out);
         },
         Hex("05 00 40 03 02 00 41")},
        {"BaseWriteDigital", [](CTarvikClient& c) { return c.BaseWriteDigital(0x12345678); },
         Hex("09 00 41 03 02 00 78 56 34 12 48")},
        {"ReadAnalog",
         [](CTarvikClient& c)
         {
             unsigned int first = 0, values[2];
             unsigned short count = 2;
             return c.ReadAnalog(first, values, count);
         },
         Hex("05 00 42 03 02 00 43")},
        {"WriteAnalog",
         [](CTarvikClient& c)
         {
             const unsigned int values[] = {1, 0x100};
             return c.WriteAnalog(values, 2);
         },
         Hex("0D 00 43 03 02 00 01 00 00 00 00 01 00 00 42")},
        {"WriteAnalog without values",
         [](CTarvikClient& c)
         {
             const unsigned int values[] = {1, 0x100};
             return c.WriteAnalog(values, 0);
         },
         Hex("05 00 43 03 02 00 42")},
    };
    for (const SCase& c : cases)
    {
        NewClient();
        AnswerWith(std::string(1, '\0'));
        EXPECT_EQ(0, c.m_fnCall(*m_pClient)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sRequest), ToHex(OnlyFrame())) << c.m_sName;
    }
}

TEST_F(CCommonTest, CommandsWithoutOutputsReturnTheDevicesResult)
{
    const std::function<int(CTarvikClient&)> calls[] = {
        [](CTarvikClient& c) { return c.Restart(); },
        [](CTarvikClient& c) { return c.Info(nullptr); },
        [](CTarvikClient& c) { return c.BaseWriteDigital(1); },
        [](CTarvikClient& c)
        {
            const unsigned int value = 1;
            return c.WriteAnalog(&value, 1);
        },
    };
    struct SCase
    {
        SAnswer m_oAnswer;
        int m_nResult;
    };
    const SCase cases[] = {
        {Payload(Frame({0x00})), 0},
        // Extra bytes after a success byte change nothing.
        {Payload(Frame({0x00, 0x21})), 0},
        {Payload(Frame({0x21})), 0x0321},
        {Payload(Frame({0xFF, 0x00})), 0x03FF},
        {Payload(""), 0x0C0300},
        {kSilence, TARVIK_ERR_TIMEOUT},
    };
    for (size_t i = 0; i < sizeof(calls) / sizeof(calls[0]); ++i)
        for (const SCase& c : cases)
        {
            AnswerWith(c.m_oAnswer.m_bAnswered ? c.m_oAnswer.m_sPayload.data() : kNoAnswer,
                       c.m_oAnswer.m_sPayload.size());
            EXPECT_EQ(c.m_nResult, calls[i](*m_pClient)) << "call " << i << " answer " << ToHex(c.m_oAnswer.m_sPayload);
        }
}

TEST_F(CCommonTest, InfoClearsTheRecordMarksItsTypeAndCopiesUpToTwentyBytes)
{
    std::string twentyTwo;
    for (int i = 1; i <= 22; ++i)
        twentyTwo += static_cast<char>(i);
    struct SCase
    {
        const char* m_sName;
        SAnswer m_oAnswer;
        int m_nResult;
        std::string m_sInfo;
    };
    const SCase cases[] = {
        {"more than 20 bytes", Payload(Frame({0}) + twentyTwo), 0, twentyTwo.substr(0, 20)},
        {"three bytes", Payload(Frame({0, 0xAA, 0xBB, 0xCC})), 0,
         Hex("AA BB CC 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03 00")},
        {"19 bytes overwrite the type", Payload(Frame({0}) + std::string(19, '\x11')), 0,
         std::string(19, '\x11') + Frame({0})},
        {"result byte only", Payload(Frame({0})), 0, std::string(18, '\0') + Frame({3, 0})},
        {"device error", Payload(Frame({0x20}) + twentyTwo), 0x0320, std::string(18, '\0') + Frame({3, 0})},
        {"no answer", kSilence, TARVIK_ERR_TIMEOUT, std::string(18, '\0') + Frame({3, 0})},
    };
    for (const SCase& c : cases)
    {
        AnswerWith(c.m_oAnswer.m_bAnswered ? c.m_oAnswer.m_sPayload.data() : kNoAnswer, c.m_oAnswer.m_sPayload.size());
        STarvikDeviceInfo info;
        std::memset(&info, 0xEE, sizeof(info));
        EXPECT_EQ(c.m_nResult, m_pClient->Info(&info)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sInfo), ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))))
            << c.m_sName;
    }
}

TEST_F(CCommonTest, StatusSetsTheTextOnlyFromASuccessfulAnswerWithText)
{
    struct SCase
    {
        const char* m_sName;
        SAnswer m_oAnswer;
        int m_nResult;
        std::string m_sText;
    };
    const SCase cases[] = {
        {"text", Payload(Frame({0}) + "Ready"), 0, "Ready"},
        {"zero bytes are text", Payload(Frame({0, 'a', 0, 'b'})), 0, std::string("a\0b", 3)},
        {"result byte only", Payload(Frame({0})), 0, "old"},
        {"device error", Payload(Frame({0x21}) + "Ready"), 0x0321, "old"},
        {"empty confirmation", Payload(""), 0x0C0300, "old"},
        {"no answer", kSilence, TARVIK_ERR_TIMEOUT, "old"},
    };
    for (const SCase& c : cases)
    {
        AnswerWith(c.m_oAnswer.m_bAnswered ? c.m_oAnswer.m_sPayload.data() : kNoAnswer, c.m_oAnswer.m_sPayload.size());
        std::string text = "old";
        EXPECT_EQ(c.m_nResult, m_pClient->Status(text)) << c.m_sName;
        EXPECT_EQ(c.m_sText, text) << c.m_sName;
    }
}

TEST_F(CCommonTest, BaseReadDigitalDecodesOnlyAnAnswerWithBothWords)
{
    const std::string words = LE32(0x89ABCDEF) + LE32(0x01234567);
    struct SCase
    {
        const char* m_sName;
        SAnswer m_oAnswer;
        int m_nResult;
        bool m_bDecoded;
    };
    const SCase cases[] = {
        {"both words", Payload(Frame({0}) + words), 0, true},
        {"and more", Payload(Frame({0}) + words + Frame({0x55})), 0, true},
        // Decoded even though the device reports an error.
        {"device error with words", Payload(Frame({0x20}) + words), 0x0320, true},
        // Anything shorter counts as success and writes nothing; kept as it is.
        {"one byte short", Payload(Frame({0}) + words.substr(0, 7)), 0, false},
        {"device error alone", Payload(Frame({0x20})), 0, false},
        {"empty confirmation", Payload(""), 0, false},
        {"no answer", kSilence, TARVIK_ERR_TIMEOUT, false},
    };
    for (const SCase& c : cases)
    {
        AnswerWith(c.m_oAnswer.m_bAnswered ? c.m_oAnswer.m_sPayload.data() : kNoAnswer, c.m_oAnswer.m_sPayload.size());
        unsigned int in = kUntouched, out = kUntouched;
        EXPECT_EQ(c.m_nResult, m_pClient->BaseReadDigital(in, out)) << c.m_sName;
        EXPECT_EQ(c.m_bDecoded ? 0x89ABCDEFu : kUntouched, in) << c.m_sName;
        EXPECT_EQ(c.m_bDecoded ? 0x01234567u : kUntouched, out) << c.m_sName;
    }

    // A confirmation of another command is reported, not decoded.
    m_oGateway.SetHandler([words](const std::string& f) { return Cnf(0x0341, FrameId(f), Frame({0}) + words); });
    unsigned int in = kUntouched, out = kUntouched;
    EXPECT_EQ(TARVIK_ERR_NOT_CONFIRMED, m_pClient->BaseReadDigital(in, out));
    EXPECT_EQ(kUntouched, in);
    EXPECT_EQ(kUntouched, out);
}

TEST_F(CCommonTest, ReadAnalogStoresWhatFitsAndReportsWhatTheDeviceSent)
{
    const std::string first = LE32(0x11111111);
    const std::string four = LE32(1) + LE32(2) + LE32(3) + LE32(4);
    struct SCase
    {
        const char* m_sName;
        unsigned short m_nCapacity;
        SAnswer m_oAnswer;
        int m_nResult;
        unsigned short m_nCount;
        unsigned int m_nFirst;
        unsigned int m_anValues[5];
    };
    const unsigned int u = kUntouched;
    const SCase cases[] = {
        {"more than fit", 2, Payload(Frame({0}) + first + four), 0, 4, 0x11111111, {1, 2, u, u, u}},
        {"fewer than fit", 5, Payload(Frame({0}) + first + four.substr(0, 12)), 0, 3, 0x11111111, {1, 2, 3, u, u}},
        {"first value only", 5, Payload(Frame({0}) + first), 0, 0, 0x11111111, {u, u, u, u, u}},
        {"a partial value is not counted",
         5,
         Payload(Frame({0}) + first + four.substr(0, 6)),
         0,
         1,
         0x11111111,
         {1, u, u, u, u}},
        {"too short for the first value", 5, Payload(Frame({0, 1, 2, 3})), 0, 0, u, {u, u, u, u, u}},
        {"device error", 5, Payload(Frame({0x20}) + first + four), 0x0320, 0, u, {u, u, u, u, u}},
        {"no answer", 5, kSilence, TARVIK_ERR_TIMEOUT, 0, u, {u, u, u, u, u}},
    };
    for (const SCase& c : cases)
    {
        AnswerWith(c.m_oAnswer.m_bAnswered ? c.m_oAnswer.m_sPayload.data() : kNoAnswer, c.m_oAnswer.m_sPayload.size());
        unsigned int firstValue = u;
        unsigned int values[5] = {u, u, u, u, u};
        unsigned short count = c.m_nCapacity;
        EXPECT_EQ(c.m_nResult, m_pClient->ReadAnalog(firstValue, values, count)) << c.m_sName;
        EXPECT_EQ(c.m_nCount, count) << c.m_sName;
        EXPECT_EQ(c.m_nFirst, firstValue) << c.m_sName;
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(c.m_anValues[i], values[i]) << c.m_sName << " value " << i;
    }

    // No room at all: the count is still reported.
    AnswerWith(Frame({0}) + first + four);
    unsigned int firstValue = 0;
    unsigned short count = 0;
    EXPECT_EQ(0, m_pClient->ReadAnalog(firstValue, nullptr, count));
    EXPECT_EQ(4, count);
}

TEST(TarvikClientCommon, CommandCodeAndResultCarryTheClientsDeviceType)
{
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    gateway.SetHandler([](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), Frame({0x20})); });
    CTarvikClient dio(eTarvikDIO, kTimeoutMs);
    ASSERT_EQ(0, dio.Connect("127.0.0.1", gateway.GetPort()));
    STarvikDeviceInfo info;
    EXPECT_EQ(0x0520, dio.Info(&info));
    EXPECT_EQ(5, info.m_abData[TARVIK_DEVICE_INFO_TYPE_BYTE]);
    // Without Open() the first id is 0.
    ASSERT_TRUE(gateway.WaitForFrames(1, kWaitMs));
    EXPECT_EQ(ToHex(Hex("05 00 09 05 00 00 0C")), ToHex(gateway.GetFrames()[0]));
}
