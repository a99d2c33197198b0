// Telegrams of the Renesas flash programming gateway (device type 9), besides the common device commands.
//
//   0x20 Init .. 0x29 BlockErase: one programming session, Init first
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLRENESAS_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLRENESAS_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#include <cstddef>

#define TARVIK_RENESAS_COMMANDS(X)                                                                                     \
    X(Init, 0x20)                                                                                                      \
    X(CheckID, 0x21)                                                                                                   \
    X(SetBaudrate, 0x22)                                                                                               \
    X(ReadPage, 0x23)                                                                                                  \
    X(EraseAll, 0x24)                                                                                                  \
    X(WritePage, 0x25)                                                                                                 \
    X(GetVersion, 0x26)                                                                                                \
    X(Complete, 0x27)                                                                                                  \
    X(VerifyCheck, 0x28)                                                                                               \
    X(BlockErase, 0x29)

namespace tarvik_protocol
{
namespace renesas
{
constexpr ETarvikDevice kDeviceType = eTarvikRenesas;

enum ECmd
{
    TARVIK_RENESAS_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_RENESAS_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

constexpr size_t kPageSize = 256;
constexpr size_t kIDSize = 7;
} // namespace renesas
} // namespace tarvik_protocol

#endif
