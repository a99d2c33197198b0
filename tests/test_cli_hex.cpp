// tarvik hex, run as a separate process in a scratch directory that holds the sample files.
#include "support/HexfileTestUtil.h"

#include <boost/crc.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace
{
using namespace hexfile_test;

struct SRun
{
    int m_nExit;
    std::string m_sOut;
    std::string m_sErr;
};

std::string FirstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

// One invocation: its arguments, exit code, and first lines on stdout and stderr.
struct SRow
{
    const char* m_pArgs;
    int m_nExit;
    const char* m_pOut;
    const char* m_pErr;
};

class CCliHexTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"hexfile_sample.s19", "hexfile_sample.hex", "hexfile_bad_checksum.hex",
                                 "hexfile_edit_a.hex", "hexfile_edit_b.s19"})
            Write(name, ReadFile(DataPath(name)));
        const std::string records = ReadFile(DataPath("hexfile_edit_a.hex"));
        Write("bom.hex", "\xEF\xBB\xBF" + records);
        Write("hash.hex", "# made by hand\n" + records);
        Write("notes.txt", "no records in here\n");
        Write("type03.hex", ":0400000300001234B3\n" + records);
        Write("s6.s19", "S10B00000001020304050607D8\nS604000001FA\nS9030000FC\n");
        Write("junk.hex", ":0100000055AA\nxyz\n");
        Write("empty.hex", "");
    }

    void Write(const std::string& name, const std::string& text) const
    {
        std::FILE* file = std::fopen(m_oDir.Path(name).c_str(), "wb");
        ASSERT_NE(nullptr, file);
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
    }

    // Runs a shell command line in the scratch directory; "tarvik" is the tool under test.
    SRun Shell(const std::string& line) const
    {
        const std::string errFile = m_oDir.Path("stderr.txt");
        const std::string command = "cd '" + m_oDir.Path("") +
                                    "' && tarvik() { '" TARVIK_BINARY_DIR "/tools/tarvik' \"$@\"; } && " + line +
                                    " 2>'" + errFile + "'";
        SRun run{-1, "", ""};
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr)
            return run;
        char buffer[4096];
        for (size_t got = 0; (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
            run.m_sOut.append(buffer, got);
        const int status = pclose(pipe);
        run.m_nExit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.m_sErr = ReadFile(errFile);
        return run;
    }

    SRun Run(const std::string& arguments) const { return Shell("tarvik " + arguments); }

    // Runs a table row and checks its exit code and first lines; the run for further checks.
    SRun Expect(const SRow& row) const
    {
        const SRun run = Run(row.m_pArgs);
        EXPECT_EQ(row.m_nExit, run.m_nExit) << row.m_pArgs << "\n" << run.m_sErr;
        EXPECT_EQ(row.m_pOut, FirstLine(run.m_sOut)) << row.m_pArgs;
        EXPECT_EQ(row.m_pErr, FirstLine(run.m_sErr)) << row.m_pArgs;
        return run;
    }

    static bool HaveSrecord() { return std::system("srec_cat --version >/dev/null 2>&1") == 0; }

    CTempDir m_oDir;
};

TEST_F(CCliHexTest, InfoShowsBlocksBoundsAndCrc)
{
    const SRun run = Run("hex info hexfile_sample.s19");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    // CRC-32 of 00..07 DE AD BE EF 55 AA, the bytes in address order.
    EXPECT_EQ("file:   hexfile_sample.s19\n"
              "format: srec\n"
              "blocks: 3\n"
              "  start 0x00000000  end 0x00000007  size 8\n"
              "  start 0x00012345  end 0x00012348  size 4\n"
              "  start 0x80000000  end 0x80000001  size 2\n"
              "total:  14 bytes\n"
              "min:    0x00000000\n"
              "max:    0x80000001\n"
              "crc32:  0x371FE14B\n",
              run.m_sOut);
}

// The library takes the lowest address of an Intel file from its extended address records;
// the tool takes it from the data.
TEST_F(CCliHexTest, InfoJsonTakesTheLowestAddressFromTheData)
{
    Write("high.hex", ":020000040001F9\n:0200100055AAEF\n:00000001FF\n");
    const SRun run = Run("--json hex info high.hex");
    ASSERT_EQ(0, run.m_nExit) << run.m_sErr;
    const auto json = nlohmann::json::parse(run.m_sOut);
    EXPECT_EQ(0x10010u, json["min"]);
    EXPECT_EQ(0x10011u, json["max"]);
    EXPECT_EQ(1u, json["blocks"].size());
    boost::crc_32_type crc;
    crc.process_bytes("\x55\xAA", 2);
    EXPECT_EQ(crc.checksum(), json["crc32"]);
}

TEST_F(CCliHexTest, DumpPrintsBlocksAndMarksGaps)
{
    SRun run = Run("hex dump hexfile_sample.s19 --width 8");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("00000000: 00 01 02 03 04 05 06 07 ........\n"
              "-- gap of 74557 bytes --\n"
              "00012340: -- -- -- -- -- DE AD BE      ...\n"
              "00012348: EF -- -- -- -- -- -- -- .\n"
              "-- gap of 2147409079 bytes --\n"
              "80000000: 55 AA                   U.\n",
              run.m_sOut);

    run = Run("hex dump hexfile_sample.s19 --from 0x12340 --to 74575 --width 8");
    EXPECT_EQ("00012340: -- -- -- -- -- DE AD BE      ...\n"
              "00012348: EF -- -- -- -- -- -- -- .\n",
              run.m_sOut);

    run = Run("--json hex dump hexfile_sample.s19 --from 0x12346");
    EXPECT_EQ(R"({"file":"hexfile_sample.s19","blocks":[{"start":74566,"end":74568,"size":3,"data":"ADBEEF"},)"
              R"({"start":2147483648,"end":2147483649,"size":2,"data":"55AA"}]})"
              "\n",
              run.m_sOut);
}

// One row per way of reading or refusing an input: the exit code, the first line on stdout
// and the first line on stderr.
TEST_F(CCliHexTest, EachInputIsReadAsWhatItIsOrRefused)
{
    const SRow rows[] = {
        {"hex info hexfile_sample.hex", 0, "file:   hexfile_sample.hex",
         "tarvik: warning: hexfile_sample.hex: begins with a comment line, not with a record; read as Intel HEX "
         "(-I bin reads it as raw bytes)"},
        {"hex info bom.hex", 0, "file:   bom.hex",
         "tarvik: warning: bom.hex: begins with a byte-order mark, not with a record; read as Intel HEX "
         "(-I bin reads it as raw bytes)"},
        {"hex info hash.hex -I intel", 0, "file:   hash.hex", ""},
        {"hex crc hash.hex", 0, "0x7952F0BB",
         "tarvik: warning: hash.hex: begins with a comment line, not with a record; read as Intel HEX "
         "(-I bin reads it as raw bytes)"},
        {"hex info hexfile_sample.hex --input-format bin", 0, "file:   hexfile_sample.hex", ""},
        {"hex info notes.txt", 0, "file:   notes.txt",
         "tarvik: warning: notes.txt: read as raw binary, but it looks like text; for Intel HEX or S-records use "
         "-I intel or -I srec"},
        {"hex info hexfile_bad_checksum.hex", 1, "",
         "tarvik: hexfile_bad_checksum.hex:1: wrong checksum 0xE3, the record's bytes need 0xE2"},
        {"hex info hexfile_bad_checksum.hex --ignore-checksum", 0, "file:   hexfile_bad_checksum.hex",
         "tarvik: warning: hexfile_bad_checksum.hex:1: wrong checksum 0xE3, the record's bytes need 0xE2"},
        // Start addresses and record counts are records like any other.
        {"hex info type03.hex", 0, "file:   type03.hex", ""},
        {"hex info s6.s19 --strict", 0, "file:   s6.s19", ""},
        {"hex info junk.hex", 1, "", "tarvik: junk.hex:2: not an Intel HEX record: \"xyz\""},
        {"hex info empty.hex", 1, "", "tarvik: empty.hex: the file is empty"},
        {"hex info missing.hex", 1, "", "tarvik: missing.hex: No such file or directory"},
        {"hex info .", 1, "", "tarvik: .: Is a directory"},
        {"hex info - < hexfile_bad_checksum.hex", 1, "",
         "tarvik: <stdin>:1: wrong checksum 0xE3, the record's bytes need 0xE2"},
    };
    for (const SRow& row : rows)
        Expect(row);
}

// The same for the commands that make, compare and check images.
TEST_F(CCliHexTest, EachOperationRefusesWhatItCannotDo)
{
    const SRow rows[] = {
        {"hex merge hexfile_edit_a.hex hexfile_edit_b.s19 --no-overlap -o out.hex", 1, "",
         "tarvik: hexfile_edit_b.s19 overlaps hexfile_edit_a.hex at 0x00000010"},
        {"hex merge - - -o out.hex", 2, "", "tarvik: standard input (-) can be read only once"},
        {"hex offset hexfile_edit_b.s19 -0x11 -o out.hex", 1, "",
         "tarvik: moving by -0x11 puts the data at 0x00000010 below address 0"},
        {"hex offset hexfile_edit_a.hex 0xFFFEFFF1 -o out.hex", 1, "",
         "tarvik: moving by 0xFFFEFFF1 puts the data at 0x0001000F above 0xFFFFFFFF"},
        {"hex crop hexfile_edit_a.hex --from 9 --to 8 -o out.hex", 2, "",
         "tarvik: the range ends (0x00000008) before it starts (0x00000009)"},
        {"hex convert hexfile_edit_a.hex out.hex -O bin", 1, "",
         "tarvik: binary output needs the data in one block from address 0; this image has 3 blocks from "
         "0x00000000 (fill the gaps, offset it, or choose intel or srec)"},
        {"hex cmp hexfile_edit_a.hex hexfile_edit_a.hex", 0, "equal", ""},
        {"hex cmp hexfile_edit_a.hex hexfile_edit_b.s19 --max 2", 1, "address     A  B", ""},
        {"hex crc hexfile_sample.s19 --from 0 --to 0", 0, "0xD202EF8D", ""},
    };
    for (const SRow& row : rows)
    {
        Expect(row);
        // A failed command leaves no output file behind.
        if (row.m_nExit != 0)
        {
            EXPECT_EQ("", ReadFile(m_oDir.Path("out.hex"))) << row.m_pArgs;
        }
    }
}

TEST_F(CCliHexTest, CmpListsTheFirstDifferences)
{
    const SRun run = Run("hex cmp hexfile_sample.s19 hexfile_sample.hex --max 3");
    EXPECT_EQ(1, run.m_nExit);
    EXPECT_EQ("address     A  B\n"
              "0x00000008  -- 08\n"
              "0x00000009  -- 09\n"
              "0x0000000A  -- 0A\n"
              "23 bytes differ\n",
              run.m_sOut);
    EXPECT_EQ("", run.m_sErr.substr(run.m_sErr.find('\n') + 1)); // only the warning about the comment
}

TEST_F(CCliHexTest, AFailedWriteLeavesTheOldFileAsItWas)
{
    Write("out.bin", "old");
    const SRun run = Run("hex convert hexfile_sample.s19 -o out.bin");
    EXPECT_EQ(1, run.m_nExit);
    EXPECT_EQ("old", ReadFile(m_oDir.Path("out.bin")));
    EXPECT_EQ("", Shell("ls -A | grep '^\\.' ").m_sOut); // no temporary file left
}

// Every operation against srecord's srec_cat on the same inputs; srec_cmp compares the images.
TEST_F(CCliHexTest, OperationsMakeTheImagesThatSrecCatMakes)
{
    if (!HaveSrecord())
        GTEST_SKIP() << "srec_cat is not installed";
    const char* const a = "hexfile_edit_a.hex -intel";
    const char* const b = "hexfile_edit_b.s19";
    struct SRow
    {
        std::string m_sOurs;
        std::string m_sTheirs;
    } rows[] = {
        {"tarvik hex merge hexfile_edit_a.hex hexfile_edit_b.s19 -o out.hex",
         std::string("srec_cat ") + a + " -exclude -within " + b + " " + b},
        {"tarvik hex merge hexfile_edit_b.s19 hexfile_edit_a.hex -o out.hex -O intel",
         std::string("srec_cat ") + b + " -exclude -within " + a + " " + a},
        {"cat hexfile_edit_b.s19 | tarvik hex merge hexfile_edit_a.hex - -o - -O intel > out.hex",
         std::string("srec_cat ") + a + " -exclude -within " + b + " " + b},
        {"tarvik hex crop hexfile_edit_a.hex --from 0x8 --to 0x8007 -o out.hex",
         std::string("srec_cat ") + a + " -crop 0x8 0x8008"},
        {"tarvik hex crop hexfile_edit_a.hex --from 0xFFF8 -o out.hex",
         std::string("srec_cat ") + a + " -crop 0xFFF8 0x10010"},
        {"tarvik hex fill hexfile_edit_a.hex --from 0x10 --to 0x9000 --byte 0xA5 -o out.hex",
         std::string("srec_cat ") + a + " -fill 0xA5 0x10 0x9001"},
        {"tarvik hex fill hexfile_edit_a.hex -o out.hex", std::string("srec_cat ") + a + " -fill 0xFF 0 0x10010"},
        {"tarvik hex offset hexfile_edit_a.hex 0x1000 -o out.hex", std::string("srec_cat ") + a + " -offset 0x1000"},
        {"tarvik hex offset hexfile_edit_b.s19 -0x10 -o out.hex -O intel",
         std::string("srec_cat ") + b + " -offset -0x10"},
        {"tarvik hex convert hexfile_edit_b.s19 -o out.hex", std::string("srec_cat ") + b},
        {"tarvik hex convert hexfile_edit_a.hex -o - -O srec | tarvik hex convert - out.hex",
         std::string("srec_cat ") + a},
    };
    for (const SRow& row : rows)
    {
        const SRun ours = Shell(row.m_sOurs);
        ASSERT_EQ(0, ours.m_nExit) << row.m_sOurs << "\n" << ours.m_sErr;
        const SRun theirs = Shell(row.m_sTheirs + " -o ref.hex -intel");
        ASSERT_EQ(0, theirs.m_nExit) << row.m_sTheirs << "\n" << theirs.m_sErr;
        const SRun compare = Shell("srec_cmp out.hex -intel ref.hex -intel");
        EXPECT_EQ(0, compare.m_nExit) << row.m_sOurs << "\n" << compare.m_sErr;
    }
}

// hex crc against the CRC-32 of srec_cat's filled binary of the same range.
TEST_F(CCliHexTest, CrcIsThatOfTheFilledRange)
{
    if (!HaveSrecord())
        GTEST_SKIP() << "srec_cat is not installed";
    struct SRow
    {
        const char* m_pFile;
        const char* m_pRange; // ours
        unsigned long m_nFrom;
        unsigned long m_nTo;
        const char* m_pFill;
    } rows[] = {
        {"hexfile_edit_a.hex -intel", "", 0, 0x1000F, "0xFF"},
        {"hexfile_edit_a.hex -intel", "--from 4 --to 0x9000", 4, 0x9000, "0"},
        {"hexfile_edit_b.s19", "--from 0x1FFF0 --to 0x20100", 0x1FFF0, 0x20100, "0x5A"},
        {"hexfile_edit_b.s19", "--from 0x31 --to 0x31", 0x31, 0x31, "0x01"},
    };
    for (const SRow& row : rows)
    {
        const std::string file = std::string(row.m_pFile).substr(0, std::string(row.m_pFile).find(' '));
        const SRun ours = Run(std::string("hex crc ") + file + " " + row.m_pRange + " --fill " + row.m_pFill);
        char range[64];
        std::snprintf(range, sizeof(range), "0x%lX 0x%lX", row.m_nFrom, row.m_nTo + 1);
        char offset[32];
        std::snprintf(offset, sizeof(offset), " -offset -0x%lX", row.m_nFrom);
        // A binary output starts at address 0: the range is moved there.
        const std::string command = std::string("srec_cat ") + row.m_pFile + " -fill " + row.m_pFill + " " + range +
                                    " -crop " + range + offset + " -o ref.bin -binary";
        ASSERT_EQ(0, Shell(command).m_nExit) << command;
        const std::string bytes = ReadFile(m_oDir.Path("ref.bin"));
        ASSERT_EQ(row.m_nTo - row.m_nFrom + 1, bytes.size()) << command;
        boost::crc_32_type crc;
        crc.process_bytes(bytes.data(), bytes.size());
        char expected[16];
        std::snprintf(expected, sizeof(expected), "0x%08X\n", crc.checksum());
        EXPECT_EQ(expected, ours.m_sOut) << file << " " << row.m_pRange << "\n" << ours.m_sErr;
    }
}
} // namespace
