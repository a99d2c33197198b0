// Events, mutexes and threads of the runtime, on the C++ standard library.
#ifndef TARVIK_RUNTIME_MOLSYNC_H
#define TARVIK_RUNTIME_MOLSYNC_H

#include "tarvik/runtime/TarvikExport.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

// Event: Signal() wakes every thread in Wait() and is consumed by the wake-up (a
// signal with nobody waiting is kept for the next Wait()). Waking all waiters lets
// several threads share one event and each re-check its own condition.
class TARVIK_API CMolEvent
{
public:
    CMolEvent();
    ~CMolEvent();
    CMolEvent(const CMolEvent&) = delete;
    CMolEvent& operator=(const CMolEvent&) = delete;

    void Signal();
    void Reset();
    // True when signalled within timeoutMs, false on time-out. 0xFFFFFFFF waits forever.
    bool Wait(unsigned int timeoutMs);

private:
    // How long Wait() yields before it blocks.
    static constexpr int kSpinUs = 50;
    bool TrySpin(unsigned long generation);

    std::mutex m_oMutex;
    std::condition_variable m_oCond;
    std::atomic<bool> m_bSignalled;
    std::atomic<unsigned long> m_nGeneration;
};

// Mutex whose Lock() takes a time-out; 0xFFFFFFFF waits forever.
class TARVIK_API CMolMutex
{
public:
    CMolMutex();
    ~CMolMutex();
    CMolMutex(const CMolMutex&) = delete;
    CMolMutex& operator=(const CMolMutex&) = delete;

    // True when the lock was taken.
    bool Lock(unsigned int timeoutMs = 0xFFFFFFFFu);
    void Unlock();

private:
    std::timed_mutex m_oMutex;
};

// Scope guard over a CMolMutex (infinite wait).
class TARVIK_API CMolLock
{
public:
    explicit CMolLock(CMolMutex& mutex) : m_oMutex(mutex) { m_oMutex.Lock(0xFFFFFFFFu); }
    ~CMolLock() { m_oMutex.Unlock(); }
    CMolLock(const CMolLock&) = delete;
    CMolLock& operator=(const CMolLock&) = delete;

private:
    CMolMutex& m_oMutex;
};

// Worker thread: derive, override Run(), poll IsTerminationRequested().
class TARVIK_API CMolThread
{
public:
    explicit CMolThread(unsigned int stackSize = 0);
    virtual ~CMolThread();
    CMolThread(const CMolThread&) = delete;
    CMolThread& operator=(const CMolThread&) = delete;

    bool Initialize();
    bool Start();
    // Requests the end of Run() and waits for it.
    void Terminate();
    bool IsTerminationRequested() const;
    bool IsRunning() const;

    static void Sleep(long seconds, long milliseconds);

protected:
    virtual void Run() = 0;

private:
    void Join();

    std::thread m_oThread;
    std::atomic<bool> m_bTerminate;
    std::atomic<bool> m_bRunning;
    // Kept for callers that pass one; std::thread takes the system's default stack.
    [[maybe_unused]] unsigned int m_nStackSize;
};

#endif
