#include "tarvik/hexfile/TarvikImageOps.h"

#include <boost/crc.hpp>

#include <algorithm>
#include <memory>

namespace
{
typedef CTarvikHexfile::SMemoryBlock SHexBlock;

// Fill bytes go into the CRC in pieces of this size.
constexpr size_t kFillChunk = 1 << 16;

uint64_t BlockEnd(const SHexBlock& block)
{
    return block.m_nStartAddress + block.m_nLength;
}

// Hands the blocks that the map's runs make over to image, which must be empty.
void TakeMap(CTarvikHexfile::CByteMap& map, CTarvikHexfile& image)
{
    map.ToMemoryBlocks(image.m_vecBlocks);
    image.RecalcMinMax();
}

void PutImage(const CTarvikHexfile& image, CTarvikHexfile::CByteMap& map)
{
    for (const SHexBlock* block : image.GetMemoryBlocks())
        for (uint64_t i = 0; i < block->m_nLength; ++i)
            map.SetByte(static_cast<unsigned int>(block->m_nStartAddress + i), block->m_pData[i]);
}

// Appends a copy of length bytes of block from offset, placed at start.
void AddPiece(CTarvikHexfile& out, uint64_t start, const SHexBlock& block, uint64_t offset, uint64_t length)
{
    out.AddMemoryBlock(new SHexBlock(start, block.m_pData + offset, length));
}

void AddFill(boost::crc_32_type& crc, uint64_t count, unsigned char fill)
{
    const std::vector<unsigned char> bytes(static_cast<size_t>(std::min<uint64_t>(count, kFillChunk)), fill);
    for (; count > 0; count -= std::min<uint64_t>(count, kFillChunk))
        crc.process_bytes(bytes.data(), static_cast<size_t>(std::min<uint64_t>(count, kFillChunk)));
}

// Walks an image's sorted blocks from low to high addresses, one address range at a time.
class CBlockCursor
{
public:
    explicit CBlockCursor(const CTarvikHexfile& image) : m_aBlocks(CTarvikImageOps::SortedBlocks(image)) {}

    // The block that holds address, or null; end receives the next address at which that changes.
    const SHexBlock* At(uint64_t address, uint64_t& end)
    {
        while (m_nIndex < m_aBlocks.size() && BlockEnd(*m_aBlocks[m_nIndex]) <= address)
            ++m_nIndex;
        if (m_nIndex == m_aBlocks.size())
        {
            end = CTarvikImageOps::kAddressEnd;
            return nullptr;
        }
        const SHexBlock* block = m_aBlocks[m_nIndex];
        if (block->m_nStartAddress > address)
        {
            end = block->m_nStartAddress;
            return nullptr;
        }
        end = BlockEnd(*block);
        return block;
    }

private:
    std::vector<const SHexBlock*> m_aBlocks;
    size_t m_nIndex = 0;
};

int ByteAt(const SHexBlock* block, uint64_t address)
{
    return block == nullptr ? -1 : static_cast<unsigned char>(block->m_pData[address - block->m_nStartAddress]);
}
} // namespace

std::vector<const CTarvikImageOps::SMemoryBlock*> CTarvikImageOps::SortedBlocks(const CTarvikHexfile& image)
{
    std::vector<const SHexBlock*> blocks;
    for (const SHexBlock* block : image.GetMemoryBlocks())
        if (block->m_nLength > 0)
            blocks.push_back(block);
    std::sort(blocks.begin(), blocks.end(),
              [](const SHexBlock* a, const SHexBlock* b) { return a->m_nStartAddress < b->m_nStartAddress; });
    return blocks;
}

std::string CTarvikImageOps::EndRecord(const CTarvikHexfile& image)
{
    uint64_t lowest = 0;
    uint64_t highest = 0;
    if (!Bounds(image, lowest, highest) || highest <= 0xFFFF)
        return "S9030000FC";
    return highest <= 0xFFFFFF ? "S804000000FB" : "S70500000000FA";
}

bool CTarvikImageOps::Bounds(const CTarvikHexfile& image, uint64_t& lowest, uint64_t& highest)
{
    const auto blocks = SortedBlocks(image);
    if (blocks.empty())
        return false;
    lowest = blocks.front()->m_nStartAddress;
    highest = 0;
    for (const SHexBlock* block : blocks)
        highest = std::max(highest, BlockEnd(*block) - 1);
    return true;
}

uint32_t CTarvikImageOps::DataCrc(const CTarvikHexfile& image)
{
    boost::crc_32_type crc;
    for (const SHexBlock* block : SortedBlocks(image))
        crc.process_bytes(block->m_pData, block->m_nLength);
    return crc.checksum();
}

uint32_t CTarvikImageOps::RangeCrc(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill)
{
    boost::crc_32_type crc;
    const uint64_t stop = last + 1;
    uint64_t next = first;
    for (const SHexBlock* block : SortedBlocks(image))
    {
        const uint64_t start = std::max(block->m_nStartAddress, next);
        const uint64_t end = std::min(BlockEnd(*block), stop);
        if (start >= end)
            continue;
        AddFill(crc, start - next, fill);
        crc.process_bytes(block->m_pData + (start - block->m_nStartAddress), end - start);
        next = end;
    }
    AddFill(crc, stop - next, fill);
    return crc.checksum();
}

bool CTarvikImageOps::FirstOverlap(const CTarvikHexfile& a, const CTarvikHexfile& b, uint64_t& address)
{
    const auto blocksA = SortedBlocks(a);
    const auto blocksB = SortedBlocks(b);
    // Both lists are sorted and free of overlaps, so the first common range met is the lowest.
    for (size_t i = 0, j = 0; i < blocksA.size() && j < blocksB.size();)
    {
        if (BlockEnd(*blocksA[i]) <= blocksB[j]->m_nStartAddress)
            ++i;
        else if (BlockEnd(*blocksB[j]) <= blocksA[i]->m_nStartAddress)
            ++j;
        else
        {
            address = std::max(blocksA[i]->m_nStartAddress, blocksB[j]->m_nStartAddress);
            return true;
        }
    }
    return false;
}

void CTarvikImageOps::Merge(const std::vector<const CTarvikHexfile*>& images, CTarvikHexfile& out)
{
    // The byte map keeps the last value written to an address and joins what touches.
    CTarvikHexfile::CByteMap map;
    for (const CTarvikHexfile* image : images)
        PutImage(*image, map);
    TakeMap(map, out);
}

void CTarvikImageOps::Crop(const CTarvikHexfile& image, uint64_t first, uint64_t last, CTarvikHexfile& out)
{
    for (const SHexBlock* block : SortedBlocks(image))
    {
        const uint64_t start = std::max(block->m_nStartAddress, first);
        const uint64_t end = std::min(BlockEnd(*block), last + 1);
        if (start < end)
            AddPiece(out, start, *block, start - block->m_nStartAddress, end - start);
    }
    out.RecalcMinMax();
}

void CTarvikImageOps::Fill(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill,
                           CTarvikHexfile& out)
{
    CTarvikHexfile::CByteMap map;
    PutImage(image, map);
    CBlockCursor cursor(image);
    for (uint64_t address = first, end = 0; address <= last; address = end)
    {
        const SHexBlock* block = cursor.At(address, end);
        end = std::min(end, last + 1);
        for (uint64_t gap = address; block == nullptr && gap < end; ++gap)
            map.SetByte(static_cast<unsigned int>(gap), static_cast<char>(fill));
    }
    TakeMap(map, out);
}

void CTarvikImageOps::Offset(const CTarvikHexfile& image, int64_t delta, CTarvikHexfile& out)
{
    for (const SHexBlock* block : SortedBlocks(image))
        AddPiece(out, block->m_nStartAddress + static_cast<uint64_t>(delta), *block, 0, block->m_nLength);
    out.RecalcMinMax();
}

uint64_t CTarvikImageOps::Compare(const CTarvikHexfile& a, const CTarvikHexfile& b, size_t keep,
                                  std::vector<SDifference>& first)
{
    CBlockCursor cursorA(a);
    CBlockCursor cursorB(b);
    uint64_t count = 0;
    for (uint64_t address = 0, endA = 0, endB = 0; address < kAddressEnd; address = std::min(endA, endB))
    {
        const SHexBlock* blockA = cursorA.At(address, endA);
        const SHexBlock* blockB = cursorB.At(address, endB);
        const uint64_t end = std::min(endA, endB);
        if (blockA == nullptr && blockB == nullptr)
            continue;
        for (uint64_t at = address; at < end; ++at)
        {
            const int byteA = ByteAt(blockA, at);
            const int byteB = ByteAt(blockB, at);
            if (byteA == byteB)
                continue;
            ++count;
            if (first.size() < keep)
                first.push_back({at, byteA, byteB});
        }
    }
    return count;
}
