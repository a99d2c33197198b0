// Result codes: the message table, its fallbacks, the transport mapping and the
// result of a confirmation, and the display names of the device types.
#include "tarvik/core/TarvikClient.h"
#include "tarvik/core/TarvikResult.h"

#include <gtest/gtest.h>

namespace
{
struct SRow
{
    int m_nCode;
    const char* m_sText;
};

// Typed from the interface documentation, not copied from the library.
const SRow kTable[] = {
    {0x000000, "no error"},
    {0x020000, "TCP/IP socket error"},
    {0x030000, "Not connected to TCP/IP partner"},
    {0x040000, "TCP/IP timeout occured"},
    {0x050000, "TCP/IP request not allowed now, stack is intializing"},
    {0x060000, "TCP/IP stack is not initialized"},
    {0x0A0000, "Tarvik TCP/IP telegram has invalid CRC"},
    {0x0B0000, "Tarvik TCP/IP telegram is not confirmed by partner"},
    {0x0C0000, "Tarvik TCP/IP telegram confirmation is invalid"},
    {0x900000, "Device handle is invalid"},
    {0x910000, "Device type invalid (handle is connected device type, which does not support called function"},
    {0x920000, "Invalid function parameter"},
    {0x000001, "Open failed, maximum number of connections reached"},
    {0x000002, "Read/write request to internal eeprom failed"},
    {0x0000FF, "Tarvik command failed"},
    {0x000120, "I2C NACK (No Acknowledge)"},
    {0x000121, "I2C timeout occured (no response)"},
    {0x000125, "I2C Acknowledge Polling timeout occured"},
    {0x000220, "CAN NACK (No Acknowledge)"},
    {0x000221, "CAN transmit error"},
    {0x000222, "CAN buffer overflow"},
    {0x000223, "CAN lost arbitration"},
    {0x000224, "CAN no valid baudrate"},
    {0x0002FC, "CANOpen block timeout"},
    {0x0002FD, "CANOpen NACK (No Acknowledge)"},
    {0x0002FE, "CANOpen mode not switched on"},
    {0x000320, "SPI inconsistent telegram data"},
    {0x000321, "SPI error while sending"},
    {0x000330, "SPI sequence unknown command op code"},
    {0x000331, "SPI sequence timeout"},
    {0x000920, "Renesas timeout"},
    {0x000921, "Renesas invalid ID"},
    {0x000922, "Renesas failed erase the flash"},
    {0x000923, "Renesas program the page failed"},
    {0x000A20, "Display wrong bitmap size x"},
    {0x000A21, "Display wrong bitmap size y"},
    {0x000A22, "Display wrong bitmap size data"},
    {0x000D20, "File could not be opened"},
    {0x000D21, "File transfer did not complete successfully"},
    {0x000D22, "File CRC mismatch"},
    {0x000D23, "Requested configuration is already active"},
    {0x000D24, "Could not stop configuration"},
    {0x000D25, "Could not start configuration"},
    {0x000E20, "File could not be opened"},
    {0x000E21, "A transfer currently is in progress"},
    {0x000E22, "SetConfig failed to initialize target"},
    {0x000E23, "SetConfig failed to read Flash or Page size"},
    {0x000E24, "EraseBlock not supported"},
    {0x000E25, "Failed to erase target"},
    {0x000E26, "Failed to read data from target"},
};

CTarvikMsg CnfWithData(const std::string& data)
{
    return CTarvikMsg(0x8303, 0, data.data(), static_cast<unsigned short>(data.size()));
}
} // namespace

TEST(TarvikResult, EveryRowOfTheTableHasItsExactText)
{
    EXPECT_EQ(50u, sizeof(kTable) / sizeof(kTable[0]));
    for (const SRow& row : kTable)
    {
        EXPECT_EQ(row.m_sText, TarvikErrorMsg(row.m_nCode)) << std::hex << row.m_nCode;
        EXPECT_EQ(row.m_sText, CTarvikClient::GetErrorMsg(row.m_nCode)) << std::hex << row.m_nCode;
    }
}

TEST(TarvikResult, CodeNotInTheTableFallsBackToTheCodeWithoutDeviceType)
{
    struct SCase
    {
        int m_nCode;
        const char* m_sText;
    };
    const SCase cases[] = {
        {0x0003FF, "Tarvik command failed"},
        {0x0C0300, "Tarvik TCP/IP telegram confirmation is invalid"},
        {0x040300, "TCP/IP timeout occured"},
        {0x000901, "Open failed, maximum number of connections reached"},
        {0x001102, "Read/write request to internal eeprom failed"},
        // Found directly, never stripped: the SPI row, not a fallback.
        {0x000320, "SPI inconsistent telegram data"},
        // The DIO result 0x20 is in no row, and neither is 0x20 alone: the text
        // carries the stripped code in decimal.
        {0x000520, "Unknown error code: 32"},
        {77, "Unknown error code: 77"},
        {0x000020, "Unknown error code: 32"},
        {0x070000, "Unknown error code: 458752"},
        {0x0C0000 | 0x0320, "Unknown error code: 786464"},
        // All bits set: the device type byte goes, the rest stays.
        {-1, "Unknown error code: -65281"},
    };
    for (const SCase& c : cases)
        EXPECT_EQ(c.m_sText, TarvikErrorMsg(c.m_nCode)) << std::hex << c.m_nCode;
}

TEST(TarvikResult, DeviceNamesForOneToNineOnly)
{
    const char* const names[] = {"Tarvik ???",    "Tarvik I2C",   "Tarvik CAN",
                                 "Tarvik SPI",    "Tarvik RS232", "Tarvik DIO",
                                 "Tarvik Audio",  "Tarvik AD",    "Tarvik Universal Programmer",
                                 "Tarvik Renesas"};
    for (int type = 0; type <= 9; ++type)
        EXPECT_EQ(names[type], TarvikDeviceName(type)) << type;
    for (int type : {-1, 10, 11, 14, 17, 255, 0x10000})
        EXPECT_EQ("Tarvik ???", TarvikDeviceName(type)) << type;
}

TEST(TarvikResult, TransportResultsMapToBitsSixteenUp)
{
    const int cases[][2] = {
        {1, 0},        // success
        {7, 0x000001}, // the device's connection limit
        {2, 0x020000}, // socket error
        {3, 0x030000}, // not connected
        {4, 0x040000}, // time-out
        {5, 0x050000}, // stack initialising
        {6, 0x060000}, // stack not initialised
        {0, 0},        // shifted like any other value: taken as success by the callers
    };
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
        {eTarvikSPI, "", 0x0C0300},      {eTarvikSPI, std::string("\0\x20", 2), 0},
        {eTarvikSPI, "\x20", 0x0320},    {eTarvikSPI, "\xFF\x01", 0x03FF},
        {eTarvikFirmware, "", 0x0C0000}, {eTarvikFirmware, "\x01", 0x000001},
        {eTarvikDIO, "\x20", 0x0520},    {eTarvikTestSystemRelay, "\x20", 0x1120},
    };
    for (const SCase& c : cases)
    {
        CTarvikClient client(c.m_eType, 100);
        EXPECT_EQ(c.m_nResult, client.GetCnfRetCode(CnfWithData(c.m_sData)))
            << "type " << c.m_eType << " data size " << c.m_sData.size();
    }
}
