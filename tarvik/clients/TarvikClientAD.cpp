#include "tarvik/clients/TarvikClientAD.h"

CTarvikClientAD::CTarvikClientAD(int timeoutMs) : CTarvikClient(eTarvikAD, static_cast<unsigned int>(timeoutMs)) {}

CTarvikClientAD::~CTarvikClientAD()
{
    StopConnection();
}

int CTarvikClientAD::ReadDigital(unsigned int& inputs, unsigned int& outputs)
{
    return BaseReadDigital(inputs, outputs);
}

int CTarvikClientAD::WriteDigital(unsigned int outputs)
{
    return BaseWriteDigital(outputs);
}

int CTarvikClientAD::ReadDigitalInput(unsigned int& input0, unsigned int& input1, unsigned int& input2)
{
    unsigned int discarded = 0;
    int result = BaseReadDigital(input0, discarded);
    if (result != 0)
        return result;
    input1 = (input0 >> 8) & 0xFF;
    input2 = (input0 >> 16) & 0xFF;
    input0 &= 0xFF;
    return result;
}

int CTarvikClientAD::Read(std::vector<unsigned int>& values)
{
    values.clear();
    CTarvikReply reply;
    int result = Request(eCmdRead, nullptr, 0, reply);
    if (reply.Transport() != 0 || reply.Size() == 0)
        return result;
    size_t count = (reply.Size() - 1) / 4;
    values.reserve(count);
    for (size_t i = 0; i < count; ++i)
    {
        unsigned int value = 0;
        reply.ReadU32(1 + 4 * i, value);
        values.push_back(value);
    }
    return result;
}
