// The simulator in the foreground: the options and the run loop shared by the
// tarvik-sim program and the tarvik tool's "sim" command.
#ifndef TARVIK_SIM_TARVIKSIMRUNNER_H
#define TARVIK_SIM_TARVIKSIMRUNNER_H

#include <CLI/CLI.hpp>

#include <ostream>
#include <string>

struct STarvikSimOptions
{
    std::string m_sHost = "127.0.0.1"; // empty: all interfaces
    std::string m_sDevices;            // comma-separated short names; empty: every model
    unsigned int m_nIndex = 0;         // port index: 4999 + type + 100 x index
    int m_nPort = -1;                  // >= 0: this port (one device only; 0 = any free port)
};

class CTarvikSimRunner
{
public:
    enum EExit
    {
        eExitOk = 0,
        eExitServer = 1, // a device could not listen
        eExitUsage = 2,  // unknown device, --port with several devices
    };

    // The short names of every model, comma-separated.
    static std::string JoinNames();
    // Adds -H/--host, -d/--devices, -i/--index and -p/--port to app.
    static void AddOptions(CLI::App& app, STarvikSimOptions& options);
    // Listens as options say, prints one line per device on out and serves until
    // SIGINT or SIGTERM. Returns an EExit value; error receives the text of a failure.
    static int Run(const STarvikSimOptions& options, std::ostream& out, std::string& error);
};

#endif
