// Telegrams of the analog/digital gateway (device type 7), besides the common device commands.
//
//   0x30 Read  -> u32 converter values, one per channel
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLAD_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLAD_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_AD_COMMANDS(X) X(Read, 0x30)

namespace tarvik_protocol
{
namespace ad
{
constexpr ETarvikDevice kDeviceType = eTarvikAD;

enum ECmd
{
    TARVIK_AD_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_AD_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace ad
} // namespace tarvik_protocol

#endif
