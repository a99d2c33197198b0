#include "tarvik/clients/TarvikClientI2C.h"

#include <algorithm>
#include <vector>

namespace
{
// Rates the device is commonly asked for in kHz.
constexpr unsigned int kRate100kHz = 100;
constexpr unsigned int kRate400kHz = 400;
// Result byte and error position lead the answers of writes and sequences.
constexpr size_t kErrorPosEnd = 3;

// 2^bits as a mask base, saturating: an over-wide type word masks nothing away.
unsigned long long Pow2(unsigned int bits)
{
    return bits >= 64 ? ~0ull : 1ull << bits;
}

// Right by n, or left by -n when the memory bits must climb.
unsigned int Shift(unsigned long long value, int n)
{
    return static_cast<unsigned int>(n >= 0 ? value >> n : value << -n);
}

unsigned int InSlaveBits(unsigned short type)
{
    return (type >> 8) & 3u;
}
} // namespace

CTarvikClientI2C::CTarvikClientI2C(int timeoutMs)
    : CTarvikClient(eTarvikI2C, static_cast<unsigned int>(timeoutMs)), m_nBaudrate(kDefaultBaudrate)
{
}

CTarvikClientI2C::~CTarvikClientI2C()
{
    StopConnection();
}

int CTarvikClientI2C::Open(unsigned int nBaudrate)
{
    int result = CTarvikClient::Open();
    return result != 0 ? result : SetBaudrate(nBaudrate);
}

int CTarvikClientI2C::SetBaudrate(unsigned int nBaudrate)
{
    unsigned int rate = nBaudrate;
    if (rate == kRate100kHz || rate == kRate400kHz)
        rate *= 1000;
    CTarvikReply reply;
    int result = Request(eCmdSetBaudrate, CTarvikMsg::ToChar(rate), reply);
    if (result == 0)
        m_nBaudrate = rate;
    return result;
}

int CTarvikClientI2C::GetBaudrate(unsigned int& nBaudrate)
{
    CTarvikReply reply;
    int result = Request(eCmdGetBaudrate, nullptr, 0, reply);
    if (reply.Transport() == 0 && reply.ReadU32(1, nBaudrate) && result == 0)
        m_nBaudrate = nBaudrate;
    return result;
}

int CTarvikClientI2C::Reset()
{
    CTarvikReply reply;
    return Request(eCmdReset, nullptr, 0, reply);
}

int CTarvikClientI2C::ReadDigital(unsigned int& inputs, unsigned int& outputs)
{
    return BaseReadDigital(inputs, outputs);
}

int CTarvikClientI2C::WriteDigital(unsigned int outputs)
{
    return BaseWriteDigital(outputs);
}

int CTarvikClientI2C::Read(unsigned short nSlaveAddress, char* pBuffer, unsigned short nBufferLen,
                           unsigned short& nReceived)
{
    nReceived = 0;
    std::string payload = CTarvikMsg::ToChar(nSlaveAddress) + CTarvikMsg::ToChar(nBufferLen);
    CTarvikReply reply;
    int result = Request(eCmdRead, std::move(payload), reply, nullptr, 1 + size_t(nBufferLen));
    if (reply.Transport() == 0)
        nReceived = static_cast<unsigned short>(reply.CopyTo(1, pBuffer, nBufferLen));
    return result;
}

int CTarvikClientI2C::Write(unsigned short nSlaveAddress, const char* pBuffer, unsigned short nBufferLen,
                            unsigned short& nErrorPos)
{
    if (pBuffer == nullptr && nBufferLen > 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string payload = CTarvikMsg::ToChar(nSlaveAddress);
    payload.append(pBuffer != nullptr ? pBuffer : "", nBufferLen);
    CTarvikReply reply;
    int result = Request(eCmdWrite, std::move(payload), reply);
    if (reply.Transport() == 0)
        reply.Payload().ReadU16(1, nErrorPos);
    return result;
}

int CTarvikClientI2C::RAWStart()
{
    CTarvikReply reply;
    return Request(eCmdRAWStart, nullptr, 0, reply);
}

int CTarvikClientI2C::RAWSend(unsigned char nByte, unsigned char nFlags)
{
    const char payload[] = {static_cast<char>(nByte), static_cast<char>(nFlags)};
    CTarvikReply reply;
    return Request(eCmdRAWSend, payload, sizeof(payload), reply);
}

int CTarvikClientI2C::RAWGet(unsigned char nFlags, unsigned char& nByte)
{
    const char payload[] = {static_cast<char>(nFlags)};
    CTarvikReply reply;
    int result = Request(eCmdRAWGet, payload, sizeof(payload), reply);
    if (result == 0)
        reply.ReadU8(1, nByte);
    return result;
}

int CTarvikClientI2C::RAWStop()
{
    CTarvikReply reply;
    return Request(eCmdRAWStop, nullptr, 0, reply);
}

int CTarvikClientI2C::WriteSequence(const char* pSequence, unsigned short nSequenceLen, char* pReadBuffer,
                                    unsigned short nReadBufferLen, unsigned short& nReceived, unsigned short& nErrorPos)
{
    if (pSequence == nullptr && nSequenceLen > 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string payload = CTarvikMsg::ToChar(nReadBufferLen);
    payload.append(pSequence != nullptr ? pSequence : "", nSequenceLen);
    CTarvikReply reply;
    int result = Request(eCmdSequence, std::move(payload), reply, nullptr, kErrorPosEnd + nReadBufferLen);
    if (reply.Transport() == 0)
    {
        reply.Payload().ReadU16(1, nErrorPos);
        nReceived = static_cast<unsigned short>(reply.CopyTo(kErrorPosEnd, pReadBuffer, nReadBufferLen));
    }
    return result;
}

int CTarvikClientI2C::WriteSequence(I2CCommand* pCommands, unsigned short nCount, unsigned short& nErrorPos)
{
    if (pCommands == nullptr && nCount > 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string sequence;
    size_t readLen = 0;
    for (unsigned short i = 0; i < nCount; ++i)
    {
        const I2CCommand& step = pCommands[i];
        if (step.pBuffer == nullptr && step.nLength > 0)
            return TARVIK_ERR_INVALID_PARAMETER;
        sequence += CTarvikMsg::ToChar(step.nCommand) + CTarvikMsg::ToChar(step.nLength);
        if (step.nCommand & 1)
            readLen += step.nLength;
        else
            sequence.append(step.pBuffer != nullptr ? step.pBuffer : "", step.nLength);
    }
    // The byte-level form carries both lengths in 16 bits.
    if (sequence.size() > 0xFFFF || readLen > 0xFFFF)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::vector<char> read(readLen);
    unsigned short received = 0;
    int result = WriteSequence(sequence.data(), static_cast<unsigned short>(sequence.size()), read.data(),
                               static_cast<unsigned short>(readLen), received, nErrorPos);
    size_t unassigned = received;
    for (unsigned short i = 0; i < nCount; ++i)
    {
        const I2CCommand& step = pCommands[i];
        if (!(step.nCommand & 1))
            continue;
        size_t count = step.nLength < unassigned ? step.nLength : unassigned;
        // Deliberately from the start of the bytes read, for every read step.
        std::copy(read.begin(), read.begin() + static_cast<std::ptrdiff_t>(count), step.pBuffer);
        unassigned -= count;
    }
    return result;
}

int CTarvikClientI2C::WriteEEProm(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType,
                                  const char* pBuffer, unsigned short nBufferLen)
{
    if (pBuffer == nullptr && nBufferLen > 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string payload = EEPromHeader(nDeviceSelect, nOffset, nEEPROMType);
    payload.append(pBuffer != nullptr ? pBuffer : "", nBufferLen);
    CTarvikReply reply;
    return Request(eCmdWriteEEProm, std::move(payload), reply);
}

int CTarvikClientI2C::WriteEEPromPollAck(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType,
                                         const char* pBuffer, unsigned short nBufferLen, unsigned short nPollTime)
{
    if (pBuffer == nullptr && nBufferLen > 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    unsigned short slave = static_cast<unsigned short>(GetEEPROMSlaveAddress(nDeviceSelect, nOffset, nEEPROMType));
    std::string payload = CTarvikMsg::ToChar(slave) + CTarvikMsg::ToChar(nPollTime);
    payload += static_cast<char>(GetAddressByteCount(nEEPROMType));
    payload += ToOffset(nOffset, nEEPROMType);
    payload.append(pBuffer != nullptr ? pBuffer : "", nBufferLen);
    CTarvikReply reply;
    return Request(eCmdWriteEEPromPollAck, std::move(payload), reply);
}

int CTarvikClientI2C::ReadEEProm(unsigned short nDeviceSelect, unsigned int nOffset, unsigned short nEEPROMType,
                                 char* pBuffer, unsigned short nBufferLen, unsigned short& nReceived)
{
    std::string payload = EEPromHeader(nDeviceSelect, nOffset, nEEPROMType) + CTarvikMsg::ToChar(nBufferLen);
    CTarvikReply reply;
    int result = Request(eCmdReadEEProm, std::move(payload), reply, nullptr, 1 + size_t(nBufferLen));
    if (reply.Transport() != 0)
        return result;
    size_t n = reply.Size() > 0 ? reply.Size() - 1 : 0;
    // Some firmware answers two bytes ahead of the data; the length tells which.
    size_t from = n == size_t(nBufferLen) + 2 ? 3 : 1;
    nReceived = static_cast<unsigned short>(reply.CopyTo(from, pBuffer, n < nBufferLen ? n : nBufferLen));
    return result;
}

std::string CTarvikClientI2C::ToOffset(unsigned int nOffset, unsigned short nEEPROMType)
{
    unsigned int bits = (nEEPROMType & 0xFFu) + InSlaveBits(nEEPROMType);
    unsigned int masked = static_cast<unsigned int>(nOffset & (Pow2(bits) - 1));
    std::string out(4, '\0');
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<char>((masked >> (8 * (3 - i))) & 0xFF);
    return out;
}

unsigned int CTarvikClientI2C::GetEEPROMSlaveAddress(unsigned short nDeviceSelect, unsigned int nOffset,
                                                     unsigned short nEEPROMType)
{
    unsigned int low = nEEPROMType & 0xFFu;
    if (low > 16)
        low = 16;
    int l = static_cast<int>(low);
    unsigned long long high = nOffset & (Pow2(low + InSlaveBits(nEEPROMType)) - Pow2(low));
    unsigned int select = nDeviceSelect;
    unsigned int address = 0xA0;
    switch (nEEPROMType & 0x700)
    {
    case 0x000: return address | (select & 7u) << 1 | Shift(high, l - 1);
    case 0x100: return address | (select & 3u) << 2 | Shift(high, l - 1);
    case 0x200: return address | (select & 1u) << 3 | Shift(high, l - 1);
    // Bit 10 set: the memory bits sit above the chip-select bits.
    case 0x500: return address | (select & 3u) << 1 | Shift(high, l - 3);
    case 0x600: return address | (select & 1u) << 1 | Shift(high, l - 2);
    default: return address | Shift(high, l - 1);
    }
}

unsigned char CTarvikClientI2C::GetAddressByteCount(unsigned short nEEPROMType)
{
    return (nEEPROMType & 0xFF) < 9 ? 1 : 2;
}

std::string CTarvikClientI2C::EEPromHeader(unsigned short nDeviceSelect, unsigned int nOffset,
                                           unsigned short nEEPROMType)
{
    unsigned short slave = static_cast<unsigned short>(GetEEPROMSlaveAddress(nDeviceSelect, nOffset, nEEPROMType));
    std::string header = CTarvikMsg::ToChar(slave);
    header += static_cast<char>(GetAddressByteCount(nEEPROMType));
    return header + ToOffset(nOffset, nEEPROMType);
}
