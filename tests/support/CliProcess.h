// The command-line programs as a user runs them: a process with its standard output and
// error in temporary files, waited for or signalled by its process id; a run of tarvik
// to its end; and a tarvik-sim process serving one device on a free loopback port.
#ifndef TARVIK_TESTS_SUPPORT_CLIPROCESS_H
#define TARVIK_TESTS_SUPPORT_CLIPROCESS_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace tarvik_test
{
extern const char* const kCliTarvik;
extern const char* const kCliSim;
// The line on stderr of a tarvik run with --sim.
extern const std::string kCliSimNote;

std::string CliReadFile(const std::string& path);

class CCliProcess
{
public:
    CCliProcess(const std::string& program, std::vector<std::string> args);
    // Kills the process if it still runs and removes the output files.
    ~CCliProcess();
    CCliProcess(const CCliProcess&) = delete;
    CCliProcess& operator=(const CCliProcess&) = delete;

    // Exit code once the process ended within timeoutMs (0: wait without limit); -1
    // otherwise (it runs on) or when it did not exit by itself.
    int Wait(int timeoutMs);
    void Signal(int signal);
    std::string Out() const { return CliReadFile(m_sOut); }
    std::string Err() const { return CliReadFile(m_sErr); }

private:
    std::string m_sOut;
    std::string m_sErr;
    pid_t m_nPid = -1;
};

struct SCliRun
{
    int m_nExit;
    std::string m_sOut;
    std::string m_sErr;
    double m_dSeconds;
};

// Runs a program to its end; a run that hangs for 20 s is killed and ends with exit -1.
SCliRun CliRunProgram(const std::string& program, const std::vector<std::string>& args);
std::string CliDescribe(const SCliRun& run);

// Whether text begins with the lines of expected; an expected line that ends in "..."
// only has to begin the line. Nothing expected: text must be empty.
bool CliStartsWithLines(const std::string& text, const std::string& expected);
// Checks a run's exit code and the first lines of its stdout and stderr; name says which run.
void CliExpectRun(const SCliRun& run, int exit, const std::string& out, const std::string& err,
                  const std::string& name);
// Replaces every from in text with to.
void CliReplace(std::string& text, const std::string& from, const std::string& to);

// tarvik-sim serving one device (its short name) on a free port of 127.0.0.1.
class CCliSimProcess
{
public:
    CCliSimProcess(const std::string& device, std::vector<std::string> args = {});
    // "127.0.0.1:40123"; empty if the simulator did not come up.
    const std::string& Address() const { return m_sAddress; }

private:
    std::unique_ptr<CCliProcess> m_pProcess;
    std::string m_sAddress;
};
} // namespace tarvik_test

#endif
