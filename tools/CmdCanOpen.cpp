// CANopen master services of a CAN gateway: canopen mode|nmt|sync|time|pdo|sdo-read|
// sdo-write|sdo-read-block|sdo-write-block|events.
#include "CliCanOpenMode.h"
#include "CliFormat.h"
#include "CliHandoff.h"
#include "CliSession.h"
#include "CliTarget.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <deque>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sys/time.h>

namespace
{
// NMT command codes of CANopen.
struct SNmtCommand
{
    const char* m_pName;
    unsigned char m_nCode;
};
const SNmtCommand kNmtCommands[] = {
    {"start", 0x01}, {"stop", 0x02}, {"preop", 0x80}, {"reset", 0x81}, {"reset-comm", 0x82},
};
// The gateway's time limit of an SDO transfer unless --sdo-timeout says otherwise.
constexpr unsigned short kDefaultSdoTimeoutMs = 1000;
constexpr unsigned int kMaxSdoBlock = 0xFFFF - 8;
// CANopen's TIME_OF_DAY counts days from 1984-01-01.
constexpr int64_t kEpoch1984 = 441763200;
constexpr int64_t kSecondsPerDay = 86400;

struct SCanOpenOptions
{
    std::string m_sMode;
    unsigned int m_nNode = 0;
    std::string m_sNmt;
    std::string m_sIndex;
    unsigned int m_nSub = 0;
    std::string m_sValue;
    unsigned int m_nSize = 4;
    unsigned int m_nSdoTimeout = kDefaultSdoTimeoutMs;
    std::string m_sFile;
    std::string m_sOutput;
    unsigned int m_nSelector1 = 0;
    unsigned int m_nSelector2 = 0;
    std::string m_sData;
    long long m_nDays = -1;
    long long m_nMillis = -1;
    unsigned long m_nCount = 0;
    double m_dDuration = 0;
};

class CCliCanOpen
{
public:
    // A receiver of events is set before the connection opens, so that no event
    // arriving in between is lost.
    explicit CCliCanOpen(const SCliGlobals& globals, ITarvikCanReceiver* events = nullptr)
        : m_oGlobals(globals), m_oSession(globals), m_oClient(0, static_cast<int>(globals.m_nTimeoutMs))
    {
        m_oClient.SetReceiver(events);
        m_oSession.Open(m_oClient);
    }
    CTarvikClientCANDll& Client() { return m_oClient; }
    void Check(int result, const std::string& what)
    {
        CliCheckCanOpen(m_oGlobals, result, what);
        m_oSession.Check(result, what);
    }
    // An SDO transfer's result: the node and its abort code name what went wrong.
    void CheckSdo(int result, const std::string& what, const SCanOpenOptions& options, unsigned int abortCode)
    {
        CliCheckCanOpen(m_oGlobals, result, what, static_cast<int>(options.m_nNode), abortCode, options.m_nSdoTimeout);
        m_oSession.Check(result, what);
    }

private:
    const SCliGlobals& m_oGlobals;
    CCliSession m_oSession;
    CTarvikClientCANDll m_oClient;
};

unsigned char Node(const SCanOpenOptions& options)
{
    return static_cast<unsigned char>(options.m_nNode);
}

unsigned short Index(const SCanOpenOptions& options)
{
    return static_cast<unsigned short>(CliParseNumber(options.m_sIndex, 0xFFFF, "INDEX"));
}

std::string Where(const SCanOpenOptions& options)
{
    return "node " + std::to_string(options.m_nNode) + " object " + CliHex(Index(options), 4) + "/" +
           std::to_string(options.m_nSub);
}

void RunMode(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    CCliCanOpen co(globals);
    if (!options.m_sMode.empty())
    {
        unsigned long mode = options.m_sMode == "on"    ? 1
                             : options.m_sMode == "off" ? 0
                                                        : CliParseNumber(options.m_sMode, 255, "MODE");
        co.Check(co.Client().CANopenSetConfig(static_cast<unsigned char>(mode)), "set CANopen mode");
    }
    unsigned char mode = 0;
    co.Check(co.Client().CANopenGetConfig(mode), "get CANopen mode");
    CliPrint(globals, "CANopen mode " + std::to_string(mode), TCliJson{{"mode", mode}});
}

void RunNmt(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    const SNmtCommand* command = nullptr;
    for (const SNmtCommand& row : kNmtCommands)
        if (options.m_sNmt == row.m_pName)
            command = &row;
    if (command == nullptr)
        CliFail("nmt: expected start, stop, preop, reset or reset-comm", eCliExitUsage);
    CCliCanOpen co(globals);
    co.Check(co.Client().CANopenSendNMT(Node(options), command->m_nCode), "NMT " + options.m_sNmt);
    CliPrint(globals, "NMT " + options.m_sNmt + " sent to node " + std::to_string(options.m_nNode),
             TCliJson{{"node", options.m_nNode}, {"nmt", options.m_sNmt}, {"code", command->m_nCode}});
}

void RunSync(const SCliGlobals& globals, const SCanOpenOptions&)
{
    CCliCanOpen co(globals);
    co.Check(co.Client().CANopenSendSYNC(), "SYNC");
    CliPrint(globals, "SYNC sent", TCliJson{{"sync", true}});
}

void RunTime(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    int64_t days = options.m_nDays, millis = options.m_nMillis;
    if (days < 0 || millis < 0)
    {
        timeval now{};
        gettimeofday(&now, nullptr);
        int64_t since = now.tv_sec - kEpoch1984;
        if (days < 0)
            days = since / kSecondsPerDay;
        if (millis < 0)
            millis = (since % kSecondsPerDay) * 1000 + now.tv_usec / 1000;
    }
    CCliCanOpen co(globals);
    co.Check(co.Client().CANopenSendTIME(static_cast<unsigned short>(days), static_cast<unsigned int>(millis)), "TIME");
    CliPrint(globals, "TIME sent: day " + std::to_string(days) + ", " + std::to_string(millis) + " ms",
             TCliJson{{"days", days}, {"milliseconds", millis}});
}

void RunPdo(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    std::string data = CliParseHexBytes(options.m_sData, "DATA");
    if (data.size() > 255)
        CliFail("pdo: more than 255 bytes", eCliExitUsage);
    CCliCanOpen co(globals);
    co.Check(co.Client().CANopenSendPDO(static_cast<unsigned char>(options.m_nSelector1),
                                        static_cast<unsigned char>(options.m_nSelector2),
                                        static_cast<unsigned char>(data.size()), data.data()),
             "PDO");
    CliPrint(globals, "PDO sent", TCliJson{{"pdo", CliHexBytes(data, "")}});
}

// The value as it came: as many hex digits as bytes were received.
void PrintSdo(const SCliGlobals& globals, const std::string& what, const SCanOpenOptions& options,
              const CTarvikClientCAN::SSDOValue& sdo)
{
    std::string text = what + ": value " + CliHex(sdo.nValue, 2 * sdo.nSize) + " (" + std::to_string(sdo.nValue) +
                       "), " + std::to_string(sdo.nSize) + (sdo.nSize == 1 ? " byte" : " bytes");
    if (sdo.nStatus != 0)
        text += ", status " + std::to_string(sdo.nStatus);
    CliPrint(globals, text,
             TCliJson{{"node", options.m_nNode},
                      {"index", Index(options)},
                      {"subindex", options.m_nSub},
                      {"status", sdo.nStatus},
                      {"value", sdo.nValue},
                      {"size", sdo.nSize}});
}

unsigned char Sub(const SCanOpenOptions& options)
{
    return static_cast<unsigned char>(options.m_nSub);
}

unsigned short SdoTimeout(const SCanOpenOptions& options)
{
    return static_cast<unsigned short>(options.m_nSdoTimeout);
}

void RunSdoRead(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    CCliCanOpen co(globals);
    CTarvikClientCAN::SSDOValue sdo{};
    const std::string what = "SDO read " + Where(options);
    int result = co.Client().CANopenSDOReadValue(Node(options), Index(options), Sub(options), SdoTimeout(options), sdo);
    co.CheckSdo(result, what, options, sdo.nAbortCode);
    PrintSdo(globals, what, options, sdo);
}

void RunSdoWrite(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    unsigned long max = options.m_nSize >= 4 ? 0xFFFFFFFFul : (1ul << (8 * options.m_nSize)) - 1;
    auto data = static_cast<unsigned int>(CliParseNumber(options.m_sValue, max, "VALUE"));
    CCliCanOpen co(globals);
    CTarvikClientCAN::SSDOValue sdo{};
    const std::string what = "SDO write " + Where(options);
    int result = co.Client().CANopenSDOWriteValue(Node(options), static_cast<unsigned char>(options.m_nSize),
                                                  Index(options), Sub(options), SdoTimeout(options), data, sdo);
    co.CheckSdo(result, what, options, sdo.nAbortCode);
    PrintSdo(globals, what, options, sdo);
}

void RunSdoReadBlock(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    CCliCanOpen co(globals);
    unsigned char status = 0;
    unsigned int abortCode = 0;
    std::string data;
    int result = co.Client().CANopenSDOReadBlockData(Node(options), Index(options), Sub(options), SdoTimeout(options),
                                                     status, data, abortCode);
    co.CheckSdo(result, "SDO block read " + Where(options), options, abortCode);
    if (status != 0)
        CliWarn("SDO block read status " + std::to_string(status));
    CliPrintRead(globals, 0, data, options.m_sOutput);
}

void RunSdoWriteBlock(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    std::ifstream in;
    CliOpenRead(in, options.m_sFile, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.size() > kMaxSdoBlock)
        CliFail(options.m_sFile + ": more than " + std::to_string(kMaxSdoBlock) + " bytes", eCliExitUsage);
    CCliCanOpen co(globals);
    CTarvikClientCAN::SSDOValue sdo{};
    const std::string what = "SDO block write " + Where(options);
    int result = co.Client().CANopenSDOWriteBlockValue(Node(options), Index(options), Sub(options), SdoTimeout(options),
                                                       static_cast<unsigned short>(data.size()),
                                                       reinterpret_cast<const unsigned char*>(data.data()), sdo);
    co.CheckSdo(result, what, options, sdo.nAbortCode);
    PrintSdo(globals, what + " (" + std::to_string(data.size()) + " bytes)", options, sdo);
}

// ---- events --------------------------------------------------------------------

// The CANopen events as JSON, from the receive thread to the printing thread.
class CEventWatch : public ITarvikCanReceiver
{
public:
    static constexpr size_t kBacklog = 1u << 16;

    bool OnPDO(unsigned char p1, unsigned char p2, unsigned char len, const char* data) override
    {
        return Push(TCliJson{{"event", "PDO"}, {"selector", {p1, p2}}, {"data", CliHexBytes(data, len, "")}});
    }
    bool OnSYNC(unsigned char value) override { return Push(TCliJson{{"event", "SYNC"}, {"value", value}}); }
    bool OnEMCY(unsigned char node, unsigned short code, unsigned char reg, const unsigned char* data) override
    {
        return Push(TCliJson{{"event", "EMCY"},
                             {"node", node},
                             {"code", code},
                             {"register", reg},
                             {"data", CliHexBytes(data, tarvik_protocol::can::kEMCYData, "")}});
    }
    bool OnGUARD(unsigned char node, unsigned char state) override
    {
        return Push(TCliJson{{"event", "GUARD"}, {"node", node}, {"state", state}});
    }
    // Waits up to waitMs for events; swaps them all into out.
    void Take(std::deque<TCliJson>& out, unsigned int waitMs) { m_oEvents.Take(out, waitMs); }

private:
    bool Push(TCliJson event)
    {
        m_oEvents.Push(std::move(event));
        return true;
    }

    CCliHandoff<TCliJson> m_oEvents{kBacklog};
};

std::string EventText(const TCliJson& event)
{
    std::string kind = event["event"];
    if (kind == "PDO")
        return "PDO   " + std::to_string(event["selector"][0].get<int>()) + " " +
               std::to_string(event["selector"][1].get<int>()) + "  " + event["data"].get<std::string>();
    if (kind == "SYNC")
        return "SYNC  " + std::to_string(event["value"].get<int>());
    if (kind == "EMCY")
        return "EMCY  node " + std::to_string(event["node"].get<int>()) + " code " +
               CliHex(event["code"].get<unsigned int>(), 4) + " register " +
               CliHex(event["register"].get<unsigned int>(), 2) + " data " + event["data"].get<std::string>();
    return "GUARD node " + std::to_string(event["node"].get<int>()) + " state " +
           std::to_string(event["state"].get<int>());
}

void RunEvents(const SCliGlobals& globals, const SCanOpenOptions& options)
{
    CEventWatch watch;
    CCliCanOpen co(globals, &watch);
    // The gateway reports CANopen events only in CANopen mode: without it the watch stays empty.
    unsigned char mode = 0;
    co.Check(co.Client().CANopenGetConfig(mode), "get CANopen mode");
    if (mode == 0)
        std::fprintf(stderr, "tarvik canopen events: CANopen mode is off, so no events will come; %s\n",
                     CliCanOpenModeHint(globals).c_str());
    auto started = std::chrono::steady_clock::now();
    auto deadline = started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(options.m_dDuration > 0 ? options.m_dDuration : 1e9));
    unsigned long count = 0;
    while (std::chrono::steady_clock::now() < deadline && (options.m_nCount == 0 || count < options.m_nCount))
    {
        std::deque<TCliJson> events;
        watch.Take(events, 100);
        for (const TCliJson& event : events)
        {
            if (options.m_nCount != 0 && count == options.m_nCount)
                break;
            ++count;
            CliPrint(globals, EventText(event), event);
        }
        if (co.Client().GetConnectState() == 0)
            CliFail("the connection has ended");
    }
    co.Client().StopConnection();
}
} // namespace

void RegisterCanOpenCommands(CLI::App& app, SCliGlobals& globals)
{
    auto options = std::make_shared<SCanOpenOptions>();
    SCliGlobals* g = &globals;
    CLI::App* co = app.add_subcommand("canopen", "CANopen master services of a CAN gateway");
    co->require_subcommand(1);
    co->add_option("--sdo-timeout", options->m_nSdoTimeout, "The gateway's time limit of an SDO transfer in ms")
        ->check(CLI::Range(1u, 32767u));

    CLI::App* cmd = co->add_subcommand("mode", "Show (and set) CANopen mode: on, off or a mode number");
    cmd->add_option("MODE", options->m_sMode, "on|off|N");
    cmd->callback([g, options] { RunMode(*g, *options); });

    cmd = co->add_subcommand("nmt", "Send an NMT command to a node (0: all nodes)");
    cmd->add_option("NODE", options->m_nNode, "Node id")->required()->check(CLI::Range(0u, 127u));
    cmd->add_option("COMMAND", options->m_sNmt, "start|stop|preop|reset|reset-comm")->required();
    cmd->callback([g, options] { RunNmt(*g, *options); });

    cmd = co->add_subcommand("sync", "Send a SYNC");
    cmd->callback([g, options] { RunSync(*g, *options); });

    cmd = co->add_subcommand("time", "Send a TIME stamp (default: now)");
    cmd->add_option("--days", options->m_nDays, "Days since 1984-01-01")->check(CLI::Range(0LL, 65535LL));
    cmd->add_option("--ms", options->m_nMillis, "Milliseconds since midnight")->check(CLI::Range(0LL, 86399999LL));
    cmd->callback([g, options] { RunTime(*g, *options); });

    cmd = co->add_subcommand("pdo", "Send a PDO");
    cmd->add_option("SELECTOR1", options->m_nSelector1, "First PDO selector byte")
        ->required()
        ->check(CLI::Range(0u, 255u));
    cmd->add_option("SELECTOR2", options->m_nSelector2, "Second PDO selector byte")
        ->required()
        ->check(CLI::Range(0u, 255u));
    cmd->add_option("DATA", options->m_sData, "Data bytes in hex")->required();
    cmd->callback([g, options] { RunPdo(*g, *options); });

    auto address = [&](CLI::App* c) {
        c->add_option("NODE", options->m_nNode, "Node id")->required()->check(CLI::Range(1u, 127u));
        c->add_option("INDEX", options->m_sIndex, "Object index, e.g. 0x1018")->required();
        c->add_option("SUB", options->m_nSub, "Subindex")->required()->check(CLI::Range(0u, 255u));
    };
    cmd = co->add_subcommand("sdo-read", "Read an object of up to 4 bytes");
    address(cmd);
    cmd->callback([g, options] { RunSdoRead(*g, *options); });

    cmd = co->add_subcommand("sdo-write", "Write an object of 1, 2 or 4 bytes");
    address(cmd);
    cmd->add_option("VALUE", options->m_sValue, "The value")->required();
    cmd->add_option("--size", options->m_nSize, "Object size in bytes (default 4)")->check(CLI::IsMember({1u, 2u, 4u}));
    cmd->callback([g, options] { RunSdoWrite(*g, *options); });

    cmd = co->add_subcommand("sdo-read-block", "Read a domain object by block transfer");
    address(cmd);
    cmd->add_option("-o,--output", options->m_sOutput, "Write the data to FILE");
    cmd->callback([g, options] { RunSdoReadBlock(*g, *options); });

    cmd = co->add_subcommand("sdo-write-block", "Write a file to a domain object by block transfer");
    address(cmd);
    cmd->add_option("FILE", options->m_sFile, "The data")->required();
    cmd->callback([g, options] { RunSdoWriteBlock(*g, *options); });

    cmd = co->add_subcommand("events", "Print PDO, SYNC, EMCY and node-guarding events as they arrive");
    cmd->add_option("--count,-n", options->m_nCount, "Stop after N events");
    cmd->add_option("--duration", options->m_dDuration, "Stop after S seconds")->check(CLI::PositiveNumber);
    cmd->callback([g, options] { RunEvents(*g, *options); });
}
