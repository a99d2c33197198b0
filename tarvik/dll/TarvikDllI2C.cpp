#include "tarvik/dll/TarvikDllI2C.h"

#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/dll/TarvikDllPrivate.h"

#include <vector>

using tarvik_dll::COut;
using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
constexpr size_t kMaxCount = 0xFFFF;

// A buffer and its length as the client takes them; false: answer 0x920000.
bool Fit(const void* buf, int len, unsigned short& out)
{
    return IsBuffer(buf, len) && FitLength(len, kMaxCount, out);
}
} // namespace

int I2COpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, eTarvikI2C, portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int I2CCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientI2C>(handle);
}

int I2CSetBaudrate(int handle, unsigned int baudrate)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) { return i2c.SetBaudrate(baudrate); });
}

int I2CGetBaudrate(int handle, unsigned int* baudrate)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        COut<unsigned int> rate(baudrate);
        return i2c.GetBaudrate(*rate);
    });
}

int I2CReset(int handle)
{
    return WithClient<CTarvikClientI2C>(handle, [](CTarvikClientI2C& i2c) { return i2c.Reset(); });
}

int I2CReadDigital(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        COut<unsigned int> in(inputs), out(outputs);
        return i2c.ReadDigital(*in, *out);
    });
}

int I2CWriteDigital(int handle, unsigned int outputs)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) { return i2c.WriteDigital(outputs); });
}

int I2CRead(int handle, unsigned short slaveAddress, char* buf, int len, unsigned short* received)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short count = 0;
        if (!Fit(buf, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> got(received);
        return i2c.Read(slaveAddress, buf, count, *got);
    });
}

int I2CWrite(int handle, unsigned short slaveAddress, const char* data, int len, unsigned short* errorPos)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short count = 0;
        if (!Fit(data, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> pos(errorPos);
        return i2c.Write(slaveAddress, data, count, *pos);
    });
}

int I2CRAWStart(int handle)
{
    return WithClient<CTarvikClientI2C>(handle, [](CTarvikClientI2C& i2c) { return i2c.RAWStart(); });
}

int I2CRAWSend(int handle, unsigned char byte, unsigned char flags)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) { return i2c.RAWSend(byte, flags); });
}

int I2CRAWGet(int handle, unsigned char flags, unsigned char* byte)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        COut<unsigned char> got(byte);
        return i2c.RAWGet(flags, *got);
    });
}

int I2CRAWStop(int handle)
{
    return WithClient<CTarvikClientI2C>(handle, [](CTarvikClientI2C& i2c) { return i2c.RAWStop(); });
}

int I2CWriteSequence(int handle, const char* sequence, int sequenceLen, char* readBuf, int readLen,
                     unsigned short* received, unsigned short* errorPos)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short seqCount = 0, readCount = 0;
        if (!Fit(sequence, sequenceLen, seqCount) || !Fit(readBuf, readLen, readCount))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> got(received), pos(errorPos);
        return i2c.WriteSequence(sequence, seqCount, readBuf, readCount, *got, *pos);
    });
}

int I2CWriteSequenceSteps(int handle, STarvikI2CStep* steps, int count, unsigned short* errorPos)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short stepCount = 0;
        if (!Fit(steps, count, stepCount))
            return TARVIK_ERR_INVALID_PARAMETER;
        // The client's steps point at the caller's buffers, so read steps land there.
        std::vector<CTarvikClientI2C::I2CCommand> commands(stepCount);
        for (unsigned short i = 0; i < stepCount; ++i)
        {
            if (!IsBuffer(steps[i].pBuffer, steps[i].nLength))
                return TARVIK_ERR_INVALID_PARAMETER;
            commands[i] = {steps[i].nCommand, steps[i].nLength, steps[i].pBuffer};
        }
        COut<unsigned short> pos(errorPos);
        return i2c.WriteSequence(commands.data(), stepCount, *pos);
    });
}

int EEPROMWrite(int handle, unsigned short deviceSelect, unsigned int offset, unsigned short eepromType,
                const char* data, int len)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short count = 0;
        if (!Fit(data, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return i2c.WriteEEProm(deviceSelect, offset, eepromType, data, count);
    });
}

int EEPROMWritePollAck(int handle, unsigned short deviceSelect, unsigned int offset, unsigned short eepromType,
                       const char* data, int len, unsigned short pollTime)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short count = 0;
        if (!Fit(data, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return i2c.WriteEEPromPollAck(deviceSelect, offset, eepromType, data, count, pollTime);
    });
}

int EEPROMRead(int handle, unsigned short deviceSelect, unsigned int offset, unsigned short eepromType, char* buf,
               int len, unsigned short* received)
{
    return WithClient<CTarvikClientI2C>(handle, [&](CTarvikClientI2C& i2c) {
        unsigned short count = 0;
        if (!Fit(buf, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> got(received);
        return i2c.ReadEEProm(deviceSelect, offset, eepromType, buf, count, *got);
    });
}

unsigned int EEPROMGetSlaveAddress(unsigned short deviceSelect, unsigned int offset, unsigned short eepromType)
{
    return CTarvikClientI2C::GetEEPROMSlaveAddress(deviceSelect, offset, eepromType);
}

int EEPROMGetAddressByteCount(unsigned short eepromType)
{
    return CTarvikClientI2C::GetAddressByteCount(eepromType);
}
