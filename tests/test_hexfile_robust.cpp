// Hostile input: random and half-valid lines, lying counts, over-long lines and extreme
// addresses must give a result code, never a crash or an access outside a buffer (the
// sanitizer build watches the latter).
#include "tarvik/hexfile/TarvikHexfile.h"

#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{
class CRobustTest : public ::testing::Test
{
protected:
    std::string Write(const std::string& content) const { return m_oDir.Write("input", content); }

    hexfile_test::CTempDir m_oDir;
};

std::string RandomLine(std::mt19937& random)
{
    static const char kAlphabet[] = ":S0123456789ABCDEFabcdefGxz;\r\t \0\xFF";
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<int> pick(0, sizeof(kAlphabet) - 2);
    std::uniform_int_distribution<int> digit(0, 15);
    std::string line;
    int choice = kind(random);
    if (choice < 3)
    {
        // A record whose count may lie about the line's length.
        line = choice == 0 ? ":" : "S";
        line += (choice == 0) ? "" : std::string(1, "0123456789"[digit(random) % 10]);
        int length = std::uniform_int_distribution<int>(0, 80)(random);
        for (int i = 0; i < length; ++i)
            line += "0123456789ABCDEF"[digit(random)];
        if (choice == 2)
            line[std::uniform_int_distribution<size_t>(0, line.size() - 1)(random)] = 'F';
    }
    else if (choice == 3)
        line = std::string(std::uniform_int_distribution<int>(1000, 2100)(random), 'F');
    else
    {
        int length = std::uniform_int_distribution<int>(0, 40)(random);
        for (int i = 0; i < length; ++i)
            line += kAlphabet[pick(random)];
    }
    return line;
}

TEST_F(CRobustTest, RandomFilesGiveResultCodes)
{
    const std::set<uint32_t> allowed{0, 144, 145, 146, 147};
    std::mt19937 random(20240611);
    for (int file = 0; file < 200; ++file)
    {
        std::string content = (file % 2 == 0) ? ":" : "S";
        int lines = std::uniform_int_distribution<int>(1, 40)(random);
        for (int i = 0; i < lines; ++i)
            content += RandomLine(random) + (i % 5 == 4 ? "\r\n" : "\n");
        const std::string path = Write(content);
        for (auto type : {CTarvikHexfile::Detect, CTarvikHexfile::Intel, CTarvikHexfile::Motorola})
        {
            CTarvikHexfile image;
            testing::internal::CaptureStdout();
            uint32_t result = image.LoadFile(path.c_str(), type);
            testing::internal::GetCapturedStdout();
            ASSERT_TRUE(allowed.count(result)) << result << " for file " << file;
            EXPECT_EQ(result == 0, image.GetErrorMessage().empty());

            // Whatever was read can be dumped around its first block and written out again.
            if (!image.GetMemoryBlocks().empty())
            {
                uint64_t from = image.GetMemoryBlocks().front()->m_nStartAddress;
                uint64_t to = from + 100;
                std::vector<char> text(((to - from) / 16 + 1) * image.GetNumberOfBytesNeedForLine(16) + 1, '\0');
                image.GetPrintDump(text.data(), 16, from, to);
            }
            EXPECT_EQ(0u, image.SaveFile(m_oDir.Path("out.hex").c_str(), CTarvikHexfile::Intel));
            EXPECT_EQ(0u, image.SaveFile(m_oDir.Path("out.s28").c_str(), CTarvikHexfile::Motorola));
        }
    }
}

TEST_F(CRobustTest, AddressesAtTheTopOfTheRange)
{
    // Data records that run past 0xFFFFFFFF wrap to 0 in both formats.
    const std::string intel = Write(":02000004FFFFFC\n:FFFFF000" + std::string(510, 'A') + "BC\n");
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(intel.c_str()));
    ASSERT_EQ(2u, image.GetMemoryBlocks().size());
    EXPECT_EQ(0u, image.GetMemoryBlocks()[0]->m_nStartAddress);
    EXPECT_EQ(0xEFu, image.GetMemoryBlocks()[0]->m_nLength);
    EXPECT_EQ(0xFFFFFFF0u, image.GetMemoryBlocks()[1]->m_nStartAddress);
    EXPECT_EQ(0x10u, image.GetMemoryBlocks()[1]->m_nLength);
    EXPECT_EQ(0xFFFFFFFFu, image.m_nMaxAddr);

    const std::string srec = Write("S3FFFFFFFFFF" + std::string(500, 'B') + "00\n");
    CTarvikHexfile motorola;
    EXPECT_EQ(0u, motorola.LoadFile(srec.c_str()));
    ASSERT_EQ(2u, motorola.GetMemoryBlocks().size());
    EXPECT_EQ(0xF9u, motorola.GetMemoryBlocks()[0]->m_nLength);
    EXPECT_EQ(0xFFFFFFFFu, motorola.m_nMaxAddr);
}
} // namespace
