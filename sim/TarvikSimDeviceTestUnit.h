// The IO (type 11), power (type 12) and relay (type 17) units of a test system: banks
// of 16-bit words, relays and push-buttons, as many of each as the unit's layout says.
//
// Commands, besides the common ones of every device (words u16 little-endian, in
// order, no count field):
//   0x10 SetValue   up to the unit's count of words -> nothing; sets words 0..n-1  (IO, power)
//   0x11 GetValue   -> every value word                                          (IO, power)
//   0x20 SetPower   up to the unit's count of words -> nothing; sets channels 0..n-1 (IO, relay)
//   0x21 GetPower   -> every power channel                                       (IO, relay)
//   0x12 SetRelay   u8 relay, u8 on (0 or 1) -> nothing                          (relay)
//   0x13 GetButton  u8 button -> u8 pressed (0 or 1)                             (relay)
// Words persist until a Restart sets them to 0 and switches every relay off; buttons
// are pressed from outside (PressButton) and are not touched by a Restart. Data of an
// odd length, more words than the unit has, an unknown relay or button, or a command
// the unit lacks answer 0xFF.
#ifndef TARVIK_SIM_TARVIKSIMDEVICETESTUNIT_H
#define TARVIK_SIM_TARVIKSIMDEVICETESTUNIT_H

#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolTestSystemIO.h"
#include "tarvik/protocol/TarvikProtocolTestSystemPWR.h"
#include "tarvik/protocol/TarvikProtocolTestSystemRelay.h"

#include <string>
#include <vector>

class CTarvikSimDeviceTestUnit : public CTarvikSimDevice
{
public:
    // The three units share one numbering: the IO unit's commands and the relay unit's own.
    enum ECmd
    {
        eCmdSetValue = tarvik_protocol::testsystem_io::eCmdSetValue,
        eCmdGetValue = tarvik_protocol::testsystem_io::eCmdGetValue,
        eCmdSetRelay = tarvik_protocol::testsystem_relay::eCmdSetRelay,
        eCmdGetButton = tarvik_protocol::testsystem_relay::eCmdGetButton,
        eCmdSetPower = tarvik_protocol::testsystem_io::eCmdSetPower,
        eCmdGetPower = tarvik_protocol::testsystem_io::eCmdGetPower,
    };
    static_assert(static_cast<int>(tarvik_protocol::testsystem_pwr::eCmdSetValue) == eCmdSetValue &&
                      static_cast<int>(tarvik_protocol::testsystem_pwr::eCmdGetValue) == eCmdGetValue &&
                      static_cast<int>(tarvik_protocol::testsystem_relay::eCmdSetPower) == eCmdSetPower &&
                      static_cast<int>(tarvik_protocol::testsystem_relay::eCmdGetPower) == eCmdGetPower,
                  "the test-system units share one command numbering");

    // How many of each a unit has; 0: the unit lacks the commands.
    struct SLayout
    {
        size_t m_nValues;
        size_t m_nPower;
        size_t m_nRelays;
        size_t m_nButtons;
    };

    // The layout of each unit type unless a test gives its own: IO 16 values and 4
    // power channels, power 8 values, relay 4 power channels, 32 relays, 8 buttons.
    static SLayout DefaultLayout(ETarvikDevice type);

    CTarvikSimDeviceTestUnit(ETarvikDevice type, unsigned int index = 0);
    CTarvikSimDeviceTestUnit(ETarvikDevice type, unsigned int index, const SLayout& layout);
    ~CTarvikSimDeviceTestUnit() override;

    // "Tarvik Test System IO", "... Power", "... Relay".
    std::string GetName() const override;

    // State, for tests; thread-safe.
    std::vector<unsigned short> GetValues() const;
    std::vector<unsigned short> GetPower() const;
    bool IsRelayOn(size_t relay) const;
    // Presses (or releases) a button as a person at the test system would.
    void PressButton(size_t button, bool pressed = true);

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    static std::string SetWords(std::vector<unsigned short>& words, const std::string& data);
    static std::string GetWords(const std::vector<unsigned short>& words, const std::string& data);
    std::string SetRelay(const std::string& data);
    std::string GetButton(const std::string& data) const;

    std::vector<unsigned short> m_anValues;
    std::vector<unsigned short> m_anPower;
    std::vector<bool> m_abRelays;
    std::vector<bool> m_abButtons;
};

#endif
