// Telegrams of the digital I/O gateway (device type 5): the common digital commands,
// which its client names Read and Write.
//
//   0x40 Read   -> u32 inputs, u32 outputs (the common BaseReadDigital)
//   0x41 Write  u32 outputs -> nothing (the common BaseWriteDigital)
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLDIO_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLDIO_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_DIO_COMMANDS(X)                                                                                         \
    X(Read, tarvik_protocol::common::eCmdBaseReadDigital)                                                              \
    X(Write, tarvik_protocol::common::eCmdBaseWriteDigital)

namespace tarvik_protocol
{
namespace dio
{
constexpr ETarvikDevice kDeviceType = eTarvikDIO;

enum ECmd
{
    TARVIK_DIO_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_DIO_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace dio
} // namespace tarvik_protocol

#endif
