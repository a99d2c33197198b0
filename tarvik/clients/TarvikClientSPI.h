// CTarvikClientSPI: an SPI gateway (device type 3): bus settings, full-duplex
// transfers, and sequences (device-side scripts of SPI operations).
#ifndef TARVIK_CLIENTS_TARVIKCLIENTSPI_H
#define TARVIK_CLIENTS_TARVIKCLIENTSPI_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolSPI.h"

#include <string>

// Number of address bytes of a serial EEPROM offset.
enum EOffsetFormat
{
    eOffset1Byte = 1,
    eOffset2Byte = 2,
    eOffset3Byte = 3,
    eOffset4Byte = 4,
};

class TARVIK_API CTarvikClientSPI : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_SPI_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    explicit CTarvikClientSPI(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientSPI() override;

    int Open() override;

    // Every operation returns 0 or a result code; a device error reads 0x03xx.
    int SetGlobals(unsigned int rate, unsigned char setting1, unsigned char setting2, unsigned char setting3);
    // The outputs are set only on success with a complete answer.
    int GetGlobals(unsigned int& rate, unsigned char& setting1, unsigned char& setting2, unsigned char& setting3);
    // Clocks out sendLen bytes, zero-padded to recvLen when that is larger, and copies
    // up to recvLen received bytes into recv whenever an answer arrived (even when the
    // device reports an error). More than 65527 bytes either way give 0x920000 without
    // sending: their answer would not fit in a telegram that can be received.
    int DataReq(const char* send, unsigned short sendLen, char* recv, unsigned short recvLen);
    // Runs a sequence and waits; out receives the answer from its result byte on.
    int SequenceReq(const char* seq, unsigned short len, char* out, unsigned short outLen);
    // Starts a sequence without waiting; *id receives its message id for SequenceGetCnf.
    int SequenceReq(const char* seq, unsigned short len, short* id);
    // Collects the answer of an asynchronous sequence; out receives the bytes after
    // the result byte.
    int SequenceGetCnf(short id, char* out, unsigned short outLen);
    int ReadDigital(unsigned int& inputs, unsigned int& outputs);
    int WriteDigital(unsigned int outputs);

    // The low format bytes of offset, most significant first; empty for other formats.
    static std::string ToOffset(unsigned int offset, EOffsetFormat format);
    // Slave address of an EEPROM whose high offset bits ride in the address:
    // flags bits 0..7 = word address bits (at most 16), bits 8..9 = extra bits.
    static unsigned int GetEEPROMSlaveAddress(unsigned short subAddress, unsigned int offset, unsigned int flags);

private:
    // Reserved: set by the constructor, read by no operation.
    [[maybe_unused]] unsigned int m_nReserved;
};

#endif
