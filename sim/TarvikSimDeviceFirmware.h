// The service side of a gateway (device type 0, port 5099 + 100 x index): a firmware
// flash of 64 blocks of 2048 bytes and a 256-byte information EEPROM, which starts out
// holding a layout-2 information image (tag 0x2000, software 1.2.3 variant 0x1B,
// hardware 1.1.A).
//
// Commands, besides the common ones of every device (u16/u32 little-endian):
//   0xE0 GetEEPromInfo -> u16 page size (16), u32 EEPROM size (256)
//   0xE1 ReadEEProm    address (four bytes, most significant first), u16 count -> the bytes
//   0xE2 WriteEEProm   address, bytes -> nothing
//   0xE3 ClearFlash    -> nothing; every block erased (0xFF)
//   0xE4 ReadFlash     u16 block -> u16 block, the 2048 bytes
//   0xE5 WriteFlash    u16 block, 2048 bytes -> nothing
//   0xE7 Restart       -> nothing (the service restart; flash and EEPROM stay)
// An EEPROM access past the end gets 0x02 "Read/write request to internal eeprom
// failed"; a block number out of range or a request of the wrong length gets 0xFF.
// Flash and EEPROM keep their content over a restart.
#ifndef TARVIK_SIM_TARVIKSIMDEVICEFIRMWARE_H
#define TARVIK_SIM_TARVIKSIMDEVICEFIRMWARE_H

#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolFirmware.h"

#include <string>

class CTarvikSimDeviceFirmware : public CTarvikSimDevice
{
public:
    enum EFirmwareResult
    {
        eResultEEProm = 0x02,
    };

    static constexpr size_t kBlockSize = tarvik_protocol::firmware::kFlashBlockSize;
    static constexpr size_t kBlockCount = 64;
    static constexpr size_t kEEPromSize = 256;
    static constexpr size_t kEEPromPage = 16;

    explicit CTarvikSimDeviceFirmware(unsigned int index = 0);
    ~CTarvikSimDeviceFirmware() override;

    std::string GetName() const override;
    // Direct access for tests; thread-safe.
    std::string PeekEeprom(size_t address, size_t len) const;
    void PokeEeprom(size_t address, const std::string& data);
    std::string PeekBlock(size_t block) const;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;

private:
    std::string ReadEEProm(const std::string& data) const;
    std::string WriteEEProm(const std::string& data);
    std::string ReadFlash(const std::string& data) const;
    std::string WriteFlash(const std::string& data);

    std::string m_sEEProm;
    std::string m_sFlash;
};

#endif
