// Telegrams of the CAN gateway (device type 2): command numbers, the flag bits of a CAN
// frame and the layouts of the indications the gateway sends unasked. The client, the C
// interface, the simulator, the tool and the Python module all read them from here.
//
//   0x03 Frame       request: send a frame; indication: a frame received from the bus
//   0x64 CANopenSYNC request: send a SYNC; indication: a SYNC seen on the bus
//   0x66 CANopenEMCY indication only: an emergency message
//   0x67 CANopenPDO  request: send a PDO (no length byte); indication: a PDO (with one)
//   0x6C CANopenGUARD indication only: a node guarding state
//   0x6D CANopenUndefined indication only: a frame of no CANopen kind, in the frame layout
//
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLCAN_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLCAN_H

#include "tarvik/protocol/TarvikProtocol.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#include <cstddef>

// Every command of the CAN gateway once: X(Name, number); the command code is
// 0x0200 | number, its confirmation 0x8200 | number.
#define TARVIK_CAN_COMMANDS(X)                                                                                         \
    X(Frame, 0x03)                                                                                                     \
    X(SetConfig, 0x05)                                                                                                 \
    X(GetConfig, 0x06)                                                                                                 \
    X(SetGlobals, 0x07)                                                                                                \
    X(GetGlobals, 0x08)                                                                                                \
    X(SetTime, 0x0B)                                                                                                   \
    X(GetTime, 0x0E)                                                                                                   \
    X(SetFilter, 0x20)                                                                                                 \
    X(GetFilter, 0x21)                                                                                                 \
    X(GetPowerStatus, 0x22)                                                                                            \
    X(SetPowerRelais, 0x23)                                                                                            \
    X(SetActivePowerSupplies, 0x24)                                                                                    \
    X(SetCyclicMessage, 0x25)                                                                                          \
    X(SetZCardParameter, 0x51)                                                                                         \
    X(GetZCardParameter, 0x52)                                                                                         \
    X(CANopenSetConfig, 0x60)                                                                                          \
    X(CANopenGetConfig, 0x61)                                                                                          \
    X(CANopenSetSYNCMode, 0x62)                                                                                        \
    X(CANopenSendNMT, 0x63)                                                                                            \
    X(CANopenSYNC, 0x64)                                                                                               \
    X(CANopenSendTIME, 0x65)                                                                                           \
    X(CANopenEMCY, 0x66)                                                                                               \
    X(CANopenPDO, 0x67)                                                                                                \
    X(CANopenSDORead, 0x68)                                                                                            \
    X(CANopenSDOWrite, 0x69)                                                                                           \
    X(CANopenSDOReadBlock, 0x6A)                                                                                       \
    X(CANopenSDOWriteBlock, 0x6B)                                                                                      \
    X(CANopenGUARD, 0x6C)                                                                                              \
    X(CANopenUndefined, 0x6D)

namespace tarvik_protocol
{
namespace can
{
constexpr ETarvikDevice kDeviceType = eTarvikCAN;

enum ECmd
{
    TARVIK_CAN_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
};

constexpr SCommandName kCommands[] = {TARVIK_CAN_COMMANDS(TARVIK_PROTOCOL_TABLE_ROW)};

// The command code of a request (an indication carries the same code).
constexpr unsigned short CmdCode(unsigned char number)
{
    return static_cast<unsigned short>(kDeviceType << 8 | number);
}

// The flags byte of a frame. The library passes it through as it is and reads only
// kFlagTimeStamp; the others are the gateway's meaning.
constexpr unsigned char kFlagExtended = 0x01;  // 29-bit identifier
constexpr unsigned char kFlagRemote = 0x02;    // remote request: the data bytes only give the length
constexpr unsigned char kFlagTimeStamp = 0x04; // received frame: its last 8 data bytes are the time stamp
constexpr unsigned char kFlagFD = 0x08;        // CAN FD frame
constexpr unsigned char kFlagFDShift = 4;      // the FD nibble (bit rate switch, error state) in bits 4..5
constexpr unsigned char kFDNibbleMask = 0x03;

// Frame layout (0x203 both ways, 0x26D): identifier, flags, data [, time stamp].
constexpr size_t kFrameIdOffset = 0; // signed 32-bit
constexpr size_t kFrameFlagsOffset = 4;
constexpr size_t kFrameDataOffset = 5;
constexpr size_t kFrameHead = 5;
constexpr size_t kTimeStampSize = 8; // seconds, microseconds: signed 32-bit each
constexpr size_t kMaxClassicData = 8;
constexpr size_t kMaxFDData = 64;

// PDO indication (0x267): selector 1, selector 2, length byte, data.
constexpr size_t kPDOLengthOffset = 2;
constexpr size_t kPDOHead = 3;
constexpr size_t kMaxPDOData = 8;
// SYNC indication (0x264): the SYNC value.
constexpr size_t kSYNCSize = 1;
// EMCY indication (0x266): node, error code (16-bit), error register, 5 manufacturer bytes.
constexpr size_t kEMCYCodeOffset = 1;
constexpr size_t kEMCYRegisterOffset = 3;
constexpr size_t kEMCYDataOffset = 4;
constexpr size_t kEMCYData = 5;
constexpr size_t kEMCYSize = 9;
// GUARD indication (0x26C): node, state.
constexpr size_t kGUARDSize = 2;

// Cyclic message request (0x225): bit 7 of byte 0 enables the entry.
constexpr unsigned char kCyclicEnable = 0x80;
} // namespace can
} // namespace tarvik_protocol

#endif
