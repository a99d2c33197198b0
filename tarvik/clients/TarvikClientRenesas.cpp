#include "tarvik/clients/TarvikClientRenesas.h"

#include <string>

namespace
{
// Size of a page read's answer: the result byte and one page.
constexpr size_t kReadPageAnswer = 1 + CTarvikClientRenesas::kPageSize;
// A checksum answer: the result byte and the 16-bit sum.
constexpr size_t kChecksumAnswer = 3;

// The first min(len, 7) ID bytes; the target's protocol fills the rest of the seven
// with their 1-based positions, so a short ID still travels as a full field.
std::string IDField(const char* id, unsigned char len)
{
    std::string field;
    for (size_t k = 0; k < CTarvikClientRenesas::kIDSize; ++k)
    {
        bool given = id != nullptr && k < len;
        field += given ? id[k] : static_cast<char>(k + 1);
    }
    return field;
}
} // namespace

CTarvikClientRenesas::CTarvikClientRenesas(int timeoutMs)
    : CTarvikClient(eTarvikRenesas, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientRenesas::~CTarvikClientRenesas()
{
    StopConnection();
}

int CTarvikClientRenesas::Init()
{
    CTarvikReply reply;
    return Request(eCmdInit, nullptr, 0, reply);
}

int CTarvikClientRenesas::CheckID(const char* pID, unsigned char nIDLen)
{
    CTarvikReply reply;
    return Request(eCmdCheckID, IDField(pID, nIDLen), reply);
}

int CTarvikClientRenesas::SetBaudrate(unsigned char nBaudrate)
{
    CTarvikReply reply;
    return Request(eCmdSetBaudrate, std::string(1, static_cast<char>(nBaudrate)), reply);
}

int CTarvikClientRenesas::ReadPage(unsigned short nPage, char* pBuffer, unsigned short nBufferLen,
                                   unsigned short& nReceived)
{
    nReceived = 0;
    CTarvikReply reply;
    int result = Request(eCmdReadPage, CTarvikMsg::ToChar(nPage), reply, nullptr, kReadPageAnswer);
    // Whatever the confirmation carries is handed out, also with an error result.
    if (reply.Transport() == 0)
        nReceived = static_cast<unsigned short>(reply.CopyTo(1, pBuffer, nBufferLen));
    return result;
}

int CTarvikClientRenesas::EraseAll()
{
    CTarvikReply reply;
    return Request(eCmdEraseAll, nullptr, 0, reply);
}

int CTarvikClientRenesas::WritePage(unsigned short nPage, const char* pBuffer, unsigned short nBufferLen)
{
    // Always a whole page, zero-padded: the gateway programs exactly 256 bytes.
    std::string page(kPageSize, '\0');
    size_t len = nBufferLen < kPageSize ? nBufferLen : kPageSize;
    if (pBuffer != nullptr && len > 0)
        page.replace(0, len, pBuffer, len);
    CTarvikReply reply;
    return Request(eCmdWritePage, CTarvikMsg::ToChar(nPage) + page, reply);
}

int CTarvikClientRenesas::GetVersion(char* pBuffer, unsigned char nBufferLen)
{
    CTarvikReply reply;
    int result = Request(eCmdGetVersion, nullptr, 0, reply);
    if (reply.Transport() == 0)
        reply.CopyTo(1, pBuffer, nBufferLen);
    return result;
}

int CTarvikClientRenesas::Complete()
{
    CTarvikReply reply;
    return Request(eCmdComplete, nullptr, 0, reply);
}

int CTarvikClientRenesas::VerifyCheck(unsigned short nFirst, unsigned short nSecond, unsigned short& nChecksum)
{
    CTarvikReply reply;
    int result = Request(eCmdVerifyCheck, CTarvikMsg::ToChar(nFirst) + CTarvikMsg::ToChar(nSecond), reply, nullptr,
                         kChecksumAnswer);
    if (reply.Transport() != 0)
        return result;
    // Any confirmation clears the sum; one that carries it sets it, also with an error result.
    nChecksum = 0;
    reply.Payload().ReadU16(1, nChecksum);
    return result;
}

int CTarvikClientRenesas::BlockErase(unsigned short nBlock)
{
    CTarvikReply reply;
    return Request(eCmdBlockErase, CTarvikMsg::ToChar(nBlock), reply);
}

int CTarvikClientRenesas::ReadDigital(unsigned int& inputs, unsigned int& outputs)
{
    return BaseReadDigital(inputs, outputs);
}

int CTarvikClientRenesas::WriteDigital(unsigned int outputs)
{
    return BaseWriteDigital(outputs);
}
