#include "tarvik/clients/TarvikClientDIO.h"

CTarvikClientDIO::CTarvikClientDIO(int timeoutMs) : CTarvikClient(eTarvikDIO, static_cast<unsigned int>(timeoutMs)) {}

CTarvikClientDIO::~CTarvikClientDIO()
{
    StopConnection();
}

int CTarvikClientDIO::Read(unsigned int& inputs, unsigned int& outputs)
{
    return BaseReadDigital(inputs, outputs);
}

int CTarvikClientDIO::Write(unsigned int outputs)
{
    return BaseWriteDigital(outputs);
}
