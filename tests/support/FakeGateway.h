// CFakeGateway: a scripted gateway on a loopback address for byte-exact tests.
//
// The gateway accepts any number of client connections, cuts each byte stream into
// frames by the 2-byte little-endian length prefix (length = bytes after the
// prefix), records every frame and hands it to the test's handler, which returns
// the raw bytes to send back (an empty string sends nothing). Whatever a real
// device may do wrong can be scripted: answers late or never, wrong check bytes,
// indications, garbage, a frame split over several writes or several frames in one
// write, a closed connection. The handler runs on the gateway's own thread; the
// other operations may be called from any thread.
//
// Beside the gateway, tests/support offers helpers that build golden frames by
// hand, independently of the library's own telegram code.
#ifndef TARVIK_TESTS_SUPPORT_FAKEGATEWAY_H
#define TARVIK_TESTS_SUPPORT_FAKEGATEWAY_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CFakeGateway
{
public:
    // Sees one request frame (prefix and check byte included); returns the raw
    // bytes to send back to the same client, or an empty string for no answer.
    typedef std::function<std::string(const std::string& frame)> THandler;

    enum EMode
    {
        // Accepts clients and answers through the handler.
        eModeAnswer = 0,
        // Bound but not listening: every connect is refused at once.
        eModeRefuse = 1,
        // Listening with a full accept queue and never accepting: a connect
        // neither succeeds nor fails until the client's own time-out.
        eModeSilent = 2,
    };

    CFakeGateway();
    ~CFakeGateway();
    CFakeGateway(const CFakeGateway&) = delete;
    CFakeGateway& operator=(const CFakeGateway&) = delete;

    // Binds address:port (port 0 = any free port) in the given mode. False when
    // the address is taken or the gateway runs already.
    bool Start(const std::string& address, unsigned short port = 0, EMode mode = eModeAnswer);
    // Starts on the first free address of 127.0.<net>.1 .. 127.0.<net>.254 at port.
    // For fixed ports (the C interface always connects to 5002): test programs
    // that ctest runs side by side pick different nets, tests of one program that
    // run side by side simply find different addresses.
    bool StartOnLoopbackNet(unsigned char net, unsigned short port, EMode mode = eModeAnswer);
    // Closes every connection and the listening socket and ends the thread.
    void Stop();

    const std::string& GetAddress() const { return m_sAddress; }
    unsigned short GetPort() const { return m_nPort; }

    // Replaces the handler; without one the gateway never answers.
    void SetHandler(THandler handler);
    // Pause before each answer is sent (0 = none).
    void SetAnswerDelay(unsigned int ms);

    // Every frame received so far, from all clients, in arrival order.
    std::vector<std::string> GetFrames() const;
    size_t GetFrameCount() const;
    void ClearFrames();
    // Waits until at least count frames have arrived; false on time-out.
    bool WaitForFrames(size_t count, unsigned int timeoutMs) const;

    // Connections accepted so far, and connections that the clients closed.
    size_t GetAcceptedCount() const;
    size_t GetPeerClosedCount() const;
    bool WaitForAccepted(size_t count, unsigned int timeoutMs) const;
    bool WaitForPeerClosed(size_t count, unsigned int timeoutMs) const;

    // Sends raw bytes to every connected client in one write; false when none is
    // connected or a write failed.
    bool Send(const std::string& raw);
    // Sends the parts as separate writes with a pause between them.
    bool SendParts(const std::vector<std::string>& parts, unsigned int pauseMs);
    // Closes every client connection (the gateway keeps listening); returns
    // after they are closed.
    void CloseClients();

private:
    struct SClient;

    void ServiceLoop();
    void AcceptClient();
    // Reads what is there; false when the peer closed or the read failed.
    bool ReadClient(SClient& client);
    void HandleFrame(SClient& client, const std::string& frame);
    static bool WriteAll(int fd, const std::string& raw);
    void CloseAllClientsLocked();
    void Wake();
    bool WaitFor(const std::function<bool()>& done, unsigned int timeoutMs) const;

    std::string m_sAddress;
    unsigned short m_nPort;
    EMode m_eMode;
    int m_nListenFd;
    int m_nFillerFd;
    int m_anWakeFd[2];
    std::thread m_oThread;
    std::atomic<bool> m_bStop;

    // Guards everything below; the handler is called without it.
    mutable std::mutex m_oMutex;
    mutable std::condition_variable m_oChanged;
    std::vector<std::unique_ptr<SClient>> m_apClients;
    std::vector<std::string> m_asFrames;
    THandler m_fnHandler;
    unsigned int m_nAnswerDelayMs;
    size_t m_nAccepted;
    size_t m_nPeerClosed;
    bool m_bCloseRequested;
    unsigned int m_nCloseGeneration;
};

// Golden-frame helpers. They build frames byte by byte with their own XOR so that
// a fault in the library's telegram code cannot cancel itself out in a test.
namespace tarvik_test
{
// Bytes from a list of values 0..255.
std::string Frame(std::initializer_list<int> bytes);
// Bytes from hex text; blanks are ignored: Hex("05 00 09 03 02 00 08").
std::string Hex(const std::string& text);
// Upper-case hex text with a blank between bytes, for readable failure messages.
std::string ToHex(const std::string& bytes);
// A complete telegram: LE16(data size + 5), LE16(cmd), LE16(id), data, XOR check byte.
std::string Telegram(unsigned int cmd, int id, const std::string& data);
// The same with a check byte of the caller's choice (for bad check bytes).
std::string TelegramWithCheck(unsigned int cmd, int id, const std::string& data, int check);
// A confirmation: Telegram(cmd | 0x8000, id, data).
std::string Cnf(unsigned int cmd, int id, const std::string& data);
// Fields of a received frame; 0 for a frame shorter than 6 bytes, so that a
// handler survives garbage sent by the client.
unsigned int FrameCmd(const std::string& frame);
short FrameId(const std::string& frame);
// The data field of a received frame (between the id and the check byte).
std::string FrameData(const std::string& frame);
// Little-endian bytes of a 32-bit value.
std::string LE32(unsigned int value);
} // namespace tarvik_test

#endif
