// A bare TCP client for tests and benchmarks: sends bytes as given and cuts received
// frames at their length prefix, nothing more. It neither encodes nor checks telegrams:
// the bytes on the wire are the caller's, byte for byte.
#ifndef TARVIK_SIM_TARVIKSIMRAWCLIENT_H
#define TARVIK_SIM_TARVIKSIMRAWCLIENT_H

#include <cstddef>
#include <string>

class CTarvikSimRawClient
{
public:
    CTarvikSimRawClient();
    ~CTarvikSimRawClient();
    CTarvikSimRawClient(const CTarvikSimRawClient&) = delete;
    CTarvikSimRawClient& operator=(const CTarvikSimRawClient&) = delete;

    // Connects with TCP_NODELAY; false on failure or time-out.
    bool Connect(const std::string& host, unsigned short port, unsigned int timeoutMs = 2000);
    void Close();
    bool IsConnected() const { return m_nSocket >= 0; }

    // Sends all bytes; false on error.
    bool Send(const std::string& bytes);
    // The next whole frame (length prefix included); empty on time-out, error or when
    // the peer closed (see IsPeerClosed).
    std::string ReceiveFrame(unsigned int timeoutMs = 2000);
    // Send, then ReceiveFrame.
    std::string Transact(const std::string& bytes, unsigned int timeoutMs = 2000);
    // True once the server has closed the connection (seen by a receive).
    bool IsPeerClosed() const { return m_bPeerClosed; }

private:
    bool Fill(size_t want, unsigned int timeoutMs);

    int m_nSocket;
    bool m_bPeerClosed;
    std::string m_sPending;
};

#endif
