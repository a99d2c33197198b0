// tarvik-sim: emulates Tarvik gateway devices on TCP until SIGINT or SIGTERM.
#include "sim/TarvikSimRegistry.h"
#include "sim/TarvikSimServer.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>

namespace
{
std::vector<std::string> SplitList(const std::string& text)
{
    std::vector<std::string> items;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ','))
        if (!item.empty())
            items.push_back(item);
    return items;
}

std::string JoinNames()
{
    std::string text;
    for (const std::string& name : CTarvikSimRegistry::GetShortNames())
        text += (text.empty() ? "" : ",") + name;
    return text;
}

// Resolves --devices; prints the offending name and returns false on an unknown one.
bool ParseDevices(const std::string& list, std::vector<ETarvikDevice>& types)
{
    for (const std::string& name : SplitList(list))
    {
        ETarvikDevice type;
        if (!CTarvikSimRegistry::FindByName(name, type))
        {
            std::fprintf(stderr, "tarvik-sim: unknown device \"%s\" (known: %s)\n", name.c_str(), JoinNames().c_str());
            return false;
        }
        if (std::find(types.begin(), types.end(), type) == types.end())
            types.push_back(type);
    }
    if (types.empty())
        std::fprintf(stderr, "tarvik-sim: no device given\n");
    return !types.empty();
}

int Run(int argc, char** argv)
{
    CLI::App app{"Tarvik gateway simulator: answers as gateway devices on TCP until SIGINT or SIGTERM.\n"
                 "Device type t listens on port 4999 + t + 100 * index."};
    std::string host = "127.0.0.1";
    std::string devices = JoinNames();
    unsigned int index = 0;
    int port = -1;
    app.add_option("-H,--host", host, "Address to listen on; empty for all interfaces")->capture_default_str();
    app.add_option("-d,--devices", devices, "Devices to emulate, comma-separated (" + JoinNames() + ")")
        ->capture_default_str();
    app.add_option("-i,--index", index, "Port index")->capture_default_str()->check(CLI::Range(0u, 600u));
    app.add_option("-p,--port", port, "Port, only with one device; 0 takes any free port")->check(CLI::Range(0, 65535));
    CLI11_PARSE(app, argc, argv);

    std::vector<ETarvikDevice> types;
    if (!ParseDevices(devices, types))
        return 2;
    if (port >= 0 && types.size() != 1)
    {
        std::fprintf(stderr, "tarvik-sim: --port needs exactly one device\n");
        return 2;
    }

    // Blocked before any thread starts, so that every thread inherits the mask and
    // the signals are taken by sigwait() below only.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    CTarvikSimServer server;
    for (ETarvikDevice type : types)
    {
        unsigned short devicePort =
            port >= 0 ? static_cast<unsigned short>(port) : CTarvikSimServer::GetStandardPort(type, index);
        if (server.AddDevice(type, host, devicePort, index) != 0)
        {
            std::fprintf(stderr, "tarvik-sim: %s\n", server.GetLastError().c_str());
            return 1;
        }
    }
    if (!server.Start())
    {
        std::fprintf(stderr, "tarvik-sim: %s\n", server.GetLastError().c_str());
        return 1;
    }
    for (ETarvikDevice type : types)
        std::printf("%s listening on %s:%u\n", TarvikDeviceName(type).c_str(), host.c_str(),
                    static_cast<unsigned int>(server.GetPort(type)));
    std::fflush(stdout);

    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "tarvik-sim: %s\n", e.what());
        return 1;
    }
}
