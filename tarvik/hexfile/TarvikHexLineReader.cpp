#include "tarvik/hexfile/TarvikHexLineReader.h"

#include <algorithm>
#include <cstring>

namespace tarvik_detail
{
CTarvikHexLineReader::CTarvikHexLineReader(std::istream& stream)
    : m_pSource(stream.good() ? stream.rdbuf() : nullptr), m_vecBuffer(kReadChunk), m_nPos(0), m_nEnd(0),
      m_bSourceEnd(m_pSource == nullptr), m_bStopped(m_pSource == nullptr)
{
}

size_t CTarvikHexLineReader::ReadLine(std::string& line)
{
    if (m_bStopped)
        return 0;
    if (m_nEnd - m_nPos < kLineBufferSize && !m_bSourceEnd)
        Fill();
    size_t available = m_nEnd - m_nPos;
    const char* begin = m_vecBuffer.data() + m_nPos;
    const char* newline = static_cast<const char*>(std::memchr(begin, '\n', std::min(available, kLineBufferSize)));
    if (newline != nullptr)
    {
        size_t length = static_cast<size_t>(newline - begin);
        line.assign(begin, length);
        line.push_back('\0');
        m_nPos += length + 1;
        return length + 1;
    }
    m_bStopped = true;
    if (available >= kLineBufferSize)
    {
        line.assign(begin, kLineBufferSize - 1);
        return kLineBufferSize - 1;
    }
    if (available == 0)
        return 0;
    line.assign(begin, available);
    m_nPos = m_nEnd;
    return available;
}

void CTarvikHexLineReader::Fill()
{
    if (m_nPos > 0)
    {
        std::memmove(m_vecBuffer.data(), m_vecBuffer.data() + m_nPos, m_nEnd - m_nPos);
        m_nEnd -= m_nPos;
        m_nPos = 0;
    }
    while (m_nEnd < kLineBufferSize && !m_bSourceEnd)
    {
        std::streamsize got =
            m_pSource->sgetn(m_vecBuffer.data() + m_nEnd, static_cast<std::streamsize>(m_vecBuffer.size() - m_nEnd));
        if (got <= 0)
            m_bSourceEnd = true;
        else
            m_nEnd += static_cast<size_t>(got);
    }
}
} // namespace tarvik_detail
