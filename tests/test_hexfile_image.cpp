// The image itself: blocks, byte access and hex dumps.
#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

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

TEST(Dump, RangeOfTheImageWithAHole)
{
    CTarvikHexfile image;
    image.AddMemoryBlock(0x10, "ABCD", 4);
    image.AddMemoryBlock(0x16, "xy\x01", 3);
    const uint64_t size = 2 * image.GetNumberOfBytesNeedForLine(8) + 1;
    std::string out = Output(size);
    image.GetPrintDump(&out[0], 8, 0x10, 0x30); // the end is clamped to the highest address
    EXPECT_EQ(" 41 42 43 44 -- -- 78 79 ABCD  xy\n"
              " 01                      .       \n",
              std::string(out.c_str()));
    EXPECT_EQ("####", out.substr(size));
}
} // namespace
