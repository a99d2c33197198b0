// tarvik can dump: received frames in candump's layouts. The frames wait in the client's
// own CAN queue; a receiver wakes the printer when one arrives, and the queue's drop
// count tells how many a slow output cost.
#include "CliCan.h"
#include "CliCanOpenMode.h"
#include "CliInterrupt.h"

#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sys/time.h>

namespace
{
// Frames the client's queue keeps for the printer.
constexpr unsigned long kDumpBacklog = 1ul << 16;
// Longest wait for a frame before the end conditions are looked at again.
constexpr unsigned int kWakeMs = 100;

// Wakes the printer when a frame went into the queue. CANopen events are taken (and so
// dropped): a dump shows frames only, and they must not pile up in their queues.
class CDumpWaker : public ITarvikCanReceiver
{
public:
    bool OnPDO(unsigned char, unsigned char, unsigned char, const char*) override { return true; }
    bool OnSYNC(unsigned char) override { return true; }
    bool OnEMCY(unsigned char, unsigned short, unsigned char, const unsigned char*) override { return true; }
    bool OnGUARD(unsigned char, unsigned char) override { return true; }
    bool OnUndefined(int, const char*, int, int, int) override { return true; }
    void OnQueued(EQueue queue) override
    {
        if (queue != eQueueCAN)
            return;
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            m_bQueued = true;
        }
        m_oQueued.notify_one();
    }
    // Waits up to waitMs for a frame queued since the last wait.
    void Wait(unsigned int waitMs)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        m_oQueued.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return m_bQueued; });
        m_bQueued = false;
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oQueued;
    bool m_bQueued = false;
};

struct SReceived
{
    SCliCanFrame m_oFrame;
    int64_t m_nSeconds;
    unsigned int m_nMicros;
};

// The oldest queued frame; false when there is none.
bool TakeFrame(CTarvikClientCANDll& client, SReceived& received)
{
    int id = 0, flags = 0, seconds = 0, micros = 0;
    char data[CTarvikClientCANDll::kMaxFrameData];
    unsigned char len = 0;
    if (client.CANGetMessage(&id, data, &len, &flags, &seconds, &micros) < 0)
        return false;
    // The queue gives the flags byte signed; the frame wants it as sent.
    flags &= 0xFF;
    received = SReceived{CliCanFrameOf(static_cast<unsigned int>(id), data, len, flags), seconds,
                         static_cast<unsigned int>(micros)};
    // Without the gateway's stamp the frame is stamped when it is taken.
    if ((flags & tarvik_protocol::can::kFlagTimeStamp) == 0)
    {
        timeval now{};
        gettimeofday(&now, nullptr);
        received.m_nSeconds = now.tv_sec;
        received.m_nMicros = static_cast<unsigned int>(now.tv_usec);
    }
    return true;
}

// In CANopen mode the gateway hands received frames over as CANopen events, which a
// dump does not see: said once, before the first frame.
void WarnIfCanOpenMode(const SCliGlobals& globals, CCliCan& can)
{
    unsigned char mode = 0;
    if (can.Client().CANopenGetConfig(mode) == 0 && mode != 0)
        std::fprintf(stderr,
                     "tarvik can dump: CANopen mode is on (mode %u): the gateway reports received frames as "
                     "CANopen events, which this dump does not show; switch it off with: %s\n",
                     static_cast<unsigned int>(mode), CliCanOpenModeCommand(globals, false).c_str());
}

void PrintFrame(const SCliGlobals& globals, const SCanOptions& options, const std::string& name,
                const SReceived& received, std::ostream& out)
{
    if (globals.m_bJson)
        out << CliJsonLine(TCliJson{
                   {"time", static_cast<double>(received.m_nSeconds) + static_cast<double>(received.m_nMicros) / 1e6},
                   {"interface", name},
                   {"frame", CliCanFrameText(received.m_oFrame)}})
            << '\n';
    else if (options.m_bLog)
        out << CliCanLogLine(received.m_oFrame, received.m_nSeconds, received.m_nMicros, name) << '\n';
    else
        out << CliCandumpLine(received.m_oFrame, name) << '\n';
}
} // namespace

void CliRunCanDump(const SCliGlobals& globals, const SCanOptions& options)
{
    std::ofstream file;
    if (!options.m_sOutput.empty())
        CliOpenWrite(file, options.m_sOutput, std::ios::trunc);
    std::ostream& out = file.is_open() ? static_cast<std::ostream&>(file) : std::cout;
    CDumpWaker waker;
    CCliInterrupt interrupt;
    CCliCan can(globals, &waker, kDumpBacklog);
    WarnIfCanOpenMode(globals, can);
    const std::string name = CliCanInterfaceName(globals);
    const auto started = std::chrono::steady_clock::now();
    auto ended = [&] {
        return CCliInterrupt::IsRaised() ||
               (options.m_dDuration > 0 &&
                std::chrono::steady_clock::now() - started >= std::chrono::duration<double>(options.m_dDuration));
    };
    unsigned long count = 0;
    SReceived received;
    while (!ended() && (options.m_nCount == 0 || count < options.m_nCount))
    {
        if (can.Client().GetConnectState() == 0)
            CliFail("the connection to " + can.Session().Describe() + " has ended");
        waker.Wait(kWakeMs);
        while ((options.m_nCount == 0 || count < options.m_nCount) && TakeFrame(can.Client(), received))
        {
            ++count;
            PrintFrame(globals, options, name, received, out);
        }
        out.flush();
    }
    // The waker lives on this stack: no call may run into it once this function has left.
    can.Client().StopConnection();
    STarvikCanDropCounts drops{};
    can.Client().GetDropCounts(CTarvikClientCANDll::eQueueCAN, drops);
    if (drops.nFull != 0)
        CliWarn("can dump: " + std::to_string(drops.nFull) + " frames lost (output too slow)");
    if (globals.m_bJson)
        out << CliJsonLine(TCliJson{{"summary", {{"frames", count}, {"dropped", CliCanDropsJson(can.Client())}}}})
            << '\n';
    else
        std::fprintf(stderr, "tarvik can dump: %lu frames; dropped on arrival: %s\n", count,
                     CliCanDropsText(can.Client()).c_str());
    out.flush();
}
