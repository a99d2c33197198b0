// Telegrams of the configuration module of a test system (device type 13), besides
// the common device commands.
//
//   0x05 SetConfig, 0x06 GetConfig         the active configuration
//   0xD2 IsConfigAvailable                 a stored configuration and its CRC
//   0xD3 FileStart, 0xD4 FileData          a configuration file in chunks
//   0xD5 InstallConfig
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMCOM_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLTESTSYSTEMCOM_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#include <cstddef>

#define TARVIK_TESTSYSTEM_COM_COMMANDS(X)                                                                              \
    X(SetConfig, 0x05)                                                                                                 \
    X(GetConfig, 0x06)                                                                                                 \
    X(IsConfigAvailable, 0xD2)                                                                                         \
    X(FileStart, 0xD3)                                                                                                 \
    X(FileData, 0xD4)                                                                                                  \
    X(InstallConfig, 0xD5)

namespace tarvik_protocol
{
namespace testsystem_com
{
constexpr ETarvikDevice kDeviceType = eTarvikTestSystemCOM;

enum ECmd
{
    TARVIK_TESTSYSTEM_COM_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_TESTSYSTEM_COM_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

// The result byte of a FileData confirmation while the unit expects more data.
constexpr unsigned char kMoreData = 0x21;
// Largest chunk of one FileData request.
constexpr size_t kChunkSize = 32768;
// Block size of the CRC-32 over a configuration file.
constexpr size_t kCRCBlockSize = 4096;
} // namespace testsystem_com
} // namespace tarvik_protocol

#endif
