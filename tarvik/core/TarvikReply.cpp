#include "tarvik/core/TarvikReply.h"

#include <cstring>

CTarvikReply::CTarvikReply() : m_nTransport(0), m_nResult(0) {}

CTarvikReply::~CTarvikReply() = default;

void CTarvikReply::Set(int transport, int result, CTarvikMsg* cnf)
{
    m_pCnf.reset(cnf);
    m_nTransport = transport;
    m_nResult = result;
}

size_t CTarvikReply::Size() const
{
    return m_pCnf ? m_pCnf->GetData().size() : 0;
}

const char* CTarvikReply::Data() const
{
    return m_pCnf ? m_pCnf->GetData().data() : "";
}

bool CTarvikReply::ReadU8(size_t pos, unsigned char& value) const
{
    if (pos >= Size())
        return false;
    value = static_cast<unsigned char>(Data()[pos]);
    return true;
}

bool CTarvikReply::ReadU32(size_t pos, unsigned int& value) const
{
    if (pos > Size() || Size() - pos < 4)
        return false;
    CTarvikMsg::FromChar(value, Data() + pos);
    return true;
}

size_t CTarvikReply::CopyTo(size_t pos, void* out, size_t max) const
{
    if (out == nullptr || pos >= Size())
        return 0;
    size_t count = Size() - pos < max ? Size() - pos : max;
    if (count > 0)
        std::memcpy(out, Data() + pos, count);
    return count;
}

std::string CTarvikReply::Substr(size_t pos) const
{
    if (pos >= Size())
        return std::string();
    return std::string(Data() + pos, Size() - pos);
}
