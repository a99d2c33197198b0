// Telegrams of the SPI gateway (device type 3), besides the common device commands.
//
//   0x03 DataReq     bytes for MOSI -> as many bytes from MISO; one chip-select frame
//   0x07 SetGlobals  u32 rate, u8 setting1, u8 setting2, u8 setting3 -> nothing
//   0x08 GetGlobals  -> u32 rate, u8 setting1, u8 setting2, u8 setting3
//   0x14 Sequence    a device-side script of SPI operations -> the bytes it read
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLSPI_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLSPI_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#define TARVIK_SPI_COMMANDS(X)                                                                                         \
    X(DataReq, 0x03)                                                                                                   \
    X(SetGlobals, 0x07)                                                                                                \
    X(GetGlobals, 0x08)                                                                                                \
    X(Sequence, 0x14)

namespace tarvik_protocol
{
namespace spi
{
constexpr ETarvikDevice kDeviceType = eTarvikSPI;

enum ECmd
{
    TARVIK_SPI_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_SPI_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};
} // namespace spi
} // namespace tarvik_protocol

#endif
