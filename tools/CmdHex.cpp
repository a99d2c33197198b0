// tarvik hex: inspect, convert and dump memory image files (Intel HEX, S-record, binary).
#include "CliFormat.h"
#include "TarvikCli.h"

#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace
{
// Bytes dumped per call to the image, so that a dump of any range needs little memory.
constexpr uint64_t kDumpChunkLines = 4096;
constexpr unsigned int kMaxDumpWidth = 256;

struct SHexOptions
{
    std::string m_sFile;
    std::string m_sOutput;
    std::string m_sFormat;
    std::string m_sFrom;
    std::string m_sTo;
    unsigned int m_nWidth = 16;
};

const char* FormatName(CTarvikHexfile::EType type)
{
    switch (type)
    {
    case CTarvikHexfile::Intel: return "intel";
    case CTarvikHexfile::Motorola: return "srec";
    case CTarvikHexfile::Binary: return "bin";
    default: return "unknown";
    }
}

void LoadImage(CTarvikHexfile& image, const std::string& file)
{
    if (image.LoadFile(file.c_str()) != 0)
        CliFail(image.GetErrorMessage());
}

void RunInfo(const SHexOptions& options, const SCliGlobals& globals)
{
    CTarvikHexfile image;
    LoadImage(image, options.m_sFile);
    const auto& blocks = image.GetMemoryBlocks();
    if (globals.m_bJson)
    {
        TCliJson list = TCliJson::array();
        for (const auto* block : blocks)
            list.push_back({{"start", block->m_nStartAddress},
                            {"end", block->m_nStartAddress + block->m_nLength - 1},
                            {"size", block->m_nLength}});
        TCliJson json = {{"file", options.m_sFile},
                         {"format", FormatName(image.m_eType)},
                         {"blocks", list},
                         {"total", image.GetTotalBytes()},
                         {"min", image.m_nMinAddr},
                         {"max", image.m_nMaxAddr}};
        std::cout << CliJsonLine(json) << "\n";
        return;
    }
    std::cout << "file:   " << options.m_sFile << "\n"
              << "format: " << FormatName(image.m_eType) << "\n"
              << "blocks: " << blocks.size() << "\n";
    for (const auto* block : blocks)
        std::cout << "  start " << CliHex(block->m_nStartAddress, 8) << "  end "
                  << CliHex(block->m_nStartAddress + block->m_nLength - 1, 8) << "  size " << block->m_nLength << "\n";
    std::cout << "total:  " << image.GetTotalBytes() << " bytes\n"
              << "min:    " << CliHex(image.m_nMinAddr, 8) << "\n"
              << "max:    " << CliHex(image.m_nMaxAddr, 8) << "\n";
}

void RunConvert(const SHexOptions& options)
{
    CTarvikHexfile image;
    LoadImage(image, options.m_sFile);
    CTarvikHexfile::EType type = CTarvikHexfile::Binary;
    if (options.m_sFormat == "intel")
        type = CTarvikHexfile::Intel;
    else if (options.m_sFormat == "srec")
        type = CTarvikHexfile::Motorola;
    if (image.SaveFile(options.m_sOutput.c_str(), type) != 0)
        CliFail(image.GetErrorMessage());
}

void RunDump(const SHexOptions& options)
{
    CTarvikHexfile image;
    LoadImage(image, options.m_sFile);
    if (image.GetMemoryBlocks().empty())
        return;
    uint64_t from = options.m_sFrom.empty() ? 0 : CliParseNumber(options.m_sFrom, ~0ul, "--from");
    uint64_t to = options.m_sTo.empty() ? image.m_nMaxAddr : CliParseNumber(options.m_sTo, ~0ul, "--to");
    if (from > to)
        CliFail("--from " + options.m_sFrom + " is above --to " + options.m_sTo, eCliExitUsage);
    if (from > image.m_nMaxAddr)
        return;
    to = std::min(to, image.m_nMaxAddr);

    const uint64_t width = options.m_nWidth;
    const uint64_t lineChars = image.GetNumberOfBytesNeedForLine(options.m_nWidth);
    const uint64_t chunkBytes = kDumpChunkLines * width;
    // Each line is appended to zero-filled text; one more character takes the final NUL.
    std::vector<char> text(kDumpChunkLines * lineChars + 1);
    for (uint64_t start = from;;)
    {
        const uint64_t end = to - start <= chunkBytes - 1 ? to : start + chunkBytes - 1;
        std::fill(text.begin(), text.end(), '\0');
        image.GetPrintDump(text.data(), width, start, end);
        const char* line = text.data();
        for (uint64_t address = start; *line != '\0'; address += width)
        {
            const char* newline = std::strchr(line, '\n');
            size_t length = newline != nullptr ? static_cast<size_t>(newline - line) : std::strlen(line);
            std::printf("%08" PRIX64 ":%.*s\n", address, static_cast<int>(length), line);
            line += length + (newline != nullptr ? 1 : 0);
        }
        if (end == to)
            break;
        start = end + 1;
    }
}
} // namespace

void RegisterHexCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SHexOptions>();
    CLI::App* hex = app.add_subcommand("hex", "Memory image files: Intel HEX, Motorola S-record, binary");
    hex->require_subcommand(1);
    hex->fallthrough();

    CLI::App* info = hex->add_subcommand("info", "Format, blocks, total bytes, lowest and highest address");
    info->add_option("FILE", options->m_sFile, "Image file")->required();
    info->fallthrough();
    info->callback([options, &globals]() { RunInfo(*options, globals); });

    CLI::App* convert = hex->add_subcommand("convert", "Load an image and save it in another format");
    convert->add_option("IN", options->m_sFile, "Input image file")->required();
    convert->add_option("OUT", options->m_sOutput, "Output file")->required();
    convert->add_option("--to", options->m_sFormat, "Output format")
        ->required()
        ->check(CLI::IsMember({"intel", "srec", "bin"}));
    convert->fallthrough();
    convert->callback([options]() { RunConvert(*options); });

    CLI::App* dump =
        hex->add_subcommand("dump", "Hexadecimal dump of an address range; -- marks bytes not in the image");
    dump->add_option("FILE", options->m_sFile, "Image file")->required();
    dump->add_option("--from", options->m_sFrom, "First address (decimal or 0x hex; default 0)");
    dump->add_option("--to", options->m_sTo, "Last address (decimal or 0x hex; default: highest address)");
    dump->add_option("--width", options->m_nWidth, "Bytes per line")->check(CLI::Range(1u, kMaxDumpWidth));
    dump->fallthrough();
    dump->callback([options]() { RunDump(*options); });
}
