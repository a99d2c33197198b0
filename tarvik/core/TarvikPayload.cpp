#include "tarvik/core/TarvikPayload.h"

#include "tarvik/core/TarvikMsg.h"

#include <cstring>

bool CTarvikPayload::ReadU8(size_t pos, unsigned char& value) const
{
    if (!Has(pos, 1))
        return false;
    value = static_cast<unsigned char>(m_pData[pos]);
    return true;
}

bool CTarvikPayload::ReadU16(size_t pos, unsigned short& value) const
{
    if (!Has(pos, 2))
        return false;
    CTarvikMsg::FromChar(value, m_pData + pos);
    return true;
}

bool CTarvikPayload::ReadS16(size_t pos, short& value) const
{
    if (!Has(pos, 2))
        return false;
    CTarvikMsg::FromChar(value, m_pData + pos);
    return true;
}

bool CTarvikPayload::ReadU32(size_t pos, unsigned int& value) const
{
    if (!Has(pos, 4))
        return false;
    CTarvikMsg::FromChar(value, m_pData + pos);
    return true;
}

bool CTarvikPayload::ReadS32(size_t pos, int& value) const
{
    if (!Has(pos, 4))
        return false;
    CTarvikMsg::FromChar(value, m_pData + pos);
    return true;
}

unsigned short CTarvikPayload::U16At(size_t pos) const
{
    unsigned short value = 0;
    ReadU16(pos, value);
    return value;
}

unsigned int CTarvikPayload::U32At(size_t pos) const
{
    unsigned int value = 0;
    ReadU32(pos, value);
    return value;
}

size_t CTarvikPayload::CopyTo(size_t pos, void* out, size_t max) const
{
    if (out == nullptr || pos >= m_nSize)
        return 0;
    size_t count = m_nSize - pos < max ? m_nSize - pos : max;
    if (count > 0)
        std::memcpy(out, m_pData + pos, count);
    return count;
}
