// Commands that every gateway understands: info, status, restart, digital, analog, ping.
#include "CliFormat.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{
// The base client speaks the common commands of any device type.
constexpr unsigned short kAnalogCapacity = 256;

struct SDeviceOptions
{
    std::string m_sDevice = "spi";
    std::string m_sSetDigital;
    std::vector<std::string> m_asSetAnalog;
    unsigned int m_nCount = 10;
};

CLI::App* AddDeviceCommand(CLI::App& app, const char* name, const char* help, SDeviceOptions& options)
{
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_option("-d,--device", options.m_sDevice, "Device type: " + CCliSession::DeviceTypeNames())
        ->capture_default_str();
    return cmd;
}

std::string Micro(double us)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", us);
    return text;
}

void RunInfo(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    STarvikDeviceInfo info;
    CliCheck(client.Info(&info), "info");
    // Byte 18 names the device type; the rest is the device's own and shown as it came.
    int type = info.m_abData[TARVIK_DEVICE_INFO_TYPE_BYTE];
    std::string bytes = CliHexBytes(info.m_abData, sizeof(info.m_abData));
    TCliJson json = {{"device_type", type},
                     {"device", TarvikDeviceName(type)},
                     {"info", CliHexBytes(info.m_abData, sizeof(info.m_abData), "")}};
    CliPrint(globals, "device: " + TarvikDeviceName(type) + " (type " + std::to_string(type) + ")\ninfo:   " + bytes,
             json);
}

void RunStatus(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    std::string text;
    CliCheck(client.Status(text), "status");
    CliPrint(globals, text, TCliJson{{"status", text}});
}

void RunRestart(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    CliCheck(client.Restart(), "restart");
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
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    if (set)
        CliCheck(client.BaseWriteDigital(outputs), "write digital outputs");
    unsigned int inputs = 0;
    unsigned int current = 0;
    CliCheck(client.BaseReadDigital(inputs, current), "read digital");
    CliPrint(globals, "inputs  " + CliHex(inputs, 8) + "\noutputs " + CliHex(current, 8),
             TCliJson{{"inputs", inputs}, {"outputs", current}});
}

void RunAnalog(const SCliGlobals& globals, const SDeviceOptions& options)
{
    std::vector<unsigned int> values;
    for (const std::string& text : options.m_asSetAnalog)
        values.push_back(static_cast<unsigned int>(CliParseNumber(text, 0xFFFFFFFFul, "--set")));
    CCliSession session(globals);
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    if (!values.empty())
        CliCheck(client.WriteAnalog(values.data(), static_cast<unsigned short>(values.size())), "write analog");
    unsigned int first = 0;
    std::vector<unsigned int> read(kAnalogCapacity);
    unsigned short count = kAnalogCapacity;
    CliCheck(client.ReadAnalog(first, read.data(), count), "read analog");
    read.resize(std::min<size_t>(count, kAnalogCapacity));
    std::string text = "first  " + std::to_string(first) + "\nvalues";
    for (unsigned int value : read)
        text += " " + std::to_string(value);
    if (count > kAnalogCapacity)
        text += " (device sent " + std::to_string(count) + ")";
    CliPrint(globals, text, TCliJson{{"first", first}, {"count", count}, {"values", read}});
}

// Round trips of Info, the one request every device answers without side effects.
void RunPing(const SCliGlobals& globals, const SDeviceOptions& options)
{
    CCliSession session(globals);
    CTarvikClient client(CCliSession::ParseDeviceType(options.m_sDevice), globals.m_nTimeoutMs);
    session.Open(client);
    std::vector<double> times;
    for (unsigned int i = 0; i < options.m_nCount; ++i)
    {
        auto start = std::chrono::steady_clock::now();
        CliCheck(client.Info(nullptr), "ping " + std::to_string(i + 1));
        std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
        times.push_back(took.count());
    }
    std::sort(times.begin(), times.end());
    size_t n = times.size();
    double median = n % 2 != 0 ? times[n / 2] : (times[n / 2 - 1] + times[n / 2]) / 2;
    TCliJson json = {{"count", n},
                     {"min_us", std::stod(Micro(times.front()))},
                     {"median_us", std::stod(Micro(median))},
                     {"max_us", std::stod(Micro(times.back()))}};
    CliPrint(globals,
             session.Describe() + ": " + std::to_string(n) + " requests, round trip min " + Micro(times.front()) +
                 " us, median " + Micro(median) + " us, max " + Micro(times.back()) + " us",
             json);
}
} // namespace

void RegisterDeviceCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SDeviceOptions>();
    SCliGlobals* g = &globals;

    AddDeviceCommand(app, "info", "Show the device's information record", *options)
        ->callback([g, options] { RunInfo(*g, *options); });
    AddDeviceCommand(app, "status", "Show the device's status text", *options)
        ->callback([g, options] { RunStatus(*g, *options); });
    AddDeviceCommand(app, "restart", "Restart the device", *options)
        ->callback([g, options] { RunRestart(*g, *options); });

    CLI::App* digital = AddDeviceCommand(app, "digital", "Read (and set) the base board's digital I/O", *options);
    digital->add_option("--set", options->m_sSetDigital, "Set the outputs first (hex, e.g. 0xFF)");
    digital->callback([g, options] { RunDigital(*g, *options); });

    CLI::App* analog = AddDeviceCommand(app, "analog", "Read (and set) the analog channels", *options);
    analog->add_option("--set", options->m_asSetAnalog, "Write these channel values first (from channel 0)");
    analog->callback([g, options] { RunAnalog(*g, *options); });

    CLI::App* ping = AddDeviceCommand(app, "ping", "Round-trip times of Info requests (min/median/max)", *options);
    ping->add_option("-n,--count", options->m_nCount, "Number of requests")
        ->capture_default_str()
        ->check(CLI::Range(1u, 10000000u));
    ping->callback([g, options] { RunPing(*g, *options); });
}
