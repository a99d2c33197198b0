// Hex dumps: single lines, whole dumps, dumps of an address range of the image.
#include "tarvik/hexfile/TarvikHexfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{
// A zero-filled buffer of exactly the size the dump needs, followed by guard bytes that the
// dump must leave alone.
class CDumpBuffer
{
public:
    explicit CDumpBuffer(size_t size) : m_nSize(size), m_vecData(size + kGuard, '\0')
    {
        std::memset(m_vecData.data() + size, kGuardByte, kGuard);
    }
    char* Get() { return m_vecData.data(); }
    std::string Text() const { return std::string(m_vecData.data()); }
    bool GuardIntact() const
    {
        for (size_t i = 0; i < kGuard; ++i)
            if (m_vecData[m_nSize + i] != kGuardByte)
                return false;
        return true;
    }

private:
    static constexpr size_t kGuard = 16;
    static constexpr char kGuardByte = '#';
    size_t m_nSize;
    std::vector<char> m_vecData;
};

// Lines times characters per line, and one for the NUL behind the last newline.
size_t DumpSize(uint64_t bytes, unsigned int perLine)
{
    CTarvikHexfile image;
    return static_cast<size_t>((bytes + perLine - 1) / perLine * image.GetNumberOfBytesNeedForLine(perLine) + 1);
}

TEST(DumpLine, LayoutOfPresentMissingAndAbsentBytes)
{
    CTarvikHexfile image;
    const char data[] = {'A', 'B', 0x00, 0x7F, static_cast<char>(0x80), 0x20, '~', 'q', '\n', 'z'};
    const bool present[] = {true, true, true, true, true, true, true, false, true, true};
    struct SCase
    {
        uint64_t m_nSize;
        uint64_t m_nOffset;
        uint64_t m_nPerLine;
        std::string m_sLine;
    };
    const std::vector<SCase> cases{
        {7, 0, 8, " 41 42 00 7F 80 20 7E    AB... ~ "},
        {10, 0, 10, " 41 42 00 7F 80 20 7E --  0A 7A AB... ~ .z"},
        {10, 6, 4, " 7E -- 0A 7A ~ .z"},
        {10, 8, 4, " 0A 7A       .z  "},
        {10, 10, 2, "         "},
        {10, 12, 2, "         "}, // offset past the end: nothing is read
        // Groups of eight open with a blank; bytes past the end are blanks in both parts.
        {3, 0, 17, " 41 42 00" + std::string(1 + 3 * 5 + 1 + 3 * 8 + 1 + 3, ' ') + "AB." + std::string(14, ' ')},
        {3, 0, 0, ""}};
    for (const auto& c : cases)
    {
        const std::string& expected = c.m_sLine;
        CDumpBuffer out(expected.size() + 1);
        unsigned long written = 99;
        image.MemDumpLine(data, present, c.m_nSize, c.m_nOffset, out.Get(), &written, c.m_nPerLine, 0x1234);
        EXPECT_EQ(expected, out.Text()) << c.m_nOffset << "/" << c.m_nPerLine;
        EXPECT_EQ(expected.size() + 1, written);
        EXPECT_TRUE(out.GuardIntact());
    }
}

TEST(DumpLine, AppendsToTheTextAlreadyThere)
{
    CTarvikHexfile image;
    const char data[] = {'x'};
    const bool present[] = {true};
    char out[32] = "ab";
    unsigned long written = 0;
    image.MemDumpLine(data, present, 1, 0, out, &written, 1, 0);
    EXPECT_STREQ("ab 78 x", out);
    EXPECT_EQ(8u, written);
    image.MemDumpLine(data, present, 1, 0, out, nullptr, 1, 0);
    EXPECT_STREQ("ab 78 x 78 x", out);
}

TEST(DumpLine, CharactersPerLine)
{
    CTarvikHexfile image;
    for (unsigned int perLine : {1u, 7u, 8u, 9u, 16u, 17u, 512u, 600u, 2000u})
    {
        const uint64_t expected = 4ull * perLine + (perLine + 7) / 8 + 1;
        EXPECT_EQ(expected, image.GetNumberOfBytesNeedForLine(perLine)) << perLine;
        std::vector<char> data(perLine, 'a');
        std::vector<char> present(perLine, 1);
        CDumpBuffer out(expected);
        unsigned long written = 0;
        image.MemDumpLine(data.data(), reinterpret_cast<const bool*>(present.data()), perLine, 0, out.Get(), &written,
                          perLine, 0);
        EXPECT_EQ(expected, written);
        EXPECT_TRUE(out.GuardIntact());
    }
    EXPECT_EQ(67u, image.GetNumberOfBytesNeedForLine(16));
}

TEST(Dump, EveryLineEndsWithANewline)
{
    CTarvikHexfile image;
    const char data[] = "0123456789";
    const bool present[10] = {true, true, true, true, true, true, true, true, true, true};
    CDumpBuffer out(DumpSize(10, 4));
    image.MemDump(data, present, 10, out.Get(), 4, 0);
    EXPECT_EQ(" 30 31 32 33 0123\n"
              " 34 35 36 37 4567\n"
              " 38 39       89  \n",
              out.Text());
    EXPECT_TRUE(out.GuardIntact());

    // No lines for no bytes, and a width of 0 writes nothing at all.
    char text[8] = "keep";
    image.MemDump(data, present, 10, text, 0, 0);
    EXPECT_STREQ("keep", text);
    image.MemDump(data, present, 0, text, 4, 0);
    EXPECT_STREQ("", text);
}

class CPrintDumpTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_oImage.AddMemoryBlock(0x10, "ABCD", 4);
        m_oImage.AddMemoryBlock(0x16, "xy\x01", 3);
    }
    std::string Dump(unsigned int perLine, uint64_t from, uint64_t to, uint64_t bytes)
    {
        CDumpBuffer out(DumpSize(bytes, perLine));
        m_oImage.GetPrintDump(out.Get(), perLine, from, to);
        EXPECT_TRUE(out.GuardIntact());
        return out.Text();
    }
    CTarvikHexfile m_oImage;
};

TEST_F(CPrintDumpTest, RangeWithHole)
{
    EXPECT_EQ(" 41 42 43 44 -- -- 78 79 ABCD  xy\n"
              " 01                      .       \n",
              Dump(8, 0x10, 0x30, 9));
    // From inside the first block to inside the second.
    EXPECT_EQ(" 43 44 -- -- 78 CD  x\n", Dump(5, 0x12, 0x16, 5));
    // Before the first block.
    EXPECT_EQ(" -- -- 41 42   AB\n", Dump(4, 0x0E, 0x11, 4));
}

TEST_F(CPrintDumpTest, WholeImageAndClamping)
{
    CDumpBuffer out(DumpSize(0x19, 16));
    m_oImage.GetPrintDump(out.Get(), 16);
    EXPECT_EQ(" -- -- -- -- -- -- -- --  -- -- -- -- -- -- -- --                 \n"
              " 41 42 43 44 -- -- 78 79  01                      ABCD  xy.       \n",
              out.Text());
    EXPECT_TRUE(out.GuardIntact());
    // A start above the highest address is clamped to it.
    EXPECT_EQ(" 01 .\n", Dump(1, 0x100, 0x200, 1));
}

TEST_F(CPrintDumpTest, NothingToDump)
{
    char text[8] = "keep";
    m_oImage.GetPrintDump(text, 4, 0x12, 0x11); // from above to
    EXPECT_STREQ("", text);
    std::strcpy(text, "keep");
    m_oImage.GetPrintDump(text, 0, 0x10, 0x11); // no width
    EXPECT_STREQ("keep", text);
    m_oImage.GetPrintDump(nullptr, 4, 0x10, 0x11);

    // An empty image has only address 0, which no block holds.
    CTarvikHexfile empty;
    CDumpBuffer out(DumpSize(1, 4));
    empty.GetPrintDump(out.Get(), 4);
    EXPECT_EQ(" --              \n", out.Text());
    EXPECT_TRUE(out.GuardIntact());
}

TEST(PrintDump, BlocksAreTakenInAscendingOrder)
{
    // SetDataByte appends out of order; the dump stops at the first block above the range.
    CTarvikHexfile image;
    image.SetDataByte(0x100, 'a');
    image.SetDataByte(0x10, 'b');
    CDumpBuffer out(DumpSize(1, 1));
    image.GetPrintDump(out.Get(), 1, 0x10, 0x10);
    EXPECT_EQ(" --  \n", out.Text());
}
} // namespace
