// Pieces shared by the target commands (eeprom, renesas, firmware): memory contents in
// files, page grouping and hex dumps.
//
// Files: a name ending in .hex or .ihex goes through the hex-file component as Intel HEX,
// one ending in .s19, .s28, .s37, .srec or .mot as S-records, with the addresses the image
// holds; any other name is raw bytes from address 0. "-" is standard input or output.
// Images are checked record by record: a damaged one ends the command before anything is
// sent, unless lenient.
#ifndef TARVIK_TOOLS_CLITARGET_H
#define TARVIK_TOOLS_CLITARGET_H

#include "CliFormat.h"
#include "CliProgress.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

// A run of bytes at an address.
struct SCliSpan
{
    uint64_t m_nAddress;
    std::string m_sBytes;
};

// Whether file names an image (see above, any case) rather than raw bytes.
bool CliIsImageFile(const std::string& file);

// The runs of file in address order, runs that touch joined. A file that cannot be read,
// holds no bytes or is damaged (unless lenient: then warnings) ends the command.
std::vector<SCliSpan> CliLoadTarget(const std::string& file, bool lenient = false);

// --lenient (alias --ignore-checksum) for a command that loads a file with CliLoadTarget.
void CliAddTargetLoadOption(CLI::App* command, bool& lenient);
// -o/--output as another name of a command's FILE argument.
void CliAddTargetOutputOption(CLI::App* command, std::string& file);

// Writes bytes, which the target holds at address, to file: an image at that address,
// or the raw bytes. A failure leaves no file behind.
void CliSaveTarget(const std::string& file, uint64_t address, const std::string& bytes);

// The pages of pageSize bytes that the spans touch, by page number; the bytes of a page
// that no span holds are fill.
std::map<uint64_t, std::string> CliTargetPages(const std::vector<SCliSpan>& spans, size_t pageSize, char fill);

// Lines of 16 bytes, "00000100: DE AD BE EF ...", the first at address; no final newline.
std::string CliDumpLines(uint64_t address, const std::string& bytes);

// The JSON of a read: {"address":..., "length":..., "data":"DEADBEEF"} or, with a file,
// "file" instead of "data".
TCliJson CliReadJson(uint64_t address, const std::string& bytes, const std::string& file);

// A progress bar for a transfer of total bytes in requests of step bytes: only when it
// takes more than one request, and not with --json, whose stderr stays quiet.
std::unique_ptr<CCliProgress> CliTargetProgress(const SCliGlobals& globals, const std::string& label, uint64_t total,
                                                uint64_t step);

// Prints what a read brought: the dump (or the JSON line) when file is empty, else writes
// the file and says so.
void CliPrintRead(const SCliGlobals& globals, uint64_t address, const std::string& bytes, const std::string& file);

#endif
