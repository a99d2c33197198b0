// SPI gateway commands: spi globals, spi xfer, spi seq.
#include "CliFormat.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientSPI.h"

#include <memory>
#include <vector>

namespace
{
// Largest byte count of one request (the telegram's 16-bit lengths).
constexpr unsigned long kMaxBytes = 0xFFFF;

// SequenceReq copies the answer into a buffer of the caller's size without saying how
// much came back; to print exactly the answer the tool takes it from the reply itself.
class CCliClientSPI : public CTarvikClientSPI
{
public:
    using CTarvikClientSPI::CTarvikClientSPI;
    ~CCliClientSPI() override { StopConnection(); }

    int Sequence(const std::string& script, std::string& answer)
    {
        CTarvikReply reply;
        int result = Request(eCmdSequence, script.data(), script.size(), reply);
        answer = reply.Substr(1);
        return result;
    }
};

struct SSpiOptions
{
    long long m_nRate = -1;
    std::vector<int> m_anSettings;
    std::vector<std::string> m_asTransfers;
    unsigned int m_nRead = 0;
    std::vector<std::string> m_asScript;
};

// One chip-select frame of "spi xfer": what to clock out and how many bytes to keep.
struct STransfer
{
    std::string m_sSend;
    unsigned short m_nReceive;
};

// "030040+4": the bytes, then 4 more clocked out as zeros; without "+N" the receive
// length is --read, or as many bytes as are sent.
STransfer ParseTransfer(const std::string& text, unsigned int read)
{
    size_t plus = text.find('+');
    STransfer transfer;
    transfer.m_sSend = CliParseHexBytes(text.substr(0, plus), "transfer");
    if (transfer.m_sSend.size() > kMaxBytes)
        CliFail("transfer: more than " + std::to_string(kMaxBytes) + " bytes", eCliExitUsage);
    size_t receive = read != 0 ? read : transfer.m_sSend.size();
    if (plus != std::string::npos)
        receive = transfer.m_sSend.size() + CliParseNumber(text.substr(plus + 1), kMaxBytes, "transfer +N");
    if (receive == 0 && transfer.m_sSend.empty())
        CliFail("transfer: no bytes in \"" + text + "\"", eCliExitUsage);
    if (receive > kMaxBytes)
        CliFail("transfer: more than " + std::to_string(kMaxBytes) + " bytes to receive", eCliExitUsage);
    transfer.m_nReceive = static_cast<unsigned short>(receive);
    return transfer;
}

std::string GlobalsText(unsigned int rate, const unsigned char* settings)
{
    return "rate     " + std::to_string(rate) + "\nsettings " + std::to_string(settings[0]) + " " +
           std::to_string(settings[1]) + " " + std::to_string(settings[2]);
}

void RunGlobals(const SCliGlobals& globals, const SSpiOptions& options)
{
    CCliSession session(globals);
    CTarvikClientSPI client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    unsigned int rate = 0;
    unsigned char s[3] = {0, 0, 0};
    bool set = options.m_nRate >= 0 || !options.m_anSettings.empty();
    if (set)
    {
        // Whatever is not given keeps its current value.
        session.Check(client.GetGlobals(rate, s[0], s[1], s[2]), "get globals");
        if (options.m_nRate >= 0)
            rate = static_cast<unsigned int>(options.m_nRate);
        for (size_t i = 0; i < options.m_anSettings.size() && i < 3; ++i)
            s[i] = static_cast<unsigned char>(options.m_anSettings[i]);
        session.Check(client.SetGlobals(rate, s[0], s[1], s[2]), "set globals");
    }
    session.Check(client.GetGlobals(rate, s[0], s[1], s[2]), "get globals");
    std::vector<int> settings = {s[0], s[1], s[2]};
    CliPrint(globals, GlobalsText(rate, s), TCliJson{{"rate", rate}, {"settings", settings}});
}

void RunXfer(const SCliGlobals& globals, const SSpiOptions& options)
{
    std::vector<STransfer> transfers;
    for (const std::string& text : options.m_asTransfers)
        transfers.push_back(ParseTransfer(text, options.m_nRead));
    CCliSession session(globals);
    CTarvikClientSPI client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string text;
    TCliJson results = TCliJson::array();
    for (size_t i = 0; i < transfers.size(); ++i)
    {
        const STransfer& transfer = transfers[i];
        std::string received(transfer.m_nReceive, '\0');
        session.Check(client.DataReq(transfer.m_sSend.data(), static_cast<unsigned short>(transfer.m_sSend.size()),
                                     &received[0], transfer.m_nReceive),
                      "transfer " + std::to_string(i + 1));
        text += (i != 0 ? "\n" : "") + CliHexBytes(received);
        results.push_back({{"sent", CliHexBytes(transfer.m_sSend, "")}, {"received", CliHexBytes(received, "")}});
    }
    CliPrint(globals, text, TCliJson{{"transfers", results}});
}

void RunSeq(const SCliGlobals& globals, const SSpiOptions& options)
{
    std::string script;
    for (const std::string& text : options.m_asScript)
        script += CliParseHexBytes(text, "sequence");
    if (script.size() > kMaxBytes - 5)
        CliFail("sequence: longer than a telegram can carry", eCliExitUsage);
    CCliSession session(globals);
    CCliClientSPI client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string answer;
    session.Check(client.Sequence(script, answer), "sequence");
    CliPrint(globals, answer.empty() ? "(no data)" : CliHexBytes(answer),
             TCliJson{{"answer", CliHexBytes(answer, "")}});
}
} // namespace

void RegisterSpiCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SSpiOptions>();
    SCliGlobals* g = &globals;
    CLI::App* spi = app.add_subcommand("spi", "SPI gateway: bus settings, transfers, sequences");
    spi->require_subcommand(1);

    CLI::App* cmd = spi->add_subcommand("globals", "Show (and set) the bus rate and the three setting bytes");
    cmd->add_option("--rate", options->m_nRate, "Set the bus rate")->check(CLI::Range(0LL, 0xFFFFFFFFLL));
    cmd->add_option("--settings", options->m_anSettings, "Set the three setting bytes A B C")
        ->expected(3)
        ->check(CLI::Range(0, 255));
    cmd->callback([g, options] { RunGlobals(*g, *options); });

    cmd = spi->add_subcommand("xfer", "Full-duplex transfers, one chip-select frame per argument; prints MISO");
    cmd->add_option("HEXBYTES", options->m_asTransfers,
                    "Bytes to clock out, e.g. 030040; HEX+N clocks N zero bytes more")
        ->required();
    cmd->add_option("--read", options->m_nRead, "Bytes to receive per transfer (default: as many as sent)")
        ->check(CLI::Range(1u, static_cast<unsigned int>(kMaxBytes)));
    cmd->callback([g, options] { RunXfer(*g, *options); });

    cmd = spi->add_subcommand("seq", "Run a sequence script on the gateway; prints the bytes it read");
    cmd->add_option("HEXBYTES", options->m_asScript, "The script: op codes and their arguments")->required();
    cmd->callback([g, options] { RunSeq(*g, *options); });
}
