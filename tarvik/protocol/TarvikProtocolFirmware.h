// Telegrams of the service side of every gateway (device type 0), besides the common device commands.
//
//   0xE0 GetEEPromInfo, 0xE1 ReadEEProm, 0xE2 WriteEEProm   the information EEPROM
//   0xE3 ClearFlash, 0xE4 ReadFlash, 0xE5 WriteFlash          the firmware flash
//   0xE7 Restart
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLFIRMWARE_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLFIRMWARE_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_FIRMWARE_COMMANDS(X)                                                                                    \
    X(GetEEPromInfo, 0xE0)                                                                                             \
    X(ReadEEProm, 0xE1)                                                                                                \
    X(WriteEEProm, 0xE2)                                                                                               \
    X(ClearFlash, 0xE3)                                                                                                \
    X(ReadFlash, 0xE4)                                                                                                 \
    X(WriteFlash, 0xE5)                                                                                                \
    X(Restart, 0xE7)

namespace tarvik_protocol
{
namespace firmware
{
constexpr ETarvikDevice kDeviceType = eTarvikFirmware;

enum ECmd
{
    TARVIK_FIRMWARE_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_FIRMWARE_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

constexpr unsigned int kFlashBlockSize = 2048;
constexpr unsigned int kInfoImageSize = 256;
// The EEPROM address field keeps the low 16 bits of an address.
constexpr unsigned int kAddressFormat = 16;
} // namespace firmware
} // namespace tarvik_protocol

#endif
