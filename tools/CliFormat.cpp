#include "CliFormat.h"

#include "tarvik/core/TarvikResult.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>

namespace
{
// What every JSON line of the run carries beside its own keys; can dump prints from a
// thread of its own, so the warnings are guarded.
struct SCliReport
{
    std::mutex m_oLock;
    bool m_bJson = false;
    bool m_bSimulated = false;
    std::vector<std::string> m_asWarnings;
    std::vector<std::string> m_asProblems;
};

SCliReport& Report()
{
    static SCliReport report;
    return report;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

bool IsByteSeparator(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) || c == ':' || c == ',' || c == '-' || c == '.';
}

bool HasHexPrefix(const std::string& text, size_t pos)
{
    return pos + 1 < text.size() && text[pos] == '0' && (text[pos + 1] == 'x' || text[pos + 1] == 'X');
}

[[noreturn]] void FailUsage(const std::string& what, const std::string& text, const char* why)
{
    CliFail(what + ": " + why + ": \"" + text + "\"", eCliExitUsage);
}
} // namespace

std::string CliHexBytes(const void* data, size_t len, const char* sep)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::string out;
    char digits[3];
    for (size_t i = 0; i < len; ++i)
    {
        if (i != 0)
            out += sep;
        std::snprintf(digits, sizeof(digits), "%02X", bytes[i]);
        out += digits;
    }
    return out;
}

std::string CliHex(unsigned long value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%0*lX", digits, value);
    return text;
}

std::string CliCode(int code)
{
    return CliHex(static_cast<unsigned int>(code), 6);
}

std::string CliParseHexBytes(const std::string& text, const std::string& what)
{
    std::string bytes;
    size_t pos = 0;
    while (pos < text.size())
    {
        if (IsByteSeparator(text[pos]))
        {
            ++pos;
            continue;
        }
        // "0x" belongs to the byte after it; "0x0" alone is the byte 0 followed by junk.
        if (HasHexPrefix(text, pos) && pos + 2 < text.size() && HexDigit(text[pos + 2]) >= 0)
            pos += 2;
        bool paired = pos + 1 < text.size() && !IsByteSeparator(text[pos + 1]);
        int high = HexDigit(text[pos]);
        int low = paired ? HexDigit(text[pos + 1]) : 0;
        if (high < 0 || low < 0)
            FailUsage(what, text, "not a hex digit");
        if (!paired)
            FailUsage(what, text, "odd number of hex digits");
        bytes += static_cast<char>(high << 4 | low);
        pos += 2;
    }
    return bytes;
}

unsigned long CliParseNumber(const std::string& text, unsigned long max, const std::string& what)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || std::isspace(static_cast<unsigned char>(text[0])))
        FailUsage(what, text, "not a number");
    // Base 10 unless "0x": a leading zero must not switch to octal.
    int base = HasHexPrefix(text, 0) ? 16 : 10;
    char* end = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(text.c_str(), &end, base);
    if (end == text.c_str() || *end != '\0')
        FailUsage(what, text, "not a number");
    if (errno == ERANGE || value > max)
        FailUsage(what, text, ("larger than " + std::to_string(max)).c_str());
    return value;
}

long CliParseSigned(const std::string& text, const std::string& what)
{
    bool negative = !text.empty() && text[0] == '-';
    unsigned long magnitude = CliParseNumber(negative ? text.substr(1) : text, 0xFFFFFFFFul, what);
    // Codes above 0x7FFFFFFF are accepted as their 32-bit pattern.
    long value = static_cast<long>(static_cast<int>(static_cast<unsigned int>(magnitude)));
    if (negative)
    {
        if (magnitude > 0x80000000ul)
            FailUsage(what, text, "out of range");
        value = -static_cast<long>(magnitude);
    }
    return value;
}

void CliCheck(int result, const std::string& what, const std::string& cause)
{
    if (result != 0)
        throw CCliError(what + ": " + TarvikErrorMsg(result), eCliExitFailure, result, cause);
}

void CliFailFile(const std::string& path, int error)
{
    CliFail(path + ": " + std::strerror(error));
}

void CliOpenRead(std::ifstream& in, const std::string& path, std::ios::openmode mode)
{
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        CliFailFile(path, EISDIR);
    errno = 0;
    in.open(path, mode | std::ios::in);
    if (!in.is_open())
        CliFailFile(path, errno != 0 ? errno : EIO);
}

void CliOpenWrite(std::ofstream& out, const std::string& path, std::ios::openmode mode)
{
    errno = 0;
    out.open(path, mode | std::ios::out);
    if (!out.is_open())
        CliFailFile(path, errno != 0 ? errno : EIO);
}

std::string CliJsonLine(const TCliJson& json)
{
    SCliReport& report = Report();
    std::lock_guard<std::mutex> lock(report.m_oLock);
    if (!json.is_object() || (!report.m_bSimulated && report.m_asWarnings.empty() && report.m_asProblems.empty()))
        return json.dump(-1, ' ', false, TCliJson::error_handler_t::replace);
    TCliJson whole = json;
    if (report.m_bSimulated)
        whole["simulated"] = true;
    if (!report.m_asWarnings.empty())
        whole["warnings"] = report.m_asWarnings;
    if (!report.m_asProblems.empty())
        whole["problems"] = report.m_asProblems;
    report.m_asWarnings.clear();
    report.m_asProblems.clear();
    return whole.dump(-1, ' ', false, TCliJson::error_handler_t::replace);
}

void CliSetJsonOutput(bool json)
{
    Report().m_bJson = json;
}

namespace
{
// A line for stderr, or with --json an entry of one of the report's lists.
void Note(std::vector<std::string> SCliReport::*list, const char* prefix, const std::string& text)
{
    SCliReport& report = Report();
    std::lock_guard<std::mutex> lock(report.m_oLock);
    if (report.m_bJson)
        (report.*list).push_back(text);
    else
        std::cerr << prefix << text << std::endl;
}
} // namespace

void CliWarn(const std::string& text)
{
    Note(&SCliReport::m_asWarnings, "tarvik: warning: ", text);
}

void CliProblem(const std::string& text)
{
    Note(&SCliReport::m_asProblems, "tarvik: ", text);
}

void CliMarkSimulated()
{
    SCliReport& report = Report();
    std::lock_guard<std::mutex> lock(report.m_oLock);
    if (!report.m_bJson && !report.m_bSimulated)
        std::cerr << "tarvik: the answers come from the built-in simulator (--sim), not from a gateway" << std::endl;
    report.m_bSimulated = true;
}

void CliFlushWarnings()
{
    {
        SCliReport& report = Report();
        std::lock_guard<std::mutex> lock(report.m_oLock);
        if (!report.m_bJson || report.m_asWarnings.empty())
            return;
    }
    std::cout << CliJsonLine(TCliJson::object()) << std::endl;
}

void CliPrint(const SCliGlobals& globals, const std::string& text, const TCliJson& json)
{
    std::cout << (globals.m_bJson ? CliJsonLine(json) : text) << "\n";
}

TCliJson CliErrorJson(const CCliError& error)
{
    TCliJson json = {{"error", error.what()}};
    if (error.GetCode() != 0)
        json["code"] = CliCode(error.GetCode());
    if (!error.GetCause().empty())
        json["cause"] = error.GetCause();
    for (const auto& field : error.GetFields())
        json[field.first] = field.second;
    json["exit"] = error.GetExitCode();
    return json;
}

void CliReportError(const CCliError& error, bool json, const std::string& help)
{
    // A command that has printed its own report (hex cmp's differences) ends with no message.
    if (*error.what() == '\0' && error.GetCause().empty())
        return;
    if (json)
    {
        std::cout << CliJsonLine(CliErrorJson(error)) << std::endl;
        return;
    }
    std::cerr << "tarvik: " << error.what();
    if (error.GetCode() != 0)
        std::cerr << " (" << CliCode(error.GetCode()) << ")";
    std::cerr << "\n";
    if (!error.GetCause().empty())
        std::cerr << "tarvik: " << error.GetCause() << "\n";
    if (!help.empty())
        std::cerr << "Run '" << help << "' for usage.\n";
}
