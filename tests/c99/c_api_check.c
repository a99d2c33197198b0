/* The flat interface seen from C: tarvik/Tarvik.h compiles as strict C99 (-std=c99
 * -Wall -Wextra -pedantic -Werror), every function links from the shared library (so
 * each is exported), and each one refuses a handle that was never opened. Exits 0 when
 * all of that holds; prints the functions that answered otherwise. */
#include "tarvik/Tarvik.h"

#include <stdio.h>
#include <string.h>

#define NO_HANDLE 999999

static int g_nFailed = 0;

static void OnFrame(unsigned int id, const char* data, int len, int flags, int handle)
{
    (void)id, (void)data, (void)len, (void)flags, (void)handle;
}

static void Expect(const char* name, int expected, int got)
{
    if (expected == got)
        return;
    printf("%s: 0x%06X, expected 0x%06X\n", name, (unsigned)got, (unsigned)expected);
    g_nFailed = 1;
}

#define EXPECT_INVALID_HANDLE(call) Expect(#call, TARVIK_ERR_INVALID_HANDLE, call)

int main(void)
{
    char buf[TARVIK_FIRMWARE_BLOCK_SIZE];
    unsigned short words[4] = {0, 0, 0, 0};
    unsigned short u16 = 0;
    unsigned int u32[TARVIK_CAN_FILTER_WORDS];
    unsigned char u8 = 0;
    int n = 0;
    STarvikI2CStep step;
    STarvikFirmwareInfo info;
    short s16 = 0;
    PCANFrameCallback onFrame = OnFrame;

    memset(buf, 0, sizeof(buf));
    memset(u32, 0, sizeof(u32));
    memset(&info, 0, sizeof(info));
    step.nCommand = 0xA1;
    step.nLength = 1;
    step.pBuffer = buf;

    EXPECT_INVALID_HANDLE(DeviceRestart(NO_HANDLE));
    EXPECT_INVALID_HANDLE(DeviceReadDigital(NO_HANDLE, &u32[0], &u32[1]));
    EXPECT_INVALID_HANDLE(DeviceWriteDigital(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(DeviceReadAnalog(NO_HANDLE, &u32[0], u32, 4, &n));
    EXPECT_INVALID_HANDLE(DeviceWriteAnalog(NO_HANDLE, u32, 4));

    EXPECT_INVALID_HANDLE(I2CCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(I2CSetBaudrate(NO_HANDLE, 400));
    EXPECT_INVALID_HANDLE(I2CGetBaudrate(NO_HANDLE, &u32[0]));
    EXPECT_INVALID_HANDLE(I2CReset(NO_HANDLE));
    EXPECT_INVALID_HANDLE(I2CReadDigital(NO_HANDLE, &u32[0], &u32[1]));
    EXPECT_INVALID_HANDLE(I2CWriteDigital(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(I2CRead(NO_HANDLE, 0xA0, buf, 4, &u16));
    EXPECT_INVALID_HANDLE(I2CWrite(NO_HANDLE, 0xA0, buf, 4, &u16));
    EXPECT_INVALID_HANDLE(I2CRAWStart(NO_HANDLE));
    EXPECT_INVALID_HANDLE(I2CRAWSend(NO_HANDLE, 0xA0, 0));
    EXPECT_INVALID_HANDLE(I2CRAWGet(NO_HANDLE, 1, &u8));
    EXPECT_INVALID_HANDLE(I2CRAWStop(NO_HANDLE));
    EXPECT_INVALID_HANDLE(I2CWriteSequence(NO_HANDLE, buf, 4, buf, 4, &u16, &u16));
    EXPECT_INVALID_HANDLE(I2CWriteSequenceSteps(NO_HANDLE, &step, 1, &u16));
    EXPECT_INVALID_HANDLE(EEPROMWrite(NO_HANDLE, 0, 0, TARVIK_EEPROM_TYPE(8, 0, 0), buf, 4));
    EXPECT_INVALID_HANDLE(EEPROMWritePollAck(NO_HANDLE, 0, 0, TARVIK_EEPROM_TYPE(8, 0, 0), buf, 4, 10));
    EXPECT_INVALID_HANDLE(EEPROMRead(NO_HANDLE, 0, 0, TARVIK_EEPROM_TYPE(8, 0, 0), buf, 4, &u16));
    Expect("EEPROMGetSlaveAddress", 0xA2, (int)EEPROMGetSlaveAddress(0, 0x1FF, TARVIK_EEPROM_TYPE(8, 1, 0)));
    Expect("EEPROMGetAddressByteCount", 2, EEPROMGetAddressByteCount(TARVIK_EEPROM_TYPE(16, 0, 0)));

    EXPECT_INVALID_HANDLE(RenesasCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(RenesasInit(NO_HANDLE));
    EXPECT_INVALID_HANDLE(RenesasCheckID(NO_HANDLE, buf, 7));
    EXPECT_INVALID_HANDLE(RenesasSetBaudrate(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(RenesasReadPage(NO_HANDLE, 0, buf, TARVIK_RENESAS_PAGE_SIZE, &u16));
    EXPECT_INVALID_HANDLE(RenesasEraseAll(NO_HANDLE));
    EXPECT_INVALID_HANDLE(RenesasBlockErase(NO_HANDLE, 0));
    EXPECT_INVALID_HANDLE(RenesasWritePage(NO_HANDLE, 0, buf, TARVIK_RENESAS_PAGE_SIZE));
    EXPECT_INVALID_HANDLE(RenesasGetVersion(NO_HANDLE, buf, 64));
    EXPECT_INVALID_HANDLE(RenesasComplete(NO_HANDLE));
    EXPECT_INVALID_HANDLE(RenesasVerifyCheck(NO_HANDLE, 0, 1, &u16));
    EXPECT_INVALID_HANDLE(RenesasReadDigital(NO_HANDLE, &u32[0], &u32[1]));
    EXPECT_INVALID_HANDLE(RenesasWriteDigital(NO_HANDLE, 1));

    EXPECT_INVALID_HANDLE(FirmwareCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(FirmwareRestart(NO_HANDLE));
    EXPECT_INVALID_HANDLE(FirmwareClearFlash(NO_HANDLE));
    EXPECT_INVALID_HANDLE(FirmwareReadFlash(NO_HANDLE, 0, buf, (int)sizeof(buf), &n));
    EXPECT_INVALID_HANDLE(FirmwareWriteFlash(NO_HANDLE, 0, buf, (int)sizeof(buf)));
    EXPECT_INVALID_HANDLE(FirmwareGetEEPromInfo(NO_HANDLE, &n));
    EXPECT_INVALID_HANDLE(FirmwareReadEEProm(NO_HANDLE, 0, buf, 16, &u16));
    EXPECT_INVALID_HANDLE(FirmwareWriteEEProm(NO_HANDLE, 0, buf, 16));
    EXPECT_INVALID_HANDLE(FirmwareGetInfo(NO_HANDLE, &info));
    EXPECT_INVALID_HANDLE(FirmwareSetInfo(NO_HANDLE, &info));
    info.nSWVersion = 0x00020A03;
    info.nSWVariant = 0;
    info.nHWVersion = 0x0001010A;
    Expect("FirmwareSWVersionString", 7, FirmwareSWVersionString(&info, buf, 64));
    Expect("FirmwareHWVersionString", 6, FirmwareHWVersionString(&info, buf, 64));

    EXPECT_INVALID_HANDLE(TSCOMCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(TSCOMSetConfig(NO_HANDLE, "station"));
    EXPECT_INVALID_HANDLE(TSCOMGetConfig(NO_HANDLE, buf, 64));
    EXPECT_INVALID_HANDLE(TSCOMIsConfigAvailable(NO_HANDLE, "station", &n, &u32[0]));
    EXPECT_INVALID_HANDLE(TSCOMSendFile(NO_HANDLE, "station.cfg", 0));
    EXPECT_INVALID_HANDLE(TSCOMInstallConfig(NO_HANDLE, "station", "station.cfg"));
    EXPECT_INVALID_HANDLE(TSIOCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(TSIOSetValue(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSIOGetValue(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSIOSetPower(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSIOGetPower(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSPWRCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(TSPWRSetValue(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSPWRGetValue(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSRelayCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(TSRelaySetRelay(NO_HANDLE, 1, 1));
    EXPECT_INVALID_HANDLE(TSRelayGetButton(NO_HANDLE, 0, &n));
    EXPECT_INVALID_HANDLE(TSRelaySetPower(NO_HANDLE, words, 4));
    EXPECT_INVALID_HANDLE(TSRelayGetPower(NO_HANDLE, words, 4));

    EXPECT_INVALID_HANDLE(DIOCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(DIORead(NO_HANDLE, &u32[0], &u32[1]));
    EXPECT_INVALID_HANDLE(DIOWrite(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(ADCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(ADReadDigital(NO_HANDLE, &u32[0], &u32[1]));
    EXPECT_INVALID_HANDLE(ADWriteDigital(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(ADReadDigitalInput(NO_HANDLE, &u32[0], &u32[1], &u32[2]));
    EXPECT_INVALID_HANDLE(ADRead(NO_HANDLE, u32, 4, &n));

    EXPECT_INVALID_HANDLE(CANDeviceClose(NO_HANDLE));
    EXPECT_INVALID_HANDLE(CANSetConfig(NO_HANDLE, 1, 0));
    EXPECT_INVALID_HANDLE(CANGetConfig(NO_HANDLE, &n, &n));
    EXPECT_INVALID_HANDLE(CANSetFilter(NO_HANDLE, u32, TARVIK_CAN_FILTER_WORDS));
    EXPECT_INVALID_HANDLE(CANGetFilter(NO_HANDLE, u32, TARVIK_CAN_FILTER_WORDS));
    EXPECT_INVALID_HANDLE(CANSetGlobals(NO_HANDLE, 500000, 1, 1, 0, 0, 0, 0, 0));
    EXPECT_INVALID_HANDLE(CANGetGlobals(NO_HANDLE, &u32[0], &u8, &n, &n, &n, &n, &u32[1], &n));
    EXPECT_INVALID_HANDLE(CANSetZCardParameter(NO_HANDLE, 1, 2, 3));
    EXPECT_INVALID_HANDLE(CANGetZCardParameter(NO_HANDLE, &u8, &u16, &u16));
    EXPECT_INVALID_HANDLE(CANSetTime(NO_HANDLE, 1, 2));
    EXPECT_INVALID_HANDLE(CANGetTime(NO_HANDLE, &n, &n, &n));
    EXPECT_INVALID_HANDLE(CANGetPowerStatus(NO_HANDLE, &u8, &u8, &u8, &s16, &u16, &u16, &n, words, 4,
                                            (unsigned char*)buf, 4, (unsigned char*)buf, 4));
    EXPECT_INVALID_HANDLE(CANSetPowerRelais(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(CANSetActivePowerSupplies(NO_HANDLE, 3));
    EXPECT_INVALID_HANDLE(CANWrite(NO_HANDLE, 0x123, buf, 8, 0, &n, &n));
    EXPECT_INVALID_HANDLE(CANSetCyclicMessage(NO_HANDLE, 1, 1, 100, 0x123, buf, 8, 0));
    EXPECT_INVALID_HANDLE(CANStartAlive(NO_HANDLE, 3));
    EXPECT_INVALID_HANDLE(CANSetCallback(NO_HANDLE, onFrame));
    EXPECT_INVALID_HANDLE(CANSetCallbackEx(NO_HANDLE, 0));
    EXPECT_INVALID_HANDLE(CANSetMaxSizePerQueue(NO_HANDLE, 100));
    EXPECT_INVALID_HANDLE(CANGetMessage(NO_HANDLE, &n, buf, TARVIK_CAN_FRAME_DATA, &u8, &n, &n, &n));
    EXPECT_INVALID_HANDLE(CANopenSetConfig(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(CANopenGetConfig(NO_HANDLE, &u8));
    EXPECT_INVALID_HANDLE(CANopenSetSYNCMode(NO_HANDLE, 1));
    EXPECT_INVALID_HANDLE(CANopenSendNMT(NO_HANDLE, 2, 1));
    EXPECT_INVALID_HANDLE(CANopenSendSYNC(NO_HANDLE));
    EXPECT_INVALID_HANDLE(CANopenSendTIME(NO_HANDLE, 1, 2));
    EXPECT_INVALID_HANDLE(CANopenSendPDO(NO_HANDLE, 1, 2, buf, 8));
    EXPECT_INVALID_HANDLE(CANopenSendSDORead(NO_HANDLE, 2, 0x1000, 0, 500, &u8, &u32[0]));
    EXPECT_INVALID_HANDLE(CANopenSendSDOWrite(NO_HANDLE, 2, 4, 0x2001, 0, 500, 7, &u8, &u32[0]));
    EXPECT_INVALID_HANDLE(CANopenSDOReadValue(NO_HANDLE, 2, 0x1000, 0, 500, &u8, &u32[0], &u8, &u32[1]));
    EXPECT_INVALID_HANDLE(CANopenSDOWriteValue(NO_HANDLE, 2, 4, 0x2001, 0, 500, 7, &u8, &u32[0], &u8, &u32[1]));
    Expect("CANopenSDOAbortText", 22, CANopenSDOAbortText(0x06020000, buf, 64));
    Expect("CANopenSDOAbortText text", 0, strcmp(buf, "object does not exist"));
    EXPECT_INVALID_HANDLE(CANopenSendSDOReadBlock(NO_HANDLE, 2, 0x2100, 0, 500, (unsigned char*)buf, 64, &u8,
                                                  &u16));
    EXPECT_INVALID_HANDLE(CANopenSendSDOWriteBlock(NO_HANDLE, 2, 0x2100, 0, 500, (unsigned char*)buf, 64, &u8,
                                                   &u32[0]));
    EXPECT_INVALID_HANDLE(CANopenSetCallback(NO_HANDLE, 0, 0, 0, 0, 0));
    EXPECT_INVALID_HANDLE(CANopenGetPDO(NO_HANDLE, &u8, &u8, &u8, buf, TARVIK_CANOPEN_PDO_DATA));
    EXPECT_INVALID_HANDLE(CANopenGetSYNC(NO_HANDLE, &u8));
    EXPECT_INVALID_HANDLE(CANopenGetEMCY(NO_HANDLE, &u8, &u16, &u8, (unsigned char*)buf, TARVIK_CANOPEN_EMCY_DATA));
    EXPECT_INVALID_HANDLE(CANopenGetGUARD(NO_HANDLE, &u8, &u8));
    EXPECT_INVALID_HANDLE(CANopenGetUndefined(NO_HANDLE, &n, &u8, &u8, &u8, buf, TARVIK_CANOPEN_UNDEFINED_DATA, &n,
                                              &n));

    EXPECT_INVALID_HANDLE(AWireCloseDevice(NO_HANDLE));
    EXPECT_INVALID_HANDLE(AWireSetConfig(NO_HANDLE, 1, 2, 256, 4, "target"));
    EXPECT_INVALID_HANDLE(AWireGetConfig(NO_HANDLE, &u32[0], &u32[1], &u32[2], &u32[3], buf, 64));
    EXPECT_INVALID_HANDLE(AWireRead(NO_HANDLE, 0, buf, 64, &u16));
    EXPECT_INVALID_HANDLE(AWireVerify(NO_HANDLE, 0, buf, 64));
    EXPECT_INVALID_HANDLE(AWireErase(NO_HANDLE, 0));
    EXPECT_INVALID_HANDLE(AWireEraseUserPage(NO_HANDLE));
    EXPECT_INVALID_HANDLE(AWireWriteBlock(NO_HANDLE, 0, buf, 64, &s16));
    EXPECT_INVALID_HANDLE(AWireWriteUserPage(NO_HANDLE, 0, buf, 64, &s16));
    EXPECT_INVALID_HANDLE(AWireGetWriteBlockStatus(NO_HANDLE, s16, &n, &u16, &u16));
    EXPECT_INVALID_HANDLE(AWireWriteFile(NO_HANDLE, "image.hex"));
    EXPECT_INVALID_HANDLE(AWireGetWriteFileStatus(NO_HANDLE, &n, &u8));

    /* A port index outside 0..99 is refused before anything else; *handle stays. */
    n = 42;
    Expect("I2COpenDevice", TARVIK_ERR_INVALID_PARAMETER, I2COpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("RenesasOpenDevice", TARVIK_ERR_INVALID_PARAMETER, RenesasOpenDevice(&n, "127.0.0.1", 100, -1));
    Expect("FirmwareOpenDevice", TARVIK_ERR_INVALID_PARAMETER, FirmwareOpenDevice(&n, "127.0.0.1", 100, 256));
    Expect("TSCOMOpenDevice", TARVIK_ERR_INVALID_PARAMETER, TSCOMOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("TSIOOpenDevice", TARVIK_ERR_INVALID_PARAMETER, TSIOOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("TSPWROpenDevice", TARVIK_ERR_INVALID_PARAMETER, TSPWROpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("TSRelayOpenDevice", TARVIK_ERR_INVALID_PARAMETER, TSRelayOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("DIOOpenDevice", TARVIK_ERR_INVALID_PARAMETER, DIOOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("ADOpenDevice", TARVIK_ERR_INVALID_PARAMETER, ADOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("CANDeviceOpen", TARVIK_ERR_INVALID_PARAMETER, CANDeviceOpen(&n, "127.0.0.1", 100, 100, 0, 0));
    Expect("AWireOpenDevice", TARVIK_ERR_INVALID_PARAMETER, AWireOpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("handle left alone", 42, n);

    printf("%s\n", g_nFailed ? "c_api_check FAILED" : "c_api_check passed");
    return g_nFailed;
}
