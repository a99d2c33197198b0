// CTarvikHexLineReader: the line reader of the hex formats.
//
// Reads lines exactly as istream::getline(buffer, 1024, '\n') would, but from large blocks of
// the stream's buffer, so that a multi-megabyte file costs no stream call per line:
// - a newline within the first 1024 characters ends the line; it is consumed and becomes a NUL
//   at the end of the line text;
// - 1023 characters without a newline behind them put the reader in the failed state: those
//   characters are the line, and the next read extracts nothing;
// - the end of the input ends a last line without newline; the next read extracts nothing.
#ifndef TARVIK_HEXFILE_TARVIKHEXLINEREADER_H
#define TARVIK_HEXFILE_TARVIKHEXLINEREADER_H

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

namespace tarvik_detail
{
class CTarvikHexLineReader
{
public:
    // The reader takes at most this many characters plus the terminator.
    static constexpr size_t kLineBufferSize = 1024;

    explicit CTarvikHexLineReader(std::istream& stream);

    // Returns the number of characters extracted (newline included); 0 ends the input.
    // line keeps its capacity from line to line, so reading allocates nothing per line.
    size_t ReadLine(std::string& line);

private:
    static constexpr size_t kReadChunk = 1 << 16;

    void Fill();

    std::streambuf* m_pSource;
    std::vector<char> m_vecBuffer;
    size_t m_nPos;
    size_t m_nEnd;
    bool m_bSourceEnd;
    bool m_bStopped;
};
} // namespace tarvik_detail

#endif
