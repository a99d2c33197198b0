#include "CliTarget.h"

#include "HexFile.h"

#include "tarvik/hexfile/TarvikImageOps.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace
{
constexpr size_t kDumpWidth = 16;

// The format that the name asks for: "intel", "srec" or "bin".
std::string FormatOf(const std::string& file)
{
    return HexOutputFormat(file, "", "bin");
}
} // namespace

bool CliIsImageFile(const std::string& file)
{
    return FormatOf(file) != "bin";
}

std::vector<SCliSpan> CliLoadTarget(const std::string& file, bool lenient)
{
    CTarvikHexfile image;
    SHexLoadOptions options;
    options.m_bLenient = lenient;
    // The name decides, not the contents: a binary that happens to start with ':' stays bytes.
    options.m_sFormat = FormatOf(file);
    HexLoad(image, file, options);
    std::vector<SCliSpan> spans;
    for (const CTarvikHexfile::SMemoryBlock* block : CTarvikImageOps::SortedBlocks(image))
    {
        std::string bytes(block->m_pData, static_cast<size_t>(block->m_nLength));
        if (!spans.empty() && spans.back().m_nAddress + spans.back().m_sBytes.size() == block->m_nStartAddress)
            spans.back().m_sBytes += bytes;
        else
            spans.push_back({block->m_nStartAddress, bytes});
    }
    if (spans.empty())
        CliFail(file + ": no data in the file");
    return spans;
}

void CliAddTargetLoadOption(CLI::App* command, bool& lenient)
{
    command->add_flag("--lenient,--ignore-checksum", lenient,
                      "Take a damaged image as it is: its problems become warnings (refused by default)");
}

void CliAddTargetOutputOption(CLI::App* command, std::string& file)
{
    command->add_option("-o,--output", file, "The same as FILE");
}

void CliSaveTarget(const std::string& file, uint64_t address, const std::string& bytes)
{
    std::string format = FormatOf(file);
    CTarvikHexfile image;
    // Raw bytes start at address 0 of the file, whatever the target's address.
    image.AddMemoryBlock(new CTarvikHexfile::SMemoryBlock(format == "bin" ? 0 : address, bytes.data(), bytes.size()));
    HexSave(image, file, format);
}

std::map<uint64_t, std::string> CliTargetPages(const std::vector<SCliSpan>& spans, size_t pageSize, char fill)
{
    std::map<uint64_t, std::string> pages;
    for (const SCliSpan& span : spans)
    {
        for (size_t done = 0; done < span.m_sBytes.size();)
        {
            uint64_t address = span.m_nAddress + done;
            size_t inPage = static_cast<size_t>(address % pageSize);
            size_t count = std::min(pageSize - inPage, span.m_sBytes.size() - done);
            auto page = pages.emplace(address / pageSize, std::string(pageSize, fill)).first;
            page->second.replace(inPage, count, span.m_sBytes, done, count);
            done += count;
        }
    }
    return pages;
}

std::string CliDumpLines(uint64_t address, const std::string& bytes)
{
    std::string text;
    char label[24];
    for (size_t pos = 0; pos < bytes.size(); pos += kDumpWidth)
    {
        const size_t count = std::min(kDumpWidth, bytes.size() - pos);
        std::snprintf(label, sizeof(label), "%08llX:", static_cast<unsigned long long>(address) + pos);
        std::string line = label;
        for (size_t i = 0; i < kDumpWidth; ++i)
        {
            if (i % 8 == 0)
                line += ' ';
            line += i < count ? CliHexBytes(bytes.data() + pos + i, 1) + " " : "   ";
        }
        for (size_t i = 0; i < kDumpWidth; ++i)
        {
            const unsigned char byte = i < count ? static_cast<unsigned char>(bytes[pos + i]) : ' ';
            line += byte < 0x20 || byte >= 0x7F ? '.' : static_cast<char>(byte);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += (pos != 0 ? "\n" : "") + line;
    }
    return text.empty() ? "(no data)" : text;
}

TCliJson CliReadJson(uint64_t address, const std::string& bytes, const std::string& file)
{
    TCliJson json = {{"address", address}, {"length", bytes.size()}};
    if (file.empty())
        json["data"] = CliHexBytes(bytes, "");
    else
        json["file"] = file;
    return json;
}

void CliPrintRead(const SCliGlobals& globals, uint64_t address, const std::string& bytes, const std::string& file)
{
    if (file.empty())
        return CliPrint(globals, CliDumpLines(address, bytes), CliReadJson(address, bytes, ""));
    CliSaveTarget(file, address, bytes);
    // Standard output carries the bytes themselves.
    if (file != "-")
        CliPrint(globals, "read " + std::to_string(bytes.size()) + " bytes from " + CliHex(address, 4) + " to " + file,
                 CliReadJson(address, bytes, file));
}

std::unique_ptr<CCliProgress> CliTargetProgress(const SCliGlobals& globals, const std::string& label, uint64_t total,
                                                uint64_t step)
{
    if (globals.m_bJson || total <= step)
        return nullptr;
    return std::unique_ptr<CCliProgress>(new CCliProgress(label, total));
}
