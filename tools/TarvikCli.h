// Shared pieces of the tarvik command-line tool: the global options and the
// registration function of each command group (one source file per group).
#ifndef TARVIK_TOOLS_TARVIKCLI_H
#define TARVIK_TOOLS_TARVIKCLI_H

#include <CLI/CLI.hpp>

#include <string>

// Options that every command understands.
struct SCliGlobals
{
    std::string m_sHost;  // empty: run against the embedded simulator
    int m_nPortIndex = 0; // port = 4999 + device type + 100 x index
    unsigned int m_nTimeoutMs = 1000;
    bool m_bSim = false;   // --sim: embedded simulator even if a host is given
    bool m_bTrace = false; // --trace: print every telegram
    bool m_bJson = false;  // --json: machine-readable output
};

// Exit codes: 0 success, 1 a request or connection failed, 2 unusable arguments.
// (Errors found by the option parser itself keep CLI11's own codes.)
enum ECliExit
{
    eCliExitFailure = 1,
    eCliExitUsage = 2,
};

// A command that failed prints its message on stderr and ends with this.
[[noreturn]] inline void CliFail(const std::string& message, int exitCode = eCliExitFailure)
{
    throw CLI::RuntimeError(message, exitCode);
}

void RegisterHexCommands(CLI::App& app, SCliGlobals& globals);
void RegisterDeviceCommands(CLI::App& app, SCliGlobals& globals);
void RegisterSpiCommands(CLI::App& app, SCliGlobals& globals);
void RegisterErrcodeCommand(CLI::App& app, SCliGlobals& globals);
void RegisterSimCommand(CLI::App& app, SCliGlobals& globals);
void RegisterTestSystemCommands(CLI::App& app, SCliGlobals& globals);

#endif
