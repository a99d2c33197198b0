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
    bool m_bStrict = false;             // records of an unsupported type fail the load
    bool m_bIgnoreChecksum = false;     // Intel records with a wrong checksum only warn
    std::string m_sFormatOption = "-i"; // the option that forces the format, as warnings name it
};

// Loads file ("-": standard input) into the empty image. Problems of single lines are reported
// on stderr; the command ends with exit code 1 when the image would not be what the file says.
void HexLoad(CTarvikHexfile& image, const std::string& file, const SHexLoadOptions& options);

// Saves image as format ("intel", "srec", "bin") to file ("-": standard output). The file is
// written under a temporary name beside it and renamed into place, so a failure leaves no
// output behind and an existing file untouched.
void HexSave(CTarvikHexfile& image, const std::string& file, const std::string& format);

CTarvikHexfile::EType HexFormatType(const std::string& format);
const char* HexFormatName(CTarvikHexfile::EType type);

// Adds the options that choose how inputs are read: -i/--input-format (also spelt with the
// extra name formatAlias, such as "--from", where the command has no other use for it),
// --strict and --ignore-checksum, and a help footer (note first, then how inputs are read).
void HexAddLoadOptions(CLI::App* command, SHexLoadOptions& options, const std::string& formatAlias = "",
                       const std::string& note = "");

// merge, crop, fill, offset, cmp and crc.
void RegisterHexEditCommands(CLI::App* hex, SCliGlobals& globals);

#endif
