// Intel HEX reading: single records, whole files, error codes and their texts.
#include "tarvik/hexfile/TarvikHexfile.h"

#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
using namespace hexfile_test;

struct SIntelLineCase
{
    const char* m_pName;
    std::string m_sLine;
    uint32_t m_nResult;
    const char* m_pMessagePrefix; // nullptr: no message; else the message is prefix + line
    Blocks m_vecBlocks;
};

const char kFormat[] = "Invalid format in data line: ";
const char kType[] = "Invalid record type in data line: ";
const char kChecksum[] = "Invalid checksum in data line: ";

class CIntelLineTest : public ::testing::TestWithParam<SIntelLineCase>
{
};

TEST_P(CIntelLineTest, ResultMessageAndBytes)
{
    const SIntelLineCase& c = GetParam();
    CTarvikHexfile image;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.m_nResult, image.AnalizeLineIntel(c.m_sLine, map, extended));
    std::string printed = testing::internal::GetCapturedStdout();
    if (c.m_pMessagePrefix == nullptr)
        EXPECT_EQ("", image.GetErrorMessage());
    else
        EXPECT_EQ(c.m_pMessagePrefix + c.m_sLine, image.GetErrorMessage());
    // Only a checksum error is also printed.
    EXPECT_EQ(c.m_nResult == 146 ? image.GetErrorMessage() + "\n" : std::string(), printed);
    EXPECT_EQ(c.m_vecBlocks, TakeBlocks(map));
}

INSTANTIATE_TEST_SUITE_P(
    Records, CIntelLineTest,
    ::testing::Values(
        SIntelLineCase{"data", Line(":0400100001020304E2"), 0, nullptr, {{0x10, "\x01\x02\x03\x04"}}},
        SIntelLineCase{"data_cr", Line(":0400100001020304E2\r"), 0, nullptr, {{0x10, "\x01\x02\x03\x04"}}},
        SIntelLineCase{"lower_case", Line(":04fff000a1b2c3d423"), 0, nullptr, {{0xFFF0, "\xA1\xB2\xC3\xD4"}}},
        // 'G' and 'x' are no hex digits and count as 0: bytes 01 00 03 00.
        SIntelLineCase{
            "non_hex", Line(":04001000010G030xE8"), 0, nullptr, {{0x10, std::string("\x01\x00\x03\x00", 4)}}},
        SIntelLineCase{"no_nul_at_end", ":0400100001020304E2", 0, nullptr, {{0x10, "\x01\x02\x03\x04"}}},
        SIntelLineCase{"end_of_file", Line(":00000001FF"), 0, nullptr, {}},
        SIntelLineCase{"empty_data", Line(":00123400BA"), 0, nullptr, {}},
        SIntelLineCase{"start_linear", Line(":0400000500001234B1"), 0, nullptr, {}},
        SIntelLineCase{"comment", Line(";0400100001020304E2"), 0, nullptr, {}},
        SIntelLineCase{"empty", "", 0, nullptr, {}}, SIntelLineCase{"blank", Line(""), 0, nullptr, {}},
        SIntelLineCase{"blanks_cr", Line("  \t \r"), 0, nullptr, {}},
        SIntelLineCase{"text", Line("xyz"), 145, kFormat, {}},
        SIntelLineCase{"short", Line(":0000000"), 145, kFormat, {}},
        SIntelLineCase{"count_too_big", Line(":10001000010203"), 145, kFormat, {}},
        SIntelLineCase{"missing_colon", Line("0400100001020304E2"), 145, kFormat, {}},
        SIntelLineCase{"start_segment", Line(":0400000300001234B3"), 144, kType, {}},
        SIntelLineCase{"type_6", Line(":00000006FA"), 144, kType, {}},
        SIntelLineCase{"type_ff", Line(":000000FF01"), 144, kType, {}},
        // The bytes of a record with a bad checksum are taken all the same.
        SIntelLineCase{"bad_checksum", Line(":0400100001020304E3"), 146, kChecksum, {{0x10, "\x01\x02\x03\x04"}}},
        SIntelLineCase{"bad_checksum_eof", Line(":00000001FE"), 146, kChecksum, {}},
        // The count covers no value: the value fields overlap the checksum and run past the
        // line's end, where they read as 0; the sum then misses the checksum.
        SIntelLineCase{"extended_without_value", Line(":00000004FC"), 146, kChecksum, {}},
        SIntelLineCase{"start_without_value", Line(":00000005FB"), 146, kChecksum, {}}),
    [](const ::testing::TestParamInfo<SIntelLineCase>& info) { return std::string(info.param.m_pName); });

TEST(IntelRecords, ExtendedAddressesMoveTheData)
{
    CTarvikHexfile image;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":020000040001F9"), map, extended));
    EXPECT_EQ(0x10000u, extended);
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":0100200011CE"), map, extended));
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":020000021000EC"), map, extended));
    EXPECT_EQ(0x10000u, extended); // segment 0x1000 << 4
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":0100200022BD"), map, extended));
    EXPECT_EQ(0x10020u, image.m_nMaxAddr);
    // The second record overwrote the first at the same address.
    EXPECT_EQ((Blocks{{0x10020, "\x22"}}), TakeBlocks(map));
}

TEST(IntelRecords, AddressesWrapIn32Bits)
{
    CTarvikHexfile image;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":02000004FFFFFC"), map, extended));
    EXPECT_EQ(0u, image.AnalizeLineIntel(Line(":02FFFF00AABB9B"), map, extended));
    EXPECT_EQ(0xFFFFFFFFu, image.m_nMaxAddr);
    EXPECT_EQ((Blocks{{0, "\xBB"}, {0xFFFFFFFF, "\xAA"}}), TakeBlocks(map));
}

TEST(IntelRecords, MaximumAbove4GiBIsReportedOnEveryGoodRecord)
{
    CTarvikHexfile image;
    image.SetDataByte(0x100000000ull, 1);
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(147u, image.AnalizeLineIntel(Line(":00000001FF"), map, extended));
    EXPECT_EQ("Data addresses above 4 giga byte are not supported, m_nMaxAddr = 4294967296\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ("Data addresses above 4 giga byte are not supported. ", image.GetErrorMessage());
}

// Only the first extended-address record of the process may raise the minimum from 0.
TEST(IntelRecords, FirstExtendedAddressOfTheProcessSetsTheMinimum)
{
    CTarvikHexfile::s_bFirstTime = true; // as at process start
    CTarvikHexfile first;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    EXPECT_EQ(0u, first.AnalizeLineIntel(Line(":020000040800F2"), map, extended));
    EXPECT_EQ(0x08000000u, first.m_nMinAddr);
    EXPECT_FALSE(CTarvikHexfile::s_bFirstTime);
    EXPECT_EQ(0u, first.AnalizeLineIntel(Line(":020000040900F1"), map, extended));
    EXPECT_EQ(0x08000000u, first.m_nMinAddr);
    EXPECT_EQ(0u, first.AnalizeLineIntel(Line(":020000040001F9"), map, extended));
    EXPECT_EQ(0x10000u, first.m_nMinAddr);

    // Another object starts at 0 and, the flag being spent, stays there.
    CTarvikHexfile second;
    EXPECT_EQ(0u, second.AnalizeLineIntel(Line(":020000040800F2"), map, extended));
    EXPECT_EQ(0u, second.m_nMinAddr);
}

TEST(IntelFile, SampleWithCommentsBlankLinesAndCrLf)
{
    CTarvikHexfile image;
    std::string path = DataPath("hexfile_sample.hex");
    // Detection looks at the first character only: a file that opens with a comment is binary.
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ(CTarvikHexfile::Binary, image.m_eType);
    EXPECT_EQ(138u, image.GetTotalBytes());

    image.ClearMemoryBlocks();
    EXPECT_EQ(0u, image.LoadFile(path.c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ("", image.GetErrorMessage());
    EXPECT_EQ(CTarvikHexfile::Intel, image.m_eType);
    EXPECT_EQ(path, image.GetFilename());
    EXPECT_EQ((Blocks{{0, std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F"
                                      "\x10\x11\x12\x13",
                                      20)},
                      {0x1FFF0, "\xA1\xB2\xC3\xD4"}}),
              ImageBlocks(image));
    EXPECT_EQ(0x1FFF3u, image.m_nMaxAddr);
    EXPECT_EQ(24u, image.GetTotalBytes());
}

TEST(IntelFile, BadChecksumKeepsEveryRecordAndAsksToIgnore)
{
    CTarvikHexfile image;
    std::string path = DataPath("hexfile_bad_checksum.hex");
    testing::internal::CaptureStdout();
    EXPECT_EQ(146u, image.LoadFile(path.c_str()));
    EXPECT_EQ(std::string("Invalid checksum in data line: :0400100001020304E3") + '\0' + "\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ("File <" + path +
                  ">: checksum error.\n\nInvalid checksum in data line: :0400100001020304E3.\n"
                  "Ignore error? ",
              image.GetErrorMessage());
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));
}

TEST(IntelFile, OpenFailuresAndEmptyFile)
{
    CTarvikHexfile image;
    std::string missing = DataPath("no_such_file.hex");
    EXPECT_EQ(128u, image.LoadFile(missing.c_str()));
    EXPECT_EQ("File <" + missing + "> could not be opened.", image.GetErrorMessage());

    std::string empty = DataPath("hexfile_empty.hex");
    EXPECT_EQ(147u, image.LoadFile(empty.c_str()));
    EXPECT_EQ("File <" + empty + ">: could not be opened.\n\n", image.GetErrorMessage());
    EXPECT_EQ(147u, image.LoadFile(empty.c_str(), CTarvikHexfile::Binary));

    // A null name is no request at all.
    EXPECT_EQ(0u, image.LoadFile(nullptr));
    EXPECT_EQ("", image.GetErrorMessage());
}

TEST(IntelFile, LineLongerThan1023CharactersEndsTheLoadSilently)
{
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(DataPath("hexfile_long_line.hex").c_str()));
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}}), ImageBlocks(image));

    // 1023 characters and the newline still make one line.
    CTempDir dir;
    std::string path =
        dir.Write("edge.hex", ":0400100001020304E2\n;" + std::string(1022, 'x') + "\n:0400200005060708C2\n");
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));

    // The first 1023 characters of an over-long line are parsed as a line of their own.
    std::string cut = ":0400200005060708C2" + std::string(1004, ' ') + "tail\n:0400100001020304E2\n";
    path = dir.Write("cut.hex", cut);
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ((Blocks{{0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));
}

struct SIntelFileCase
{
    const char* m_pName;
    std::string m_sContent;
    uint32_t m_nResult;
    std::string m_sLineMessage; // message of the line parser, NULs shown as '.'
    Blocks m_vecBlocks;
};

class CIntelFileTest : public ::testing::TestWithParam<SIntelFileCase>
{
};

TEST_P(CIntelFileTest, LoadsAsExpected)
{
    const SIntelFileCase& c = GetParam();
    CTempDir dir;
    std::string path = dir.Write("image.hex", c.m_sContent);
    CTarvikHexfile image;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.m_nResult, image.LoadFile(path.c_str()));
    testing::internal::GetCapturedStdout();
    std::string expected;
    if (c.m_nResult == 145 || c.m_nResult == 146)
        expected = "File <" + path + ">: checksum error.\n\n" + c.m_sLineMessage + "\nIgnore error? ";
    else if (c.m_nResult != 0)
        expected = "File <" + path + ">: could not be opened.\n\n" + c.m_sLineMessage;
    EXPECT_EQ(expected, image.GetErrorMessage());
    EXPECT_EQ(c.m_vecBlocks, ImageBlocks(image));
}

const std::string kRecord10 = ":0400100001020304E2\n";
const std::string kRecord20 = ":0400200005060708C2\n";
const std::string kEnd = ":00000001FF\n";

INSTANTIATE_TEST_SUITE_P(
    Files, CIntelFileTest,
    ::testing::Values(
        SIntelFileCase{"only_end_record", kEnd, 0, "", {}},
        SIntelFileCase{"descending_order",
                       ":0400140010111213A2\n" + kRecord10 + kEnd,
                       0,
                       "",
                       {{0x10, "\x01\x02\x03\x04\x10\x11\x12\x13"}}},
        SIntelFileCase{"one_byte_hole",
                       kRecord10 + ":0400150010111213A1\n",
                       0,
                       "",
                       {{0x10, "\x01\x02\x03\x04"}, {0x15, "\x10\x11\x12\x13"}}},
        SIntelFileCase{"run_across_page_boundary",
                       ":04FFE0000102030413\n:04FFE40010111213D3\n:04FFE800202122238F\n"
                       ":040FFC001122334447\n:041000005566778832\n",
                       0,
                       "",
                       {{0x0FFC, "\x11\x22\x33\x44\x55\x66\x77\x88"},
                        {0xFFE0, "\x01\x02\x03\x04\x10\x11\x12\x13\x20\x21\x22\x23"}}},
        SIntelFileCase{"lines_after_end_record", kEnd + kRecord10, 0, "", {{0x10, "\x01\x02\x03\x04"}}},
        SIntelFileCase{"last_line_without_newline",
                       kRecord10 + ":0400200005060708C2",
                       0,
                       "",
                       {{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}},
        SIntelFileCase{"text_line_keeps_the_rest",
                       kRecord10 + "xyz\n" + kRecord20,
                       145,
                       "Invalid format in data line: xyz.",
                       {{0x10, "\x01\x02\x03\x04"}, {0x20, "\x05\x06\x07\x08"}}},
        SIntelFileCase{"later_error_wins",
                       kRecord10 + "xyz\r\n:00000003FD\n",
                       144,
                       "Invalid record type in data line: :00000003FD.",
                       {{0x10, "\x01\x02\x03\x04"}}},
        SIntelFileCase{
            "later_error_wins_reverse", ":00000003FD\nxyz\r\n", 145, "Invalid format in data line: xyz\r.", {}},
        SIntelFileCase{"nul_inside_a_line",
                       ":040010000102030" + std::string(1, '\0') + "E2\n",
                       146,
                       "Invalid checksum in data line: :040010000102030.E2.",
                       {{0x10, std::string("\x01\x02\x03\x00", 4)}}}),
    [](const ::testing::TestParamInfo<SIntelFileCase>& info) { return std::string(info.param.m_pName); });

TEST(IntelFile, ForcedTypeOverridesDetection)
{
    CTempDir dir;
    // Starts like an S-record file, but is read as Intel HEX: the first line is no record.
    std::string path = dir.Write("forced.hex", "S1\n" + kRecord10);
    CTarvikHexfile image;
    EXPECT_EQ(145u, image.LoadFile(path.c_str(), CTarvikHexfile::Intel));
    EXPECT_EQ(CTarvikHexfile::Intel, image.m_eType);
    EXPECT_EQ((Blocks{{0x10, "\x01\x02\x03\x04"}}), ImageBlocks(image));
}

TEST(IntelFile, ReloadReplacesTheBlocksAndKeepsTheMaximum)
{
    CTempDir dir;
    CTarvikHexfile image;
    EXPECT_EQ(0u, image.LoadFile(dir.Write("high.hex", ":020000040001F9\n" + kRecord10).c_str()));
    EXPECT_EQ(0x10013u, image.m_nMaxAddr);
    EXPECT_EQ(0u, image.LoadFile(dir.Write("low.hex", kRecord20).c_str()));
    EXPECT_EQ((Blocks{{0x20, "\x05\x06\x07\x08"}}), ImageBlocks(image));
    EXPECT_EQ(0x10013u, image.m_nMaxAddr); // a text load never lowers it
}
} // namespace
