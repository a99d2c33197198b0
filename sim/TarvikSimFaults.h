// Faults the simulator can show on demand, so that tests see how a client copes.
#ifndef TARVIK_SIM_TARVIKSIMFAULTS_H
#define TARVIK_SIM_TARVIKSIMFAULTS_H

#include <atomic>

enum ETarvikSimFault
{
    // Answer every request properly.
    eTarvikSimFaultNone = 0,
    // Handle requests (state changes take effect) but send no answer.
    eTarvikSimFaultSilent = 1,
    // Answer with the check byte inverted.
    eTarvikSimFaultBadCRC = 2,
    // Answer with the command number one higher than the request's (check byte correct).
    eTarvikSimFaultWrongCmd = 3,
    // Close the connection on the next request instead of answering it.
    eTarvikSimFaultClose = 4,
};

// Shared by a server and its connections; read on every answer.
struct STarvikSimFaults
{
    std::atomic<ETarvikSimFault> m_eFault{eTarvikSimFaultNone};
    // Every answer is sent this many milliseconds late.
    std::atomic<unsigned int> m_nDelayMs{0};
};

#endif
