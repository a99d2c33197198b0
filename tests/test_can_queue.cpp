// The registry's CAN client: received frames and CANopen events decoded from queues and
// handed to callbacks, queue limits, drop rules and order, callbacks that call back in,
// requests that complete during a flood, and destruction while a flood arrives.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"
#include "support/Wait.h"

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/dll/DeviceManager.h"
#include "tarvik/dll/TarvikDllCAN.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr int kHandle = 7;
// Loopback net of this program's gateways on fixed ports (127.0.47.x).
constexpr unsigned char kLoopbackNet = 47;

// The client under test as the fixture builds it: handle kHandle, the fixture's time-out.
class CCANDll : public CTarvikClientCANDll
{
public:
    explicit CCANDll(int timeoutMs) : CTarvikClientCANDll(kHandle, timeoutMs) {}
    ~CCANDll() override { StopConnection(); }
};

// What the callbacks were called with, in order, one line per call.
std::mutex g_oCallsMutex;
std::vector<std::string> g_asCalls;

// One line of a call record, printf-style.
std::string CallText(const char* format, va_list args)
{
    char text[512];
    std::vsnprintf(text, sizeof(text), format, args);
    return text;
}

void Record(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Record(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = CallText(format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(g_oCallsMutex);
    g_asCalls.push_back(text);
}

std::vector<std::string> TakeCalls()
{
    std::lock_guard<std::mutex> lock(g_oCallsMutex);
    std::vector<std::string> calls;
    calls.swap(g_asCalls);
    return calls;
}

std::string Bytes(const void* data, size_t len)
{
    return ToHex(std::string(static_cast<const char*>(data), len));
}

void OnFrame(unsigned int id, const char* data, int len, int flags, int handle)
{
    Record("frame %X %d %d %d | %s", id, len, flags, handle, Bytes(data, static_cast<size_t>(len)).c_str());
}

void OnFrameEx(unsigned int id, const char* data, int len, int flags, int handle, int sec, int us)
{
    Record("frameEx %X %d %d %d %d %d | %s", id, len, flags, handle, sec, us,
           Bytes(data, static_cast<size_t>(len)).c_str());
}

void OnPDO(unsigned char p1, unsigned char p2, unsigned char len, const char* data, int handle, int a, int b)
{
    Record("pdo %X %X %d %d %d %d | %s", p1, p2, len, handle, a, b, Bytes(data, len).c_str());
}

void OnSYNC(unsigned char value, int handle, int a, int b)
{
    Record("sync %X %d %d %d", value, handle, a, b);
}

void OnEMCY(unsigned char node, unsigned short code, unsigned char reg, const unsigned char* data, int handle, int a,
            int b)
{
    Record("emcy %X %X %X %d %d %d | %s", node, code, reg, handle, a, b, Bytes(data, 5).c_str());
}

void OnGUARD(unsigned char node, unsigned char state, int handle, int a, int b)
{
    Record("guard %X %X %d %d %d", node, state, handle, a, b);
}

void OnUndefined(int id, unsigned char p1, unsigned char p2, unsigned char len, const char* data, int handle, int sec,
                 int us)
{
    Record("undefined %X %X %X %d %d %d %d | %s", static_cast<unsigned int>(id), p1, p2, len, handle, sec, us,
           Bytes(data, len).c_str());
}

// Indication telegrams, built by hand.
std::string CanFrame(unsigned int id, int flags, const std::string& data)
{
    return Telegram(0x0203, 0, LE32(id) + Frame({flags}) + data);
}

std::string Stamp(unsigned int sec, unsigned int us)
{
    return LE32(sec) + LE32(us);
}

// Each Get operation, its outputs as text ("empty" when the queue was empty).
typedef std::function<std::string(CTarvikClientCANDll&)> TGet;

const TGet kGetCAN = [](CTarvikClientCANDll& c) {
    int id = -1, flags = 0, sec = -1, us = -1;
    unsigned char len = 0xEE;
    char buf[64];
    int left = c.CANGetMessage(&id, buf, &len, &flags, &sec, &us);
    if (left < 0)
        return std::string("empty");
    char text[128];
    std::snprintf(text, sizeof(text), "%X %d %d %d %d | ", static_cast<unsigned int>(id), len, flags, sec, us);
    return text + Bytes(buf, len);
};

const TGet kGetPDO = [](CTarvikClientCANDll& c) {
    unsigned char p1 = 0, p2 = 0, len = 0;
    char buf[8];
    if (c.CANopenGetPDO(&p1, &p2, &len, buf) < 0)
        return std::string("empty");
    char text[64];
    std::snprintf(text, sizeof(text), "%X %X %d | ", p1, p2, len);
    return text + Bytes(buf, len);
};

const TGet kGetSYNC = [](CTarvikClientCANDll& c) {
    unsigned char value = 0;
    if (c.CANopenGetSYNC(&value) < 0)
        return std::string("empty");
    return HexNumbers({value}, 0x100);
};

const TGet kGetEMCY = [](CTarvikClientCANDll& c) {
    unsigned char node = 0, reg = 0, data[5];
    unsigned short code = 0;
    if (c.CANopenGetEMCY(&node, &code, &reg, data) < 0)
        return std::string("empty");
    return HexNumbers({node, code, reg}, 0x10000) + " | " + Bytes(data, 5);
};

const TGet kGetGUARD = [](CTarvikClientCANDll& c) {
    unsigned char node = 0, state = 0;
    if (c.CANopenGetGUARD(&node, &state) < 0)
        return std::string("empty");
    return HexNumbers({node, state}, 0x100);
};

// The buffer must hold 255 bytes; shown as far as the telegram filled it.
const TGet kGetUndefined = [](CTarvikClientCANDll& c) {
    int id = 0, sec = -1, us = -1;
    unsigned char p1 = 0, p2 = 0, len = 0;
    std::string buf(255, '\xEE');
    if (c.CANopenGetUndefined(&id, &p1, &p2, &len, &buf[0], &sec, &us) < 0)
        return std::string("empty");
    buf.erase(buf.find_last_not_of('\xEE') + 1);
    char text[128];
    std::snprintf(text, sizeof(text), "%X %X %X %d %d %d | ", static_cast<unsigned int>(id), p1, p2, len, sec, us);
    return text + ToHex(buf);
};

// A long time-out: a request answered behind a flood waits for the flood ahead of it.
class CCANQueueTest : public CClientFixture<CCANDll, 5000>
{
protected:
    void SetUp() override
    {
        CClientFixture<CCANDll, 5000>::SetUp();
        // The gateway sends unasked only to clients it has taken in.
        ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kFrameWaitMs));
        TakeCalls();
        AnswerWith(Frame({0}));
    }
    // Sends raw indications, then a request: its answer comes after them on the stream,
    // so once it returns every indication before it has been handled.
    void Deliver(const std::string& raw)
    {
        ASSERT_TRUE(m_oGateway.Send(raw));
        ASSERT_EQ(0, m_pClient->CANopenSendSYNC());
    }
    // What each fetch returns, until the queue is empty.
    std::vector<std::string> Drain(const TGet& get)
    {
        std::vector<std::string> got;
        for (std::string one = get(*m_pClient); one != "empty"; one = get(*m_pClient))
            got.push_back(one);
        return got;
    }
};

typedef std::vector<std::string> TLines;

// One row per kind and rule: the indication, the fetch that decodes it, what it gives,
// what the callback for its kind is called with instead, and what a receiver gets.
struct SIndicationCase
{
    const char* m_pName;
    std::string m_sRaw;
    TGet m_fnGet;
    TLines m_asQueued;
    TLines m_asCalled;
    TLines m_asReceived;
};

std::vector<SIndicationCase> IndicationCases()
{
    const std::string pdoData = Hex("01 02 03 04 05 06 07 08 09 0A 0B 0C");
    const std::string x64 = ToHex(std::string(64, '\x11')), x10 = ToHex(std::string(10, 'x'));
    return {
        {"frame",
         CanFrame(0x123, 0, Hex("11 22 33")),
         kGetCAN,
         {"123 3 0 0 0 | 11 22 33"},
         {"frameEx 123 3 0 7 0 0 | 11 22 33"},
         {"frame 123 3 0 0 0 | 11 22 33"}},
        {"frame with time stamp",
         CanFrame(0x7FF, 0x04, Hex("AA BB") + Stamp(5, 6)),
         kGetCAN,
         {"7FF 2 4 5 6 | AA BB"},
         {"frameEx 7FF 2 4 7 5 6 | AA BB"},
         {"frame 7FF 2 4 5 6 | AA BB"}},
        {"stamp alone",
         CanFrame(1, 0x04, Stamp(0xFFFFFFFF, 9)),
         kGetCAN,
         {"1 0 4 -1 9 | "},
         {"frameEx 1 0 4 7 -1 9 | "},
         {"frame 1 0 4 -1 9 | "}},
        {"flag 0x04 with five bytes",
         CanFrame(1, 0x04, Hex("01 02 03 04 05")),
         kGetCAN,
         {"1 0 4 0 0 | "},
         {"frameEx 1 0 4 7 0 0 | "},
         {"frame 1 0 4 0 0 | "}},
        {"flags signed for the fetch, unsigned for the callback",
         CanFrame(0x80000001, 0x81, Hex("55")),
         kGetCAN,
         {"80000001 1 -127 0 0 | 55"},
         {"frameEx 80000001 1 129 7 0 0 | 55"},
         {"frame 80000001 1 129 0 0 | 55"}},
        {"64 data bytes and a stamp",
         CanFrame(2, 0x04, std::string(64, '\x11') + Stamp(1, 2)),
         kGetCAN,
         {"2 64 4 1 2 | " + x64},
         {"frameEx 2 64 4 7 1 2 | " + x64},
         {"frame 2 64 4 1 2 | " + x64}},
        {"65 data bytes are discarded", CanFrame(3, 0, std::string(65, '\x11')), kGetCAN, {}, {}, {}},
        {"frame without its head is discarded", Telegram(0x0203, 0, Hex("01 02 03 04")), kGetCAN, {}, {}, {}},
        {"pdo: fetched length at most 8, callback gets the device's",
         Telegram(0x0267, 0, Hex("01 02 0C") + pdoData),
         kGetPDO,
         {"1 2 8 | 01 02 03 04 05 06 07 08"},
         {"pdo 1 2 12 7 0 0 | " + ToHex(pdoData)},
         {"pdo 1 2 12 | " + ToHex(pdoData)}},
        {"pdo shorter than its length byte is discarded",
         Telegram(0x0267, 0, Hex("01 02 05 AA BB")),
         kGetPDO,
         {},
         {},
         {}},
        {"sync", Telegram(0x0264, 0, Hex("07")), kGetSYNC, {"7"}, {"sync 7 7 0 0"}, {"sync 7"}},
        {"emcy: unsigned for the fetch and the receiver, low byte signed for the callback",
         Telegram(0x0266, 0, Hex("05 81 10 22 01 02 03 04 05")),
         kGetEMCY,
         {"5 1081 22 | 01 02 03 04 05"},
         {"emcy 5 FF81 22 7 0 0 | 01 02 03 04 05"},
         {"emcy 5 1081 22 | 01 02 03 04 05"}},
        {"emcy plain",
         Telegram(0x0266, 0, Hex("05 34 12 00 00 00 00 00 00")),
         kGetEMCY,
         {"5 1234 0 | 00 00 00 00 00"},
         {"emcy 5 1234 0 7 0 0 | 00 00 00 00 00"},
         {"emcy 5 1234 0 | 00 00 00 00 00"}},
        {"emcy without its data is discarded",
         Telegram(0x0266, 0, Hex("05 34 12 00 00 00 00 00")),
         kGetEMCY,
         {},
         {},
         {}},
        {"guard", Telegram(0x026C, 0, Hex("05 7F")), kGetGUARD, {"5 7F"}, {"guard 5 7F 7 0 0"}, {"guard 5 7F"}},
        {"undefined: buffer gets the stamp too",
         Telegram(0x026D, 0, LE32(0x0304) + Hex("04 A1 A2 A3") + Stamp(1, 2)),
         kGetUndefined,
         {"304 4 3 3 1 2 | A1 A2 A3 01 00 00 00 02 00 00 00"},
         {"undefined 304 4 3 3 7 1 2 | A1 A2 A3"},
         {"undefined 304 3 1 2 | A1 A2 A3"}},
        {"undefined: fetched length at most 8",
         Telegram(0x026D, 0, LE32(0x0102) + Hex("00") + std::string(10, 'x')),
         kGetUndefined,
         {"102 2 1 8 0 0 | " + x10},
         {"undefined 102 2 1 10 7 0 0 | " + x10},
         {"undefined 102 10 0 0 | " + x10}},
        {"another command is ignored", Telegram(0x0299, 0, Hex("05 7F")), kGetGUARD, {}, {}, {}},
    };
}

// A receiver that writes down what it gets, in the calls' own words, and takes it or not.
class CRecordingReceiver : public ITarvikCanReceiver
{
public:
    explicit CRecordingReceiver(bool take) : m_bTake(take) {}
    bool OnFrame(unsigned int id, const char* data, int len, int flags, int sec, int us) override
    {
        return Note("frame %X %d %d %d %d | %s", id, len, flags, sec, us,
                    Bytes(data, static_cast<size_t>(len)).c_str());
    }
    bool OnPDO(unsigned char p1, unsigned char p2, unsigned char len, const char* data) override
    {
        return Note("pdo %X %X %d | %s", p1, p2, len, Bytes(data, len).c_str());
    }
    bool OnSYNC(unsigned char value) override { return Note("sync %X", value); }
    bool OnEMCY(unsigned char node, unsigned short code, unsigned char reg, const unsigned char* data) override
    {
        return Note("emcy %X %X %X | %s", node, code, reg, Bytes(data, 5).c_str());
    }
    bool OnGUARD(unsigned char node, unsigned char state) override { return Note("guard %X %X", node, state); }
    bool OnUndefined(int id, const char* data, int len, int sec, int us) override
    {
        return Note("undefined %X %d %d %d | %s", static_cast<unsigned int>(id), len, sec, us,
                    Bytes(data, static_cast<size_t>(len)).c_str());
    }
    void OnQueued(EQueue queue) override { Note("queued %d", static_cast<int>(queue)); }
    TLines Take()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        TLines lines;
        lines.swap(m_asLines);
        return lines;
    }

private:
    bool Note(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, format);
        std::string text = CallText(format, args);
        va_end(args);
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_asLines.push_back(text);
        return m_bTake;
    }

    const bool m_bTake;
    std::mutex m_oMutex;
    TLines m_asLines;
};

std::string DropText(const CTarvikClientCANDll& client, CTarvikClientCANDll::EQueue queue)
{
    STarvikCanDropCounts counts{};
    client.GetDropCounts(queue, counts);
    return HexNumbers({static_cast<unsigned int>(counts.nDisabled), static_cast<unsigned int>(counts.nFull),
                       static_cast<unsigned int>(counts.nTooLong), static_cast<unsigned int>(counts.nTooShort)},
                      0x10000);
}
} // namespace

TEST_F(CCANQueueTest, EachIndicationIsQueuedAndDecodedByItsKind)
{
    m_pClient->SetMaxSizePerQueue(10);
    for (const SIndicationCase& c : IndicationCases())
    {
        Deliver(c.m_sRaw);
        EXPECT_EQ(c.m_asQueued, Drain(c.m_fnGet)) << c.m_pName;
    }
    EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(CCANQueueTest, EachIndicationGoesToItsCallbackInsteadOfItsQueue)
{
    m_pClient->SetMaxSizePerQueue(10);
    m_pClient->SetCallbackEx(&OnFrameEx);
    m_pClient->CANopenSetCallback(&OnPDO, &OnSYNC, &OnEMCY, &OnGUARD, &OnUndefined);
    for (const SIndicationCase& c : IndicationCases())
    {
        Deliver(c.m_sRaw);
        EXPECT_EQ(c.m_asCalled, TakeCalls()) << c.m_pName;
        EXPECT_EQ(TLines(), Drain(c.m_fnGet)) << c.m_pName;
    }
}

TEST_F(CCANQueueTest, AReceiverGetsWhatNoCallbackTakes)
{
    m_pClient->SetMaxSizePerQueue(10);
    CRecordingReceiver taking(true), declining(false);
    for (const SIndicationCase& c : IndicationCases())
    {
        m_pClient->SetReceiver(&taking);
        Deliver(c.m_sRaw);
        EXPECT_EQ(c.m_asReceived, taking.Take()) << c.m_pName;
        EXPECT_EQ(TLines(), Drain(c.m_fnGet)) << c.m_pName;
        // Declined: it goes on to its queue, and the receiver hears that it is there.
        m_pClient->SetReceiver(&declining);
        Deliver(c.m_sRaw);
        TLines heard = declining.Take();
        EXPECT_EQ(c.m_asReceived.size() * 2, heard.size()) << c.m_pName;
        EXPECT_EQ(c.m_asQueued, Drain(c.m_fnGet)) << c.m_pName;
    }
    // A C callback of a kind comes first; null switches the receiver off.
    m_pClient->SetReceiver(&taking);
    m_pClient->CANopenSetCallback(nullptr, &OnSYNC, nullptr, nullptr, nullptr);
    Deliver(Telegram(0x0264, 0, Hex("01")) + Telegram(0x026C, 0, Hex("02 03")));
    EXPECT_EQ(TLines{"sync 1 7 0 0"}, TakeCalls());
    EXPECT_EQ(TLines{"guard 2 3"}, taking.Take());
    m_pClient->SetReceiver(nullptr);
    Deliver(Telegram(0x026C, 0, Hex("04 05")));
    EXPECT_EQ(TLines(), taking.Take());
    EXPECT_EQ(TLines{"4 5"}, Drain(kGetGUARD));
}

namespace
{
// Holds the receive thread inside OnSYNC until released; a frame clears the receiver
// from inside the receiver.
class CBlockingReceiver : public ITarvikCanReceiver
{
public:
    explicit CBlockingReceiver(CTarvikClientCANDll& client) : m_oClient(client) {}
    bool OnSYNC(unsigned char) override
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        m_bInside = true;
        m_oChanged.notify_all();
        m_oChanged.wait_for(lock, std::chrono::seconds(20), [this] { return m_bRelease; });
        m_bFinished = true;
        return true;
    }
    bool OnFrame(unsigned int, const char*, int, int, int, int) override
    {
        m_oClient.SetReceiver(nullptr);
        return true;
    }
    template <class Pred> bool WaitFor(Pred pred)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::seconds(20), [&] { return pred(*this); });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bRelease = true;
        m_oChanged.notify_all();
    }
    bool Finished()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_bFinished;
    }

    bool m_bInside = false;

private:
    CTarvikClientCANDll& m_oClient;
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    bool m_bRelease = false;
    bool m_bFinished = false;
};
} // namespace

// Clearing the receiver waits for a call of it under way, so the receiver may go right
// after; from inside the receiver it does not wait for itself.
TEST_F(CCANQueueTest, ClearingTheReceiverWaitsForItsCallUnderWay)
{
    m_pClient->SetMaxSizePerQueue(10);
    auto receiver = std::make_unique<CBlockingReceiver>(*m_pClient);
    m_pClient->SetReceiver(receiver.get());
    ASSERT_TRUE(m_oGateway.Send(Telegram(0x0264, 0, Hex("01"))));
    ASSERT_TRUE(receiver->WaitFor([](CBlockingReceiver& r) { return r.m_bInside; }));
    std::atomic<bool> clearing{false}, finishedFirst{false};
    std::thread clearer([&] {
        clearing = true;
        m_pClient->SetReceiver(nullptr);
        finishedFirst = receiver->Finished();
    });
    while (!clearing.load())
        std::this_thread::yield();
    receiver->Release();
    clearer.join();
    EXPECT_TRUE(finishedFirst.load());
    receiver.reset();
    // The receive thread goes on: a frame with no receiver is queued.
    Deliver(CanFrame(5, 0, ""));
    EXPECT_EQ(TLines{"5 0 0 0 0 | "}, Drain(kGetCAN));
    // A receiver that clears itself on its first frame does not wait for itself.
    CBlockingReceiver selfClearing(*m_pClient);
    m_pClient->SetReceiver(&selfClearing);
    Deliver(CanFrame(6, 0, "") + CanFrame(7, 0, ""));
    EXPECT_EQ(TLines{"7 0 0 0 0 | "}, Drain(kGetCAN));
}

// Every telegram lost on arrival is counted once, by its kind and why; counting changes
// nothing that is queued. Counts read: queues off, full, too long, too short.
TEST_F(CCANQueueTest, DropsAreCountedByQueueAndReason)
{
    Deliver(CanFrame(1, 0, "") + CanFrame(2, 0, "") + Telegram(0x0264, 0, Hex("01")));
    m_pClient->SetMaxSizePerQueue(2);
    // Three too many in one read, then two more one by one: the newest five are lost.
    Deliver(CanFrame(10, 0, "") + CanFrame(11, 0, "") + CanFrame(12, 0, "") + CanFrame(13, 0, "") +
            CanFrame(14, 0, ""));
    Deliver(CanFrame(15, 0, ""));
    Deliver(CanFrame(16, 0, ""));
    Deliver(CanFrame(3, 0, std::string(65, 'x')) + Telegram(0x0203, 0, Hex("01 02 03 04")) +
            Telegram(0x0267, 0, Hex("01 02 05 AA BB")) + Telegram(0x0266, 0, Hex("05")));
    EXPECT_EQ("2 5 1 1", DropText(*m_pClient, CTarvikClientCANDll::eQueueCAN));
    EXPECT_EQ("1 0 0 0", DropText(*m_pClient, CTarvikClientCANDll::eQueueSYNC));
    EXPECT_EQ("0 0 0 1", DropText(*m_pClient, CTarvikClientCANDll::eQueuePDO));
    EXPECT_EQ("0 0 0 1", DropText(*m_pClient, CTarvikClientCANDll::eQueueEMCY));
    EXPECT_EQ("0 0 0 0", DropText(*m_pClient, CTarvikClientCANDll::eQueueGUARD));
    EXPECT_EQ((TLines{"A 0 0 0 0 | ", "B 0 0 0 0 | "}), Drain(kGetCAN));
    // What a callback takes is not lost; what is malformed is, callback or not.
    m_pClient->SetCallback(&OnFrame);
    Deliver(CanFrame(4, 0, "") + CanFrame(3, 0, std::string(65, 'x')));
    EXPECT_EQ(1u, TakeCalls().size());
    EXPECT_EQ("2 5 2 1", DropText(*m_pClient, CTarvikClientCANDll::eQueueCAN));
}

TEST_F(CCANQueueTest, OneFrameCallbackAtATime)
{
    m_pClient->SetMaxSizePerQueue(10);
    m_pClient->SetCallbackEx(&OnFrameEx);
    m_pClient->SetCallback(&OnFrame);
    Deliver(CanFrame(0x10, 0x04, Hex("01") + Stamp(1, 2)));
    EXPECT_EQ(TLines{"frame 10 1 4 7 | 01"}, TakeCalls());
    m_pClient->SetCallbackEx(&OnFrameEx);
    Deliver(CanFrame(0x11, 0, Hex("02")));
    EXPECT_EQ(TLines{"frameEx 11 1 0 7 0 0 | 02"}, TakeCalls());
    // Null switches callbacks off: frames go to the queue again.
    m_pClient->SetCallback(nullptr);
    Deliver(CanFrame(0x12, 0, Hex("03")));
    EXPECT_TRUE(TakeCalls().empty());
    EXPECT_EQ(TLines{"12 1 0 0 0 | 03"}, Drain(kGetCAN));
}

TEST_F(CCANQueueTest, NothingIsQueuedUntilAQueueSizeIsSet)
{
    Deliver(CanFrame(1, 0, Hex("01")) + Telegram(0x0264, 0, Hex("01")));
    EXPECT_EQ(-1, m_pClient->CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, m_pClient->CANopenGetSYNC(nullptr));
}

TEST_F(CCANQueueTest, AFullQueueKeepsItsOldestAndCountsDown)
{
    // Full within one read, full from an earlier read, and fed outside any read: each
    // time the newest telegram is the one dropped.
    CCANDll unread(100);
    for (CCANDll* client : {m_pClient.get(), &unread})
    {
        client->SetMaxSizePerQueue(2);
        if (client == &unread)
        {
            for (unsigned int id : {1, 2, 3, 4})
                client->DataIndRespond(new CTarvikMsg(0x0203, 0, FrameData(CanFrame(id, 0, ""))));
        }
        else
        {
            Deliver(CanFrame(1, 0, "") + CanFrame(2, 0, "") + CanFrame(3, 0, ""));
            Deliver(CanFrame(4, 0, ""));
        }
        int id = 0;
        EXPECT_EQ(1, client->CANGetMessage(&id, nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(1, id);
        EXPECT_EQ(0, client->CANGetMessage(&id, nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(2, id);
        EXPECT_EQ(-1, client->CANGetMessage(&id, nullptr, nullptr, nullptr, nullptr, nullptr));
    }
}

TEST_F(CCANQueueTest, SizeZeroEmptiesEveryQueueAndKeepsTheCapacities)
{
    m_pClient->SetMaxSizePerQueue(5);
    std::string mixed;
    for (int i = 0; i < 7; ++i)
        mixed += CanFrame(static_cast<unsigned int>(i), 0, "") + Telegram(0x0264, 0, Frame({i})) +
                 Telegram(0x026C, 0, Frame({i, 0}));
    Deliver(mixed);
    m_pClient->SetMaxSizePerQueue(0);
    EXPECT_EQ(TLines(), Drain(kGetCAN));
    EXPECT_EQ(TLines(), Drain(kGetSYNC));
    EXPECT_EQ(TLines(), Drain(kGetGUARD));
    // Switched off: what arrives now is dropped.
    Deliver(mixed);
    EXPECT_EQ(TLines(), Drain(kGetSYNC));
    m_pClient->SetMaxSizePerQueue(5);
    Deliver(mixed);
    EXPECT_EQ((TLines{"0", "1", "2", "3", "4"}), Drain(kGetSYNC));
    EXPECT_EQ(5u, Drain(kGetGUARD).size());
}

// Many telegrams per socket read: each queue still takes them in order up to its limit,
// and the kinds do not share a limit.
TEST_F(CCANQueueTest, ABurstKeepsOrderAndLimitPerQueue)
{
    m_pClient->SetMaxSizePerQueue(100);
    std::string burst;
    for (unsigned int i = 0; i < 300; ++i)
        burst += CanFrame(i, 0, LE32(i)) + (i % 3 == 0 ? Telegram(0x0264, 0, Frame({static_cast<int>(i / 3)})) : "");
    Deliver(burst);
    std::vector<std::string> frames = Drain(kGetCAN);
    ASSERT_EQ(100u, frames.size());
    for (unsigned int i = 0; i < 100; ++i)
    {
        char want[64];
        std::snprintf(want, sizeof(want), "%X 4 0 0 0 | %s", i, ToHex(LE32(i)).c_str());
        EXPECT_EQ(want, frames[i]);
    }
    std::vector<std::string> syncs = Drain(kGetSYNC);
    ASSERT_EQ(100u, syncs.size());
    EXPECT_EQ("63", syncs.back());
    // Room again: the next burst goes in after nothing.
    Deliver(CanFrame(0xABC, 0, ""));
    EXPECT_EQ(TLines{"ABC 0 0 0 0 | "}, Drain(kGetCAN));
}

// The batch fetch hands out what CANGetMessage would, oldest first, and counts what is
// left under the same lock; a queue that filled up within the batch kept its oldest.
TEST_F(CCANQueueTest, ABatchFetchTakesTheOldestFramesAsTheSingleFetchDecodesThem)
{
    m_pClient->SetMaxSizePerQueue(5);
    const std::string frames = CanFrame(0x10, 0x81, Hex("01 02")) + CanFrame(0x11, 0x04, Hex("AA") + Stamp(7, 8)) +
                               CanFrame(0x12, 0x04, Hex("01 02 03")) + CanFrame(0x13, 0, std::string(64, 'x')) +
                               CanFrame(0x14, 0, "") + CanFrame(0x15, 0, "") + CanFrame(0x16, 0, "");
    Deliver(frames);
    const TLines single = Drain(kGetCAN);
    ASSERT_EQ(5u, single.size());
    Deliver(frames);
    STarvikCanMessage batch[8];
    std::memset(batch, 0xEE, sizeof(batch));
    int left = -1;
    TLines got;
    for (int max : {2, 0, 8, 8})
    {
        const int taken = m_pClient->CANGetMessages(max == 0 ? nullptr : batch, max, &left);
        got.push_back(std::to_string(taken) + " taken, " + std::to_string(left) + " left");
        for (int i = 0; i < taken; ++i)
        {
            char text[128];
            std::snprintf(text, sizeof(text), "%X %d %d %d %d | ", static_cast<unsigned int>(batch[i].nIdentifier),
                          batch[i].nLen, batch[i].nFlags, batch[i].nSeconds, batch[i].nMicroseconds);
            got.push_back(text + Bytes(batch[i].acData, batch[i].nLen));
        }
    }
    EXPECT_EQ((TLines{"2 taken, 3 left", single[0], single[1], "0 taken, 3 left", "3 taken, 0 left", single[2],
                      single[3], single[4], "0 taken, 0 left"}),
              got);
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->CANGetMessages(batch, -1, &left));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->CANGetMessages(nullptr, 1, &left));
    EXPECT_EQ(0, left);
}

namespace
{
// A callback that calls back into the client it is called from.
std::atomic<CTarvikClientCANDll*> g_pReentered{nullptr};
std::atomic<int> g_nReentered{0};

void ReenteringSYNC(unsigned char value, int, int, int)
{
    unsigned char queued = 0;
    CTarvikClientCANDll* client = g_pReentered.load();
    // The SYNC queue is not the one being delivered to; the CAN queue is fetched from too.
    client->CANopenGetSYNC(&queued);
    client->CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    client->Write(0x100 + value, nullptr, 0, 0, nullptr, nullptr);
    client->SetMaxSizePerQueue(value == 2 ? 0 : 50);
    ++g_nReentered;
}
} // namespace

TEST_F(CCANQueueTest, ACallbackMayCallBackIntoTheClient)
{
    g_pReentered = m_pClient.get();
    g_nReentered = 0;
    m_pClient->SetMaxSizePerQueue(50);
    m_pClient->CANopenSetCallback(nullptr, &ReenteringSYNC, nullptr, nullptr, nullptr);
    std::string burst;
    for (int i = 0; i < 4; ++i)
        burst += CanFrame(static_cast<unsigned int>(i), 0, "") + Telegram(0x0264, 0, Frame({i}));
    Deliver(burst);
    EXPECT_EQ(4, g_nReentered.load());
    // Frames 0..2 queued, one fetched per callback; the callback for 2 switched queueing
    // off and the one for 3 on again, after frame 3 was dropped.
    EXPECT_EQ(TLines(), Drain(kGetCAN));
    // Its unconfirmed writes went out: 4 frames besides the fixture's SYNC requests.
    size_t writes = 0;
    for (const std::string& frame : Frames(5))
        writes += FrameCmd(frame) == 0x0203;
    EXPECT_EQ(4u, writes);
    g_pReentered = nullptr;
}

namespace
{
std::string FloodOfFrames(size_t count)
{
    std::string raw;
    for (size_t i = 0; i < count; ++i)
        raw += CanFrame(static_cast<unsigned int>(i), 0x04, std::string(8, static_cast<char>(i)) + Stamp(1, 2));
    return raw;
}

std::atomic<unsigned long> g_nFlooded{0};
void CountFrame(unsigned int, const char*, int, int, int)
{
    ++g_nFlooded;
}
} // namespace

// Requests are answered in the middle of a stream of indications: each still finds its
// answer, whether the indications go to a queue that a thread drains or to a callback.
TEST_F(CCANQueueTest, RequestsCompleteDuringAFlood)
{
    m_pClient->SetMaxSizePerQueue(1000);
    std::atomic<bool> draining{true};
    std::atomic<unsigned long> drained{0};
    std::thread consumer([&] {
        int id = 0;
        char buf[64];
        while (draining.load())
            if (m_pClient->CANGetMessage(&id, buf, nullptr, nullptr, nullptr, nullptr) >= 0)
                ++drained;
            else
                std::this_thread::sleep_for(std::chrono::microseconds(100));
    });
    // Until count() moves: the flood is under way.
    auto flowing = [](const std::function<unsigned long()>& count) {
        const unsigned long before = count();
        return Eventually([&] { return count() != before; });
    };
    {
        CFlood flood(m_oGateway, FloodOfFrames(200), CFlood::eWhole, 50);
        ASSERT_TRUE(flowing([&] { return drained.load(); }));
        for (int i = 0; i < 50; ++i)
        {
            bool a = false, b = false;
            ASSERT_EQ(0, m_pClient->GetConfig(a, b)) << i;
        }
        EXPECT_TRUE(flowing([&] { return drained.load(); }));
        m_pClient->SetCallback(&CountFrame);
        ASSERT_TRUE(flowing([] { return g_nFlooded.load(); }));
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(0, m_pClient->CANopenSendSYNC()) << i;
        EXPECT_TRUE(flowing([] { return g_nFlooded.load(); }));
    }
    draining = false;
    consumer.join();
}

namespace
{
std::atomic<int> g_nHandleSeen{0};
void RememberHandle(unsigned char, int handle, int, int)
{
    g_nHandleSeen = handle;
}
} // namespace

// The registry creates the queueing client for type 2 and gives it the device's handle.
TEST(CANQueueRegistry, TypeTwoOpensTheQueueingClientWithItsHandle)
{
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.StartOnLoopbackNet(kLoopbackNet, TarvikDevicePort(eTarvikCAN)));
    gateway.SetHandler([](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), Frame({0})); });
    int handle = 0;
    ASSERT_EQ(0, CDeviceManager::OpenDevice(&handle, gateway.GetAddress().c_str(), 1000, eTarvikCAN, 0, 1, true));
    ASSERT_TRUE(gateway.WaitForAccepted(1, 5000));
    auto* client = dynamic_cast<CTarvikClientCANDll*>(CDeviceManager::GetDevice(handle)->m_pClient);
    ASSERT_NE(nullptr, client);
    client->CANopenSetCallback(nullptr, &RememberHandle, nullptr, nullptr, nullptr);
    ASSERT_TRUE(gateway.Send(Telegram(0x0264, 0, Hex("01"))));
    EXPECT_EQ(0, client->CANopenSendSYNC());
    EXPECT_EQ(handle, g_nHandleSeen.load());
    // The C interface: a frame callback with a context of its own, and the drop counts.
    std::atomic<int> frames{0};
    ASSERT_EQ(0, CANSetCallbackUser(
                     handle,
                     [](void* user, unsigned int, const char*, int, int, int, int) {
                         ++*static_cast<std::atomic<int>*>(user);
                     },
                     &frames));
    ASSERT_TRUE(gateway.Send(CanFrame(1, 0, "") + CanFrame(2, 0, std::string(65, 'x'))));
    EXPECT_EQ(0, client->CANopenSendSYNC());
    EXPECT_EQ(1, frames.load());
    STarvikCanDropCounts counts{};
    EXPECT_EQ(0, CANGetDropCounts(handle, TARVIK_CAN_QUEUE_CAN, &counts));
    EXPECT_EQ(1u, counts.nTooLong);
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, CANGetDropCounts(handle, TARVIK_CAN_QUEUE_COUNT, &counts));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, CANGetDropCounts(handle, TARVIK_CAN_QUEUE_CAN, nullptr));
    EXPECT_EQ(0, CANSetCallbackUser(handle, nullptr, nullptr));
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
}
