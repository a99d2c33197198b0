// Operations of the hex tool on whole memory images, built on CTarvikHexfile's public
// interface. Images handed in hold blocks that do not overlap (every load gives such blocks);
// the blocks may come in any order. Images handed out hold sorted blocks that do not touch.
#ifndef TARVIK_TOOLS_HEXIMAGE_H
#define TARVIK_TOOLS_HEXIMAGE_H

#include "tarvik/hexfile/TarvikHexfile.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

typedef CTarvikHexfile::SMemoryBlock SHexBlock;

// One past the highest address an image may hold.
constexpr uint64_t kHexAddressEnd = CTarvikHexfile::m_nMaxAddressSupported + 1;

// The blocks in address order; empty blocks left out.
std::vector<const SHexBlock*> HexSortedBlocks(const CTarvikHexfile& image);

// The S-record termination record (no newline) that fits the image's records: S9 when all
// addresses fit 16 bits, S8 for 24 bits, S7 above; start address 0.
std::string HexEndRecord(const CTarvikHexfile& image);

// Lowest and highest address that holds a byte, taken from the blocks themselves; false for
// an image without data.
bool HexBounds(const CTarvikHexfile& image, uint64_t& lowest, uint64_t& highest);

// CRC-32 (Boost's crc_32_type) of the blocks' bytes in address order; gaps add nothing.
uint32_t HexDataCrc(const CTarvikHexfile& image);
// CRC-32 of every address from first to last, the bytes of no block counted as fill.
uint32_t HexRangeCrc(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill);

// Lowest address that a block of a and a block of b both hold; false when there is none.
bool HexFirstOverlap(const CTarvikHexfile& a, const CTarvikHexfile& b, uint64_t& address);

// out (empty) receives the images' bytes; where they overlap, the later image's byte wins.
void HexMerge(const std::vector<const CTarvikHexfile*>& images, CTarvikHexfile& out);
// out (empty) receives the bytes of image from first to last.
void HexCrop(const CTarvikHexfile& image, uint64_t first, uint64_t last, CTarvikHexfile& out);
// out (empty) receives image with every address from first to last that no block holds set to fill.
void HexFill(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill, CTarvikHexfile& out);
// out (empty) receives image moved by delta; the caller makes sure that it stays within the
// address range.
void HexOffset(const CTarvikHexfile& image, int64_t delta, CTarvikHexfile& out);

// One address at which two images differ; a byte that an image lacks is -1.
struct SHexDifference
{
    uint64_t m_nAddress;
    int m_nByteA;
    int m_nByteB;
};

// Counts the addresses at which a and b differ (a byte differs, or only one holds it) and
// keeps the first keep of them in first.
uint64_t HexCompare(const CTarvikHexfile& a, const CTarvikHexfile& b, size_t keep, std::vector<SHexDifference>& first);

#endif
