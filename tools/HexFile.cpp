#include "HexFile.h"

#include "CliFormat.h"
#include "HexImage.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{
// The first bytes decide whether a file that is not taken as text looks like text.
constexpr size_t kSniffBytes = 1 << 16;
// Lines of one kind reported in full; more are only counted.
constexpr size_t kReportedLines = 10;

const char kUtf8Bom[] = "\xEF\xBB\xBF";

const char kInputHelp[] =
    "Inputs: a file that starts with ':' is Intel HEX, with 'S' S-records, anything else raw bytes at\n"
    "address 0. A hex file that starts with a comment, a blank line or a byte-order mark is read as\n"
    "what its first record is, with a warning; a text file without records is read as bytes, with a\n"
    "warning. -i forces the format. Records of an unsupported type (Intel 03, S4, S6) are skipped\n"
    "with a warning; Intel records with a wrong checksum fail the command.\n"
    "Exit codes: 0 success; 1 a file that cannot be read or written faithfully, or images that differ\n"
    "(cmp); 2 unusable arguments.";

// ---------------------------------------------------------------------------------------------
// Temporary files

std::string TempDirectory()
{
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

// A file made with mkstemp in a given directory, removed again unless it was renamed away.
class CTempFile
{
public:
    CTempFile(const std::string& directory, const std::string& stem)
    {
        std::vector<char> name(directory.begin(), directory.end());
        const std::string tail = "/." + stem + ".XXXXXX";
        name.insert(name.end(), tail.begin(), tail.end());
        name.push_back('\0');
        const int fd = mkstemp(name.data());
        if (fd < 0)
            CliFailFile(directory, errno); // the output's directory: missing, not writable, ...
        close(fd);
        m_sPath = name.data();
    }
    ~CTempFile()
    {
        if (!m_sPath.empty())
            std::remove(m_sPath.c_str());
    }
    CTempFile(const CTempFile&) = delete;
    CTempFile& operator=(const CTempFile&) = delete;

    const std::string& Path() const { return m_sPath; }
    // Gives the file the name target; it is no longer removed.
    void RenameTo(const std::string& target)
    {
        if (std::rename(m_sPath.c_str(), target.c_str()) != 0)
            CliFailFile(target, errno);
        m_sPath.clear();
    }

private:
    std::string m_sPath;
};

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::string& data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    if (!out.flush())
        CliFailFile(path, errno != 0 ? errno : EIO);
}

void CopyStream(std::istream& in, std::ostream& out, const std::string& what)
{
    char buffer[1 << 16];
    while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0)
        out.write(buffer, in.gcount());
    if (in.bad() || !out.flush())
        CliFail("cannot copy " + what);
}

// The library reads files by name: standard input is copied to a temporary file first.
class CInputFile
{
public:
    explicit CInputFile(const std::string& file) : m_sPath(file), m_sDisplay(file)
    {
        if (file != "-")
        {
            std::ifstream probe; // a missing file or a directory fails here, saying why
            CliOpenRead(probe, file, std::ios::binary);
            return;
        }
        m_pCopy.reset(new CTempFile(TempDirectory(), "tarvik-stdin"));
        m_sPath = m_pCopy->Path();
        m_sDisplay = "<stdin>";
        std::ofstream out(m_sPath, std::ios::binary | std::ios::trunc);
        CopyStream(std::cin, out, "standard input");
    }

    std::string m_sPath;    // what the library opens
    std::string m_sDisplay; // what messages call it

private:
    std::unique_ptr<CTempFile> m_pCopy;
};

// ---------------------------------------------------------------------------------------------
// Standard output of the library

// The library prints some line errors on standard output, each line ending in a NUL. They are
// caught in a file while a load runs, so that they cannot mix with the tool's own output.
class CStdoutCapture
{
public:
    CStdoutCapture() : m_pFile(std::tmpfile())
    {
        if (m_pFile == nullptr)
            CliFail(std::string("cannot create a temporary file: ") + std::strerror(errno));
        std::cout.flush();
        std::fflush(stdout);
        m_nSaved = dup(STDOUT_FILENO);
        if (m_nSaved >= 0 && dup2(fileno(m_pFile), STDOUT_FILENO) >= 0)
            return;
        Restore();
        std::fclose(m_pFile);
        CliFail(std::string("cannot redirect standard output: ") + std::strerror(errno));
    }
    ~CStdoutCapture()
    {
        Restore();
        if (m_pFile != nullptr)
            std::fclose(m_pFile);
    }
    CStdoutCapture(const CStdoutCapture&) = delete;
    CStdoutCapture& operator=(const CStdoutCapture&) = delete;

    // Ends the capture and returns what was printed.
    std::string Finish()
    {
        Restore();
        std::string text;
        std::rewind(m_pFile);
        char buffer[4096];
        for (size_t got = 0; (got = std::fread(buffer, 1, sizeof(buffer), m_pFile)) > 0;)
            text.append(buffer, got);
        return text;
    }

private:
    void Restore()
    {
        if (m_nSaved < 0)
            return;
        std::cout.flush();
        std::fflush(stdout);
        dup2(m_nSaved, STDOUT_FILENO);
        close(m_nSaved);
        m_nSaved = -1;
    }

    FILE* m_pFile;
    int m_nSaved = -1;
};

// Library text without the NUL that ends its lines and without carriage returns.
std::string CleanText(const std::string& text)
{
    std::string clean;
    for (char c : text)
        if (c != '\0' && c != '\r')
            clean += c;
    while (!clean.empty() && (clean.back() == ' ' || clean.back() == '\n'))
        clean.pop_back();
    return clean;
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < text.size())
    {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = CleanText(text.substr(begin, end - begin));
        if (!line.empty())
            lines.push_back(line);
        begin = end + 1;
    }
    return lines;
}

void Warn(const std::string& text)
{
    CliWarn(text);
}
} // namespace

namespace
{
// ---------------------------------------------------------------------------------------------
// Choosing the input format

const char* LongFormatName(CTarvikHexfile::EType type)
{
    return type == CTarvikHexfile::Intel ? "Intel HEX" : type == CTarvikHexfile::Motorola ? "S-records" : "raw binary";
}

bool HexDigits(const std::string& text, size_t from, size_t count)
{
    if (text.size() < from + count)
        return false;
    for (size_t i = from; i < from + count; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

// The format of a line that looks like a record: ":" with count, address and type, or "S",
// a type digit and a count.
CTarvikHexfile::EType RecordFormat(const std::string& line)
{
    if (!line.empty() && line[0] == ':' && HexDigits(line, 1, 8))
        return CTarvikHexfile::Intel;
    if (line.size() > 1 && line[0] == 'S' && std::isdigit(static_cast<unsigned char>(line[1])) && HexDigits(line, 2, 2))
        return CTarvikHexfile::Motorola;
    return CTarvikHexfile::Binary;
}

bool IsCommentLine(const std::string& line)
{
    return !line.empty() && (line[0] == ';' || line[0] == '#');
}

bool IsBlankLine(const std::string& line)
{
    return line.find_first_not_of(" \t\r\f\v") == std::string::npos;
}

// What a text's first record is, past a byte-order mark, blank lines and comments; lead
// receives what came before it. Binary when no record comes first.
CTarvikHexfile::EType FirstRecordFormat(const std::string& head, std::string& lead)
{
    size_t pos = 0;
    if (head.compare(0, 3, kUtf8Bom) == 0)
    {
        lead = "a byte-order mark";
        pos = 3;
    }
    while (pos < head.size())
    {
        size_t end = head.find('\n', pos);
        end = end == std::string::npos ? head.size() : end;
        const std::string line = head.substr(pos, end - pos);
        if (!IsBlankLine(line) && !IsCommentLine(line))
            return RecordFormat(line);
        if (lead.empty())
            lead = IsCommentLine(line) ? "a comment line" : "a blank line";
        pos = end + 1;
    }
    return CTarvikHexfile::Binary;
}

// Text of any language: no control characters besides line ends and tabs.
bool LooksLikeText(const std::string& head)
{
    for (char c : head)
    {
        const unsigned char byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && std::strchr("\t\n\r\f\v", c) == nullptr) || byte == 0x7F)
            return false;
    }
    return !head.empty();
}

std::string ReadHead(const CInputFile& input)
{
    std::ifstream in;
    CliOpenRead(in, input.m_sPath, std::ios::binary);
    std::string head(kSniffBytes, '\0');
    in.read(&head[0], static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    return head;
}

// The library takes a file that does not start with ':' or 'S' as raw bytes. A hex file
// that only starts with something else is read as what it is, with a warning; a text file
// without records is still read as bytes, but not without saying so.
CTarvikHexfile::EType ChooseFormat(const CInputFile& input, const SHexLoadOptions& options)
{
    if (!options.m_sFormat.empty())
        return HexFormatType(options.m_sFormat);
    const std::string head = ReadHead(input);
    if (head.empty() || head[0] == ':' || head[0] == 'S')
        return CTarvikHexfile::Detect;
    std::string lead;
    const CTarvikHexfile::EType format = FirstRecordFormat(head, lead);
    const std::string& option = options.m_sFormatOption;
    if (format != CTarvikHexfile::Binary)
        Warn(input.m_sDisplay + ": begins with " + lead + ", not with a record; read as " + LongFormatName(format) +
             " (" + option + " bin reads it as raw bytes)");
    else if (LooksLikeText(head))
        Warn(input.m_sDisplay + ": read as raw binary, but it looks like text; for Intel HEX or S-records use " +
             option + " intel or " + option + " srec");
    return format;
}

// The library refuses a byte-order mark and comment lines in S-records and '#' comments in
// Intel HEX. Comment lines become empty lines, so that line numbers stay as they were.
// Returns false when the text needed no change.
bool StripComments(std::string& text)
{
    bool changed = text.compare(0, 3, kUtf8Bom) == 0;
    if (changed)
        text.erase(0, 3);
    for (size_t pos = 0; pos < text.size();)
    {
        size_t end = text.find('\n', pos);
        end = end == std::string::npos ? text.size() : end;
        if (text[pos] == ';' || text[pos] == '#')
        {
            text.erase(pos, end - pos);
            changed = true;
            end = pos;
        }
        pos = end + 1;
    }
    return changed;
}

// ---------------------------------------------------------------------------------------------
// Reports of a load

struct SLineProblem
{
    size_t m_nLine;
    uint32_t m_nResult;
    std::string m_sText;
};

// The library reports only the last bad line. Its line parsers, run once more over the file,
// name every one.
std::vector<SLineProblem> FindBadLines(const std::string& path, CTarvikHexfile::EType format)
{
    std::vector<SLineProblem> problems;
    CTarvikHexfile scratch;
    CTarvikHexfile::CByteMap map;
    unsigned int extended = 0;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    // Wrong checksums are printed again; they were reported from the load already.
    CStdoutCapture capture;
    for (size_t number = 1; std::getline(in, line); ++number)
    {
        line.push_back('\0'); // as the library's reader hands lines on
        const uint32_t result = format == CTarvikHexfile::Intel ? scratch.AnalizeLineIntel(line, map, extended)
                                                                : scratch.AnalizeLineMotorola(line, map);
        map.Clear();
        if (result != CTarvikHexfile::ResultOk)
            problems.push_back({number, result, CleanText(scratch.GetErrorMessage())});
    }
    (void)capture.Finish();
    return problems;
}

size_t ReportLines(const std::string& display, const std::vector<SLineProblem>& problems, uint32_t result, bool warning)
{
    size_t count = 0;
    for (const SLineProblem& problem : problems)
    {
        if (problem.m_nResult != result || ++count > kReportedLines)
            continue;
        std::cerr << "tarvik: " << (warning ? "warning: " : "") << display << ":" << problem.m_nLine << ": "
                  << problem.m_sText << "\n";
    }
    if (count > kReportedLines)
        std::cerr << "tarvik: " << display << ": " << count - kReportedLines << " more such lines\n";
    return count;
}

std::string Plural(size_t count, const std::string& singular, const std::string& plural)
{
    return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

// The library's message on one line, naming the file as the user did.
std::string FlatMessage(std::string text, const std::string& path, const std::string& display)
{
    for (size_t pos = 0; (pos = text.find(path, pos)) != std::string::npos; pos += display.size())
        text.replace(pos, path.size(), display);
    const size_t question = text.find("\nIgnore error?");
    if (question != std::string::npos)
        text.erase(question);
    std::string flat;
    for (char c : CleanText(text))
        if (c != '\n' || (!flat.empty() && flat.back() != ' '))
            flat += c == '\n' ? ' ' : c;
    return flat;
}

struct SLoadReport
{
    std::string m_sPath;
    std::string m_sDisplay;
    CTarvikHexfile::EType m_eFormat;
    std::vector<std::string> m_asPrinted; // what the library printed
};

// Line errors: a record of an unsupported type warns (fails with --strict), a wrong checksum
// fails (warns with --ignore-checksum), a line that is no record fails.
void ReportLineErrors(const SLoadReport& report, const SHexLoadOptions& options)
{
    const std::vector<SLineProblem> problems = FindBadLines(report.m_sPath, report.m_eFormat);
    const std::string& display = report.m_sDisplay;
    for (const std::string& line : report.m_asPrinted)
        std::cerr << "tarvik: " << (options.m_bIgnoreChecksum ? "warning: " : "") << display << ": " << line << "\n";
    const size_t types = ReportLines(display, problems, CTarvikHexfile::ResultInvalidRecordType, !options.m_bStrict);
    const size_t formats = ReportLines(display, problems, CTarvikHexfile::ResultInvalidFormat, false);
    const size_t sums = report.m_asPrinted.size();
    if (formats > 0)
        CliFail(
            display + ": " + Plural(formats, "line is", "lines are") + " not a valid record" +
            (options.m_sFormat.empty() ? " (" + options.m_sFormatOption + " bin reads the file as raw bytes)" : ""));
    if (sums > 0 && !options.m_bIgnoreChecksum)
        CliFail(display + ": " + Plural(sums, "record has", "records have") +
                " a wrong checksum (--ignore-checksum takes the bytes as they are)");
    if (types > 0 && options.m_bStrict)
        CliFail(display + ": " + Plural(types, "record", "records") + " of an unsupported type");
    if (types > 0)
        Warn(display + ": " + Plural(types, "record", "records") +
             " of an unsupported type skipped (--strict makes this an error)");
    if (types + formats + sums == 0)
        CliFail(display + ": the file could not be read");
}

void ReportLoad(const CTarvikHexfile& image, uint32_t result, const SLoadReport& report, const SHexLoadOptions& options)
{
    switch (result)
    {
    case CTarvikHexfile::ResultOk:
        for (const std::string& line : report.m_asPrinted)
            Warn(report.m_sDisplay + ": " + line);
        return;
    case CTarvikHexfile::ResultInvalidRecordType:
    case CTarvikHexfile::ResultInvalidFormat:
    case CTarvikHexfile::ResultChecksumOrAddress:
        if (report.m_eFormat != CTarvikHexfile::Binary)
            return ReportLineErrors(report, options);
        break;
    case CTarvikHexfile::ResultEmptyOrAddress:
        if (ReadAll(report.m_sPath).empty())
            CliFail(report.m_sDisplay + ": the file is empty");
        break;
    default: break;
    }
    CliFail(FlatMessage(image.GetErrorMessage(), report.m_sPath, report.m_sDisplay));
}

// ---------------------------------------------------------------------------------------------
// Writing

std::string DirectoryOf(const std::string& file)
{
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

std::string BaseName(const std::string& file)
{
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? file : file.substr(slash + 1);
}

// The mode an existing file has, or what a new one would get.
mode_t ModeFor(const std::string& file)
{
    struct stat status;
    if (stat(file.c_str(), &status) == 0)
        return status.st_mode & 07777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// The binary writer takes one block from address 0 only; say why before trying.
void CheckBinaryOutput(const CTarvikHexfile& image)
{
    const auto blocks = HexSortedBlocks(image);
    if (blocks.size() <= 1 && (blocks.empty() || blocks.front()->m_nStartAddress == 0))
        return;
    CliFail("binary output needs the data in one block from address 0; this image has " +
            Plural(blocks.size(), "block", "blocks") + " from " + CliHex(blocks.front()->m_nStartAddress, 8) +
            " (fill the gaps, offset it, or choose intel or srec)");
}
} // namespace

CTarvikHexfile::EType HexFormatType(const std::string& format)
{
    if (format == "intel")
        return CTarvikHexfile::Intel;
    if (format == "srec")
        return CTarvikHexfile::Motorola;
    return CTarvikHexfile::Binary;
}

const char* HexFormatName(CTarvikHexfile::EType type)
{
    switch (type)
    {
    case CTarvikHexfile::Intel: return "intel";
    case CTarvikHexfile::Motorola: return "srec";
    case CTarvikHexfile::Binary: return "bin";
    default: return "unknown";
    }
}

void HexLoad(CTarvikHexfile& image, const std::string& file, const SHexLoadOptions& options)
{
    const CInputFile input(file);
    const CTarvikHexfile::EType chosen = ChooseFormat(input, options);
    SLoadReport report{input.m_sPath, input.m_sDisplay, chosen, {}};
    std::unique_ptr<CTempFile> stripped;
    if (chosen != CTarvikHexfile::Binary)
    {
        std::string text = ReadAll(input.m_sPath);
        if (StripComments(text))
        {
            stripped.reset(new CTempFile(TempDirectory(), "tarvik-text"));
            WriteAll(stripped->Path(), text);
            report.m_sPath = stripped->Path();
        }
    }
    CStdoutCapture capture;
    const uint32_t result = image.LoadFile(report.m_sPath.c_str(), chosen);
    report.m_asPrinted = SplitLines(capture.Finish());
    report.m_eFormat = image.m_eType;
    ReportLoad(image, result, report, options);
}

void HexSave(CTarvikHexfile& image, const std::string& file, const std::string& format)
{
    const CTarvikHexfile::EType type = HexFormatType(format);
    // The binary writer tests the lowest address that the image keeps, which only this sets right.
    image.RecalcMinMax();
    if (type == CTarvikHexfile::Binary)
        CheckBinaryOutput(image);
    const bool toStdout = file == "-";
    CTempFile temp(toStdout ? TempDirectory() : DirectoryOf(file), toStdout ? "tarvik-out" : BaseName(file));
    if (image.SaveFile(temp.Path().c_str(), type) != 0)
        CliFail(FlatMessage(image.GetErrorMessage(), temp.Path(), file));
    if (toStdout)
    {
        std::ifstream in(temp.Path(), std::ios::binary);
        CopyStream(in, std::cout, "the output to standard output");
        return;
    }
    if (chmod(temp.Path().c_str(), ModeFor(file)) != 0)
        CliFailFile(file, errno);
    temp.RenameTo(file);
}

void HexAddLoadOptions(CLI::App* command, SHexLoadOptions& options, const std::string& formatAlias,
                       const std::string& note)
{
    command->footer((note.empty() ? "" : note + "\n\n") + kInputHelp);
    command
        ->add_option("-i,--input-format" + (formatAlias.empty() ? "" : "," + formatAlias), options.m_sFormat,
                     "Read the input as intel, srec or bin instead of deciding from its contents")
        ->check(CLI::IsMember({"intel", "srec", "bin"}));
    command->add_flag("--strict", options.m_bStrict,
                      "Fail on records of an unsupported type (Intel 03, S4, S6, ...) instead of skipping them");
    command->add_flag("--ignore-checksum", options.m_bIgnoreChecksum,
                      "Take Intel records with a wrong checksum as they are (a warning) instead of failing");
    const std::string shown = formatAlias.empty() ? "-i" : formatAlias;
    command->preparse_callback([&options, shown](size_t) { options.m_sFormatOption = shown; });
}
