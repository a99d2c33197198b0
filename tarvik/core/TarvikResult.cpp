#include "tarvik/core/TarvikResult.h"

#include "tarvik/runtime/MolString.h"

namespace
{
struct SErrorText
{
    int m_nCode;
    const char* m_sText;
};

// Searched in this order; the first exact match wins.
const SErrorText kErrorTexts[] = {
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

const char* const kDeviceNames[] = {
    nullptr,          "Tarvik I2C",   "Tarvik CAN",
    "Tarvik SPI",     "Tarvik RS232", "Tarvik DIO",
    "Tarvik Audio",   "Tarvik AD",    "Tarvik Universal Programmer",
    "Tarvik Renesas",
};
} // namespace

std::string TarvikErrorMsg(int code)
{
    // The loop replaces the recursion: at most one retry without the device type byte.
    for (;;)
    {
        for (const SErrorText& row : kErrorTexts)
            if (row.m_nCode == code)
                return row.m_sText;
        if ((code & 0x0000FF00) == 0)
            return "Unknown error code: " + MolToString(code);
        code &= static_cast<int>(0xFFFF00FFu);
    }
}

unsigned short TarvikDevicePort(int type, int portIndex)
{
    int base = type == eTarvikFirmware ? 5099 : 4999 + type;
    return static_cast<unsigned short>(base + 100 * portIndex);
}

std::string TarvikDeviceName(int type)
{
    if (type < 1 || type > 9)
        return "Tarvik ???";
    return kDeviceNames[type];
}
