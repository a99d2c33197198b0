// tarvik hex info | convert | dump, run as a separate process on the sample S-record file.
#include "HexfileTestUtil.h"

#include <gtest/gtest.h>

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

class CCliHexTest : public ::testing::Test
{
protected:
    // Runs tarvik with the (already quoted) arguments.
    SRun Run(const std::string& arguments) const
    {
        const std::string errFile = m_oDir.Path("stderr.txt");
        const std::string command = "'" TARVIK_BINARY_DIR "/tools/tarvik' " + arguments + " 2>'" + errFile + "'";
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

    const std::string m_sSample = DataPath("hexfile_sample.s19");
    CTempDir m_oDir;
};

TEST_F(CCliHexTest, Info)
{
    const SRun run = Run("hex info '" + m_sSample + "'");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("file:   " + m_sSample +
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
}

TEST_F(CCliHexTest, ConvertToIntel)
{
    const std::string out = m_oDir.Path("out.hex");
    const SRun run = Run("hex convert '" + m_sSample + "' '" + out + "' --to intel");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("", run.m_sOut);
    EXPECT_EQ(":080000000001020304050607DC\n"
              ":020000040001F9\n"
              ":04234500DEADBEEF5C\n"
              ":0200000480007A\n"
              ":0200000055AAFF\n"
              ":00000001FF\n",
              ReadFile(out));
}

TEST_F(CCliHexTest, DumpRangeAndWidth)
{
    const SRun run = Run("hex dump '" + m_sSample + "' --from 0x12340 --to 74575 --width 8");
    EXPECT_EQ(0, run.m_nExit) << run.m_sErr;
    EXPECT_EQ("00012340: -- -- -- -- -- DE AD BE      ...\n"
              "00012348: EF -- -- -- -- -- -- -- .       \n",
              run.m_sOut);
}

TEST_F(CCliHexTest, MissingFileFailsWithTheMessage)
{
    const std::string missing = m_oDir.Path("missing.hex");
    const SRun run = Run("hex info '" + missing + "'");
    EXPECT_NE(0, run.m_nExit);
    EXPECT_EQ("", run.m_sOut);
    EXPECT_EQ("tarvik: File <" + missing + "> could not be opened.\n", run.m_sErr);
}
} // namespace
