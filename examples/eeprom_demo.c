/* eeprom_demo: a serial EEPROM on an I2C gateway through the flat C interface.
 *
 *   eeprom_demo [HOST [TIMEOUT_MS [PORT_INDEX]]]
 *
 * Opens the I2C gateway at HOST (port 5000 + 100 x PORT_INDEX), sets the bus to
 * 400 kHz, writes one 8-byte page into the 24C02 at chip select 4 (the gateway polls
 * the chip until its write cycle is over) and reads it back. Exits 0 when every step
 * succeeded and the bytes read are the bytes written. */
#include "tarvik/Tarvik.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* A 24C02: 256 bytes behind one address byte, 8-byte pages; its A2..A0 pins read 4. */
#define CHIP_SELECT 4
#define CHIP_TYPE TARVIK_EEPROM_TYPE(8, 0, 0)
#define PAGE_OFFSET 0x30
#define PAGE_SIZE 8
#define POLL_MS 20

static int Check(const char* step, int result)
{
    char text[256];
    if (result == 0)
        return 0;
    SPIErrorMessage(result, text, (int)sizeof(text));
    fprintf(stderr, "%s failed: 0x%06X %s\n", step, (unsigned)result, text);
    return 1;
}

static void PrintHex(const char* label, const char* data, int len)
{
    int i;
    printf("%s", label);
    for (i = 0; i < len; ++i)
        printf(" %02X", (unsigned char)data[i]);
    printf("\n");
}

static int PageRoundTrip(int handle)
{
    const char page[PAGE_SIZE] = {'t', 'a', 'r', 'v', 'i', 'k', 0x13, 0x37};
    char back[PAGE_SIZE];
    unsigned short received = 0;

    printf("chip at slave address 0x%02X\n", EEPROMGetSlaveAddress(CHIP_SELECT, PAGE_OFFSET, CHIP_TYPE));
    if (Check("EEPROM write",
              EEPROMWritePollAck(handle, CHIP_SELECT, PAGE_OFFSET, CHIP_TYPE, page, PAGE_SIZE, POLL_MS)))
        return 1;
    memset(back, 0, sizeof(back));
    if (Check("EEPROM read", EEPROMRead(handle, CHIP_SELECT, PAGE_OFFSET, CHIP_TYPE, back, PAGE_SIZE, &received)))
        return 1;
    PrintHex("EEPROM 0x30:", back, received);
    if (received != PAGE_SIZE || memcmp(back, page, PAGE_SIZE) != 0)
    {
        fprintf(stderr, "EEPROM read back differs from what was written\n");
        return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    const char* host = argc > 1 ? argv[1] : "127.0.0.1";
    int timeoutMs = argc > 2 ? atoi(argv[2]) : 1000;
    int portIndex = argc > 3 ? atoi(argv[3]) : 0;
    char status[256];
    unsigned int rate = 0;
    int handle = -1;
    int failed = 0;

    if (Check("open", I2COpenDevice(&handle, host, timeoutMs, portIndex)))
        return 1;
    DeviceStatus(handle, status, (int)sizeof(status) - 1);
    printf("status: %s\n", status);

    failed |= Check("set bit rate", I2CSetBaudrate(handle, 400));
    failed |= Check("get bit rate", I2CGetBaudrate(handle, &rate));
    printf("bit rate: %u\n", rate);
    failed |= PageRoundTrip(handle);

    failed |= Check("close", I2CCloseDevice(handle));
    printf("%s\n", failed ? "demo FAILED" : "demo passed");
    return failed ? 1 : 0;
}
