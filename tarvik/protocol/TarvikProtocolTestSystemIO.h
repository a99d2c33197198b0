// Telegrams of the IO unit of a test system (device type 11), besides the common device commands.
//
//   0x10 SetValue, 0x11 GetValue   value words, u16 little-endian, no count field
//   0x20 SetPower, 0x21 GetPower   power words, likewise
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMIO_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMIO_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_TESTSYSTEM_IO_COMMANDS(X)                                                                               \
    X(SetValue, 0x10)                                                                                                  \
    X(GetValue, 0x11)                                                                                                  \
    X(SetPower, 0x20)                                                                                                  \
    X(GetPower, 0x21)

namespace tarvik_protocol
{
namespace testsystem_io
{
constexpr ETarvikDevice kDeviceType = eTarvikTestSystemIO;

enum ECmd
{
    TARVIK_TESTSYSTEM_IO_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_TESTSYSTEM_IO_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace testsystem_io
} // namespace tarvik_protocol

#endif
