#include "tarvik/runtime/MolFrameCutter.h"

#include <cstring>

namespace
{
constexpr size_t kLengthField = 2;

size_t FrameSize(const char* p)
{
    return (static_cast<size_t>(static_cast<unsigned char>(p[0])) |
            static_cast<size_t>(static_cast<unsigned char>(p[1])) << 8) +
           kLengthField;
}
} // namespace

CMolFrameCutter::CMolFrameCutter() : m_aBuffer(kInitialBufferSize), m_nFilled(0) {}

char* CMolFrameCutter::GetSpace(size_t& available)
{
    available = m_aBuffer.size() - m_nFilled;
    return m_aBuffer.data() + m_nFilled;
}

size_t CMolFrameCutter::Commit(size_t n, PFrameSink sink, void* user)
{
    size_t filled = m_nFilled + n;
    size_t pos = 0;
    size_t need = 0;
    size_t frames = 0;
    while (filled - pos >= kLengthField)
    {
        size_t frame = FrameSize(m_aBuffer.data() + pos);
        if (filled - pos < frame)
        {
            need = frame;
            break;
        }
        sink(user, m_aBuffer.data() + pos, frame <= 0xFFFF ? static_cast<unsigned short>(frame) : 0);
        ++frames;
        pos += frame;
    }
    m_nFilled = filled - pos;
    if (pos > 0 && m_nFilled > 0)
        std::memmove(m_aBuffer.data(), m_aBuffer.data() + pos, m_nFilled);
    // Grow for the frame under way; a frame never exceeds kMaxFrameSize, so neither does the buffer.
    if (need > m_aBuffer.size())
    {
        size_t grown = m_aBuffer.size() * 2;
        while (grown < need)
            grown *= 2;
        m_aBuffer.resize(grown < kMaxFrameSize ? grown : kMaxFrameSize);
    }
    return frames;
}
