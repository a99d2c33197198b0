// tarvik i2c, eeprom, renesas and firmware as a user runs them: each family against a
// tarvik-sim process of its own, so that what one command writes the next one reads
// back; and the usage errors of every command, against the embedded simulator.
#include "support/CliProcess.h"
#include "support/HexfileTestUtil.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace
{
using namespace tarvik_test;

// One invocation: arguments split at blanks ({i2c}, {renesas}, {firmware}: the address
// of that simulator; {dir}: the scratch directory), exit code, first lines of stdout and
// stderr (see CliStartsWithLines).
struct SStep
{
    const char* m_pArgs;
    int m_nExit;
    const char* m_pOut;
    const char* m_pErr;
};

// The target ID of the simulated Renesas target, "RENESAS".
#define RENESAS_ID "--id 52454E45534153 "

// 24C04 (type 0x0108, select 1, 16-byte pages): 28 bytes from 0xF8 cross two pages and
// the block bit in the slave address; 8 bytes from 0x14 cross a page of the 24C02 (select
// 4, 8-byte pages). A write that wrapped inside a page would read back elsewhere.
const SStep kEeprom[] = {
    {"eeprom write --type 0x0108 --select 1 --offset 0xF8 00112233445566778899AABBCCDDEEFF102030405060708090A0B0C0", 0,
     "wrote 28 bytes at 0x00F8\n", ""},
    {"eeprom read --type 0x0108 --select 1 --offset 0xF0 0x30", 0,
     "000000F0: FF FF FF FF FF FF FF FF  00 11 22 33 44 55 66 77 ..........\"3DUfw\n"
     "00000100: 88 99 AA BB CC DD EE FF  10 20 30 40 50 60 70 80 ......... 0@P`p.\n"
     "00000110: 90 A0 B0 C0 FF FF FF FF  FF FF FF FF FF FF FF FF ................\n",
     ""},
    {"eeprom write --type 0x0008 --select 4 --offset 0x14 0102030405060708", 0, "wrote 8 bytes at 0x0014\n", ""},
    {"eeprom read --type 0x0008 --select 4 --offset 0x10 16", 0,
     "00000010: FF FF FF FF 01 02 03 04  05 06 07 08 FF FF FF FF ................\n", ""},
    // A file of 300 bytes, from the middle of one 24C256 page to the middle of another,
    // and back into a file; more than one request each, and nothing on a stderr that is
    // no terminal.
    {"eeprom write --type 0x0010 --offset 0x1F0 {dir}/in.bin", 0, "wrote 300 bytes at 0x01F0\n", ""},
    {"eeprom read --type 0x0010 --offset 0x1F0 300 {dir}/out.bin", 0, "read 300 bytes from 0x01F0 to {dir}/out.bin\n",
     ""},
    {"eeprom read --type 0x0010 --offset 0x1F0 4 {dir}/out.hex", 0, "read 4 bytes from 0x01F0 to {dir}/out.hex\n", ""},
    {"--json eeprom write --type 0x0008 --select 4 --offset 0xFE 5A", 0,
     "{\"written\":1,\"spans\":[{\"address\":254,\"length\":1}]}\n", ""},
    {"--json eeprom read --type 0x0008 --select 4 --offset 0xFE 2", 0,
     "{\"address\":254,\"length\":2,\"data\":\"5AFF\"}\n", ""},
    // No chip answers at 0xAE.
    {"eeprom read --type 0x0008 --select 7 4", 1, "", "tarvik: read at 0x0000: I2C NACK (No Acknowledge) (0x000120)\n"},
    {"eeprom write --type 0x0008 {dir}/missing.bin", 1, "", "tarvik: {dir}/missing.bin: No such file or directory\n"},
};

// Raw transfers to the 24C02 at A8: a write sets the address and data, a sequence sets
// the address again and reads.
const SStep kI2C[] = {
    {"i2c write A8 10CAFE", 0, "wrote 3 bytes to 0xA8\n", ""},
    {"i2c seq A8:10 A9+2", 0, "CA FE\n", ""},
    {"--json i2c seq A8:10 A9+1 A8:10 A9+2", 0, "{\"steps\":4,\"reads\":[\"CA\",\"CAFE\"],\"position\":4}\n", ""},
    {"i2c read B0 1", 1, "", "tarvik: read: I2C NACK (No Acknowledge) (0x000120)\n"},
    {"i2c write B0 00", 1, "",
     "tarvik: write: I2C NACK (No Acknowledge) (0x000120)\ntarvik: the gateway reports error position 0\n"},
};

// Pages 1 and 3 from an Intel HEX file; page 2 stays erased. Sum of pages 1 to 3:
// 1+2+3+4 + 0x10+0x20 + 762 x 0xFF = 0xF740 (16 bits).
const SStep kRenesas[] = {
    {"renesas version", 1, "", "tarvik: version: Renesas timeout (0x000920)\n"},
    {"renesas " RENESAS_ID "version", 0, "Tarvik Renesas target V1.04\n", ""},
    {"renesas " RENESAS_ID "program {dir}/app.hex --erase", 0, "programmed 2 pages (1 to 3) from {dir}/app.hex\n", ""},
    {"renesas check 1 3 " RENESAS_ID, 0, "checksum 0xF740\n", ""},
    {"--json renesas " RENESAS_ID "check 3 3", 0, "{\"first\":3,\"second\":3,\"checksum\":64818}\n", ""},
    {"renesas " RENESAS_ID "read --page 3", 0, "00000300: FF...", ""},
    // Programming only clears bits: the same file again over programmed pages passes,
    // another one fails and the sequence is still completed.
    {"renesas " RENESAS_ID "program {dir}/app.hex", 0, "programmed 2 pages (1 to 3) from {dir}/app.hex\n", ""},
    {"renesas " RENESAS_ID "program {dir}/in.bin", 1, "",
     "tarvik: program page 1: Renesas program the page failed (0x000923)\n"},
    {"renesas --id 0102 erase", 1, "", "tarvik: check ID: Renesas invalid ID (0x000921)\n"},
    // A sequence over three connections.
    {"renesas init --id 52454E45534153", 0, "sequence started, ID accepted\n", ""},
    {"renesas read --page 1 {dir}/page1.bin", 0, "read 256 bytes from 0x0100 to {dir}/page1.bin\n", ""},
    {"renesas complete", 0, "sequence completed\n", ""},
    {"renesas read", 1, "", "tarvik: read page 0: Renesas timeout (0x000920)\n"},
};

// The simulated gateway's factory information image.
const SStep kFirmware[] = {
    {"firmware info", 0,
     "software 1.2.3-1B\nhardware 1.1.A\nlayout   2\ntag      0x00002000\nfield3   0x01352902\n"
     "field4   0x12345678\nfield5   0x0ABC\nfield6   0x03\nvariant  0x1B\n"
     "field8   0x56524154 0x472D4B49 0x30302D57 0x31303030\nfield9   0x01\neeprom   0x00000100\n",
     ""},
    {"--json firmware info", 0, "{\"software\":\"1.2.3-1B\",\"hardware\":\"1.1.A\",\"sw_version\":66051,...", ""},
    {"firmware write {dir}/in.bin", 0, "wrote 1 blocks (0 to 0) from {dir}/in.bin\n", ""},
    {"firmware read --count 2 {dir}/flash.bin", 0, "read 4096 bytes from 0x0000 to {dir}/flash.bin\n", ""},
    {"firmware read --block 63", 0, "0001F800: FF FF...", ""},
    {"firmware read --block 64", 1, "", "tarvik: read block 64: Tarvik command failed (0x0000FF)\n"},
    {"firmware clear", 0, "flash cleared\n", ""},
};

// Unusable arguments: exit 2, what was wrong, where to read more; nothing is sent.
const SStep kUsage[] = {
    {"i2c", 2, "", "tarvik: i2c: missing command (one of read, write, seq)\nRun 'tarvik i2c --help' for usage.\n"},
    {"i2c read A0", 2, "", "tarvik: i2c read: ...\nRun 'tarvik i2c read --help' for usage.\n"},
    {"i2c read G0 1", 2, "",
     "tarvik: slave address: not a hex byte: \"G0\"\nRun 'tarvik i2c read --help' for usage.\n"},
    {"i2c seq A0+1", 2, "", "tarvik: step \"A0+1\": a read step needs an odd address byte\n..."},
    {"i2c seq A0", 2, "", "tarvik: step \"A0\": ADDR:HEX writes, ADDR+N reads\n..."},
    {"eeprom read 4", 2, "", "tarvik: eeprom read: --type is required\n..."},
    {"eeprom read --type 0x0008 --offset 0xFF 2", 2, "",
     "tarvik: read: 0x00FF + 2 bytes is past the end of the 256 bytes that type 0x0008 addresses\n..."},
    {"eeprom write --type 0x0010 --page 0 00", 2, "", "tarvik: eeprom write: --page: ...\n..."},
    {"--json eeprom read --type 0x10000 1", 2,
     "{\"error\":\"--type: larger than 65535: \\\"0x10000\\\"\",\"exit\":2}\n", ""},
    {"renesas", 2, "",
     "tarvik: renesas: missing command (one of init, id, complete, erase, program, read, version, check)\n..."},
    {"renesas --id 0102030405060708 version", 2, "", "tarvik: --id: at most 7 bytes\n..."},
    {"renesas check 1", 2, "", "tarvik: renesas check: ...\n..."},
    {"firmware read --count 0", 2, "", "tarvik: firmware read: --count: ...\n..."},
    {"firmware frob", 2, "", "tarvik: unknown command 'firmware frob'\nRun 'tarvik firmware --help' for usage.\n"},
};

class CCliTargetTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_pDir.reset(new hexfile_test::CTempDir());
        for (const char* device : {"i2c", "renesas", "firmware"})
            s_apSims.emplace_back(new CCliSimProcess(device));
        std::string bytes;
        for (int i = 0; i < 300; ++i)
            bytes += static_cast<char>(i * 7 + 1);
        Write("in.bin", bytes);
        Write("app.hex", ":0401000001020304F1\n:0203FE001020CD\n:00000001FF\n");
    }
    static void TearDownTestSuite()
    {
        s_apSims.clear();
        s_pDir.reset();
    }

    static void Write(const std::string& name, const std::string& bytes)
    {
        std::ofstream out(s_pDir->Path(name), std::ios::binary);
        out << bytes;
    }
    static std::string Read(const std::string& name) { return CliReadFile(s_pDir->Path(name)); }

    std::string Fill(std::string text) const
    {
        CliReplace(text, "{dir}", s_pDir->Path("").substr(0, s_pDir->Path("").size() - 1));
        const char* names[] = {"{i2c}", "{renesas}", "{firmware}"};
        for (size_t i = 0; i < s_apSims.size(); ++i)
            CliReplace(text, names[i], s_apSims[i]->Address());
        return text;
    }

    // Runs the steps in order, against the simulator of host (none: --sim, the embedded one).
    template <size_t N> void RunSteps(const SStep (&steps)[N], const std::string& host)
    {
        for (const SStep& step : steps)
        {
            std::vector<std::string> args = {"--sim"};
            if (!host.empty())
                args = {"--host", Fill(host)};
            std::istringstream words(Fill(step.m_pArgs));
            for (std::string word; words >> word;)
                args.push_back(word);
            CliExpectRun(CliRunProgram(kCliTarvik, args), step.m_nExit, Fill(step.m_pOut), Fill(step.m_pErr),
                         step.m_pArgs);
        }
    }

    static std::unique_ptr<hexfile_test::CTempDir> s_pDir;
    static std::vector<std::unique_ptr<CCliSimProcess>> s_apSims;
};

std::unique_ptr<hexfile_test::CTempDir> CCliTargetTest::s_pDir;
std::vector<std::unique_ptr<CCliSimProcess>> CCliTargetTest::s_apSims;

TEST_F(CCliTargetTest, EepromWritesAcrossPagesAndReadsBack)
{
    ASSERT_FALSE(s_apSims[0]->Address().empty()) << "tarvik-sim did not start";
    RunSteps(kEeprom, "{i2c}");
    EXPECT_EQ(Read("in.bin"), Read("out.bin"));
    // An image file keeps the address the bytes came from.
    EXPECT_EQ(":0401F00001080F16DD\n:00000001FF\n", Read("out.hex"));
}

TEST_F(CCliTargetTest, I2CTransfersAndSequences)
{
    ASSERT_FALSE(s_apSims[0]->Address().empty()) << "tarvik-sim did not start";
    RunSteps(kI2C, "{i2c}");
}

TEST_F(CCliTargetTest, RenesasProgramsThenChecksAndReads)
{
    ASSERT_FALSE(s_apSims[1]->Address().empty()) << "tarvik-sim did not start";
    RunSteps(kRenesas, "{renesas}");
    std::string page1 = std::string("\x01\x02\x03\x04", 4) + std::string(252, '\xFF');
    EXPECT_EQ(page1, Read("page1.bin"));
}

TEST_F(CCliTargetTest, FirmwareInfoAndFlashRoundTrip)
{
    ASSERT_FALSE(s_apSims[2]->Address().empty()) << "tarvik-sim did not start";
    RunSteps(kFirmware, "{firmware}");
    // The rest of the block is written erased.
    EXPECT_EQ(Read("in.bin") + std::string(4096 - 300, '\xFF'), Read("flash.bin"));
}

TEST_F(CCliTargetTest, UsageErrorsExitWithTwo)
{
    RunSteps(kUsage, "");
}
} // namespace
