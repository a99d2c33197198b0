// The gateway connection of one command. A command makes a client of the device type
// it needs and hands it to Open(), which connects it to the gateway at --host or
// TARVIK_HOST (a port there or --port, else the one of --port-index), or, with --sim, to
// a simulator that this process starts on a free loopback port. With neither the command
// ends (exit 2): a user who forgot --host must not get a simulator's answers as if they
// came from the gateway. With --trace every
// telegram is printed on stderr. A failure ends the command with the library's code
// and text and, where the tool can tell, the cause: a host that does not resolve, a
// refused connection, a gateway that does not answer.
#ifndef TARVIK_TOOLS_CLISESSION_H
#define TARVIK_TOOLS_CLISESSION_H

#include "TarvikCli.h"

#include "tarvik/core/TarvikClient.h"

#include <memory>
#include <string>

class CTarvikSimServer;

class CCliSession
{
public:
    explicit CCliSession(const SCliGlobals& globals);
    // Stops the embedded simulator; declare the session before its client.
    ~CCliSession();
    CCliSession(const CCliSession&) = delete;
    CCliSession& operator=(const CCliSession&) = delete;

    // Connects and opens client; a failure ends the command.
    void Open(CTarvikClient& client);
    // Ends the command when result (of a request on the opened client) is not 0.
    void Check(int result, const std::string& what) const;
    // "Tarvik SPI at 127.0.0.1:5002", for messages.
    const std::string& Describe() const { return m_sDescription; }
    bool IsSimulated() const { return m_pSim != nullptr; }

    // Device type from a short name ("spi", "dio", ...) or a number; fails the command
    // for anything else.
    static ETarvikDevice ParseDeviceType(const std::string& name);
    // Short names for help texts: "firmware, i2c, can, spi, ...".
    static std::string DeviceTypeNames();

private:
    // Starts the simulator with a device of type; returns its port.
    unsigned short StartSimulator(ETarvikDevice type);
    // The gateway's host (from --host or TARVIK_HOST) and port (--host, --port or --port-index).
    unsigned short GatewayPort(ETarvikDevice type, std::string& host) const;
    // What the tool can find out about a failed connect; empty if nothing.
    std::string ConnectCause(int result, const std::string& host, unsigned short port) const;

    const SCliGlobals& m_oGlobals;
    std::unique_ptr<CTarvikSimServer> m_pSim;
    std::string m_sDescription;
    std::string m_sAddress; // "127.0.0.1:5002", "[::1]:5002"
};

// Prints every telegram of client on stderr, one decoded line each.
void CliInstallTracePrinter(CTarvikClient& client);

#endif
