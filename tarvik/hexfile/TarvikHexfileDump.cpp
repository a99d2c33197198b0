#include "tarvik/hexfile/TarvikHexfile.h"

#include "tarvik/hexfile/TarvikHexDigitsPrivate.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

using tarvik_detail::kUpperDigits;

// ---------------------------------------------------------------------------------------------
// Dumps

void CTarvikHexfile::MemDumpLine(const char* data, const bool* present, uint64_t size, uint64_t offset, char* out,
                                 unsigned long* written, uint64_t bytesPerLine, uint64_t /*address*/) const
{
    if (out == nullptr)
        return;
    char* p = out + std::strlen(out);
    const uint64_t remaining = (data != nullptr && present != nullptr && offset < size) ? size - offset : 0;
    for (uint64_t i = 0; i < bytesPerLine; ++i)
    {
        if (i % 8 == 0)
            *p++ = ' ';
        if (i < remaining && present[offset + i])
        {
            unsigned char byte = static_cast<unsigned char>(data[offset + i]);
            *p++ = kUpperDigits[byte >> 4];
            *p++ = kUpperDigits[byte & 0xF];
            *p++ = ' ';
        }
        else if (i < remaining)
        {
            std::memcpy(p, "-- ", 3);
            p += 3;
        }
        else
        {
            std::memcpy(p, "   ", 3);
            p += 3;
        }
    }
    for (uint64_t i = 0; i < bytesPerLine; ++i)
    {
        if (i >= remaining || !present[offset + i])
        {
            *p++ = ' ';
            continue;
        }
        unsigned char byte = static_cast<unsigned char>(data[offset + i]);
        *p++ = (byte < 0x20 || byte >= 0x7F) ? '.' : static_cast<char>(byte);
    }
    *p = '\0';
    if (written != nullptr)
        *written = static_cast<unsigned long>(p - out + 1);
}

void CTarvikHexfile::MemDump(const char* data, const bool* present, uint64_t size, char* out, uint64_t bytesPerLine,
                             uint64_t address) const
{
    if (out == nullptr || bytesPerLine == 0)
        return;
    const uint64_t lines = size / bytesPerLine + (size % bytesPerLine != 0 ? 1 : 0);
    char* p = out;
    for (uint64_t k = 0; k < lines; ++k)
    {
        // Later lines start at the position just behind the previous newline; an explicit
        // NUL there keeps them from being appended to stale text in the caller's buffer.
        if (k > 0)
            *p = '\0';
        unsigned long written = 0;
        MemDumpLine(data, present, size, k * bytesPerLine, p, &written, bytesPerLine, address + k * bytesPerLine);
        p += written - 1;
        *p++ = '\n';
    }
    *p = '\0';
}

void CTarvikHexfile::GetPrintDump(char* out, uint64_t bytesPerLine, uint64_t from, uint64_t to) const
{
    if (out == nullptr || bytesPerLine == 0)
        return;
    const uint64_t high = std::min(m_nMaxAddr, to);
    const uint64_t low = std::min(m_nMaxAddr, from);
    // A range that ends before it starts (or spans all 2^64 addresses) is an empty dump.
    if (low > high || high - low == UINT64_MAX)
    {
        *out = '\0';
        return;
    }
    const uint64_t size = high - low + 1;
    std::unique_ptr<char[]> data;
    std::unique_ptr<bool[]> present;
    try
    {
        data.reset(new char[size]());
        present.reset(new bool[size]());
    }
    catch (const std::bad_alloc&)
    {
        *out = '\0';
        return;
    }
    for (const SMemoryBlock* block : m_vecBlocks)
    {
        if (block->m_nStartAddress + block->m_nLength < low)
            continue;
        if (block->m_nStartAddress > high)
            break;
        uint64_t source = 0;
        uint64_t target = 0;
        uint64_t count = 0;
        if (block->m_nStartAddress < low)
        {
            source = low - block->m_nStartAddress;
            count = std::min(size, block->m_nLength - source);
        }
        else
        {
            target = block->m_nStartAddress - low;
            count = std::min(size - target, block->m_nLength);
        }
        std::memcpy(data.get() + target, block->m_pData + source, count);
        std::fill(present.get() + target, present.get() + target + count, true);
    }
    MemDump(data.get(), present.get(), size, out, bytesPerLine, low);
}

void CTarvikHexfile::GetPrintDump(char* out, uint64_t bytesPerLine) const
{
    GetPrintDump(out, bytesPerLine, 0, m_nMaxAddr);
}

uint64_t CTarvikHexfile::GetNumberOfBytesNeedForLine(unsigned int bytesPerLine) const
{
    // A full line: three characters per byte, one blank per group of eight, one character
    // per byte, and the NUL. Measured on a scratch line, as the dump itself writes it.
    const uint64_t need = 4ull * bytesPerLine + (bytesPerLine + 7ull) / 8 + 1;
    static const char kScratch[512] = {};
    static const bool kPresent[512] = {};
    std::unique_ptr<char[]> line(new (std::nothrow) char[need]());
    if (!line)
        return need;
    unsigned long written = 0;
    MemDumpLine(kScratch, kPresent, sizeof(kScratch), 0, line.get(), &written, bytesPerLine, 0);
    return written;
}
