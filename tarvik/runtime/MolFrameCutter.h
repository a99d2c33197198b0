// Cuts a TCP byte stream into telegrams by their 2-byte little-endian length prefix
// (length = bytes after the prefix). The receive thread reads straight into the
// cutter's buffer; the cutter hands out each complete frame in place, without a copy.
#ifndef TARVIK_RUNTIME_MOLFRAMECUTTER_H
#define TARVIK_RUNTIME_MOLFRAMECUTTER_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstddef>
#include <vector>

class TARVIK_API CMolFrameCutter
{
public:
    // Largest frame: a 65535 length field plus the field itself.
    static constexpr size_t kMaxFrameSize = 65537;
    // The buffer starts this small and grows on demand up to kMaxFrameSize.
    static constexpr size_t kInitialBufferSize = 4096;

    // Called once per complete frame; frame points into the cutter's buffer and is
    // valid only during the call. len is the whole frame size; a frame too long for a
    // 16-bit size (65536 or 65537 bytes) comes as an empty block (len 0), so that it
    // is dropped as malformed and the stream stays in step.
    typedef void (*PFrameSink)(void* user, const char* frame, unsigned short len);

    CMolFrameCutter();

    // Where the next received bytes go, and how many fit (always at least one).
    char* GetSpace(size_t& available);
    // Takes n bytes written at GetSpace() and hands every frame now complete to sink,
    // in stream order. Returns the number of frames handed out.
    size_t Commit(size_t n, PFrameSink sink, void* user);
    // Bytes of an incomplete frame held back (0: the stream is between frames).
    size_t GetPending() const { return m_nFilled; }
    // Forgets any incomplete frame (a new connection starts between frames).
    void Reset() { m_nFilled = 0; }

private:
    std::vector<char> m_aBuffer;
    size_t m_nFilled;
};

#endif
