#include "sim/TarvikSimRunner.h"

#include "sim/TarvikSimDeviceAWire.h"
#include "sim/TarvikSimRegistry.h"
#include "sim/TarvikSimServer.h"

#include "tarvik/TarvikVersion.h"
#include "tarvik/dll/TarvikDLL.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <sstream>
#include <vector>

namespace
{
const std::map<std::string, ETarvikSimFault> kFaultNames = {
    {"none", eTarvikSimFaultNone},      {"silent", eTarvikSimFaultSilent},
    {"bad-crc", eTarvikSimFaultBadCRC}, {"wrong-cmd", eTarvikSimFaultWrongCmd},
    {"close", eTarvikSimFaultClose},    {"wrong-id", eTarvikSimFaultWrongId},
    {"twice", eTarvikSimFaultTwice},    {"garbage", eTarvikSimFaultGarbage},
    {"stall", eTarvikSimFaultStall},    {"close-mid-frame", eTarvikSimFaultCloseMidFrame},
};

void AddFaultOptions(CLI::App& app, STarvikSimOptions& options)
{
    const char* group = "Faults";
    app.add_option("--fault", options.m_eFault,
                   "Shape of every answer: none; silent (no answer); bad-crc (check byte inverted); "
                   "wrong-cmd (command number + 1); wrong-id (message id + 1); twice (answer sent twice); "
                   "garbage (32 drawn bytes instead); stall (length field 65535, then nothing more on that "
                   "connection); close (close instead of answering); close-mid-frame (half the answer, then "
                   "close)")
        ->transform(CLI::CheckedTransformer(kFaultNames, CLI::ignore_case).description(""))
        ->type_name("NAME")
        ->group(group);
    app.add_option("--delay", options.m_nDelayMs, "Send every answer this many ms late")->group(group);
    app.add_option("--jitter", options.m_nJitterMs, "Add a drawn 0..ms to each delay")->group(group);
    app.add_option("--drop", options.m_nDropPercent, "Carry out this share of requests (percent) without answering")
        ->check(CLI::Range(0u, 100u))
        ->group(group);
    app.add_option("--seed", options.m_nSeed,
                   "Seed of the draws behind --drop, --jitter and garbage; every "
                   "connection sees the same draws for one seed")
        ->capture_default_str()
        ->group(group);
    app.add_option("--indications", options.m_nIndications,
                   "Send this many indications (command number 0x60, bit 15 clear) before each answer")
        ->group(group);
    app.add_option("--strays", options.m_nStrayCnfs,
                   "Send this many confirmations of requests never made (ids 0x4000..0x7FFF) before each answer")
        ->group(group);
    app.add_option("--close-after", options.m_nCloseAfter,
                   "Close a connection on its request N+1, unanswered (0: never)")
        ->group(group);
    app.add_option("--dribble", options.m_nDribbleMs, "Send answers one byte at a time, this many ms apart")
        ->group(group);
    app.add_option("--max-connections", options.m_nMaxConnections,
                   "Serve at most N clients at once; more are accepted and closed at once, "
                   "as a gateway with no free slot does (0: no limit)")
        ->group(group);
}

void ApplyFaults(const STarvikSimOptions& options, CTarvikSimServer& server)
{
    server.SetFault(options.m_eFault);
    server.SetAnswerDelay(options.m_nDelayMs, options.m_nJitterMs);
    server.SetDropPercent(options.m_nDropPercent);
    server.SetSeed(options.m_nSeed);
    server.SetIndications(options.m_nIndications);
    server.SetStrayConfirmations(options.m_nStrayCnfs);
    server.SetCloseAfter(options.m_nCloseAfter);
    server.SetDribble(options.m_nDribbleMs);
    server.SetMaxConnections(options.m_nMaxConnections);
}

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

std::string CTarvikSimRunner::VersionText(const std::string& program)
{
    return program + " " TARVIK_VERSION_STRING " (" + gsDLLVersionString + ")";
}

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
    app.add_option("--awire-rate", options.m_nAWireRate,
                   "Bytes per second that the AWire target programs (0: at once)")
        ->capture_default_str();
    AddFaultOptions(app, options);
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
    ApplyFaults(options, server);
    if (auto* awire = dynamic_cast<CTarvikSimDeviceAWire*>(server.GetDevice(eTarvikAWire)))
        awire->SetRate(options.m_nAWireRate);
    if (!server.Start())
    {
        error = server.GetLastError();
        return eExitServer;
    }
    for (ETarvikDevice type : types)
        out << server.GetDevice(type)->GetName() << " listening on " << options.m_sHost << ":" << server.GetPort(type)
            << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();
    return eExitOk;
}
