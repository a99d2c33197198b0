#include "tarvik/core/TarvikReply.h"

CTarvikReply::CTarvikReply() : m_bHasCnf(false), m_nTransport(0), m_nResult(0) {}

CTarvikReply::~CTarvikReply() = default;

void CTarvikReply::Set(int transport, int result, CTarvikMsg* cnf)
{
    const bool received = cnf != nullptr;
    if (received)
        m_oCnf = std::move(*cnf);
    delete cnf;
    Set(transport, result, received);
}

void CTarvikReply::Set(int transport, int result, bool received)
{
    if (!received)
        m_oCnf = CTarvikMsg();
    m_bHasCnf = received;
    m_nTransport = transport;
    m_nResult = result;
}

size_t CTarvikReply::Size() const
{
    return m_bHasCnf ? m_oCnf.GetData().size() : 0;
}

const char* CTarvikReply::Data() const
{
    return m_bHasCnf ? m_oCnf.GetData().data() : "";
}

bool CTarvikReply::ReadU8(size_t pos, unsigned char& value) const
{
    return Payload().ReadU8(pos, value);
}

bool CTarvikReply::ReadU32(size_t pos, unsigned int& value) const
{
    return Payload().ReadU32(pos, value);
}

size_t CTarvikReply::CopyTo(size_t pos, void* out, size_t max) const
{
    return Payload().CopyTo(pos, out, max);
}

std::string CTarvikReply::Substr(size_t pos) const
{
    if (pos >= Size())
        return std::string();
    return std::string(Data() + pos, Size() - pos);
}
