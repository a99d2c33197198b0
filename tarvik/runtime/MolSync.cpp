#include "tarvik/runtime/MolSync.h"

#include <chrono>

namespace
{
constexpr unsigned int kInfinite = 0xFFFFFFFFu;
}

CMolEvent::CMolEvent() : m_bSignalled(false), m_nGeneration(0) {}

CMolEvent::~CMolEvent() = default;

void CMolEvent::Signal()
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bSignalled = true;
        ++m_nGeneration;
    }
    m_oCond.notify_all();
}

void CMolEvent::Reset()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_bSignalled = false;
}

bool CMolEvent::Wait(unsigned int timeoutMs)
{
    // A confirmation usually follows within tens of microseconds. Yielding for a short
    // while first lets the other threads run on a busy CPU and, with a CPU to spare,
    // catches the signal without the sleep and cross-CPU wake-up of a blocked thread.
    if (timeoutMs > 0 && TrySpin(m_nGeneration.load(std::memory_order_acquire)))
        return true;
    std::unique_lock<std::mutex> lock(m_oMutex);
    const unsigned long generation = m_nGeneration;
    auto woken = [this, generation] { return m_bSignalled || m_nGeneration != generation; };
    if (timeoutMs == kInfinite)
        m_oCond.wait(lock, woken);
    else if (!m_oCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken))
        return false;
    m_bSignalled = false;
    return true;
}

bool CMolEvent::TrySpin(unsigned long generation)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(kSpinUs);
    do
    {
        if (m_bSignalled.load(std::memory_order_acquire) || m_nGeneration.load(std::memory_order_acquire) != generation)
        {
            std::lock_guard<std::mutex> lock(m_oMutex);
            m_bSignalled = false;
            return true;
        }
        std::this_thread::yield();
    } while (std::chrono::steady_clock::now() < until);
    return false;
}

CMolMutex::CMolMutex() = default;

CMolMutex::~CMolMutex() = default;

bool CMolMutex::Lock(unsigned int timeoutMs)
{
    if (timeoutMs == kInfinite)
    {
        m_oMutex.lock();
        return true;
    }
    return m_oMutex.try_lock_for(std::chrono::milliseconds(timeoutMs));
}

void CMolMutex::Unlock()
{
    m_oMutex.unlock();
}

CMolThread::CMolThread(unsigned int stackSize) : m_bTerminate(false), m_bRunning(false), m_nStackSize(stackSize) {}

CMolThread::~CMolThread()
{
    // A derived class must call Terminate() in its own destructor; this is the last guard.
    m_bTerminate = true;
    Join();
}

bool CMolThread::Initialize()
{
    return true;
}

bool CMolThread::Start()
{
    if (m_oThread.joinable())
    {
        if (m_bRunning)
            return false;
        m_oThread.join();
    }
    m_bTerminate = false;
    m_bRunning = true;
    try
    {
        m_oThread = std::thread([this] {
            Run();
            m_bRunning = false;
        });
    }
    catch (...)
    {
        m_bRunning = false;
        return false;
    }
    return true;
}

void CMolThread::Terminate()
{
    m_bTerminate = true;
    Join();
}

void CMolThread::Join()
{
    if (m_oThread.joinable() && m_oThread.get_id() != std::this_thread::get_id())
        m_oThread.join();
}

bool CMolThread::IsTerminationRequested() const
{
    return m_bTerminate;
}

bool CMolThread::IsRunning() const
{
    return m_bRunning;
}

void CMolThread::Sleep(long seconds, long milliseconds)
{
    std::this_thread::sleep_for(std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds));
}
