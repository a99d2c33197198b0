// The image itself: blocks, the page map, byte access, minimum and maximum, binary files.
#include "tarvik/hexfile/TarvikHexfile.h"

#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
using namespace hexfile_test;
using SMemoryBlock = CTarvikHexfile::SMemoryBlock;

Blocks TakeBlocks(CTarvikHexfile::CByteMap& map, std::vector<SMemoryBlock*>& blocks)
{
    map.ToMemoryBlocks(blocks);
    Blocks result;
    for (auto* block : blocks)
        result.emplace_back(block->m_nStartAddress, std::string(block->m_pData, block->m_nLength));
    return result;
}

void Release(std::vector<SMemoryBlock*>& blocks)
{
    for (auto* block : blocks)
        delete block;
    blocks.clear();
}

TEST(MemoryBlock, ConstructionAndComparison)
{
    SMemoryBlock empty;
    EXPECT_EQ(0u, empty.m_nStartAddress);
    EXPECT_EQ(0u, empty.m_nLength);
    EXPECT_EQ(nullptr, empty.m_pData);

    SMemoryBlock zeros(0x100, nullptr, 3);
    EXPECT_EQ(std::string(3, '\0'), std::string(zeros.m_pData, 3));

    const char bytes[] = {1, 2, 3};
    SMemoryBlock low(0x100, bytes, 3);
    SMemoryBlock high(0x8000, bytes, 3);
    SMemoryBlock shorter(0x100, bytes, 2);
    EXPECT_NE(bytes, low.m_pData); // a copy
    // Equal bytes at different addresses compare equal; the address is not compared.
    EXPECT_TRUE(low == high);
    EXPECT_FALSE(low == shorter);
    EXPECT_FALSE(low == zeros);
    EXPECT_TRUE(empty == SMemoryBlock(5, nullptr, 0));
}

TEST(ByteMap, RunsBecomeBlocks)
{
    CTarvikHexfile::CByteMap map;
    std::vector<SMemoryBlock*> blocks;
    EXPECT_EQ(Blocks{}, TakeBlocks(map, blocks));

    // Written out of order, across a page boundary, with a one-byte hole, and overwritten.
    map.SetByte(0x1001, 'b');
    map.SetByte(0x0FFF, 'z');
    map.SetByte(0x1000, 'a');
    map.SetByte(0x1003, 'd');
    map.SetByte(0x0FFF, 'y');
    map.SetByte(0xFFFFFFFF, 'e');
    map.SetByte(0, 'o');
    EXPECT_EQ((Blocks{{0, "o"}, {0x0FFF, "yab"}, {0x1003, "d"}, {0xFFFFFFFF, "e"}}), TakeBlocks(map, blocks));

    // Old blocks in the list are released and replaced (the sanitizer build sees a leak otherwise).
    map.Clear();
    map.SetByte(7, 'x');
    EXPECT_EQ((Blocks{{7, "x"}}), TakeBlocks(map, blocks));
    map.Clear();
    EXPECT_EQ(Blocks{}, TakeBlocks(map, blocks));
    Release(blocks);
}

TEST(ByteMap, LongRunOverManyPages)
{
    CTarvikHexfile::CByteMap map;
    std::string expected;
    for (unsigned int i = 0; i < 5 * 4096 + 17; ++i)
    {
        expected += static_cast<char>(i * 7);
        map.SetByte(0x20000 - 3 + i, static_cast<char>(i * 7));
    }
    std::vector<SMemoryBlock*> blocks;
    EXPECT_EQ((Blocks{{0x20000 - 3, expected}}), TakeBlocks(map, blocks));
    Release(blocks);
}

TEST(Image, AddBlocksRaisesTheMaximumOnly)
{
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.m_nMaxAddr);
    EXPECT_EQ(0u, image.m_nMinAddr);
    image.AddMemoryBlock(0x2000, "abcd", 4);
    EXPECT_EQ(0x2003u, image.m_nMaxAddr);
    image.AddMemoryBlock(0x1000, "xy", 2);
    EXPECT_EQ(0x2003u, image.m_nMaxAddr);
    EXPECT_EQ(0u, image.m_nMinAddr);
    image.AddMemoryBlock(new SMemoryBlock(0x100000000ull, "q", 1));
    EXPECT_EQ(0x100000000ull, image.m_nMaxAddr);
    // The copying form works in 32 bits.
    image.AddMemoryBlock(0xFFFFFFFF, "zz", 2);
    EXPECT_EQ(0x100000000ull, image.m_nMaxAddr);
    // A block without bytes holds no address.
    image.AddMemoryBlock(new SMemoryBlock(0x300000000ull, nullptr, 0));
    image.AddMemoryBlock(nullptr);
    EXPECT_EQ(0x100000000ull, image.m_nMaxAddr);
    EXPECT_EQ(
        (Blocks{{0x2000, "abcd"}, {0x1000, "xy"}, {0x100000000ull, "q"}, {0xFFFFFFFF, "zz"}, {0x300000000ull, ""}}),
        ImageBlocks(image));
    EXPECT_EQ(9u, image.GetTotalBytes());

    image.ClearMemoryBlocks();
    EXPECT_EQ(Blocks{}, ImageBlocks(image));
    EXPECT_EQ(0u, image.GetTotalBytes());
    EXPECT_EQ(0x100000000ull, image.m_nMaxAddr); // left as it was
}

TEST(Image, RecalcMinMax)
{
    CTarvikHexfile image;
    image.m_nMinAddr = 0x55;
    image.m_nMaxAddr = 0x99;
    image.RecalcMinMax();
    EXPECT_EQ(0u, image.m_nMaxAddr);
    EXPECT_EQ(0x55u, image.m_nMinAddr); // no blocks: the minimum stays

    image.AddMemoryBlock(0x3000, "abc", 3);
    image.AddMemoryBlock(0x1000, "d", 1);
    image.AddMemoryBlock(0x2000, "ef", 2);
    image.RecalcMinMax();
    EXPECT_EQ(0x1000u, image.m_nMinAddr);
    EXPECT_EQ(0x3002u, image.m_nMaxAddr);
}

TEST(Image, GetAndSetDataByte)
{
    CTarvikHexfile image;
    image.AddMemoryBlock(0x100, "abcd", 4);
    image.AddMemoryBlock(0x102, "XY", 2); // overlaps: the first block in the list wins
    EXPECT_EQ('a', image.GetDataByte(0x100));
    EXPECT_EQ('c', image.GetDataByte(0x102));
    EXPECT_EQ('d', image.GetDataByte(0x103));
    EXPECT_EQ(0, image.GetDataByte(0xFF));
    EXPECT_EQ(0, image.GetDataByte(0x104));
    EXPECT_EQ(0, image.GetDataByte(0xFFFFFFFFFFFFFFFFull));

    image.SetDataByte(0x101, 'B');
    EXPECT_EQ('B', image.GetDataByte(0x101));
    EXPECT_EQ(2u, image.GetMemoryBlocks().size());

    // Just past a block: a separate one-byte block, and minimum and maximum recomputed.
    image.SetDataByte(0x104, 'e');
    EXPECT_EQ((Blocks{{0x100, "aBcd"}, {0x102, "XY"}, {0x104, "e"}}), ImageBlocks(image));
    EXPECT_EQ(0x104u, image.m_nMaxAddr);
    EXPECT_EQ(0x100u, image.m_nMinAddr);
    EXPECT_EQ('e', image.GetDataByte(0x104));

    image.SetDataByte(0x10, 'f');
    EXPECT_EQ(0x10u, image.m_nMinAddr);
    EXPECT_EQ(0x104u, image.m_nMaxAddr);
    EXPECT_EQ(8u, image.GetTotalBytes());
}

class CBinaryFileTest : public ::testing::Test
{
protected:
    CTempDir m_oDir;
};

TEST_F(CBinaryFileTest, DetectedBinaryIsOneBlockAtZero)
{
    const std::string path = DataPath("hexfile_binary.bin");
    const std::string content("\x7F"
                              "ELF\x00\n\xFF:S\r\n\x00\x01\x02",
                              14);
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ(CTarvikHexfile::Binary, image.m_eType);
    EXPECT_EQ((Blocks{{0, content}}), ImageBlocks(image));
    EXPECT_EQ(13u, image.m_nMaxAddr);

    // A second binary load appends to the list.
    EXPECT_EQ(0u, image.LoadFile(path.c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ((Blocks{{0, content}, {0, content}}), ImageBlocks(image));
}

TEST_F(CBinaryFileTest, ForcedBinaryReadsHexTextAsBytes)
{
    const std::string path = m_oDir.Write("text.hex", ":00000001FF\n");
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(path.c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ((Blocks{{0, ":00000001FF\n"}}), ImageBlocks(image));
}

TEST_F(CBinaryFileTest, LoadFileBinaryOnMissingFile)
{
    CTarvikHexfile image;
    EXPECT_EQ(128u, image.LoadFileBinary(m_oDir.Path("missing.bin").c_str()));
    EXPECT_EQ(128u, image.LoadFileBinary(nullptr));
    EXPECT_EQ(Blocks{}, ImageBlocks(image));
}

TEST_F(CBinaryFileTest, TextLoadReplacesABinaryImage)
{
    const std::string path = m_oDir.Write("image.hex", ":0400100001020304E2\n");
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(DataPath("hexfile_binary.bin").c_str()));
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}}), ImageBlocks(image));
}
} // namespace
