/* Test-system functions of the flat C interface, one prefix per unit:
 *   TSCOM   the communication unit (configuration files), port 5012 + 100 x portIndex
 *   TSIO    the IO unit (value words, power channels),    port 5010 + 100 x portIndex
 *   TSPWR   the power unit (value words),                 port 5011 + 100 x portIndex
 *   TSRelay the relay unit (relays, power, buttons),      port 5016 + 100 x portIndex
 * A handle of one unit is refused by the functions of the others.
 *
 * All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle of another
 * family or unit, 0x920000 a bad argument (a null name or buffer, a count above 255, a
 * name of 256 characters or more), transport codes 0x020000..0x0C0000, device results
 * with the unit's type in bits 8..15 (0x0D20..0x0D25 of the communication unit). Null
 * output pointers are skipped.
 *
 * Words: a set sends count words; a get fills count words from any answer that arrived
 * (whatever its result), as many as it holds, and leaves the others alone. What each
 * word means is the unit's configuration. */
#ifndef TARVIK_DLL_TARVIKDLLTESTSYSTEM_H
#define TARVIK_DLL_TARVIKDLLTESTSYSTEM_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /* Every open function: 0x920000 for a portIndex outside 0..99 (*handle untouched); on
     * any other failure *handle is -1. */
    TARVIK_API int TSCOMOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int TSCOMCloseDevice(int handle);
    /* Starts the named configuration; 0x0D23 already active, 0x0D24/0x0D25 stop/start failed. */
    TARVIK_API int TSCOMSetConfig(int handle, const char* name);
    /* Copies the active configuration's name into buf as DLLInfo does; left alone on failure. */
    TARVIK_API int TSCOMGetConfig(int handle, char* buf, int size);
    /* On success *available is set when the answer carries it (non-zero: the unit holds the
     * configuration), *crc to the CRC-32 of the unit's file when the configuration is there
     * and the answer carries it; otherwise both are left alone. */
    TARVIK_API int TSCOMIsConfigAvailable(int handle, const char* name, int* available, unsigned int* crc);
    /* Uploads a file in chunks (crc 0: computed here). 0x0D20 the file cannot be opened,
     * 0x0D21 the file ran out while the unit wanted more, 0x0D22 the unit's CRC check failed. */
    TARVIK_API int TSCOMSendFile(int handle, const char* path, unsigned int crc);
    /* Uploads the file unless the unit already holds the configuration with the same CRC,
     * then installs and activates it under name. The first failure ends it. */
    TARVIK_API int TSCOMInstallConfig(int handle, const char* name, const char* path);

    TARVIK_API int TSIOOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int TSIOCloseDevice(int handle);
    TARVIK_API int TSIOSetValue(int handle, const unsigned short* values, int count);
    TARVIK_API int TSIOGetValue(int handle, unsigned short* values, int count);
    TARVIK_API int TSIOSetPower(int handle, const unsigned short* values, int count);
    TARVIK_API int TSIOGetPower(int handle, unsigned short* values, int count);

    TARVIK_API int TSPWROpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int TSPWRCloseDevice(int handle);
    TARVIK_API int TSPWRSetValue(int handle, const unsigned short* values, int count);
    TARVIK_API int TSPWRGetValue(int handle, unsigned short* values, int count);

    TARVIK_API int TSRelayOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int TSRelayCloseDevice(int handle);
    /* on: 0 switches the relay off, anything else on. */
    TARVIK_API int TSRelaySetRelay(int handle, unsigned char relay, int on);
    /* *pressed is set to 0 or 1 whenever an answer arrived (0 when it reports an error);
     * without an answer it is left alone. */
    TARVIK_API int TSRelayGetButton(int handle, unsigned char button, int* pressed);
    TARVIK_API int TSRelaySetPower(int handle, const unsigned short* values, int count);
    TARVIK_API int TSRelayGetPower(int handle, unsigned short* values, int count);

#ifdef __cplusplus
}
#endif

#endif
