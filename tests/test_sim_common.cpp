// The simulator's common commands and its handling of the byte stream, checked with
// hand-written frames over a raw socket.
#include "support/FakeGateway.h"

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

using namespace tarvik_test;

namespace
{
// Command codes of the SPI device (type 3 in the high byte).
constexpr unsigned int kInfo = 0x0309;
constexpr unsigned int kStatus = 0x030A;
constexpr unsigned int kRestart = 0x030C;
constexpr unsigned int kReadDigital = 0x0340;
constexpr unsigned int kWriteDigital = 0x0341;
constexpr unsigned int kReadAnalog = 0x0342;
constexpr unsigned int kWriteAnalog = 0x0343;

// Info request, id 2, and its answer for SPI at port index 0: serial 21003000,
// hardware 1.2, firmware 2.18 build 263, made 2023-06-14, type 3, index 0.
const char* const kInfoRequest = "05 00 09 03 02 00 08";
const char* const kInfoAnswer = "1A 00 09 83 02 00 00"
                                " F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00"
                                " B5";

class SimCommon : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, m_oServer.AddDevice(eTarvikSPI));
        ASSERT_TRUE(m_oServer.Start());
        ASSERT_TRUE(m_oClient.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
    }

    std::string Ask(const std::string& frame) { return m_oClient.Transact(frame); }

    // Result byte of the answer to a request built from its parts.
    int ResultOf(unsigned int cmd, int id, const std::string& data)
    {
        std::string answer = Ask(Telegram(cmd, id, data));
        EXPECT_EQ(Cnf(cmd, id, FrameData(answer)), answer) << "frame " << ToHex(answer);
        std::string payload = FrameData(answer);
        return payload.empty() ? -1 : static_cast<unsigned char>(payload[0]);
    }

    CTarvikSimServer m_oServer;
    CTarvikSimRawClient m_oClient;
};
} // namespace

TEST_F(SimCommon, InfoAnswersTheRecordWithTypeAndIndex)
{
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(Ask(Hex(kInfoRequest))));
}

TEST_F(SimCommon, InfoOfAnotherPortIndexCarriesThatIndexAndSerial)
{
    CTarvikSimServer server;
    ASSERT_EQ(0, server.AddDevice(eTarvikSPI, "127.0.0.1", 0, 2));
    ASSERT_TRUE(server.Start());
    CTarvikSimRawClient client;
    ASSERT_TRUE(client.Connect("127.0.0.1", server.GetPort(eTarvikSPI)));
    // Serial 21003002 = 0x01407AFA; byte 19 = index 2.
    EXPECT_EQ(ToHex(Hex("1A 00 09 83 02 00 00"
                        " FA 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 02"
                        " B5")),
              ToHex(client.Transact(Hex(kInfoRequest))));
}

TEST_F(SimCommon, MessageIdIsEchoedAsSent)
{
    for (int id : {0x0000, 0x0001, 0x7FFF, 0x8000, 0xFFFF, 0x1234})
    {
        std::string answer = Ask(Telegram(kRestart, id, ""));
        EXPECT_EQ(ToHex(Cnf(kRestart, id, Hex("00"))), ToHex(answer)) << "id " << id;
    }
}

TEST_F(SimCommon, StatusIsTextAfterResultByte)
{
    std::string answer = Ask(Hex("05 00 0A 03 03 00 0A"));
    std::string data = FrameData(answer);
    ASSERT_FALSE(data.empty());
    EXPECT_EQ(0, data[0]);
    EXPECT_EQ(0u, data.substr(1).find("Tarvik SPI #0 ready, up ")) << data.substr(1);
    // Length field and check byte agree with the text that came.
    EXPECT_EQ(ToHex(Cnf(kStatus, 3, data)), ToHex(answer));
}

TEST_F(SimCommon, DigitalOutputsPersistAcrossConnectionsBesideTheInputPattern)
{
    EXPECT_EQ(ToHex(Hex("06 00 41 83 05 00 00 C7")), ToHex(Ask(Hex("09 00 41 03 05 00 78 56 34 12 4F"))));
    EXPECT_EQ(0x12345678u, m_oServer.GetDevice(eTarvikSPI)->GetDigitalOutputs());
    // Inputs 0x0000A55A, outputs 0x12345678.
    EXPECT_EQ(ToHex(Hex("0E 00 40 83 06 00 00 5A A5 00 00 78 56 34 12 32")), ToHex(Ask(Hex("05 00 40 03 06 00 45"))));

    CTarvikSimRawClient other;
    ASSERT_TRUE(other.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
    m_oServer.GetDevice(eTarvikSPI)->SetDigitalInputs(0xCAFE0001u);
    EXPECT_EQ(ToHex(Cnf(kReadDigital, 7, Hex("00") + LE32(0xCAFE0001u) + LE32(0x12345678u))),
              ToHex(other.Transact(Telegram(kReadDigital, 7, ""))));
}

TEST_F(SimCommon, AnalogValuesReadBackAfterTheChannelCount)
{
    EXPECT_EQ(ToHex(Hex("06 00 43 83 07 00 00 C7")),
              ToHex(Ask(Hex("11 00 43 03 07 00 64 00 00 00 D0 07 00 00 EF BE AD DE D6"))));
    // Channel count 8, the three values written, five channels still 0.
    EXPECT_EQ(ToHex(Hex("2A 00 42 83 08 00 00 08 00 00 00 64 00 00 00 D0 07 00 00 EF BE AD DE"
                        " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 50")),
              ToHex(Ask(Hex("05 00 42 03 08 00 49"))));

    // An empty write is allowed and changes nothing.
    EXPECT_EQ(0, ResultOf(kWriteAnalog, 9, ""));
    std::vector<unsigned int> expected = {100, 2000, 0xDEADBEEF, 0, 0, 0, 0, 0};
    EXPECT_EQ(expected, m_oServer.GetDevice(eTarvikSPI)->GetAnalogValues());
}

TEST_F(SimCommon, RestartClearsOutputsAndAnalogButKeepsInputs)
{
    m_oServer.GetDevice(eTarvikSPI)->SetDigitalInputs(0x00000F0Fu);
    ASSERT_EQ(0, ResultOf(kWriteDigital, 1, LE32(0xFFFF0000u)));
    ASSERT_EQ(0, ResultOf(kWriteAnalog, 2, LE32(5) + LE32(6)));

    EXPECT_EQ(ToHex(Hex("06 00 0C 83 04 00 00 8B")), ToHex(Ask(Hex("05 00 0C 03 04 00 0B"))));

    EXPECT_EQ(ToHex(Cnf(kReadDigital, 3, Hex("00") + LE32(0x00000F0Fu) + LE32(0))),
              ToHex(Ask(Telegram(kReadDigital, 3, ""))));
    std::string zeros(32, '\0');
    EXPECT_EQ(ToHex(Cnf(kReadAnalog, 4, Hex("00") + LE32(8) + zeros)), ToHex(Ask(Telegram(kReadAnalog, 4, ""))));
}

TEST_F(SimCommon, WrongDataLengthOfACommonCommandFailsWithoutEffect)
{
    ASSERT_EQ(0, ResultOf(kWriteDigital, 1, LE32(0x55AA55AAu)));
    ASSERT_EQ(0, ResultOf(kWriteAnalog, 2, LE32(42)));
    struct SCase
    {
        unsigned int m_nCmd;
        std::string m_sData;
    };
    const SCase cases[] = {
        {kInfo, Hex("00")},
        {kStatus, Hex("01 02")},
        {kRestart, Hex("00")},
        {kReadDigital, Hex("00 00 00 00")},
        {kWriteDigital, ""},
        {kWriteDigital, Hex("01 02 03")},
        {kWriteDigital, Hex("01 02 03 04 05")},
        {kReadAnalog, Hex("08")},
        {kWriteAnalog, Hex("01 00 00 00 02")},
        {kWriteAnalog, std::string(9 * 4, '\x01')},
    };
    int id = 100;
    for (const SCase& c : cases)
        EXPECT_EQ(0xFF, ResultOf(c.m_nCmd, id++, c.m_sData)) << std::hex << c.m_nCmd << " " << ToHex(c.m_sData);

    // Nothing was restarted or overwritten by the rejected requests.
    EXPECT_EQ(0x55AA55AAu, m_oServer.GetDevice(eTarvikSPI)->GetDigitalOutputs());
    EXPECT_EQ(42u, m_oServer.GetDevice(eTarvikSPI)->GetAnalogValues()[0]);
}

TEST_F(SimCommon, UnknownCommandAndForeignDeviceTypeFailWithCommandFailed)
{
    EXPECT_EQ(ToHex(Hex("06 00 55 83 09 00 FF 20")), ToHex(Ask(Hex("05 00 55 03 09 00 5F"))));
    // Info addressed to a CAN device (type 2) on the SPI port.
    EXPECT_EQ(ToHex(Hex("06 00 09 82 0A 00 FF 7E")), ToHex(Ask(Hex("05 00 09 02 0A 00 01"))));

    int id = 200;
    for (unsigned int cmd : {0x0300u, 0x0301u, 0x030Bu, 0x0344u, 0x03FFu, 0x0009u, 0x7F09u, 0x0B40u})
        EXPECT_EQ(0xFF, ResultOf(cmd, id++, "")) << std::hex << cmd;
}

TEST_F(SimCommon, MalformedFramesAreDroppedAndTheNextFrameIsAnswered)
{
    struct SCase
    {
        const char* m_pName;
        std::string m_sBytes;
    };
    // 11 bytes whose XOR is 0x5A, then a check byte of 0.
    std::string garbageBody = std::string(11, '\x5A') + Hex("00");
    const SCase cases[] = {
        {"length 0", Hex("00 00")},
        {"length 3", Hex("03 00 AA BB CC")},
        {"length 4, 6-byte frame", Hex("04 00 09 03 02 00")},
        {"bad check byte", Hex("05 00 09 03 02 00 09")},
        {"bad check byte with data", Hex("09 00 41 03 05 00 78 56 34 12 4E")},
        {"garbage body", Hex("0C 00") + garbageBody},
        {"confirmation sent to the device", Hex("06 00 09 83 02 00 00 88")},
        {"largest frame, bad check byte", Hex("FF FF") + std::string(65535, '\x01')},
    };
    for (const SCase& c : cases)
    {
        // Garbage and a good request in one write, then the good request on its own.
        ASSERT_TRUE(m_oClient.Send(c.m_sBytes + Hex(kInfoRequest))) << c.m_pName;
        EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.ReceiveFrame())) << c.m_pName;
        ASSERT_TRUE(m_oClient.Send(c.m_sBytes)) << c.m_pName;
        EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(Ask(Hex(kInfoRequest)))) << c.m_pName;
    }
    // The rejected digital write did not reach the outputs.
    EXPECT_EQ(0u, m_oServer.GetDevice(eTarvikSPI)->GetDigitalOutputs());
}

TEST_F(SimCommon, FramesAreCutFromTheStreamWhateverTheWrites)
{
    // One byte per write.
    for (char byte : Hex(kInfoRequest))
        ASSERT_TRUE(m_oClient.Send(std::string(1, byte)));
    EXPECT_EQ(ToHex(Hex(kInfoAnswer)), ToHex(m_oClient.ReceiveFrame()));

    // Three requests in one write: three answers, in order.
    ASSERT_TRUE(m_oClient.Send(Telegram(kRestart, 1, "") + Telegram(kWriteDigital, 2, LE32(9)) +
                               Telegram(kReadDigital, 3, "")));
    EXPECT_EQ(ToHex(Cnf(kRestart, 1, Hex("00"))), ToHex(m_oClient.ReceiveFrame()));
    EXPECT_EQ(ToHex(Cnf(kWriteDigital, 2, Hex("00"))), ToHex(m_oClient.ReceiveFrame()));
    EXPECT_EQ(ToHex(Cnf(kReadDigital, 3, Hex("00") + LE32(0xA55A) + LE32(9))), ToHex(m_oClient.ReceiveFrame()));

    // A request split in the middle of its length field and of its data.
    std::string write = Telegram(kWriteDigital, 4, LE32(0x01020304));
    ASSERT_TRUE(m_oClient.Send(write.substr(0, 1)));
    ASSERT_TRUE(m_oClient.Send(write.substr(1, 7)));
    ASSERT_TRUE(m_oClient.Send(write.substr(8)));
    EXPECT_EQ(ToHex(Cnf(kWriteDigital, 4, Hex("00"))), ToHex(m_oClient.ReceiveFrame()));
}
