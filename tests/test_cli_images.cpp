// Damaged images against every command that reads one: each is refused with exit 1 and its
// line named, and the gateway it was meant for receives no request at all; --lenient takes it.
// Ctrl-C during a large fill leaves no file behind.
#include "support/CliProcess.h"
#include "support/HexfileTestUtil.h"

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <dirent.h>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace tarvik_test;
using namespace hexfile_test;

// One damaged file: its name, text, and the start of the message about it, "name:line: ...".
struct SBadImage
{
    const char* m_pName;
    const char* m_pText;
    const char* m_pProblem;
};

const SBadImage kBadImages[] = {
    {"sum.hex", ":0400000001020304F1\n:00000001FF\n", "sum.hex:1: wrong checksum"},
    {"nonhex.hex", ":0400000001020X04F2\n:00000001FF\n", "nonhex.hex:1: character \"X\""},
    {"cut.hex", ":0400000001020304F2\n", "cut.hex:1: the file ends without an end record"},
    {"count.hex", ":0500000001020304F2\n:00000001FF\n", "count.hex:1: the byte count 0x05"},
    {"overlap.hex", ":0400000001020304F2\n:0200020011223B\n:00000001FF\n",
     "overlap.hex:2: data at 0x00000002-0x00000003"},
    {"sum.s19", "S107000001020304ED\nS9030000FC\n", "sum.s19:1: wrong checksum"},
    {"count.s19", "S108000001020304EE\nS9030000FC\n", "count.s19:1: the byte count 0x08"},
    {"cut.s19", "S107000001020304EE\n", "cut.s19:1: the file ends without an end record"},
    {"s5.s19", "S107000001020304EE\nS5030002FA\nS9030000FC\n", "s5.s19:2: the count record says 2"},
};

// The commands, with the device that must stay untouched; {} is the file.
struct SCommand
{
    const char* m_pArgs;
    ETarvikDevice m_eDevice;
};

const SCommand kCommands[] = {
    {"awire write-file {}", eTarvikAWire},
    {"firmware write {}", eTarvikFirmware},
    {"renesas --id 52454E45534153 program {}", eTarvikRenesas},
    {"eeprom write --type 0x0010 {}", eTarvikI2C},
};

std::string Replace(std::string text, const std::string& file)
{
    const size_t at = text.find("{}");
    return at == std::string::npos ? text : text.replace(at, 2, file);
}

class CCliImagesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const SBadImage& image : kBadImages)
            WriteFile(m_oDir.Path(image.m_pName), image.m_pText);
    }

    // tarvik in the scratch directory, with the arguments split at blanks.
    SCliRun Run(const std::string& args) const
    {
        std::vector<std::string> words = {"-c", "cd '" + m_oDir.Path("") + "' && exec '" + kCliTarvik + "' " + args};
        return CliRunProgram("/bin/sh", words);
    }

    CTempDir m_oDir;
};

// The hex commands refuse a damaged file, name its line, and write no output. They all
// load through one path: every damaged file goes through the first command, the first
// file through every command.
TEST_F(CCliImagesTest, HexCommandsRefuseEveryDamagedImage)
{
    const char* const commands[] = {"hex info {}",
                                    "hex dump {}",
                                    "hex convert {} -o out.hex",
                                    "hex crc {}",
                                    "hex crop {} -o out.hex",
                                    "hex fill {} -o out.hex",
                                    "hex offset {} 0x10 -o out.hex",
                                    "hex merge {} -o out.hex",
                                    "hex cmp {} {}"};
    for (const SBadImage& image : kBadImages)
        for (const char* command : commands)
        {
            if (&image != kBadImages && command != commands[0])
                continue;
            const std::string args = Replace(Replace(command, image.m_pName), image.m_pName);
            const SCliRun run = Run(args);
            EXPECT_EQ(1, run.m_nExit) << args << "\n" << CliDescribe(run);
            EXPECT_NE(std::string::npos, run.m_sErr.find(std::string("tarvik: ") + image.m_pProblem)) << args << "\n"
                                                                                                      << run.m_sErr;
            EXPECT_EQ("", run.m_sOut) << args;
            EXPECT_EQ("", CliReadFile(m_oDir.Path("out.hex"))) << args;
            // --lenient (and its old name) takes the file with the problems as warnings.
            const SCliRun lenient = Run(args + (image.m_pName[0] == 'c' ? " --ignore-checksum" : " --lenient"));
            EXPECT_NE(std::string::npos, lenient.m_sErr.find(std::string("tarvik: warning: ") + image.m_pProblem))
                << args << "\n"
                << lenient.m_sErr;
            std::remove(m_oDir.Path("out.hex").c_str());
        }
}

// With --json the refusal is one document on stdout, its lines under "problems", and
// stderr stays quiet.
TEST_F(CCliImagesTest, AJsonRefusalNamesTheLinesInsideTheDocument)
{
    for (const SBadImage& image : kBadImages)
    {
        const SCliRun run = Run(std::string("--json hex info ") + image.m_pName);
        EXPECT_EQ(1, run.m_nExit) << CliDescribe(run);
        EXPECT_EQ("", run.m_sErr) << image.m_pName;
        EXPECT_EQ(0u, run.m_sOut.find("{\"error\":")) << run.m_sOut;
        std::string problem; // as a JSON string writes it
        for (const char* c = image.m_pProblem; *c != '\0'; ++c)
            problem += *c == '"' ? std::string("\\\"") : std::string(1, *c);
        const size_t problems = run.m_sOut.find("\"problems\":[\"");
        EXPECT_NE(std::string::npos, problems) << run.m_sOut;
        EXPECT_NE(std::string::npos, run.m_sOut.find("\"" + problem, problems)) << run.m_sOut;
        EXPECT_EQ(run.m_sOut.size() - 1, run.m_sOut.find('\n')) << run.m_sOut;
    }
}

// The programming commands refuse before they connect: the gateway receives no request.
// As above, every damaged file goes through the first command, the first through all.
TEST_F(CCliImagesTest, ProgrammingCommandsSendNothingForADamagedImage)
{
    CTarvikSimServer server;
    for (const SCommand& command : kCommands)
        ASSERT_EQ(0, server.AddDevice(command.m_eDevice));
    ASSERT_TRUE(server.Start());
    for (const SCommand& command : kCommands)
    {
        const std::string host = "--host 127.0.0.1 --port " + std::to_string(server.GetPort(command.m_eDevice)) + " ";
        for (const SBadImage& image : kBadImages)
        {
            if (&image != kBadImages && &command != kCommands)
                continue;
            const std::string args = host + Replace(command.m_pArgs, image.m_pName);
            const SCliRun run = Run(args);
            EXPECT_EQ(1, run.m_nExit) << args << "\n" << CliDescribe(run);
            EXPECT_NE(std::string::npos, run.m_sErr.find(std::string("tarvik: ") + image.m_pProblem)) << args << "\n"
                                                                                                      << run.m_sErr;
        }
        EXPECT_EQ(0u, server.GetDevice(command.m_eDevice)->GetRequestCount()) << command.m_pArgs;
        // The same file taken leniently does reach the gateway.
        const SCliRun lenient = Run(host + Replace(command.m_pArgs, "sum.hex") + " --lenient");
        EXPECT_NE(0u, server.GetDevice(command.m_eDevice)->GetRequestCount()) << command.m_pArgs << "\n"
                                                                              << CliDescribe(lenient);
    }
}

// AWire onto flash that holds data: the same message every time, naming the cause and the
// erase command, however quickly the write fails.
TEST_F(CCliImagesTest, AWireWriteOntoUnerasedFlashSaysSo)
{
    WriteFile(m_oDir.Path("a.hex"), ":0400000001020304F2\n:00000001FF\n");
    WriteFile(m_oDir.Path("b.hex"), ":04000000F0F0F0F03C\n:00000001FF\n");
    CTarvikSimServer server;
    ASSERT_EQ(0, server.AddDevice(eTarvikAWire));
    ASSERT_TRUE(server.Start());
    const std::string host = "--host 127.0.0.1 --port " + std::to_string(server.GetPort(eTarvikAWire)) + " ";
    ASSERT_EQ(0, Run(host + "awire write-file a.hex").m_nExit);
    for (int i = 0; i < 3; ++i)
    {
        const SCliRun run = Run(host + "awire write-file b.hex");
        EXPECT_EQ(1, run.m_nExit);
        EXPECT_EQ("tarvik: write-file: the target differs from b.hex in the piece at 0x00000000; if the flash was "
                  "not erased, run 'tarvik awire erase' first\n",
                  run.m_sErr);
    }
}

// Ctrl-C while a fill writes a large output: neither the output nor a temporary file stays.
TEST_F(CCliImagesTest, InterruptedFillLeavesNoFile)
{
    WriteFile(m_oDir.Path("small.hex"), ":0400000001020304F2\n:00000001FF\n");
    CCliProcess fill("/bin/sh", {"-c", "cd '" + m_oDir.Path("") + "' && exec '" + kCliTarvik +
                                           "' hex fill small.hex --to 0x07FFFFFF -o big.hex"});
    // Wait until the temporary file is there, then interrupt. Building the 128 MiB image
    // comes first; under a sanitizer on a loaded machine that alone can take a minute.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(100);
    auto temporaries = [this] {
        size_t count = 0;
        DIR* dir = opendir(m_oDir.Path("").c_str());
        for (dirent* entry = dir != nullptr ? readdir(dir) : nullptr; entry != nullptr; entry = readdir(dir))
            count += std::string(entry->d_name).rfind(".big.hex.", 0) == 0 ? 1 : 0;
        if (dir != nullptr)
            closedir(dir);
        return count;
    };
    while (temporaries() == 0 && std::chrono::steady_clock::now() < deadline && fill.Wait(10) == -1)
    {
    }
    ASSERT_EQ(1u, temporaries()) << "the fill ended before it could be interrupted";
    fill.Signal(SIGINT);
    fill.Wait(0);
    EXPECT_EQ(0u, temporaries());
    EXPECT_EQ("", CliReadFile(m_oDir.Path("big.hex")));
}
} // namespace
