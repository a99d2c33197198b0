// Telegrams of the AWire programming gateway (device type 14), besides the common device commands.
//
//   0x05 SetConfig, 0x06 GetConfig   the target's configuration
//   0xE0 WriteBlock, 0xE4 WriteUserPage  one block of flash or of the user page
//   0xE1 WriteProgress (indication)   the progress of one block write
//   0xE2 Erase, 0xE5 EraseUserPage, 0xE3 Read
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLAWIRE_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLAWIRE_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_AWIRE_COMMANDS(X)                                                                                       \
    X(SetConfig, 0x05)                                                                                                 \
    X(GetConfig, 0x06)                                                                                                 \
    X(WriteBlock, 0xE0)                                                                                                \
    X(WriteProgress, 0xE1)                                                                                             \
    X(Erase, 0xE2)                                                                                                     \
    X(Read, 0xE3)                                                                                                      \
    X(WriteUserPage, 0xE4)                                                                                             \
    X(EraseUserPage, 0xE5)

namespace tarvik_protocol
{
namespace awire
{
constexpr ETarvikDevice kDeviceType = eTarvikAWire;

enum ECmd
{
    TARVIK_AWIRE_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_AWIRE_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

// Largest block of one write or read request.
constexpr unsigned int kMaxChunk = 32768;
} // namespace awire
} // namespace tarvik_protocol

#endif
