// tarvik hex: inspect, convert and dump memory image files (Intel HEX, S-record, binary).
// The commands that make new images from old ones are in CmdHexEdit.cpp.
#include "CliFormat.h"
#include "HexFile.h"
#include "TarvikCli.h"

#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/hexfile/TarvikImageOps.h"

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
// Lines dumped per call to the image, so that a dump of any range needs little memory.
constexpr uint64_t kDumpChunkLines = 4096;
constexpr unsigned int kMaxDumpWidth = 256;

struct SHexOptions
{
    std::string m_sFile;
    std::string m_sOutput;
    std::string m_sOutputArgument; // convert's OUT, the older spelling of -o
    std::string m_sFormat;
    std::string m_sFrom;
    std::string m_sTo;
    unsigned int m_nWidth = 16;
    SHexLoadOptions m_oLoad;
};

// A piece of a block: first and last address.
struct SSpan
{
    uint64_t m_nFirst;
    uint64_t m_nLast;
};

// The pieces of the image's blocks between first and last, in address order.
std::vector<SSpan> DataSpans(const CTarvikHexfile& image, uint64_t first, uint64_t last)
{
    std::vector<SSpan> spans;
    for (const CTarvikHexfile::SMemoryBlock* block : CTarvikImageOps::SortedBlocks(image))
    {
        const uint64_t start = std::max(block->m_nStartAddress, first);
        const uint64_t end = std::min(block->m_nStartAddress + block->m_nLength - 1, last);
        if (start <= end)
            spans.push_back({start, end});
    }
    return spans;
}

TCliJson BlockJson(uint64_t start, uint64_t size)
{
    return {{"start", start}, {"end", start + size - 1}, {"size", size}};
}

TCliJson AddressJson(bool known, uint64_t address)
{
    return known ? TCliJson(address) : TCliJson(nullptr);
}

void PrintInfoJson(const std::string& file, const CTarvikHexfile& image)
{
    uint64_t lowest = 0;
    uint64_t highest = 0;
    const bool known = CTarvikImageOps::Bounds(image, lowest, highest);
    TCliJson list = TCliJson::array();
    for (const CTarvikHexfile::SMemoryBlock* block : CTarvikImageOps::SortedBlocks(image))
        list.push_back(BlockJson(block->m_nStartAddress, block->m_nLength));
    TCliJson json = {{"file", file},
                     {"format", HexFormatName(image.m_eType)},
                     {"blocks", list},
                     {"total", image.GetTotalBytes()},
                     {"min", AddressJson(known, lowest)},
                     {"max", AddressJson(known, highest)},
                     {"crc32", CTarvikImageOps::DataCrc(image)}};
    std::cout << CliJsonLine(json) << "\n";
}

void RunInfo(const SHexOptions& options, const SCliGlobals& globals)
{
    CTarvikHexfile image;
    HexLoad(image, options.m_sFile, options.m_oLoad);
    if (globals.m_bJson)
        return PrintInfoJson(options.m_sFile, image);
    const auto blocks = CTarvikImageOps::SortedBlocks(image);
    uint64_t lowest = 0;
    uint64_t highest = 0;
    const bool known = CTarvikImageOps::Bounds(image, lowest, highest);
    std::cout << "file:   " << options.m_sFile << "\n"
              << "format: " << HexFormatName(image.m_eType) << "\n"
              << "blocks: " << blocks.size() << "\n";
    for (const CTarvikHexfile::SMemoryBlock* block : blocks)
        std::cout << "  start " << CliHex(block->m_nStartAddress, 8) << "  end "
                  << CliHex(block->m_nStartAddress + block->m_nLength - 1, 8) << "  size " << block->m_nLength << "\n";
    std::cout << "total:  " << image.GetTotalBytes() << " bytes\n"
              << "min:    " << (known ? CliHex(lowest, 8) : "-") << "\n"
              << "max:    " << (known ? CliHex(highest, 8) : "-") << "\n"
              << "crc32:  " << CliHex(CTarvikImageOps::DataCrc(image), 8) << "\n";
}

void RunConvert(const SHexOptions& options)
{
    CTarvikHexfile image;
    if (!options.m_sOutput.empty() && !options.m_sOutputArgument.empty())
        CliFail("convert: give the output once, as OUT or with -o", eCliExitUsage);
    const std::string output = options.m_sOutput.empty() ? options.m_sOutputArgument : options.m_sOutput;
    if (output.empty())
        CliFail("convert: name the output with -o FILE (- for standard output)", eCliExitUsage);
    const std::string format = HexOutputFormat(output, options.m_sFormat, "");
    if (format.empty())
        CliFail("convert: the name " + output +
                    " does not say the output format; choose one with -O intel, srec or bin",
                eCliExitUsage);
    HexLoad(image, options.m_sFile, options.m_oLoad);
    HexSave(image, output, format);
}

// Dump lines from start to end (both on the grid of lines), with their addresses.
void PrintDumpLines(const CTarvikHexfile& image, uint64_t start, uint64_t end, unsigned int width)
{
    const uint64_t lineChars = image.GetNumberOfBytesNeedForLine(width);
    const uint64_t chunkBytes = kDumpChunkLines * width;
    // Each line is appended to zero-filled text; one more character takes the final NUL.
    std::vector<char> text(kDumpChunkLines * lineChars + 1);
    for (;;)
    {
        const uint64_t last = end - start <= chunkBytes - 1 ? end : start + chunkBytes - 1;
        std::fill(text.begin(), text.end(), '\0');
        image.GetPrintDump(text.data(), width, start, last);
        const char* line = text.data();
        for (uint64_t address = start; *line != '\0'; address += width)
        {
            const char* newline = std::strchr(line, '\n');
            size_t length = newline != nullptr ? static_cast<size_t>(newline - line) : std::strlen(line);
            // The blanks that pad a short line say nothing.
            size_t shown = length;
            while (shown > 0 && line[shown - 1] == ' ')
                --shown;
            std::printf("%08" PRIX64 ":%.*s\n", address, static_cast<int>(shown), line);
            line += length + (newline != nullptr ? 1 : 0);
        }
        if (last == end)
            break;
        start = last + 1;
    }
}

void PrintDumpJson(const std::string& file, const CTarvikHexfile& image, const std::vector<SSpan>& spans)
{
    TCliJson list = TCliJson::array();
    for (const SSpan& span : spans)
    {
        const uint64_t size = span.m_nLast - span.m_nFirst + 1;
        TCliJson block = BlockJson(span.m_nFirst, size);
        std::string bytes(size, '\0');
        for (uint64_t i = 0; i < size; ++i)
            bytes[i] = image.GetDataByte(span.m_nFirst + i);
        block["data"] = CliHexBytes(bytes, "");
        list.push_back(block);
    }
    std::cout << CliJsonLine({{"file", file}, {"blocks", list}}) << "\n";
}

// Lines run on a grid from the first address; runs of lines with data are printed, and
// what lies between them is one line that says how many bytes are missing.
void PrintDump(const CTarvikHexfile& image, const std::vector<SSpan>& spans, uint64_t from, uint64_t to,
               unsigned int width)
{
    for (size_t i = 0; i < spans.size();)
    {
        const uint64_t firstLine = from + (spans[i].m_nFirst - from) / width * width;
        size_t j = i;
        uint64_t lastLine = from + (spans[j].m_nLast - from) / width * width;
        while (j + 1 < spans.size() && spans[j + 1].m_nFirst <= lastLine + 2 * uint64_t(width) - 1)
            lastLine = from + (spans[++j].m_nLast - from) / width * width;
        PrintDumpLines(image, firstLine, std::min(lastLine + width - 1, to), width);
        if (j + 1 < spans.size())
            std::printf("-- gap of %" PRIu64 " bytes --\n", spans[j + 1].m_nFirst - spans[j].m_nLast - 1);
        i = j + 1;
    }
}

void RunDump(const SHexOptions& options, const SCliGlobals& globals)
{
    CTarvikHexfile image;
    HexLoad(image, options.m_sFile, options.m_oLoad);
    uint64_t lowest = 0;
    uint64_t highest = 0;
    const bool known = CTarvikImageOps::Bounds(image, lowest, highest);
    const uint64_t from = options.m_sFrom.empty() ? 0 : CliParseNumber(options.m_sFrom, 0xFFFFFFFFul, "--from");
    const uint64_t to = options.m_sTo.empty() ? highest : CliParseNumber(options.m_sTo, 0xFFFFFFFFul, "--to");
    if (!options.m_sTo.empty() && from > to)
        CliFail("--from " + options.m_sFrom + " is above --to " + options.m_sTo, eCliExitUsage);
    const std::vector<SSpan> spans = known ? DataSpans(image, from, to) : std::vector<SSpan>();
    if (globals.m_bJson)
        return PrintDumpJson(options.m_sFile, image, spans);
    PrintDump(image, spans, from, to, options.m_nWidth);
}

void AddInfo(CLI::App* hex, const std::shared_ptr<SHexOptions>& options, SCliGlobals& globals)
{
    CLI::App* info = hex->add_subcommand("info", "Format, blocks, address range and CRC-32 of an image");
    info->add_option("FILE", options->m_sFile, "Image file (- for standard input)")->required();
    HexAddLoadOptions(info, options->m_oLoad,
                      "min and max are the lowest and highest address that hold data. crc32 is the CRC-32\n"
                      "(Boost crc_32_type) of the blocks' bytes in address order, gaps left out; hex crc\n"
                      "covers an address range with the gaps filled.");
    info->fallthrough();
    info->callback([options, &globals]() { RunInfo(*options, globals); });
}

void AddConvert(CLI::App* hex, const std::shared_ptr<SHexOptions>& options)
{
    CLI::App* convert = hex->add_subcommand("convert", "Load an image and save it in another format");
    convert->add_option("IN", options->m_sFile, "Input image file (- for standard input)")->required();
    convert->add_option("OUT", options->m_sOutputArgument, "Output file, the same as -o");
    convert->add_option("-o,--output", options->m_sOutput, "Output file (- for standard output)");
    convert->add_option("-O,--output-format", options->m_sFormat, "Output format (default: from the output's name)")
        ->check(CLI::IsMember({"intel", "srec", "bin"}));
    HexAddLoadOptions(convert, options->m_oLoad);
    convert->fallthrough();
    convert->callback([options]() { RunConvert(*options); });
}

void AddDump(CLI::App* hex, const std::shared_ptr<SHexOptions>& options, SCliGlobals& globals)
{
    CLI::App* dump = hex->add_subcommand("dump", "Hexadecimal dump of the data, block by block");
    dump->add_option("FILE", options->m_sFile, "Image file (- for standard input)")->required();
    dump->add_option("--from", options->m_sFrom, "First address (decimal or 0x hex; default 0)");
    dump->add_option("--to", options->m_sTo, "Last address (decimal or 0x hex; default: highest address)");
    dump->add_option("--width", options->m_nWidth, "Bytes per line")->check(CLI::Range(1u, kMaxDumpWidth));
    HexAddLoadOptions(dump, options->m_oLoad,
                      "-- marks a byte that is not in the image; lines without data are left out, and a line\n"
                      "\"-- gap of N bytes --\" says how many bytes lie between two pieces of data.");
    dump->fallthrough();
    dump->callback([options, &globals]() { RunDump(*options, globals); });
}
} // namespace

void RegisterHexCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SHexOptions>();
    CLI::App* hex = app.add_subcommand("hex", "Memory image files: Intel HEX, Motorola S-record, binary");
    hex->require_subcommand(1);
    hex->fallthrough();
    AddInfo(hex, options, globals);
    AddConvert(hex, options);
    AddDump(hex, options, globals);
    RegisterHexEditCommands(hex, globals);
}
