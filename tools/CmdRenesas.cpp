// Renesas programming gateway commands: renesas init, id, complete, erase, program, read,
// version, check. The programming sequence lives in the gateway: "init" starts it and
// "complete" ends it. With --id every other command runs in a sequence of its own (Init,
// CheckID, the command, Complete), which is what a gateway needs that forgets its
// sequence when the connection ends, and what a single command line wants anyway.
#include "CliFormat.h"
#include "CliProgress.h"
#include "CliSession.h"
#include "CliTarget.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientRenesas.h"

#include <functional>
#include <memory>

namespace
{
constexpr size_t kPageSize = CTarvikClientRenesas::kPageSize;
constexpr unsigned long kMaxPage = 0xFFFF;
// The version answer is copied without a length: a zeroed buffer of the largest size
// that GetVersion takes shows where it ends.
constexpr unsigned char kVersionMax = 255;

struct SRenesasOptions
{
    std::string m_sID;
    int m_nRate = -1;
    std::string m_sIDArg;
    std::string m_sFile;
    bool m_bLenient = false;
    long m_nBlock = -1;
    bool m_bErase = false;
    unsigned int m_nPage = 0;
    unsigned int m_nCount = 1;
    unsigned int m_nFirst = 0;
    unsigned int m_nSecond = 0;
};

std::string ParseID(const std::string& text, const std::string& what)
{
    std::string id = CliParseHexBytes(text, what);
    if (id.size() > CTarvikClientRenesas::kIDSize)
        CliFail(what + ": at most " + std::to_string(CTarvikClientRenesas::kIDSize) + " bytes", eCliExitUsage);
    return id;
}

// A command against the gateway: a session, the client, and the sequence around it.
class CRenesasRun
{
public:
    CRenesasRun(const SCliGlobals& globals, const SRenesasOptions& options)
        : m_oSession(globals), m_oClient(static_cast<int>(globals.m_nTimeoutMs)), m_oOptions(options)
    {
        m_sID = options.m_sID.empty() ? "" : ParseID(options.m_sID, "--id");
        m_oSession.Open(m_oClient);
    }

    CTarvikClientRenesas& Client() { return m_oClient; }
    void Check(int result, const std::string& what) const { m_oSession.Check(result, what); }

    // Init, CheckID and the rate code, as far as the options ask for them.
    void Start(bool init)
    {
        if (init)
            Check(m_oClient.Init(), "init");
        if (!m_oOptions.m_sID.empty())
            Check(m_oClient.CheckID(m_sID.data(), static_cast<unsigned char>(m_sID.size())), "check ID");
        if (m_oOptions.m_nRate >= 0)
            Check(m_oClient.SetBaudrate(static_cast<unsigned char>(m_oOptions.m_nRate)), "set baudrate");
    }

    // body inside a sequence of its own when --id is given; the sequence is completed
    // also when body fails, so that the target leaves programming mode.
    void InSequence(const std::function<void()>& body)
    {
        bool own = !m_oOptions.m_sID.empty();
        if (own)
            Check(m_oClient.Init(), "init");
        try
        {
            Start(false);
            body();
        }
        catch (const CCliError&)
        {
            if (own)
                (void)m_oClient.Complete();
            throw;
        }
        if (own)
            Check(m_oClient.Complete(), "complete");
    }

private:
    // Stops the embedded simulator after the client: declared first.
    CCliSession m_oSession;
    CTarvikClientRenesas m_oClient;
    const SRenesasOptions& m_oOptions;
    std::string m_sID;
};

void RunInit(const SCliGlobals& globals, const SRenesasOptions& options)
{
    CRenesasRun run(globals, options);
    run.Start(true);
    bool checked = !options.m_sID.empty();
    CliPrint(globals, checked ? "sequence started, ID accepted" : "sequence started",
             TCliJson{{"started", true}, {"id_checked", checked}});
}

void RunID(const SCliGlobals& globals, const SRenesasOptions& options)
{
    std::string id = ParseID(options.m_sIDArg, "ID");
    CRenesasRun run(globals, options);
    run.Check(run.Client().CheckID(id.data(), static_cast<unsigned char>(id.size())), "check ID");
    CliPrint(globals, "ID accepted", TCliJson{{"id_checked", true}});
}

void RunComplete(const SCliGlobals& globals, const SRenesasOptions& options)
{
    CRenesasRun run(globals, options);
    run.Check(run.Client().Complete(), "complete");
    CliPrint(globals, "sequence completed", TCliJson{{"completed", true}});
}

void RunErase(const SCliGlobals& globals, const SRenesasOptions& options)
{
    CRenesasRun run(globals, options);
    bool all = options.m_nBlock < 0;
    auto block = static_cast<unsigned short>(options.m_nBlock);
    run.InSequence([&] {
        run.Check(all ? run.Client().EraseAll() : run.Client().BlockErase(block),
                  all ? "erase" : "erase block " + std::to_string(block));
    });
    CliPrint(globals, all ? "flash erased" : "block " + std::to_string(block) + " erased",
             all ? TCliJson{{"erased", "all"}} : TCliJson{{"erased", block}});
}

void RunProgram(const SCliGlobals& globals, const SRenesasOptions& options)
{
    // Bytes of a page that the file does not hold stay erased.
    std::map<uint64_t, std::string> pages =
        CliTargetPages(CliLoadTarget(options.m_sFile, options.m_bLenient), kPageSize, '\xFF');
    if (pages.rbegin()->first > kMaxPage)
        CliFail(options.m_sFile + ": data above page " + std::to_string(kMaxPage), eCliExitUsage);
    CRenesasRun run(globals, options);
    run.InSequence([&] {
        if (options.m_bErase)
            run.Check(run.Client().EraseAll(), "erase");
        std::unique_ptr<CCliProgress> progress =
            CliTargetProgress(globals, "renesas program", pages.size() * kPageSize, kPageSize);
        for (const auto& page : pages)
        {
            auto number = static_cast<unsigned short>(page.first);
            run.Check(run.Client().WritePage(number, page.second.data(), static_cast<unsigned short>(kPageSize)),
                      "program page " + std::to_string(number));
            if (progress)
                progress->Add(kPageSize);
        }
    });
    uint64_t first = pages.begin()->first;
    uint64_t last = pages.rbegin()->first;
    CliPrint(globals,
             "programmed " + std::to_string(pages.size()) + " pages (" + std::to_string(first) + " to " +
                 std::to_string(last) + ") from " + options.m_sFile,
             TCliJson{{"pages", pages.size()}, {"first", first}, {"last", last}, {"file", options.m_sFile}});
}

void RunRead(const SCliGlobals& globals, const SRenesasOptions& options)
{
    if (options.m_nPage + options.m_nCount - 1 > kMaxPage)
        CliFail("read: past page " + std::to_string(kMaxPage), eCliExitUsage);
    CRenesasRun run(globals, options);
    std::string bytes;
    bytes.reserve(options.m_nCount * kPageSize);
    run.InSequence([&] {
        std::unique_ptr<CCliProgress> progress =
            CliTargetProgress(globals, "renesas read", uint64_t(options.m_nCount) * kPageSize, kPageSize);
        std::string page(kPageSize, '\0');
        for (unsigned int i = 0; i < options.m_nCount; ++i)
        {
            auto number = static_cast<unsigned short>(options.m_nPage + i);
            unsigned short received = 0;
            std::string what = "read page " + std::to_string(number);
            run.Check(run.Client().ReadPage(number, &page[0], static_cast<unsigned short>(kPageSize), received), what);
            if (received != kPageSize)
                CliFail(what + ": the gateway sent " + std::to_string(received) + " of " + std::to_string(kPageSize) +
                        " bytes");
            bytes += page;
            if (progress)
                progress->Add(kPageSize);
        }
    });
    CliPrintRead(globals, uint64_t(options.m_nPage) * kPageSize, bytes, options.m_sFile);
}

void RunVersion(const SCliGlobals& globals, const SRenesasOptions& options)
{
    CRenesasRun run(globals, options);
    std::string text(kVersionMax, '\0');
    run.InSequence([&] { run.Check(run.Client().GetVersion(&text[0], kVersionMax), "version"); });
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
    CliPrint(globals, text, TCliJson{{"version", text}});
}

void RunCheck(const SCliGlobals& globals, const SRenesasOptions& options)
{
    CRenesasRun run(globals, options);
    unsigned short checksum = 0;
    auto first = static_cast<unsigned short>(options.m_nFirst);
    auto second = static_cast<unsigned short>(options.m_nSecond);
    run.InSequence([&] { run.Check(run.Client().VerifyCheck(first, second, checksum), "check"); });
    CliPrint(globals, "checksum " + CliHex(checksum, 4),
             TCliJson{{"first", first}, {"second", second}, {"checksum", checksum}});
}

void AddPageRange(CLI::App* cmd, SRenesasOptions& options)
{
    cmd->add_option("--page", options.m_nPage, "First page")->capture_default_str()->check(CLI::Range(0ul, kMaxPage));
    cmd->add_option("--count", options.m_nCount, "Number of pages")
        ->capture_default_str()
        ->check(CLI::Range(1ul, kMaxPage + 1));
}
} // namespace

void RegisterRenesasCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SRenesasOptions>();
    SCliGlobals* g = &globals;
    CLI::App* renesas = app.add_subcommand("renesas", "Renesas programming gateway: flash of the target");
    renesas->require_subcommand(1);
    // --id and --rate may also follow the command: "renesas program a.hex --id ...".
    renesas->fallthrough();
    renesas->add_option("--id", options->m_sID,
                        "Target ID in hex (up to 7 bytes): each command runs in a sequence of its own "
                        "(init, check ID, the command, complete); with init, the ID is checked");
    renesas->add_option("--rate", options->m_nRate, "Rate code for the target, sent after the ID")
        ->check(CLI::Range(0, 255));

    CLI::App* cmd = nullptr;
    auto add = [renesas, &cmd](const char* name, const char* help) {
        cmd = renesas->add_subcommand(name, help);
        cmd->footer("--id and --rate (see tarvik renesas --help) may also follow the command.");
    };
    add("init", "Start a programming sequence (with --id: and check the ID)");
    cmd->callback([g, options] { RunInit(*g, *options); });

    add("id", "Check the target ID (hex, up to 7 bytes) in the running sequence");
    cmd->add_option("ID", options->m_sIDArg, "The ID bytes, e.g. 52454E45534153")->required();
    cmd->callback([g, options] { RunID(*g, *options); });

    add("complete", "End the programming sequence");
    cmd->callback([g, options] { RunComplete(*g, *options); });

    add("erase", "Erase the whole flash, or one block");
    cmd->add_option("--block", options->m_nBlock, "Erase only this block")->check(CLI::Range(0l, 0xFFFFl));
    cmd->callback([g, options] { RunErase(*g, *options); });

    add("program", "Program FILE page by page (256 bytes, the rest of a page 0xFF)");
    cmd->add_option("FILE", options->m_sFile,
                    "Image: .hex or .s19/.srec at its addresses, any other name raw bytes from page 0; - for "
                    "standard input")
        ->required();
    cmd->add_flag("--erase", options->m_bErase, "Erase the whole flash first");
    CliAddTargetLoadOption(cmd, options->m_bLenient);
    cmd->callback([g, options] { RunProgram(*g, *options); });

    add("read", "Read pages; prints a hex dump or writes FILE");
    AddPageRange(cmd, *options);
    cmd->add_option("FILE", options->m_sFile, "Write the pages to this file (.hex, .s19, .srec or raw; - for stdout)");
    CliAddTargetOutputOption(cmd, options->m_sFile);
    cmd->callback([g, options] { RunRead(*g, *options); });

    add("version", "Version text of the target");
    cmd->callback([g, options] { RunVersion(*g, *options); });

    add("check", "Checksum that the target computes over FIRST..SECOND");
    cmd->add_option("FIRST", options->m_nFirst, "First of the range (the gateway interprets it, e.g. a page)")
        ->required()
        ->check(CLI::Range(0u, 0xFFFFu));
    cmd->add_option("SECOND", options->m_nSecond, "Second of the range")->required()->check(CLI::Range(0u, 0xFFFFu));
    cmd->callback([g, options] { RunCheck(*g, *options); });
}
