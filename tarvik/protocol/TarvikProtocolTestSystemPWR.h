// Telegrams of the power unit of a test system (device type 12), besides the common device commands.
//
//   0x10 SetValue, 0x11 GetValue   value words, u16 little-endian, no count field
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMPWR_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMPWR_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_TESTSYSTEM_PWR_COMMANDS(X)                                                                              \
    X(SetValue, 0x10)                                                                                                  \
    X(GetValue, 0x11)

namespace tarvik_protocol
{
namespace testsystem_pwr
{
constexpr ETarvikDevice kDeviceType = eTarvikTestSystemPWR;

enum ECmd
{
    TARVIK_TESTSYSTEM_PWR_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_TESTSYSTEM_PWR_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace testsystem_pwr
} // namespace tarvik_protocol

#endif
