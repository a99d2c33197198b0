// Commands that every gateway understands: info, status, restart, digital, analog, ping.
#include "CliFormat.h"
#include "CliInterrupt.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

namespace
{
// As many values as one confirmation can carry: the count travels in 16 bits.
constexpr unsigned short kAnalogCapacity = 0xFFFF;

// Fields of the information record as the gateways fill it (the simulator does the
// same): offsets into the 20 bytes.
enum EInfoField
{
    eInfoSerial = 0,   // u32 LE
    eInfoHardware = 4, // major, minor
    eInfoFirmware = 6, // major, minor
    eInfoBuild = 8,    // u16 LE
    eInfoYear = 10,    // u16 LE
    eInfoMonth = 12,
    eInfoDay = 13,
    eInfoPortIndex = 19, // byte 18 is the device type
};

struct SDeviceOptions
{
    std::string m_sDevice = "spi";
    std::string m_sSetDigital;
    std::vector<std::string> m_asSetAnalog;
    unsigned int m_nCount = 10;
    bool m_bRaw = false;
};

CLI::App* AddDeviceCommand(CLI::App& app, const char* name, const char* help, SDeviceOptions& options)
{
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_option("-d,--device", options.m_sDevice, "Device type: " + CCliSession::DeviceTypeNames())
        ->capture_default_str();
    return cmd;
}

// A client of the device type asked for, connected; the session outlives it.
std::unique_ptr<CTarvikClient> OpenClient(CCliSession& session, const SCliGlobals& globals,
                                          const SDeviceOptions& options)
{
    auto client =
        std::make_unique<CTarvikClient>(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(*client);
    return client;
}

std::string Version(const unsigned char* bytes)
{
    return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]);
}

unsigned int InfoU16(const STarvikDeviceInfo& info, int pos)
{
    unsigned short value = 0;
    CTarvikMsg::FromChar(value, reinterpret_cast<const char*>(info.m_abData + pos));
    return value;
}

unsigned int InfoU32(const STarvikDeviceInfo& info, int pos)
{
    unsigned int value = 0;
    CTarvikMsg::FromChar(value, reinterpret_cast<const char*>(info.m_abData + pos));
    return value;
}

TCliJson DecodeInfo(const STarvikDeviceInfo& info)
{
    const unsigned char* b = info.m_abData;
    int type = b[TARVIK_DEVICE_INFO_TYPE_BYTE];
    char date[16];
    std::snprintf(date, sizeof(date), "%04u-%02u-%02u", InfoU16(info, eInfoYear), b[eInfoMonth], b[eInfoDay]);
    return {{"device_type", type},
            {"device", TarvikDeviceName(type)},
            {"serial", InfoU32(info, eInfoSerial)},
            {"hardware", Version(b + eInfoHardware)},
            {"firmware", Version(b + eInfoFirmware)},
            {"build", InfoU16(info, eInfoBuild)},
            {"date", date},
            {"port_index", b[eInfoPortIndex]}};
}

std::string InfoText(const TCliJson& json)
{
    return "device:     " + json["device"].get<std::string>() + " (type " + json["device_type"].dump() +
           ")\nserial:     " + json["serial"].dump() + "\nhardware:   " + json["hardware"].get<std::string>() +
           "\nfirmware:   " + json["firmware"].get<std::string>() + " build " + json["build"].dump() +
           "\ndate:       " + json["date"].get<std::string>() + "\nport index: " + json["port_index"].dump();
}

void RunInfo(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    STarvikDeviceInfo info;
    session.Check(client->Info(&info), "info");
    TCliJson json = DecodeInfo(info);
    std::string text = InfoText(json);
    if (options.m_bRaw)
    {
        json["raw"] = CliHexBytes(info.m_abData, sizeof(info.m_abData), "");
        text += "\nraw:        " + CliHexBytes(info.m_abData, sizeof(info.m_abData));
    }
    CliPrint(globals, text, json);
}

void RunStatus(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    std::string text;
    session.Check(client->Status(text), "status");
    CliPrint(globals, text, TCliJson{{"status", text}});
}

void RunRestart(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    session.Check(client->Restart(), "restart");
    CliPrint(globals, "restarted " + session.Describe(), TCliJson{{"restarted", true}});
}

// --set takes hex with or without "0x".
unsigned int ParseHexWord(const std::string& text, const std::string& what)
{
    bool prefixed = text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    return static_cast<unsigned int>(CliParseNumber(prefixed ? text : "0x" + text, 0xFFFFFFFFul, what));
}

void RunDigital(const SCliGlobals& globals, const SDeviceOptions& options)
{
    bool set = !options.m_sSetDigital.empty();
    unsigned int outputs = set ? ParseHexWord(options.m_sSetDigital, "--set") : 0;
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    if (set)
        session.Check(client->BaseWriteDigital(outputs), "write digital outputs");
    unsigned int inputs = 0;
    unsigned int current = 0;
    session.Check(client->BaseReadDigital(inputs, current), "read digital");
    CliPrint(globals, "inputs  " + CliHex(inputs, 8) + "\noutputs " + CliHex(current, 8),
             TCliJson{{"inputs", inputs}, {"outputs", current}});
}

// The answer starts with the number of channels the device has, then their values.
void RunAnalog(const SCliGlobals& globals, const SDeviceOptions& options)
{
    std::vector<unsigned int> values;
    for (const std::string& text : options.m_asSetAnalog)
        values.push_back(static_cast<unsigned int>(CliParseNumber(text, 0xFFFFFFFFul, "--set")));
    if (values.size() > kAnalogCapacity)
        CliFail("--set: more than " + std::to_string(kAnalogCapacity) + " values", eCliExitUsage);
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    if (!values.empty())
        session.Check(client->WriteAnalog(values.data(), static_cast<unsigned short>(values.size())), "write analog");
    unsigned int channels = 0;
    std::vector<unsigned int> read(kAnalogCapacity);
    unsigned short count = kAnalogCapacity;
    session.Check(client->ReadAnalog(channels, read.data(), count), "read analog");
    read.resize(count);
    std::string text = "channels " + std::to_string(channels) + "\nvalues  ";
    for (unsigned int value : read)
        text += " " + std::to_string(value);
    CliPrint(globals, text, TCliJson{{"channels", channels}, {"values", read}});
}

// Nearest rank: the smallest time that share of the answers did not exceed.
double Percentile(const std::vector<double>& sorted, double share)
{
    size_t rank = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[rank == 0 ? 0 : rank - 1];
}

double Rounded(double us)
{
    return std::round(us * 10) / 10;
}

std::string Micro(double us)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", us);
    return text;
}

void PrintPing(const SCliGlobals& globals, const CCliSession& session, unsigned int sent, std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    TCliJson json = {{"sent", sent}, {"lost", sent - times.size()}};
    std::string text =
        session.Describe() + ": " + std::to_string(sent) + " sent, " + std::to_string(sent - times.size()) + " lost";
    const std::pair<const char*, double> stats[] = {{"min", 0.0}, {"p50", 0.5}, {"p99", 0.99}, {"max", 1.0}};
    text += times.empty() ? "" : ", round trip";
    for (const auto& stat : stats)
    {
        std::string key = std::string(stat.first) + "_us";
        json[key] = nullptr;
        if (times.empty())
            continue;
        double us = Percentile(times, stat.second);
        json[key] = Rounded(us);
        text += std::string(" ") + stat.first + " " + Micro(us) + " us" + (stat.second < 1.0 ? "," : "");
    }
    CliPrint(globals, text, json);
}

// Round trips of Info, the one request every device answers without side effects. A
// request without an answer in time counts as lost and the next one goes out; any
// other failure ends the command. Ctrl-C or SIGTERM ends it early, with the summary of
// what was sent until then. Exit code 1 when every request was lost.
void RunPing(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    auto client = OpenClient(session, globals, options);
    CCliInterrupt interrupt;
    std::vector<double> times;
    unsigned int sent = 0;
    for (; sent < options.m_nCount && !CCliInterrupt::IsRaised(); ++sent)
    {
        auto start = std::chrono::steady_clock::now();
        int result = client->Info(nullptr);
        std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
        if (result == TARVIK_ERR_TIMEOUT)
            continue;
        if (result != 0 && CCliInterrupt::IsRaised())
            break; // the signal cut the request short: it counts as not sent
        session.Check(result, "ping " + std::to_string(sent + 1));
        times.push_back(took.count());
    }
    PrintPing(globals, session, sent, times);
    if (times.empty())
        session.Check(TARVIK_ERR_TIMEOUT, "ping: every request lost");
}
} // namespace

void RegisterDeviceCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SDeviceOptions>();
    SCliGlobals* g = &globals;

    CLI::App* info = AddDeviceCommand(app, "info", "Show the device's information record, decoded", *options);
    info->add_flag("--raw", options->m_bRaw, "Show the record's 20 bytes as well");
    info->callback([g, options] { RunInfo(*g, *options); });
    AddDeviceCommand(app, "status", "Show the device's status text", *options)->callback([g, options] {
        RunStatus(*g, *options);
    });
    AddDeviceCommand(app, "restart", "Restart the device", *options)->callback([g, options] {
        RunRestart(*g, *options);
    });

    CLI::App* digital = AddDeviceCommand(app, "digital", "Read (and set) the base board's digital I/O", *options);
    digital->add_option("--set", options->m_sSetDigital, "Set the outputs first (hex, e.g. 0xFF)");
    digital->callback([g, options] { RunDigital(*g, *options); });

    CLI::App* analog =
        AddDeviceCommand(app, "analog", "Read (and set) the analog channels: channel count, then values", *options);
    analog->add_option("--set", options->m_asSetAnalog, "Write these channel values first (from channel 0)");
    analog->callback([g, options] { RunAnalog(*g, *options); });

    CLI::App* ping = AddDeviceCommand(
        app, "ping", "Round trips of Info requests: sent, lost, min/p50/p99/max; exit 1 if all were lost", *options);
    ping->add_option("-n,--count", options->m_nCount, "Number of requests")
        ->capture_default_str()
        ->check(CLI::Range(1u, 10000000u));
    ping->callback([g, options] { RunPing(*g, *options); });
}
