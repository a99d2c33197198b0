// AWire programmer commands: awire config, read, erase, write-file.
#include "CliFormat.h"
#include "CliInterrupt.h"
#include "CliSession.h"
#include "CliStepProgress.h"
#include "CliTarget.h"
#include "HexFile.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientAWire.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

namespace
{
typedef CTarvikClientAWire::FileStep FileStep;
// A read larger than this goes out in pieces of this size.
constexpr unsigned long kReadPiece = 32768;
// Largest read the command takes on.
constexpr unsigned long kMaxRead = 16ul << 20;
constexpr unsigned int kDumpWidth = 16;
// How often the file write's progress is asked for.
constexpr auto kPollPause = std::chrono::milliseconds(20);

struct SAWireOptions
{
    std::vector<std::string> m_asSet;
    std::string m_sAddress;
    std::string m_sLength;
    std::string m_sOutput;
    std::string m_sValue = "0";
    bool m_bUserPage = false;
    std::string m_sFile;
    SHexLoadOptions m_oLoad;
};

void RunConfig(const SCliGlobals& globals, const SAWireOptions& options)
{
    CCliSession session(globals);
    CTarvikClientAWire client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    if (!options.m_asSet.empty())
    {
        if (options.m_asSet.size() != 5)
            CliFail("config --set: give V1 V2 PAGE V4 STR", eCliExitUsage);
        unsigned int v[4];
        for (size_t i = 0; i < 4; ++i)
            v[i] = static_cast<unsigned int>(CliParseNumber(options.m_asSet[i], 0xFFFFFFFFul, "configuration value"));
        if (options.m_asSet[4].size() > 255)
            CliFail("config --set: the text has at most 255 bytes", eCliExitUsage);
        session.Check(client.SetConfig(v[0], v[1], v[2], v[3], options.m_asSet[4]), "set config");
    }
    unsigned int v1 = 0, v2 = 0, page = 0, v4 = 0;
    std::string text;
    session.Check(client.GetConfig(v1, v2, page, v4, text), "get config");
    CliPrint(globals,
             "value1    " + CliHex(v1, 8) + "\nvalue2    " + CliHex(v2, 8) + "\npage size " + std::to_string(page) +
                 "\nvalue4    " + CliHex(v4, 8) + "\ntext      \"" + text + "\"",
             TCliJson{{"value1", v1}, {"value2", v2}, {"page_size", page}, {"value4", v4}, {"text", text}});
}

void RunRead(const SCliGlobals& globals, const SAWireOptions& options)
{
    unsigned long address = CliParseNumber(options.m_sAddress, 0xFFFFFFFFul, "address");
    unsigned long length = CliParseNumber(options.m_sLength, kMaxRead, "length");
    CCliSession session(globals);
    CTarvikClientAWire client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string bytes(length, '\0');
    for (unsigned long pos = 0; pos < length;)
    {
        unsigned short piece = static_cast<unsigned short>(length - pos < kReadPiece ? length - pos : kReadPiece);
        unsigned short count = 0;
        session.Check(client.Read(static_cast<unsigned int>(address + pos), piece, &bytes[pos], count), "read");
        if (count == 0)
            CliFail("read: the gateway sent no bytes for " + CliHex(address + pos, 8));
        pos += count;
    }
    CliPrintRead(globals, address, bytes, options.m_sOutput);
}

void RunErase(const SCliGlobals& globals, const SAWireOptions& options)
{
    unsigned long value = CliParseNumber(options.m_sValue, 0xFFFF, "erase value");
    CCliSession session(globals);
    CTarvikClientAWire client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    if (options.m_bUserPage)
    {
        session.Check(client.EraseUserPage(), "erase user page");
        return CliPrint(globals, "user page erased", TCliJson{{"erased", "user page"}});
    }
    session.Check(client.Erase(static_cast<unsigned short>(value)), "erase");
    CliPrint(globals, "flash erased", TCliJson{{"erased", "flash"}, {"value", value}});
}

const char* StepName(FileStep::EFileStep step)
{
    switch (step)
    {
    case FileStep::eWriting: return "writing";
    case FileStep::eVerifying: return "verifying";
    case FileStep::eDone: return "done";
    case FileStep::eFailed: return "failed";
    default: return "starting";
    }
}

// Follows the file write until it ends or Ctrl-C; the last step before the end and its percent.
FileStep::EFileStep FollowFileWrite(CTarvikClientAWire& client, CCliStepProgress& progress, int& percent,
                                    FileStep::EFileStep& end)
{
    FileStep::EFileStep last = FileStep::eNotStarted;
    for (;;)
    {
        FileStep::EFileStep step = FileStep::eNotStarted;
        unsigned char shown = 0;
        if (client.GetWriteFileStatus(step, shown) != 0)
        {
            end = FileStep::eFailed;
            return last;
        }
        if (step == FileStep::eDone || step == FileStep::eFailed)
        {
            if (step == FileStep::eDone)
                progress.Update("verifying", 100);
            end = step;
            return last;
        }
        if (step != FileStep::eNotStarted)
        {
            last = step;
            percent = shown;
            progress.Update(StepName(step), shown);
        }
        if (CCliInterrupt::IsRaised())
        {
            end = FileStep::eNotStarted;
            return last;
        }
        std::this_thread::sleep_for(kPollPause);
    }
}

// What went wrong, from the file write's own record of the cause (not from the last step the
// command happened to see: a fast failure passes through its steps between two polls).
std::string FailureText(const CTarvikClientAWire::SFileFailure& failure, const std::string& file)
{
    typedef CTarvikClientAWire::FileFailure FileFailure;
    const std::string erase = "; if the flash was not erased, run 'tarvik awire erase' first";
    const std::string at = " at " + CliHex(failure.m_nAddress, 8);
    switch (failure.m_eCause)
    {
    case FileFailure::eLoad: return "the image could not be copied for the write (out of memory)";
    case FileFailure::eWriteRequest:
        return "a block write" + at + " could not be sent (result " + CliCode(failure.m_nResult) + ")";
    case FileFailure::eBlockFailed:
        return "the gateway reported a failed block write" + at + " (state " + std::to_string(failure.m_nResult) + ")" +
               erase;
    case FileFailure::eVerifyRead:
        return "reading back" + at + " for the comparison failed (result " + CliCode(failure.m_nResult) + ")";
    case FileFailure::eVerifyMismatch: return "the target differs from " + file + " in the piece" + at + erase;
    default: return "the file write ended without saying why";
    }
}

void RunWriteFile(const SCliGlobals& globals, const SAWireOptions& options)
{
    // Loaded and checked once, before anything is sent; the loaded image is what is written.
    CTarvikHexfile image;
    HexLoad(image, options.m_sFile, options.m_oLoad);
    uint64_t total = image.GetTotalBytes();
    CCliSession session(globals);
    auto client = std::make_unique<CTarvikClientAWire>(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(*client);
    // Ctrl-C only asks for the end; the command then stops the write itself.
    CCliInterrupt guard;
    auto start = std::chrono::steady_clock::now();
    session.Check(client->WriteImage(image), "write-file");
    if (client->GetPageSize() == 0)
        CliFail("write-file: the gateway reports no page size; set one with 'awire config --set'");
    FileStep::EFileStep end = FileStep::eNotStarted;
    int percent = 0;
    FileStep::EFileStep last = FileStep::eNotStarted;
    {
        CCliStepProgress progress(globals, total);
        last = FollowFileWrite(*client, progress, percent, end);
    }
    if (end == FileStep::eNotStarted)
    {
        // Interrupted: destroying the client stops its file-write thread.
        client.reset();
        CliFail("write-file: interrupted while " + std::string(StepName(last)) + " at " + std::to_string(percent) +
                "% of " + std::to_string(total) + " bytes; the target holds an incomplete image");
    }
    if (end == FileStep::eFailed)
        CliFail("write-file: " + FailureText(client->GetWriteFileFailure(), options.m_sFile));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    char took[64];
    std::snprintf(took, sizeof took, " in %.2f s", seconds);
    CliPrint(globals,
             "verified: " + std::to_string(total) + " bytes of " + options.m_sFile + " written and read back" + took,
             TCliJson{{"file", options.m_sFile}, {"bytes", total}, {"verified", true}, {"seconds", seconds}});
}
} // namespace

void RegisterAWireCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SAWireOptions>();
    SCliGlobals* g = &globals;
    CLI::App* awire = app.add_subcommand("awire", "AWire programmer: configuration, read, erase, write a file");
    awire->require_subcommand(1);

    CLI::App* cmd = awire->add_subcommand("config", "Show the programmer's configuration; with --set, set it first");
    cmd->add_option("--set", options->m_asSet, "V1 V2 PAGE V4 STR: four numbers (PAGE: the page size) and a text")
        ->expected(5);
    cmd->callback([g, options] { RunConfig(*g, *options); });

    cmd = awire->add_subcommand("read", "Read LEN bytes of target memory from ADDR");
    cmd->add_option("ADDR", options->m_sAddress, "Address, decimal or 0x hex")->required();
    cmd->add_option("LEN", options->m_sLength, "Number of bytes")->required();
    cmd->add_option("-o,--output", options->m_sOutput,
                    "Write the bytes to this file instead of a dump (.hex, .s19, ...: an image at ADDR; else raw)");
    cmd->callback([g, options] { RunRead(*g, *options); });

    cmd = awire->add_subcommand("erase", "Erase the target's flash (or its user page)");
    cmd->add_option("VALUE", options->m_sValue, "Erase value for the gateway")->capture_default_str();
    cmd->add_flag("--user-page", options->m_bUserPage, "Erase the user page instead");
    cmd->callback([g, options] { RunErase(*g, *options); });

    cmd = awire->add_subcommand("write-file", "Write an Intel HEX, S-record or binary FILE and verify it");
    cmd->add_option("FILE", options->m_sFile, "Memory image (- for standard input)")->required();
    HexAddLoadOptions(cmd, options->m_oLoad,
                      "The flash must be erased first ('tarvik awire erase'): programming only clears bits.");
    cmd->callback([g, options] { RunWriteFile(*g, *options); });
}
