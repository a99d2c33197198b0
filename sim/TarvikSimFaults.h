// Faults the simulator can show on demand, so that tests see how a client copes.
//
// One answer fault (ETarvikSimFault) shapes each answer; the other settings add to it
// and combine freely: a share of dropped answers, a delay with jitter, indications and
// stray confirmations before each answer, a close after a number of requests, answers
// dribbled byte by byte, and a limit on connections. Every field may be changed from
// any thread while the server runs; each answer reads them afresh.
#ifndef TARVIK_SIM_TARVIKSIMFAULTS_H
#define TARVIK_SIM_TARVIKSIMFAULTS_H

#include <atomic>
#include <cstdint>

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
    // Answer under the message id one higher than the request's (check byte correct).
    eTarvikSimFaultWrongId = 5,
    // Send the answer twice.
    eTarvikSimFaultTwice = 6,
    // Send 32 bytes from the fault generator instead of the answer; later answers follow
    // as usual, so the client's framing is out of step from here on.
    eTarvikSimFaultGarbage = 7,
    // Send a length field of 65535 and the rest of the answer, then nothing more on
    // this connection, whatever the fault settings later (the frame never completes).
    eTarvikSimFaultStall = 8,
    // Send the first half of the answer, then close the connection.
    eTarvikSimFaultCloseMidFrame = 9,
};

// The fault generator: decisions and garbage depend only on the seed and the number of
// requests a connection has had, so every connection sees the same sequence for one seed.
constexpr uint64_t kTarvikSimDefaultSeed = 0x5EEDu;
// Command number of the indications the simulator interleaves with its answers.
constexpr unsigned char kTarvikSimIndicationCmd = 0x60;

// Shared by a server and its connections.
struct STarvikSimFaults
{
    std::atomic<ETarvikSimFault> m_eFault{eTarvikSimFaultNone};
    // Every answer is sent this many milliseconds late, plus 0..m_nJitterMs.
    std::atomic<unsigned int> m_nDelayMs{0};
    std::atomic<unsigned int> m_nJitterMs{0};
    // Share of requests, 0..100 percent, that are carried out but not answered.
    std::atomic<unsigned int> m_nDropPercent{0};
    std::atomic<uint64_t> m_nSeed{kTarvikSimDefaultSeed};
    // Indications (telegrams with bit 15 clear, command number 0x60, the device's type)
    // sent before each answer.
    std::atomic<unsigned int> m_nIndications{0};
    // Confirmations of requests nobody made (ids from 0x4000 up) sent before each answer.
    std::atomic<unsigned int> m_nStrayCnfs{0};
    // A connection that has had this many requests closes on the next one, unanswered.
    std::atomic<unsigned int> m_nCloseAfter{0};
    // Answers go out one byte at a time with this pause between bytes.
    std::atomic<unsigned int> m_nDribbleMs{0};
    // Clients beyond this many connections are accepted and closed at once (0: no limit).
    std::atomic<unsigned int> m_nMaxConnections{0};
};

#endif
