#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace
{
constexpr unsigned int kPageSize = 4096;
constexpr unsigned int kPageMask = kPageSize - 1;
// A page is stored in slices of 64 bytes, one present bit each in a 64-bit word.
constexpr unsigned int kSliceSize = 64;
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

void CTarvikHexfile::CByteMap::SetBytes(unsigned int address, const char* data, unsigned int count, uint64_t& highest)
{
    while (count > 0)
    {
        const unsigned int base = address & ~(kSliceSize - 1);
        if (m_pLastSlice == nullptr || base != m_nLastSliceBase)
            SelectSlice(base);
        const unsigned int index = address & (kSliceSize - 1);
        // Slices are aligned, so one never reaches across the wrap from 0xFFFFFFFF to 0.
        const unsigned int length = std::min(count, kSliceSize - index);
        std::memcpy(m_pLastSlice->m_acData + index, data, length);
        const uint64_t bits = length == kSliceSize ? ~uint64_t(0) : ((uint64_t(1) << length) - 1) << index;
        m_pLastSlice->m_nPresent |= bits;
        const unsigned int last = address + length - 1;
        if (last > highest)
            highest = last;
        address += length;
        data += length;
        count -= length;
    }
}

template <typename F> void CTarvikHexfile::CByteMap::ForEachSpan(F fn) const
{
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
                fn(sliceAddress + index, slice.m_acData + index, length);
                index += length;
                present = length < kSliceSize ? present >> length : 0;
            }
        }
    }
}

void CTarvikHexfile::CByteMap::ToMemoryBlocks(std::vector<SMemoryBlock*>& blocks)
{
    for (SMemoryBlock* block : blocks)
        delete block;
    blocks.clear();

    // First a block for every run of adjacent bytes, then the blocks filled straight from the
    // slices: a multi-megabyte image is neither grown step by step nor copied twice.
    try
    {
        uint64_t runStart = 0;
        uint64_t runEnd = 0;
        auto close = [&blocks, &runStart, &runEnd] {
            std::unique_ptr<SMemoryBlock> block(new SMemoryBlock());
            // Not zero-filled: every byte of a run is written below.
            block->m_pData = new char[runEnd - runStart];
            block->m_nStartAddress = runStart;
            block->m_nLength = runEnd - runStart;
            // The slot first: a vector that cannot grow leaves the block with its owner.
            blocks.push_back(nullptr);
            blocks.back() = block.release();
        };
        bool inRun = false;
        ForEachSpan([&](uint64_t address, const char*, unsigned int length) {
            if (!inRun || address > runEnd)
            {
                if (inRun)
                    close();
                inRun = true;
                runStart = address;
                runEnd = address;
            }
            runEnd += length;
        });
        if (inRun)
            close();
    }
    catch (...)
    {
        // Out of memory: no blocks rather than blocks of unwritten bytes.
        for (SMemoryBlock* block : blocks)
            delete block;
        blocks.clear();
        throw;
    }
    size_t current = 0;
    ForEachSpan([&blocks, &current](uint64_t address, const char* data, unsigned int length) {
        while (address >= blocks[current]->m_nStartAddress + blocks[current]->m_nLength)
            ++current;
        std::memcpy(blocks[current]->m_pData + (address - blocks[current]->m_nStartAddress), data, length);
    });
}

void CTarvikHexfile::CByteMap::Clear()
{
    m_mapPages.clear();
    m_pLastPage = nullptr;
    m_pLastSlice = nullptr;
}
