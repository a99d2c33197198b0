// Writing images: exact Intel HEX and S-record text, binary refusals, a round trip.
#include "support/HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

namespace
{
using namespace hexfile_test;

std::string Bytes(unsigned int first, unsigned int count)
{
    std::string bytes;
    for (unsigned int i = 0; i < count; ++i)
        bytes += static_cast<char>(first + i);
    return bytes;
}

std::string Write(const Blocks& blocks, CTarvikHexfile::EType type)
{
    CTarvikHexfile image;
    for (const auto& block : blocks)
        image.AddMemoryBlock(static_cast<unsigned int>(block.first), block.second.data(),
                             static_cast<unsigned int>(block.second.size()));
    std::ostringstream out;
    if (type == CTarvikHexfile::Intel)
        EXPECT_TRUE(image.SaveAsFileIntel(out));
    else if (type == CTarvikHexfile::Motorola)
        EXPECT_TRUE(image.SaveAsFileMotorola(out));
    else
        EXPECT_EQ(0u, image.SaveAsFileBinary(out));
    return out.str();
}

TEST(Writer, EmptyImage)
{
    EXPECT_EQ(":00000001FF\n", Write({}, CTarvikHexfile::Intel));
    EXPECT_EQ("", Write({}, CTarvikHexfile::Motorola));
    EXPECT_EQ("", Write({}, CTarvikHexfile::Binary));
}

// Records count from the block's first byte and may run across 64 KiB; the extended address
// record that opens a file keeps lower-case letters, later ones are upper case.
TEST(Writer, IntelText)
{
    EXPECT_EQ(":020000040001f9\n"
              ":10FFF800000102030405060708090A0B0C0D0E0F81\n"
              ":020000040002F8\n"
              ":0100080010E7\n"
              ":00000001FF\n",
              Write({{0x1FFF8, Bytes(0, 17)}}, CTarvikHexfile::Intel));
}

// S1 up to 0xFFFF, S2 up to 0xFFFFFF, S3 above, decided by each record's first address: a
// record keeps its type when its data run on past the limit.
TEST(Writer, SrecText)
{
    const struct
    {
        const char* m_pName;
        Blocks m_vecBlocks;
        const char* m_pText;
    } cases[] = {
        {"records_of_16",
         {{0xFFF8, Bytes(0, 17)}},
         "S113FFF8000102030405060708090A0B0C0D0E0F7D\n"
         "S20501000810E1\n"},
        {"s1_at_ffff", {{0xFFFF, "\x01\x02"}}, "S105FFFF0102F9\n"},
        {"s2_at_10000", {{0x10000, "\x01\x02"}}, "S2060100000102F5\n"},
        {"s2_at_ffffff", {{0xFFFFFF, "\x01\x02"}}, "S206FFFFFF0102F9\n"},
        {"s3_at_1000000", {{0x1000000, "\xBE\xEF"}}, "S30701000000BEEF4A\n"},
        {"s3_at_ffffffff", {{0xFFFFFFFF, "\x5A"}}, "S306FFFFFFFF5AA3\n"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.m_pText, Write(c.m_vecBlocks, CTarvikHexfile::Motorola)) << c.m_pName;
}

TEST(Writer, BinaryNeedsOneBlockAtZeroAndFilesMustOpen)
{
    const std::string refusal = "Data could not be saved in binary format because of StartAddress != 0 OR "
                                "multiple blocks in hex data.\n\n";
    CTempDir dir;
    CTarvikHexfile twoBlocks;
    twoBlocks.AddMemoryBlock(0, "ab", 2);
    twoBlocks.AddMemoryBlock(4, "cd", 2);
    EXPECT_EQ(129u, twoBlocks.SaveFile(dir.Path("two.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ("File " + dir.Path("two.bin") + " could not be saved.\n\n" + refusal, twoBlocks.GetErrorMessage());
    const std::string missing = dir.Path("no/dir.hex");
    EXPECT_EQ(128u, twoBlocks.SaveFile(missing.c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ("File " + missing + " could not be opened.\n\n", twoBlocks.GetErrorMessage());

    CTarvikHexfile raised;
    raised.AddMemoryBlock(0x100, "ab", 2);
    raised.RecalcMinMax();
    std::ostringstream out;
    EXPECT_EQ(148u, raised.SaveAsFileBinary(out));
    EXPECT_EQ("", out.str());
    EXPECT_EQ(refusal, raised.GetErrorMessage());
}

// One block at 0 running across 64 KiB goes through Intel HEX, S-records and binary unchanged.
TEST(Writer, RoundTripThroughAllFormats)
{
    std::string bytes;
    for (unsigned int i = 0; i < 0x10011; ++i)
        bytes += static_cast<char>(i * 7 + i / 256);
    CTempDir dir;
    auto image = std::make_unique<CTarvikHexfile>();
    image->AddMemoryBlock(0, bytes.data(), static_cast<unsigned int>(bytes.size()));
    for (auto type : {CTarvikHexfile::Intel, CTarvikHexfile::Motorola, CTarvikHexfile::Binary})
    {
        const std::string path = dir.Path("image" + std::to_string(type));
        ASSERT_EQ(0u, image->SaveFile(path.c_str(), type)) << image->GetErrorMessage();
        image = std::make_unique<CTarvikHexfile>();
        ASSERT_EQ(0u, image->LoadFile(path.c_str())) << image->GetErrorMessage();
        EXPECT_EQ(type, image->m_eType);
        EXPECT_EQ((Blocks{{0, bytes}}), ImageBlocks(*image)) << type;
    }
}
} // namespace
