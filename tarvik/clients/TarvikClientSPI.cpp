#include "tarvik/clients/TarvikClientSPI.h"

CTarvikClientSPI::CTarvikClientSPI(int timeoutMs)
    : CTarvikClient(eTarvikSPI, static_cast<unsigned int>(timeoutMs)), m_nReserved(100000)
{
}

CTarvikClientSPI::~CTarvikClientSPI()
{
    StopConnection();
}

int CTarvikClientSPI::Open()
{
    return CTarvikClient::Open();
}

int CTarvikClientSPI::SetGlobals(unsigned int rate, unsigned char setting1, unsigned char setting2,
                                 unsigned char setting3)
{
    std::string payload = CTarvikMsg::ToChar(rate);
    payload += static_cast<char>(setting1);
    payload += static_cast<char>(setting2);
    payload += static_cast<char>(setting3);
    CTarvikReply reply;
    return Request(eCmdSetGlobals, std::move(payload), reply);
}

int CTarvikClientSPI::GetGlobals(unsigned int& rate, unsigned char& setting1, unsigned char& setting2,
                                 unsigned char& setting3)
{
    CTarvikReply reply;
    int result = Request(eCmdGetGlobals, nullptr, 0, reply);
    if (result == 0 && reply.Size() > 7)
    {
        reply.ReadU32(1, rate);
        reply.ReadU8(5, setting1);
        reply.ReadU8(6, setting2);
        reply.ReadU8(7, setting3);
    }
    return result;
}

int CTarvikClientSPI::DataReq(const char* send, unsigned short sendLen, char* recv, unsigned short recvLen)
{
    // The device clocks as many bytes as it is sent: pad so the answer fills recv.
    std::string payload(sendLen > recvLen ? sendLen : recvLen, '\0');
    if (send != nullptr && sendLen > 0)
        payload.replace(0, sendLen, send, sendLen);
    // The answer is the result byte and one byte per byte clocked.
    size_t answerLen = 1 + payload.size();
    CTarvikReply reply;
    int result = Request(eCmdDataReq, std::move(payload), reply, nullptr, answerLen);
    if (reply.Transport() == 0)
        reply.CopyTo(1, recv, recvLen);
    return result;
}

int CTarvikClientSPI::SequenceReq(const char* seq, unsigned short len, char* out, unsigned short outLen)
{
    CTarvikReply reply;
    int result = Request(eCmdSequence, seq, len, reply);
    // Unlike the other reads this one hands out the result byte too, at out[0].
    if (reply.Transport() == 0)
        reply.CopyTo(0, out, outLen);
    return result;
}

int CTarvikClientSPI::SequenceReq(const char* seq, unsigned short len, short* id)
{
    return Post(eCmdSequence, seq, len, id);
}

int CTarvikClientSPI::SequenceGetCnf(short id, char* out, unsigned short outLen)
{
    CTarvikReply reply;
    int result = Collect(id, MakeCmdCode(eCmdSequence), reply);
    if (reply.Transport() == 0)
        reply.CopyTo(1, out, outLen);
    return result;
}

int CTarvikClientSPI::ReadDigital(unsigned int& inputs, unsigned int& outputs)
{
    return BaseReadDigital(inputs, outputs);
}

int CTarvikClientSPI::WriteDigital(unsigned int outputs)
{
    return BaseWriteDigital(outputs);
}

std::string CTarvikClientSPI::ToOffset(unsigned int offset, EOffsetFormat format)
{
    int bytes = static_cast<int>(format);
    if (bytes < 1 || bytes > 4)
        return std::string();
    std::string out(static_cast<size_t>(bytes), '\0');
    for (int i = 0; i < bytes; ++i)
        out[i] = static_cast<char>((offset >> (8 * (bytes - 1 - i))) & 0xFF);
    return out;
}

unsigned int CTarvikClientSPI::GetEEPROMSlaveAddress(unsigned short subAddress, unsigned int offset, unsigned int flags)
{
    unsigned int bits = flags & 0xFF;
    if (bits > 16)
        bits = 16;
    unsigned int extra = (flags & 0x300) >> 8;
    unsigned int base = 0xA0;
    switch (extra)
    {
    case 0: base |= (subAddress & 7u) << 1; break;
    case 1: base |= (subAddress & 3u) << 2; break;
    case 2: base |= (subAddress & 1u) << 3; break;
    default: break;
    }
    // The extra offset bits above the word address land in bits 1.. of the slave address.
    unsigned long long mask = (1ull << (bits + extra)) - (1ull << bits);
    unsigned long long high = offset & mask;
    unsigned int shifted =
        bits > 0 ? static_cast<unsigned int>(high >> (bits - 1)) : static_cast<unsigned int>(high << 1);
    return base | shifted;
}
