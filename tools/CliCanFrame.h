// CAN frames as text, in the conventions of Linux's can-utils, so that what `tarvik can`
// prints and reads passes through cansend, candump, canplayer and log2asc unchanged:
//   frame syntax   123#DEADBEEF  12345678#11.22  123#R  123#R4  123##1DEADBEEF
//   candump        "  tarvik0  123   [4]  DE AD BE EF"
//   log line       "(1700000000.123456) tarvik0 123#DEADBEEF"
// An identifier written with 3 hex digits is a standard (11-bit) one, with 8 digits an
// extended (29-bit) one; "##" starts a CAN FD frame, whose next digit is its flags
// nibble (bit 0 bit-rate switch, bit 1 error state).
#ifndef TARVIK_TOOLS_CLICANFRAME_H
#define TARVIK_TOOLS_CLICANFRAME_H

#include <cstdint>
#include <string>

struct SCliCanFrame
{
    static constexpr unsigned int kMaxClassic = 8;
    static constexpr unsigned int kMaxFD = 64;

    unsigned int m_nId = 0;
    bool m_bExtended = false;
    bool m_bRemote = false;
    bool m_bFD = false;
    // CAN FD flags nibble as can-utils writes it after "##".
    unsigned char m_nFDFlags = 0;
    // Data length; for a remote frame the requested length.
    unsigned char m_nLen = 0;
    unsigned char m_aData[kMaxFD] = {};

    bool operator==(const SCliCanFrame& other) const;
};

// Parses cansend's syntax. False with a reason in error (e.g. "data longer than 8 bytes").
bool CliParseCanFrame(const std::string& text, SCliCanFrame& frame, std::string& error);
// The frame in cansend's syntax (as log files carry it).
std::string CliCanFrameText(const SCliCanFrame& frame);
// One line of candump's default output, without the line end.
std::string CliCandumpLine(const SCliCanFrame& frame, const std::string& interfaceName);
// One line of candump's log format (-L), without the line end; seconds and
// microseconds since the epoch.
std::string CliCanLogLine(const SCliCanFrame& frame, int64_t seconds, unsigned int microseconds,
                          const std::string& interfaceName);
// Parses a log line; comment and empty lines give false with an empty error.
bool CliParseCanLogLine(const std::string& line, SCliCanFrame& frame, int64_t& microsecondsSinceEpoch,
                        std::string& interfaceName, std::string& error);

// Whether a log line holds an error frame (identifier with the error flag 0x20000000,
// as candump and python-can log them): no frame that a gateway can send.
bool CliCanLogLineIsErrorFrame(const std::string& line);

#endif
