#include "tarvik/hexfile/TarvikHexOutBuffer.h"

namespace tarvik_detail
{
CTarvikHexOutBuffer::CTarvikHexOutBuffer(std::ostream& stream) : m_oStream(stream)
{
    m_sText.reserve(kCapacity + kMaxRecord);
}

CTarvikHexOutBuffer::~CTarvikHexOutBuffer()
{
    Flush();
}

char* CTarvikHexOutBuffer::Reserve()
{
    if (m_sText.size() > kCapacity)
        Flush();
    size_t used = m_sText.size();
    m_sText.resize(used + kMaxRecord);
    return &m_sText[used];
}

void CTarvikHexOutBuffer::Flush()
{
    if (!m_sText.empty())
        m_oStream.write(m_sText.data(), static_cast<std::streamsize>(m_sText.size()));
    m_sText.clear();
    m_oStream.flush();
}
} // namespace tarvik_detail
