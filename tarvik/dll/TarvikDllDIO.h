/* Digital I/O gateway functions of the flat C interface (port 5004 + 100 x portIndex).
 * All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle of another
 * family, transport codes 0x020000..0x0C0000, device results 0x05xx. Null output
 * pointers are skipped. */
#ifndef TARVIK_DLL_TARVIKDLLDIO_H
#define TARVIK_DLL_TARVIKDLLDIO_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /* 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int DIOOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int DIOCloseDevice(int handle);
    /* Both words are written only from an answer that carries both, then even when the
     * device reports an error; a shorter answer gives 0 and leaves them alone. */
    TARVIK_API int DIORead(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int DIOWrite(int handle, unsigned int outputs);

#ifdef __cplusplus
}
#endif

#endif
