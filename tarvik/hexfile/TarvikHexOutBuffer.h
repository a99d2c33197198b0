// CTarvikHexOutBuffer: collects the text of the hex writers and hands it to the stream in
// large pieces, so that a record costs no stream call.
#ifndef TARVIK_HEXFILE_TARVIKHEXOUTBUFFER_H
#define TARVIK_HEXFILE_TARVIKHEXOUTBUFFER_H

#include <cstddef>
#include <ostream>
#include <string>

namespace tarvik_detail
{
class CTarvikHexOutBuffer
{
public:
    // The longest record that Reserve makes room for.
    static constexpr size_t kMaxRecord = 128;

    explicit CTarvikHexOutBuffer(std::ostream& stream);
    // Flushes what is left.
    ~CTarvikHexOutBuffer();
    CTarvikHexOutBuffer(const CTarvikHexOutBuffer&) = delete;
    CTarvikHexOutBuffer& operator=(const CTarvikHexOutBuffer&) = delete;

    // Room for one record of at most kMaxRecord characters; Commit says where it ended.
    char* Reserve();
    void Commit(const char* end) { m_sText.resize(static_cast<size_t>(end - m_sText.data())); }
    void Flush();

private:
    static constexpr size_t kCapacity = 1 << 16;
    std::ostream& m_oStream;
    std::string m_sText;
};
} // namespace tarvik_detail

#endif
