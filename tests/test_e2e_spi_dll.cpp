// The flat C interface end to end against the simulator's SPI gateway and its 25xx
// EEPROM. SPIOpenDevice always dials port 5002, so each test listens on its own
// loopback address (Linux answers on all of 127/8).
#include "support/FakeGateway.h"

#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

using namespace tarvik_test;

namespace
{
std::string ErrorText(int code)
{
    char text[256] = {};
    SPIErrorMessage(code, text, sizeof(text));
    return text;
}

class CSpiDllTest : public ::testing::Test
{
protected:
    // This program's addresses are 127.0.0.61 to .69; tests that run at the same time
    // (ctest -j) each take the first free one.
    void SetUp() override
    {
        int rc = EADDRINUSE;
        for (int last = 61; last <= 69 && rc == EADDRINUSE; ++last)
        {
            m_sHost = "127.0.0." + std::to_string(last);
            rc = m_oServer.AddDevice(eTarvikSPI, m_sHost, 5002);
        }
        ASSERT_EQ(0, rc) << m_oServer.GetLastError();
        ASSERT_TRUE(m_oServer.Start()) << m_oServer.GetLastError();
        ASSERT_EQ(0, SPIOpenDevice(&m_nHandle, m_sHost.c_str(), 400));
    }

    void TearDown() override
    {
        if (m_nHandle >= 0)
            SPICloseDevice(m_nHandle);
    }

    // One chip-select frame; recv receives as many bytes as were sent.
    int Xfer(const std::string& hex, std::string& recv)
    {
        std::string send = Hex(hex);
        recv.assign(send.size(), '\0');
        return SPIDataReq(m_nHandle, send.data(), static_cast<int>(send.size()), &recv[0],
                          static_cast<int>(recv.size()));
    }

    CTarvikSimServer m_oServer;
    std::string m_sHost;
    int m_nHandle = -1;
};

TEST_F(CSpiDllTest, EepromWrittenThroughDataReqReadsBack)
{
    // A write cycle of a few milliseconds makes the status polling do real work.
    static_cast<CTarvikSimDeviceSPI*>(m_oServer.GetDevice(eTarvikSPI))->SetEepromWriteCycleMs(3);
    std::string answer;
    ASSERT_EQ(0, Xfer("06", answer));
    ASSERT_EQ(0, Xfer("02 01 23 CA FE 00 12", answer));
    // RDSR until the write-in-progress bit clears.
    int polls = 0;
    do
        ASSERT_EQ(0, Xfer("05 00", answer));
    while ((answer[1] & 0x01) != 0 && ++polls < 100000);
    ASSERT_EQ(0, Xfer("03 01 23 00 00 00 00", answer));
    EXPECT_EQ("FF FF FF CA FE 00 12", ToHex(answer));
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

TEST_F(CSpiDllTest, StoppedSimulatorGivesNotConnectedOrTimeoutInBoundedTime)
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
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
}
} // namespace
