// Result codes: texts and their fallbacks, the transport mapping and the result of a
// confirmation.
#include "tarvik/core/TarvikClient.h"
#include "tarvik/core/TarvikResult.h"

#include <gtest/gtest.h>

TEST(TarvikResult, TextsAndFallbacks)
{
    struct SCase
    {
        int m_nCode;
        const char* m_sText;
    };
    const SCase cases[] = {
        // Rows whose wording is easy to "correct" by mistake.
        {0x000000, "no error"},
        {0x040000, "TCP/IP timeout occured"},
        {0x050000, "TCP/IP request not allowed now, stack is intializing"},
        {0x910000, "Device type invalid (handle is connected device type, which does not support called function"},
        {0x000320, "SPI inconsistent telegram data"},
        {0x000E21, "A transfer currently is in progress"},
        // Not in the table: looked up again without the device type byte.
        {0x0003FF, "Tarvik command failed"},
        {0x0C0300, "Tarvik TCP/IP telegram confirmation is invalid"},
        {0x001102, "Read/write request to internal eeprom failed"},
        // Not there either: the stripped code in decimal.
        {0x000520, "Unknown error code: 32"},
        {0x070000, "Unknown error code: 458752"},
        {-1, "Unknown error code: -65281"},
    };
    for (const SCase& c : cases)
    {
        EXPECT_EQ(c.m_sText, TarvikErrorMsg(c.m_nCode)) << std::hex << c.m_nCode;
        EXPECT_EQ(c.m_sText, CTarvikClient::GetErrorMsg(c.m_nCode)) << std::hex << c.m_nCode;
    }
}

TEST(TarvikResult, TransportResultsMapToBitsSixteenUp)
{
    const int cases[][2] = {{1, 0}, {7, 0x000001}, {2, 0x020000}, {4, 0x040000}, {6, 0x060000}};
    for (const auto& c : cases)
        EXPECT_EQ(c[1], CTarvikClient::ConvertTCPRetCode(c[0])) << c[0];
}

TEST(TarvikResult, ConfirmationResultCarriesTheClientsDeviceType)
{
    struct SCase
    {
        ETarvikDevice m_eType;
        std::string m_sData;
        int m_nResult;
    };
    const SCase cases[] = {
        {eTarvikSPI, "", 0x0C0300},   {eTarvikSPI, std::string("\0\x20", 2), 0}, {eTarvikSPI, "\xFF\x01", 0x03FF},
        {eTarvikDIO, "\x20", 0x0520}, {eTarvikFirmware, "", 0x0C0000},
    };
    for (const SCase& c : cases)
    {
        CTarvikClient client(c.m_eType, 100);
        CTarvikMsg cnf(0x8303, 0, c.m_sData.data(), static_cast<unsigned short>(c.m_sData.size()));
        EXPECT_EQ(c.m_nResult, client.GetCnfRetCode(cnf)) << c.m_eType << " " << c.m_sData.size();
    }
}
