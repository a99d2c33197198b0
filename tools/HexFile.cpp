#include "HexFile.h"

#include "CliFormat.h"

#include "tarvik/hexfile/TarvikImageCheck.h"
#include "tarvik/hexfile/TarvikImageOps.h"

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <signal.h>
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
    "warning. -I forces the format. A damaged image is refused before anything is done with it:\n"
    "every problem is named with its line (wrong checksums and byte counts, characters that are\n"
    "not hex digits, no end record, S5/S6 counts that disagree, records that give the same bytes\n"
    "twice); --lenient takes it as it is, with the problems as warnings.\n"
    "Outputs: -O chooses the format; without it the output's name decides (.hex, .ihex: intel;\n"
    ".s19, .s28, .s37, .srec, .mot: srec; .bin: bin).\n"
    "Exit codes: 0 success; 1 a file that cannot be read or written faithfully, or images that differ\n"
    "(cmp); 2 unusable arguments.";

// ---------------------------------------------------------------------------------------------
// Temporary files

std::string TempDirectory()
{
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

// The temporary files that exist now, for the handler of SIGINT and SIGTERM: fixed slots that
// are filled and emptied with both signals blocked, so the handler never sees half a name.
constexpr size_t kTempSlots = 8;
constexpr size_t kTempPathMax = 4096;
char g_aTempPaths[kTempSlots][kTempPathMax];
volatile sig_atomic_t g_aTempUsed[kTempSlots];
size_t g_nTempsLive = 0;
struct sigaction g_oPreviousInt;
struct sigaction g_oPreviousTerm;

// Removes the temporary files, then lets the signal do what it did before.
extern "C" void RemoveTempsOnSignal(int signal)
{
    for (size_t i = 0; i < kTempSlots; ++i)
        if (g_aTempUsed[i] != 0)
            unlink(g_aTempPaths[i]);
    const struct sigaction& previous = signal == SIGINT ? g_oPreviousInt : g_oPreviousTerm;
    sigaction(signal, &previous, nullptr);
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN)
        previous.sa_handler(signal);
    else if (previous.sa_handler == SIG_DFL)
        raise(signal); // delivered once the handler returns
}

// Blocks SIGINT and SIGTERM while it lives.
class CSignalBlock
{
public:
    CSignalBlock()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, &m_oPrevious);
    }
    ~CSignalBlock() { sigprocmask(SIG_SETMASK, &m_oPrevious, nullptr); }
    CSignalBlock(const CSignalBlock&) = delete;
    CSignalBlock& operator=(const CSignalBlock&) = delete;

private:
    sigset_t m_oPrevious;
};

// A file made with mkstemp in a given directory, removed again unless it was renamed away,
// also when the command is ended by SIGINT or SIGTERM.
class CTempFile
{
public:
    // purpose names what the file is for in messages, as in "cannot write out.hex".
    CTempFile(const std::string& directory, const std::string& stem, const std::string& purpose)
    {
        std::vector<char> name(directory.begin(), directory.end());
        const std::string tail = "/." + stem + ".XXXXXX";
        name.insert(name.end(), tail.begin(), tail.end());
        name.push_back('\0');
        if (name.size() > kTempPathMax)
            CliFail(purpose + ": " + std::strerror(ENAMETOOLONG));
        CSignalBlock block;
        const int fd = mkstemp(name.data());
        if (fd < 0)
            CliFail(purpose + ": " + std::strerror(errno));
        close(fd);
        m_sPath = name.data();
        Register();
    }
    ~CTempFile()
    {
        CSignalBlock block;
        if (!m_sPath.empty())
            std::remove(m_sPath.c_str());
        Unregister();
    }
    CTempFile(const CTempFile&) = delete;
    CTempFile& operator=(const CTempFile&) = delete;

    const std::string& Path() const { return m_sPath; }
    // Gives the file the name target; it is no longer removed.
    void RenameTo(const std::string& target)
    {
        CSignalBlock block;
        if (std::rename(m_sPath.c_str(), target.c_str()) != 0)
            CliFailFile(target, errno);
        m_sPath.clear();
        Unregister();
    }

private:
    // Called with the signals blocked.
    void Register()
    {
        for (size_t i = 0; i < kTempSlots; ++i)
            if (g_aTempUsed[i] == 0)
            {
                std::memcpy(g_aTempPaths[i], m_sPath.c_str(), m_sPath.size() + 1);
                g_aTempUsed[i] = 1;
                m_nSlot = i;
                break;
            }
        if (m_nSlot == kTempSlots || g_nTempsLive++ > 0)
            return;
        struct sigaction action = {};
        action.sa_handler = RemoveTempsOnSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &g_oPreviousInt);
        sigaction(SIGTERM, &action, &g_oPreviousTerm);
    }
    void Unregister()
    {
        if (m_nSlot == kTempSlots)
            return;
        g_aTempUsed[m_nSlot] = 0;
        m_nSlot = kTempSlots;
        if (--g_nTempsLive > 0)
            return;
        sigaction(SIGINT, &g_oPreviousInt, nullptr);
        sigaction(SIGTERM, &g_oPreviousTerm, nullptr);
    }

    std::string m_sPath;
    size_t m_nSlot = kTempSlots;
};

void CopyStream(std::istream& in, std::ostream& out, const std::string& what)
{
    char buffer[1 << 16];
    while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0)
        out.write(buffer, in.gcount());
    if (in.bad() || !out.flush())
        CliFail("cannot copy " + what + ": " + std::strerror(errno != 0 ? errno : EIO));
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
        m_pCopy.reset(
            new CTempFile(TempDirectory(), "tarvik-stdin", "cannot keep standard input in " + TempDirectory()));
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

void Warn(const std::string& text)
{
    CliWarn(text);
}

// One problem of an image that is refused; the summary that follows ends the command.
void ReportProblem(const std::string& text)
{
    CliProblem(text);
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

// Text: no NUL, and nearly all of it printable characters, line ends and tabs (bytes of
// UTF-8 sequences count as printable). Erased flash (0xFF) and NUL padding are not text.
bool LooksLikeText(const std::string& head)
{
    size_t printable = 0;
    for (size_t i = 0; i < head.size(); ++i)
    {
        const unsigned char byte = static_cast<unsigned char>(head[i]);
        if (byte == 0)
            return false;
        if ((byte >= 0x20 && byte < 0x7F) || (byte != 0 && std::strchr("\t\n\r\f\v", byte) != nullptr))
            ++printable;
        else if (byte >= 0xC2 && byte <= 0xF4 && i + 1 < head.size() &&
                 (static_cast<unsigned char>(head[i + 1]) & 0xC0) == 0x80)
        {
            // A UTF-8 lead byte with its continuation bytes.
            ++printable;
            while (i + 1 < head.size() && (static_cast<unsigned char>(head[i + 1]) & 0xC0) == 0x80)
            {
                ++i;
                ++printable;
            }
        }
    }
    return !head.empty() && printable * 100 >= head.size() * 95;
}

std::string ReadHead(const CInputFile& input)
{
    struct stat status;
    if (stat(input.m_sPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        CliFail(input.m_sDisplay + ": cannot be opened: " + std::strerror(EISDIR));
    FILE* in = std::fopen(input.m_sPath.c_str(), "rb");
    if (in == nullptr)
        CliFail(input.m_sDisplay + ": cannot be opened: " + std::strerror(errno));
    std::string head(kSniffBytes, '\0');
    const size_t got = std::fread(&head[0], 1, head.size(), in);
    const bool failed = std::ferror(in) != 0;
    const int error = errno;
    std::fclose(in);
    if (failed)
        CliFail(input.m_sDisplay + ": cannot be read: " + std::strerror(error));
    head.resize(got);
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

// ---------------------------------------------------------------------------------------------
// Reports of a load

// The library's message on one line, naming the file as the user did.
std::string FlatMessage(std::string text, const std::string& path, const std::string& display)
{
    for (size_t pos = 0; (pos = text.find(path, pos)) != std::string::npos; pos += display.size())
        text.replace(pos, path.size(), display);
    std::string flat;
    for (char c : CleanText(text))
        if (c != '\n' || (!flat.empty() && flat.back() != ' '))
            flat += c == '\n' ? ' ' : c;
    return flat;
}

std::string Plural(size_t count, const std::string& singular, const std::string& plural)
{
    return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

// Every problem that the check found, the first ones in full; with --lenient as warnings. A
// file that cannot be read at all fails either way.
void ReportProblems(const CTarvikImageCheck& check, const std::string& display, const SHexLoadOptions& options)
{
    const uint64_t count = check.GetProblemCount();
    if (count == 0)
        return;
    for (const CTarvikImageCheck::SProblem& problem : check.GetProblems())
        if (problem.m_eKind == CTarvikImageCheck::KindOpen || problem.m_eKind == CTarvikImageCheck::KindEmpty)
            CliFail(problem.Describe());
    size_t shown = 0;
    for (const CTarvikImageCheck::SProblem& problem : check.GetProblems())
    {
        if (++shown > kReportedLines)
            break;
        if (options.m_bLenient)
            Warn(problem.Describe());
        else
            ReportProblem(problem.Describe());
    }
    if (count > kReportedLines)
    {
        const std::string more = display + ": " + Plural(count - kReportedLines, "more problem", "more problems");
        if (options.m_bLenient)
            Warn(more);
        else
            ReportProblem(more);
    }
    if (options.m_bLenient)
        return Warn(display + ": " + Plural(count, "problem", "problems") + " taken as they are (--lenient)");
    CliFail(display + ": " + Plural(count, "problem", "problems") + "; nothing was done (--lenient takes the file as " +
            (check.GetType() == CTarvikHexfile::Binary ? "it is)"
                                                       : "it is, " + options.m_sFormatOption + " bin as raw bytes)"));
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
    const auto blocks = CTarvikImageOps::SortedBlocks(image);
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
    CTarvikImageCheck check;
    check.LoadFile(image, input.m_sPath.c_str(), chosen, input.m_sDisplay);
    ReportProblems(check, input.m_sDisplay, options);
}

void HexSave(CTarvikHexfile& image, const std::string& file, const std::string& format)
{
    const CTarvikHexfile::EType type = HexFormatType(format);
    // The binary writer tests the lowest address that the image keeps, which only this sets right.
    image.RecalcMinMax();
    if (type == CTarvikHexfile::Binary)
        CheckBinaryOutput(image);
    const bool toStdout = file == "-";
    CTempFile temp(toStdout ? TempDirectory() : DirectoryOf(file), toStdout ? "tarvik-out" : BaseName(file),
                   toStdout ? "cannot keep the output in " + TempDirectory() : "cannot write " + file);
    if (image.SaveFile(temp.Path().c_str(), type) != 0)
        CliFail(FlatMessage(image.GetErrorMessage(), temp.Path(), file));
    if (type == CTarvikHexfile::Motorola)
    {
        // The library writes data records only; a reader needs the end to know the file is whole.
        std::ofstream out(temp.Path(), std::ios::binary | std::ios::app);
        out << CTarvikImageOps::EndRecord(image) << "\n";
        if (!out.flush())
            CliFail("cannot write " + file + ": " + std::strerror(errno));
    }
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

std::string HexOutputFormat(const std::string& file, const std::string& given, const std::string& fallback)
{
    if (!given.empty())
        return given;
    const size_t dot = file.rfind('.');
    if (dot == std::string::npos || file.find('/', dot) != std::string::npos)
        return fallback;
    std::string extension = file.substr(dot + 1);
    for (char& c : extension)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "hex" || extension == "ihex")
        return "intel";
    if (extension == "s19" || extension == "s28" || extension == "s37" || extension == "srec" || extension == "mot")
        return "srec";
    if (extension == "bin")
        return "bin";
    return fallback;
}

void HexAddLoadOptions(CLI::App* command, SHexLoadOptions& options, const std::string& note)
{
    command->footer((note.empty() ? "" : note + "\n\n") + kInputHelp);
    command
        ->add_option("-I,-i,--input-format", options.m_sFormat,
                     "Read the input as intel, srec or bin instead of deciding from its contents")
        ->check(CLI::IsMember({"intel", "srec", "bin"}));
    command->add_flag("--lenient,--ignore-checksum", options.m_bLenient,
                      "Take a damaged image as it is: its problems become warnings");
    // The old name of the default.
    command->add_flag("--strict", options.m_bStrict, "Refuse a damaged image (the default)")->group("");
}
