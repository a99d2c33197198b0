// Text helpers shared by the commands: hex bytes in and out, numbers, one-line JSON,
// and the one way a failed library call ends a command.
#ifndef TARVIK_TOOLS_CLIFORMAT_H
#define TARVIK_TOOLS_CLIFORMAT_H

#include "TarvikCli.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

// "CA FE 12" (sep between bytes, upper-case digits).
std::string CliHexBytes(const void* data, size_t len, const char* sep = " ");
inline std::string CliHexBytes(const std::string& bytes, const char* sep = " ")
{
    return CliHexBytes(bytes.data(), bytes.size(), sep);
}
// "0x000330": value in hex with at least digits digits.
std::string CliHex(unsigned long value, int digits);
// A result code as the library's messages show it: "0x030000".
std::string CliCode(int code);

// Bytes from hex text such as "02 00 40", "020040" or "0x02,0x00,0x40": pairs of hex
// digits; blanks, ':', ',', '-', '.' and "0x" between bytes are allowed. Anything else
// ends the command (exit 2) with a message naming what.
std::string CliParseHexBytes(const std::string& text, const std::string& what);
// A number in decimal or, with "0x", in hex, at most max; otherwise the command ends (exit 2).
unsigned long CliParseNumber(const std::string& text, unsigned long max, const std::string& what);
// Same for a value that may be negative (a result code).
long CliParseSigned(const std::string& text, const std::string& what);

// Ends the command when result is not 0: "<what>: <library text> (0x040000)", with
// the cause the tool found, if any, on a line of its own.
void CliCheck(int result, const std::string& what, const std::string& cause = "");

// The one way a file error reads: "tarvik: <path>: <why>", why being errno's text
// ("No such file or directory").
[[noreturn]] void CliFailFile(const std::string& path, int error);
// Opens path for reading (in) or writing (out), or ends the command with CliFailFile; a
// directory is refused at once rather than failing at the first read.
void CliOpenRead(std::ifstream& in, const std::string& path, std::ios::openmode mode = std::ios::in);
void CliOpenWrite(std::ofstream& out, const std::string& path, std::ios::openmode mode = std::ios::out);

// JSON output: objects keep their keys in the order they were added.
typedef nlohmann::ordered_json TCliJson;

// One line of JSON; bytes that are not UTF-8 (a device's status text) become U+FFFD. An
// object also takes the warnings not yet printed ("warnings": [...]) and, when the answers
// came from the built-in simulator, "simulated": true: every line on stdout is a whole
// document of its own, and --json leaves stderr quiet.
std::string CliJsonLine(const TCliJson& json);
// Prints the JSON line with --json, the human-readable text otherwise.
void CliPrint(const SCliGlobals& globals, const std::string& text, const TCliJson& json);

// How the whole run reports, set once by main() before a command runs.
void CliSetJsonOutput(bool json);
// The one way the tool warns: "tarvik: warning: <text>" on stderr, or with --json an entry
// of "warnings" in the next JSON line. Safe from any thread.
void CliWarn(const std::string& text);
// One of the problems behind a failure that follows (a line of a refused image):
// "tarvik: <text>" on stderr, or with --json an entry of "problems" in the error object.
void CliProblem(const std::string& text);
// Says once on stderr that the answers come from the built-in simulator (with --json every
// object carries "simulated": true instead).
void CliMarkSimulated();
// With --json, the warnings that no JSON line took, as one last line {"warnings": [...]}.
void CliFlushWarnings();

// An error as one JSON object: {"error":..., "code":"0x030000", "cause":..., "exit":1};
// code and cause only when there is one.
TCliJson CliErrorJson(const CCliError& error);
// Prints a failed command's error: with json one JSON line on stdout (where a program
// reads the results), otherwise "tarvik: <message> (<code>)" and the cause on stderr,
// then "Run '<help>' for usage." when help is not empty.
void CliReportError(const CCliError& error, bool json, const std::string& help);

#endif
