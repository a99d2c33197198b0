// Test-system commands (testsys install, config, available, io, pwr, power, relay,
// button) and the simple gateways (dio, ad).
#include "CliFormat.h"
#include "CliProgress.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace
{
constexpr unsigned long kMaxWords = 255;

struct STestSysOptions
{
    std::string m_sName;
    std::string m_sFile;
    unsigned int m_nCount = 0;
    std::vector<std::string> m_asWords;
    std::string m_sPowerUnit = "io";
    unsigned int m_nIndex = 0;
    std::string m_sState;
    std::string m_sHex;
};

// A word operation of a unit: (words, count) -> result.
typedef std::function<int(unsigned short*, unsigned char)> TWordOp;

std::string WordsText(const std::vector<unsigned short>& words, TCliJson& json)
{
    std::string text;
    json = TCliJson::array();
    for (size_t i = 0; i < words.size(); ++i)
    {
        text += (i != 0 ? " " : "") + CliHex(words[i], 4);
        json.push_back(words[i]);
    }
    return text.empty() ? "(no words)" : text;
}

void RunGetWords(const SCliGlobals& globals, const TWordOp& get, unsigned int count, const std::string& what)
{
    std::vector<unsigned short> words(count);
    CliCheck(get(words.empty() ? nullptr : words.data(), static_cast<unsigned char>(count)), what);
    TCliJson json;
    std::string text = WordsText(words, json);
    CliPrint(globals, text, TCliJson{{"words", json}});
}

void RunSetWords(const SCliGlobals& globals, const TWordOp& set, const std::vector<std::string>& texts,
                 const std::string& what)
{
    if (texts.size() > kMaxWords)
        CliFail(what + ": at most 255 words", eCliExitUsage);
    std::vector<unsigned short> words;
    words.reserve(texts.size());
    for (const std::string& text : texts)
        words.push_back(static_cast<unsigned short>(CliParseNumber(text, 0xFFFF, "word")));
    CliCheck(set(words.empty() ? nullptr : words.data(), static_cast<unsigned char>(words.size())), what);
    TCliJson json;
    std::string text = WordsText(words, json);
    CliPrint(globals, "set " + text, TCliJson{{"set", json}});
}

// Counts the file bytes of every upload telegram the client sends (first telegram:
// after CRC, size and file name).
void CountUpload(const STarvikTrace& trace, void* user)
{
    if (trace.m_eKind != STarvikTrace::eSent)
        return;
    auto* progress = static_cast<CCliProgress*>(user);
    if (trace.m_nCmdCode == ((eTarvikTestSystemCOM << 8) | CTarvikClientTestSystemCOM::eCmdFileData))
        progress->Add(trace.m_nDataLen);
    else if (trace.m_nCmdCode == ((eTarvikTestSystemCOM << 8) | CTarvikClientTestSystemCOM::eCmdFileStart) &&
             trace.m_nDataLen >= 9)
    {
        size_t header = 9 + static_cast<unsigned char>(trace.m_pData[8]);
        progress->Add(trace.m_nDataLen > header ? trace.m_nDataLen - header : 0);
    }
}

void RunInstall(const SCliGlobals& globals, const STestSysOptions& options)
{
    struct stat info;
    if (stat(options.m_sFile.c_str(), &info) != 0)
        CliFailFile(options.m_sFile, errno);
    if (!S_ISREG(info.st_mode))
        CliFailFile(options.m_sFile, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    CCliSession session(globals);
    CTarvikClientTestSystemCOM client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    CCliProgress progress("install " + CTarvikClientTestSystemCOM::GetFileName(options.m_sFile),
                          static_cast<uint64_t>(info.st_size));
    // The trace printer of --trace owns the client's one sink.
    if (!globals.m_bTrace)
        client.SetTraceSink(CountUpload, &progress);
    int result = client.InstallConfig(options.m_sName, options.m_sFile);
    if (!globals.m_bTrace)
        client.SetTraceSink(nullptr, nullptr);
    CliCheck(result, "install");
    bool sent = progress.GetDone() > 0 || info.st_size == 0;
    CliPrint(globals,
             sent ? "installed " + options.m_sName + " from " + options.m_sFile
                  : options.m_sName + " is on the unit already with the same CRC; nothing sent",
             TCliJson{{"config", options.m_sName}, {"file", options.m_sFile}, {"sent", sent}});
}

void RunConfig(const SCliGlobals& globals, const STestSysOptions& options)
{
    CCliSession session(globals);
    CTarvikClientTestSystemCOM client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    if (!options.m_sName.empty())
        CliCheck(client.SetConfig(options.m_sName), "set config");
    std::string active;
    CliCheck(client.GetConfig(active), "get config");
    CliPrint(globals, active.empty() ? "(no configuration active)" : active, TCliJson{{"active", active}});
}

void RunAvailable(const SCliGlobals& globals, const STestSysOptions& options)
{
    CCliSession session(globals);
    CTarvikClientTestSystemCOM client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    bool available = false;
    unsigned int crc = 0;
    CliCheck(client.IsConfigAvailable(options.m_sName, available, crc), "available");
    CliPrint(globals, options.m_sName + (available ? ": available, CRC " + CliHex(crc, 8) : ": not available"),
             available ? TCliJson{{"config", options.m_sName}, {"available", true}, {"crc", crc}}
                       : TCliJson{{"config", options.m_sName}, {"available", false}});
}

// get N / set W... of one unit's word bank; make runs one operation on a fresh client.
template <class TClient>
void AddWordCommands(CLI::App* parent, const char* name, const char* help, SCliGlobals* g,
                     const std::shared_ptr<STestSysOptions>& options,
                     int (TClient::*get)(unsigned short*, unsigned char),
                     int (TClient::*set)(unsigned short*, unsigned char))
{
    CLI::App* unit = parent->add_subcommand(name, help);
    unit->require_subcommand(1);
    auto run = [g](auto op, const std::function<void(const TWordOp&)>& body) {
        CCliSession session(*g);
        TClient client(static_cast<int>(g->m_nTimeoutMs));
        session.Open(client);
        body([&client, op](unsigned short* w, unsigned char n) { return (client.*op)(w, n); });
    };
    std::string what = name;
    CLI::App* cmd = unit->add_subcommand("get", "Read N words");
    cmd->add_option("N", options->m_nCount, "Number of words the unit has")->required()->check(CLI::Range(0u, 255u));
    cmd->callback([=] { run(get, [&](const TWordOp& op) { RunGetWords(*g, op, options->m_nCount, what + " get"); }); });
    cmd = unit->add_subcommand("set", "Write words W... (from word 0 on)");
    cmd->add_option("W", options->m_asWords, "Words, decimal or 0x hex")->required();
    cmd->callback(
        [=] { run(set, [&](const TWordOp& op) { RunSetWords(*g, op, options->m_asWords, what + " set"); }); });
}

void RunRelay(const SCliGlobals& globals, const STestSysOptions& options)
{
    bool on = options.m_sState == "on";
    CCliSession session(globals);
    CTarvikClientTestSystemRelay client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    CliCheck(client.SetRelay(static_cast<unsigned char>(options.m_nIndex), on), "relay");
    CliPrint(globals, "relay " + std::to_string(options.m_nIndex) + (on ? " on" : " off"),
             TCliJson{{"relay", options.m_nIndex}, {"on", on}});
}

void RunButton(const SCliGlobals& globals, const STestSysOptions& options)
{
    CCliSession session(globals);
    CTarvikClientTestSystemRelay client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    bool pressed = false;
    CliCheck(client.GetButton(static_cast<unsigned char>(options.m_nIndex), pressed), "button");
    CliPrint(globals, "button " + std::to_string(options.m_nIndex) + (pressed ? " pressed" : " released"),
             TCliJson{{"button", options.m_nIndex}, {"pressed", pressed}});
}

void PrintDigital(const SCliGlobals& globals, unsigned int inputs, unsigned int outputs)
{
    CliPrint(globals, "inputs  " + CliHex(inputs, 8) + "\noutputs " + CliHex(outputs, 8),
             TCliJson{{"inputs", inputs}, {"outputs", outputs}});
}

void RunDioRead(const SCliGlobals& globals)
{
    CCliSession session(globals);
    CTarvikClientDIO client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    unsigned int inputs = 0, outputs = 0;
    CliCheck(client.Read(inputs, outputs), "dio read");
    PrintDigital(globals, inputs, outputs);
}

void RunDioWrite(const SCliGlobals& globals, const STestSysOptions& options)
{
    unsigned int outputs = static_cast<unsigned int>(CliParseNumber(
        options.m_sHex.compare(0, 2, "0x") == 0 ? options.m_sHex : "0x" + options.m_sHex, 0xFFFFFFFFul, "outputs"));
    CCliSession session(globals);
    CTarvikClientDIO client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    CliCheck(client.Write(outputs), "dio write");
    CliPrint(globals, "outputs " + CliHex(outputs, 8), TCliJson{{"outputs", outputs}});
}

void RunAd(const SCliGlobals& globals, const std::string& what)
{
    CCliSession session(globals);
    CTarvikClientAD client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    if (what == "digital")
    {
        unsigned int inputs = 0, outputs = 0;
        CliCheck(client.ReadDigital(inputs, outputs), "ad digital");
        return PrintDigital(globals, inputs, outputs);
    }
    if (what == "inputs")
    {
        unsigned int in[3] = {0, 0, 0};
        CliCheck(client.ReadDigitalInput(in[0], in[1], in[2]), "ad inputs");
        std::vector<unsigned int> bytes(in, in + 3);
        return CliPrint(globals, CliHex(in[0], 2) + " " + CliHex(in[1], 2) + " " + CliHex(in[2], 2),
                        TCliJson{{"inputs", bytes}});
    }
    std::vector<unsigned int> values;
    CliCheck(client.Read(values), "ad read");
    std::string text;
    for (size_t i = 0; i < values.size(); ++i)
        text += (i != 0 ? "\n" : "") + std::to_string(i) + " " + std::to_string(values[i]);
    CliPrint(globals, text.empty() ? "(no values)" : text, TCliJson{{"values", values}});
}
} // namespace

void RegisterTestSystemCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<STestSysOptions>();
    SCliGlobals* g = &globals;
    CLI::App* ts = app.add_subcommand("testsys", "Test system: configurations, values, power, relays, buttons");
    ts->require_subcommand(1);

    CLI::App* cmd = ts->add_subcommand("install", "Upload FILE (unless the unit has it) and activate it as NAME");
    cmd->add_option("NAME", options->m_sName, "Configuration name")->required();
    cmd->add_option("FILE", options->m_sFile, "Configuration file")->required();
    cmd->callback([g, options] { RunInstall(*g, *options); });

    cmd = ts->add_subcommand("config", "Show the active configuration; with NAME, activate it first");
    cmd->add_option("NAME", options->m_sName, "Configuration to activate");
    cmd->callback([g, options] { RunConfig(*g, *options); });

    cmd = ts->add_subcommand("available", "Whether the unit holds configuration NAME, and its CRC");
    cmd->add_option("NAME", options->m_sName, "Configuration name")->required();
    cmd->callback([g, options] { RunAvailable(*g, *options); });

    AddWordCommands<CTarvikClientTestSystemIO>(ts, "io", "Value words of the IO unit", g, options,
                                               &CTarvikClientTestSystemIO::GetValue,
                                               &CTarvikClientTestSystemIO::SetValue);
    AddWordCommands<CTarvikClientTestSystemPWR>(ts, "pwr", "Value words of the power unit", g, options,
                                                &CTarvikClientTestSystemPWR::GetValue,
                                                &CTarvikClientTestSystemPWR::SetValue);
    AddWordCommands<CTarvikClientTestSystemIO>(ts, "power", "Power channels of the IO unit", g, options,
                                               &CTarvikClientTestSystemIO::GetPower,
                                               &CTarvikClientTestSystemIO::SetPower);
    AddWordCommands<CTarvikClientTestSystemRelay>(ts, "relay-power", "Power channels of the relay unit", g, options,
                                                  &CTarvikClientTestSystemRelay::GetPower,
                                                  &CTarvikClientTestSystemRelay::SetPower);

    cmd = ts->add_subcommand("relay", "Switch relay N on or off");
    cmd->add_option("N", options->m_nIndex, "Relay number")->required()->check(CLI::Range(0u, 255u));
    cmd->add_option("STATE", options->m_sState, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    cmd->callback([g, options] { RunRelay(*g, *options); });

    cmd = ts->add_subcommand("button", "Whether push-button N is pressed");
    cmd->add_option("N", options->m_nIndex, "Button number")->required()->check(CLI::Range(0u, 255u));
    cmd->callback([g, options] { RunButton(*g, *options); });

    CLI::App* dio = app.add_subcommand("dio", "Digital I/O gateway: read inputs and outputs, write outputs");
    dio->require_subcommand(1);
    dio->add_subcommand("read", "Input and output words")->callback([g] { RunDioRead(*g); });
    cmd = dio->add_subcommand("write", "Set the output word");
    cmd->add_option("HEX", options->m_sHex, "Output word in hex, e.g. 00FF")->required();
    cmd->callback([g, options] { RunDioWrite(*g, *options); });

    CLI::App* ad = app.add_subcommand("ad", "Analog/digital gateway: converter values and digital words");
    ad->require_subcommand(1);
    ad->add_subcommand("read", "Converter values, one channel a line")->callback([g] { RunAd(*g, "read"); });
    ad->add_subcommand("digital", "Input and output words")->callback([g] { RunAd(*g, "digital"); });
    ad->add_subcommand("inputs", "The three input bytes")->callback([g] { RunAd(*g, "inputs"); });
}
