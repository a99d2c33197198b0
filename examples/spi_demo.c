/* spi_demo: the flat C interface end to end against one SPI gateway.
 *
 *   spi_demo [HOST [TIMEOUT_MS]]
 *
 * Opens the SPI gateway at HOST (port 5002), prints its information and status,
 * sets and reads back its bus settings, writes four bytes into a 25xx serial
 * EEPROM on its bus and reads them back. Exits 0 when every step succeeded. */
#include "tarvik/Tarvik.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int Check(const char* step, int result)
{
    char text[256];
    if (result == 0)
        return 0;
    SPIErrorMessage(result, text, (int)sizeof(text));
    fprintf(stderr, "%s failed: 0x%06X %s\n", step, (unsigned)result, text);
    return 1;
}

static void PrintHex(const char* label, const unsigned char* data, int len)
{
    int i;
    printf("%s", label);
    for (i = 0; i < len; ++i)
        printf(" %02X", data[i]);
    printf("\n");
}

/* Writes four bytes at EEPROM address 0x0040 and reads them back. */
static int EepromRoundTrip(int handle)
{
    const char wren[1] = {0x06};
    const char write[7] = {0x02, 0x00, 0x40, (char)0xCA, (char)0xFE, 0x12, 0x34};
    const char read[3] = {0x03, 0x00, 0x40};
    char answer[7];
    char status[2];
    int polls;

    if (Check("write enable", SPIDataReq(handle, wren, 1, answer, 1)))
        return 1;
    if (Check("EEPROM write", SPIDataReq(handle, write, 7, answer, 7)))
        return 1;
    /* Poll the status register until the write cycle is over. */
    for (polls = 0; polls < 100; ++polls)
    {
        const char rdsr[2] = {0x05, 0x00};
        if (Check("read status", SPIDataReq(handle, rdsr, 2, status, 2)))
            return 1;
        if ((status[1] & 0x01) == 0)
            break;
    }
    memset(answer, 0, sizeof(answer));
    if (Check("EEPROM read", SPIDataReq(handle, read, 3, answer, 7)))
        return 1;
    PrintHex("EEPROM 0x0040:", (const unsigned char*)answer + 3, 4);
    if (memcmp(answer + 3, write + 3, 4) != 0)
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
    char text[256];
    STarvikDeviceInfo info;
    unsigned int rate = 0;
    unsigned char s1 = 0, s2 = 0, s3 = 0;
    int handle = -1;
    int failed = 0;

    DLLInfo(text, (int)sizeof(text));
    printf("library: %s\n", text);

    if (Check("open", SPIOpenDevice(&handle, host, timeoutMs)))
        return 1;
    printf("handle: %d\n", handle);

    failed |= Check("device info", DeviceInfo(handle, &info));
    if (!failed)
        PrintHex("info:", info.m_abData, TARVIK_DEVICE_INFO_SIZE);
    DeviceStatus(handle, text, (int)sizeof(text) - 1);
    printf("status: %s\n", text);

    failed |= Check("set globals", SPISetGlobals(handle, 1000000, 0, 1, 2));
    failed |= Check("get globals", SPIGetGlobals(handle, &rate, &s1, &s2, &s3));
    printf("globals: rate %u, settings %u %u %u\n", rate, s1, s2, s3);

    failed |= EepromRoundTrip(handle);

    failed |= Check("close", SPICloseDevice(handle));
    printf("%s\n", failed ? "demo FAILED" : "demo passed");
    return failed ? 1 : 0;
}
