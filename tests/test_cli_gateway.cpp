// The tarvik command-line tool as a user runs it: the built binary, its output and exit
// code, and how it ends when a tarvik-sim process it talks to is killed or frozen.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
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

extern char** environ;

namespace
{
const std::string kTarvik = TARVIK_BINARY_DIR "/tools/tarvik";
const std::string kSim = TARVIK_BINARY_DIR "/sim/tarvik-sim";

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A program with standard output and error in temporary files, by process id.
class CProcess
{
public:
    CProcess(const std::string& program, std::vector<std::string> args) : m_sOut(TempPath()), m_sErr(TempPath())
    {
        args.insert(args.begin(), program);
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_sOut.c_str(), O_WRONLY | O_TRUNC, 0);
        posix_spawn_file_actions_addopen(&actions, 2, m_sErr.c_str(), O_WRONLY | O_TRUNC, 0);
        if (posix_spawn(&m_nPid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            m_nPid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }

    ~CProcess()
    {
        Signal(SIGKILL);
        Wait(0);
        std::remove(m_sOut.c_str());
        std::remove(m_sErr.c_str());
    }

    // Exit code once the process ended within timeoutMs; -1 otherwise (it runs on).
    int Wait(int timeoutMs)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        int status = 0;
        while (m_nPid > 0)
        {
            if (::waitpid(m_nPid, &status, timeoutMs > 0 ? WNOHANG : 0) == m_nPid)
                m_nPid = 0;
            else if (std::chrono::steady_clock::now() > deadline)
                return -1;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return m_nPid == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void Signal(int signal)
    {
        if (m_nPid > 0)
            ::kill(m_nPid, signal);
    }
    std::string Out() const { return ReadFile(m_sOut); }
    std::string Err() const { return ReadFile(m_sErr); }

private:
    static std::string TempPath()
    {
        char path[] = "/tmp/tarvik-cli-test-XXXXXX";
        ::close(::mkstemp(path));
        return path;
    }

    std::string m_sOut;
    std::string m_sErr;
    pid_t m_nPid = -1;
};

struct SRun
{
    int m_nExit;
    std::string m_sOut;
    std::string m_sErr;
    double m_dSeconds;
};

// Runs tarvik to its end; a run that hangs for 20 s is killed and ends with exit -1.
SRun RunCli(const std::vector<std::string>& args)
{
    auto start = std::chrono::steady_clock::now();
    CProcess cli(kTarvik, args);
    int exit = cli.Wait(20000);
    return {exit, cli.Out(), cli.Err(),
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()};
}

std::string Describe(const SRun& run)
{
    return "exit " + std::to_string(run.m_nExit) + "\nstdout:\n" + run.m_sOut + "stderr:\n" + run.m_sErr;
}

struct SCase
{
    std::vector<std::string> m_asArgs;
    int m_nExit;
    std::string m_sOut; // all of stdout
    std::string m_sErr; // part of stderr
};

void PrintTo(const SCase& c, std::ostream* os)
{
    for (const std::string& arg : c.m_asArgs)
        *os << arg << " ";
}

class CliCommand : public ::testing::TestWithParam<SCase>
{
};

TEST_P(CliCommand, PrintsItsOutputAndExitCode)
{
    SRun run = RunCli(GetParam().m_asArgs);
    EXPECT_EQ(GetParam().m_nExit, run.m_nExit) << Describe(run);
    EXPECT_EQ(GetParam().m_sOut, run.m_sOut);
    EXPECT_NE(std::string::npos, run.m_sErr.find(GetParam().m_sErr)) << Describe(run);
}

// Without --host each command runs against a simulator inside the process.
INSTANTIATE_TEST_SUITE_P(
    EmbeddedSimulator, CliCommand,
    ::testing::Values(
        SCase{{"info"},
              0,
              "device: Tarvik SPI (type 3)\ninfo:   F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00\n",
              ""},
        // WREN, WRITE at 0x0100, READ back: one chip-select frame per argument.
        SCase{{"spi", "xfer", "06", "02 01 00 DE AD BE EF", "030100+4"},
              0,
              "FF\nFF FF FF FF FF FF FF\nFF FF FF DE AD BE EF\n",
              ""},
        SCase{{"errcode", "0x0330"},
              0,
              "code        0x000330 (816)\ntransport   0x00\ndevice type 0x03 Tarvik SPI\ndevice byte 0x30\n"
              "text        SPI sequence unknown command op code\n",
              ""},
        SCase{{"--json", "spi", "globals"}, 0, "{\"rate\":1000000,\"settings\":[0,0,0]}\n", ""},
        SCase{{"spi", "seq", "01", "09"}, 1, "", "tarvik: sequence: SPI sequence unknown command op code (0x000330)\n"},
        SCase{{"spi", "xfer", "0G"}, 2, "", "tarvik: transfer: not a hex digit: \"0G\"\n"}));

TEST(CliPing, ReportsMinMedianMax)
{
    SRun run = RunCli({"ping", "-n", "25"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_TRUE(
        std::regex_match(run.m_sOut, std::regex(R"(Tarvik SPI at 127\.0\.0\.1:\d+ \(simulator\): 25 requests, )"
                                                R"(round trip min [0-9.]+ us, median [0-9.]+ us, max [0-9.]+ us\n)")))
        << Describe(run);
}

TEST(CliTrace, PrintsOneDecodedLinePerTelegramOnStderr)
{
    SRun run = RunCli({"spi", "globals", "--trace"});
    ASSERT_EQ(0, run.m_nExit) << Describe(run);
    EXPECT_EQ("rate     1000000\nsettings 0 0 0\n", run.m_sOut);
    // The answer carries the simulator's power-up globals: rate 1000000 = 0x000F4240.
    EXPECT_TRUE(
        std::regex_match(run.m_sErr, std::regex(R"(\S+ -- connected\n)"
                                                R"(\d\d:\d\d:\d\d\.\d{6} -> req 0x0308 GetGlobals id=2 len=0 crc=ok\n)"
                                                R"(\S+ <- cnf 0x8308 GetGlobals id=2 len=8 crc=ok result=ok )"
                                                R"(\| 00 40 42 0F 00 00 00 00\n)"
                                                R"(\S+ -- disconnected\n)")))
        << Describe(run);
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
