/* The flat interface seen from C: tarvik/Tarvik.h compiles as strict C99 (-std=c99
 * -Wall -Wextra -pedantic -Werror), every function links from the shared library (so
 * each is exported), and the calls that need no gateway answer from C as documented.
 * Exits 0 when all of that holds; prints what answered otherwise. (How each function
 * treats its handle and arguments is tested through the same functions from C++.) */
#include "tarvik/Tarvik.h"

#include <stdio.h>
#include <string.h>

typedef void (*FAny)(void);

/* Every function of the interface: a missing export fails the link. Packed by hand: the
   formatter would give each cast a line of its own. */
/* clang-format off */
static const FAny kAll[] = {
    (FAny)DLLInfo, (FAny)DeviceInfo, (FAny)DeviceStatus, (FAny)DeviceRestart, (FAny)DeviceReadDigital,
    (FAny)DeviceWriteDigital, (FAny)DeviceReadAnalog, (FAny)DeviceWriteAnalog, (FAny)ADOpenDevice,
    (FAny)ADCloseDevice, (FAny)ADReadDigital, (FAny)ADWriteDigital, (FAny)ADReadDigitalInput, (FAny)ADRead,
    (FAny)AWireOpenDevice, (FAny)AWireCloseDevice, (FAny)AWireSetConfig, (FAny)AWireGetConfig, (FAny)AWireRead,
    (FAny)AWireVerify, (FAny)AWireErase, (FAny)AWireEraseUserPage, (FAny)AWireWriteBlock, (FAny)AWireWriteUserPage,
    (FAny)AWireGetWriteBlockStatus, (FAny)AWireWriteFile, (FAny)AWireGetWriteFileStatus, (FAny)CANDeviceOpen,
    (FAny)CANDeviceClose, (FAny)CANOpenDevice, (FAny)CANCloseDevice, (FAny)TarvikErrorMessage, (FAny)CANSetConfig, (FAny)CANGetConfig, (FAny)CANSetFilter, (FAny)CANGetFilter,
    (FAny)CANSetGlobals, (FAny)CANGetGlobals, (FAny)CANSetZCardParameter, (FAny)CANGetZCardParameter,
    (FAny)CANSetTime, (FAny)CANGetTime, (FAny)CANGetPowerStatus, (FAny)CANSetPowerRelais,
    (FAny)CANSetActivePowerSupplies, (FAny)CANWrite, (FAny)CANSetCyclicMessage, (FAny)CANStartAlive,
    (FAny)CANSetCallback, (FAny)CANSetCallbackEx, (FAny)CANSetCallbackUser, (FAny)CANSetMaxSizePerQueue,
    (FAny)CANGetMessage, (FAny)CANGetMessages, (FAny)CANGetDropCounts, (FAny)CANopenSetConfig,
    (FAny)CANopenGetConfig,
    (FAny)CANopenSetSYNCMode, (FAny)CANopenSendNMT, (FAny)CANopenSendSYNC, (FAny)CANopenSendTIME,
    (FAny)CANopenSendPDO, (FAny)CANopenSendSDORead, (FAny)CANopenSendSDOWrite, (FAny)CANopenSendSDOReadBlock,
    (FAny)CANopenSendSDOWriteBlock, (FAny)CANopenSDOReadValue, (FAny)CANopenSDOWriteValue,
    (FAny)CANopenSDOAbortText, (FAny)CANopenSetCallback, (FAny)CANopenGetPDO, (FAny)CANopenGetSYNC,
    (FAny)CANopenGetEMCY, (FAny)CANopenGetGUARD, (FAny)CANopenGetUndefined, (FAny)DIOOpenDevice,
    (FAny)DIOCloseDevice, (FAny)DIORead, (FAny)DIOWrite, (FAny)FirmwareOpenDevice, (FAny)FirmwareCloseDevice,
    (FAny)FirmwareRestart, (FAny)FirmwareClearFlash, (FAny)FirmwareReadFlash, (FAny)FirmwareWriteFlash,
    (FAny)FirmwareGetEEPromInfo, (FAny)FirmwareReadEEProm, (FAny)FirmwareWriteEEProm, (FAny)FirmwareGetInfo,
    (FAny)FirmwareSetInfo, (FAny)FirmwareSWVersionString, (FAny)FirmwareHWVersionString, (FAny)I2COpenDevice,
    (FAny)I2CCloseDevice, (FAny)I2CSetBaudrate, (FAny)I2CGetBaudrate, (FAny)I2CReset, (FAny)I2CReadDigital,
    (FAny)I2CWriteDigital, (FAny)I2CRead, (FAny)I2CWrite, (FAny)I2CRAWStart, (FAny)I2CRAWSend, (FAny)I2CRAWGet,
    (FAny)I2CRAWStop, (FAny)I2CWriteSequence, (FAny)I2CWriteSequenceSteps, (FAny)EEPROMWrite,
    (FAny)EEPROMWritePollAck, (FAny)EEPROMRead, (FAny)EEPROMGetSlaveAddress, (FAny)EEPROMGetAddressByteCount,
    (FAny)RenesasOpenDevice, (FAny)RenesasCloseDevice, (FAny)RenesasInit, (FAny)RenesasCheckID,
    (FAny)RenesasSetBaudrate, (FAny)RenesasReadPage, (FAny)RenesasEraseAll, (FAny)RenesasBlockErase,
    (FAny)RenesasWritePage, (FAny)RenesasGetVersion, (FAny)RenesasComplete, (FAny)RenesasVerifyCheck,
    (FAny)RenesasReadDigital, (FAny)RenesasWriteDigital, (FAny)SPIOpenDevice, (FAny)SPICloseDevice,
    (FAny)SPIDataReq, (FAny)SPISequenceReq, (FAny)SPISequenceGetCnf, (FAny)SPIReadDigital, (FAny)SPIWriteDigital,
    (FAny)SPISetGlobals, (FAny)SPIGetGlobals, (FAny)SPIErrorMessage, (FAny)TSCOMOpenDevice, (FAny)TSCOMCloseDevice,
    (FAny)TSCOMSetConfig, (FAny)TSCOMGetConfig, (FAny)TSCOMIsConfigAvailable, (FAny)TSCOMSendFile,
    (FAny)TSCOMInstallConfig, (FAny)TSIOOpenDevice, (FAny)TSIOCloseDevice, (FAny)TSIOSetValue, (FAny)TSIOGetValue,
    (FAny)TSIOSetPower, (FAny)TSIOGetPower, (FAny)TSPWROpenDevice, (FAny)TSPWRCloseDevice, (FAny)TSPWRSetValue,
    (FAny)TSPWRGetValue, (FAny)TSRelayOpenDevice, (FAny)TSRelayCloseDevice, (FAny)TSRelaySetRelay,
    (FAny)TSRelayGetButton, (FAny)TSRelaySetPower, (FAny)TSRelayGetPower,
};
/* clang-format on */

static int g_nFailed = 0;

static void Expect(const char* name, int expected, int got)
{
    if (expected == got)
        return;
    printf("%s: 0x%06X, expected 0x%06X\n", name, (unsigned)got, (unsigned)expected);
    g_nFailed = 1;
}

int main(void)
{
    char buf[64];
    unsigned short u16 = 0;
    int n = 42;
    size_t i;
    STarvikFirmwareInfo info;
    STarvikI2CStep step;

    for (i = 0; i < sizeof(kAll) / sizeof(kAll[0]); ++i)
        Expect("function address", 1, kAll[i] != 0);
    memset(&info, 0, sizeof(info));
    step.nCommand = 0xA1;
    step.nLength = 1;
    step.pBuffer = buf;
    Expect("I2CWriteSequenceSteps", TARVIK_ERR_INVALID_HANDLE, I2CWriteSequenceSteps(999999, &step, 1, &u16));
    /* A port index outside 0..99 is refused before anything else; *handle stays. */
    Expect("I2COpenDevice", TARVIK_ERR_INVALID_PARAMETER, I2COpenDevice(&n, "127.0.0.1", 100, 100));
    Expect("handle left alone", 42, n);

    Expect("EEPROMGetSlaveAddress", 0xA2, (int)EEPROMGetSlaveAddress(0, 0x1FF, TARVIK_EEPROM_TYPE(8, 1, 0)));
    Expect("EEPROMGetAddressByteCount", 2, EEPROMGetAddressByteCount(TARVIK_EEPROM_TYPE(16, 0, 0)));
    info.nSWVersion = 0x00020A03;
    info.nSWVariant = 0;
    info.nHWVersion = 0x0001010A;
    Expect("FirmwareSWVersionString", 7, FirmwareSWVersionString(&info, buf, 64));
    Expect("FirmwareHWVersionString", 6, FirmwareHWVersionString(&info, buf, 64));
    Expect("CANopenSDOAbortText", 22, CANopenSDOAbortText(0x06020000, buf, 64));
    Expect("CANopenSDOAbortText text", 0, strcmp(buf, "object does not exist"));

    printf("%s\n", g_nFailed ? "c_api_check FAILED" : "c_api_check passed");
    return g_nFailed;
}
