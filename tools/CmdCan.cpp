// CAN gateway commands, in the conventions of Linux's can-utils where they overlap:
// can config|filter|globals|zcard|status|clock|power|send|cyclic, and dump and play
// (CmdCanDump.cpp, CmdCanPlay.cpp).
#include "CliCan.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <sys/time.h>
#include <vector>

namespace
{
constexpr unsigned int kFilterWords = 16;

bool ParseOnOff(const std::string& text, const std::string& what)
{
    if (text == "on" || text == "1" || text == "true")
        return true;
    if (text == "off" || text == "0" || text == "false")
        return false;
    CliFail(what + ": expected on or off, not \"" + text + "\"", eCliExitUsage);
}

// ---- config, filter, globals, zcard, clock, power, status -------------------------

TCliJson ConfigJson(bool confirm, bool flag2)
{
    return TCliJson{{"confirm", confirm}, {"flag2", flag2}};
}

void RunConfig(const SCliGlobals& globals, const SCanOptions& options)
{
    CCliCan can(globals);
    bool confirm = false, flag2 = false;
    can.Check(can.Client().GetConfig(confirm, flag2), "get config");
    if (!options.m_sConfirm.empty() || !options.m_sFlag2.empty())
    {
        if (!options.m_sConfirm.empty())
            confirm = ParseOnOff(options.m_sConfirm, "--confirm");
        if (!options.m_sFlag2.empty())
            flag2 = ParseOnOff(options.m_sFlag2, "--flag2");
        can.Check(can.Client().SetConfig(confirm, flag2), "set config");
        can.Check(can.Client().GetConfig(confirm, flag2), "get config");
    }
    CliPrint(globals, std::string("confirm  ") + (confirm ? "on" : "off") + "\nflag2    " + (flag2 ? "on" : "off"),
             ConfigJson(confirm, flag2));
}

void RunFilter(const SCliGlobals& globals, const SCanOptions& options)
{
    CTarvikClientCAN::SConfigFilter filter{};
    if (!options.m_asFilter.empty())
    {
        if (options.m_asFilter.size() != kFilterWords)
            CliFail("--set: give all 16 filter words", eCliExitUsage);
        for (unsigned int i = 0; i < kFilterWords; ++i)
            filter.nFilter[i] =
                static_cast<unsigned int>(CliParseNumber(options.m_asFilter[i], 0xFFFFFFFFul, "filter word"));
    }
    CCliCan can(globals);
    if (!options.m_asFilter.empty())
        can.Check(can.Client().SetFilter(filter), "set filter");
    can.Check(can.Client().GetFilter(filter), "get filter");
    std::string text;
    TCliJson words = TCliJson::array();
    for (unsigned int i = 0; i < kFilterWords; ++i)
    {
        text += (i % 4 == 0 ? (i == 0 ? "" : "\n") : " ") + CliHex(filter.nFilter[i], 8);
        words.push_back(filter.nFilter[i]);
    }
    CliPrint(globals, text, TCliJson{{"filter", words}});
}

struct SGlobals
{
    unsigned int m_nBaudrate = 0;
    unsigned char m_nSetting = 0;
    bool m_abFlags[3] = {false, false, false};
    bool m_bOption1 = false;
    unsigned int m_nOptionValue = 0;
    bool m_bOption2 = false;
};

int GetGlobals(CTarvikClientCAN& client, SGlobals& g)
{
    return client.GetGlobals(g.m_nBaudrate, g.m_nSetting, g.m_abFlags[0], g.m_abFlags[1], g.m_abFlags[2], g.m_bOption1,
                             g.m_nOptionValue, g.m_bOption2);
}

void RunGlobals(const SCliGlobals& globals, const SCanOptions& options)
{
    CCliCan can(globals);
    SGlobals g;
    can.Check(GetGlobals(can.Client(), g), "get globals");
    bool set = options.m_nBaudrate >= 0 || options.m_nSetting >= 0 || !options.m_anFlags.empty() ||
               options.m_nOption >= 0 || options.m_nOption2 >= 0;
    if (set)
    {
        // Whatever is not given keeps its current value.
        if (options.m_nBaudrate >= 0)
            g.m_nBaudrate = static_cast<unsigned int>(options.m_nBaudrate);
        if (options.m_nSetting >= 0)
            g.m_nSetting = static_cast<unsigned char>(options.m_nSetting);
        for (size_t i = 0; i < options.m_anFlags.size() && i < 3; ++i)
            g.m_abFlags[i] = options.m_anFlags[i] != 0;
        if (options.m_nOption >= 0)
        {
            g.m_bOption1 = true;
            g.m_nOptionValue = static_cast<unsigned int>(options.m_nOption);
        }
        if (options.m_nOption2 >= 0)
            g.m_bOption2 = options.m_nOption2 != 0;
        can.Check(can.Client().SetGlobals(g.m_nBaudrate, g.m_nSetting, g.m_abFlags[0], g.m_abFlags[1], g.m_abFlags[2],
                                          g.m_bOption1, g.m_nOptionValue, g.m_bOption2),
                  "set globals");
        can.Check(GetGlobals(can.Client(), g), "get globals");
    }
    std::string text = "baudrate " + std::to_string(g.m_nBaudrate) + "\nsetting  " + std::to_string(g.m_nSetting) +
                       "\nflags    " + std::to_string(g.m_abFlags[0]) + " " + std::to_string(g.m_abFlags[1]) + " " +
                       std::to_string(g.m_abFlags[2]) + "\noption   " +
                       (g.m_bOption1 ? std::to_string(g.m_nOptionValue) : std::string("off")) + "\noption2  " +
                       (g.m_bOption2 ? "on" : "off");
    CliPrint(globals, text,
             TCliJson{{"baudrate", g.m_nBaudrate},
                      {"setting", g.m_nSetting},
                      {"flags", {g.m_abFlags[0], g.m_abFlags[1], g.m_abFlags[2]}},
                      {"option1", g.m_bOption1},
                      {"option_value", g.m_nOptionValue},
                      {"option2", g.m_bOption2}});
}

void RunZCard(const SCliGlobals& globals, const SCanOptions& options)
{
    CCliCan can(globals);
    if (!options.m_anZCard.empty())
        can.Check(can.Client().SetZCardParameter(static_cast<unsigned char>(options.m_anZCard[0]),
                                                 static_cast<unsigned short>(options.m_anZCard[1]),
                                                 static_cast<unsigned short>(options.m_anZCard[2])),
                  "set z-card parameters");
    unsigned char p1 = 0;
    unsigned short p2 = 0, p3 = 0;
    can.Check(can.Client().GetZCardParameter(p1, p2, p3), "get z-card parameters");
    CliPrint(globals, "z-card   " + std::to_string(p1) + " " + std::to_string(p2) + " " + std::to_string(p3),
             TCliJson{{"zcard", {p1, p2, p3}}});
}

std::string ClockText(bool valid, const timeval& tv)
{
    if (!valid)
        return "not set";
    char text[64];
    time_t seconds = tv.tv_sec;
    struct tm utc;
    gmtime_r(&seconds, &utc);
    size_t n = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &utc);
    std::snprintf(text + n, sizeof(text) - n, ".%06ld UTC", static_cast<long>(tv.tv_usec));
    return text;
}

void RunClock(const SCliGlobals& globals, const SCanOptions& options)
{
    CCliCan can(globals);
    if (!options.m_sClockSet.empty())
    {
        timeval tv{};
        if (options.m_sClockSet == "now")
            gettimeofday(&tv, nullptr);
        else
            tv.tv_sec = static_cast<time_t>(CliParseSigned(options.m_sClockSet, "--set"));
        can.Check(can.Client().SetTime(tv), "set clock");
    }
    bool valid = false;
    timeval tv{};
    CTarvikClientCAN& base = can.Client();
    can.Check(base.GetTime(valid, tv), "get clock");
    CliPrint(globals, "clock    " + ClockText(valid, tv),
             TCliJson{{"valid", valid},
                      {"seconds", static_cast<long long>(tv.tv_sec)},
                      {"microseconds", static_cast<long>(tv.tv_usec)}});
}

// The power status with room for as many values and states as a telegram can announce.
TCliJson PowerStatus(CCliCan& can, std::string& text)
{
    constexpr unsigned char kMax = 255;
    unsigned char values = 0, states1 = 0, states2 = 0;
    short status1 = 0;
    unsigned short status2 = 0, status3 = 0;
    bool bit = false;
    std::vector<unsigned short> v(kMax);
    std::unique_ptr<bool[]> s1(new bool[kMax]()), s2(new bool[kMax]());
    can.Check(can.Client().GetPowerStatus(kMax, values, kMax, states1, kMax, states2, status1, status2, status3, bit,
                                          v.data(), s1.get(), s2.get()),
              "get power status");
    v.resize(values);
    std::vector<bool> a1(s1.get(), s1.get() + states1), a2(s2.get(), s2.get() + states2);
    text = "status   " + std::to_string(status1) + " " + std::to_string(status2) + " " + std::to_string(status3) +
           " bit " + std::to_string(bit) + "\nvalues  ";
    for (unsigned short value : v)
        text += " " + std::to_string(value);
    for (auto* states : {&a1, &a2})
    {
        text += states == &a1 ? "\nstates1 " : "\nstates2 ";
        for (bool state : *states)
            text += state ? " 1" : " 0";
    }
    return TCliJson{
        {"status", {status1, status2, status3}}, {"status_bit", bit}, {"values", v}, {"states1", a1}, {"states2", a2}};
}

void RunPower(const SCliGlobals& globals, const SCanOptions& options)
{
    CCliCan can(globals);
    if (!options.m_sRelay.empty())
        can.Check(can.Client().SetPowerRelais(ParseOnOff(options.m_sRelay, "--relay")), "set power relay");
    if (options.m_nSupplies >= 0)
        can.Check(can.Client().SetActivePowerSupplies(static_cast<unsigned int>(options.m_nSupplies)),
                  "set power supplies");
    std::string text;
    TCliJson json = PowerStatus(can, text);
    CliPrint(globals, text, json);
}

std::string CanOpenModeText(unsigned char mode)
{
    return mode == 0 ? "off" : "on (mode " + std::to_string(mode) + "): received frames come as CANopen events";
}

void RunStatus(const SCliGlobals& globals, const SCanOptions&)
{
    CCliCan can(globals);
    bool confirm = false, flag2 = false;
    can.Check(can.Client().GetConfig(confirm, flag2), "get config");
    SGlobals g;
    can.Check(GetGlobals(can.Client(), g), "get globals");
    bool valid = false;
    timeval tv{};
    CTarvikClientCAN& base = can.Client();
    can.Check(base.GetTime(valid, tv), "get clock");
    unsigned char mode = 0;
    can.Check(can.Client().CANopenGetConfig(mode), "get CANopen mode");
    std::string power;
    TCliJson json = PowerStatus(can, power);
    std::string text = can.Session().Describe() + "\nconfirm  " + (confirm ? "on" : "off") + "\nbaudrate " +
                       std::to_string(g.m_nBaudrate) + "\ncanopen  " + CanOpenModeText(mode) + "\nclock    " +
                       ClockText(valid, tv) + "\n" + power + "\ndropped  " + CliCanDropsText(can.Client());
    json["canopen_mode"] = mode;
    json["confirm"] = confirm;
    json["flag2"] = flag2;
    json["baudrate"] = g.m_nBaudrate;
    json["clock_valid"] = valid;
    json["clock"] = static_cast<long long>(tv.tv_sec);
    json["dropped"] = CliCanDropsJson(can.Client());
    CliPrint(globals, text, json);
}

// ---- send, cyclic --------------------------------------------------------------

void RunSend(const SCliGlobals& globals, const SCanOptions& options)
{
    std::vector<SCliCanFrame> frames;
    for (const std::string& text : options.m_asFrames)
        frames.push_back(CliCanParseFrameArg(text));
    CCliCan can(globals);
    bool confirm = false, flag2 = false;
    if (options.m_bConfirm)
    {
        // Confirmed writes are a setting of the gateway: switched on for these frames only.
        can.Check(can.Client().GetConfig(confirm, flag2), "get config");
        if (!confirm)
            can.Check(can.Client().SetConfig(true, flag2), "set config");
    }
    std::string text;
    TCliJson sent = TCliJson::array();
    int failed = 0;
    for (const SCliCanFrame& frame : frames)
    {
        int seconds = 0, micros = 0;
        int result = can.Client().Write(static_cast<int>(frame.m_nId), reinterpret_cast<const char*>(frame.m_aData),
                                        frame.m_nLen, CliCanFlagsOf(frame), &seconds, &micros);
        TCliJson entry{{"frame", CliCanFrameText(frame)}, {"result", result}};
        if (options.m_bConfirm && result == 0)
        {
            char stamp[48];
            std::snprintf(stamp, sizeof(stamp), "(%010d.%06d) ", seconds, micros);
            text += (text.empty() ? "" : "\n") + std::string(stamp) + CliCanFrameText(frame) + " sent";
            entry["seconds"] = seconds;
            entry["microseconds"] = micros;
        }
        else if (result != 0)
        {
            ++failed;
            text += (text.empty() ? "" : "\n") + CliCanFrameText(frame) + ": " + CTarvikClient::GetErrorMsg(result) +
                    " (" + CliCode(result) + ")";
        }
        sent.push_back(entry);
        if (result == TARVIK_ERR_NOT_CONNECTED)
            break;
    }
    if (options.m_bConfirm && !confirm)
        can.Client().SetConfig(false, flag2);
    if (!text.empty() || globals.m_bJson)
        CliPrint(globals, text, TCliJson{{"sent", sent}});
    if (failed != 0)
        CliFail(std::to_string(failed) + " of " + std::to_string(frames.size()) + " frames failed");
}

void RunCyclic(const SCliGlobals& globals, const SCanOptions& options)
{
    if (options.m_asFrames.size() != 1)
        CliFail("cyclic: give one frame", eCliExitUsage);
    if (!options.m_bOff && options.m_nInterval == 0)
        CliFail("cyclic: give --interval MS or --off", eCliExitUsage);
    SCliCanFrame frame = CliCanParseFrameArg(options.m_asFrames[0]);
    CCliCan can(globals);
    can.Check(can.Client().SetCyclicMessage(static_cast<unsigned char>(options.m_nIndex), !options.m_bOff,
                                            options.m_nInterval, static_cast<int>(frame.m_nId),
                                            reinterpret_cast<const char*>(frame.m_aData), frame.m_nLen,
                                            CliCanFlagsOf(frame)),
              "set cyclic message");
    std::string state = options.m_bOff ? "off" : "every " + std::to_string(options.m_nInterval) + " ms";
    CliPrint(globals, "cyclic " + std::to_string(options.m_nIndex) + ": " + CliCanFrameText(frame) + " " + state,
             TCliJson{{"index", options.m_nIndex},
                      {"frame", CliCanFrameText(frame)},
                      {"enabled", !options.m_bOff},
                      {"interval", options.m_nInterval}});
}

} // namespace

void RegisterCanCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SCanOptions>();
    SCliGlobals* g = &globals;
    CLI::App* can = app.add_subcommand("can", "CAN gateway: settings, sending, cyclic frames, dump and replay");
    can->require_subcommand(1);

    CLI::App* cmd = can->add_subcommand("config", "Show (and set) confirmed writes and the second config flag");
    cmd->add_option("--confirm", options->m_sConfirm, "Confirm every frame written: on|off");
    cmd->add_option("--flag2", options->m_sFlag2, "The gateway's second configuration flag: on|off");
    cmd->callback([g, options] { RunConfig(*g, *options); });

    cmd = can->add_subcommand("filter", "Show (and set) the 16 acceptance filter words");
    cmd->add_option("--set", options->m_asFilter, "All 16 words, e.g. 0 0x7FF ...")->expected(kFilterWords);
    cmd->callback([g, options] { RunFilter(*g, *options); });

    cmd = can->add_subcommand("globals", "Show (and set) the bus settings: baud rate and the gateway's options");
    cmd->add_option("--baudrate", options->m_nBaudrate, "Bit rate in bit/s, e.g. 500000")
        ->check(CLI::Range(0LL, 0xFFFFFFFFLL));
    cmd->add_option("--setting", options->m_nSetting, "The setting byte")->check(CLI::Range(0, 255));
    cmd->add_option("--flags", options->m_anFlags, "The three flags, 0 or 1 each")
        ->expected(3)
        ->check(CLI::Range(0, 1));
    cmd->add_option("--option", options->m_nOption, "Switch the option on with this value")
        ->check(CLI::Range(0LL, 0xFFFFFFFFLL));
    cmd->add_option("--option2", options->m_nOption2, "The second option, 0 or 1")->check(CLI::Range(0, 1));
    cmd->callback([g, options] { RunGlobals(*g, *options); });

    cmd = can->add_subcommand("zcard", "Show (and set) the extension card's parameters");
    cmd->add_option("--set", options->m_anZCard, "P1 (0..255) P2 P3 (0..65535)")
        ->expected(3)
        ->check(CLI::Range(0u, 65535u));
    cmd->callback([g, options] { RunZCard(*g, *options); });

    cmd = can->add_subcommand("status", "Configuration, bus settings, clock and power status at a glance");
    cmd->callback([g, options] { RunStatus(*g, *options); });

    cmd = can->add_subcommand("clock", "Show (and set) the gateway's clock");
    cmd->add_option("--set", options->m_sClockSet, "now, or seconds since 1970");
    cmd->callback([g, options] { RunClock(*g, *options); });

    cmd = can->add_subcommand("power", "Show the power status; switch the relay and the active supplies");
    cmd->add_option("--relay", options->m_sRelay, "Power relay: on|off");
    cmd->add_option("--supplies", options->m_nSupplies, "Mask of the active supplies")
        ->check(CLI::Range(0LL, 0xFFFFFFFFLL));
    cmd->callback([g, options] { RunPower(*g, *options); });

    cmd = can->add_subcommand("send", "Send frames: 123#DEADBEEF, 12345678#11.22, 123#R, 123##1AABB (CAN FD)");
    cmd->add_option("FRAME", options->m_asFrames, "Frames in cansend's syntax")->required();
    cmd->add_flag("--confirm", options->m_bConfirm, "Wait for the gateway's confirmation of each frame");
    cmd->callback([g, options] { RunSend(*g, *options); });

    cmd = can->add_subcommand("cyclic", "Let the gateway repeat a frame at an interval, or stop it");
    cmd->add_option("FRAME", options->m_asFrames, "The frame, in cansend's syntax")->required();
    cmd->add_option("--interval", options->m_nInterval, "Repeat every MS milliseconds")
        ->check(CLI::Range(1u, 0xFFFFFFFFu));
    cmd->add_flag("--off", options->m_bOff, "Stop the entry");
    cmd->add_option("--index", options->m_nIndex, "Cyclic entry of the gateway (default 0)")
        ->check(CLI::Range(0u, 127u));
    cmd->callback([g, options] { RunCyclic(*g, *options); });

    cmd = can->add_subcommand("dump", "Print received frames as candump does (-L: candump's log format)");
    cmd->add_option("--count,-n", options->m_nCount, "Stop after N frames");
    cmd->add_option("--duration", options->m_dDuration, "Stop after S seconds")->check(CLI::PositiveNumber);
    cmd->add_flag("-L,--log", options->m_bLog, "Log format: (seconds.micros) tarvik0 123#DEADBEEF");
    cmd->add_option("-o,--output", options->m_sOutput, "Write to FILE instead of standard output");
    cmd->callback([g, options] { CliRunCanDump(*g, *options); });

    cmd = can->add_subcommand("play", "Send the frames of a candump log with their original timing");
    cmd->add_option("LOG", options->m_sLogFile, "The log file")->required();
    cmd->add_option("--loop", options->m_nLoop, "Play N times (0: until Ctrl-C)");
    cmd->callback([g, options] { CliRunCanPlay(*g, *options); });
}
