// The analog/digital gateway (device type 7): the digital words of every device and a
// 12-bit converter with 8 channels.
//
// Command, besides the common ones of every device:
//   0x30 Read  -> 8 × u32 converter values, 0..4095
// Each channel reads the level set on it (SetAdcLevel, default 0.25 V per channel
// number, channel 0 at 0.5 V, on a 5 V reference) with a steady noise of up to ±2 counts,
// as a real converter does; a Restart leaves the levels alone, they are the wiring's.
#ifndef TARVIK_SIM_TARVIKSIMDEVICEAD_H
#define TARVIK_SIM_TARVIKSIMDEVICEAD_H

#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolAD.h"

#include <cstdint>
#include <vector>

class CTarvikSimDeviceAD : public CTarvikSimDevice
{
public:
    enum ECmd
    {
        TARVIK_AD_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    static constexpr size_t kChannels = 8;
    static constexpr unsigned int kFullScale = 4095;
    // Largest deviation of a reading from the level, in counts.
    static constexpr unsigned int kNoise = 2;

    explicit CTarvikSimDeviceAD(unsigned int index = 0);
    ~CTarvikSimDeviceAD() override;
    // Only answers: its connections block in recv() alone.
    bool PostsUnasked() const override { return false; }

    // Level on a channel in counts (clamped to 0..4095); thread-safe.
    void SetAdcLevel(size_t channel, unsigned int counts);
    unsigned int GetAdcLevel(size_t channel) const;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;

private:
    unsigned int Sample(size_t channel);

    std::vector<unsigned int> m_anLevels;
    uint32_t m_nNoiseState;
};

#endif
