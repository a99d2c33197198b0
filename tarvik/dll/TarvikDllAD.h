/* Analog/digital gateway functions of the flat C interface (port 5006 + 100 x
 * portIndex). All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle
 * of another family, 0x920000 a bad argument, transport codes 0x020000..0x0C0000,
 * device results 0x07xx. Null output pointers are skipped. */
#ifndef TARVIK_DLL_TARVIKDLLAD_H
#define TARVIK_DLL_TARVIKDLLAD_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /* 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int ADOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int ADCloseDevice(int handle);
    /* The digital words, as DIORead and DIOWrite. */
    TARVIK_API int ADReadDigital(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int ADWriteDigital(int handle, unsigned int outputs);
    /* The input word split into its three low bytes (bits 24..31 are dropped). */
    TARVIK_API int ADReadDigitalInput(int handle, unsigned int* input0, unsigned int* input1, unsigned int* input2);
    /* The converter values of any answer that arrived (whatever its result): the first
     * min(n, capacity) go to values, *count receives n, the number the gateway sent (0
     * without an answer). 0x920000 for a negative capacity or null values with one. */
    TARVIK_API int ADRead(int handle, unsigned int* values, int capacity, int* count);

#ifdef __cplusplus
}
#endif

#endif
