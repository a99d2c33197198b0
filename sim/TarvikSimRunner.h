// The simulator in the foreground: the options and the run loop shared by the
// tarvik-sim program and the tarvik tool's "sim" command.
#ifndef TARVIK_SIM_TARVIKSIMRUNNER_H
#define TARVIK_SIM_TARVIKSIMRUNNER_H

#include "sim/TarvikSimFaults.h"

#include <CLI/CLI.hpp>

#include <cstdint>

#include <ostream>
#include <string>

struct STarvikSimOptions
{
    std::string m_sHost = "127.0.0.1"; // empty: all interfaces
    std::string m_sDevices;            // comma-separated short names, each with an optional
                                       // ":N" for N devices at indices index..index+N-1;
                                       // empty: every model once
    unsigned int m_nIndex = 0;         // port index: 4999 + type + 100 x index
    int m_nPort = -1;                  // >= 0: this port (one device only; 0 = any free port)
    unsigned long m_nAWireRate = 0;    // bytes per second the AWire target programs; 0: no delay
    std::string m_sCanNodes = "2,3";   // CANopen node ids on the CAN bus; empty: none
    unsigned long m_nCanStream = 0;    // frames per second streamed on the CAN bus; 0: none
    // Faults from the start; see TarvikSimFaults.h.
    ETarvikSimFault m_eFault = eTarvikSimFaultNone;
    unsigned int m_nDelayMs = 0;
    unsigned int m_nJitterMs = 0;
    unsigned int m_nDropPercent = 0;
    uint64_t m_nSeed = kTarvikSimDefaultSeed;
    unsigned int m_nIndications = 0;
    unsigned int m_nStrayCnfs = 0;
    unsigned int m_nCloseAfter = 0;
    unsigned int m_nDribbleMs = 0;
    unsigned int m_nMaxConnections = 0;
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
    // Adds -H/--host, -d/--devices, -i/--index, -p/--port, --can-nodes, --can-stream and the fault
    // options to app.
    static void AddOptions(CLI::App& app, STarvikSimOptions& options);
    // Listens as options say, prints one line per device on out and serves until
    // SIGINT or SIGTERM. Returns an EExit value; error receives the text of a failure.
    static int Run(const STarvikSimOptions& options, std::ostream& out, std::string& error);
};

#endif
