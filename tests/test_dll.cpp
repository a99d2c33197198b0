// The flat C interface and its device manager: text copies, handles, opening and
// closing SPI devices at port 5002, and what each function writes to its outputs.
//
// Handles are process-wide and never reused, so every test counts from the first
// handle it draws itself.
#include "support/FakeGateway.h"

#include "tarvik/dll/DeviceManager.h"
#include "tarvik/dll/TarvikDLL.h"
#include "tarvik/dll/TarvikDllSPI.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>

using namespace tarvik_test;

namespace
{
constexpr int kTimeoutMs = 1000;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways (127.0.43.x); SPIOpenDevice always uses 5002.
constexpr unsigned char kLoopbackNet = 43;
constexpr unsigned short kSPIPort = 5002;

// Sentinel bytes, so that every byte written or left alone is visible.
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
        ASSERT_EQ(0, SPIOpenDevice(&m_nHandle, Host(), kTimeoutMs));
        ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
    }
    void TearDown() override { SPICloseDevice(m_nHandle); }

    const char* Host() const { return m_oGateway.GetAddress().c_str(); }
    void AnswerWith(const std::optional<std::string>& payload) { m_oGateway.AnswerWith(payload); }

    CFakeGateway m_oGateway;
    int m_nHandle = -1;
};
} // namespace

// First in this file: run alone (as ctest does) or first, it draws the process's first handle.
TEST(TarvikDll, TheFirstHandleOfAProcessIsOne)
{
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.StartOnLoopbackNet(kLoopbackNet, kSPIPort));
    int handle = 0;
    ASSERT_EQ(0, SPIOpenDevice(&handle, gateway.GetAddress().c_str(), kTimeoutMs));
    EXPECT_EQ(1, handle);
    EXPECT_EQ(0, SPICloseDevice(handle));
}

TEST(TarvikDll, TextCopiesDropTheFirstCharacterWhenShort)
{
    auto version = [](char* buf, int size) { return DLLInfo(buf, size); };
    auto message = [](int code) { return [code](char* buf, int size) { return SPIErrorMessage(code, buf, size); }; };
    const std::tuple<std::function<int(char*, int)>, int, int, std::string> cases[] = {
        {version, 100, 25, "Tarvik SPI DLL V1.3-2.18"},
        {version, 25, 25, "Tarvik SPI DLL V1.3-2.18"},
        // One byte short: the text loses its first character and is cut to size - 1.
        {version, 24, 24, "arvik SPI DLL V1.3-2.18"},
        {version, 1, 1, ""},
        {version, 0, 0, ""},
        {version, -1, 0, ""},
        {message(0x900000), 6, 6, "evice"},
        {message(0x900000), 0, 0, ""},
        {message(0x0520), 100, 23, "Unknown error code: 32"},
    };
    for (const auto& c : cases)
    {
        std::string buf = Buffer(40);
        std::string written = std::get<2>(c) > 0 ? std::get<3>(c) + '\0' : std::string();
        EXPECT_EQ(std::get<2>(c), std::get<0>(c)(&buf[0], std::get<1>(c))) << std::get<3>(c);
        EXPECT_EQ(ToHex(written + Buffer(40 - written.size())), ToHex(buf));
    }
    EXPECT_EQ(0, DLLInfo(nullptr, 100));
    EXPECT_EQ(0, SPIErrorMessage(0x900000, nullptr, 100));
}

// The added text function keeps the start of the text and says how much it needs.
TEST(TarvikDll, ErrorMessageCutsAtTheEndAndReturnsTheWholeLength)
{
    const std::string text = "Unknown error code: 32";
    const int whole = static_cast<int>(text.size()) + 1;
    const std::tuple<int, int, std::string> cases[] = {
        {100, whole, text + '\0'},
        {whole, whole, text + '\0'},
        {6, whole, std::string("Unkno") + '\0'},
        {1, whole, std::string(1, '\0')},
        {0, whole, ""},
        {-1, -1, ""},
    };
    for (const auto& c : cases)
    {
        std::string buf = Buffer(40);
        EXPECT_EQ(std::get<1>(c), TarvikErrorMessage(0x0520, &buf[0], std::get<0>(c))) << std::get<0>(c);
        EXPECT_EQ(ToHex(std::get<2>(c) + Buffer(40 - std::get<2>(c).size())), ToHex(buf)) << std::get<0>(c);
    }
    EXPECT_EQ(whole, TarvikErrorMessage(0x0520, nullptr, 0));
    EXPECT_EQ(-1, TarvikErrorMessage(0x0520, nullptr, 10));
}

TEST(TarvikDll, UnknownHandlesAreInvalidAndOutputsAreLeftAlone)
{
    for (int handle : {-1, 0, 999999})
    {
        std::string buf = Buffer(8);
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPICloseDevice(handle));
        // DeviceStatus says 1 and leaves the buffer.
        EXPECT_EQ(1, DeviceStatus(handle, &buf[0], 4));
        EXPECT_EQ(ToHex(Buffer(8)), ToHex(buf));
        // The common commands take any family's handle, and no other.
        unsigned int values[2] = {7, 7};
        for (int rc :
             {DeviceRestart(handle), DeviceReadDigital(handle, &values[0], &values[1]), DeviceWriteDigital(handle, 1),
              DeviceReadAnalog(handle, &values[0], values, 1, nullptr), DeviceWriteAnalog(handle, values, 1)})
            EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, rc);
        EXPECT_EQ(7u, values[0] & values[1]);
    }
    // DeviceInfo refuses a null record first and zeroes the first 18 bytes of an unknown handle's.
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, DeviceInfo(999999, nullptr));
    STarvikDeviceInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, DeviceInfo(999999, &info));
    EXPECT_EQ(ToHex(std::string(18, '\0') + "\xEE\xEE"),
              ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info))));
}

TEST_F(CDllTest, HandlesCountUpAreNeverReusedAndFailedOpensUseANumberToo)
{
    CFakeGateway refusing, silent;
    ASSERT_TRUE(refusing.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeRefuse));
    ASSERT_TRUE(silent.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeSilent));
    int handle = 0;
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, SPIOpenDevice(&handle, refusing.GetAddress().c_str(), kTimeoutMs));
    EXPECT_EQ(-1, handle);
    handle = 0;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, SPIOpenDevice(&handle, silent.GetAddress().c_str(), kTimeoutMs));
    EXPECT_EQ(-1, handle);
    ASSERT_EQ(0, SPIOpenDevice(&handle, Host(), kTimeoutMs));
    EXPECT_EQ(m_nHandle + 3, handle);
    EXPECT_EQ(0, SPICloseDevice(handle));
    EXPECT_TRUE(m_oGateway.WaitForPeerClosed(1, kWaitMs));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPICloseDevice(handle));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, SPIWriteDigital(handle, 1));
    ASSERT_EQ(0, SPIOpenDevice(&handle, Host(), kTimeoutMs));
    EXPECT_EQ(m_nHandle + 4, handle);
    EXPECT_EQ(0, SPICloseDevice(handle));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, SPIOpenDevice(nullptr, Host(), kTimeoutMs));
}

TEST_F(CDllTest, UnsupportedTypeOrPortIndexIsRefused)
{
    // An unsupported type draws a number, hands it out and loses it.
    int handle = 0;
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, CDeviceManager::OpenDevice(&handle, Host(), kTimeoutMs, 4, 0, 1, true));
    EXPECT_EQ(m_nHandle + 1, handle);
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(handle));
    // A port index above 99 is refused before a number is drawn.
    handle = 12345;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, CDeviceManager::OpenDevice(&handle, Host(), kTimeoutMs, 3, 100, 1, true));
    EXPECT_EQ(12345, handle);
    // The SPI functions refuse a client of another type.
    CTarvikClient dio(eTarvikDIO, kTimeoutMs);
    CDevice* device = new CDevice();
    device->m_pClient = &dio;
    CDeviceManager::SetDevice(&handle, device);
    EXPECT_EQ(m_nHandle + 2, handle);
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, SPIWriteDigital(handle, 1));
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
    // Port index 99 is the last one: 4999 + 3 + 9900.
    CFakeGateway far;
    ASSERT_TRUE(far.StartOnLoopbackNet(kLoopbackNet, 14902));
    EXPECT_EQ(0, CDeviceManager::OpenDevice(&handle, far.GetAddress().c_str(), kTimeoutMs, 3, 99, 1, true));
    EXPECT_TRUE(far.WaitForAccepted(1, kWaitMs));
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
}

TEST_F(CDllTest, RequestsCarryIdsFromTwoAndCutTheirArgumentsToWidth)
{
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, DeviceInfo(m_nHandle, nullptr));
    AnswerWith(Frame({0, 0xA1, 0xA2, 0xA3}));
    std::string recv = Buffer(4);
    // 0x10002 and 0x10001 become 2 and 1.
    EXPECT_EQ(0, SPIDataReq(m_nHandle, "\x01\x02", 0x10002, &recv[0], 0x10001));
    EXPECT_EQ("A1 EE EE EE", ToHex(recv));
    EXPECT_EQ(0, SPISetGlobals(m_nHandle, 1000000, 0x101, 0x1FF, -1));
    short id = -1;
    EXPECT_EQ(0, SPISequenceReq(m_nHandle, "\x10", 1, &id));
    EXPECT_EQ(4, id);
    EXPECT_EQ(0, SPISequenceGetCnf(m_nHandle, id, &recv[0], 4));
    EXPECT_EQ("A1 A2 A3 EE", ToHex(recv));
    EXPECT_EQ(0, SPIWriteDigital(m_nHandle, 0x80000001));
    ASSERT_TRUE(m_oGateway.WaitForFrames(4, kWaitMs));
    std::vector<std::string> frames = m_oGateway.GetFrames();
    ASSERT_EQ(4u, frames.size());
    EXPECT_EQ("07 00 03 03 02 00 01 02 01", ToHex(frames[0]));
    EXPECT_EQ("0C 00 07 03 03 00 40 42 0F 00 01 FF FF 0B", ToHex(frames[1]));
    EXPECT_EQ("06 00 14 03 04 00 10 03", ToHex(frames[2]));
    EXPECT_EQ("09 00 41 03 05 00 01 00 00 80 C6", ToHex(frames[3]));
}

TEST_F(CDllTest, GetGlobalsWritesZerosOnFailureAndNullOutputsAreSkipped)
{
    const std::string globals = LE32(1000000) + Frame({1, 2, 3});
    const std::tuple<std::optional<std::string>, int, std::string> cases[] = {
        {Frame({0}) + globals, 0, ToHex(globals)},
        // Only a complete successful answer is decoded.
        {Frame({0}) + globals.substr(0, 6), 0, "00 00 00 00 00 00 00"},
        {Frame({0x20}) + globals, 0x0320, "00 00 00 00 00 00 00"},
        {std::nullopt, TARVIK_ERR_TIMEOUT, "00 00 00 00 00 00 00"},
    };
    for (const auto& c : cases)
    {
        AnswerWith(std::get<0>(c));
        unsigned int rate = 7;
        unsigned char s[3] = {7, 7, 7};
        EXPECT_EQ(std::get<1>(c), SPIGetGlobals(m_nHandle, &rate, &s[0], &s[1], &s[2]));
        EXPECT_EQ(std::get<2>(c), ToHex(LE32(rate) + std::string(reinterpret_cast<char*>(s), 3)));
        EXPECT_EQ(std::get<1>(c), SPIGetGlobals(m_nHandle, nullptr, nullptr, nullptr, nullptr));
    }
}

TEST_F(CDllTest, DeviceStatusCopiesTheTextByItsOwnRules)
{
    const std::tuple<std::optional<std::string>, int, int, std::string> cases[] = {
        {Frame({0}) + "Hello", 8, 6, std::string("Hello") + '\0' + Buffer(4)},
        // Exactly size characters: copied whole, the zero lands at buf[size].
        {Frame({0}) + "Hello", 5, 6, std::string("Hello") + '\0' + Buffer(4)},
        // Longer than size: the first character goes and at most size - 1 stay.
        {Frame({0}) + "Hello", 4, 4, std::string("ell") + '\0' + Buffer(6)},
        {Frame({0}), 4, 1, std::string(1, '\0') + Buffer(9)},
        // A failed request zero-fills size bytes and copies the empty text.
        {Frame({0x20}) + "Hello", 4, 1, std::string(4, '\0') + Buffer(6)},
        {std::nullopt, 6, 1, std::string(6, '\0') + Buffer(4)},
    };
    for (const auto& c : cases)
    {
        AnswerWith(std::get<0>(c));
        std::string buf = Buffer(10);
        EXPECT_EQ(std::get<2>(c), DeviceStatus(m_nHandle, &buf[0], std::get<1>(c)));
        EXPECT_EQ(ToHex(std::get<3>(c)), ToHex(buf)) << std::get<1>(c);
    }
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, kWaitMs));
    EXPECT_EQ("05 00 0A 03 02 00 0B", ToHex(m_oGateway.GetFrames()[0]));
}
