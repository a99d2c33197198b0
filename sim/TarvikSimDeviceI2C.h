// The I2C gateway (device type 1) with three 24Cxx EEPROMs on its bus:
//   24C256  32 KiB, 64-byte pages, two address bytes    at 0xA0        (type word 0x0010, select 0)
//   24C04   512 B, 16-byte pages, one byte + bit 1 of    at 0xA4/0xA6   (type word 0x0108, select 1)
//           the slave address as memory bit 8
//   24C02   256 B, 8-byte pages, one address byte        at 0xA8        (type word 0x0008, select 4)
// Any other slave address is not acknowledged: result byte 0x20 "I2C NACK (No Acknowledge)".
//
// Commands, besides the common ones of every device (u16/u32 little-endian; the EEPROM
// offset is four bytes, most significant first, of which the low address-count bytes go
// on the bus):
//   0x04 Reset         -> nothing; ends any transaction on the bus
//   0x07 SetBaudrate   u32 rate -> nothing          0x08 GetBaudrate -> u32 rate
//   0x10 Read          u16 slave, u16 count -> the bytes read
//   0x11 Write         u16 slave, bytes -> u16 bytes acknowledged
//   0x12 ReadEEProm    u16 slave, u8 address count, offset, u16 count -> the bytes read
//   0x13 WriteEEProm   u16 slave, u8 address count, offset, bytes -> nothing
//   0x19 WriteEEPromPollAck  u16 slave, u16 poll ms, u8 address count, offset, bytes ->
//                      nothing; 0x25 when the chip did not acknowledge within the poll time
//   0x14 Sequence      u16 read total, then steps (u16 address byte, u16 length, the bytes
//                      of a write step) -> u16 steps done, the bytes of all read steps
//   0x15 RAWStart, 0x16 RAWSend u8 byte u8 flags, 0x17 RAWGet u8 flags -> u8 byte,
//   0x18 RAWStop: the bus by hand; the first byte after a start is the address; flags
//                      bit 0 = stop after the byte
// A request whose data has the wrong length gets 0xFF. The rate goes back to 100000 on
// Restart; the memories keep their content.
#ifndef TARVIK_SIM_TARVIKSIMDEVICEI2C_H
#define TARVIK_SIM_TARVIKSIMDEVICEI2C_H

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimEeprom24.h"
#include "tarvik/protocol/TarvikProtocolI2C.h"

#include <vector>

class CTarvikSimDeviceI2C : public CTarvikSimDevice
{
public:
    enum EI2cResult
    {
        eResultNack = 0x20,
        eResultPollTimeout = 0x25,
    };

    // The chips on the bus, in the order above.
    enum EChip
    {
        eChip24C256 = 0,
        eChip24C04 = 1,
        eChip24C02 = 2,
    };

    static constexpr unsigned int kDefaultRate = 100000;

    explicit CTarvikSimDeviceI2C(unsigned int index = 0);
    ~CTarvikSimDeviceI2C() override;
    // Only answers: its connections block in recv() alone.
    bool PostsUnasked() const override { return false; }

    // Direct access to a chip's memory, for tests; thread-safe.
    std::string PeekEeprom(EChip chip, size_t address, size_t len) const;
    void PokeEeprom(EChip chip, size_t address, const std::string& data);
    void SetEepromWriteCycleMs(unsigned int ms);
    unsigned int GetRate() const;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    // The chip that acknowledges the address, or null.
    CTarvikSimEeprom24* Start(unsigned char address);
    void StopBus();
    std::string Read(const std::string& data);
    std::string Write(const std::string& data);
    std::string ReadEEProm(const std::string& data);
    std::string WriteEEProm(const std::string& data, bool poll);
    std::string Sequence(const std::string& data);
    std::string RawSend(const std::string& data);
    std::string RawGet(const std::string& data);
    // Address and memory-address bytes of an EEPROM request; false: not acknowledged.
    bool AddressEEProm(unsigned char slave, unsigned char count, const char* offset);
    bool PollAck(unsigned char slave, unsigned int ms);

    unsigned int m_nRate;
    std::vector<CTarvikSimEeprom24> m_aoChips;
    // The chip of the transaction under way, null when the bus is idle or nobody answered.
    CTarvikSimEeprom24* m_pActive;
    bool m_bRawStarted;
};

#endif
