/* SPI functions of the flat C interface. Devices are referred to by the handle
 * that SPIOpenDevice gives; every function returns 0 or a result code:
 * 0x900000 for an unknown handle, transport codes 0x020000..0x0C0000, device
 * results 0x03xx. SPIErrorMessage returns the number of bytes written. */
#ifndef TARVIK_DLL_TARVIKDLLSPI_H
#define TARVIK_DLL_TARVIKDLLSPI_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /* Connects to the SPI gateway at host (port 5002) and prepares it. On failure
     * *handle is -1 and the connect or open result is returned. */
    TARVIK_API int SPIOpenDevice(int* handle, const char* host, int timeoutMs);
    TARVIK_API int SPICloseDevice(int handle);
    /* Clocks out sendLen bytes (zero-padded to recvLen) and copies up to recvLen
     * received bytes into recv. Lengths are cut to 16 bits. */
    TARVIK_API int SPIDataReq(int handle, const char* send, int sendLen, char* recv, int recvLen);
    /* Starts a sequence; *id receives the id to collect its answer with SPISequenceGetCnf. */
    TARVIK_API int SPISequenceReq(int handle, const char* seq, int len, short* id);
    TARVIK_API int SPISequenceGetCnf(int handle, short id, char* out, int outLen);
    TARVIK_API int SPIReadDigital(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int SPIWriteDigital(int handle, unsigned int outputs);
    /* The settings are cut to 8 bits. */
    TARVIK_API int SPISetGlobals(int handle, unsigned int rate, int setting1, int setting2, int setting3);
    /* Each non-null output receives its value (zeros when the request failed). */
    TARVIK_API int SPIGetGlobals(int handle, unsigned int* rate, unsigned char* setting1, unsigned char* setting2,
                                 unsigned char* setting3);
    /* Copies the text of a result code into buf. */
    TARVIK_API int SPIErrorMessage(int code, char* buf, int size);

#ifdef __cplusplus
}
#endif

#endif
