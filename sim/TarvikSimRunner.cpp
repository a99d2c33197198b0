#include "sim/TarvikSimRunner.h"

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimDeviceAWire.h"
#include "sim/TarvikSimRegistry.h"
#include "sim/TarvikSimServer.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
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

struct SDeviceGroup
{
    ETarvikDevice m_eType;
    unsigned int m_nCount;
};
constexpr unsigned int kMaxDevicesOfAType = 100;
// The highest port index whose ports still fit in 16 bits.
constexpr unsigned int kMaxIndex = 600;

// One entry of a device list: "can" or "can:3".
bool ParseDeviceEntry(const std::string& entry, SDeviceGroup& group, std::string& error)
{
    size_t colon = entry.find(':');
    std::string name = entry.substr(0, colon);
    group.m_nCount = 1;
    if (colon != std::string::npos)
    {
        std::string count = entry.substr(colon + 1);
        char* end = nullptr;
        unsigned long value = std::strtoul(count.c_str(), &end, 10);
        if (count.empty() || *end != '\0' || value == 0 || value > kMaxDevicesOfAType)
        {
            error = "bad device count in \"" + entry + "\" (1.." + std::to_string(kMaxDevicesOfAType) + ")";
            return false;
        }
        group.m_nCount = static_cast<unsigned int>(value);
    }
    if (!CTarvikSimRegistry::FindByName(name, group.m_eType))
    {
        error = "unknown device \"" + name + "\" (known: " + CTarvikSimRunner::JoinNames() + ")";
        return false;
    }
    return true;
}

// Resolves a device list; an empty list means every model.
int ParseDevices(const std::string& list, std::vector<SDeviceGroup>& groups, std::string& error)
{
    std::stringstream stream(list.empty() ? CTarvikSimRunner::JoinNames() : list);
    std::string entry;
    while (std::getline(stream, entry, ','))
    {
        if (entry.empty())
            continue;
        SDeviceGroup group{};
        if (!ParseDeviceEntry(entry, group, error))
            return CTarvikSimRunner::eExitUsage;
        auto same = std::find_if(groups.begin(), groups.end(),
                                 [&group](const SDeviceGroup& s) { return s.m_eType == group.m_eType; });
        if (same == groups.end())
            groups.push_back(group);
        else
            same->m_nCount = std::max(same->m_nCount, group.m_nCount);
    }
    if (groups.empty())
    {
        error = "no device given";
        return CTarvikSimRunner::eExitUsage;
    }
    return CTarvikSimRunner::eExitOk;
}

// "2,3" -> node ids; an empty text gives none.
bool ParseNodeIds(const std::string& text, std::vector<unsigned char>& ids, std::string& error)
{
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ','))
    {
        char* end = nullptr;
        unsigned long id = std::strtoul(item.c_str(), &end, 0);
        if (item.empty() || *end != '\0' || id < 1 || id > 127)
        {
            error = "bad CANopen node id \"" + item + "\" (1..127)";
            return false;
        }
        ids.push_back(static_cast<unsigned char>(id));
    }
    return true;
}
// A whole number of frames per second within what the bus stream takes; CLI11's own number
// checks would call "fast" a float and 1.5 out of range.
std::string CheckFrameRate(std::string& text)
{
    const std::string range = "0.." + std::to_string(CTarvikSimCanBus::kMaxStreamRate);
    const bool digits =
        !text.empty() && text.size() <= range.size() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || std::stoul(text) > CTarvikSimCanBus::kMaxStreamRate)
        return "Value " + text + " is not a frame rate (whole frames per second, " + range + ")";
    return std::string();
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
    app.add_option("-d,--devices", options.m_sDevices,
                   "Devices to emulate, comma-separated (" + JoinNames() +
                       "); NAME:N emulates N of a kind at port indices index..index+N-1")
        ->capture_default_str();
    app.add_option("-i,--index", options.m_nIndex, "Port index")
        ->capture_default_str()
        ->check(CLI::Range(0u, kMaxIndex));
    app.add_option("-p,--port", options.m_nPort, "Port, only with one device; 0 takes any free port")
        ->check(CLI::Range(0, 65535));
    app.add_option("--awire-rate", options.m_nAWireRate, "Bytes per second that the AWire target programs (0: at once)")
        ->capture_default_str();
    app.add_option("--can-nodes", options.m_sCanNodes,
                   "CANopen node ids on the CAN gateways' bus, comma-separated; empty for none")
        ->capture_default_str();
    app.add_option("--can-stream", options.m_nCanStream,
                   "Frames per second put on the CAN gateways' bus from outside (identifier 0x55, 8 bytes, the "
                   "first four a running number), which every CAN client receives; 0 for none")
        ->type_name("RATE")
        ->check(CLI::Validator(CheckFrameRate, "", "frame rate"))
        ->capture_default_str();
    AddFaultOptions(app, options);
}

int CTarvikSimRunner::Run(const STarvikSimOptions& options, std::ostream& out, std::string& error)
{
    std::vector<SDeviceGroup> groups;
    int result = ParseDevices(options.m_sDevices, groups, error);
    if (result != eExitOk)
        return result;
    std::vector<unsigned char> nodeIds;
    if (!ParseNodeIds(options.m_sCanNodes, nodeIds, error))
        return eExitUsage;
    for (const SDeviceGroup& group : groups)
        if (options.m_nIndex + group.m_nCount - 1 > kMaxIndex)
        {
            error = "port indices past " + std::to_string(kMaxIndex);
            return eExitUsage;
        }
    if (options.m_nCanStream > 0 && std::none_of(groups.begin(), groups.end(),
                                                 [](const SDeviceGroup& group) { return group.m_eType == eTarvikCAN; }))
    {
        error = "--can-stream needs a CAN device";
        return eExitUsage;
    }
    if (options.m_nPort >= 0 && (groups.size() != 1 || groups[0].m_nCount != 1))
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
    server.SetCanNodeIds(nodeIds);
    for (const SDeviceGroup& group : groups)
        for (unsigned int i = 0; i < group.m_nCount; ++i)
        {
            unsigned int index = options.m_nIndex + i;
            unsigned short port = options.m_nPort >= 0 ? static_cast<unsigned short>(options.m_nPort)
                                                       : CTarvikSimServer::GetStandardPort(group.m_eType, index);
            if (server.AddDevice(group.m_eType, options.m_sHost, port, index) != 0)
            {
                error = server.GetLastError();
                return eExitServer;
            }
        }
    if (options.m_nCanStream > 0)
        server.GetCanBus()->SetStream(options.m_nCanStream);
    ApplyFaults(options, server);
    for (CTarvikSimDevice* device : server.GetDevices())
        if (auto* awire = dynamic_cast<CTarvikSimDeviceAWire*>(device))
            awire->SetRate(options.m_nAWireRate);
    if (!server.Start())
    {
        error = server.GetLastError();
        return eExitServer;
    }
    for (CTarvikSimDevice* device : server.GetDevices())
        out << device->GetName() << " listening on " << options.m_sHost << ":"
            << server.GetPort(device->GetType(), device->GetIndex()) << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();
    return eExitOk;
}
