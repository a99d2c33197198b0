/* Renesas flash programming functions of the flat C interface.
 *
 * RenesasOpenDevice gives a handle of a Renesas programming gateway (port 5008 + 100 x
 * portIndex). A programming sequence runs RenesasInit, RenesasCheckID, then erases,
 * writes, reads and checks pages, and ends with RenesasComplete; the gateway keeps
 * the state and answers a command it does not accept now with its own result.
 * All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle of another
 * family, 0x920000 a bad argument, transport codes 0x020000..0x0C0000, device results
 * 0x09xx (0x0920 "Renesas timeout", 0x0921 invalid ID, 0x0922 erase failed, 0x0923
 * programming failed). Null output pointers are skipped. */
#ifndef TARVIK_DLL_TARVIKDLLRENESAS_H
#define TARVIK_DLL_TARVIKDLLRENESAS_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

/* Bytes of a flash page. */
#define TARVIK_RENESAS_PAGE_SIZE 256

    /* 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int RenesasOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int RenesasCloseDevice(int handle);
    /* Starts a programming sequence on the target. */
    TARVIK_API int RenesasInit(int handle);
    /* Sends 7 ID bytes: the first min(len, 7) of id, then the position numbers k + 1. */
    TARVIK_API int RenesasCheckID(int handle, const char* id, int len);
    /* A rate code that the gateway interprets. */
    TARVIK_API int RenesasSetBaudrate(int handle, unsigned char rateCode);
    /* *received is 0 first, then the page bytes copied into buf (at most len); any answer
     * fills buf, also one that reports an error. */
    TARVIK_API int RenesasReadPage(int handle, unsigned short page, char* buf, int len, unsigned short* received);
    TARVIK_API int RenesasEraseAll(int handle);
    TARVIK_API int RenesasBlockErase(int handle, unsigned short block);
    /* Programs one whole page: fewer than 256 bytes are padded with 0x00 (not the erased
     * value 0xFF). 0x920000 for more than 256 bytes, which the page cannot take. */
    TARVIK_API int RenesasWritePage(int handle, unsigned short page, const char* data, int len);
    /* Copies the gateway's version text into buf as DLLInfo does (at most size bytes with
     * the terminating zero); on a failed request buf is left alone. */
    TARVIK_API int RenesasGetVersion(int handle, char* buf, int size);
    /* Ends the programming sequence. */
    TARVIK_API int RenesasComplete(int handle);
    /* The checksum over a range (first, second) that the gateway interprets. Any answer
     * sets *checksum: to the sum when it carries one, else to 0. */
    TARVIK_API int RenesasVerifyCheck(int handle, unsigned short first, unsigned short second,
                                      unsigned short* checksum);
    TARVIK_API int RenesasReadDigital(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int RenesasWriteDigital(int handle, unsigned int outputs);

#ifdef __cplusplus
}
#endif

#endif
