// Operations on whole memory images, built on CTarvikHexfile's public interface: merge,
// crop, fill, offset, compare, bounds and CRCs. Images handed in hold blocks that do not
// overlap (every load gives such blocks); the blocks may come in any order. Images handed
// out hold sorted blocks that do not touch. Every output image must be empty on entry.
#ifndef TARVIK_HEXFILE_TARVIKIMAGEOPS_H
#define TARVIK_HEXFILE_TARVIKIMAGEOPS_H

#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/runtime/TarvikExport.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class TARVIK_API CTarvikImageOps
{
public:
    typedef CTarvikHexfile::SMemoryBlock SMemoryBlock;

    // One past the highest address an image may hold.
    static constexpr uint64_t kAddressEnd = CTarvikHexfile::m_nMaxAddressSupported + 1;

    // One address at which two images differ; a byte that an image lacks is -1.
    struct SDifference
    {
        uint64_t m_nAddress;
        int m_nByteA;
        int m_nByteB;
    };

    // The blocks in address order; empty blocks left out.
    static std::vector<const SMemoryBlock*> SortedBlocks(const CTarvikHexfile& image);

    // The S-record termination record (no newline) that fits the image's records: S9 when all
    // addresses fit 16 bits, S8 for 24 bits, S7 above; start address 0.
    static std::string EndRecord(const CTarvikHexfile& image);

    // Lowest and highest address that holds a byte, taken from the blocks themselves; false
    // for an image without data.
    static bool Bounds(const CTarvikHexfile& image, uint64_t& lowest, uint64_t& highest);

    // CRC-32 (Boost's crc_32_type) of the blocks' bytes in address order; gaps add nothing.
    static uint32_t DataCrc(const CTarvikHexfile& image);
    // CRC-32 of every address from first to last, the bytes of no block counted as fill.
    static uint32_t RangeCrc(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill);

    // Lowest address that a block of a and a block of b both hold; false when there is none.
    static bool FirstOverlap(const CTarvikHexfile& a, const CTarvikHexfile& b, uint64_t& address);

    // out receives the images' bytes; where they overlap, the later image's byte wins.
    static void Merge(const std::vector<const CTarvikHexfile*>& images, CTarvikHexfile& out);
    // out receives the bytes of image from first to last.
    static void Crop(const CTarvikHexfile& image, uint64_t first, uint64_t last, CTarvikHexfile& out);
    // out receives image with every address from first to last that no block holds set to fill.
    static void Fill(const CTarvikHexfile& image, uint64_t first, uint64_t last, unsigned char fill,
                     CTarvikHexfile& out);
    // out receives image moved by delta; the caller makes sure that it stays within the
    // address range.
    static void Offset(const CTarvikHexfile& image, int64_t delta, CTarvikHexfile& out);

    // Counts the addresses at which a and b differ (a byte differs, or only one holds it) and
    // keeps the first keep of them in first.
    static uint64_t Compare(const CTarvikHexfile& a, const CTarvikHexfile& b, size_t keep,
                            std::vector<SDifference>& first);
};

#endif
