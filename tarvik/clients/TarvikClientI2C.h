// CTarvikClientI2C: an I2C gateway (device type 1): the bus master's bit rate, plain
// reads and writes to a slave, a raw bit-level mode, batched command sequences, and
// 24Cxx-style EEPROM access in which the library works out the slave address and the
// memory-address bytes from an EEPROM type word.
//
// EEPROM type word: bits 0-7 = memory-address bits sent as address bytes (the in-block
// width), bits 8-9 = further high memory-address bits that travel inside the slave
// address (0-3), bit 10 = those bits sit above the chip-select bits instead of below.
//
// Every operation returns 0 or a result code; a device error b reads 0x0100 | b
// (0x0120 "I2C NACK (No Acknowledge)", 0x0121 timeout, 0x0125 acknowledge polling
// timeout). A transport failure leaves every output as it was.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTI2C_H
#define TARVIK_CLIENTS_TARVIKCLIENTI2C_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolI2C.h"

#include <string>

class TARVIK_API CTarvikClientI2C : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_I2C_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    static constexpr unsigned int kDefaultBaudrate = tarvik_protocol::i2c::kDefaultBaudrate;

    // One step of a command sequence: the I2C address byte (bit 0 set: read from the
    // slave), the number of bytes, and the caller's buffer (source or destination).
    struct I2CCommand
    {
        unsigned short nCommand;
        unsigned short nLength;
        char* pBuffer;
    };

    explicit CTarvikClientI2C(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientI2C() override;

    using CTarvikClient::Open;
    // The base Open, then SetBaudrate; the first failure.
    int Open(unsigned int nBaudrate);
    // 100 and 400 are taken as kHz; any other value is bits per second.
    int SetBaudrate(unsigned int nBaudrate);
    // nBaudrate is written whenever an answer arrived, even one reporting an error.
    int GetBaudrate(unsigned int& nBaudrate);
    // The rate last set or read successfully (100000 after construction).
    unsigned int GetCurrentBaudrate() const { return m_nBaudrate; }
    int Reset();
    int ReadDigital(unsigned int& inputs, unsigned int& outputs);
    int WriteDigital(unsigned int outputs);

    // nReceived is 0 first; any answer (also one reporting an error) fills pBuffer.
    int Read(unsigned short nSlaveAddress, char* pBuffer, unsigned short nBufferLen, unsigned short& nReceived);
    // nErrorPos takes the device's error position when the answer carries one.
    int Write(unsigned short nSlaveAddress, const char* pBuffer, unsigned short nBufferLen, unsigned short& nErrorPos);

    int RAWStart();
    int RAWSend(unsigned char nByte, unsigned char nFlags);
    // nByte is written only on success.
    int RAWGet(unsigned char nFlags, unsigned char& nByte);
    int RAWStop();

    // A sequence in the device's own encoding; any answer fills the outputs.
    int WriteSequence(const char* pSequence, unsigned short nSequenceLen, char* pReadBuffer,
                      unsigned short nReadBufferLen, unsigned short& nReceived, unsigned short& nErrorPos);
    // A sequence of steps. Every read step is filled from the start of the bytes read,
    // not from a running position: two read steps both receive the first bytes.
    int WriteSequence(I2CCommand* pCommands, unsigned short nCount, unsigned short& nErrorPos);

    // The whole buffer goes in one request: the caller keeps a write inside one page.
    int WriteEEProm(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType, const char* pBuffer,
                    unsigned short nBufferLen);
    // The same, then the device polls the chip until it acknowledges (0x0125 when it gave up).
    int WriteEEPromPollAck(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType,
                           const char* pBuffer, unsigned short nBufferLen, unsigned short nPollTime);
    // Any answer fills pBuffer: from data byte 3 when it carries two bytes more than
    // asked for, else from byte 1.
    int ReadEEProm(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType, char* pBuffer,
                   unsigned short nBufferLen, unsigned short& nReceived);

    // The memory offset masked to the chip's address bits, four bytes, most significant first.
    static std::string ToOffset(unsigned int nOffset, unsigned short nEEPROMType);
    // The chip's slave address (write form, bit 0 clear) for a memory offset.
    static unsigned int GetEEPROMSlaveAddress(unsigned short nDeviceSelect, unsigned int nOffset,
                                              unsigned short nEEPROMType);
    // Number of memory-address bytes the bus carries after the slave address: 1 or 2.
    static unsigned char GetAddressByteCount(unsigned short nEEPROMType);

private:
    // Slave address, address-byte count and offset of an EEPROM request.
    static std::string EEPromHeader(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType);

    unsigned int m_nBaudrate;
};

#endif
