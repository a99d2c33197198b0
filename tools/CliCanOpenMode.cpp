#include "CliCanOpenMode.h"

#include "CliFormat.h"

#include "tarvik/clients/TarvikClientCAN.h"

namespace
{
// The gateway's device results of the CANopen services.
constexpr int kResultNodeSilent = 0x0002FC;
constexpr int kResultAborted = 0x0002FD;
constexpr int kResultModeOff = 0x0002FE;
} // namespace

std::string CliCanOpenModeCommand(const SCliGlobals& globals, bool on)
{
    std::string command = "tarvik";
    if (globals.m_bSim)
        command += " --sim";
    else if (!globals.m_sHost.empty())
        command += " --host " + globals.m_sHost;
    if (globals.m_nPort != 0)
        command += " --port " + std::to_string(globals.m_nPort);
    else if (globals.m_nPortIndex != 0)
        command += " --port-index " + std::to_string(globals.m_nPortIndex);
    return command + " canopen mode " + (on ? "on" : "off");
}

std::string CliCanOpenModeHint(const SCliGlobals& globals)
{
    std::string hint = "switch it on with: " + CliCanOpenModeCommand(globals, true);
    // The built-in simulator lives as long as one command: a mode set there is gone after it.
    if (globals.m_bSim || globals.m_sHost.empty())
        hint += " (the built-in simulator forgets it when that command ends: start `tarvik sim --devices can` "
                "and give its --host to keep it)";
    return hint;
}

void CliCheckCanOpen(const SCliGlobals& globals, int result, const std::string& what, int node, unsigned int abortCode,
                     unsigned int sdoTimeoutMs)
{
    if (result == kResultModeOff)
        throw CCliError(what + ": CANopen mode is off on this gateway", eCliExitFailure, result,
                        CliCanOpenModeHint(globals));
    if (result == kResultNodeSilent && node >= 0)
    {
        std::string cause = "no node " + std::to_string(node) + " on the bus, or it is stopped or unpowered";
        if (sdoTimeoutMs != 0)
            cause += "; the gateway's time limit was " + std::to_string(sdoTimeoutMs) + " ms (--sdo-timeout)";
        throw CCliError(what + ": node " + std::to_string(node) + " does not answer", eCliExitFailure, result, cause);
    }
    if (result == kResultAborted && abortCode != 0)
    {
        const std::string text = CTarvikClientCAN::GetSDOAbortText(abortCode);
        throw CCliError(what + ": node " + std::to_string(node) + " aborted the transfer with " + CliHex(abortCode, 8) +
                            ": " + text,
                        eCliExitFailure, result)
            .With("abort_code", CliHex(abortCode, 8))
            .With("abort_text", text);
    }
}
