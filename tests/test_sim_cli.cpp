// The tarvik-sim program: options, the line per listening device, and a clean end on
// SIGTERM and SIGINT. The program runs as a child process, stopped by its process id.
#include "support/FakeGateway.h"

#include "sim/TarvikSimRawClient.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace tarvik_test;

namespace
{
const std::string kProgram = std::string(TARVIK_BINARY_DIR) + "/sim/tarvik-sim";

// One run of tarvik-sim with its standard output and error in pipes.
class CSimProcess
{
public:
    ~CSimProcess()
    {
        if (m_nPid > 0)
        {
            ::kill(m_nPid, SIGKILL);
            Wait();
        }
        for (int fd : {m_nOut, m_nErr})
            if (fd >= 0)
                ::close(fd);
    }

    bool Start(const std::vector<std::string>& args)
    {
        int out[2];
        int err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(kProgram.c_str()));
        for (const std::string& arg : args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        int rc = ::posix_spawn(&m_nPid, kProgram.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        ::close(err[1]);
        m_nOut = out[0];
        m_nErr = err[0];
        if (rc != 0)
            m_nPid = -1;
        return rc == 0;
    }

    // The next line of standard output, without its newline; empty after timeoutMs.
    std::string ReadLine(unsigned int timeoutMs = 10000)
    {
        for (;;)
        {
            size_t end = m_sOut.find('\n');
            if (end != std::string::npos)
            {
                std::string line = m_sOut.substr(0, end);
                m_sOut.erase(0, end + 1);
                return line;
            }
            pollfd pfd{m_nOut, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(timeoutMs)) <= 0)
                return std::string();
            char buffer[512];
            ssize_t n = ::read(m_nOut, buffer, sizeof(buffer));
            if (n <= 0)
                return std::string();
            m_sOut.append(buffer, static_cast<size_t>(n));
        }
    }

    // Everything up to the end of the stream.
    std::string ReadAll(bool errors)
    {
        std::string text = errors ? std::string() : m_sOut;
        char buffer[512];
        ssize_t n;
        while ((n = ::read(errors ? m_nErr : m_nOut, buffer, sizeof(buffer))) > 0)
            text.append(buffer, static_cast<size_t>(n));
        return text;
    }

    void Signal(int signal) { ::kill(m_nPid, signal); }

    // Exit status of the ended process, or -1.
    int Wait()
    {
        int status = 0;
        pid_t pid;
        do
            pid = ::waitpid(m_nPid, &status, 0);
        while (pid < 0 && errno == EINTR);
        m_nPid = -1;
        return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_nPid = -1;
    int m_nOut = -1;
    int m_nErr = -1;
    std::string m_sOut;
};

// Port at the end of "Tarvik SPI listening on 127.0.0.1:40123".
unsigned short PortOf(const std::string& line)
{
    size_t colon = line.rfind(':');
    return colon == std::string::npos ? 0 : static_cast<unsigned short>(std::stoi(line.substr(colon + 1)));
}

class SimCli : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (::access(kProgram.c_str(), X_OK) != 0)
            GTEST_SKIP() << kProgram << " is not built";
    }
};
} // namespace

TEST_F(SimCli, ServesUntilSignalledAndEndsCleanly)
{
    for (int signal : {SIGTERM, SIGINT})
    {
        CSimProcess sim;
        ASSERT_TRUE(sim.Start({"--devices", "spi", "--port", "0"}));
        std::string line = sim.ReadLine();
        ASSERT_EQ(0u, line.find("Tarvik SPI listening on 127.0.0.1:")) << line;

        CTarvikSimRawClient client;
        ASSERT_TRUE(client.Connect("127.0.0.1", PortOf(line)));
        EXPECT_EQ(ToHex(Hex("1A 00 09 83 02 00 00 F8 7A 40 01 01 02 02 12 07 01 E7 07 06 0E 00 00 00 00 03 00 B5")),
                  ToHex(client.Transact(Hex("05 00 09 03 02 00 08"))));

        // Ends with a client still connected.
        sim.Signal(signal);
        EXPECT_EQ(0, sim.Wait()) << "signal " << signal;
        EXPECT_EQ("", client.ReceiveFrame(5000));
        EXPECT_TRUE(client.IsPeerClosed());
    }
}

TEST_F(SimCli, HostAndIndexChooseWhereItListens)
{
    // Index 7 on a loopback address of its own: SPI at 4999 + 3 + 700 = 5702.
    CSimProcess sim;
    ASSERT_TRUE(sim.Start({"--host", "127.0.0.97", "--index", "7"}));
    std::string line = sim.ReadLine();
    if (line.empty())
        GTEST_SKIP() << "port 5702 on 127.0.0.97 is taken: " << sim.ReadAll(true);
    EXPECT_EQ("Tarvik SPI listening on 127.0.0.97:5702", line);

    CTarvikSimRawClient client;
    ASSERT_TRUE(client.Connect("127.0.0.97", 5702));
    std::string info = client.Transact(Hex("05 00 09 03 02 00 08"));
    ASSERT_EQ(28u, info.size());
    EXPECT_EQ(3, info[6 + 1 + 18]);
    EXPECT_EQ(7, info[6 + 1 + 19]);
    sim.Signal(SIGTERM);
    EXPECT_EQ(0, sim.Wait());
}

TEST_F(SimCli, BadOptionsAreRefused)
{
    struct SCase
    {
        std::vector<std::string> m_asArgs;
        const char* m_pError;
    };
    const SCase cases[] = {
        {{"--devices", "spi,warp"}, "unknown device \"warp\""},
        {{"--devices", ","}, "no device given"},
        {{"--port", "70000"}, ""},
        {{"--frobnicate"}, ""},
    };
    for (const SCase& c : cases)
    {
        CSimProcess sim;
        ASSERT_TRUE(sim.Start(c.m_asArgs));
        int status = sim.Wait();
        EXPECT_NE(0, status) << c.m_asArgs[0];
        EXPECT_NE(std::string::npos, sim.ReadAll(true).find(c.m_pError)) << c.m_asArgs[0];
    }
}

TEST_F(SimCli, HelpNamesTheOptions)
{
    CSimProcess sim;
    ASSERT_TRUE(sim.Start({"--help"}));
    std::string help = sim.ReadAll(false);
    EXPECT_EQ(0, sim.Wait());
    for (const char* option : {"--host", "--devices", "--index", "--port"})
        EXPECT_NE(std::string::npos, help.find(option)) << option;
}
