/* I2C and EEPROM functions of the flat C interface.
 *
 * I2COpenDevice gives a handle of an I2C gateway (port 5000 + 100 x portIndex); every
 * other function takes it. All return 0 or a result code: 0x900000 for an unknown
 * handle, 0x910000 for a handle of another family, 0x920000 for a bad argument (a
 * negative length, one above the 16-bit count the gateway takes, a null buffer with a
 * length), transport codes 0x020000..0x0C0000, device results 0x01xx (0x0120 "I2C
 * NACK (No Acknowledge)", 0x0121 timeout, 0x0125 acknowledge polling timeout).
 * Null output pointers are skipped; an output that the gateway does not answer is left
 * as it was. Buffers that the device fills receive only what came, at most their length. */
#ifndef TARVIK_DLL_TARVIKDLLI2C_H
#define TARVIK_DLL_TARVIKDLLI2C_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

/* EEPROM type word: bits 0-7 the memory-address bits sent as address bytes, bits 8-9
 * further high memory-address bits that travel inside the slave address (0-3), bit 10
 * set when those bits sit above the chip-select bits. 24C02: TARVIK_EEPROM_TYPE(8, 0, 0),
 * 24C16: TARVIK_EEPROM_TYPE(8, 3, 0), 24C256: TARVIK_EEPROM_TYPE(16, 0, 0). */
#define TARVIK_EEPROM_TYPE(addressBits, slaveBits, above)                                                              \
    ((unsigned short)(((addressBits)&0xFF) | (((slaveBits)&3) << 8) | ((above) ? 0x400 : 0)))

    /* One step of I2CWriteSequenceSteps: the I2C address byte (bit 0 set: the step reads
     * from the slave), the number of bytes, and the buffer they come from or go to. */
    typedef struct STarvikI2CStep
    {
        unsigned short nCommand;
        unsigned short nLength;
        char* pBuffer;
    } STarvikI2CStep;

    /* Connects and prepares; the bit rate stays as the gateway has it (I2CSetBaudrate).
     * 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int I2COpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    TARVIK_API int I2CCloseDevice(int handle);
    /* 100 and 400 are taken as kHz; any other value is bits per second. */
    TARVIK_API int I2CSetBaudrate(int handle, unsigned int baudrate);
    /* *baudrate is written whenever an answer arrived, also one that reports an error. */
    TARVIK_API int I2CGetBaudrate(int handle, unsigned int* baudrate);
    TARVIK_API int I2CReset(int handle);
    TARVIK_API int I2CReadDigital(int handle, unsigned int* inputs, unsigned int* outputs);
    TARVIK_API int I2CWriteDigital(int handle, unsigned int outputs);

    /* Reads len bytes from a slave. *received is 0 first, then the bytes copied into buf;
     * any answer fills buf, also one that reports an error. */
    TARVIK_API int I2CRead(int handle, unsigned short slaveAddress, char* buf, int len, unsigned short* received);
    /* *errorPos receives the device's error position when its answer carries one. */
    TARVIK_API int I2CWrite(int handle, unsigned short slaveAddress, const char* data, int len,
                            unsigned short* errorPos);

    /* The bus bit by bit: a start, bytes sent or fetched (flags bit 0: stop after the
     * byte), a stop. *byte is written only on success. */
    TARVIK_API int I2CRAWStart(int handle);
    TARVIK_API int I2CRAWSend(int handle, unsigned char byte, unsigned char flags);
    TARVIK_API int I2CRAWGet(int handle, unsigned char flags, unsigned char* byte);
    TARVIK_API int I2CRAWStop(int handle);

    /* A sequence in the gateway's own encoding (per step: u16 address byte, u16 length,
     * the bytes of a write step, little-endian); readLen bytes are asked for. Any answer
     * fills readBuf, *received and *errorPos. */
    TARVIK_API int I2CWriteSequence(int handle, const char* sequence, int sequenceLen, char* readBuf, int readLen,
                                    unsigned short* received, unsigned short* errorPos);
    /* The same built from steps. Every read step is filled from the start of the bytes
     * read, not from a running position: two read steps both receive the first bytes. */
    TARVIK_API int I2CWriteSequenceSteps(int handle, STarvikI2CStep* steps, int count, unsigned short* errorPos);

    /* EEPROM access: the library works out the slave address from deviceSelect (the
     * chip-select pins), offset and the type word. A write goes in one request, so keep
     * it inside one page of the chip. */
    TARVIK_API int EEPROMWrite(int handle, unsigned short deviceSelect, unsigned int offset, unsigned short eepromType,
                               const char* data, int len);
    /* The same, then the gateway polls the chip for up to pollTime until it acknowledges
     * (0x0125 when it gave up). */
    TARVIK_API int EEPROMWritePollAck(int handle, unsigned short deviceSelect, unsigned int offset,
                                      unsigned short eepromType, const char* data, int len, unsigned short pollTime);
    /* Reads len bytes; any answer fills buf and *received. */
    TARVIK_API int EEPROMRead(int handle, unsigned short deviceSelect, unsigned int offset, unsigned short eepromType,
                              char* buf, int len, unsigned short* received);
    /* The chip's slave address (write form, bit 0 clear) for a memory offset; no device. */
    TARVIK_API unsigned int EEPROMGetSlaveAddress(unsigned short deviceSelect, unsigned int offset,
                                                  unsigned short eepromType);
    /* Memory-address bytes on the bus after the slave address: 1 or 2; no device. */
    TARVIK_API int EEPROMGetAddressByteCount(unsigned short eepromType);

#ifdef __cplusplus
}
#endif

#endif
