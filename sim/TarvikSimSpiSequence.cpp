#include "sim/TarvikSimSpiSequence.h"

#include "tarvik/core/TarvikPayload.h"

#include <chrono>
#include <thread>

namespace
{
// Pause between two tries of a POLL, so that polling does not spin a core.
constexpr auto kPollInterval = std::chrono::microseconds(50);
} // namespace

unsigned char CTarvikSimSpiSequence::Parse(const std::string& script, size_t maxOutput)
{
    m_sScript = script;
    m_aSteps.clear();
    size_t output = 0;
    unsigned long waitUs = 0;
    size_t pos = 0;
    while (pos < script.size())
    {
        SStep step{static_cast<EOpCode>(static_cast<unsigned char>(script[pos])), 0, 0, 0, 0, 0, 0};
        ++pos;
        size_t left = script.size() - pos;
        switch (step.eOp)
        {
        case eOpEnd: return eTarvikSimSpiOk;
        case eOpSelect:
        case eOpDeselect: break;
        case eOpWrite:
        case eOpTransfer:
        case eOpRead:
            if (left < 2)
                return eTarvikSimSpiInconsistent;
            step.nCount = CTarvikPayload(script).U16At(pos);
            pos += 2;
            if (step.eOp != eOpRead)
            {
                if (left - 2 < step.nCount)
                    return eTarvikSimSpiInconsistent;
                step.nOffset = pos;
                pos += step.nCount;
            }
            if (step.eOp != eOpWrite)
            {
                output += step.nCount;
                if (output > maxOutput)
                    return eTarvikSimSpiInconsistent;
            }
            break;
        case eOpDelay:
            if (left < 2)
                return eTarvikSimSpiInconsistent;
            step.nCount = CTarvikPayload(script).U16At(pos);
            pos += 2;
            waitUs += step.nCount;
            break;
        case eOpPoll:
            if (left < 5)
                return eTarvikSimSpiInconsistent;
            step.nCmd = static_cast<unsigned char>(script[pos]);
            step.nMask = static_cast<unsigned char>(script[pos + 1]);
            step.nValue = static_cast<unsigned char>(script[pos + 2]);
            step.nTimeoutMs = CTarvikPayload(script).U16At(pos + 3);
            pos += 5;
            waitUs += step.nTimeoutMs * 1000ul;
            break;
        default: return eTarvikSimSpiUnknownOpCode;
        }
        // Checked per step: the sum cannot overflow before it passes the limit.
        if (waitUs > kMaxWaitMicroSeconds)
            return eTarvikSimSpiTimeout;
        m_aSteps.push_back(step);
    }
    return eTarvikSimSpiOk;
}

unsigned char CTarvikSimSpiSequence::Run(CTarvikSimSpiSlave& slave, std::string& out) const
{
    bool selected = false;
    unsigned char result = eTarvikSimSpiOk;
    for (const SStep& step : m_aSteps)
    {
        switch (step.eOp)
        {
        case eOpSelect:
            if (!selected)
                slave.Select();
            selected = true;
            break;
        case eOpDeselect:
            if (selected)
                slave.Deselect();
            selected = false;
            break;
        case eOpWrite:
        case eOpTransfer:
            for (size_t i = 0; i < step.nCount; ++i)
            {
                unsigned char miso = selected ? slave.Transfer(static_cast<unsigned char>(m_sScript[step.nOffset + i]))
                                              : CTarvikSimSpiSlave::kIdleByte;
                if (step.eOp == eOpTransfer)
                    out.push_back(static_cast<char>(miso));
            }
            break;
        case eOpRead:
            for (size_t i = 0; i < step.nCount; ++i)
                out.push_back(static_cast<char>(selected ? slave.Transfer(kFillByte) : CTarvikSimSpiSlave::kIdleByte));
            break;
        case eOpDelay: std::this_thread::sleep_for(std::chrono::microseconds(step.nCount)); break;
        case eOpPoll:
            if (selected)
                slave.Deselect();
            selected = false;
            if (!Poll(slave, step))
                result = eTarvikSimSpiTimeout;
            break;
        case eOpEnd: break;
        }
        if (result != eTarvikSimSpiOk)
            break;
    }
    if (selected)
        slave.Deselect();
    return result;
}

bool CTarvikSimSpiSequence::Poll(CTarvikSimSpiSlave& slave, const SStep& step) const
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(step.nTimeoutMs);
    for (;;)
    {
        slave.Select();
        slave.Transfer(step.nCmd);
        unsigned char value = slave.Transfer(kFillByte);
        slave.Deselect();
        if ((value & step.nMask) == step.nValue)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
}
