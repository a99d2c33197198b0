#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace
{
constexpr unsigned int kPageSize = 4096;
constexpr unsigned int kPageMask = kPageSize - 1;
// A page is stored in slices of 64 bytes, one present bit each in a 64-bit word.
constexpr unsigned int kSliceSize = 64;
constexpr size_t kRunReserve = 0x40000;
} // namespace

// ---------------------------------------------------------------------------------------------
// CByteMap

CTarvikHexfile::CByteMap::CByteMap()
    : m_nLastPageBase(0), m_pLastPage(nullptr), m_nLastSliceBase(0), m_pLastSlice(nullptr)
{
}

void CTarvikHexfile::CByteMap::SelectSlice(unsigned int base)
{
    const unsigned int pageBase = base & ~kPageMask;
    if (m_pLastPage == nullptr || pageBase != m_nLastPageBase)
    {
        m_pLastPage = &m_mapPages[pageBase];
        m_nLastPageBase = pageBase;
    }
    SPage& page = *m_pLastPage;
    const unsigned int slice = (base & kPageMask) / kSliceSize;
    const uint64_t bit = uint64_t(1) << slice;
    const size_t place = static_cast<size_t>(__builtin_popcountll(page.m_nSlices & (bit - 1)));
    if ((page.m_nSlices & bit) == 0)
    {
        page.m_vecSlices.insert(page.m_vecSlices.begin() + static_cast<std::ptrdiff_t>(place), SSlice());
        page.m_nSlices |= bit;
    }
    m_nLastSliceBase = base;
    m_pLastSlice = &page.m_vecSlices[place];
}

void CTarvikHexfile::CByteMap::ToMemoryBlocks(std::vector<SMemoryBlock*>& blocks)
{
    for (SMemoryBlock* block : blocks)
        delete block;
    blocks.clear();
    if (m_mapPages.empty())
        return;

    std::vector<char> run;
    run.reserve(kRunReserve);
    uint64_t runStart = 0;
    uint64_t expected = 0;
    for (const auto& page : m_mapPages)
    {
        uint64_t slices = page.second.m_nSlices;
        for (const SSlice& slice : page.second.m_vecSlices)
        {
            // The slices are stored in address order; the lowest bit left is this one's.
            const unsigned int sliceIndex = static_cast<unsigned int>(__builtin_ctzll(slices));
            slices &= slices - 1;
            const uint64_t sliceAddress =
                static_cast<uint64_t>(page.first) + static_cast<uint64_t>(sliceIndex) * kSliceSize;
            // Taken span by span of present bytes, which is the same as byte by byte.
            uint64_t present = slice.m_nPresent;
            unsigned int index = 0;
            while (present != 0)
            {
                const unsigned int skip = static_cast<unsigned int>(__builtin_ctzll(present));
                index += skip;
                present >>= skip;
                // Above the bytes still to look at, present holds zeros: only a full slice
                // has no zero bit at all.
                const unsigned int length =
                    present == ~uint64_t(0) ? kSliceSize : static_cast<unsigned int>(__builtin_ctzll(~present));
                const uint64_t address = sliceAddress + index;
                if (address > expected)
                {
                    if (!run.empty())
                        blocks.push_back(new SMemoryBlock(runStart, run.data(), run.size()));
                    run.clear();
                    runStart = address;
                    expected = address;
                }
                run.insert(run.end(), slice.m_acData + index, slice.m_acData + index + length);
                expected += length;
                index += length;
                present = length < kSliceSize ? present >> length : 0;
            }
        }
    }
    if (!run.empty())
        blocks.push_back(new SMemoryBlock(runStart, run.data(), run.size()));
}

void CTarvikHexfile::CByteMap::Clear()
{
    m_mapPages.clear();
    m_pLastPage = nullptr;
    m_pLastSlice = nullptr;
}
