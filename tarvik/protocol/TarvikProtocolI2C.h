// Telegrams of the I2C gateway (device type 1), besides the common device commands.
//
//   0x04 Reset, 0x07 SetBaudrate, 0x08 GetBaudrate
//   0x10 Read, 0x11 Write                       plain transfers
//   0x12 ReadEEProm, 0x13 WriteEEProm, 0x19 WriteEEPromPollAck   serial EEPROM access
//   0x14 Sequence                               several transfers in one telegram
//   0x15 RAWStart, 0x16 RAWSend, 0x17 RAWGet, 0x18 RAWStop   bus conditions one by one
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLI2C_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLI2C_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_I2C_COMMANDS(X)                                                                                         \
    X(Reset, 0x04)                                                                                                     \
    X(SetBaudrate, 0x07)                                                                                               \
    X(GetBaudrate, 0x08)                                                                                               \
    X(Read, 0x10)                                                                                                      \
    X(Write, 0x11)                                                                                                     \
    X(ReadEEProm, 0x12)                                                                                                \
    X(WriteEEProm, 0x13)                                                                                               \
    X(Sequence, 0x14)                                                                                                  \
    X(RAWStart, 0x15)                                                                                                  \
    X(RAWSend, 0x16)                                                                                                   \
    X(RAWGet, 0x17)                                                                                                    \
    X(RAWStop, 0x18)                                                                                                   \
    X(WriteEEPromPollAck, 0x19)

namespace tarvik_protocol
{
namespace i2c
{
constexpr ETarvikDevice kDeviceType = eTarvikI2C;

enum ECmd
{
    TARVIK_I2C_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_I2C_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

constexpr unsigned int kDefaultBaudrate = 100000;
} // namespace i2c
} // namespace tarvik_protocol

#endif
