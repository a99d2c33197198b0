// CAN frames as the CLI reads and writes them: cansend's syntax, candump's default
// layout and its log format, which can-utils' tools read back.
#include "CliCanFrame.h"

#include <gtest/gtest.h>

namespace
{
struct SFrameRow
{
    const char* m_pText;
    // Expected: canonical text (empty: rejected), candump line, or the error's start.
    const char* m_pCanonical;
    const char* m_pCandump;
};

const SFrameRow kFrames[] = {
    {"123#DEADBEEF", "123#DEADBEEF", "  tarvik0  123   [4]  DE AD BE EF"},
    {"123#de.ad.be.ef", "123#DEADBEEF", "  tarvik0  123   [4]  DE AD BE EF"},
    {"7FF#", "7FF#", "  tarvik0  7FF   [0] "},
    {"12345678#1122", "12345678#1122", "  tarvik0  12345678   [2]  11 22"},
    {"00000001#", "00000001#", "  tarvik0  00000001   [0] "},
    {"123#R", "123#R", "  tarvik0  123   [0]  remote request"},
    {"123#R4", "123#R4", "  tarvik0  123   [4]  remote request"},
    {"123##1", "123##1", "  tarvik0  123  [00] "},
    {"123##0112233445566778899", "123##0112233445566778899", "  tarvik0  123  [09]  11 22 33 44 55 66 77 88 99"},
    {"1FFFFFFF#0102030405060708", "1FFFFFFF#0102030405060708", "  tarvik0  1FFFFFFF   [8]  01 02 03 04 05 06 07 08"},
};

const char* const kRejected[] = {
    "123",                    // no '#'
    "12#00",                  // two digits: neither standard nor extended
    "1234#00",                // four digits
    "800#00",                 // standard identifier above 7FF
    "20000000#00",            // extended identifier above 1FFFFFFF
    "123#0",                  // half a byte
    "123#GG",                 // not hex
    "123#001122334455667788", // nine bytes in a classic frame
    "123#R9",                 // remote length above 8
    "123##",                  // FD without its flags digit
    "xyz#00",                 // identifier not hex
};
} // namespace

TEST(CliCanFrame, CansendSyntaxReadsAndPrintsAsCanUtilsDo)
{
    for (const SFrameRow& row : kFrames)
    {
        SCliCanFrame frame;
        std::string error;
        ASSERT_TRUE(CliParseCanFrame(row.m_pText, frame, error)) << row.m_pText << ": " << error;
        EXPECT_EQ(row.m_pCanonical, CliCanFrameText(frame)) << row.m_pText;
        EXPECT_EQ(row.m_pCandump, CliCandumpLine(frame, "tarvik0")) << row.m_pText;
    }
}

TEST(CliCanFrame, MalformedFramesAreRefusedWithAReason)
{
    for (const char* text : kRejected)
    {
        SCliCanFrame frame;
        std::string error;
        EXPECT_FALSE(CliParseCanFrame(text, frame, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
    // 64 bytes fit a CAN FD frame, 65 do not.
    SCliCanFrame frame;
    std::string error;
    EXPECT_TRUE(CliParseCanFrame("123##0" + std::string(128, 'A'), frame, error)) << error;
    EXPECT_EQ(64, frame.m_nLen);
    EXPECT_FALSE(CliParseCanFrame("123##0" + std::string(130, 'A'), frame, error));
}

TEST(CliCanFrame, LogLinesRoundTripWithTheirTimeStamps)
{
    SCliCanFrame frame;
    std::string error;
    ASSERT_TRUE(CliParseCanFrame("12345678##3AABB", frame, error));
    std::string line = CliCanLogLine(frame, 1700000000, 123456, "tarvik0");
    EXPECT_EQ("(1700000000.123456) tarvik0 12345678##3AABB", line);

    SCliCanFrame back;
    int64_t micros = 0;
    std::string name;
    ASSERT_TRUE(CliParseCanLogLine(line, back, micros, name, error)) << error;
    EXPECT_TRUE(back == frame);
    EXPECT_EQ(1700000000123456, micros);
    EXPECT_EQ("tarvik0", name);

    // Other writers' lines: a short fraction, another interface, trailing fields.
    ASSERT_TRUE(CliParseCanLogLine("(0000000012.5) can1 123#R trailing", back, micros, name, error)) << error;
    EXPECT_EQ(12500000, micros);
    EXPECT_EQ("can1", name);
    EXPECT_TRUE(back.m_bRemote);
    // Times before 2001 keep ten digits, as candump writes them.
    EXPECT_EQ("(0000000005.000007) x 123#", CliCanLogLine(SCliCanFrame{0x123}, 5, 7, "x"));

    for (const char* skipped : {"", "   ", "# comment"})
    {
        EXPECT_FALSE(CliParseCanLogLine(skipped, back, micros, name, error));
        EXPECT_TRUE(error.empty()) << skipped;
    }
    for (const char* bad : {"1700000000.1 can0 123#00", "(17.1) can0", "(17.1) can0 12#00"})
    {
        EXPECT_FALSE(CliParseCanLogLine(bad, back, micros, name, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
        EXPECT_FALSE(CliCanLogLineIsErrorFrame(bad)) << bad;
    }
    // Error frames as candump and python-can log them (the latter with its " R"): the
    // reader refuses them, and the player knows them apart from broken lines.
    for (const char* errorFrame : {"(17.1) can0 20000080#0000000000000000", "(17.1) tarvik:h:0 20000004#00 R"})
    {
        EXPECT_FALSE(CliParseCanLogLine(errorFrame, back, micros, name, error)) << errorFrame;
        EXPECT_TRUE(CliCanLogLineIsErrorFrame(errorFrame)) << errorFrame;
    }
    EXPECT_FALSE(CliCanLogLineIsErrorFrame("(17.1) can0 1FFFFFFF#00"));
    // python-can writes the channel and the direction after the frame.
    ASSERT_TRUE(CliParseCanLogLine("(1700000000.500000) tarvik:127.0.0.1:1 404#R R", back, micros, name, error));
    EXPECT_EQ("tarvik:127.0.0.1:1", name);
    EXPECT_TRUE(back.m_bRemote);
}
