// Reading and writing image files for the hex tool: the choice of input format, the
// reports of lines that could not be read, "-" for standard input and output, and outputs
// that appear complete or not at all.
#ifndef TARVIK_TOOLS_HEXFILE_H
#define TARVIK_TOOLS_HEXFILE_H

#include "TarvikCli.h"

#include "tarvik/hexfile/TarvikHexfile.h"

#include <string>

// How input files are read.
struct SHexLoadOptions
{
    std::string m_sFormat;              // "intel", "srec", "bin"; empty: from the contents
    bool m_bLenient = false;            // problems of the file only warn
    bool m_bStrict = false;             // the default; the option is still taken
    std::string m_sFormatOption = "-I"; // the option that forces the format, as messages name it
};

// Loads file ("-": standard input) into the empty image and checks every record. Each problem
// is reported on stderr with its line; the command then ends with exit code 1 before anything
// is done with the image, or goes on with --lenient (the problems are warnings then).
void HexLoad(CTarvikHexfile& image, const std::string& file, const SHexLoadOptions& options);

// Saves image as format ("intel", "srec", "bin") to file ("-": standard output). The file is
// written under a temporary name beside it and renamed into place, so a failure, Ctrl-C or
// SIGTERM leaves no output behind and an existing file untouched. S-records end in a
// termination record (S9, S8 or S7), so that the file reads back as complete.
void HexSave(CTarvikHexfile& image, const std::string& file, const std::string& format);

// The format of an output: given when it is not empty, else what the file's extension says
// (.hex/.ihex, .s19/.s28/.s37/.srec/.mot, .bin), else fallback.
std::string HexOutputFormat(const std::string& file, const std::string& given, const std::string& fallback);

CTarvikHexfile::EType HexFormatType(const std::string& format);
const char* HexFormatName(CTarvikHexfile::EType type);

// Adds the options that choose how inputs are read: -I/--input-format and --lenient (alias
// --ignore-checksum), and a help footer (note first, then how inputs and outputs are handled).
void HexAddLoadOptions(CLI::App* command, SHexLoadOptions& options, const std::string& note = "");

// merge, crop, fill, offset, cmp and crc.
void RegisterHexEditCommands(CLI::App* hex, SCliGlobals& globals);

#endif
