// Telegrams of the relay unit of a test system (device type 17), besides the common device commands.
//
//   0x12 SetRelay   u8 relay, u8 on
//   0x13 GetButton  u8 button -> u8 pressed
//   0x20 SetPower, 0x21 GetPower   power words, u16 little-endian, no count field
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMRELAY_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMRELAY_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_TESTSYSTEM_RELAY_COMMANDS(X)                                                                            \
    X(SetRelay, 0x12)                                                                                                  \
    X(GetButton, 0x13)                                                                                                 \
    X(SetPower, 0x20)                                                                                                  \
    X(GetPower, 0x21)

namespace tarvik_protocol
{
namespace testsystem_relay
{
constexpr ETarvikDevice kDeviceType = eTarvikTestSystemRelay;

enum ECmd
{
    TARVIK_TESTSYSTEM_RELAY_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_TESTSYSTEM_RELAY_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace testsystem_relay
} // namespace tarvik_protocol

#endif
