// tarvik can play: the frames of a candump log sent again with their original timing.
#include "CliCan.h"
#include "CliInterrupt.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

namespace
{
// Longest sleep before an interrupt is looked at again.
constexpr unsigned int kPollMs = 100;

struct SLogged
{
    SCliCanFrame m_oFrame;
    int64_t m_nMicros;
};

std::vector<SLogged> ReadLog(const std::string& path)
{
    std::ifstream in;
    CliOpenRead(in, path);
    std::vector<SLogged> frames;
    std::string line;
    unsigned long number = 0, errorFrames = 0, firstErrorFrame = 0;
    while (std::getline(in, line))
    {
        ++number;
        SLogged logged;
        std::string name, error;
        if (CliParseCanLogLine(line, logged.m_oFrame, logged.m_nMicros, name, error))
            frames.push_back(logged);
        else if (CliCanLogLineIsErrorFrame(line))
        {
            // Error frames are what a bus reported, not frames anyone sent: nothing to replay.
            if (errorFrames++ == 0)
                firstErrorFrame = number;
        }
        else if (!error.empty())
            CliFail(path + ":" + std::to_string(number) + ": " + error, eCliExitUsage);
    }
    if (errorFrames != 0)
        std::fprintf(
            stderr,
            "tarvik can play: %s: skipped %lu error frame%s (first at line %lu): a gateway does not send them\n",
            path.c_str(), errorFrames, errorFrames == 1 ? "" : "s", firstErrorFrame);
    return frames;
}

// Sleeps until due or an interrupt; false on the interrupt.
bool SleepUntil(std::chrono::steady_clock::time_point due)
{
    while (!CCliInterrupt::IsRaised() && std::chrono::steady_clock::now() < due)
        std::this_thread::sleep_until(
            std::min(due, std::chrono::steady_clock::now() + std::chrono::milliseconds(kPollMs)));
    return !CCliInterrupt::IsRaised();
}
} // namespace

void CliRunCanPlay(const SCliGlobals& globals, const SCanOptions& options)
{
    std::vector<SLogged> frames = ReadLog(options.m_sLogFile);
    CCliInterrupt interrupt;
    CCliCan can(globals);
    unsigned long sent = 0;
    for (unsigned int loop = 0; (options.m_nLoop == 0 || loop < options.m_nLoop) && !CCliInterrupt::IsRaised(); ++loop)
    {
        // The log's gaps are kept, measured from the first frame of each pass.
        auto start = std::chrono::steady_clock::now();
        for (const SLogged& logged : frames)
        {
            if (!SleepUntil(start + std::chrono::microseconds(logged.m_nMicros - frames.front().m_nMicros)))
                break;
            const SCliCanFrame& frame = logged.m_oFrame;
            can.Check(can.Client().Write(static_cast<int>(frame.m_nId), reinterpret_cast<const char*>(frame.m_aData),
                                         frame.m_nLen, CliCanFlagsOf(frame), nullptr, nullptr),
                      "send " + CliCanFrameText(frame));
            ++sent;
        }
    }
    CliPrint(globals, "sent " + std::to_string(sent) + " frames" + (CCliInterrupt::IsRaised() ? " (interrupted)" : ""),
             TCliJson{{"sent", sent}, {"interrupted", CCliInterrupt::IsRaised()}});
}
