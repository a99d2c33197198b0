#include "sim/TarvikSimDeviceAD.h"

#include <cmath>

namespace
{
// 0.25 V per channel number above 0.5 V on a 5 V, 12-bit converter.
unsigned int DefaultLevel(size_t channel)
{
    return static_cast<unsigned int>(std::lround((0.5 + 0.25 * static_cast<double>(channel)) / 5.0 * 4095.0));
}
} // namespace

CTarvikSimDeviceAD::CTarvikSimDeviceAD(unsigned int index)
    : CTarvikSimDevice(eTarvikAD, index), m_anLevels(kChannels), m_nNoiseState(0x2545F491u + index)
{
    for (size_t i = 0; i < kChannels; ++i)
        m_anLevels[i] = DefaultLevel(i);
}

CTarvikSimDeviceAD::~CTarvikSimDeviceAD() = default;

bool CTarvikSimDeviceAD::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    if (cmd != eCmdRead)
        return false;
    if (!data.empty())
    {
        answer = Answer(eResultFailed);
        return true;
    }
    std::string values;
    for (size_t i = 0; i < kChannels; ++i)
        values += CTarvikMsg::ToChar(Sample(i));
    answer = Answer(eResultOk, values);
    return true;
}

// The level with a drawn deviation of -kNoise..+kNoise counts, kept inside the range.
unsigned int CTarvikSimDeviceAD::Sample(size_t channel)
{
    m_nNoiseState ^= m_nNoiseState << 13;
    m_nNoiseState ^= m_nNoiseState >> 17;
    m_nNoiseState ^= m_nNoiseState << 5;
    long value = static_cast<long>(m_anLevels[channel]) + static_cast<long>(m_nNoiseState % (2 * kNoise + 1)) -
                 static_cast<long>(kNoise);
    if (value < 0)
        return 0;
    return value > static_cast<long>(kFullScale) ? kFullScale : static_cast<unsigned int>(value);
}

void CTarvikSimDeviceAD::SetAdcLevel(size_t channel, unsigned int counts)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (channel < kChannels)
        m_anLevels[channel] = counts > kFullScale ? kFullScale : counts;
}

unsigned int CTarvikSimDeviceAD::GetAdcLevel(size_t channel) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return channel < kChannels ? m_anLevels[channel] : 0;
}
