#include "CliProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace tarvik_test
{
const char* const kCliTarvik = TARVIK_BINARY_DIR "/tools/tarvik";
const char* const kCliSim = TARVIK_BINARY_DIR "/sim/tarvik-sim";
const std::string kCliSimNote = "tarvik: the answers come from the built-in simulator (--sim), not from a gateway\n";

namespace
{
std::string TempPath()
{
    char path[] = "/tmp/tarvik-cli-test-XXXXXX";
    ::close(::mkstemp(path));
    return path;
}
} // namespace

std::string CliReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

CCliProcess::CCliProcess(const std::string& program, std::vector<std::string> args)
    : m_sOut(TempPath()), m_sErr(TempPath())
{
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, m_sOut.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, 2, m_sErr.c_str(), O_WRONLY | O_TRUNC, 0);
    if (posix_spawn(&m_nPid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        m_nPid = -1;
    posix_spawn_file_actions_destroy(&actions);
}

CCliProcess::~CCliProcess()
{
    Signal(SIGKILL);
    Wait(0);
    std::remove(m_sOut.c_str());
    std::remove(m_sErr.c_str());
}

int CCliProcess::Wait(int timeoutMs)
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

void CCliProcess::Signal(int signal)
{
    if (m_nPid > 0)
        ::kill(m_nPid, signal);
}

SCliRun CliRunProgram(const std::string& program, const std::vector<std::string>& args)
{
    auto start = std::chrono::steady_clock::now();
    CCliProcess process(program, args);
    int exit = process.Wait(20000);
    return {exit, process.Out(), process.Err(),
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()};
}

std::string CliDescribe(const SCliRun& run)
{
    return "exit " + std::to_string(run.m_nExit) + "\nstdout:\n" + run.m_sOut + "stderr:\n" + run.m_sErr;
}

bool CliStartsWithLines(const std::string& text, const std::string& expected)
{
    std::istringstream want(expected);
    std::istringstream got(text);
    std::string line;
    std::string actual;
    while (std::getline(want, line))
    {
        if (!std::getline(got, actual))
            return false;
        bool prefix = line.size() >= 3 && line.compare(line.size() - 3, 3, "...") == 0;
        if (prefix ? actual.compare(0, line.size() - 3, line, 0, line.size() - 3) != 0 : actual != line)
            return false;
    }
    return !expected.empty() || text.empty();
}

CCliSimProcess::CCliSimProcess(const std::string& device, std::vector<std::string> args)
{
    args.insert(args.end(), {"--host", "127.0.0.1", "--devices", device, "--port", "0"});
    m_pProcess.reset(new CCliProcess(kCliSim, args));
    for (int i = 0; i < 1000 && m_pProcess->Out().find('\n') == std::string::npos && m_pProcess->Wait(10) == -1; ++i)
    {
    }
    std::smatch match;
    std::string out = m_pProcess->Out();
    if (std::regex_match(out, match, std::regex(".* listening on (127\\.0\\.0\\.1:\\d+)\n")))
        m_sAddress = match[1];
}
void CliExpectRun(const SCliRun& run, int exit, const std::string& out, const std::string& err, const std::string& name)
{
    EXPECT_EQ(exit, run.m_nExit) << name << "\n" << CliDescribe(run);
    EXPECT_TRUE(CliStartsWithLines(run.m_sOut, out)) << name << "\nexpected stdout:\n"
                                                     << out << "\n"
                                                     << CliDescribe(run);
    EXPECT_TRUE(CliStartsWithLines(run.m_sErr, err)) << name << "\nexpected stderr:\n"
                                                     << err << "\n"
                                                     << CliDescribe(run);
}

void CliReplace(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}
} // namespace tarvik_test
