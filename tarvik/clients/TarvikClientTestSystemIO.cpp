#include "tarvik/clients/TarvikClientTestSystemIO.h"

#include "tarvik/clients/TarvikTestSystemWordsPrivate.h"

CTarvikClientTestSystemIO::CTarvikClientTestSystemIO(int timeoutMs)
    : CTarvikClient(eTarvikTestSystemIO, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientTestSystemIO::~CTarvikClientTestSystemIO()
{
    StopConnection();
}

int CTarvikClientTestSystemIO::Open()
{
    return CTarvikClient::Open();
}

int CTarvikClientTestSystemIO::SetValue(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    return Request(eCmdSetValue, tarvik_detail::EncodeWords(pValues, nCount), reply);
}

int CTarvikClientTestSystemIO::GetValue(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    int result = Request(eCmdGetValue, nullptr, 0, reply);
    if (reply.Transport() == 0)
        tarvik_detail::DecodeWords(reply, pValues, nCount);
    return result;
}

int CTarvikClientTestSystemIO::SetPower(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    return Request(eCmdSetPower, tarvik_detail::EncodeWords(pValues, nCount), reply);
}

int CTarvikClientTestSystemIO::GetPower(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    int result = Request(eCmdGetPower, nullptr, 0, reply);
    if (reply.Transport() == 0)
        tarvik_detail::DecodeWords(reply, pValues, nCount);
    return result;
}
