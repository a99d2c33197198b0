// The flat C interface: text copies, unknown handles, opening and closing SPI
// devices at port 5002, and what each function writes to its outputs.
#include "support/FakeGateway.h"

#include "tarvik/core/TarvikClient.h"
#include "tarvik/dll/DeviceManager.h"
#include "tarvik/dll/TarvikDLL.h"
#include "tarvik/dll/TarvikDllSPI.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

using namespace tarvik_test;

namespace
{
constexpr int kTimeoutMs = 200;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways (127.0.43.x); SPIOpenDevice always uses 5002.
constexpr unsigned char kLoopbackNet = 43;
constexpr unsigned short kSPIPort = 5002;
const char kVersion[] = "Tarvik SPI DLL V1.3-2.18";

// Buffer of sentinel bytes, so that every byte written or left alone is visible.
std::string Buffer(size_t size)
{
    return std::string(size, '\xEE');
}

class CDllTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_oGateway.StartOnLoopbackNet(kLoopbackNet, kSPIPort));
        ASSERT_EQ(0, SPIOpenDevice(&m_nHandle, m_oGateway.GetAddress().c_str(), kTimeoutMs));
        ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
    }

    void TearDown() override { SPICloseDevice(m_nHandle); }

    // Answers every request with its own command code and this payload.
    void AnswerWith(const std::string& payload)
    {
        m_oGateway.SetHandler([payload](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), payload); });
    }

    std::string Frame0()
    {
        EXPECT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
        std::vector<std::string> frames = m_oGateway.GetFrames();
        return frames.empty() ? std::string() : frames[0];
    }

    CFakeGateway m_oGateway;
    int m_nHandle = -1;
};
} // namespace

TEST(TarvikDll, DLLInfoCopiesTheVersionAndDropsTheFirstCharacterWhenShort)
{
    EXPECT_STREQ(kVersion, gsDLLVersionString);
    struct SCase
    {
        int m_nSize;
        int m_nResult;
        std::string m_sWritten;
    };
    const SCase cases[] = {
        {100, 25, std::string(kVersion) + '\0'},
        {25, 25, std::string(kVersion) + '\0'},
        // One byte short: the text loses its first character and is cut to size - 1.
        {24, 24, std::string("arvik SPI DLL V1.3-2.18") + '\0'},
        {6, 6, std::string("arvik") + '\0'},
        {2, 2, std::string("a") + '\0'},
        {1, 1, std::string(1, '\0')},
        {0, 0, ""},
        {-1, 0, ""},
        {INT_MIN, 0, ""},
    };
    for (const SCase& c : cases)
    {
        std::string buf = Buffer(120);
        EXPECT_EQ(c.m_nResult, DLLInfo(&buf[0], c.m_nSize)) << c.m_nSize;
        EXPECT_EQ(ToHex(c.m_sWritten + Buffer(120 - c.m_sWritten.size())), ToHex(buf)) << c.m_nSize;
    }
    EXPECT_EQ(0, DLLInfo(nullptr, 100));
}

TEST(TarvikDll, SPIErrorMessageCopiesTheTextOfACode)
{
    struct SCase
    {
        int m_nCode;
        int m_nSize;
        int m_nResult;
        std::string m_sWritten;
    };
    const SCase cases[] = {
        {0x900000, 6, 6, std::string("evice") + '\0'},
        {0x900000, 25, 25, std::string("Device handle is invalid") + '\0'},
        {0x900000, 24, 24, std::string("evice handle is invalid") + '\0'},
        {0x900000, 0, 0, ""},
        {0, 100, 9, std::string("no error") + '\0'},
        {0x0520, 100, 23, std::string("Unknown error code: 32") + '\0'},
        {0x0C0300, 100, 47, std::string("Tarvik TCP/IP telegram confirmation is invalid") + '\0'},
        {0x910000, 100, 93,
         std::string("Device type invalid (handle is connected device type, which does not support called function") +
             '\0'},
    };
    for (const SCase& c : cases)
    {
        std::string buf = Buffer(120);
        EXPECT_EQ(c.m_nResult, SPIErrorMessage(c.m_nCode, &buf[0], c.m_nSize)) << std::hex << c.m_nCode;
        EXPECT_EQ(ToHex(c.m_sWritten + Buffer(120 - c.m_sWritten.size())), ToHex(buf)) << std::hex << c.m_nCode;
    }
    EXPECT_EQ(0, SPIErrorMessage(0x900000, nullptr, 100));
}

TEST(TarvikDll, UnknownHandlesAreInvalidAndOutputsAreLeftAlone)
{
    for (int handle : {-1, 0, 999999, INT_MAX})
    {
        std::string buf = Buffer(8);
        short id = 77;
        unsigned int in = 7, out = 7, rate = 7;
        unsigned char s1 = 7, s2 = 7, s3 = 7;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIDataReq(handle, "\x01", 1, &buf[0], 4)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPISequenceReq(handle, "\x01", 1, &id)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPISequenceGetCnf(handle, 2, &buf[0], 4)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIReadDigital(handle, &in, &out)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIWriteDigital(handle, 1)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPISetGlobals(handle, 1, 2, 3, 4)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIGetGlobals(handle, &rate, &s1, &s2, &s3)) << handle;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPICloseDevice(handle)) << handle;
        EXPECT_EQ(ToHex(Buffer(8)), ToHex(buf));
        EXPECT_EQ(77, id);
        EXPECT_EQ(7u, in);
        EXPECT_EQ(7u, out);
        EXPECT_EQ(7u, rate);
        EXPECT_EQ(7, s1);
        EXPECT_EQ(7, s2);
        EXPECT_EQ(7, s3);
    }
}

TEST(TarvikDll, DeviceInfoOfAnUnknownHandleZeroesTheFirstEighteenBytesOnly)
{
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, DeviceInfo(999999, nullptr));
    STarvikDeviceInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, DeviceInfo(999999, &info));
    EXPECT_EQ(ToHex(std::string(18, '\0') + "\xEE\xEE"),
              ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))));
}

TEST(TarvikDll, DeviceStatusOfAnUnknownHandleReturnsOneAndLeavesTheBuffer)
{
    std::string buf = Buffer(8);
    EXPECT_EQ(1, DeviceStatus(999999, &buf[0], 4));
    EXPECT_EQ(ToHex(Buffer(8)), ToHex(buf));
}

TEST(TarvikDll, OpenFailureGivesTheConnectCodeAndHandleMinusOne)
{
    CFakeGateway refusing;
    ASSERT_TRUE(refusing.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeRefuse));
    int handle = 0;
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, SPIOpenDevice(&handle, refusing.GetAddress().c_str(), kTimeoutMs));
    EXPECT_EQ(-1, handle);

    CFakeGateway silent;
    ASSERT_TRUE(silent.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeSilent));
    handle = 0;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, SPIOpenDevice(&handle, silent.GetAddress().c_str(), kTimeoutMs));
    EXPECT_EQ(-1, handle);

    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, SPIOpenDevice(nullptr, silent.GetAddress().c_str(), kTimeoutMs));
}

TEST_F(CDllTest, OpenConnectsWithoutATelegramAndTheFirstRequestCarriesIdTwo)
{
    EXPECT_GT(m_nHandle, 0);
    EXPECT_EQ(0u, m_oGateway.GetFrameCount());
    AnswerWith(Frame({0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}));
    std::string recv = Buffer(6);
    EXPECT_EQ(0, SPIDataReq(m_nHandle, "\x01\x02", 2, &recv[0], 5));
    EXPECT_EQ(ToHex(Hex("0A 00 03 03 02 00 01 02 00 00 00 01")), ToHex(Frame0()));
    EXPECT_EQ(ToHex(Hex("A1 A2 A3 A4 A5 EE")), ToHex(recv));
}

TEST_F(CDllTest, CloseDisconnectsAndForgetsTheHandle)
{
    EXPECT_EQ(0, SPICloseDevice(m_nHandle));
    EXPECT_TRUE(m_oGateway.WaitForPeerClosed(1, kWaitMs));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIWriteDigital(m_nHandle, 1));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPICloseDevice(m_nHandle));
}

TEST_F(CDllTest, LengthsAndSettingsAreCutToTheirWidths)
{
    AnswerWith(Frame({0, 0xA1, 0xA2}));
    std::string recv = Buffer(4);
    // 0x10002 and 0x10001 become 2 and 1.
    EXPECT_EQ(0, SPIDataReq(m_nHandle, "\x01\x02", 0x10002, &recv[0], 0x10001));
    EXPECT_EQ(ToHex(Hex("A1 EE EE EE")), ToHex(recv));
    EXPECT_EQ(0, SPISetGlobals(m_nHandle, 1000000, 0x101, 0x1FF, -1));
    ASSERT_TRUE(m_oGateway.WaitForFrames(2, kWaitMs));
    std::vector<std::string> frames = m_oGateway.GetFrames();
    EXPECT_EQ(ToHex(Hex("07 00 03 03 02 00 01 02 01")), ToHex(frames[0]));
    EXPECT_EQ(ToHex(Hex("0C 00 07 03 03 00 40 42 0F 00 01 FF FF 0B")), ToHex(frames[1]));
}

TEST_F(CDllTest, SequenceIsStartedAndCollectedByIdThroughTheHandle)
{
    AnswerWith(Frame({0, 0x11, 0x22}));
    short id = -1;
    EXPECT_EQ(0, SPISequenceReq(m_nHandle, "\x10", 1, &id));
    EXPECT_EQ(2, id);
    EXPECT_EQ(ToHex(Hex("06 00 14 03 02 00 10 05")), ToHex(Frame0()));
    std::string out = Buffer(4);
    EXPECT_EQ(0, SPISequenceGetCnf(m_nHandle, id, &out[0], 4));
    EXPECT_EQ(ToHex(Hex("11 22 EE EE")), ToHex(out));
}

TEST_F(CDllTest, GetGlobalsWritesZerosOnFailureAndSkipsNullOutputs)
{
    AnswerWith(Frame({0}) + LE32(1000000) + Frame({1, 2, 3}));
    unsigned int rate = 7;
    unsigned char s1 = 7, s2 = 7, s3 = 7;
    EXPECT_EQ(0, SPIGetGlobals(m_nHandle, &rate, &s1, &s2, &s3));
    EXPECT_EQ(1000000u, rate);
    EXPECT_EQ(1, s1);
    EXPECT_EQ(2, s2);
    EXPECT_EQ(3, s3);

    EXPECT_EQ(0, SPIGetGlobals(m_nHandle, nullptr, &s1, nullptr, nullptr));
    EXPECT_EQ(0, SPIGetGlobals(m_nHandle, nullptr, nullptr, nullptr, nullptr));

    AnswerWith(Frame({0x20}) + LE32(1000000) + Frame({1, 2, 3}));
    rate = 7;
    s1 = s2 = s3 = 7;
    EXPECT_EQ(0x0320, SPIGetGlobals(m_nHandle, &rate, &s1, &s2, &s3));
    EXPECT_EQ(0u, rate);
    EXPECT_EQ(0, s1 + s2 + s3);

    m_oGateway.SetHandler(nullptr);
    rate = 7;
    s1 = s2 = s3 = 7;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, SPIGetGlobals(m_nHandle, &rate, nullptr, &s2, nullptr));
    EXPECT_EQ(0u, rate);
    EXPECT_EQ(7, s1);
    EXPECT_EQ(0, s2);
    EXPECT_EQ(7, s3);
}

TEST_F(CDllTest, ReadDigitalToleratesNullOutputsAndWriteDigitalSendsTheWord)
{
    AnswerWith(Frame({0}) + LE32(0x89ABCDEF) + LE32(0x01234567));
    EXPECT_EQ(0, SPIReadDigital(m_nHandle, nullptr, nullptr));
    unsigned int in = 7;
    EXPECT_EQ(0, SPIReadDigital(m_nHandle, &in, nullptr));
    EXPECT_EQ(0x89ABCDEFu, in);
    unsigned int out = 7;
    EXPECT_EQ(0, SPIReadDigital(m_nHandle, nullptr, &out));
    EXPECT_EQ(0x01234567u, out);

    // A short answer leaves both alone.
    AnswerWith(Frame({0, 1, 2}));
    in = out = 7;
    EXPECT_EQ(0, SPIReadDigital(m_nHandle, &in, &out));
    EXPECT_EQ(7u, in);
    EXPECT_EQ(7u, out);

    AnswerWith(Frame({0}));
    m_oGateway.ClearFrames();
    EXPECT_EQ(0, SPIWriteDigital(m_nHandle, 0x80000001));
    // The fifth request of this client: id 6.
    EXPECT_EQ(ToHex(Hex("09 00 41 03 06 00 01 00 00 80 C5")), ToHex(Frame0()));
}

TEST_F(CDllTest, DeviceInfoZeroesTheWholeRecordThenAsksTheDevice)
{
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, DeviceInfo(m_nHandle, nullptr));
    AnswerWith(Frame({0, 0xAA, 0xBB, 0xCC}));
    STarvikDeviceInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    EXPECT_EQ(0, DeviceInfo(m_nHandle, &info));
    EXPECT_EQ(ToHex(Hex("AA BB CC 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03 00")),
              ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))));
    EXPECT_EQ(ToHex(Hex("05 00 09 03 02 00 08")), ToHex(Frame0()));

    AnswerWith(Frame({0x20, 0xAA}));
    std::memset(&info, 0xEE, sizeof(info));
    EXPECT_EQ(0x0320, DeviceInfo(m_nHandle, &info));
    EXPECT_EQ(ToHex(std::string(18, '\0') + Frame({3, 0})),
              ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))));
}

TEST_F(CDllTest, DeviceStatusCopiesTheTextByItsOwnRules)
{
    struct SCase
    {
        const char* m_sName;
        bool m_bAnswered;
        std::string m_sPayload;
        int m_nSize;
        int m_nResult;
        std::string m_sBuffer;
    };
    const SCase cases[] = {
        {"room to spare", true, Frame({0}) + "Hello", 8, 6, std::string("Hello") + '\0' + Buffer(4)},
        // Exactly size characters: copied whole, the zero lands at buf[size].
        {"exactly size", true, Frame({0}) + "Hello", 5, 6, std::string("Hello") + '\0' + Buffer(4)},
        // Longer than size: the first character goes and at most size - 1 stay.
        {"one too long", true, Frame({0}) + "Hello", 4, 4, std::string("ell") + '\0' + Buffer(6)},
        {"far too long", true, Frame({0}) + "Hello", 1, 1, std::string(1, '\0') + Buffer(9)},
        {"no text", true, Frame({0}), 4, 1, std::string(1, '\0') + Buffer(9)},
        // A failed request zero-fills size bytes and copies the empty text.
        {"device error", true, Frame({0x20}) + "Hello", 4, 1, std::string(4, '\0') + Buffer(6)},
        {"no answer", false, "", 6, 1, std::string(6, '\0') + Buffer(4)},
    };
    for (const SCase& c : cases)
    {
        if (c.m_bAnswered)
            AnswerWith(c.m_sPayload);
        else
            m_oGateway.SetHandler(nullptr);
        std::string buf = Buffer(10);
        EXPECT_EQ(c.m_nResult, DeviceStatus(m_nHandle, &buf[0], c.m_nSize)) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sBuffer), ToHex(buf)) << c.m_sName;
    }
    EXPECT_EQ(ToHex(Hex("05 00 0A 03 02 00 0B")), ToHex(Frame0()));
}

TEST(TarvikDll, EntryWithoutClientDoesNothingAndOtherClientsAreRefused)
{
    CDevice* empty = new CDevice();
    int emptyHandle = 0;
    CDeviceManager::SetDevice(&emptyHandle, empty);
    std::string buf = Buffer(8);
    EXPECT_EQ(0, SPIDataReq(emptyHandle, "\x01", 1, &buf[0], 4));
    EXPECT_EQ(0, SPIWriteDigital(emptyHandle, 1));
    EXPECT_EQ(1, DeviceStatus(emptyHandle, &buf[0], 4));
    EXPECT_EQ(ToHex(Buffer(8)), ToHex(buf));
    STarvikDeviceInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    EXPECT_EQ(0, DeviceInfo(emptyHandle, &info));
    EXPECT_EQ(ToHex(std::string(20, '\0')), ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))));
    EXPECT_EQ(0, SPICloseDevice(emptyHandle));

    // A client that is not an SPI client: the SPI functions refuse it, the
    // functions of every device serve it.
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    gateway.SetHandler([](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), Frame({0}) + "DIO ok"); });
    CTarvikClient dio(eTarvikDIO, kTimeoutMs);
    ASSERT_EQ(0, dio.Connect("127.0.0.1", gateway.GetPort()));
    CDevice* other = new CDevice();
    other->m_pClient = &dio;
    int otherHandle = 0;
    CDeviceManager::SetDevice(&otherHandle, other);
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, SPIWriteDigital(otherHandle, 1));
    std::string text = Buffer(10);
    EXPECT_EQ(7, DeviceStatus(otherHandle, &text[0], 8));
    EXPECT_EQ(std::string("DIO ok") + '\0', text.substr(0, 7));
    EXPECT_EQ(0, CDeviceManager::CloseDevice(otherHandle));
}
