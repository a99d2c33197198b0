// One client connection of a simulated device: its own thread reads the TCP stream
// in large blocks, cuts telegrams at their length prefix and answers each in one send().
//
// A frame shorter than 7 bytes or with a bad check byte is dropped without an answer;
// the length prefix still tells where the next frame starts, so the stream stays in step.
#ifndef TARVIK_SIM_TARVIKSIMCONNECTION_H
#define TARVIK_SIM_TARVIKSIMCONNECTION_H

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimFaults.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

class CTarvikSimConnection
{
public:
    // Takes ownership of the connected socket.
    CTarvikSimConnection(int socket, CTarvikSimDevice& device, const STarvikSimFaults& faults);
    // Stops the thread, waits for it and closes the socket.
    ~CTarvikSimConnection();
    CTarvikSimConnection(const CTarvikSimConnection&) = delete;
    CTarvikSimConnection& operator=(const CTarvikSimConnection&) = delete;

    void Start();
    // Wakes the thread out of any wait and makes it end; any thread may call it.
    void RequestStop();
    // True once the thread has ended (peer closed, error, fault or stop).
    bool IsFinished() const { return m_bFinished.load(); }

private:
    void Run();
    // False when the connection is to end.
    bool HandleFrame(const char* frame, size_t len);
    bool WaitDelay(unsigned int ms);
    bool Send(const CTarvikMsg& cnf, bool badCRC);

    int m_nSocket;
    CTarvikSimDevice& m_oDevice;
    const STarvikSimFaults& m_oFaults;
    std::thread m_oThread;
    std::atomic<bool> m_bFinished;
    std::mutex m_oMutex;
    std::condition_variable m_oWake;
    bool m_bStop;
    std::vector<char> m_aReceive;
    std::vector<char> m_aSend;
};

#endif
