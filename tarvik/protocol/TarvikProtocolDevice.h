/* Device type numbers of the gateway family, and the commands that every gateway
 * understands. The device type is also bits 8..14 of every command code; each family
 * header of this directory lists the commands of its own type.
 *
 *   0x09 Info              -> up to 20 bytes of device information
 *   0x0A Status            -> status text (all remaining bytes)
 *   0x0C Restart
 *   0x40 BaseReadDigital   -> u32 inputs, u32 outputs
 *   0x41 BaseWriteDigital  u32 outputs
 *   0x42 ReadAnalog        -> u32 first value, then n x u32 values
 *   0x43 WriteAnalog       count x u32 values
 *
 * The device types are plain C, for the C interface; the rest is C++. */
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLDEVICE_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLDEVICE_H

/* Device type numbers; the number is also bits 8..14 of every command code. */
enum ETarvikDevice
{
    eTarvikFirmware = 0,
    eTarvikI2C = 1,
    eTarvikCAN = 2,
    eTarvikSPI = 3,
    eTarvikRS232 = 4,
    eTarvikDIO = 5,
    eTarvikAudio = 6,
    eTarvikAD = 7,
    eTarvikUniversalProgrammer = 8,
    eTarvikRenesas = 9,
    eTarvikTestSystemIO = 11,
    eTarvikTestSystemPWR = 12,
    eTarvikTestSystemCOM = 13,
    eTarvikAWire = 14,
    eTarvikTestSystemRelay = 17
};

#ifdef __cplusplus
#include "tarvik/protocol/TarvikProtocol.h"

#define TARVIK_COMMON_COMMANDS(X)                                                                                      \
    X(Info, 0x09)                                                                                                      \
    X(Status, 0x0A)                                                                                                    \
    X(Restart, 0x0C)                                                                                                   \
    X(BaseReadDigital, 0x40)                                                                                           \
    X(BaseWriteDigital, 0x41)                                                                                          \
    X(ReadAnalog, 0x42)                                                                                                \
    X(WriteAnalog, 0x43)

namespace tarvik_protocol
{
namespace common
{
enum ECmd
{
    TARVIK_COMMON_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_COMMON_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

// Size of the information record of the Info command.
constexpr unsigned int kInfoSize = 20;
} // namespace common
} // namespace tarvik_protocol
#endif

#endif
