// Ctrl-C (and SIGTERM) for commands that must end cleanly: while a CCliInterrupt lives
// the signals only raise a flag, and the command stops at its next step, never in the
// middle of a telegram or with output unflushed.
#ifndef TARVIK_TOOLS_CLIINTERRUPT_H
#define TARVIK_TOOLS_CLIINTERRUPT_H

#include <signal.h>

class CCliInterrupt
{
public:
    CCliInterrupt();
    // Puts back the handlers that were there before.
    ~CCliInterrupt();
    CCliInterrupt(const CCliInterrupt&) = delete;
    CCliInterrupt& operator=(const CCliInterrupt&) = delete;

    // True once a signal arrived since the guard was made.
    static bool IsRaised();

private:
    struct sigaction m_oPreviousInt;
    struct sigaction m_oPreviousTerm;
};

#endif
