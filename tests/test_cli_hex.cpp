// tarvik hex info | convert | dump, run as a separate process on small files.
#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
struct SRun
{
    int m_nExit;
    std::string m_sOut;
    std::string m_sErr;
};

class CCliHexTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(0, access(kTool, X_OK)) << kTool << " is not built"; }

    std::string Path(const char* name) const { return m_oDir.Path(name); }
    static std::string Data(const char* name) { return hexfile_test::DataPath(name); }
    static std::string Read(const std::string& path) { return hexfile_test::ReadFile(path); }
    std::string Write(const char* name, const std::string& content) const { return m_oDir.Write(name, content); }

    SRun Run(const std::string& arguments) const
    {
        const std::string errFile = Path("stderr.txt");
        const std::string command = std::string("'") + kTool + "' " + arguments + " 2>'" + errFile + "'";
        SRun run{-1, "", ""};
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr)
            return run;
        char buffer[4096];
        size_t got = 0;
        while ((got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0)
            run.m_sOut.append(buffer, got);
        int status = pclose(pipe);
        run.m_nExit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.m_sErr = Read(errFile);
        return run;
    }

    static constexpr const char* kTool = TARVIK_BINARY_DIR "/tools/tarvik";
    hexfile_test::CTempDir m_oDir;
};

TEST_F(CCliHexTest, InfoAsTextAndJson)
{
    const std::string file = Data("hexfile_sample.s19");
    SRun run = Run("hex info '" + file + "'");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("file:   " + file +
                  "\n"
                  "format: srec\n"
                  "blocks: 3\n"
                  "  start 0x00000000  end 0x00000007  size 8\n"
                  "  start 0x00012345  end 0x00012348  size 4\n"
                  "  start 0x80000000  end 0x80000001  size 2\n"
                  "total:  14 bytes\n"
                  "min:    0x00000000\n"
                  "max:    0x80000001\n",
              run.m_sOut);

    run = Run("--json hex info '" + file + "'");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("{\"file\":\"" + file +
                  "\",\"format\":\"srec\",\"blocks\":["
                  "{\"start\":0,\"end\":7,\"size\":8},{\"start\":74565,\"end\":74568,\"size\":4},"
                  "{\"start\":2147483648,\"end\":2147483649,\"size\":2}],"
                  "\"total\":14,\"min\":0,\"max\":2147483649}\n",
              run.m_sOut);
    // The flag is also understood behind the command.
    EXPECT_EQ(run.m_sOut, Run("hex info '" + file + "' --json").m_sOut);
}

TEST_F(CCliHexTest, ConvertBetweenFormats)
{
    SRun run = Run("hex convert '" + Data("hexfile_sample.s19") + "' '" + Path("out.hex") + "' --to intel");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("", run.m_sOut);
    EXPECT_EQ(":080000000001020304050607DC\n"
              ":020000040001F9\n"
              ":04234500DEADBEEF5C\n"
              ":0200000480007A\n"
              ":0200000055AAFF\n"
              ":00000001FF\n",
              Read(Path("out.hex")));

    const std::string single = Write("single.hex", ":0400000001020304F2\n:00000001FF\n");
    run = Run("hex convert '" + single + "' '" + Path("out.bin") + "' --to bin");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("\x01\x02\x03\x04", Read(Path("out.bin")));

    run = Run("hex convert '" + Path("out.bin") + "' '" + Path("out.s19") + "' --to srec");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("S107000001020304EE\n", Read(Path("out.s19")));
}

TEST_F(CCliHexTest, DumpRangeAndWidth)
{
    SRun run = Run("hex dump '" + Data("hexfile_sample.s19") + "' --from 0x12340 --to 74575 --width 8");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("00012340: -- -- -- -- -- DE AD BE      ...\n"
              "00012348: EF -- -- -- -- -- -- -- .       \n",
              run.m_sOut);

    run = Run("hex dump '" + Data("hexfile_sample.s19") + "' --to 5");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    // Six bytes of a 16-byte line: the missing ten are blanks in both parts.
    EXPECT_EQ("00000000: 00 01 02 03 04 05" + std::string(1 + 2 * 3 + 1 + 8 * 3, ' ') + "......" +
                  std::string(10, ' ') + "\n",
              run.m_sOut);
}

TEST_F(CCliHexTest, LongDumpIsPrintedPieceByPiece)
{
    std::string bytes;
    for (int i = 0; i < 9000; ++i)
        bytes += static_cast<char>('a' + i % 26);
    const std::string file = Write("long.bin", bytes);
    SRun run = Run("hex dump '" + file + "' --width 1");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    ASSERT_EQ(9000u * 15u, run.m_sOut.size()); // "AAAAAAAA: XX c\n"
    for (size_t line : {0u, 4095u, 4096u, 4097u, 8191u, 8192u, 8999u})
    {
        char expected[32];
        std::snprintf(expected, sizeof(expected), "%08zX: %02X %c\n", line, 'a' + static_cast<int>(line % 26),
                      static_cast<char>('a' + line % 26));
        EXPECT_EQ(expected, run.m_sOut.substr(line * 15, 15)) << line;
    }
}

TEST_F(CCliHexTest, ErrorsPrintTheMessageAndFail)
{
    const std::string missing = Path("missing.hex");
    SRun run = Run("hex info '" + missing + "'");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_EQ("tarvik: File <" + missing + "> could not be opened.\n", run.m_sErr);

    const std::string bad = Data("hexfile_bad_checksum.hex");
    run = Run("hex dump '" + bad + "'");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_EQ(std::string("Invalid checksum in data line: :0400100001020304E3") + '\0' + "\n", run.m_sOut);
    EXPECT_EQ("tarvik: File <" + bad +
                  ">: checksum error.\n\nInvalid checksum in data line: "
                  ":0400100001020304E3.\nIgnore error? \n",
              run.m_sErr);

    run = Run("hex convert '" + Data("hexfile_sample.s19") + "' '" + Path("x.bin") + "' --to bin");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_EQ("tarvik: File " + Path("x.bin") +
                  " could not be saved.\n\nData could not be saved in binary format "
                  "because of StartAddress != 0 OR multiple blocks in hex data.\n\n\n",
              run.m_sErr);

    run = Run("hex convert '" + Data("hexfile_sample.s19") + "' '" + Path("x.out") + "' --to elf");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_FALSE(std::ifstream(Path("x.out")).good());

    run = Run("hex dump '" + Data("hexfile_sample.s19") + "' --from 0xZZ");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_EQ("tarvik: invalid address for --from: 0xZZ\n", run.m_sErr);
}
} // namespace
