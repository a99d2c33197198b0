// --trace: one decoded line per telegram on stderr, e.g.
//   14:03:22.123456 -> req 0x0308 GetGlobals id=2 len=0 crc=ok
//   14:03:22.123501 <- cnf 0x8308 GetGlobals id=2 len=8 crc=ok result=ok | 00 40 42 0F 00 00 00 00
#include "CliFormat.h"
#include "CliSession.h"

#include "tarvik/protocol/TarvikProtocolTable.h"

#include <ctime>
#include <iostream>
#include <mutex>

namespace
{
// Longer data fields are cut: a trace line stays one readable line.
constexpr size_t kMaxTracedBytes = 64;

// The sink runs on the calling thread and on the receive thread.
std::mutex gTraceMutex;

std::string CmdName(unsigned short code)
{
    const char* name = tarvik_protocol::CommandName(code);
    return name != nullptr ? name : "cmd" + CliHex(code & 0xFF, 2);
}

std::string TimeOfDay(int64_t timeUs)
{
    time_t seconds = static_cast<time_t>(timeUs / 1000000);
    struct tm local = {};
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%06ld", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<long>(timeUs % 1000000));
    return text;
}

const char* Direction(const STarvikTrace& trace)
{
    if (trace.m_eKind == STarvikTrace::eSent)
        return "-> req";
    if (!trace.m_bValid)
        return "<- bad";
    return (trace.m_nCmdCode & CTarvikMsg::kConfirmationBit) != 0 ? "<- cnf" : "<- ind";
}

// The device's verdict, for confirmations that carry one.
std::string ResultText(const STarvikTrace& trace)
{
    bool confirmation = trace.m_eKind == STarvikTrace::eReceived && (trace.m_nCmdCode & CTarvikMsg::kConfirmationBit);
    if (!confirmation || !trace.m_bValid || trace.m_nDataLen == 0)
        return "";
    unsigned char result = static_cast<unsigned char>(trace.m_pData[0]);
    if (result == 0)
        return " result=ok";
    int code = result | ((trace.m_nDeviceType << 8) & 0xFFFF);
    return " result=" + CliHex(result, 2) + " \"" + TarvikErrorMsg(code) + "\"";
}

std::string DataText(const STarvikTrace& trace)
{
    if (trace.m_nDataLen == 0)
        return "";
    size_t shown = trace.m_nDataLen < kMaxTracedBytes ? trace.m_nDataLen : kMaxTracedBytes;
    std::string text = " | " + CliHexBytes(trace.m_pData, shown);
    if (shown < trace.m_nDataLen)
        text += " ...";
    return text;
}

std::string TelegramLine(const STarvikTrace& trace)
{
    std::string crc = trace.m_bCRCValid ? "ok" : "BAD";
    return std::string(Direction(trace)) + " " + CliHex(trace.m_nCmdCode, 4) + " " + CmdName(trace.m_nCmdCode) +
           " id=" + std::to_string(trace.m_nMsgID) + " len=" + std::to_string(trace.m_nDataLen) + " crc=" + crc +
           ResultText(trace) + DataText(trace);
}

void PrintTrace(const STarvikTrace& trace, void*)
{
    std::string line = TimeOfDay(trace.m_nTimeUs) + " ";
    if (trace.m_eKind == STarvikTrace::eConnected)
        line += "-- connected";
    else if (trace.m_eKind == STarvikTrace::eDisconnected)
        line += "-- disconnected";
    else
        line += TelegramLine(trace);
    std::lock_guard<std::mutex> lock(gTraceMutex);
    std::cerr << line << "\n";
}
} // namespace

void CliInstallTracePrinter(CTarvikClient& client)
{
    client.SetTraceSink(&PrintTrace, nullptr);
}
