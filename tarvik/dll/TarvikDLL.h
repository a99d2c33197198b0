/* Library-wide functions of the flat C interface.
 *
 * Every function returns an int: 0 or a result code (see TarvikResult.h), or, for
 * the text functions, the number of bytes written including the terminating zero.
 * Text functions that must shorten a text drop its first character and keep at most
 * size - 1 characters after it. */
#ifndef TARVIK_DLL_TARVIKDLL_H
#define TARVIK_DLL_TARVIKDLL_H

#include "tarvik/core/TarvikDeviceInfo.h"
#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /* "Tarvik SPI DLL V1.3-2.18" */
    TARVIK_API extern const char* gsDLLVersionString;

    /* Copies the version text into buf. 0 when buf is null or size <= 0. */
    TARVIK_API int DLLInfo(char* buf, int size);
    /* The text of a result code of any family, cut at its end when buf is too short and
     * always zero-terminated. Returns the bytes the whole text needs, its zero included, so
     * a result above size says the text was cut (size 0 asks only for the length); -1 for
     * a negative size or a null buf with a positive size. */
    TARVIK_API int TarvikErrorMessage(int code, char* buf, int size);
    /* Reads the 20-byte information record of an open device into info.
     * 0x920000: info is null. 0x900000: unknown handle (the first 18 bytes of info are
     * zeroed). Otherwise the device's result. */
    TARVIK_API int DeviceInfo(int handle, STarvikDeviceInfo* info);
    /* Copies the device's status text into buf (which must hold size + 1 bytes).
     * Returns 1 for an unknown handle (buf untouched) and, after zero-filling size
     * bytes, for a failed request. */
    TARVIK_API int DeviceStatus(int handle, char* buf, int size);

    /* Commands that every gateway understands, for a handle of any family. They return 0
     * or a result code: 0x900000 unknown handle, 0x920000 a bad argument, transport codes,
     * device results with the device type in bits 8..15. Null outputs are skipped. */
    TARVIK_API int DeviceRestart(int handle);
    /* The base board's digital words; written only from an answer that carries both. */
    TARVIK_API int DeviceReadDigital(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int DeviceWriteDigital(int handle, unsigned int outputs);
    /* The analog channels: *first receives the first value, values the next min(n,
     * capacity) values, *count n, the number the device sent (0 on a failure). capacity
     * is cut to 65535. */
    TARVIK_API int DeviceReadAnalog(int handle, unsigned int* first, unsigned int* values, int capacity, int* count);
    /* Sends count values; 0x920000 for a negative count or one above 65535. */
    TARVIK_API int DeviceWriteAnalog(int handle, const unsigned int* values, int count);

#ifdef __cplusplus
}
#endif

#endif
