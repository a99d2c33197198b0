#include "sim/TarvikSimRunner.h"

#include "sim/TarvikSimRegistry.h"
#include "sim/TarvikSimServer.h"

#include <algorithm>
#include <csignal>
#include <sstream>
#include <vector>

namespace
{
// Resolves a device list; an empty list means every model.
int ParseDevices(const std::string& list, std::vector<ETarvikDevice>& types, std::string& error)
{
    std::stringstream stream(list.empty() ? CTarvikSimRunner::JoinNames() : list);
    std::string name;
    while (std::getline(stream, name, ','))
    {
        if (name.empty())
            continue;
        ETarvikDevice type;
        if (!CTarvikSimRegistry::FindByName(name, type))
        {
            error = "unknown device \"" + name + "\" (known: " + CTarvikSimRunner::JoinNames() + ")";
            return CTarvikSimRunner::eExitUsage;
        }
        if (std::find(types.begin(), types.end(), type) == types.end())
            types.push_back(type);
    }
    if (types.empty())
    {
        error = "no device given";
        return CTarvikSimRunner::eExitUsage;
    }
    return CTarvikSimRunner::eExitOk;
}
} // namespace

std::string CTarvikSimRunner::JoinNames()
{
    std::string text;
    for (const std::string& name : CTarvikSimRegistry::GetShortNames())
        text += (text.empty() ? "" : ",") + name;
    return text;
}

void CTarvikSimRunner::AddOptions(CLI::App& app, STarvikSimOptions& options)
{
    if (options.m_sDevices.empty())
        options.m_sDevices = JoinNames();
    app.add_option("-H,--host", options.m_sHost, "Address to listen on; empty for all interfaces")
        ->capture_default_str();
    app.add_option("-d,--devices", options.m_sDevices, "Devices to emulate, comma-separated (" + JoinNames() + ")")
        ->capture_default_str();
    app.add_option("-i,--index", options.m_nIndex, "Port index")->capture_default_str()->check(CLI::Range(0u, 600u));
    app.add_option("-p,--port", options.m_nPort, "Port, only with one device; 0 takes any free port")
        ->check(CLI::Range(0, 65535));
}

int CTarvikSimRunner::Run(const STarvikSimOptions& options, std::ostream& out, std::string& error)
{
    std::vector<ETarvikDevice> types;
    int result = ParseDevices(options.m_sDevices, types, error);
    if (result != eExitOk)
        return result;
    if (options.m_nPort >= 0 && types.size() != 1)
    {
        error = "--port needs exactly one device";
        return eExitUsage;
    }
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
        {
            error = server.GetLastError();
            return eExitServer;
        }
    }
    if (!server.Start())
    {
        error = server.GetLastError();
        return eExitServer;
    }
    for (ETarvikDevice type : types)
        out << TarvikDeviceName(type) << " listening on " << options.m_sHost << ":" << server.GetPort(type)
            << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();
    return eExitOk;
}
