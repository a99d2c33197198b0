// The sequence script that the SPI gateway runs on its bus in one request.
//
// A script is a list of operations, each an op code byte followed by its arguments
// (u16 values little-endian):
//   0x00 END                                   stop here; the bytes after it are ignored
//   0x01 SELECT                                chip select low (no effect if already low)
//   0x02 DESELECT                              chip select high (no effect if already high)
//   0x03 WRITE    u16 n, n bytes               clock the bytes out, discard MISO
//   0x04 READ     u16 n                        clock n bytes of 0xFF out, keep MISO
//   0x05 TRANSFER u16 n, n bytes               clock the bytes out, keep MISO
//   0x06 DELAY    u16 us                       wait that many microseconds
//   0x07 POLL     u8 cmd, u8 mask, u8 value, u16 ms
//                                              repeat {select, cmd, read 1 byte, deselect}
//                                              until (byte & mask) == value, at most ms
//                                              milliseconds (one try at least)
// The end of the script acts as END, and chip select is raised at the end.
// The answer is the bytes kept by READ and TRANSFER, in order.
//
// The whole script is checked before anything runs, so a rejected script has no
// effect on the bus. Result bytes: 0x30 for an unknown op code, 0x20 for a truncated
// operation or an answer that would not fit in a telegram, 0x31 when the waits of
// the script (delays and poll time-outs) add up to more than one second, or when a
// POLL runs out of time. A failed script answers no data.
#ifndef TARVIK_SIM_TARVIKSIMSPISEQUENCE_H
#define TARVIK_SIM_TARVIKSIMSPISEQUENCE_H

#include "sim/TarvikSimSpiSlave.h"

#include <string>
#include <vector>

// Result bytes of the SPI gateway.
enum ETarvikSimSpiResult
{
    eTarvikSimSpiOk = 0x00,
    eTarvikSimSpiInconsistent = 0x20,
    eTarvikSimSpiSendError = 0x21,
    eTarvikSimSpiUnknownOpCode = 0x30,
    eTarvikSimSpiTimeout = 0x31,
};

class CTarvikSimSpiSequence
{
public:
    enum EOpCode : unsigned char
    {
        eOpEnd = 0x00,
        eOpSelect = 0x01,
        eOpDeselect = 0x02,
        eOpWrite = 0x03,
        eOpRead = 0x04,
        eOpTransfer = 0x05,
        eOpDelay = 0x06,
        eOpPoll = 0x07,
    };

    // Upper bound of all waits of one script, in microseconds.
    static constexpr unsigned long kMaxWaitMicroSeconds = 1000000;
    // Byte clocked out where the script gives none (READ, the status byte of POLL).
    static constexpr unsigned char kFillByte = 0xFF;

    // Checks the script; the result is one of ETarvikSimSpiResult. maxOutput bounds the
    // number of bytes the script may read.
    unsigned char Parse(const std::string& script, size_t maxOutput);
    // Runs a parsed script on the slave and appends what it read to out.
    unsigned char Run(CTarvikSimSpiSlave& slave, std::string& out) const;

private:
    struct SStep
    {
        EOpCode eOp;
        size_t nOffset;          // arguments in m_sScript
        size_t nCount;           // bytes of WRITE/READ/TRANSFER, microseconds of DELAY
        unsigned char nCmd;      // POLL
        unsigned char nMask;     // POLL
        unsigned char nValue;    // POLL
        unsigned int nTimeoutMs; // POLL
    };

    bool Poll(CTarvikSimSpiSlave& slave, const SStep& step) const;

    std::string m_sScript;
    std::vector<SStep> m_aSteps;
};

#endif
