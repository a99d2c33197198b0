// One client connection of a simulated device: its own thread reads the TCP stream,
// cuts telegrams at their length prefix and answers each, shaped by the fault settings.
//
// A frame shorter than 7 bytes or with a bad check byte is dropped without an answer;
// the length prefix still tells where the next frame starts, so the stream stays in step.
// Indications that the device posts to this connection's outbox are written by the
// same thread, after the answer to each request, or when the thread is idle; so frames
// never interleave.
//
// The receive buffer starts small, grows for a large frame and shrinks back once it is
// handled, so that hundreds of idle connections cost little.
#ifndef TARVIK_SIM_TARVIKSIMCONNECTION_H
#define TARVIK_SIM_TARVIKSIMCONNECTION_H

#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimFaults.h"
#include "sim/TarvikSimOutbox.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CTarvikSimConnection
{
public:
    // Takes ownership of the connected socket. wakeFd (an eventfd, or -1) is written
    // once when the connection ends, so that the server reaps it promptly.
    CTarvikSimConnection(int socket, CTarvikSimDevice& device, const STarvikSimFaults& faults, int wakeFd = -1);
    // Stops the thread, waits for it and closes the socket.
    ~CTarvikSimConnection();
    CTarvikSimConnection(const CTarvikSimConnection&) = delete;
    CTarvikSimConnection& operator=(const CTarvikSimConnection&) = delete;

    void Start();
    // Wakes the thread out of any wait and makes it end; any thread may call it.
    void RequestStop();
    // True once the thread has ended (peer closed, error, fault or stop).
    bool IsFinished() const { return m_bFinished.load(); }
    // The id the device knows this connection by (CTarvikSimDevice::GetRequester()).
    unsigned long GetId() const { return m_pOutbox->GetId(); }

private:
    void Run();
    // Blocks until the socket has bytes (or is closed), sending what the device posts
    // meanwhile; false on error or when a send failed.
    bool WaitReadable();
    // Sends what the device posted; false when the connection is to end.
    bool SendPosted();
    // Room for the next recv(): grows the buffer when a partial frame fills it.
    void MakeRoom(size_t used);
    // False when the connection is to end.
    bool HandleFrame(const char* frame, size_t len);
    bool Answer(const CTarvikMsg& cnf);
    bool SendExtras(const CTarvikMsg& cnf);
    // The next value of the fault generator for this connection.
    uint64_t Draw();
    bool WaitDelay(unsigned int ms);
    bool Send(const CTarvikMsg& msg);
    bool SendBytes(const char* data, size_t size);
    bool SendAll(const char* data, size_t size);
    void Close();

    int m_nSocket;
    CTarvikSimDevice& m_oDevice;
    const STarvikSimFaults& m_oFaults;
    int m_nWakeFd;
    std::thread m_oThread;
    std::atomic<bool> m_bFinished;
    std::mutex m_oMutex;
    std::condition_variable m_oWake;
    bool m_bStop;
    // Requests received, draws taken and telegrams sent unasked on this connection.
    unsigned long m_nRequests;
    uint64_t m_nDraws;
    unsigned short m_nUnasked;
    // A stalled connection never sends again.
    bool m_bStalled;
    std::vector<char> m_aReceive;
    std::string m_sSend;
    std::shared_ptr<CTarvikSimOutbox> m_pOutbox;
    std::string m_sPosted;
};

#endif
