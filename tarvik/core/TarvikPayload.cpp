#include "tarvik/core/TarvikPayload.h"

#include <cstring>

size_t CTarvikPayload::CopyTo(size_t pos, void* out, size_t max) const
{
    if (out == nullptr || pos >= m_nSize)
        return 0;
    size_t count = m_nSize - pos < max ? m_nSize - pos : max;
    if (count > 0)
        std::memcpy(out, m_pData + pos, count);
    return count;
}
