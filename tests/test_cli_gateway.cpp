// The tarvik command-line tool as a user runs it: the built binary, its output, its
// exit code, and how long it takes when the gateway is gone.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace
{
const std::string kTarvik = TARVIK_BINARY_DIR "/tools/tarvik";
// A command that has not ended by then is hanging.
constexpr double kHangSeconds = 20.0;
// A command against a dead gateway must end well within this.
constexpr double kBoundSeconds = 5.0;

struct SCliRun
{
    int m_nExit = -1;
    std::string m_sOut;
    std::string m_sErr;
    double m_dSeconds = 0;
};

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string TempPath()
{
    char path[] = "/tmp/tarvik-cli-test-XXXXXX";
    int fd = ::mkstemp(path);
    if (fd >= 0)
        ::close(fd);
    return path;
}

pid_t Spawn(const std::vector<std::string>& args, const std::string& out, const std::string& err)
{
    std::vector<char*> argv;
    std::vector<std::string> all = args;
    all.insert(all.begin(), kTarvik);
    for (std::string& arg : all)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Runs tarvik with args; a run that hangs is killed and reported with exit -1.
SCliRun RunCli(const std::vector<std::string>& args)
{
    SCliRun run;
    std::string out = TempPath();
    std::string err = TempPath();
    auto start = std::chrono::steady_clock::now();
    pid_t pid = Spawn(args, out, err);
    if (pid < 0)
        return run;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0)
    {
        run.m_dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (run.m_dSeconds > kHangSeconds)
        {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    run.m_dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.m_nExit = (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
    run.m_sOut = ReadFile(out);
    run.m_sErr = ReadFile(err);
    std::remove(out.c_str());
    std::remove(err.c_str());
    return run;
}

std::string Describe(const SCliRun& run)
{
    return "exit " + std::to_string(run.m_nExit) + "\nstdout:\n" + run.m_sOut + "stderr:\n" + run.m_sErr;
}

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// ---------------------------------------------------------------- commands that succeed

struct SOkCase
{
    std::vector<std::string> m_asArgs;
    std::vector<std::string> m_asExpected; // lines or parts of stdout
};

void PrintTo(const SOkCase& c, std::ostream* os)
{
    for (const std::string& arg : c.m_asArgs)
        *os << arg << " ";
}

class CCliOkTest : public ::testing::TestWithParam<SOkCase>
{
};

TEST_P(CCliOkTest, PrintsExpectedOutputAndExitsZero)
{
    SCliRun run = RunCli(GetParam().m_asArgs);
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    for (const std::string& part : GetParam().m_asExpected)
        EXPECT_TRUE(Contains(run.m_sOut, part)) << "missing \"" << part << "\"\n" << Describe(run);
}

// SPI EEPROM script for "spi seq": WREN; WRITE DE AD BE EF at 0x0100; READ 4 at 0x0100.
const char* const kEepromScript = "01 030100 06 02  01 030700 020100DEADBEEF 02  01 030300 030100 040400 02";

INSTANTIATE_TEST_SUITE_P(
    EmbeddedSimulator, CCliOkTest,
    ::testing::Values(
        SOkCase{{"info"}, {"device: Tarvik SPI (type 3)\ninfo:   "}}, SOkCase{{"status"}, {"Tarvik SPI"}},
        SOkCase{{"restart"}, {"restarted Tarvik SPI at 127.0.0.1:"}},
        SOkCase{{"digital", "--set", "81"}, {"inputs  0x0000A55A\n", "outputs 0x00000081\n"}},
        SOkCase{{"analog", "--set", "7", "0x10"}, {"values 7 16 0"}},
        SOkCase{{"spi", "globals", "--rate", "250000", "--settings", "3", "2", "1"},
                {"rate     250000\nsettings 3 2 1\n"}},
        // Only the rate given: the settings keep their values.
        SOkCase{{"spi", "globals", "--rate", "42"}, {"rate     42\nsettings 0 0 0\n"}},
        // WREN, WRITE at 0x0100, READ back: one chip-select frame per argument.
        SOkCase{{"spi", "xfer", "06", "02 01 00 DE AD BE EF", "030100+4"},
                {"FF\nFF FF FF FF FF FF FF\nFF FF FF DE AD BE EF\n"}},
        SOkCase{{"spi", "xfer", "0x03,0x01,0x00", "--read", "5"}, {"FF FF FF FF FF\n"}},
        SOkCase{{"spi", "seq", kEepromScript}, {"DE AD BE EF\n"}},
        SOkCase{{"--json", "spi", "globals"}, {"{\"rate\":1000000,\"settings\":[0,0,0]}\n"}},
        SOkCase{{"spi", "xfer", "05+1", "--json"}, {"{\"transfers\":[{\"sent\":\"05\",\"received\":\"FF00\"}]}\n"}},
        SOkCase{{"--json", "digital"}, {"{\"inputs\":42330,\"outputs\":0}\n"}},
        SOkCase{{"--host", "127.0.0.79", "--sim", "info"}, {"device: Tarvik SPI"}},
        SOkCase{{"errcode", "0x0330"},
                {"code        0x000330 (816)\n", "transport   0x00\n", "device type 0x03 Tarvik SPI\n",
                 "device byte 0x30\n", "text        SPI sequence unknown command op code\n"}},
        SOkCase{{"errcode", "262144"}, {"transport   0x04\n", "text        TCP/IP timeout occured\n"}},
        SOkCase{{"errcode", "0x0520"}, {"device type 0x05 Tarvik DIO\n", "text        Unknown error code: 32\n"}},
        SOkCase{{"errcode", "0x910000"},
                {"text        Device type invalid (handle is connected device type, which does not support called "
                 "function\n"}},
        SOkCase{{"errcode", "0x0C0300", "--json"},
                {"{\"code\":787200,\"transport\":12,\"device_type\":3,\"device\":\"Tarvik SPI\",\"device_byte\":0,"
                 "\"text\":\"Tarvik TCP/IP telegram confirmation is invalid\"}\n"}}));

TEST(CliPing, ReportsMinMedianMax)
{
    SCliRun run = RunCli({"ping", "-n", "25"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    std::regex line(R"(Tarvik SPI at 127\.0\.0\.1:\d+ \(simulator\): 25 requests, round trip min [0-9.]+ us, )"
                    R"(median [0-9.]+ us, max [0-9.]+ us\n)");
    EXPECT_TRUE(std::regex_search(run.m_sOut, line)) << Describe(run);
}

TEST(CliTrace, PrintsOneDecodedLinePerTelegram)
{
    SCliRun run = RunCli({"spi", "globals", "--trace"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    // The answer is the simulator's power-up globals: rate 1000000 = 0x000F4240.
    std::regex sent(R"(\d\d:\d\d:\d\d\.\d{6} -> req 0x0308 GetGlobals id=2 len=0 crc=ok\n)");
    std::regex received(R"(\d\d:\d\d:\d\d\.\d{6} <- cnf 0x8308 GetGlobals id=2 len=8 crc=ok result=ok )"
                        R"(\| 00 40 42 0F 00 00 00 00\n)");
    EXPECT_TRUE(std::regex_search(run.m_sErr, sent)) << Describe(run);
    EXPECT_TRUE(std::regex_search(run.m_sErr, received)) << Describe(run);
    EXPECT_FALSE(Contains(run.m_sOut, "->")) << "trace belongs on stderr";
}

TEST(CliTrace, DecodesTheDeviceResult)
{
    SCliRun run = RunCli({"--trace", "spi", "seq", "09"});
    EXPECT_TRUE(Contains(run.m_sErr, "<- cnf 0x8314 Sequence id=2 len=1 crc=ok result=0x30 "
                                     "\"SPI sequence unknown command op code\" | 30\n"))
        << Describe(run);
}

// ---------------------------------------------------------------- commands that fail

struct SFailCase
{
    std::vector<std::string> m_asArgs;
    int m_nExit;
    std::string m_sMessage; // part of stderr
};

void PrintTo(const SFailCase& c, std::ostream* os)
{
    for (const std::string& arg : c.m_asArgs)
        *os << arg << " ";
}

class CCliFailTest : public ::testing::TestWithParam<SFailCase>
{
};

TEST_P(CCliFailTest, PrintsMessageAndExitsNonZero)
{
    SCliRun run = RunCli(GetParam().m_asArgs);
    EXPECT_EQ(GetParam().m_nExit, run.m_nExit) << Describe(run);
    EXPECT_TRUE(Contains(run.m_sErr, GetParam().m_sMessage)) << Describe(run);
    EXPECT_EQ("", run.m_sOut);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, CCliFailTest,
    ::testing::Values(
        SFailCase{{"spi", "seq", "01", "09"}, 1, "tarvik: sequence: SPI sequence unknown command op code (0x000330)\n"},
        // POLL RDSR for WIP set, at most 10 ms: the idle EEPROM never sets it.
        SFailCase{{"spi", "seq", "07 05 01 01 0A00"}, 1, "tarvik: sequence: SPI sequence timeout (0x000331)\n"},
        SFailCase{{"spi", "xfer", "0G"}, 2, "tarvik: transfer: not a hex digit: \"0G\"\n"},
        SFailCase{{"spi", "xfer", "123"}, 2, "odd number of hex digits"},
        SFailCase{{"digital", "--set", "1FFFFFFFF"}, 2, "--set: larger than 4294967295"},
        SFailCase{{"errcode", "banana"}, 2, "CODE: not a number: \"banana\""},
        SFailCase{{"info", "--device", "toaster"}, 2, "unknown device \"toaster\""},
        SFailCase{{"--host", "127.0.0.70", "--timeout", "300", "status"},
                  1,
                  "tarvik: connect to Tarvik SPI at 127.0.0.70:5002: Not connected to TCP/IP partner (0x030000)\n"}));

TEST(CliUsage, NoCommandIsAnError)
{
    SCliRun run = RunCli({});
    EXPECT_NE(0, run.m_nExit);
    EXPECT_TRUE(Contains(run.m_sErr + run.m_sOut, "subcommand")) << Describe(run);
}

// ---------------------------------------------------------------- a simulator process

// "tarvik sim" in the background, by process id.
class CSimProcess
{
public:
    explicit CSimProcess(const std::string& host) : m_sHost(host)
    {
        m_sOut = TempPath();
        m_sErr = TempPath();
        m_nPid = Spawn({"sim", "--host", host, "--devices", "spi"}, m_sOut, m_sErr);
    }

    ~CSimProcess()
    {
        Signal(SIGKILL);
        std::remove(m_sOut.c_str());
        std::remove(m_sErr.c_str());
    }

    // True once port 5002 accepts connections.
    bool WaitForPort() const
    {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(5002);
        ::inet_pton(AF_INET, m_sHost.c_str(), &addr.sin_addr);
        for (int attempt = 0; attempt < 500 && m_nPid > 0; ++attempt)
        {
            int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
            ::close(fd);
            if (up)
                return true;
            if (::waitpid(m_nPid, nullptr, WNOHANG) != 0)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    // SIGKILL also reaps the process; any other signal leaves it running or stopped.
    void Signal(int signal)
    {
        if (m_nPid <= 0)
            return;
        ::kill(m_nPid, signal);
        if (signal == SIGKILL)
        {
            ::waitpid(m_nPid, nullptr, 0);
            m_nPid = -1;
        }
    }

private:
    std::string m_sHost;
    std::string m_sOut;
    std::string m_sErr;
    pid_t m_nPid = -1;
};

TEST(CliSimProcess, KilledSimulatorGivesNotConnectedQuickly)
{
    CSimProcess sim("127.0.0.71");
    ASSERT_TRUE(sim.WaitForPort());
    SCliRun before = RunCli({"--host", "127.0.0.71", "status"});
    ASSERT_EQ(0, before.m_nExit) << Describe(before);
    sim.Signal(SIGKILL);
    SCliRun run = RunCli({"--host", "127.0.0.71", "--timeout", "500", "status"});
    EXPECT_EQ(1, run.m_nExit) << Describe(run);
    EXPECT_TRUE(Contains(run.m_sErr, "Not connected to TCP/IP partner (0x030000)")) << Describe(run);
    EXPECT_LT(run.m_dSeconds, kBoundSeconds);
}

TEST(CliSimProcess, StoppedSimulatorGivesTimeoutNotAHang)
{
    CSimProcess sim("127.0.0.72");
    ASSERT_TRUE(sim.WaitForPort());
    // The kernel still completes the connection; nobody answers the request.
    sim.Signal(SIGSTOP);
    SCliRun run = RunCli({"--host", "127.0.0.72", "--timeout", "300", "info"});
    sim.Signal(SIGKILL);
    EXPECT_EQ(1, run.m_nExit) << Describe(run);
    EXPECT_TRUE(Contains(run.m_sErr, "tarvik: info: TCP/IP timeout occured (0x040000)\n")) << Describe(run);
    EXPECT_LT(run.m_dSeconds, kBoundSeconds);
}

TEST(CliSimProcess, EepromKeepsItsContentAcrossCommands)
{
    CSimProcess sim("127.0.0.73");
    ASSERT_TRUE(sim.WaitForPort());
    SCliRun write = RunCli({"--host", "127.0.0.73", "spi", "xfer", "06", "02 0200 5A A5"});
    ASSERT_EQ(0, write.m_nExit) << Describe(write);
    SCliRun read = RunCli({"--host", "127.0.0.73", "spi", "xfer", "030200+2"});
    ASSERT_EQ(0, read.m_nExit) << Describe(read);
    EXPECT_EQ("FF FF FF 5A A5\n", read.m_sOut);
}
} // namespace
