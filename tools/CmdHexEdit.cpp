// tarvik hex merge | crop | fill | offset | cmp | crc: new images from old ones, and
// comparisons and checksums of images.
#include "CliFormat.h"
#include "HexFile.h"
#include "TarvikCli.h"

#include "tarvik/hexfile/TarvikImageOps.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace
{
constexpr unsigned long kMaxAddress = 0xFFFFFFFFul;

struct SEditOptions
{
    std::vector<std::string> m_asFiles; // merge and cmp
    std::string m_sFile;                // the one input of the others
    std::string m_sOutput;
    std::string m_sFormat; // output format; empty: the first input's
    std::string m_sFrom;
    std::string m_sTo;
    std::string m_sByte = "0xFF";
    std::string m_sDelta;
    size_t m_nMaxDifferences = 16;
    bool m_bNoOverlap = false;
    SHexLoadOptions m_oLoad;
};

typedef std::vector<std::unique_ptr<CTarvikHexfile>> TImages;

TImages LoadAll(const SEditOptions& options)
{
    if (std::count(options.m_asFiles.begin(), options.m_asFiles.end(), "-") > 1)
        CliFail("standard input (-) can be read only once", eCliExitUsage);
    TImages images;
    for (const std::string& file : options.m_asFiles)
    {
        images.emplace_back(new CTarvikHexfile);
        HexLoad(*images.back(), file, options.m_oLoad);
    }
    return images;
}

std::unique_ptr<CTarvikHexfile> LoadOne(const SEditOptions& options)
{
    std::unique_ptr<CTarvikHexfile> image(new CTarvikHexfile);
    HexLoad(*image, options.m_sFile, options.m_oLoad);
    return image;
}

void Save(CTarvikHexfile& image, const SEditOptions& options, const CTarvikHexfile& first)
{
    HexSave(image, options.m_sOutput,
            HexOutputFormat(options.m_sOutput, options.m_sFormat, HexFormatName(first.m_eType)));
}

// --from and --to; without them, the image's own lowest and highest address.
void ParseRange(const SEditOptions& options, const CTarvikHexfile& image, uint64_t& first, uint64_t& last)
{
    if (!CTarvikImageOps::Bounds(image, first, last))
        first = last = 0;
    if (!options.m_sFrom.empty())
        first = CliParseNumber(options.m_sFrom, kMaxAddress, "--from");
    if (!options.m_sTo.empty())
        last = CliParseNumber(options.m_sTo, kMaxAddress, "--to");
    if (first > last)
        CliFail("the range ends (" + CliHex(last, 8) + ") before it starts (" + CliHex(first, 8) + ")", eCliExitUsage);
}

unsigned char ParseByte(const std::string& text, const std::string& what)
{
    return static_cast<unsigned char>(CliParseNumber(text, 0xFF, what));
}

int64_t ParseDelta(const std::string& text)
{
    const bool negative = !text.empty() && text[0] == '-';
    const int64_t magnitude = static_cast<int64_t>(CliParseNumber(text.substr(negative ? 1 : 0), kMaxAddress, "DELTA"));
    return negative ? -magnitude : magnitude;
}

void RunMerge(const SEditOptions& options)
{
    const TImages images = LoadAll(options);
    std::vector<const CTarvikHexfile*> list;
    for (size_t i = 0; i < images.size(); ++i)
    {
        for (size_t j = 0; options.m_bNoOverlap && j < i; ++j)
        {
            uint64_t address = 0;
            if (CTarvikImageOps::FirstOverlap(*images[j], *images[i], address))
                CliFail(options.m_asFiles[i] + " overlaps " + options.m_asFiles[j] + " at " + CliHex(address, 8));
        }
        list.push_back(images[i].get());
    }
    CTarvikHexfile merged;
    CTarvikImageOps::Merge(list, merged);
    Save(merged, options, *images.front());
}

void RunCrop(const SEditOptions& options)
{
    const auto image = LoadOne(options);
    uint64_t first = 0;
    uint64_t last = 0;
    ParseRange(options, *image, first, last);
    CTarvikHexfile cropped;
    CTarvikImageOps::Crop(*image, first, last, cropped);
    Save(cropped, options, *image);
}

void RunFill(const SEditOptions& options)
{
    const auto image = LoadOne(options);
    uint64_t first = 0;
    uint64_t last = 0;
    ParseRange(options, *image, first, last);
    CTarvikHexfile filled;
    CTarvikImageOps::Fill(*image, first, last, ParseByte(options.m_sByte, "--byte"), filled);
    Save(filled, options, *image);
}

void RunOffset(const SEditOptions& options)
{
    const int64_t delta = ParseDelta(options.m_sDelta);
    const auto image = LoadOne(options);
    uint64_t lowest = 0;
    uint64_t highest = 0;
    if (CTarvikImageOps::Bounds(*image, lowest, highest))
    {
        if (delta < 0 && lowest < static_cast<uint64_t>(-delta))
            CliFail("moving by " + options.m_sDelta + " puts the data at " + CliHex(lowest, 8) + " below address 0");
        if (delta > 0 && highest + static_cast<uint64_t>(delta) > kMaxAddress)
            CliFail("moving by " + options.m_sDelta + " puts the data at " + CliHex(highest, 8) + " above " +
                    CliHex(kMaxAddress, 8));
    }
    CTarvikHexfile moved;
    CTarvikImageOps::Offset(*image, delta, moved);
    Save(moved, options, *image);
}

std::string ByteText(int byte)
{
    return byte < 0 ? "--" : CliHexBytes(std::string(1, static_cast<char>(byte)));
}

TCliJson ByteJson(int byte)
{
    return byte < 0 ? TCliJson(nullptr) : TCliJson(byte);
}

void PrintCompare(const SCliGlobals& globals, uint64_t count, const std::vector<CTarvikImageOps::SDifference>& first)
{
    if (globals.m_bJson)
    {
        TCliJson list = TCliJson::array();
        for (const CTarvikImageOps::SDifference& difference : first)
            list.push_back({{"address", difference.m_nAddress},
                            {"a", ByteJson(difference.m_nByteA)},
                            {"b", ByteJson(difference.m_nByteB)}});
        std::cout << CliJsonLine({{"equal", count == 0}, {"differences", count}, {"first", list}}) << "\n";
        return;
    }
    if (count == 0)
    {
        std::cout << "equal\n";
        return;
    }
    std::cout << "address     A  B\n";
    for (const CTarvikImageOps::SDifference& difference : first)
        std::cout << CliHex(difference.m_nAddress, 8) << "  " << ByteText(difference.m_nByteA) << " "
                  << ByteText(difference.m_nByteB) << "\n";
    std::cout << count << (count == 1 ? " byte differs" : " bytes differ") << "\n";
}

void RunCmp(const SEditOptions& options, const SCliGlobals& globals)
{
    const TImages images = LoadAll(options);
    std::vector<CTarvikImageOps::SDifference> first;
    const uint64_t count = CTarvikImageOps::Compare(*images[0], *images[1], options.m_nMaxDifferences, first);
    PrintCompare(globals, count, first);
    if (count > 0)
        CliFail("", eCliExitFailure); // the differences are the report
}

void RunCrc(const SEditOptions& options, const SCliGlobals& globals)
{
    const auto image = LoadOne(options);
    uint64_t first = 0;
    uint64_t last = 0;
    ParseRange(options, *image, first, last);
    const unsigned char fill = ParseByte(options.m_sByte, "--fill");
    const uint32_t crc = CTarvikImageOps::RangeCrc(*image, first, last, fill);
    const TCliJson json = {{"file", options.m_sFile}, {"from", first}, {"to", last}, {"fill", fill}, {"crc32", crc}};
    CliPrint(globals, CliHex(crc, 8), json);
}

void AddOutput(CLI::App* command, SEditOptions& options)
{
    command->add_option("-o,--output", options.m_sOutput, "Output file (- for standard output)")->required();
    command
        ->add_option("-O,--output-format", options.m_sFormat,
                     "Output format: intel, srec or bin (default: from the output's name, else the first input's)")
        ->check(CLI::IsMember({"intel", "srec", "bin"}));
}

void AddRange(CLI::App* command, SEditOptions& options)
{
    command->add_option("--from", options.m_sFrom, "First address (decimal or 0x hex; default: the lowest with data)");
    command->add_option("--to", options.m_sTo, "Last address (decimal or 0x hex; default: the highest with data)");
}

CLI::App* AddCommand(CLI::App* hex, const char* name, const std::string& help, SEditOptions& options,
                     std::function<void()> run, const std::string& note = "")
{
    CLI::App* command = hex->add_subcommand(name, help);
    HexAddLoadOptions(command, options.m_oLoad, note);
    command->fallthrough();
    command->callback(std::move(run));
    return command;
}

void AddMerge(CLI::App* hex, const std::shared_ptr<SEditOptions>& options)
{
    CLI::App* merge = AddCommand(
        hex, "merge", "Join images into one; where they overlap, the later file wins", *options,
        [options]() { RunMerge(*options); },
        "The output is written beside OUT under a temporary name and renamed into place, so a failed\n"
        "command leaves no output behind. The same holds for convert, crop, fill and offset.");
    merge->add_option("FILES", options->m_asFiles, "Input image files (- for standard input)")->required();
    AddOutput(merge, *options);
    merge->add_flag("--no-overlap", options->m_bNoOverlap, "Fail when two inputs hold the same address");
}

void AddCrop(CLI::App* hex, const std::shared_ptr<SEditOptions>& options)
{
    CLI::App* crop = AddCommand(hex, "crop", "Keep only the bytes from --from to --to", *options,
                                [options]() { RunCrop(*options); });
    crop->add_option("IN", options->m_sFile, "Input image file (- for standard input)")->required();
    AddRange(crop, *options);
    AddOutput(crop, *options);
}

void AddFill(CLI::App* hex, const std::shared_ptr<SEditOptions>& options)
{
    CLI::App* fill = AddCommand(hex, "fill", "Fill the gaps from --from to --to with a byte; data stays as it is",
                                *options, [options]() { RunFill(*options); });
    fill->add_option("IN", options->m_sFile, "Input image file (- for standard input)")->required();
    AddRange(fill, *options);
    fill->add_option("--byte", options->m_sByte, "Fill byte (decimal or 0x hex)")->capture_default_str();
    AddOutput(fill, *options);
}

void AddOffset(CLI::App* hex, const std::shared_ptr<SEditOptions>& options)
{
    CLI::App* offset = AddCommand(hex, "offset", "Move every block by DELTA bytes (negative moves down)", *options,
                                  [options]() { RunOffset(*options); });
    offset->add_option("IN", options->m_sFile, "Input image file (- for standard input)")->required();
    offset->add_option("DELTA", options->m_sDelta, "Bytes to move by (decimal or 0x hex, - for down)")->required();
    AddOutput(offset, *options);
}

void AddCmp(CLI::App* hex, const std::shared_ptr<SEditOptions>& options, SCliGlobals& globals)
{
    CLI::App* cmp = AddCommand(
        hex, "cmp", "Compare the bytes of two images, whatever their formats", *options,
        [options, &globals]() { RunCmp(*options, globals); },
        "Lists the first addresses at which the images differ (-- where an image has no byte) and\n"
        "the number of such addresses; exit code 0 when the images are equal, 1 when they differ.");
    cmp->add_option("FILES", options->m_asFiles, "The two image files A and B (- for standard input)")
        ->required()
        ->expected(2);
    cmp->add_option("-n,--max", options->m_nMaxDifferences, "Differences listed at most")->capture_default_str();
}

void AddCrc(CLI::App* hex, const std::shared_ptr<SEditOptions>& options, SCliGlobals& globals)
{
    CLI::App* crc = AddCommand(
        hex, "crc", "CRC-32 of an address range, gaps taken as the fill byte", *options,
        [options, &globals]() { RunCrc(*options, globals); },
        "The CRC-32 is Boost's crc_32_type (polynomial 0x04C11DB7 reflected, initial and final value\n"
        "0xFFFFFFFF) over every address from --from to --to, as over a binary file of that range.");
    crc->add_option("IN", options->m_sFile, "Input image file (- for standard input)")->required();
    AddRange(crc, *options);
    crc->add_option("--fill", options->m_sByte, "Byte taken for addresses without data")->capture_default_str();
}
} // namespace

void RegisterHexEditCommands(CLI::App* hex, SCliGlobals& globals)
{
    auto options = std::make_shared<SEditOptions>();
    AddMerge(hex, options);
    AddCrop(hex, options);
    AddFill(hex, options);
    AddOffset(hex, options);
    AddCmp(hex, options, globals);
    AddCrc(hex, options, globals);
}
