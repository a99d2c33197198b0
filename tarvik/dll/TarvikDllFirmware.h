/* Firmware and information-EEPROM functions of the flat C interface: the service side
 * that every gateway has beside its bus (port 5099 + 100 x portIndex).
 *
 * All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle of another
 * family, 0x920000 a bad argument, transport codes 0x020000..0x0C0000, device results
 * without a device byte (0x02 "Read/write request to internal eeprom failed", 0xFF).
 * The EEPROM functions report every failure with bit 8 set, so that the information
 * EEPROM's bus errors read as the I2C codes (0x0120 NACK, 0x0121 timeout) and a
 * transport failure 0x020000 as 0x020100. Null output pointers are skipped. */
#ifndef TARVIK_DLL_TARVIKDLLFIRMWARE_H
#define TARVIK_DLL_TARVIKDLLFIRMWARE_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

/* Bytes of a firmware flash block. */
#define TARVIK_FIRMWARE_BLOCK_SIZE 2048

    /* The extended device information kept in the gateway's information EEPROM. */
    typedef struct STarvikFirmwareInfo
    {
        unsigned int nSWVersion; /* bits 16-23 major, 8-15 minor, 0-7 release */
        unsigned int nHWVersion; /* bits 16-23, 8-15, 0-7 revision letter; 0xAABBCCDD special variant */
        unsigned int nField3;
        unsigned int nField4;
        unsigned short nField5;
        unsigned char nField6;
        unsigned char nSWVariant; /* non-zero: a suffix to the software version */
        unsigned int aField8[4];
        unsigned char nField9;
        unsigned int nLayoutVersion; /* 1 or 2 */
        unsigned int nImageTag;
    } STarvikFirmwareInfo;

    /* 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int FirmwareOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int FirmwareCloseDevice(int handle);
    /* The service restart (the common restart is DeviceRestart). */
    TARVIK_API int FirmwareRestart(int handle);
    /* Erases every block. */
    TARVIK_API int FirmwareClearFlash(int handle);
    /* Reads one block into buf, which must hold TARVIK_FIRMWARE_BLOCK_SIZE bytes (else
     * 0x920000). *received is 0 first, then the bytes the answer carried; any answer fills
     * buf, also one that reports an error, so test the result first. */
    TARVIK_API int FirmwareReadFlash(int handle, unsigned short block, char* buf, int len, int* received);
    /* Writes one block: len must be TARVIK_FIRMWARE_BLOCK_SIZE (else 0x920000). */
    TARVIK_API int FirmwareWriteFlash(int handle, unsigned short block, const char* data, int len);
    /* *info is 0 first, then up to four bytes of the answer. */
    TARVIK_API int FirmwareGetEEPromInfo(int handle, int* info);
    /* Reads len bytes at address (its low 16 bits); any answer fills buf and *received. */
    TARVIK_API int FirmwareReadEEProm(int handle, unsigned int address, char* buf, int len, unsigned short* received);
    TARVIK_API int FirmwareWriteEEProm(int handle, unsigned int address, const char* data, int len);
    /* The record from the EEPROM's information image; all zero when it cannot be read. */
    TARVIK_API int FirmwareGetInfo(int handle, STarvikFirmwareInfo* info);
    /* Rewrites the image: always layout 2 with the fixed header words (tag 0x2000,
     * software 1.1.1, hardware 1.1.A), whatever *info says of them; the software variant
     * stays as it was. Sets info->nLayoutVersion to 2. 0x920000 for a null info. */
    TARVIK_API int FirmwareSetInfo(int handle, STarvikFirmwareInfo* info);
    /* Text functions: copy "2.10.3" (with "-" and the variant's two hex digits when there
     * is one) or "1.1.A" / "TLX-GW" into buf as DLLInfo does and return the bytes written;
     * 0 for a null info. */
    TARVIK_API int FirmwareSWVersionString(const STarvikFirmwareInfo* info, char* buf, int size);
    TARVIK_API int FirmwareHWVersionString(const STarvikFirmwareInfo* info, char* buf, int size);

#ifdef __cplusplus
}
#endif

#endif
