#include "CliInterrupt.h"

#include <atomic>

namespace
{
std::atomic<bool> g_bRaised{false};

extern "C" void OnSignal(int)
{
    g_bRaised = true;
}
} // namespace

CCliInterrupt::CCliInterrupt() : m_oPreviousInt(), m_oPreviousTerm()
{
    g_bRaised = false;
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &m_oPreviousInt);
    sigaction(SIGTERM, &action, &m_oPreviousTerm);
}

CCliInterrupt::~CCliInterrupt()
{
    sigaction(SIGINT, &m_oPreviousInt, nullptr);
    sigaction(SIGTERM, &m_oPreviousTerm, nullptr);
}

bool CCliInterrupt::IsRaised()
{
    return g_bRaised.load();
}
