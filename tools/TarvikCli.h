// Shared pieces of the tarvik command-line tool: the global options, how a command
// fails, and the registration function of each command group (one source file per group).
#ifndef TARVIK_TOOLS_TARVIKCLI_H
#define TARVIK_TOOLS_TARVIKCLI_H

#include <CLI/CLI.hpp>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Options that every command understands.
struct SCliGlobals
{
    std::string m_sHost;  // --host, else TARVIK_HOST; may carry ":port"; empty: --sim needed
    int m_nPortIndex = 0; // port = 4999 + device type + 100 x index
    int m_nPort = 0;      // --port: this TCP port instead of the one of the index
    unsigned int m_nTimeoutMs = 1000;
    bool m_bSim = false;   // --sim: the simulator inside the process, even if a host is given
    bool m_bTrace = false; // --trace: print every telegram
    bool m_bJson = false;  // --json: machine-readable output, errors included
};

// Exit codes: 0 success, 1 a request or connection failed, 2 unusable arguments
// (whether the option parser or the command found them).
enum ECliExit
{
    eCliExitFailure = 1,
    eCliExitUsage = 2,
};

// How a command ends when it fails: the message, the library's result code behind it
// (0: none), what the tool found out about the cause, and the exit code. main()
// prints it as text on stderr or, with --json, as one JSON object on stdout.
class CCliError : public std::runtime_error
{
public:
    CCliError(const std::string& message, int exitCode, int code = 0, const std::string& cause = "")
        : std::runtime_error(message), m_nExitCode(exitCode), m_nCode(code), m_sCause(cause)
    {
    }
    int GetExitCode() const { return m_nExitCode; }
    int GetCode() const { return m_nCode; }
    const std::string& GetCause() const { return m_sCause; }
    // A further fact for the JSON error object, such as "abort_code": "0x06020000".
    CCliError& With(const std::string& key, const std::string& value)
    {
        m_asFields.emplace_back(key, value);
        return *this;
    }
    const std::vector<std::pair<std::string, std::string>>& GetFields() const { return m_asFields; }

private:
    int m_nExitCode;
    int m_nCode;
    std::string m_sCause;
    std::vector<std::pair<std::string, std::string>> m_asFields;
};

// Ends the command with message (no result code behind it).
[[noreturn]] inline void CliFail(const std::string& message, int exitCode = eCliExitFailure)
{
    throw CCliError(message, exitCode);
}

void RegisterHexCommands(CLI::App& app, SCliGlobals& globals);
void RegisterDeviceCommands(CLI::App& app, SCliGlobals& globals);
void RegisterSpiCommands(CLI::App& app, SCliGlobals& globals);
void RegisterI2CCommands(CLI::App& app, SCliGlobals& globals);
void RegisterEepromCommands(CLI::App& app, SCliGlobals& globals);
void RegisterRenesasCommands(CLI::App& app, SCliGlobals& globals);
void RegisterFirmwareCommands(CLI::App& app, SCliGlobals& globals);
void RegisterErrcodeCommand(CLI::App& app, SCliGlobals& globals);
void RegisterSimCommand(CLI::App& app, SCliGlobals& globals);
void RegisterTestSystemCommands(CLI::App& app, SCliGlobals& globals);
void RegisterCanCommands(CLI::App& app, SCliGlobals& globals);
void RegisterCanOpenCommands(CLI::App& app, SCliGlobals& globals);
void RegisterAWireCommands(CLI::App& app, SCliGlobals& globals);

#endif
