// Waiting for a condition with a deadline, and a gateway that floods its clients: the
// tests never sleep for a fixed time, so they pass on a loaded machine.
#ifndef TARVIK_TESTS_SUPPORT_WAIT_H
#define TARVIK_TESTS_SUPPORT_WAIT_H

#include "support/FakeGateway.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace tarvik_test
{
// Polls cond until it holds; the limit only ends a hang. cond is asked once per round:
// some of the answers it looks at are given only once.
template <typename F> bool Eventually(F cond, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    for (auto deadline = std::chrono::steady_clock::now() + limit;;
         std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    }
}

// Writes raw bytes to every client of a gateway, over and over, until destroyed.
class CFlood
{
public:
    enum EWrite
    {
        eWhole = 0, // whole writes, waiting for buffer space: the stream stays in step
        eCut = 1,   // a client that does not keep up gets a cut stream rather than holding the flood up
    };
    // pauseUs: a pause after each write that lets answers in between.
    CFlood(CFakeGateway& gateway, std::string raw, EWrite write = eCut, unsigned int pauseUs = 0)
        : m_oThread([this, &gateway, raw, write, pauseUs] {
              while (!m_bStop.load())
              {
                  bool all = write == eWhole ? gateway.Send(raw) : gateway.SendNoWait(raw);
                  if (!all || pauseUs > 0)
                      std::this_thread::sleep_for(std::chrono::microseconds(pauseUs > 0 ? pauseUs : 1000));
              }
          })
    {
    }
    ~CFlood()
    {
        m_bStop = true;
        m_oThread.join();
    }
    CFlood(const CFlood&) = delete;
    CFlood& operator=(const CFlood&) = delete;

private:
    std::atomic<bool> m_bStop{false};
    std::thread m_oThread;
};
} // namespace tarvik_test

#endif
