// The image itself: blocks, byte access and hex dumps.
#include "support/HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace
{
using namespace hexfile_test;
using SMemoryBlock = CTarvikHexfile::SMemoryBlock;

// A zero-filled dump output of the given size, followed by guard bytes the dump must leave alone.
std::string Output(uint64_t size)
{
    return std::string(size, '\0') + "####";
}

TEST(Image, BlocksCompareLengthAndBytesButNotTheAddress)
{
    const SMemoryBlock block(0x100, "abc", 3);
    EXPECT_TRUE(block == SMemoryBlock(0x8000, "abc", 3));
    EXPECT_FALSE(block == SMemoryBlock(0x100, "abc", 2));
    EXPECT_FALSE(block == SMemoryBlock(0x100, "abd", 3));
    EXPECT_TRUE(SMemoryBlock(0, nullptr, 3) == SMemoryBlock(0, "\0\0\0", 3)); // no data: zero-filled
}

TEST(Image, GetAndSetDataByte)
{
    CTarvikHexfile image;
    image.AddMemoryBlock(0x100, "abcd", 4);
    EXPECT_EQ(0u, image.m_nMinAddr); // adding a block moves only the highest address
    EXPECT_EQ(0x103u, image.m_nMaxAddr);
    image.SetDataByte(0x101, 'B'); // inside a block: changed in place
    image.SetDataByte(0x104, 'e'); // just past it: a block of its own
    EXPECT_EQ((Blocks{{0x100, "aBcd"}, {0x104, "e"}}), ImageBlocks(image));
    EXPECT_EQ('d', image.GetDataByte(0x103));
    EXPECT_EQ('e', image.GetDataByte(0x104));
    EXPECT_EQ(0, image.GetDataByte(0xFF));
    EXPECT_EQ(0x100u, image.m_nMinAddr); // both recomputed from the blocks
    EXPECT_EQ(0x104u, image.m_nMaxAddr);
}

// " XX" per byte and " --" for a missing one, a blank before every further group of eight and
// before the characters ('.' unprintable, ' ' missing); bytes past the end are blank in both parts.
TEST(Dump, LineLayout)
{
    const char data[] = {'A', 'B', 0x00, 0x7F, static_cast<char>(0x80), 0x20, '~', 'q', '\n', 'z'};
    const bool present[] = {true, true, true, true, true, true, true, false, true, true};
    CTarvikHexfile image;
    const uint64_t size = image.GetNumberOfBytesNeedForLine(12);
    std::string out = Output(size);
    unsigned long written = 0;
    image.MemDumpLine(data, present, 10, 0, &out[0], &written, 12, 0);
    EXPECT_EQ(" 41 42 00 7F 80 20 7E --  0A 7A       AB... ~ .z  ", std::string(out.c_str()));
    EXPECT_EQ(size, written);
    EXPECT_EQ("####", out.substr(size));
    EXPECT_EQ(67u, image.GetNumberOfBytesNeedForLine(16));
}

// Ranges that cut blocks at one or both ends, start or end in a hole, or run past the highest
// address (clamped). The output has exactly the documented size, followed by guard bytes.
TEST(Dump, RangesOfTheImage)
{
    CTarvikHexfile image;
    image.AddMemoryBlock(0x08, "before", 6);
    image.AddMemoryBlock(0x40, "0123456789abcdefghijklmnopqrstuv", 32);
    image.AddMemoryBlock(0x70, "aft\x01r", 5);
    const std::string blank8(24, ' '); // eight bytes past the end in the hex part
    const struct
    {
        const char* m_pName;
        uint64_t m_nFrom;
        uint64_t m_nTo;
        uint64_t m_nBytesPerLine;
        std::string m_sText;
    } cases[] = {
        {"block_cut_at_both_ends", 0x45, 0x5A, 8,
         " 35 36 37 38 39 61 62 63 56789abc\n"
         " 64 65 66 67 68 69 6A 6B defghijk\n"
         " 6C 6D 6E 6F 70 71       lmnopq  \n"},
        {"one_byte_inside_a_block", 0x50, 0x50, 8, " 67" + std::string(22, ' ') + "g       \n"},
        {"cut_blocks_around_a_hole", 0x5C, 0x72, 16,
         " 73 74 75 76 -- -- -- --  -- -- -- -- -- -- -- -- stuv            \n"
         " -- -- -- -- 61 66 74     " +
             blank8 + "    aft         \n"},
        {"end_clamped_to_the_highest_address", 0x70, 0x90, 8, " 61 66 74 01 72          aft.r   \n"},
    };
    for (const auto& c : cases)
    {
        const uint64_t lines = (std::min<uint64_t>(c.m_nTo, image.m_nMaxAddr) - c.m_nFrom) / c.m_nBytesPerLine + 1;
        const uint64_t size =
            lines * image.GetNumberOfBytesNeedForLine(static_cast<unsigned int>(c.m_nBytesPerLine)) + 1;
        std::string out = Output(size);
        image.GetPrintDump(&out[0], c.m_nBytesPerLine, c.m_nFrom, c.m_nTo);
        EXPECT_EQ(c.m_sText, std::string(out.c_str())) << c.m_pName;
        EXPECT_EQ(c.m_sText.size() + 1, size) << c.m_pName; // the text fills the output to its last byte
        EXPECT_EQ("####", out.substr(size)) << c.m_pName;
    }
}
} // namespace
