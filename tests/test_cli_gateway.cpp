// The tarvik command-line tool as a user runs it: the built binary, its output and exit
// code, and how it ends when a tarvik-sim process it talks to is killed or frozen.
#include "support/CliProcess.h"
#include "support/HexfileTestUtil.h"
#include "support/Wait.h"
#include "tarvik/TarvikVersion.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace tarvik_test;
using CProcess = CCliProcess;
using SRun = SCliRun;
const std::string kTarvik = kCliTarvik;
const std::string kSim = kCliSim;
const auto& Describe = CliDescribe;
const auto& StartsWithLines = CliStartsWithLines;

SRun RunCli(const std::vector<std::string>& args)
{
    return CliRunProgram(kTarvik, args);
}

// A tarvik-sim process serving an SPI gateway on a free port of 127.0.0.1.
class CSimProcess : public CCliSimProcess
{
public:
    explicit CSimProcess(std::vector<std::string> args) : CCliSimProcess("spi", std::move(args)) {}
};

// One invocation: the program ("tarvik" or "tarvik-sim") and its arguments, the exit
// code, and the first lines of stdout and stderr (see StartsWithLines). "{silent}"
// stands for the address of a simulator that never answers.
struct SCase
{
    std::vector<std::string> m_asArgs;
    int m_nExit;
    std::string m_sOut;
    std::string m_sErr;
};

void PrintTo(const SCase& c, std::ostream* os)
{
    for (const std::string& arg : c.m_asArgs)
        *os << arg << " ";
}

class CliInvocation : public ::testing::TestWithParam<SCase>
{
protected:
    static void TearDownTestSuite() { s_pSilent.reset(); }

    // Started for the first case that needs it.
    static const std::string& SilentAddress()
    {
        if (!s_pSilent)
            s_pSilent.reset(new CSimProcess({"--fault", "silent"}));
        return s_pSilent->Address();
    }

    static void Fill(std::string& text)
    {
        if (text.find("{silent}") != std::string::npos)
            CliReplace(text, "{silent}", SilentAddress());
    }

    static std::unique_ptr<CSimProcess> s_pSilent;
};

std::unique_ptr<CSimProcess> CliInvocation::s_pSilent;

TEST_P(CliInvocation, ExitsWithItsCodeAndFirstLines)
{
    SCase c = GetParam();
    std::vector<std::string> args(c.m_asArgs.begin() + 1, c.m_asArgs.end());
    for (std::string* text : {&c.m_sOut, &c.m_sErr})
        Fill(*text);
    for (std::string& arg : args)
        Fill(arg);
    ASSERT_TRUE(!s_pSilent || !SilentAddress().empty()) << "tarvik-sim did not start";
    SRun run = CliRunProgram(c.m_asArgs.front() == "tarvik-sim" ? kSim : kTarvik, args);
    CliExpectRun(run, c.m_nExit, c.m_sOut, c.m_sErr, "");
}

// With --sim each command runs against a simulator inside the process, and says so.
INSTANTIATE_TEST_SUITE_P(
    EmbeddedSimulator, CliInvocation,
    ::testing::Values(
        // The simulator's record: serial 21000000 + 1000 x type, 2023-06-14, port index 0.
        SCase{{"tarvik", "--sim", "info"},
              0,
              "device:     Tarvik SPI (type 3)\nserial:     21003000\nhardware:   1.2\nfirmware:   2.18 build 263\n"
              "date:       2023-06-14\nport index: 0\n",
              kCliSimNote},
        SCase{{"tarvik", "--sim", "--json", "info", "--raw"},
              0,
              "{\"device_type\":3,\"device\":\"Tarvik SPI\",\"serial\":21003000,"
              "\"hardware\":\"1.2\",\"firmware\":\"2.18\",\"build\":263,\"date\":\"2023-06-14\","
              "\"port_index\":0,\"raw\":\"F87A4001010202120701E707060E000000000300\",\"simulated\":true}",
              ""},
        // The first word of the answer is the channel count, not a channel.
        SCase{{"tarvik", "--sim", "analog", "--set", "1", "2", "3"},
              0,
              "channels 8\nvalues   1 2 3 0 0 0 0 0\n",
              kCliSimNote},
        // WREN, WRITE at 0x0100, READ back: one chip-select frame per argument.
        SCase{{"tarvik", "--sim", "spi", "xfer", "06", "02 01 00 DE AD BE EF", "030100+4"},
              0,
              "FF\nFF FF FF FF FF FF FF\nFF FF FF DE AD BE EF\n",
              kCliSimNote},
        SCase{{"tarvik", "errcode", "0x0330"},
              0,
              "code        0x000330 (816)\ntransport   0x00\ndevice type 0x03 Tarvik SPI\ndevice byte 0x30\n"
              "text        SPI sequence unknown command op code\n",
              ""},
        SCase{{"tarvik", "--sim", "--json", "spi", "globals"},
              0,
              "{\"rate\":1000000,\"settings\":[0,0,0],\"simulated\":true}\n",
              ""},
        SCase{{"tarvik", "--sim", "spi", "seq", "01", "09"},
              1,
              "",
              kCliSimNote + "tarvik: sequence: SPI sequence unknown command op code (0x000330)\n"},
        SCase{{"tarvik", "--sim", "--json", "spi", "seq", "01", "09"},
              1,
              "{\"error\":\"sequence: SPI sequence unknown command op code\",\"code\":\"0x000330\",\"exit\":1,"
              "\"simulated\":true}\n",
              ""},
        // Test-system units, DIO and AD gateways, each against a fresh simulated device.
        SCase{{"tarvik", "--sim", "testsys", "install", "boot", TARVIK_TEST_DATA_DIR "/hexfile_sample.hex"},
              0,
              "installed boot from " TARVIK_TEST_DATA_DIR "/hexfile_sample.hex\n",
              kCliSimNote},
        SCase{{"tarvik", "--sim", "--json", "testsys", "available", "boot"},
              0,
              "{\"config\":\"boot\",\"available\":false,\"simulated\":true}\n",
              ""},
        SCase{{"tarvik", "--sim", "testsys", "relay", "1", "on"}, 0, "relay 1 on\n", kCliSimNote},
        SCase{{"tarvik", "--sim", "testsys", "button", "0"}, 0, "button 0 released\n", kCliSimNote},
        SCase{{"tarvik", "--sim", "dio", "read"}, 0, "inputs  0x0000A55A\noutputs 0x00000000\n", kCliSimNote},
        SCase{{"tarvik", "--sim", "--json", "dio", "write", "0x55"}, 0, "{\"outputs\":85,\"simulated\":true}\n", ""},
        SCase{{"tarvik", "--sim", "testsys", "install", "boot", "/nonexistent/boot.cfg"},
              1,
              "",
              "tarvik: /nonexistent/boot.cfg: No such file or directory\n"}));

// Every usage error: exit 2, one line naming it, a hint where to read more.
INSTANTIATE_TEST_SUITE_P(
    Usage, CliInvocation,
    ::testing::Values(
        SCase{{"tarvik"}, 2, "tarvik: drive Tarvik network gateways from the command line.\n", ""},
        SCase{
            {"tarvik", "frobnicate"}, 2, "", "tarvik: unknown command 'frobnicate'\nRun 'tarvik --help' for usage.\n"},
        SCase{{"tarvik", "spi", "frob"},
              2,
              "",
              "tarvik: unknown command 'spi frob'\nRun 'tarvik spi --help' for usage.\n"},
        SCase{{"tarvik", "spi"},
              2,
              "",
              "tarvik: spi: missing command (one of globals, xfer, seq)\nRun 'tarvik spi --help' for usage.\n"},
        SCase{{"tarvik", "spi", "xfer"}, 2, "", "tarvik: spi xfer: ...\nRun 'tarvik spi xfer --help' for usage.\n"},
        SCase{{"tarvik", "ping", "-n", "abc"}, 2, "", "tarvik: ping: ...\nRun 'tarvik ping --help' for usage.\n"},
        SCase{{"tarvik", "info", "--bogus"},
              2,
              "",
              "tarvik: info: unknown option '--bogus'\nRun 'tarvik info --help' for usage.\n"},
        SCase{{"tarvik", "spi", "xfer", "0G"},
              2,
              "",
              "tarvik: transfer: not a hex digit: \"0G\"\nRun 'tarvik spi xfer --help' for usage.\n"},
        // No gateway named and no --sim: nothing is asked of a simulator behind the user's back.
        SCase{{"tarvik", "info"},
              2,
              "",
              "tarvik: no gateway named: give --host HOST[:PORT] (-H), set TARVIK_HOST=HOST[:PORT], or --sim for "
              "the simulator built into tarvik\nRun 'tarvik info --help' for usage.\n"},
        SCase{{"tarvik", "--json", "spi", "globals"}, 2, "{\"error\":\"no gateway named: ...", ""},
        SCase{{"tarvik", "-H", "[::1", "info"}, 2, "", "tarvik: --host: no ']' after the IPv6 address: \"[::1\"\n"},
        SCase{{"tarvik", "-H", "127.0.0.1:5002", "--port", "5003", "info"},
              2,
              "",
              "tarvik: --port 5003 and --host 127.0.0.1:5002 name different ports\n"},
        // With --json the error is the one line on stdout, also when no command is given.
        SCase{{"tarvik", "--json", "frobnicate"}, 2, "{\"error\":\"unknown command 'frobnicate'\",\"exit\":2}\n", ""},
        SCase{{"tarvik", "--json"}, 2, "{\"error\":\"missing command (one of info, ...\n", ""},
        SCase{{"tarvik", "--version"}, 0, "tarvik " TARVIK_VERSION_STRING " (Tarvik SPI DLL V1.3-2.18)\n", ""},
        SCase{{"tarvik-sim", "--version"}, 0, "tarvik-sim " TARVIK_VERSION_STRING " (Tarvik SPI DLL V1.3-2.18)\n", ""},
        SCase{{"tarvik-sim", "--bogus"},
              2,
              "",
              "tarvik-sim: unknown option '--bogus'\nRun 'tarvik-sim --help' for usage.\n"},
        SCase{{"tarvik-sim", "--devices", "nope"}, 2, "", "tarvik-sim: unknown device \"nope\"..."},
        SCase{{"tarvik-sim", "--can-stream", "1.5"},
              2,
              "",
              "tarvik-sim: --can-stream: Value 1.5 is not a frame rate (whole frames per second, 0..1000000)\n..."},
        SCase{{"tarvik-sim", "--can-stream", "1000001"},
              2,
              "",
              "tarvik-sim: --can-stream: Value 1000001 is not a frame..."},
        SCase{{"tarvik-sim", "--devices", "spi", "--can-stream", "10"},
              2,
              "",
              "tarvik-sim: --can-stream needs a CAN device\n"}));

// A gateway that cannot be reached, or does not answer: the library's code and text,
// then the cause the tool found.
INSTANTIATE_TEST_SUITE_P(
    Unreachable, CliInvocation,
    ::testing::Values(
        // An empty label fails in the resolver itself, without asking a name server.
        SCase{{"tarvik", "-H", "nosuch..invalid", "info"},
              1,
              "",
              "tarvik: connect to Tarvik SPI at nosuch..invalid:5002: TCP/IP socket error (0x020000)\n"
              "tarvik: cannot resolve host 'nosuch..invalid' ..."},
        SCase{{"tarvik", "--json", "-H", "nosuch..invalid", "info"},
              1,
              "{\"error\":\"connect to Tarvik SPI at nosuch..invalid:5002: TCP/IP socket error\",\"code\":\"0x020000\","
              "\"cause\":\"cannot resolve host 'nosuch..invalid' ...",
              ""},
        SCase{{"tarvik", "-H", "127.0.0.1", "--port", "1", "status"},
              1,
              "",
              "tarvik: connect to Tarvik SPI at 127.0.0.1:1: Not connected to TCP/IP partner (0x030000)\n"
              "tarvik: connection refused by 127.0.0.1:1 \u2014 is a gateway or tarvik-sim listening?\n"},
        SCase{{"tarvik", "-H", "[::1]:1", "status"}, 1, "", "tarvik: connect to Tarvik SPI at [::1]:1: ..."},
        SCase{{"tarvik", "-H", "{silent}", "-t", "50", "info"},
              1,
              "",
              "tarvik: info: TCP/IP timeout occured (0x040000)\ntarvik: no answer from {silent} within 50 ms\n"},
        // Ping goes on after a time-out; all lost is a failure.
        SCase{{"tarvik", "-H", "{silent}", "-t", "50", "ping", "-n", "3"},
              1,
              "Tarvik SPI at {silent}: 3 sent, 3 lost\n",
              "tarvik: ping: every request lost: TCP/IP timeout occured (0x040000)\n"},
        SCase{{"tarvik", "--json", "-H", "{silent}", "-t", "50", "ping", "-n", "2"},
              1,
              "{\"sent\":2,\"lost\":2,\"min_us\":null,\"p50_us\":null,\"p99_us\":null,\"max_us\":null}\n"
              "{\"error\":\"ping: every request lost: TCP/IP timeout occured\",\"code\":\"0x040000\","
              "\"cause\":\"no answer from {silent} within 50 ms\",\"exit\":1}\n",
              ""}));

// A file that cannot be used: its name and why, the same way for every command, and no
// stream's exception text.
INSTANTIATE_TEST_SUITE_P(
    FileErrors, CliInvocation,
    ::testing::Values(
        SCase{{"tarvik", "hex", "info", "/nonexistent/a.hex"},
              1,
              "",
              "tarvik: /nonexistent/a.hex: No such file or directory\n"},
        SCase{{"tarvik", "hex", "info", "/"}, 1, "", "tarvik: /: Is a directory\n"},
        SCase{{"tarvik", "--json", "hex", "info", "/"}, 1, "{\"error\":\"/: Is a directory\",\"exit\":1}\n", ""},
        SCase{{"tarvik", "--sim", "eeprom", "write", "--type", "0x0008", "/"}, 1, "", "tarvik: /: Is a directory\n"},
        SCase{{"tarvik", "--sim", "testsys", "install", "boot", "/"}, 1, "", "tarvik: /: Is a directory\n"},
        SCase{{"tarvik", "--sim", "can", "play", "/nonexistent/bus.log"},
              1,
              "",
              "tarvik: /nonexistent/bus.log: No such file or directory\n"},
        SCase{{"tarvik", "--sim", "can", "dump", "-o", "/nonexistent/bus.log"},
              1,
              "",
              "tarvik: /nonexistent/bus.log: No such file or directory\n"}));

TEST(CliHelp, CommandHelpListsTheGlobalOptionsWithDefaults)
{
    SRun run = RunCli({"spi", "xfer", "--help"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_TRUE(std::regex_search(run.m_sOut, std::regex(R"(\nGlobal options:\n(.*\n)*  -t,--timeout .*=1000\n)")))
        << run.m_sOut;
}

TEST(CliPing, ReportsSentLostAndRoundTrips)
{
    SRun run = RunCli({"--sim", "ping", "-n", "25"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_TRUE(
        std::regex_match(run.m_sOut, std::regex(R"(Tarvik SPI at 127\.0\.0\.1:\d+ \(simulator\): 25 sent, 0 lost, )"
                                                R"(round trip min [0-9.]+ us, p50 [0-9.]+ us, )"
                                                R"(p99 [0-9.]+ us, max [0-9.]+ us\n)")))
        << Describe(run);
}

TEST(CliPing, SomeLostIsStillSuccess)
{
    CSimProcess sim({"--drop", "50"});
    ASSERT_FALSE(sim.Address().empty());
    SRun run = RunCli({"--json", "-H", sim.Address(), "-t", "50", "ping", "-n", "20"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(run.m_sOut, match, std::regex(R"(\{"sent":20,"lost":(\d+),"min_us":.*\}\n)")))
        << Describe(run);
    EXPECT_GT(std::stoi(match[1]), 0);
    EXPECT_LT(std::stoi(match[1]), 20);
}

TEST(CliTrace, PrintsOneDecodedLinePerTelegramOnStderr)
{
    SRun run = RunCli({"--sim", "spi", "globals", "--trace"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_EQ("rate     1000000\nsettings 0 0 0\n", run.m_sOut);
    // The answer carries the simulator's power-up globals: rate 1000000 = 0x000F4240.
    EXPECT_TRUE(StartsWithLines(run.m_sErr, kCliSimNote) &&
                std::regex_match(run.m_sErr.substr(kCliSimNote.size()),
                                 std::regex(R"(\S+ -- connected\n)"
                                            R"(\d\d:\d\d:\d\d\.\d{6} -> req 0x0308 GetGlobals id=2 len=0 crc=ok\n)"
                                            R"(\S+ <- cnf 0x8308 GetGlobals id=2 len=8 crc=ok result=ok )"
                                            R"(\| 00 40 42 0F 00 00 00 00\n)"
                                            R"(\S+ -- disconnected\n)")))
        << Describe(run);
}

// Ctrl-C or SIGTERM ends a long ping with the summary of what it sent until then.
TEST(CliPing, SignalEndsItWithTheSummary)
{
    for (int signal : {SIGINT, SIGTERM})
    {
        CProcess ping(kTarvik, {"--sim", "--trace", "ping", "-n", "10000000"});
        auto replied = [&] { return ping.Err().find(" <- cnf ") != std::string::npos; };
        for (int i = 0; i < 4000 && !replied() && ping.Wait(5) == -1; ++i)
        {
        }
        ASSERT_TRUE(replied()) << ping.Err();
        ping.Signal(signal);
        EXPECT_EQ(0, ping.Wait(10000)) << "signal " << signal;
        EXPECT_TRUE(
            std::regex_match(ping.Out(), std::regex(R"(Tarvik SPI at \S+ \(simulator\): [1-9]\d* sent, \d+ lost, )"
                                                    R"(round trip min .* us\n)")))
            << "signal " << signal << "\n"
            << ping.Out();
    }
}

class CliAgainstSimProcess : public ::testing::Test
{
protected:
    // Starts tarvik-sim serving SPI at port 5002 of the first free address of
    // 127.0.0.<first> to <last>. Each test has its own addresses, so that no other
    // test takes over the address of a simulator that was just killed.
    void StartSim(int first, int last)
    {
        for (int address = first; address <= last && !m_pSim; ++address)
        {
            m_sHost = "127.0.0." + std::to_string(address);
            m_pSim.reset(new CProcess(kSim, {"--host", m_sHost, "--devices", "spi"}));
            // A taken address ends the program; a free one prints its line and serves.
            for (int i = 0; i < 1000 && m_pSim->Out().empty() && m_pSim->Wait(10) == -1; ++i)
            {
            }
            if (m_pSim->Out() != "Tarvik SPI listening on " + m_sHost + ":5002\n")
                m_pSim.reset();
        }
        ASSERT_TRUE(m_pSim) << "no free address for tarvik-sim";
        SRun before = RunCli({"--host", m_sHost, "status"});
        ASSERT_EQ(0, before.m_nExit) << Describe(before);
    }

    std::string m_sHost;
    std::unique_ptr<CProcess> m_pSim;
};

// TARVIK_HOST names the gateway as --host does (HOST or HOST:PORT); --host wins over it.
TEST_F(CliAgainstSimProcess, TarvikHostNamesTheGateway)
{
    ASSERT_NO_FATAL_FAILURE(StartSim(80, 84));
    struct SEnv
    {
        ~SEnv() { ::unsetenv("TARVIK_HOST"); }
    } restore;
    ::setenv("TARVIK_HOST", m_sHost.c_str(), 1);
    SRun run = RunCli({"status"});
    EXPECT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_EQ("", run.m_sErr);
    ::setenv("TARVIK_HOST", "127.0.0.1:1", 1);
    run = RunCli({"status"});
    EXPECT_EQ(1, run.m_nExit) << Describe(run);
    EXPECT_TRUE(StartsWithLines(run.m_sErr, "tarvik: connect to Tarvik SPI at 127.0.0.1:1: ...")) << Describe(run);
    run = RunCli({"--host", m_sHost, "status"});
    EXPECT_EQ(0, run.m_nExit) << Describe(run);
}

TEST_F(CliAgainstSimProcess, KilledSimulatorGivesNotConnectedInBoundedTime)
{
    ASSERT_NO_FATAL_FAILURE(StartSim(70, 74));
    m_pSim->Signal(SIGKILL);
    m_pSim->Wait(0);
    SRun run = RunCli({"--host", m_sHost, "--timeout", "500", "status"});
    EXPECT_EQ(1, run.m_nExit) << Describe(run);
    EXPECT_NE(std::string::npos, run.m_sErr.find("Not connected to TCP/IP partner (0x030000)\n")) << Describe(run);
    EXPECT_LT(run.m_dSeconds, 5.0);
}

TEST_F(CliAgainstSimProcess, FrozenSimulatorGivesTimeoutInBoundedTime)
{
    ASSERT_NO_FATAL_FAILURE(StartSim(75, 79));
    // The kernel still completes the connection; nobody answers the request.
    m_pSim->Signal(SIGSTOP);
    SRun run = RunCli({"--host", m_sHost, "--timeout", "300", "info"});
    EXPECT_EQ(1, run.m_nExit) << Describe(run);
    EXPECT_NE(std::string::npos, run.m_sErr.find("tarvik: info: TCP/IP timeout occured (0x040000)\n")) << Describe(run);
    EXPECT_LT(run.m_dSeconds, 5.0);
    // Thawed, tarvik-sim takes its pending SIGTERM and ends cleanly.
    m_pSim->Signal(SIGTERM);
    m_pSim->Signal(SIGCONT);
    EXPECT_EQ(0, m_pSim->Wait(10000));
}
} // namespace

// The AWire programmer's commands against the embedded simulator.
INSTANTIATE_TEST_SUITE_P(
    AWire, CliInvocation,
    ::testing::Values(
        SCase{{"tarvik", "--sim", "awire", "config", "--set", "1", "2", "512", "4", "uc3"},
              0,
              "value1    0x00000001\nvalue2    0x00000002\npage size 256\nvalue4    0x00000004\ntext      \"uc3\"\n",
              kCliSimNote},
        SCase{{"tarvik", "--sim", "awire", "read", "0x800000", "4"},
              0,
              "00800000: FF FF FF FF                                      ....\n",
              kCliSimNote},
        SCase{{"tarvik", "--sim", "--json", "awire", "erase", "1"},
              1,
              "{\"error\":\"erase: EraseBlock not supported\",\"code\":\"0x000E24\",\"exit\":1,\"simulated\":true}\n",
              ""},
        SCase{{"tarvik", "--sim", "awire", "erase", "--user-page"}, 0, "user page erased\n", kCliSimNote},
        SCase{{"tarvik", "--sim", "awire", "write-file", "/nonexistent/image.hex"}, 1, "", "tarvik: ..."},
        SCase{{"tarvik", "--sim", "awire", "config", "--set", "1", "2"}, 2, "", "tarvik: awire config: ..."}));

// A file of these bytes in this program's temporary directory, which goes at its end.
std::string ImageFile(const std::string& bytes)
{
    static hexfile_test::CTempDir dir;
    static int files = 0;
    const std::string path = dir.Path("image" + std::to_string(++files) + ".bin");
    hexfile_test::WriteFile(path, bytes);
    return path;
}
// A binary image of size bytes.
std::string ImageFile(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 13 / 7);
    return ImageFile(bytes);
}

// A warning goes on stderr, or with --json into the one document on stdout.
TEST(CliJson, WarningsAreInTheDocument)
{
    const std::string text = ImageFile(std::string("no records in here\n"));
    SRun human = RunCli({"hex", "info", text});
    EXPECT_EQ(0, human.m_nExit) << Describe(human);
    EXPECT_TRUE(std::regex_match(human.m_sErr, std::regex("tarvik: warning: .*looks like text.*\n")))
        << Describe(human);
    SRun json = RunCli({"--json", "hex", "info", text});
    EXPECT_EQ(0, json.m_nExit) << Describe(json);
    EXPECT_EQ("", json.m_sErr);
    EXPECT_TRUE(std::regex_match(json.m_sOut, std::regex(R"(\{[^\n]*"warnings":\["[^"]*looks like text[^"]*"\]\}\n)")))
        << Describe(json);
}

TEST(CliAWire, WriteFileShowsProgressThenTheVerifyResult)
{
    const std::string image = ImageFile(65536);
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--sim", "awire", "write-file", image},
         R"re(((writing|verifying) \d+%\n)+verified: 65536 bytes of .* written and read back in [0-9.]+ s\n)re"},
        {{"--sim", "--json", "awire", "write-file", image},
         R"re((\{"event":"progress","step":"(writing|verifying)","percent":\d+,"bytes_per_second":\d+[^\n]*\}\n)+)re"
         R"re(\{"file":".*","bytes":65536,"verified":true,"seconds":[0-9.e-]+,"simulated":true\}\n)re"},
    };
    for (const auto& c : cases)
    {
        SRun run = RunCli(c.first);
        EXPECT_EQ(0, run.m_nExit) << Describe(run);
        EXPECT_TRUE(std::regex_match(run.m_sOut, std::regex(c.second))) << Describe(run);
    }
}

TEST(CliAWire, CtrlCStopsTheWriteAndSaysHowFarItGot)
{
    // The target takes some 13 s for the image: time enough to interrupt on a loaded machine.
    CProcess sim(kSim, {"--devices", "awire", "--port", "0", "--awire-rate", "20000"});
    std::smatch match;
    std::string out;
    Eventually([&] { return (out = sim.Out()).find('\n') != std::string::npos; });
    ASSERT_TRUE(std::regex_match(out, match, std::regex("Tarvik AWire listening on (127\\.0\\.0\\.1:\\d+)\n"))) << out;
    const std::string image = ImageFile(262144);
    CProcess cli(kTarvik, {"-H", match[1], "awire", "write-file", image});
    // Interrupted once it has shown a second step of progress.
    auto shown = [&] {
        std::string o = cli.Out();
        return o.find("writing", o.find("writing") + 1) != std::string::npos;
    };
    ASSERT_TRUE(Eventually(shown)) << cli.Out();
    cli.Signal(SIGINT);
    EXPECT_EQ(1, cli.Wait(10000)) << cli.Err();
    EXPECT_TRUE(
        std::regex_match(cli.Err(), std::regex("tarvik: write-file: interrupted while writing at \\d+% of 262144 "
                                               "bytes; the target holds an incomplete image\n")))
        << cli.Err();
}

TEST(CliSim, CanStreamPutsItsFramesOnTheBus)
{
    CProcess sim(kSim, {"--devices", "can", "--port", "0", "--can-stream", "1000"});
    std::smatch match;
    std::string out;
    Eventually([&] { return (out = sim.Out()).find('\n') != std::string::npos; });
    ASSERT_TRUE(std::regex_match(out, match, std::regex("Tarvik CAN listening on (127\\.0\\.0\\.1:\\d+)\n"))) << out;
    // 100 frames, numbered one after the other, within a deadline far above their 0.1 s.
    CProcess dump(kTarvik, {"-H", match[1], "can", "dump", "-n", "100"});
    ASSERT_EQ(0, dump.Wait(20000)) << dump.Err();
    std::string lines = dump.Out();
    std::regex frame("  \\S+  055   \\[8\\]  ([0-9A-F]{2}) ([0-9A-F]{2}) ([0-9A-F]{2}) ([0-9A-F]{2}) 00 00 00 00\n");
    unsigned long previous = 0;
    int count = 0;
    for (std::sregex_iterator it(lines.begin(), lines.end(), frame), end; it != end; ++it, ++count)
    {
        const unsigned long number =
            std::stoul((*it)[4].str() + (*it)[3].str() + (*it)[2].str() + (*it)[1].str(), nullptr, 16);
        if (count > 0)
        {
            EXPECT_EQ(previous + 1, number) << lines;
        }
        previous = number;
    }
    EXPECT_EQ(100, count) << lines;
}
