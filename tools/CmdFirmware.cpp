// Firmware commands, on the service port of any gateway: firmware info, read, write,
// clear. The flash goes in blocks of 2048 bytes; info shows the information EEPROM.
#include "CliFormat.h"
#include "CliProgress.h"
#include "CliSession.h"
#include "CliTarget.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientFirmware.h"

#include <memory>
#include <vector>

namespace
{
constexpr size_t kBlockSize = CTarvikClientFirmware::kFlashBlockSize;
constexpr unsigned long kMaxInfoBlock = 0xFFFF;

struct SFirmwareOptions
{
    unsigned int m_nBlock = 0;
    unsigned int m_nCount = 1;
    std::string m_sFile;
    bool m_bLenient = false;
};

typedef CTarvikClientFirmware::STarvikDeviceInfoEx SInfo;

std::string WordsText(const unsigned int* words, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += (i != 0 ? " " : "") + CliHex(words[i], 8);
    return text;
}

std::string InfoText(const SInfo& info, int eeprom)
{
    return "software " + info.GetSWVersionString() + "\nhardware " + info.GetHWVersionString() + "\nlayout   " +
           std::to_string(info.nLayoutVersion) + "\ntag      " + CliHex(info.nImageTag, 8) + "\nfield3   " +
           CliHex(info.nField3, 8) + "\nfield4   " + CliHex(info.nField4, 8) + "\nfield5   " + CliHex(info.nField5, 4) +
           "\nfield6   " + CliHex(info.nField6, 2) + "\nvariant  " + CliHex(info.nSWVariant, 2) + "\nfield8   " +
           WordsText(info.aField8, 4) + "\nfield9   " + CliHex(info.nField9, 2) + "\neeprom   " +
           CliHex(static_cast<unsigned int>(eeprom), 8);
}

TCliJson InfoJson(const SInfo& info, int eeprom)
{
    return {{"software", info.GetSWVersionString()},
            {"hardware", info.GetHWVersionString()},
            {"sw_version", info.nSWVersion},
            {"hw_version", info.nHWVersion},
            {"layout", info.nLayoutVersion},
            {"tag", info.nImageTag},
            {"field3", info.nField3},
            {"field4", info.nField4},
            {"field5", info.nField5},
            {"field6", info.nField6},
            {"variant", info.nSWVariant},
            {"field8", std::vector<unsigned int>(info.aField8, info.aField8 + 4)},
            {"field9", info.nField9},
            {"eeprom", static_cast<unsigned int>(eeprom)}};
}

void RunInfo(const SCliGlobals& globals)
{
    CCliSession session(globals);
    CTarvikClientFirmware client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    SInfo info;
    session.Check(client.GetInfo(info), "info");
    int eeprom = 0;
    session.Check(client.GetEEPromInfo(eeprom), "eeprom info");
    CliPrint(globals, InfoText(info, eeprom), InfoJson(info, eeprom));
}

void RunRead(const SCliGlobals& globals, const SFirmwareOptions& options)
{
    if (options.m_nBlock + options.m_nCount - 1 > kMaxInfoBlock)
        CliFail("read: past block " + std::to_string(kMaxInfoBlock), eCliExitUsage);
    CCliSession session(globals);
    CTarvikClientFirmware client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::unique_ptr<CCliProgress> progress =
        CliTargetProgress(globals, "firmware read", uint64_t(options.m_nCount) * kBlockSize, kBlockSize);
    std::string bytes;
    bytes.reserve(options.m_nCount * kBlockSize);
    std::string block(kBlockSize, '\0');
    for (unsigned int i = 0; i < options.m_nCount; ++i)
    {
        auto number = static_cast<unsigned short>(options.m_nBlock + i);
        std::string what = "read block " + std::to_string(number);
        unsigned long received = 0;
        // The count is only meaningful once the result is 0.
        session.Check(client.ReadFlash(number, &block[0], received), what);
        if (received != kBlockSize)
            CliFail(what + ": the gateway sent " + std::to_string(received) + " of " + std::to_string(kBlockSize) +
                    " bytes");
        bytes += block;
        if (progress)
            progress->Add(kBlockSize);
    }
    progress.reset();
    CliPrintRead(globals, uint64_t(options.m_nBlock) * kBlockSize, bytes, options.m_sFile);
}

void RunWrite(const SCliGlobals& globals, const SFirmwareOptions& options)
{
    // Bytes of a block that the file does not hold are written erased.
    std::map<uint64_t, std::string> blocks =
        CliTargetPages(CliLoadTarget(options.m_sFile, options.m_bLenient), kBlockSize, '\xFF');
    if (blocks.rbegin()->first > kMaxInfoBlock)
        CliFail(options.m_sFile + ": data above block " + std::to_string(kMaxInfoBlock), eCliExitUsage);
    CCliSession session(globals);
    CTarvikClientFirmware client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::unique_ptr<CCliProgress> progress =
        CliTargetProgress(globals, "firmware write", blocks.size() * kBlockSize, kBlockSize);
    for (const auto& block : blocks)
    {
        auto number = static_cast<unsigned short>(block.first);
        session.Check(client.WriteFlash(number, block.second.data()), "write block " + std::to_string(number));
        if (progress)
            progress->Add(kBlockSize);
    }
    progress.reset();
    uint64_t first = blocks.begin()->first;
    uint64_t last = blocks.rbegin()->first;
    CliPrint(globals,
             "wrote " + std::to_string(blocks.size()) + " blocks (" + std::to_string(first) + " to " +
                 std::to_string(last) + ") from " + options.m_sFile,
             TCliJson{{"blocks", blocks.size()}, {"first", first}, {"last", last}, {"file", options.m_sFile}});
}

void RunClear(const SCliGlobals& globals)
{
    CCliSession session(globals);
    CTarvikClientFirmware client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    session.Check(client.ClearFlash(), "clear");
    CliPrint(globals, "flash cleared", TCliJson{{"cleared", true}});
}
} // namespace

void RegisterFirmwareCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SFirmwareOptions>();
    SCliGlobals* g = &globals;
    CLI::App* fw = app.add_subcommand("firmware", "Service port of a gateway: firmware flash and information EEPROM");
    fw->require_subcommand(1);

    fw->add_subcommand("info", "Version strings and the fields of the information EEPROM")->callback([g] {
        RunInfo(*g);
    });

    CLI::App* cmd = fw->add_subcommand("read", "Read flash blocks (2048 bytes); prints a hex dump or writes FILE");
    cmd->add_option("--block", options->m_nBlock, "First block")
        ->capture_default_str()
        ->check(CLI::Range(0ul, kMaxInfoBlock));
    cmd->add_option("--count", options->m_nCount, "Number of blocks")
        ->capture_default_str()
        ->check(CLI::Range(1ul, kMaxInfoBlock + 1));
    cmd->add_option("FILE", options->m_sFile, "Write the blocks to this file (.hex, .s19, .srec or raw; - for stdout)");
    CliAddTargetOutputOption(cmd, options->m_sFile);
    cmd->callback([g, options] { RunRead(*g, *options); });

    cmd = fw->add_subcommand("write", "Write FILE to the flash block by block (the rest of a block 0xFF)");
    cmd->add_option("FILE", options->m_sFile,
                    "Image: .hex or .s19/.srec at its addresses, any other name raw bytes from block 0; - for "
                    "standard input")
        ->required();
    CliAddTargetLoadOption(cmd, options->m_bLenient);
    cmd->callback([g, options] { RunWrite(*g, *options); });

    fw->add_subcommand("clear", "Erase the whole firmware flash")->callback([g] { RunClear(*g); });
}
