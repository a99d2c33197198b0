// Motorola S-record reading: single records, whole files, error codes and their texts.
#include "tarvik/hexfile/TarvikHexfile.h"

#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
using namespace hexfile_test;

struct SSrecLineCase
{
    const char* m_pName;
    std::string m_sLine;
    uint32_t m_nResult;
    const char* m_pMessagePrefix; // nullptr: no message; else the message is prefix + line
    Blocks m_vecBlocks;
};

const char kFormat[] = "Invalid format in data line: ";
const char kLength[] = "Invalid format in data line (line length): ";
const char kType[] = "Invalid record type in data line: ";

class CSrecLineTest : public ::testing::TestWithParam<SSrecLineCase>
{
};

TEST_P(CSrecLineTest, ResultMessageAndBytes)
{
    const SSrecLineCase& c = GetParam();
    CTarvikHexfile image;
    CTarvikHexfile::CByteMap map;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.m_nResult, image.AnalizeLineMotorola(c.m_sLine, map));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    if (c.m_pMessagePrefix == nullptr)
        EXPECT_EQ("", image.GetErrorMessage());
    else
        EXPECT_EQ(c.m_pMessagePrefix + c.m_sLine, image.GetErrorMessage());
    EXPECT_EQ(c.m_vecBlocks, TakeBlocks(map));
}

INSTANTIATE_TEST_SUITE_P(
    Records, CSrecLineTest,
    ::testing::Values(
        SSrecLineCase{"s1", Line("S1061234010203AD"), 0, nullptr, {{0x1234, "\x01\x02\x03"}}},
        SSrecLineCase{"s1_cr", Line("S1061234010203AD\r"), 0, nullptr, {{0x1234, "\x01\x02\x03"}}},
        SSrecLineCase{"s2", Line("S2060100000A0BE3"), 0, nullptr, {{0x10000, "\x0A\x0B"}}},
        SSrecLineCase{"s3", Line("S306123456780CD9"), 0, nullptr, {{0x12345678, "\x0C"}}},
        SSrecLineCase{"lower_case", Line("S2060100000a0be3"), 0, nullptr, {{0x10000, "\x0A\x0B"}}},
        // The checksum of an S-record is not verified.
        SSrecLineCase{"wrong_checksum", Line("S1061234010203FF"), 0, nullptr, {{0x1234, "\x01\x02\x03"}}},
        SSrecLineCase{"non_hex", Line("S10612G40Z02xxAD"), 0, nullptr, {{0x1204, std::string("\x00\x02\x00", 3)}}},
        SSrecLineCase{"wraps_at_4_gib", Line("S307FFFFFFFF1122C9"), 0, nullptr, {{0, "\x22"}, {0xFFFFFFFF, "\x11"}}},
        SSrecLineCase{"no_data", Line("S1030010EC"), 0, nullptr, {}},
        SSrecLineCase{"header", Line("S009000073616D706C6574"), 0, nullptr, {}},
        SSrecLineCase{"count", Line("S5030003F9"), 0, nullptr, {}},
        SSrecLineCase{"start_s7", Line("S70500000000FA"), 0, nullptr, {}},
        SSrecLineCase{"start_s8", Line("S804000000FB"), 0, nullptr, {}},
        SSrecLineCase{"start_s9", Line("S9030000FC"), 0, nullptr, {}}, SSrecLineCase{"empty", "", 0, nullptr, {}},
        SSrecLineCase{"blank", Line(""), 0, nullptr, {}}, SSrecLineCase{"blanks_cr", Line(" \t\r"), 0, nullptr, {}},
        SSrecLineCase{"s4", Line("S4061234010203AD"), 144, kType, {}},
        SSrecLineCase{"s6", Line("S6061234010203AD"), 144, kType, {}},
        SSrecLineCase{"s_letter", Line("SX061234010203AD"), 144, kType, {}},
        SSrecLineCase{"text", Line("xyz"), 145, kFormat, {}},
        SSrecLineCase{"comment", Line(";S1061234010203AD"), 145, kFormat, {}},
        SSrecLineCase{"short", Line("S10300"), 145, kFormat, {}},
        SSrecLineCase{"count_past_end", Line("S1FF0000AABB"), 145, kLength, {}},
        SSrecLineCase{"count_below_address_s1", Line("S1020000FD"), 145, kLength, {}},
        SSrecLineCase{"count_below_address_s3", Line("S30400000000FB"), 145, kLength, {}},
        SSrecLineCase{"count_zero", Line("S1000000FF"), 145, kLength, {}}),
    [](const ::testing::TestParamInfo<SSrecLineCase>& info) { return std::string(info.param.m_pName); });

TEST(SrecRecords, MaximumAbove4GiBGives146OnEveryRecord)
{
    CTarvikHexfile image;
    image.SetDataByte(0x100000000ull, 1);
    CTarvikHexfile::CByteMap map;
    testing::internal::CaptureStdout();
    EXPECT_EQ(146u, image.AnalizeLineMotorola(Line("S9030000FC"), map));
    EXPECT_EQ(146u, image.AnalizeLineMotorola(Line("S1061234010203AD"), map));
    EXPECT_EQ("Data addresses above 4 giga byte are not supported, m_nMaxAddr = 4294967296\n"
              "Data addresses above 4 giga byte are not supported, m_nMaxAddr = 4294967296\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ("Data addresses above 4 giga byte are not supported. ", image.GetErrorMessage());
    // The record's bytes went in before the test.
    EXPECT_EQ((Blocks{{0x1234, "\x01\x02\x03"}}), TakeBlocks(map));
}

TEST(SrecFile, SampleWithHeaderCountAndStartRecords)
{
    CTarvikHexfile image;
    std::string path = DataPath("hexfile_sample.s19");
    EXPECT_EQ(0u, image.LoadFile(path.c_str()));
    EXPECT_EQ("", image.GetErrorMessage());
    EXPECT_EQ(CTarvikHexfile::Motorola, image.m_eType);
    EXPECT_EQ((Blocks{{0, std::string("\x00\x01\x02\x03\x04\x05\x06\x07", 8)},
                      {0x12345, "\xDE\xAD\xBE\xEF"},
                      {0x80000000, "\x55\xAA"}}),
              ImageBlocks(image));
    EXPECT_EQ(0u, image.m_nMinAddr);
    EXPECT_EQ(0x80000001u, image.m_nMaxAddr);
}

struct SSrecFileCase
{
    const char* m_pName;
    std::string m_sContent;
    uint32_t m_nResult;
    std::string m_sMessage; // whole message with "<>" standing for the path
    Blocks m_vecBlocks;
    uint64_t m_nMinAddr;
    uint64_t m_nMaxAddr;
};

class CSrecFileTest : public ::testing::TestWithParam<SSrecFileCase>
{
};

TEST_P(CSrecFileTest, LoadsAsExpected)
{
    const SSrecFileCase& c = GetParam();
    CTempDir dir;
    std::string path = dir.Write("image.s19", c.m_sContent);
    CTarvikHexfile image;
    EXPECT_EQ(c.m_nResult, image.LoadFile(path.c_str()));
    std::string message = c.m_sMessage;
    size_t at = message.find("<>");
    if (at != std::string::npos)
        message.replace(at, 2, "<" + path + ">");
    EXPECT_EQ(message, image.GetErrorMessage());
    EXPECT_EQ(c.m_vecBlocks, ImageBlocks(image));
    EXPECT_EQ(c.m_nMinAddr, image.m_nMinAddr);
    EXPECT_EQ(c.m_nMaxAddr, image.m_nMaxAddr);
}

INSTANTIATE_TEST_SUITE_P(
    Files, CSrecFileTest,
    ::testing::Values(
        // Minimum and maximum come from the blocks, whatever order the records had.
        SSrecFileCase{"descending",
                      "S10510000102E7\nS104080003F0\n",
                      0,
                      "",
                      {{0x800, "\x03"}, {0x1000, "\x01\x02"}},
                      0x800,
                      0x1001},
        SSrecFileCase{
            "across_page_boundary", "S1070FFE01020304E1\r\n", 0, "", {{0xFFE, "\x01\x02\x03\x04"}}, 0xFFE, 0x1001},
        SSrecFileCase{"only_header", "S009000073616D706C6574\n", 0, "", {}, 0, 0},
        SSrecFileCase{
            "bad_length_keeps_the_rest",
            "S10510000102E7\nS1FF0000AABB\nS104080003F0\n",
            145,
            "File <>: checksum error.\n\nInvalid format in data line (line length): S1FF0000AABB.\nIgnore error? ",
            {{0x800, "\x03"}, {0x1000, "\x01\x02"}},
            0x800,
            0x1001},
        SSrecFileCase{"bad_type",
                      "S10510000102E7\nS4030000FC\r\n",
                      144,
                      "File <>: could not be opened.\n\nInvalid record type in data line: S4030000FC\r.",
                      {{0x1000, "\x01\x02"}},
                      0x1000,
                      0x1001}),
    [](const ::testing::TestParamInfo<SSrecFileCase>& info) { return std::string(info.param.m_pName); });
} // namespace
