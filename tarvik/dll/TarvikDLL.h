/* Library-wide functions of the flat C interface.
 *
 * Every function returns an int: 0 or a result code (see TarvikResult.h), or, for
 * the text functions, the number of bytes written including the terminating zero.
 * Text functions that must shorten a text drop its first character and keep at most
 * size - 1 characters after it. */
#ifndef TARVIK_DLL_TARVIKDLL_H
#define TARVIK_DLL_TARVIKDLL_H

#include "tarvik/core/TarvikDeviceInfo.h"
#include "tarvik/core/TarvikExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* "Tarvik SPI DLL V1.3-2.18" */
TARVIK_API extern const char* gsDLLVersionString;

/* Copies the version text into buf. 0 when buf is null or size <= 0. */
TARVIK_API int DLLInfo(char* buf, int size);
/* Reads the 20-byte information record of an open device into info.
 * 0x920000: info is null. 0x900000: unknown handle (the first 18 bytes of info are
 * zeroed). Otherwise the device's result. */
TARVIK_API int DeviceInfo(int handle, STarvikDeviceInfo* info);
/* Copies the device's status text into buf (which must hold size + 1 bytes).
 * Returns 1 for an unknown handle (buf untouched) and, after zero-filling size
 * bytes, for a failed request. */
TARVIK_API int DeviceStatus(int handle, char* buf, int size);

#ifdef __cplusplus
}
#endif

#endif
