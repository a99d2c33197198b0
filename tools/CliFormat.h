// Text helpers shared by the commands: hex bytes in and out, numbers, one-line JSON
// objects, and the one way a failed library call ends a command.
#ifndef TARVIK_TOOLS_CLIFORMAT_H
#define TARVIK_TOOLS_CLIFORMAT_H

#include "TarvikCli.h"

#include <cstddef>
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

// Bytes from hex text such as "02 00 40", "020040" or "0x02,0x00,0x40": pairs of hex
// digits; blanks, ':', ',', '-', '.' and "0x" between bytes are allowed. Anything else
// ends the command (exit 2) with a message naming what.
std::string CliParseHexBytes(const std::string& text, const std::string& what);
// A number in decimal or, with "0x", in hex, at most max; otherwise the command ends (exit 2).
unsigned long CliParseNumber(const std::string& text, unsigned long max, const std::string& what);
// Same for a value that may be negative (a result code).
long CliParseSigned(const std::string& text, const std::string& what);

// Ends the command when result is not 0: "<what>: <library text> (0x040000)".
void CliCheck(int result, const std::string& what);

// One JSON object, built key by key, printed on one line.
class CCliJson
{
public:
    CCliJson& AddText(const char* key, const std::string& value);
    CCliJson& AddNumber(const char* key, long long value);
    CCliJson& AddBool(const char* key, bool value);
    // value is already JSON (an array or object).
    CCliJson& AddRaw(const char* key, const std::string& value);
    std::string Str() const { return "{" + m_sBody + "}"; }

    static std::string Quote(const std::string& text);
    // "[1,2,3]" from already formatted JSON values.
    static std::string Array(const std::vector<std::string>& values);

private:
    std::string m_sBody;
};

// Prints the JSON line with --json, the human-readable text otherwise.
void CliPrint(const SCliGlobals& globals, const std::string& text, const CCliJson& json);

#endif
