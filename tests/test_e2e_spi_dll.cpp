// The flat C interface end to end against the simulator's SPI gateway and its 25xx
// EEPROM. SPIOpenDevice always dials port 5002, so each test listens on its own
// loopback address (Linux answers on all of 127/8).
#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

namespace
{
// This program's addresses; tests of one program may run at the same time (ctest -j),
// so each takes the first one that is free.
constexpr int kFirstAddress = 61;
constexpr int kLastAddress = 69;
// Nothing listens here: the address is never handed to a server.
const char* const kDeadHost = "127.0.0.60";
constexpr unsigned short kSpiPort = 5002;
constexpr int kTimeoutMs = 400;

std::string ErrorText(int code)
{
    char text[256] = {};
    SPIErrorMessage(code, text, sizeof(text));
    return text;
}

double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class CSpiDllTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        int rc = EADDRINUSE;
        for (int last = kFirstAddress; last <= kLastAddress && rc == EADDRINUSE; ++last)
        {
            m_sHost = "127.0.0." + std::to_string(last);
            rc = m_oServer.AddDevice(eTarvikSPI, m_sHost, kSpiPort);
        }
        ASSERT_EQ(0, rc) << m_oServer.GetLastError();
        ASSERT_TRUE(m_oServer.Start()) << m_oServer.GetLastError();
        ASSERT_EQ(0, SPIOpenDevice(&m_nHandle, m_sHost.c_str(), kTimeoutMs));
    }

    void TearDown() override
    {
        if (m_nHandle >= 0)
            SPICloseDevice(m_nHandle);
    }

    CTarvikSimDeviceSPI& Device() { return *static_cast<CTarvikSimDeviceSPI*>(m_oServer.GetDevice(eTarvikSPI)); }

    int Xfer(const std::string& send, std::string& recv, size_t recvLen)
    {
        recv.assign(recvLen, '\0');
        return SPIDataReq(m_nHandle, send.data(), static_cast<int>(send.size()), &recv[0], static_cast<int>(recvLen));
    }

    // A 25xx write: WREN, WRITE, then RDSR until the write cycle is over.
    void EepromWrite(unsigned short address, const std::string& data)
    {
        std::string answer;
        ASSERT_EQ(0, Xfer("\x06", answer, 1));
        std::string write =
            std::string("\x02", 1) + static_cast<char>(address >> 8) + static_cast<char>(address) + data;
        ASSERT_EQ(0, Xfer(write, answer, write.size()));
        for (int poll = 0; poll < 1000; ++poll)
        {
            ASSERT_EQ(0, Xfer(std::string("\x05\x00", 2), answer, 2));
            if ((answer[1] & 0x01) == 0)
                return;
        }
        FAIL() << "write cycle never ended";
    }

    std::string EepromRead(unsigned short address, size_t len)
    {
        std::string read = std::string("\x03", 1) + static_cast<char>(address >> 8) + static_cast<char>(address);
        std::string answer;
        EXPECT_EQ(0, Xfer(read, answer, read.size() + len));
        return answer.substr(read.size());
    }

    CTarvikSimServer m_oServer;
    std::string m_sHost;
    int m_nHandle = -1;
};

TEST_F(CSpiDllTest, InfoAndStatusComeFromTheSpiGateway)
{
    STarvikDeviceInfo info;
    ASSERT_EQ(0, DeviceInfo(m_nHandle, &info));
    EXPECT_EQ(eTarvikSPI, info.m_abData[TARVIK_DEVICE_INFO_TYPE_BYTE]);
    char status[128] = {};
    DeviceStatus(m_nHandle, status, sizeof(status) - 1);
    EXPECT_NE(std::string::npos, std::string(status).find("Tarvik SPI")) << status;
}

TEST_F(CSpiDllTest, GlobalsAreSetCutToBytesAndReadBack)
{
    ASSERT_EQ(0, SPISetGlobals(m_nHandle, 2500000, 1, 2, 0x1FE));
    unsigned int rate = 0;
    unsigned char s1 = 0, s2 = 0, s3 = 0;
    ASSERT_EQ(0, SPIGetGlobals(m_nHandle, &rate, &s1, &s2, &s3));
    EXPECT_EQ(2500000u, rate);
    EXPECT_EQ(1, s1);
    EXPECT_EQ(2, s2);
    EXPECT_EQ(0xFE, s3);
}

TEST_F(CSpiDllTest, EepromWrittenThroughDataReqReadsBack)
{
    // A write cycle of a few milliseconds makes the RDSR polling do real work.
    Device().SetEepromWriteCycleMs(3);
    const std::string data("\xCA\xFE\x00\x12\x34\xFF\x80\x01", 8);
    EepromWrite(0x0123, data);
    EXPECT_EQ(data, EepromRead(0x0123, data.size()));
    EXPECT_EQ(data, Device().PeekEeprom(0x0123, data.size()));
}

TEST_F(CSpiDllTest, EepromWriteWithoutWriteEnableLeavesTheMemory)
{
    Device().PokeEeprom(0x0200, "\x11\x22");
    std::string answer;
    ASSERT_EQ(0, Xfer(std::string("\x02\x02\x00\xAA\xBB", 5), answer, 5));
    EXPECT_EQ("\x11\x22", EepromRead(0x0200, 2));
}

TEST_F(CSpiDllTest, AsynchronousSequenceReadsTheEeprom)
{
    Device().PokeEeprom(0x0040, "\xDE\xAD\xBE\xEF");
    // SELECT, WRITE 3 bytes (READ 0x0040), READ 4, DESELECT.
    const std::string script("\x01\x03\x03\x00\x03\x00\x40\x04\x04\x00\x02", 11);
    short id = -1;
    ASSERT_EQ(0, SPISequenceReq(m_nHandle, script.data(), static_cast<int>(script.size()), &id));
    char out[8] = {};
    ASSERT_EQ(0, SPISequenceGetCnf(m_nHandle, id, out, 4));
    EXPECT_EQ("\xDE\xAD\xBE\xEF", std::string(out, 4));
}

TEST_F(CSpiDllTest, UnknownSequenceOpCodeGivesItsResultText)
{
    const char script[] = {0x01, 0x09, 0x02};
    short id = -1;
    ASSERT_EQ(0, SPISequenceReq(m_nHandle, script, sizeof(script), &id));
    char out[4] = {};
    int rc = SPISequenceGetCnf(m_nHandle, id, out, sizeof(out));
    EXPECT_EQ(0x0330, rc);
    EXPECT_EQ("SPI sequence unknown command op code", ErrorText(rc));
}

TEST_F(CSpiDllTest, DigitalOutputsReadBack)
{
    ASSERT_EQ(0, SPIWriteDigital(m_nHandle, 0x8001));
    unsigned int inputs = 0, outputs = 0;
    ASSERT_EQ(0, SPIReadDigital(m_nHandle, &inputs, &outputs));
    EXPECT_EQ(0x8001u, outputs);
    EXPECT_EQ(Device().GetDigitalInputs(), inputs);
}

TEST_F(CSpiDllTest, ClosedHandleIsInvalid)
{
    ASSERT_EQ(0, SPICloseDevice(m_nHandle));
    int handle = m_nHandle;
    m_nHandle = -1;
    unsigned int inputs = 0, outputs = 0;
    int rc = SPIReadDigital(handle, &inputs, &outputs);
    EXPECT_EQ(0x900000, rc);
    EXPECT_EQ("Device handle is invalid", ErrorText(rc));
}

struct SFaultCase
{
    ETarvikSimFault m_eFault;
    int m_nCode;
    const char* m_pText;
};

class CSpiDllFaultTest : public CSpiDllTest, public ::testing::WithParamInterface<SFaultCase>
{
};

TEST_P(CSpiDllFaultTest, FaultGivesItsCodeAndTextInBoundedTime)
{
    m_oServer.SetFault(GetParam().m_eFault);
    unsigned int rate = 0;
    auto start = std::chrono::steady_clock::now();
    int rc = SPIGetGlobals(m_nHandle, &rate, nullptr, nullptr, nullptr);
    EXPECT_EQ(GetParam().m_nCode, rc);
    EXPECT_EQ(GetParam().m_pText, ErrorText(rc));
    EXPECT_LT(SecondsSince(start), 5.0);
}

INSTANTIATE_TEST_SUITE_P(Faults, CSpiDllFaultTest,
                         ::testing::Values(SFaultCase{eTarvikSimFaultSilent, 0x040000, "TCP/IP timeout occured"},
                                           SFaultCase{eTarvikSimFaultBadCRC, 0x0A0000,
                                                      "Tarvik TCP/IP telegram has invalid CRC"},
                                           SFaultCase{eTarvikSimFaultWrongCmd, 0x0B0000,
                                                      "Tarvik TCP/IP telegram is not confirmed by partner"}));

TEST_F(CSpiDllTest, StoppedSimulatorGivesNotConnectedOrTimeout)
{
    m_oServer.Stop();
    unsigned int rate = 0;
    auto start = std::chrono::steady_clock::now();
    // The first request may leave before the close is seen; the second cannot.
    int rc = SPIGetGlobals(m_nHandle, &rate, nullptr, nullptr, nullptr);
    if (rc == 0x040000)
        rc = SPIGetGlobals(m_nHandle, &rate, nullptr, nullptr, nullptr);
    EXPECT_TRUE(rc == 0x030000 || rc == 0x040000) << std::hex << rc;
    EXPECT_TRUE(ErrorText(rc) == "Not connected to TCP/IP partner" || ErrorText(rc) == "TCP/IP timeout occured")
        << ErrorText(rc);
    EXPECT_LT(SecondsSince(start), 5.0);
}

TEST(SpiDllOpen, NobodyListeningGivesNotConnectedAndNoHandle)
{
    int handle = 7;
    auto start = std::chrono::steady_clock::now();
    int rc = SPIOpenDevice(&handle, kDeadHost, kTimeoutMs);
    EXPECT_EQ(0x030000, rc);
    EXPECT_EQ(-1, handle);
    EXPECT_EQ("Not connected to TCP/IP partner", ErrorText(rc));
    EXPECT_LT(SecondsSince(start), 5.0);
}
} // namespace
