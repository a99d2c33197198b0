// CFakeGateway: a scripted gateway on a loopback address for byte-exact tests.
//
// It accepts any number of clients, cuts each byte stream into frames by the 2-byte
// little-endian length prefix (length = bytes after the prefix), records every frame
// and hands it to the test's handler, which returns the raw bytes to send back to
// that client (empty: no answer). Each client has its own thread, which runs the
// handler.
//
// Beside the gateway, tests/support offers helpers that build golden frames by
// hand, independently of the library's own telegram code.
#ifndef TARVIK_TESTS_SUPPORT_FAKEGATEWAY_H
#define TARVIK_TESTS_SUPPORT_FAKEGATEWAY_H

#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class CFakeGateway
{
public:
    typedef std::function<std::string(const std::string& frame)> THandler;

    enum EMode
    {
        eModeAnswer = 0, // accepts clients and answers through the handler
        eModeRefuse = 1, // bound but not listening: every connect is refused
        eModeSilent = 2, // accept queue full: a connect hangs until the client gives up
    };

    CFakeGateway() = default;
    ~CFakeGateway() { Stop(); }
    CFakeGateway(const CFakeGateway&) = delete;
    CFakeGateway& operator=(const CFakeGateway&) = delete;

    // Binds address:port (0 = any free port); false when taken or running already.
    bool Start(const std::string& address, unsigned short port = 0, EMode mode = eModeAnswer);
    // Starts on the first free address 127.0.<net>.1..254. For fixed ports: test
    // programs pick different nets, tests of one program find different addresses.
    bool StartOnLoopbackNet(unsigned char net, unsigned short port, EMode mode = eModeAnswer);
    void Stop();

    const std::string& GetAddress() const { return m_sAddress; }
    unsigned short GetPort() const { return m_nPort; }

    // Without a handler the gateway never answers.
    void SetHandler(THandler handler);
    // Answers every request with its own command code and this payload (none: no answer).
    void AnswerWith(const std::optional<std::string>& payload);
    // Every frame received so far, from all clients, in arrival order.
    std::vector<std::string> GetFrames() const;
    bool WaitForFrames(size_t count, unsigned int timeoutMs) const;
    // Connections accepted so far, and connections that the clients closed.
    bool WaitForAccepted(size_t count, unsigned int timeoutMs) const;
    bool WaitForPeerClosed(size_t count, unsigned int timeoutMs) const;
    size_t GetPeerClosed() const;

    // Sends raw bytes to every client in one write; false when none is connected.
    bool Send(const std::string& raw);
    // The same without waiting for buffer space: a client whose buffers are full gets
    // only what fits (a cut stream). False unless every client took all of it.
    bool SendNoWait(const std::string& raw);
    // Closes every client connection; the gateway keeps listening.
    void CloseClients();

private:
    void AcceptLoop();
    void ServeClient(int fd);
    bool WaitFor(const std::function<bool()>& done, unsigned int timeoutMs) const;

    std::string m_sAddress;
    unsigned short m_nPort = 0;
    int m_nListenFd = -1;
    int m_nFillerFd = -1;
    std::thread m_oAcceptThread;

    // Guards everything below; the handler is called without it.
    mutable std::mutex m_oMutex;
    mutable std::condition_variable m_oChanged;
    std::vector<std::thread> m_aoClientThreads;
    std::vector<int> m_anClients;
    std::vector<std::string> m_asFrames;
    THandler m_fnHandler;
    size_t m_nAccepted = 0;
    size_t m_nPeerClosed = 0;
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
// Fields of a received frame; 0 for a frame shorter than 6 bytes.
unsigned int FrameCmd(const std::string& frame);
short FrameId(const std::string& frame);
// The data field of a received frame (between the id and the check byte).
std::string FrameData(const std::string& frame);
// Little-endian bytes of a 32-bit value.
std::string LE32(unsigned int value);
// Output values as text for table tests: hex numbers separated by blanks, "-" for a
// value still holding sentinel (an output the call left alone).
std::string HexNumbers(std::initializer_list<unsigned int> values, unsigned int sentinel);
} // namespace tarvik_test

#endif
