// sim: the gateway simulator in the foreground until SIGINT or SIGTERM, with the
// options of the tarvik-sim program.
#include "CliFormat.h"
#include "TarvikCli.h"

#include "sim/TarvikSimRegistry.h"
#include "sim/TarvikSimServer.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <sstream>

namespace
{
struct SSimOptions
{
    std::string m_sHost = "127.0.0.1";
    std::string m_sDevices;
    unsigned int m_nIndex = 0;
    int m_nPort = -1;
};

std::string JoinNames()
{
    std::string text;
    for (const std::string& name : CTarvikSimRegistry::GetShortNames())
        text += (text.empty() ? "" : ",") + name;
    return text;
}

std::vector<ETarvikDevice> ParseDevices(const std::string& list)
{
    std::vector<ETarvikDevice> types;
    std::stringstream stream(list);
    std::string name;
    while (std::getline(stream, name, ','))
    {
        if (name.empty())
            continue;
        ETarvikDevice type;
        if (!CTarvikSimRegistry::FindByName(name, type))
            CliFail("sim: unknown device \"" + name + "\" (known: " + JoinNames() + ")", eCliExitUsage);
        if (std::find(types.begin(), types.end(), type) == types.end())
            types.push_back(type);
    }
    if (types.empty())
        CliFail("sim: no device given", eCliExitUsage);
    return types;
}

void RunSim(const SSimOptions& options)
{
    std::vector<ETarvikDevice> types = ParseDevices(options.m_sDevices);
    if (options.m_nPort >= 0 && types.size() != 1)
        CliFail("sim: --port needs exactly one device", eCliExitUsage);
    // Blocked before the server's threads start, so that they inherit the mask and
    // only sigwait() below takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    CTarvikSimServer server;
    for (ETarvikDevice type : types)
    {
        unsigned short port = options.m_nPort >= 0 ? static_cast<unsigned short>(options.m_nPort)
                                                   : CTarvikSimServer::GetStandardPort(type, options.m_nIndex);
        if (server.AddDevice(type, options.m_sHost, port, options.m_nIndex) != 0)
            CliFail("sim: " + server.GetLastError());
    }
    if (!server.Start())
        CliFail("sim: " + server.GetLastError());
    for (ETarvikDevice type : types)
        std::cout << TarvikDeviceName(type) << " listening on " << options.m_sHost << ":" << server.GetPort(type)
                  << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();
}
} // namespace

void RegisterSimCommand(CLI::App& app, SCliGlobals&)
{
    auto options = std::make_shared<SSimOptions>();
    options->m_sDevices = JoinNames();
    CLI::App* cmd = app.add_subcommand("sim", "Run the gateway simulator in the foreground until interrupted "
                                              "(device type t listens on port 4999 + t + 100 * index)");
    cmd->add_option("-H,--host", options->m_sHost, "Address to listen on; empty for all interfaces")
        ->capture_default_str();
    cmd->add_option("-d,--devices", options->m_sDevices, "Devices to emulate, comma-separated (" + JoinNames() + ")")
        ->capture_default_str();
    cmd->add_option("-i,--index", options->m_nIndex, "Port index")->capture_default_str()->check(CLI::Range(0u, 600u));
    cmd->add_option("-p,--port", options->m_nPort, "Port, only with one device; 0 takes any free port")
        ->check(CLI::Range(0, 65535));
    cmd->callback([options] { RunSim(*options); });
}
