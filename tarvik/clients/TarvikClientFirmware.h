// CTarvikClientFirmware: the service side of any gateway (device type 0, port 5099 +
// 100 x index): the firmware flash in 2048-byte blocks, a restart, and the internal
// information EEPROM with the 256-byte information image laid on it.
//
// Every operation returns 0 or a result code; device errors carry no device byte
// (0x02 "Read/write request to internal eeprom failed", 0xFF command failed), except
// that the EEPROM commands report every failure with bit 8 set, so that the
// information EEPROM's bus errors read as the I2C codes (0x0120 NACK, 0x0121 timeout).
#ifndef TARVIK_CLIENTS_TARVIKCLIENTFIRMWARE_H
#define TARVIK_CLIENTS_TARVIKCLIENTFIRMWARE_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolFirmware.h"

#include <string>

class TARVIK_API CTarvikClientFirmware : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_FIRMWARE_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    static constexpr unsigned int kFlashBlockSize = tarvik_protocol::firmware::kFlashBlockSize;
    static constexpr unsigned int kInfoImageSize = tarvik_protocol::firmware::kInfoImageSize;
    // The EEPROM address field keeps the low 16 bits of an address.
    static constexpr unsigned int kAddressFormat = tarvik_protocol::firmware::kAddressFormat;

    // The extended device information kept in the information EEPROM.
    struct TARVIK_API STarvikDeviceInfoEx
    {
        unsigned int nSWVersion; // bits 16-23 major, 8-15 minor, 0-7 release
        unsigned int nHWVersion; // bits 16-23, 8-15, 0-7 revision letter; 0xAABBCCDD special variant
        unsigned int nField3;
        unsigned int nField4;
        unsigned short nField5;
        unsigned char nField6;
        unsigned char nSWVariant; // non-zero: a suffix to the software version
        unsigned int aField8[4];
        unsigned char nField9;
        unsigned int nLayoutVersion; // 1 or 2
        unsigned int nImageTag;

        // "2.10.3", with "-" and the variant's two hex digits when there is one.
        std::string GetSWVersionString() const;
        // "1.1.A" (the revision byte + 0x37 as one character), or "TLX-GW".
        std::string GetHWVersionString() const;
    };

    explicit CTarvikClientFirmware(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientFirmware() override;

    using CTarvikClient::Open;
    // Sends nothing: the next request takes message id 1. The arguments are not used.
    int Open(int& nArg1, int& nArg2);
    int Restart();
    int ClearFlash();
    // nReceived is 0 first; any answer fills pBuffer (at most 2048 bytes). An answer
    // too short to carry a block reports 2048: test the result first.
    int ReadFlash(unsigned short nBlock, char* pBuffer, unsigned long& nReceived);
    // Writes exactly 2048 bytes from pBuffer.
    int WriteFlash(unsigned short nBlock, const char* pBuffer);
    // nInfo is 0 first; any answer fills up to four bytes of it.
    int GetEEPromInfo(int& nInfo);
    // Any answer fills pBuffer.
    int ReadEEProm(unsigned int nAddress, char* pBuffer, unsigned short nBufferLen, unsigned short& nReceived);
    int WriteEEProm(unsigned int nAddress, const char* pBuffer, unsigned short nBufferLen);
    // The 4-byte address field, most significant first (see CTarvikClientI2C::ToOffset).
    static std::string ToOffset(unsigned int nAddress, unsigned int nFormat);

    // The record from the image; all zero when the image cannot be read.
    int GetInfo(STarvikDeviceInfoEx& info);
    // Rewrites the image in 16-byte pieces: always layout 2 with the fixed header words
    // (tag 0x2000, software 1.1.1, hardware 1.1.A), whatever info says of them; the
    // software variant byte stays as it was. Sets info.nLayoutVersion to 2.
    int SetInfo(STarvikDeviceInfoEx& info);

    // The four bytes of value in reverse order.
    static unsigned int swablong(unsigned int value);

private:
    int ReadImage(std::string& image);
};

#endif
