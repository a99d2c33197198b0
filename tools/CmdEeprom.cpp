// EEPROM commands through the I2C gateway: eeprom read, eeprom write. The library works
// out the slave address and the memory-address bytes from the type word; this tool cuts
// a transfer into requests that stay inside one page (writes) and one address block
// (reads), so that no request wraps inside the chip.
#include "CliFormat.h"
#include "CliProgress.h"
#include "CliSession.h"
#include "CliTarget.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientI2C.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>

namespace
{
// Bytes per read request: small enough for a smooth progress bar, large enough to be fast.
constexpr uint64_t kReadChunk = 256;
// Acknowledge polling after each page write, in ms: longer than any 24Cxx write cycle.
constexpr unsigned int kDefaultPollMs = 20;

struct SEepromOptions
{
    std::string m_sType;
    unsigned int m_nSelect = 0;
    std::string m_sOffset = "0";
    std::string m_sLength;
    std::string m_sFile;
    bool m_bLenient = false;
    std::string m_sData;
    unsigned int m_nPage = 0;
    unsigned int m_nPollMs = kDefaultPollMs;
};

// The chip as the type word describes it.
struct SChip
{
    unsigned short m_nType;
    unsigned int m_nBlockBits; // memory-address bits sent as address bytes
    uint64_t m_nSize;          // bytes the type word can address
};

SChip ParseChip(const SEepromOptions& options)
{
    SChip chip;
    chip.m_nType = static_cast<unsigned short>(CliParseNumber(options.m_sType, 0xFFFF, "--type"));
    // The library takes at most 16 of these bits into the slave address computation.
    chip.m_nBlockBits = std::min(chip.m_nType & 0xFFu, 16u);
    unsigned int bits = (chip.m_nType & 0xFFu) + ((chip.m_nType >> 8) & 3u);
    chip.m_nSize = bits >= 32 ? uint64_t(1) << 32 : uint64_t(1) << bits;
    return chip;
}

// The smallest page of the usual chips with that many address bits, so that a write never
// wraps inside a page: 8 bytes for a 24C01/02, 16 for 24C04 to 24C16, 32 from 24C32 on.
unsigned int DefaultPage(const SChip& chip)
{
    if ((chip.m_nType & 0xFF) > 8)
        return 32;
    return (chip.m_nType & 0x300) == 0 ? 8 : 16;
}

void CheckRange(const SChip& chip, uint64_t offset, uint64_t length, const std::string& what)
{
    if (offset + length > chip.m_nSize)
        CliFail(what + ": " + CliHex(offset, 4) + " + " + std::to_string(length) + " bytes is past the end of the " +
                    std::to_string(chip.m_nSize) + " bytes that type " + CliHex(chip.m_nType, 4) + " addresses",
                eCliExitUsage);
}

// Bytes of the next request from address on: at most limit, and not past the next
// boundary of size bytes.
uint64_t ChunkAt(uint64_t address, uint64_t left, uint64_t limit, uint64_t boundary)
{
    return std::min({left, limit, boundary - address % boundary});
}

void RunRead(const SCliGlobals& globals, const SEepromOptions& options)
{
    SChip chip = ParseChip(options);
    uint64_t offset = CliParseNumber(options.m_sOffset, 0xFFFFFFFFul, "--offset");
    uint64_t length = CliParseNumber(options.m_sLength, 0xFFFFFFFFul, "length");
    CheckRange(chip, offset, length, "read");
    CCliSession session(globals);
    CTarvikClientI2C client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string bytes(static_cast<size_t>(length), '\0');
    uint64_t block = uint64_t(1) << chip.m_nBlockBits;
    std::unique_ptr<CCliProgress> progress = CliTargetProgress(globals, "eeprom read", length, kReadChunk);
    for (uint64_t done = 0; done < length;)
    {
        uint64_t address = offset + done;
        auto count = static_cast<unsigned short>(ChunkAt(address, length - done, kReadChunk, block));
        unsigned short received = 0;
        session.Check(client.ReadEEProm(static_cast<unsigned short>(options.m_nSelect),
                                        static_cast<unsigned int>(address), chip.m_nType, &bytes[done], count,
                                        received),
                      "read at " + CliHex(address, 4));
        if (received != count)
            CliFail("read at " + CliHex(address, 4) + ": the gateway sent " + std::to_string(received) + " of " +
                    std::to_string(count) + " bytes");
        done += count;
        if (progress)
            progress->Add(count);
    }
    progress.reset();
    CliPrintRead(globals, offset, bytes, options.m_sFile);
}

// The bytes to write: a file (an existing one, or "-"), or hex bytes on the command line.
std::vector<SCliSpan> WriteData(const std::string& text, bool lenient)
{
    struct stat info;
    if (text != "-" && stat(text.c_str(), &info) != 0)
    {
        try
        {
            std::string bytes = CliParseHexBytes(text, "data");
            if (!bytes.empty())
                return {SCliSpan{0, bytes}};
        }
        catch (const CCliError&)
        {
            // Not hex bytes either: loading it says that the file is missing.
        }
    }
    return CliLoadTarget(text, lenient);
}

void RunWrite(const SCliGlobals& globals, const SEepromOptions& options)
{
    SChip chip = ParseChip(options);
    uint64_t offset = CliParseNumber(options.m_sOffset, 0xFFFFFFFFul, "--offset");
    uint64_t page = options.m_nPage != 0 ? options.m_nPage : DefaultPage(chip);
    std::vector<SCliSpan> spans = WriteData(options.m_sData, options.m_bLenient);
    uint64_t total = 0;
    for (const SCliSpan& span : spans)
    {
        CheckRange(chip, offset + span.m_nAddress, span.m_sBytes.size(), "write");
        total += span.m_sBytes.size();
    }
    CCliSession session(globals);
    CTarvikClientI2C client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::unique_ptr<CCliProgress> progress = CliTargetProgress(globals, "eeprom write", total, page);
    std::string text;
    TCliJson list = TCliJson::array();
    for (const SCliSpan& span : spans)
    {
        uint64_t start = offset + span.m_nAddress;
        for (uint64_t done = 0; done < span.m_sBytes.size();)
        {
            uint64_t address = start + done;
            auto count = static_cast<unsigned short>(ChunkAt(address, span.m_sBytes.size() - done, page, page));
            const char* data = span.m_sBytes.data() + done;
            auto select = static_cast<unsigned short>(options.m_nSelect);
            int result = options.m_nPollMs == 0
                             ? client.WriteEEProm(select, static_cast<unsigned int>(address), chip.m_nType, data, count)
                             : client.WriteEEPromPollAck(select, static_cast<unsigned int>(address), chip.m_nType, data,
                                                         count, static_cast<unsigned short>(options.m_nPollMs));
            session.Check(result, "write at " + CliHex(address, 4));
            done += count;
            if (progress)
                progress->Add(count);
        }
        text += (text.empty() ? "" : "\n") +
                ("wrote " + std::to_string(span.m_sBytes.size()) + " bytes at " + CliHex(start, 4));
        list.push_back({{"address", start}, {"length", span.m_sBytes.size()}});
    }
    progress.reset();
    CliPrint(globals, text, TCliJson{{"written", total}, {"spans", list}});
}

void AddChipOptions(CLI::App* cmd, SEepromOptions& options)
{
    cmd->add_option("--type", options.m_sType,
                    "EEPROM type word: bits 0-7 address bits in the address bytes, 8-9 address bits in the "
                    "slave address, 10 those above the chip-select bits (e.g. 0x0008 24C02, 0x0108 24C04, "
                    "0x0010 24C256)")
        ->required();
    cmd->add_option("--select", options.m_nSelect, "Chip-select pins of the chip")
        ->capture_default_str()
        ->check(CLI::Range(0u, 0xFFFFu));
    cmd->add_option("--offset", options.m_sOffset, "First memory address (decimal or 0x hex)")->capture_default_str();
}
} // namespace

void RegisterEepromCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SEepromOptions>();
    SCliGlobals* g = &globals;
    CLI::App* eeprom = app.add_subcommand("eeprom", "Serial EEPROM (24Cxx) on an I2C gateway: read and write");
    eeprom->require_subcommand(1);
    const char* files = "FILE: a name ending in .hex (Intel HEX) or .s19/.srec (S-records) is an image with its\n"
                        "own addresses, any other name raw bytes; - is standard input or output.";

    CLI::App* cmd = eeprom->add_subcommand("read", "Read LEN bytes; prints a hex dump or writes FILE");
    AddChipOptions(cmd, *options);
    cmd->add_option("LEN", options->m_sLength, "Bytes to read")->required();
    cmd->add_option("FILE", options->m_sFile, "Write the bytes to this file instead of printing them");
    CliAddTargetOutputOption(cmd, options->m_sFile);
    cmd->footer(files);
    cmd->callback([g, options] { RunRead(*g, *options); });

    cmd = eeprom->add_subcommand("write", "Write FILE, or hex bytes, page by page");
    AddChipOptions(cmd, *options);
    cmd->add_option("DATA", options->m_sData, "A file, or the bytes in hex (e.g. 0102CAFE)")->required();
    cmd->add_option("--page", options->m_nPage,
                    "Page size of the chip: no write request crosses a page (default: 8, 16 or 32 by the type)")
        ->check(CLI::Range(1u, 0x8000u));
    cmd->add_option("--poll", options->m_nPollMs,
                    "Let the gateway poll the chip up to this many ms after each page (0: no polling)")
        ->capture_default_str()
        ->check(CLI::Range(0u, 0xFFFFu));
    CliAddTargetLoadOption(cmd, options->m_bLenient);
    cmd->footer(files + std::string("\nAn image is written at its addresses plus --offset."));
    cmd->callback([g, options] { RunWrite(*g, *options); });
}
