// The SPI gateway (device type 3) with a 25xx serial EEPROM on its bus.
//
// Commands, besides the common ones of every device:
//   0x07 SetGlobals  u32 rate, u8 setting1, u8 setting2, u8 setting3 -> nothing
//   0x08 GetGlobals  -> u32 rate, u8 setting1, u8 setting2, u8 setting3
//   0x03 DataReq     bytes for MOSI -> as many bytes from MISO; one chip-select frame
//   0x14 Sequence    a script (see CTarvikSimSpiSequence) -> the bytes it read
// The globals are remembered as given (the bus model does not depend on them) and go
// back to 1000000, 0, 0, 0 on Restart. Result byte 0x20 ("SPI inconsistent telegram
// data") answers a request whose data has the wrong length, a DataReq whose answer
// would not fit in a telegram, and a truncated sequence; 0x30 and 0x31 come from
// sequences.
#ifndef TARVIK_SIM_TARVIKSIMDEVICESPI_H
#define TARVIK_SIM_TARVIKSIMDEVICESPI_H

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimEeprom25.h"
#include "tarvik/protocol/TarvikProtocolSPI.h"

class CTarvikSimDeviceSPI : public CTarvikSimDevice
{
public:
    enum ESpiCommand
    {
        TARVIK_SPI_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    static constexpr unsigned int kDefaultRate = 1000000;

    explicit CTarvikSimDeviceSPI(unsigned int index = 0);
    ~CTarvikSimDeviceSPI() override;
    // Only answers: its connections block in recv() alone.
    bool PostsUnasked() const override { return false; }

    // Globals as last set, for tests; thread-safe.
    void GetGlobals(unsigned int& rate, unsigned char& setting1, unsigned char& setting2,
                    unsigned char& setting3) const;
    // Direct access to the EEPROM on the bus, for tests; thread-safe.
    std::string PeekEeprom(size_t address, size_t len) const;
    void PokeEeprom(size_t address, const std::string& data);
    void EraseEeprom();
    unsigned char GetEepromStatus() const;
    void SetEepromWriteCycleMs(unsigned int ms);

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    std::string DataReq(const std::string& data);
    std::string SetGlobals(const std::string& data);
    std::string GetGlobalsAnswer(const std::string& data) const;
    std::string Sequence(const std::string& data);

    unsigned int m_nRate;
    unsigned char m_nSetting1;
    unsigned char m_nSetting2;
    unsigned char m_nSetting3;
    CTarvikSimEeprom25 m_oEeprom;
};

#endif
