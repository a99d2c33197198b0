// Writing images: exact Intel HEX and S-record text, binary files, refusals, round trips.
#include "tarvik/hexfile/TarvikHexfile.h"

#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

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

void Fill(CTarvikHexfile& image, const Blocks& blocks)
{
    for (const auto& block : blocks)
        image.AddMemoryBlock(static_cast<unsigned int>(block.first), block.second.data(),
                             static_cast<unsigned int>(block.second.size()));
}

std::string WriteIntel(const Blocks& blocks)
{
    CTarvikHexfile image;
    Fill(image, blocks);
    std::ostringstream out;
    EXPECT_TRUE(image.SaveAsFileIntel(out));
    return out.str();
}

std::string WriteMotorola(const Blocks& blocks)
{
    CTarvikHexfile image;
    Fill(image, blocks);
    std::ostringstream out;
    EXPECT_TRUE(image.SaveAsFileMotorola(out));
    return out.str();
}

class CWriterTest : public ::testing::Test
{
protected:
    std::string Path(const char* name) const { return m_oDir.Path(name); }
    static std::string Read(const std::string& path) { return ReadFile(path); }

    CTempDir m_oDir;
};

TEST(IntelWriter, ExactText)
{
    EXPECT_EQ(":00000001FF\n", WriteIntel({}));
    EXPECT_EQ(":02123400DEAD2D\n:00000001FF\n", WriteIntel({{0x1234, "\xDE\xAD"}}));
    // Records count from the block's first byte and may run across 64 KiB; the extended
    // address record that opens a file keeps lower-case letters.
    EXPECT_EQ(":020000040001f9\n"
              ":10FFF800000102030405060708090A0B0C0D0E0F81\n"
              ":020000040002F8\n"
              ":0100080010E7\n"
              ":00000001FF\n",
              WriteIntel({{0x1FFF8, Bytes(0, 17)}}));
    EXPECT_EQ(":0200000400ab4f\n:02000000DDEE33\n:00000001FF\n", WriteIntel({{0xAB0000, "\xDD\xEE"}}));
    // Later extended address records are upper case; blocks go out in list order.
    EXPECT_EQ(":03000000AABBCCCC\n"
              ":02000004000AF0\n"
              ":02000000DDEE33\n"
              ":020000040000FA\n"
              ":02123400DEAD2D\n"
              ":00000001FF\n",
              WriteIntel({{0, "\xAA\xBB\xCC"}, {0xA0000, "\xDD\xEE"}, {0x1234, "\xDE\xAD"}}));
}

TEST(IntelWriter, CutsBlocksIntoSixteenByteRecords)
{
    std::string text = WriteIntel({{0x100, Bytes(0, 40)}});
    EXPECT_EQ(":10010000000102030405060708090A0B0C0D0E0F77\n"
              ":10011000101112131415161718191A1B1C1D1E1F67\n"
              ":080120002021222324252627BB\n"
              ":00000001FF\n",
              text);
}

TEST(MotorolaWriter, ExactText)
{
    EXPECT_EQ("", WriteMotorola({}));
    EXPECT_EQ("S1051234DEAD29\n", WriteMotorola({{0x1234, "\xDE\xAD"}}));
    // S1 up to 0xFFFF, S2 below 0x1000000, S3 above; decided per record.
    EXPECT_EQ("S113FFF8000102030405060708090A0B0C0D0E0F7D\n"
              "S20501000810E1\n",
              WriteMotorola({{0xFFF8, Bytes(0, 17)}}));
    EXPECT_EQ("S205FFFFFF01FC\nS30701000000BEEF4A\n", WriteMotorola({{0xFFFFFF, "\x01"}, {0x1000000, "\xBE\xEF"}}));
}

TEST_F(CWriterTest, SaveFileWritesEachFormat)
{
    CTarvikHexfile image;
    Fill(image, {{0x1234, "\xDE\xAD"}});
    EXPECT_EQ(0u, image.SaveFile(Path("a.hex").c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ(":02123400DEAD2D\n:00000001FF\n", Read(Path("a.hex")));
    EXPECT_EQ(Path("a.hex"), image.GetFilename());
    EXPECT_EQ(0u, image.SaveFile(Path("a.s19").c_str(), CTarvikHexfile::Motorola));
    EXPECT_EQ("S1051234DEAD29\n", Read(Path("a.s19")));
    EXPECT_EQ(Path("a.s19"), image.GetFilename());

    // A longer file is truncated by a shorter one.
    EXPECT_EQ(0u, image.SaveFile(Path("a.hex").c_str(), CTarvikHexfile::Motorola));
    EXPECT_EQ("S1051234DEAD29\n", Read(Path("a.hex")));

    // The binary test is on the image's minimum (still 0 here), not the block's start.
    EXPECT_EQ(0u, image.SaveFile(Path("a.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ("\xDE\xAD", Read(Path("a.bin")));
    EXPECT_EQ(0u, image.SaveFile(Path("b.bin").c_str(), CTarvikHexfile::Detect));
    EXPECT_EQ("\xDE\xAD", Read(Path("b.bin")));

    CTarvikHexfile empty;
    EXPECT_EQ(0u, empty.SaveFile(Path("e.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ("", Read(Path("e.bin")));
    EXPECT_EQ(0u, empty.SaveFile(Path("e.s19").c_str(), CTarvikHexfile::Motorola));
    EXPECT_EQ("", Read(Path("e.s19")));

    EXPECT_EQ(0u, image.SaveFile(nullptr, CTarvikHexfile::Intel));
    EXPECT_EQ(Path("b.bin"), image.GetFilename());
}

TEST_F(CWriterTest, BinaryRefusal)
{
    const std::string refusal = "Data could not be saved in binary format because of StartAddress != 0 OR "
                                "multiple blocks in hex data.\n\n";
    CTarvikHexfile twoBlocks;
    Fill(twoBlocks, {{0, "ab"}, {4, "cd"}});
    m_oDir.Write("old.bin", "old contents");
    EXPECT_EQ(129u, twoBlocks.SaveFile(Path("old.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ("File " + Path("old.bin") + " could not be saved.\n\n" + refusal, twoBlocks.GetErrorMessage());
    EXPECT_EQ("", twoBlocks.GetFilename());
    EXPECT_EQ("", Read(Path("old.bin"))); // opened with truncation before the refusal

    std::ostringstream out;
    EXPECT_EQ(148u, twoBlocks.SaveAsFileBinary(out));
    EXPECT_EQ("", out.str());

    CTarvikHexfile raised;
    Fill(raised, {{0x100, "ab"}});
    raised.RecalcMinMax();
    EXPECT_EQ(0x100u, raised.m_nMinAddr);
    EXPECT_EQ(129u, raised.SaveFile(Path("r.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ("File " + Path("r.bin") + " could not be saved.\n\n" + refusal, raised.GetErrorMessage());
}

TEST_F(CWriterTest, OpenFailure)
{
    CTarvikHexfile image;
    Fill(image, {{0, "ab"}});
    const std::string path = Path("missing/dir/x.hex");
    for (auto type : {CTarvikHexfile::Intel, CTarvikHexfile::Motorola, CTarvikHexfile::Binary})
    {
        EXPECT_EQ(128u, image.SaveFile(path.c_str(), type));
        EXPECT_EQ("File " + path + " could not be opened.\n\n", image.GetErrorMessage());
    }
    // The next save starts with an empty message.
    EXPECT_EQ(0u, image.SaveFile(Path("ok.hex").c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ("", image.GetErrorMessage());
}

// Blocks with holes, odd lengths and a run across 64 KiB survive Intel HEX and S-records.
TEST_F(CWriterTest, RoundTripsThroughAllFormats)
{
    const Blocks original{{0x10, Bytes(1, 33)},
                          {0x52, "\xFF"},
                          {0xFFF0, Bytes(0x80, 40)},
                          {0x123456, Bytes(7, 5)},
                          {0xFFFFFFF0, Bytes(0xF0, 16)}};
    CTarvikHexfile source;
    Fill(source, original);

    EXPECT_EQ(0u, source.SaveFile(Path("r.hex").c_str(), CTarvikHexfile::Intel));
    CTarvikHexfile intel;
    EXPECT_EQ(0u, intel.LoadFile(Path("r.hex").c_str()));
    EXPECT_EQ(original, ImageBlocks(intel));

    EXPECT_EQ(0u, intel.SaveFile(Path("r.s28").c_str(), CTarvikHexfile::Motorola));
    CTarvikHexfile motorola;
    EXPECT_EQ(0u, motorola.LoadFile(Path("r.s28").c_str()));
    EXPECT_EQ(original, ImageBlocks(motorola));

    // And back to Intel HEX: the same text as the first file.
    EXPECT_EQ(0u, motorola.SaveFile(Path("r2.hex").c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ(Read(Path("r.hex")), Read(Path("r2.hex")));

    // Binary holds a single block at 0: S-records in, binary out, binary in.
    CTarvikHexfile single;
    Fill(single, {{0, Bytes(0, 300)}});
    EXPECT_EQ(0u, single.SaveFile(Path("s.s19").c_str(), CTarvikHexfile::Motorola));
    CTarvikHexfile fromSrec;
    EXPECT_EQ(0u, fromSrec.LoadFile(Path("s.s19").c_str()));
    EXPECT_EQ(0u, fromSrec.SaveFile(Path("s.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ(Bytes(0, 300), Read(Path("s.bin")));
    CTarvikHexfile fromBinary;
    EXPECT_EQ(0u, fromBinary.LoadFile(Path("s.bin").c_str(), CTarvikHexfile::Binary));
    EXPECT_EQ((Blocks{{0, Bytes(0, 300)}}), ImageBlocks(fromBinary));
}

TEST(WriterNames, TemporaryNamesCountUp)
{
    CTarvikHexfile image;
    const unsigned int next = CTarvikHexfile::nTempFilenameLfdNr;
    image.SetFilename(nullptr);
    EXPECT_EQ("tmp" + std::to_string(next), image.GetFilename());
    CTarvikHexfile other;
    other.SetFilename(nullptr);
    EXPECT_EQ("tmp" + std::to_string(next + 1), other.GetFilename());
    image.SetFilename("flash.hex");
    EXPECT_EQ("flash.hex", image.GetFilename());
}

TEST(WriterNames, SizeStrings)
{
    const std::vector<std::pair<int, std::string>> cases{{0, "0 kbyte"},     {1, "1 byte"},       {1023, "1023 byte"},
                                                         {1024, "1 kbyte"},  {1536, "1536 byte"}, {2048, "2 kbyte"},
                                                         {-1024, "-1 kbyte"}};
    CTarvikHexfile image;
    for (const auto& c : cases)
        EXPECT_EQ(c.second, image.GetSizeString(c.first)) << c.first;
}
} // namespace
