// I2C gateway commands: i2c read, i2c write, i2c seq. The slave address is the address
// byte as it goes on the bus (write form, e.g. 0xA0; the gateway sets bit 0 for a read).
#include "CliFormat.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikResult.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace
{
// The data field of a telegram; requests and answers carry a few bytes besides the data.
constexpr size_t kMaxData = CTarvikMsg::kMaxData;
// Answer of a read: the result byte, then the bytes.
constexpr size_t kMaxRead = kMaxData - 1;
// Request of a write: the u16 slave address, then the bytes.
constexpr size_t kMaxWrite = kMaxData - 2;
// Request of a sequence: the u16 read total, then the steps; answer: result, u16 position, bytes.
constexpr size_t kSeqHeader = 2;
constexpr size_t kStepHeader = 4;
constexpr size_t kMaxSeqRead = kMaxData - 3;

struct SI2COptions
{
    std::string m_sAddress;
    std::string m_sLength;
    std::vector<std::string> m_asData;
    std::vector<std::string> m_asSteps;
};

// The address byte in hex, as the bus carries it: "A0" or "0xA0".
unsigned short ParseAddress(const std::string& text)
{
    bool prefixed = text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    std::string digits = prefixed ? text.substr(2) : text;
    if (digits.empty() || digits.size() > 2 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        CliFail("slave address: not a hex byte: \"" + text + "\"", eCliExitUsage);
    return static_cast<unsigned short>(std::stoul(digits, nullptr, 16));
}

// Ends the command for a failed transfer, with the device's error position when the
// answer carried one.
void CheckTransfer(const CCliSession& session, int result, const std::string& what, bool hasPosition,
                   unsigned short position)
{
    if (result != 0 && hasPosition && (result & 0xFF0000) == 0)
        throw CCliError(what + ": " + TarvikErrorMsg(result), eCliExitFailure, result,
                        "the gateway reports error position " + std::to_string(position));
    session.Check(result, what);
}

void RunRead(const SCliGlobals& globals, const SI2COptions& options)
{
    unsigned short address = ParseAddress(options.m_sAddress);
    size_t length = CliParseNumber(options.m_sLength, kMaxRead, "length");
    CCliSession session(globals);
    CTarvikClientI2C client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string bytes(length, '\0');
    unsigned short received = 0;
    session.Check(client.Read(address, &bytes[0], static_cast<unsigned short>(length), received), "read");
    bytes.resize(received);
    CliPrint(globals, bytes.empty() ? "(no data)" : CliHexBytes(bytes),
             TCliJson{{"address", address}, {"received", CliHexBytes(bytes, "")}});
}

void RunWrite(const SCliGlobals& globals, const SI2COptions& options)
{
    unsigned short address = ParseAddress(options.m_sAddress);
    std::string bytes;
    for (const std::string& text : options.m_asData)
        bytes += CliParseHexBytes(text, "data");
    if (bytes.size() > kMaxWrite)
        CliFail("data: more than " + std::to_string(kMaxWrite) + " bytes", eCliExitUsage);
    CCliSession session(globals);
    CTarvikClientI2C client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    // Left alone by an answer without a position.
    unsigned short position = 0xFFFF;
    int result = client.Write(address, bytes.data(), static_cast<unsigned short>(bytes.size()), position);
    CheckTransfer(session, result, "write", position != 0xFFFF, position);
    TCliJson json = {{"address", address}, {"written", bytes.size()}};
    if (position != 0xFFFF)
        json["position"] = position;
    CliPrint(globals, "wrote " + std::to_string(bytes.size()) + " bytes to " + CliHex(address, 2), json);
}

// One step of "i2c seq": "A0:0010" writes 00 10 to A0, "A1+16" reads 16 bytes from A1.
struct SStep
{
    unsigned short m_nAddress;
    unsigned short m_nLength;
    std::string m_sData;
};

SStep ParseStep(const std::string& text)
{
    size_t mark = text.find_first_of(":+");
    if (mark == std::string::npos)
        CliFail("step \"" + text + "\": ADDR:HEX writes, ADDR+N reads", eCliExitUsage);
    SStep step;
    step.m_nAddress = ParseAddress(text.substr(0, mark));
    bool reading = text[mark] == '+';
    // The address byte says the direction on the bus; a step that says otherwise is a typo.
    if (reading != ((step.m_nAddress & 1) != 0))
        CliFail("step \"" + text + "\": a " + (reading ? "read step needs an odd" : "write step needs an even") +
                    " address byte",
                eCliExitUsage);
    if (reading)
        step.m_nLength = static_cast<unsigned short>(CliParseNumber(text.substr(mark + 1), kMaxSeqRead, "step length"));
    else
    {
        step.m_sData = CliParseHexBytes(text.substr(mark + 1), "step data");
        if (step.m_sData.size() > kMaxData)
            CliFail("sequence: longer than a telegram can carry", eCliExitUsage);
        step.m_nLength = static_cast<unsigned short>(step.m_sData.size());
    }
    return step;
}

// The sequence in the gateway's encoding: per step u16 address byte, u16 length and the
// bytes of a write step. total receives the bytes that the read steps ask for.
std::string EncodeSteps(const std::vector<SStep>& steps, size_t& total)
{
    std::string sequence;
    total = 0;
    for (const SStep& step : steps)
    {
        sequence += CTarvikMsg::ToChar(step.m_nAddress) + CTarvikMsg::ToChar(step.m_nLength) + step.m_sData;
        if (step.m_nAddress & 1)
            total += step.m_nLength;
    }
    if (kSeqHeader + sequence.size() > kMaxData)
        CliFail("sequence: longer than a telegram can carry", eCliExitUsage);
    if (total > kMaxSeqRead)
        CliFail("sequence: the read steps ask for more than " + std::to_string(kMaxSeqRead) + " bytes", eCliExitUsage);
    return sequence;
}

void RunSeq(const SCliGlobals& globals, const SI2COptions& options)
{
    std::vector<SStep> steps;
    for (const std::string& text : options.m_asSteps)
        steps.push_back(ParseStep(text));
    size_t total = 0;
    std::string sequence = EncodeSteps(steps, total);
    CCliSession session(globals);
    CTarvikClientI2C client(static_cast<int>(globals.m_nTimeoutMs));
    session.Open(client);
    std::string read(total, '\0');
    unsigned short received = 0;
    unsigned short position = 0xFFFF;
    int result =
        client.WriteSequence(sequence.data(), static_cast<unsigned short>(sequence.size()),
                             read.empty() ? nullptr : &read[0], static_cast<unsigned short>(total), received, position);
    CheckTransfer(session, result, "sequence", position != 0xFFFF, position);
    read.resize(received);
    // The bytes of the read steps follow each other in the answer.
    std::string text;
    TCliJson reads = TCliJson::array();
    size_t pos = 0;
    for (const SStep& step : steps)
    {
        if ((step.m_nAddress & 1) == 0)
            continue;
        std::string bytes = read.substr(std::min(pos, read.size()), step.m_nLength);
        pos += step.m_nLength;
        text += (text.empty() ? "" : "\n") + (bytes.empty() ? "(no data)" : CliHexBytes(bytes));
        reads.push_back(CliHexBytes(bytes, ""));
    }
    TCliJson json = {{"steps", steps.size()}, {"reads", reads}};
    if (position != 0xFFFF)
        json["position"] = position;
    CliPrint(globals,
             text.empty() ? "done: " + std::to_string(steps.size()) + (steps.size() == 1 ? " step" : " steps") : text,
             json);
}
} // namespace

void RegisterI2CCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SI2COptions>();
    SCliGlobals* g = &globals;
    CLI::App* i2c = app.add_subcommand("i2c", "I2C gateway: reads, writes and sequences on the bus");
    i2c->require_subcommand(1);

    CLI::App* cmd = i2c->add_subcommand("read", "Read LEN bytes from a slave; prints them");
    cmd->add_option("ADDR", options->m_sAddress, "Slave address byte in hex, write form (e.g. A0)")->required();
    cmd->add_option("LEN", options->m_sLength, "Bytes to read")->required();
    cmd->callback([g, options] { RunRead(*g, *options); });

    cmd = i2c->add_subcommand("write", "Write bytes to a slave");
    cmd->add_option("ADDR", options->m_sAddress, "Slave address byte in hex, write form (e.g. A0)")->required();
    cmd->add_option("HEXBYTES", options->m_asData, "Bytes to write, e.g. 0010CAFE")->required();
    cmd->callback([g, options] { RunWrite(*g, *options); });

    cmd = i2c->add_subcommand("seq", "Run steps in one request; prints the bytes of each read step");
    cmd->add_option("STEP", options->m_asSteps,
                    "ADDR:HEX writes the bytes (even address byte), ADDR+N reads N bytes (odd address byte); "
                    "e.g. A0:0010 A1+4")
        ->required();
    cmd->callback([g, options] { RunSeq(*g, *options); });
}
