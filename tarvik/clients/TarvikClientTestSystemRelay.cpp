#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include "tarvik/clients/TarvikTestSystemWordsPrivate.h"

CTarvikClientTestSystemRelay::CTarvikClientTestSystemRelay(int timeoutMs)
    : CTarvikClient(eTarvikTestSystemRelay, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientTestSystemRelay::~CTarvikClientTestSystemRelay()
{
    StopConnection();
}

int CTarvikClientTestSystemRelay::Open()
{
    return CTarvikClient::Open();
}

int CTarvikClientTestSystemRelay::SetRelay(unsigned char nRelay, bool bOn)
{
    std::string payload(1, static_cast<char>(nRelay));
    payload += static_cast<char>(bOn ? 1 : 0);
    CTarvikReply reply;
    return Request(eCmdSetRelay, std::move(payload), reply);
}

int CTarvikClientTestSystemRelay::GetButton(unsigned char nButton, bool& bPressed)
{
    CTarvikReply reply;
    int result = Request(eCmdGetButton, std::string(1, static_cast<char>(nButton)), reply);
    if (reply.Transport() != 0)
        return result;
    unsigned char state = 0;
    bPressed = result == 0 && reply.ReadU8(1, state) && state != 0;
    return result;
}

int CTarvikClientTestSystemRelay::SetPower(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    return Request(eCmdSetPower, tarvik_detail::EncodeWords(pValues, nCount), reply);
}

int CTarvikClientTestSystemRelay::GetPower(unsigned short* pValues, unsigned char nCount)
{
    CTarvikReply reply;
    int result = Request(eCmdGetPower, nullptr, 0, reply);
    if (reply.Transport() == 0)
        tarvik_detail::DecodeWords(reply, pValues, nCount);
    return result;
}
