#include "tarvik/clients/TarvikClientTestSystemPWR.h"

#include "tarvik/clients/TarvikTestSystemWordsPrivate.h"

CTarvikClientTestSystemPWR::CTarvikClientTestSystemPWR(int timeoutMs)
    : CTarvikClient(eTarvikTestSystemPWR, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientTestSystemPWR::~CTarvikClientTestSystemPWR()
{
    StopConnection();
}

int CTarvikClientTestSystemPWR::Open()
{
    return CTarvikClient::Open();
}

int CTarvikClientTestSystemPWR::SetValue(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    return Request(eCmdSetValue, tarvik_detail::EncodeWords(pValues, nCount), reply);
}

int CTarvikClientTestSystemPWR::GetValue(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    int result = Request(eCmdGetValue, nullptr, 0, reply);
    if (reply.Transport() == 0)
        tarvik_detail::DecodeWords(reply, pValues, nCount);
    return result;
}
