// Reading memory images: Intel HEX and S-record lines, whole files, result codes and their texts,
// and hostile input.
#include "support/HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{
using namespace hexfile_test;

const char kFormat[] = "Invalid format in data line: ";
const char kLength[] = "Invalid format in data line (line length): ";
const char kType[] = "Invalid record type in data line: ";
const char kChecksum[] = "Invalid checksum in data line: ";

struct SLineCase
{
    const char* m_pName;
    bool m_bIntel;
    std::string m_sLine;
    uint32_t m_nResult;
    const char* m_pMessage; // nullptr: no message; else the message is this text followed by the line
    Blocks m_vecBlocks;
};

void PrintTo(const SLineCase& c, std::ostream* out)
{
    *out << c.m_pName;
}

class CLineTest : public ::testing::TestWithParam<SLineCase>
{
};

TEST_P(CLineTest, ResultMessageAndBytes)
{
    const SLineCase& c = GetParam();
    const std::string line = c.m_sLine + '\0'; // the reader turns the newline into a NUL
    CTarvikHexfile image;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.m_nResult,
              c.m_bIntel ? image.AnalizeLineIntel(line, map, extended) : image.AnalizeLineMotorola(line, map));
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string message = c.m_pMessage == nullptr ? "" : c.m_pMessage + line;
    EXPECT_EQ(message, image.GetErrorMessage());
    EXPECT_EQ(c.m_nResult == 146 ? message + "\n" : "", printed); // only a checksum error is printed
    std::vector<CTarvikHexfile::SMemoryBlock*> blocks;
    map.ToMemoryBlocks(blocks);
    EXPECT_EQ(c.m_vecBlocks, ToBlocks(blocks));
    for (auto* block : blocks)
        delete block;
}

INSTANTIATE_TEST_SUITE_P(
    Records, CLineTest,
    ::testing::Values(
        SLineCase{"intel_cr", true, ":0400100001020304E2\r", 0, nullptr, {{0x10, "\x01\x02\x03\x04"}}},
        SLineCase{"intel_lower_case", true, ":04fff000a1b2c3d423", 0, nullptr, {{0xFFF0, "\xA1\xB2\xC3\xD4"}}},
        // 'G' and 'x' are no hex digits and read as 0.
        SLineCase{"intel_non_hex", true, ":04001000010G030xE8", 0, nullptr, {{0x10, std::string("\x01\0\x03\0", 4)}}},
        SLineCase{"intel_comment", true, ";0400100001020304E2", 0, nullptr, {}},
        SLineCase{"intel_blanks", true, "  \t \r", 0, nullptr, {}},
        SLineCase{"intel_no_colon", true, "0400100001020304E2", 145, kFormat, {}},
        SLineCase{"intel_count_past_end", true, ":10001000010203", 145, kFormat, {}},
        SLineCase{"intel_type_3", true, ":0400000300001234B3", 144, kType, {}},
        // The bytes of a record with a bad checksum are taken all the same.
        SLineCase{"intel_checksum", true, ":0400100001020304E3", 146, kChecksum, {{0x10, "\x01\x02\x03\x04"}}},
        // A start address adds its four bytes to the checksum and nothing to the image.
        SLineCase{"intel_type_5", true, ":0400000508000131BD", 0, nullptr, {}},
        SLineCase{"intel_type_5_checksum", true, ":0400000508000131BC", 146, kChecksum, {}},
        // S-record checksums are not verified.
        SLineCase{"srec_cr_bad_checksum", false, "S1061234010203FF\r", 0, nullptr, {{0x1234, "\x01\x02\x03"}}},
        SLineCase{"srec_lower_case", false, "S2060100000a0be3", 0, nullptr, {{0x10000, "\x0A\x0B"}}},
        // Address sizes at their limits; data runs on across 0x10000 and 0x1000000 and wraps at 4 GiB.
        SLineCase{"srec_s1_ffff", false, "S105FFFF0102F9", 0, nullptr, {{0xFFFF, "\x01\x02"}}},
        SLineCase{"srec_s2_ffff", false, "S20600FFFF0102F8", 0, nullptr, {{0xFFFF, "\x01\x02"}}},
        SLineCase{"srec_s2_10000", false, "S2060100000102F5", 0, nullptr, {{0x10000, "\x01\x02"}}},
        SLineCase{"srec_s2_ffffff", false, "S206FFFFFF0102F9", 0, nullptr, {{0xFFFFFF, "\x01\x02"}}},
        SLineCase{"srec_s3_10000", false, "S307000100000102F4", 0, nullptr, {{0x10000, "\x01\x02"}}},
        SLineCase{"srec_s3_ffffffff", false, "S307FFFFFFFF0102F9", 0, nullptr, {{0, "\x02"}, {0xFFFFFFFF, "\x01"}}},
        SLineCase{"srec_blanks", false, " \t\r", 0, nullptr, {}},
        SLineCase{"srec_comment", false, ";S1061234010203AD", 145, kFormat, {}},
        SLineCase{"srec_count_past_end", false, "S1FF0000AABB", 145, kLength, {}},
        SLineCase{"srec_count_below_address", false, "S1020000FD", 145, kLength, {}},
        SLineCase{"srec_s4", false, "S4061234010203AD", 144, kType, {}}),
    [](const ::testing::TestParamInfo<SLineCase>& info) { return std::string(info.param.m_pName); });

// Only the first extended-address record of the process may raise the minimum from 0.
TEST(ReadLines, FirstExtendedAddressOfTheProcessSetsTheMinimum)
{
    CTarvikHexfile::s_bFirstTime = true; // as at process start
    CTarvikHexfile first;
    CTarvikHexfile second;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    EXPECT_EQ(0u, first.AnalizeLineIntel(":020000040800F2", map, extended));
    EXPECT_EQ(0x08000000u, first.m_nMinAddr);
    EXPECT_EQ(0u, first.AnalizeLineIntel(":020000040900F1", map, extended));
    EXPECT_EQ(0x08000000u, first.m_nMinAddr);
    EXPECT_EQ(0u, first.AnalizeLineIntel(":020000040001F9", map, extended));
    EXPECT_EQ(0x10000u, first.m_nMinAddr);
    EXPECT_EQ(0u, second.AnalizeLineIntel(":020000040800F2", map, extended));
    EXPECT_EQ(0u, second.m_nMinAddr);
}

// Writes in any order, overlapping, around page and 64-byte boundaries and at both ends of the
// address space give the runs of a plain address-to-byte map, the last write winning.
TEST(ReadLines, ByteMapGivesTheRunsOfAPlainMap)
{
    std::mt19937 random(7);
    auto pick = [&random](uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); };
    const uint32_t bases[] = {0, 0x40, 0xFC0, 0x1000, 0x7FFFF000, 0xFFFFF000};
    for (int round = 0; round < 50; ++round)
    {
        CTarvikHexfile::CByteMap map;
        std::map<uint32_t, char> reference;
        for (int write = pick(300); write-- > 0;)
        {
            // Spans of up to 130 bytes, so that full and partial slices both occur.
            const uint32_t start = bases[pick(6)] + pick(0x2000) - 0x1000;
            for (uint32_t n = pick(4) == 0 ? pick(130) : 1; n-- > 0;)
            {
                const char value = static_cast<char>(pick(256));
                map.SetByte(start + n, value);
                reference[start + n] = value;
            }
        }
        Blocks expected;
        uint64_t next = 0;
        for (const auto& byte : reference)
        {
            if (expected.empty() || byte.first != next)
                expected.emplace_back(byte.first, "");
            expected.back().second += byte.second;
            next = uint64_t(byte.first) + 1;
        }
        std::vector<CTarvikHexfile::SMemoryBlock*> blocks;
        map.ToMemoryBlocks(blocks);
        EXPECT_EQ(expected, ToBlocks(blocks)) << "round " << round;
        for (auto* block : blocks)
            delete block;
    }
}

TEST(ReadLines, ImageAbove4GiBFailsEveryGoodRecord)
{
    CTarvikHexfile image;
    image.SetDataByte(0x100000000ull, 1);
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(147u, image.AnalizeLineIntel(":00000001FF", map, extended));
    EXPECT_EQ(146u, image.AnalizeLineMotorola("S9030000FC", map));
    const std::string printed = "Data addresses above 4 giga byte are not supported, m_nMaxAddr = 4294967296\n";
    EXPECT_EQ(printed + printed, testing::internal::GetCapturedStdout());
    EXPECT_EQ("Data addresses above 4 giga byte are not supported. ", image.GetErrorMessage());
}

TEST(ReadFile, IntelSampleAndDetectionByFirstCharacter)
{
    const std::string path = DataPath("hexfile_sample.hex");
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(path.c_str())); // opens with a comment, so it is taken as binary
    EXPECT_EQ(CTarvikHexfile::Binary, image.m_eType);
    EXPECT_EQ((Blocks{{0, ReadFile(path)}}), ImageBlocks(image));

    EXPECT_EQ(0u, image.LoadFile(path.c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ("", image.GetErrorMessage());
    EXPECT_EQ((Blocks{{0, std::string(
                              "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10\x11\x12\x13", 20)},
                      {0x10020, "\x22"},
                      {0x1FFF0, "\xA1\xB2\xC3\xD4"}}),
              ImageBlocks(image));
    EXPECT_EQ(0x1FFF3u, image.m_nMaxAddr);
}

TEST(ReadFile, SrecSampleWithHeaderCountAndStartRecords)
{
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(DataPath("hexfile_sample.s19").c_str()));
    EXPECT_EQ(CTarvikHexfile::Motorola, image.m_eType);
    EXPECT_EQ((Blocks{{0, std::string("\x00\x01\x02\x03\x04\x05\x06\x07", 8)},
                      {0x12345, "\xDE\xAD\xBE\xEF"},
                      {0x80000000, "\x55\xAA"}}),
              ImageBlocks(image));
    EXPECT_EQ(0x80000001u, image.m_nMaxAddr);
}

TEST(ReadFile, BadChecksumIsPrintedKeepsTheRecordsAndAsksToIgnore)
{
    const std::string path = DataPath("hexfile_bad_checksum.hex");
    CTarvikHexfile image;
    testing::internal::CaptureStdout();
    EXPECT_EQ(146u, image.LoadFile(path.c_str()));
    EXPECT_EQ(std::string(kChecksum) + ":0400100001020304E3" + '\0' + "\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("File <" + path + ">: checksum error.\n\n" + kChecksum + ":0400100001020304E3.\nIgnore error? ",
              image.GetErrorMessage());
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));
}

TEST(ReadFile, MissingAndEmptyFiles)
{
    CTarvikHexfile image;
    const std::string missing = DataPath("no_such_file.hex");
    EXPECT_EQ(128u, image.LoadFile(missing.c_str()));
    EXPECT_EQ("File <" + missing + "> could not be opened.", image.GetErrorMessage());
    const std::string empty = DataPath("hexfile_empty.hex");
    EXPECT_EQ(147u, image.LoadFile(empty.c_str()));
    EXPECT_EQ("File <" + empty + ">: could not be opened.\n\n", image.GetErrorMessage());
}

// Records in descending order give ascending blocks; a one-byte hole (0x1004) splits a run, a
// page boundary (0x1000) does not.
TEST(ReadFile, BlocksAreAscendingRuns)
{
    const Blocks expected{{0x0FFC, "\x01\x02\x03\x04\x05\x06\x07\x08"}, {0x1005, "\x10\x11\x12\x13"}};
    for (const char* content : {":0410050010111213A1\n:0410000005060708D2\n:040FFC0001020304E7\n",
                                "S1071005101112139D\nS107100005060708CE\nS1070FFC01020304E3\n"})
    {
        std::istringstream in(content);
        CTarvikHexfile image;
        EXPECT_EQ(0u, image.AnalizeFile(in, CTarvikHexfile::Detect));
        EXPECT_EQ(expected, ImageBlocks(image)) << content;
        EXPECT_EQ(content[0] == 'S' ? 0x0FFCu : 0u, image.m_nMinAddr) << content;
        EXPECT_EQ(0x1008u, image.m_nMaxAddr) << content;
    }
}

// A line of 1023 characters is read whole; a longer one silently ends the load.
TEST(ReadFile, LineOver1023CharactersEndsTheLoad)
{
    std::istringstream in(":0400100001020304E2\n;" + std::string(1022, 'x') + "\n:0400200005060708C2\n;" +
                          std::string(1023, 'x') + "\n:0100300009C6\n");
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.AnalizeFile(in, CTarvikHexfile::Detect));
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));
}

// Random and half-valid lines, lying counts, over-long lines and records running past 4 GiB give
// a result code, never a crash or an access outside a buffer (the sanitizer build watches that).
TEST(ReadFile, HostileInputGivesResultCodes)
{
    std::mt19937 random(20240611);
    auto pick = [&random](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
    const std::string hex = "0123456789ABCDEF";
    const char kOther[] = ":S0123456789abcdefGxz;\r\t \0\xFF";
    const std::string other(kOther, sizeof(kOther) - 1);
    std::vector<std::string> files{":02000004FFFFFC\n:FFFFF000" + std::string(510, 'A') + "BC\n",
                                   "S3FFFFFFFFFF" + std::string(500, 'B') + "00\n"};
    for (int file = 0; file < 200; ++file)
    {
        std::string content;
        for (size_t line = pick(40); line-- > 0;)
        {
            content += pick(2) ? std::string(":") : "S" + std::string(1, hex[pick(10)]);
            const std::string& alphabet = pick(4) ? hex : other;
            for (size_t n = pick(pick(10) ? 80 : 2100); n-- > 0;)
                content += alphabet[pick(alphabet.size())];
            content += pick(5) ? "\n" : "\r\n";
        }
        files.push_back(content);
    }
    const std::set<uint32_t> allowed{0, 144, 145, 146, 147};
    for (const auto& content : files)
        for (auto type : {CTarvikHexfile::Detect, CTarvikHexfile::Intel, CTarvikHexfile::Motorola})
        {
            std::istringstream in(content);
            CTarvikHexfile image;
            testing::internal::CaptureStdout();
            ASSERT_TRUE(allowed.count(image.AnalizeFile(in, type))) << content;
            testing::internal::GetCapturedStdout();
            // Whatever was read can be dumped around its first block and written out again.
            if (!image.GetMemoryBlocks().empty())
            {
                const uint64_t from = image.GetMemoryBlocks().front()->m_nStartAddress;
                std::vector<char> text(7 * image.GetNumberOfBytesNeedForLine(16) + 1, '\0');
                image.GetPrintDump(text.data(), 16, from, from + 100);
            }
            std::ostringstream out;
            EXPECT_TRUE(image.SaveAsFileIntel(out));
            EXPECT_TRUE(image.SaveAsFileMotorola(out));
        }

    // The Intel record at the top wrapped to 0.
    std::istringstream in(files[0]);
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.AnalizeFile(in, CTarvikHexfile::Detect));
    ASSERT_EQ(2u, image.GetMemoryBlocks().size());
    EXPECT_EQ(0xEFu, image.GetMemoryBlocks()[0]->m_nLength);
    EXPECT_EQ(0xFFFFFFF0u, image.GetMemoryBlocks()[1]->m_nStartAddress);
}
} // namespace
