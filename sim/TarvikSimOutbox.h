// Telegrams a simulated device sends unasked (indications) to one client connection.
//
// Any thread may post; only the connection's own thread takes the bytes out and writes
// them to the socket, between whole answers, so a confirmation and an indication never
// interleave inside a frame. The connection's thread waits on GetFd() (an eventfd) next
// to its socket; the descriptor is signalled when the box turns non-empty.
//
// The box is bounded, as a gateway's send buffers are: Post drops a telegram that does
// not fit, PostWait waits for room. Shared ownership (the connection and the device's
// list of outlets) lets a poster finish with a box whose connection has just ended.
#ifndef TARVIK_SIM_TARVIKSIMOUTBOX_H
#define TARVIK_SIM_TARVIKSIMOUTBOX_H

#include "tarvik/core/TarvikMsg.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

class CTarvikSimOutbox
{
public:
    static constexpr size_t kDefaultCapacity = 4u << 20;

    CTarvikSimOutbox(unsigned long id, size_t capacity = kDefaultCapacity);
    ~CTarvikSimOutbox();
    CTarvikSimOutbox(const CTarvikSimOutbox&) = delete;
    CTarvikSimOutbox& operator=(const CTarvikSimOutbox&) = delete;

    unsigned long GetId() const { return m_nId; }
    // Readable while bytes wait; -1 if no eventfd could be made (then nothing is posted).
    int GetFd() const { return m_nFd; }

    // Queues the telegram; false when it does not fit or the box is closed.
    bool Post(const CTarvikMsg& msg);
    // Queues the telegram, waiting for room; false once the box is closed.
    bool PostWait(const CTarvikMsg& msg);
    // Swaps the waiting bytes into out (emptied first) and clears the signal; wakes
    // posters that wait for room.
    void Take(std::string& out);
    // No more posts; wakes posters that wait for room.
    void Close();

private:
    bool Append(const CTarvikMsg& msg, std::unique_lock<std::mutex>& lock, bool wait);

    unsigned long m_nId;
    size_t m_nCapacity;
    int m_nFd;
    std::mutex m_oMutex;
    std::condition_variable m_oRoom;
    std::string m_sBytes;
    bool m_bClosed;
};

#endif
