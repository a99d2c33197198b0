// Result codes, their message texts, and the device types of the gateway family.
//
// A result code is an int: 0 is success; bits 16..23 carry a transport or library
// error, bits 8..15 the device type of the client that received a failing
// confirmation, bits 0..7 the device's own result byte.
#ifndef TARVIK_CORE_TARVIKRESULT_H
#define TARVIK_CORE_TARVIKRESULT_H

#include "tarvik/protocol/TarvikProtocolDevice.h"
#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
#include <string>
#endif

/* Result codes of the transport and the library (bits 16..23). */
#define TARVIK_OK 0x000000
#define TARVIK_ERR_SOCKET 0x020000
#define TARVIK_ERR_NOT_CONNECTED 0x030000
#define TARVIK_ERR_TIMEOUT 0x040000
#define TARVIK_ERR_STACK_INITIALIZING 0x050000
#define TARVIK_ERR_STACK_NOT_INITIALIZED 0x060000
#define TARVIK_ERR_CRC 0x0A0000
#define TARVIK_ERR_NOT_CONFIRMED 0x0B0000
#define TARVIK_ERR_CNF_INVALID 0x0C0000
#define TARVIK_ERR_INVALID_HANDLE 0x900000
#define TARVIK_ERR_INVALID_DEVICE_TYPE 0x910000
#define TARVIK_ERR_INVALID_PARAMETER 0x920000
/* Generic device results (bits 0..7). */
#define TARVIK_ERR_CONNECTION_LIMIT 0x000001
#define TARVIK_ERR_EEPROM 0x000002
#define TARVIK_ERR_COMMAND_FAILED 0x0000FF

#ifdef __cplusplus
// Text for a result code; codes with a device type byte fall back to the code
// without it, unknown codes give "Unknown error code: " and the decimal value.
TARVIK_API std::string TarvikErrorMsg(int code);
// Display name of a device type, "Tarvik ???" outside 1..9.
TARVIK_API std::string TarvikDeviceName(int type);
// TCP port of a gateway: 4999 + device type (5099 for the firmware service of
// type 0), plus 100 per port index.
TARVIK_API unsigned short TarvikDevicePort(int type, int portIndex = 0);
// Transport or library part (bits 16..23) of a result code.
inline int TarvikErrorTransport(int code)
{
    return (code >> 16) & 0xFF;
}
// Device type part (bits 8..15) of a result code.
inline int TarvikErrorDeviceType(int code)
{
    return (code >> 8) & 0xFF;
}
// Device result byte (bits 0..7) of a result code.
inline int TarvikErrorDeviceByte(int code)
{
    return code & 0xFF;
}
#endif

#endif
