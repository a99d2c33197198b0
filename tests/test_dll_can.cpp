// The C functions of the CAN (with CANopen) and AWire families: each refuses unknown
// handles, handles of another family and bad arguments without touching a client, a
// queue or an output; the Get functions never write past the buffer length they are
// given; and both families work end to end against the simulator through their open
// functions.
#include "HexfileTestUtil.h"
#include "support/FakeGateway.h"
#include "support/SdoCases.h"

#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <fstream>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr int kUnknownHandle = 999999;
constexpr int kTimeoutMs = 3000;
constexpr unsigned char kSentinel = 0xEE;
constexpr int kNothingFetched = -1;

enum EFamily
{
    eCAN,
    eAWire,
    eOther,
    eFamilyCount
};

// Every output a call may write, filled with sentinel bytes so that a write shows.
struct SOutputs
{
    SOutputs() { std::memset(this, kSentinel, sizeof(*this)); }
    char buf[TARVIK_CANOPEN_UNDEFINED_DATA + 1];
    unsigned char u8[4];
    unsigned short u16[4];
    short s16;
    unsigned int u32[TARVIK_CAN_FILTER_WORDS];
    int n[4];
};

bool operator==(const SOutputs& a, const SOutputs& b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

struct SCall
{
    EFamily eFamily;
    const char* pName;
    std::function<int(int handle, SOutputs& out)> fnCall;
};

void OnFrame(unsigned int, const char*, int, int, int) {}
void OnFrameEx(unsigned int, const char*, int, int, int, int, int) {}
void OnSync(unsigned char, int, int, int) {}

// One row per function that takes a handle, with outputs and valid arguments.
std::vector<SCall> AllCalls()
{
    static const unsigned int filter[TARVIK_CAN_FILTER_WORDS] = {};
    return {
        {eCAN, "CANSetConfig", [](int h, SOutputs&) { return CANSetConfig(h, 1, 0); }},
        {eCAN, "CANGetConfig", [](int h, SOutputs& o) { return CANGetConfig(h, &o.n[0], &o.n[1]); }},
        {eCAN, "CANSetFilter", [](int h, SOutputs&) { return CANSetFilter(h, filter, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "CANGetFilter", [](int h, SOutputs& o) { return CANGetFilter(h, o.u32, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "CANSetGlobals", [](int h, SOutputs&) { return CANSetGlobals(h, 500000, 1, 1, 0, 0, 1, 7, 0); }},
        {eCAN, "CANGetGlobals",
         [](int h, SOutputs& o) {
             return CANGetGlobals(h, &o.u32[0], &o.u8[0], &o.n[0], &o.n[1], &o.n[2], &o.n[3], &o.u32[1], &o.n[0]);
         }},
        {eCAN, "CANSetZCardParameter", [](int h, SOutputs&) { return CANSetZCardParameter(h, 1, 2, 3); }},
        {eCAN, "CANGetZCardParameter",
         [](int h, SOutputs& o) { return CANGetZCardParameter(h, &o.u8[0], &o.u16[0], &o.u16[1]); }},
        {eCAN, "CANSetTime", [](int h, SOutputs&) { return CANSetTime(h, 1000, 5); }},
        {eCAN, "CANGetTime", [](int h, SOutputs& o) { return CANGetTime(h, &o.n[0], &o.n[1], &o.n[2]); }},
        {eCAN, "CANGetPowerStatus",
         [](int h, SOutputs& o) {
             return CANGetPowerStatus(h, &o.u8[0], &o.u8[1], &o.u8[2], &o.s16, &o.u16[0], &o.u16[1], &o.n[0],
                                      &o.u16[2], 2, &o.u8[3], 1, reinterpret_cast<unsigned char*>(o.buf), 4);
         }},
        {eCAN, "CANSetPowerRelais", [](int h, SOutputs&) { return CANSetPowerRelais(h, 1); }},
        {eCAN, "CANSetActivePowerSupplies", [](int h, SOutputs&) { return CANSetActivePowerSupplies(h, 3); }},
        {eCAN, "CANWrite", [](int h, SOutputs& o) { return CANWrite(h, 0x123, "\x01", 1, 0, &o.n[0], &o.n[1]); }},
        {eCAN, "CANSetCyclicMessage",
         [](int h, SOutputs&) { return CANSetCyclicMessage(h, 1, 1, 100, 0x123, "\x01", 1, 0); }},
        {eCAN, "CANStartAlive", [](int h, SOutputs&) { return CANStartAlive(h, 3); }},
        {eCAN, "CANSetCallback", [](int h, SOutputs&) { return CANSetCallback(h, OnFrame); }},
        {eCAN, "CANSetCallbackEx", [](int h, SOutputs&) { return CANSetCallbackEx(h, OnFrameEx); }},
        {eCAN, "CANSetMaxSizePerQueue", [](int h, SOutputs&) { return CANSetMaxSizePerQueue(h, 10); }},
        {eCAN, "CANGetMessage",
         [](int h, SOutputs& o) {
             return CANGetMessage(h, &o.n[0], o.buf, TARVIK_CAN_FRAME_DATA, &o.u8[0], &o.n[1], &o.n[2], &o.n[3]);
         }},
        {eCAN, "CANopenSetConfig", [](int h, SOutputs&) { return CANopenSetConfig(h, 1); }},
        {eCAN, "CANopenGetConfig", [](int h, SOutputs& o) { return CANopenGetConfig(h, &o.u8[0]); }},
        {eCAN, "CANopenSetSYNCMode", [](int h, SOutputs&) { return CANopenSetSYNCMode(h, 1); }},
        {eCAN, "CANopenSendNMT", [](int h, SOutputs&) { return CANopenSendNMT(h, 2, 1); }},
        {eCAN, "CANopenSendSYNC", [](int h, SOutputs&) { return CANopenSendSYNC(h); }},
        {eCAN, "CANopenSendTIME", [](int h, SOutputs&) { return CANopenSendTIME(h, 1, 2); }},
        {eCAN, "CANopenSendPDO", [](int h, SOutputs&) { return CANopenSendPDO(h, 1, 2, "\x01", 1); }},
        {eCAN, "CANopenSendSDORead",
         [](int h, SOutputs& o) { return CANopenSendSDORead(h, 2, 0x1000, 0, 50, &o.u8[0], &o.u32[0]); }},
        {eCAN, "CANopenSendSDOWrite",
         [](int h, SOutputs& o) { return CANopenSendSDOWrite(h, 2, 4, 0x2001, 0, 50, 7, &o.u8[0], &o.u32[0]); }},
        {eCAN, "CANopenSDOReadValue",
         [](int h, SOutputs& o)
         { return CANopenSDOReadValue(h, 2, 0x1000, 0, 50, &o.u8[0], &o.u32[0], &o.u8[1], &o.u32[1]); }},
        {eCAN, "CANopenSDOWriteValue",
         [](int h, SOutputs& o) {
             return CANopenSDOWriteValue(h, 2, 4, 0x2001, 0, 50, 7, &o.u8[0], &o.u32[0], &o.u8[1], &o.u32[1]);
         }},
        {eCAN, "CANopenSendSDOReadBlock",
         [](int h, SOutputs& o) {
             return CANopenSendSDOReadBlock(h, 2, 0x2100, 0, 50, reinterpret_cast<unsigned char*>(o.buf), 16,
                                            &o.u8[0], &o.u16[0]);
         }},
        {eCAN, "CANopenSendSDOWriteBlock",
         [](int h, SOutputs& o) {
             return CANopenSendSDOWriteBlock(h, 2, 0x2100, 0, 50, o.u8, 2, &o.u8[2], &o.u32[0]);
         }},
        {eCAN, "CANopenSetCallback",
         [](int h, SOutputs&) { return CANopenSetCallback(h, nullptr, OnSync, nullptr, nullptr, nullptr); }},
        {eCAN, "CANopenGetPDO",
         [](int h, SOutputs& o) {
             return CANopenGetPDO(h, &o.u8[0], &o.u8[1], &o.u8[2], o.buf, TARVIK_CANOPEN_PDO_DATA);
         }},
        {eCAN, "CANopenGetSYNC", [](int h, SOutputs& o) { return CANopenGetSYNC(h, &o.u8[0]); }},
        {eCAN, "CANopenGetEMCY",
         [](int h, SOutputs& o) {
             return CANopenGetEMCY(h, &o.u8[0], &o.u16[0], &o.u8[1], reinterpret_cast<unsigned char*>(o.buf),
                                   TARVIK_CANOPEN_EMCY_DATA);
         }},
        {eCAN, "CANopenGetGUARD", [](int h, SOutputs& o) { return CANopenGetGUARD(h, &o.u8[0], &o.u8[1]); }},
        {eCAN, "CANopenGetUndefined",
         [](int h, SOutputs& o) {
             return CANopenGetUndefined(h, &o.n[0], &o.u8[0], &o.u8[1], &o.u8[2], o.buf,
                                        TARVIK_CANOPEN_UNDEFINED_DATA, &o.n[1], &o.n[2]);
         }},
        {eCAN, "CANDeviceClose", [](int h, SOutputs&) { return CANDeviceClose(h); }},
        {eAWire, "AWireSetConfig", [](int h, SOutputs&) { return AWireSetConfig(h, 1, 2, 256, 4, "target"); }},
        {eAWire, "AWireGetConfig",
         [](int h, SOutputs& o) {
             return AWireGetConfig(h, &o.u32[0], &o.u32[1], &o.u32[2], &o.u32[3], o.buf, 64);
         }},
        {eAWire, "AWireRead", [](int h, SOutputs& o) { return AWireRead(h, 0, o.buf, 16, &o.u16[0]); }},
        {eAWire, "AWireVerify", [](int h, SOutputs&) { return AWireVerify(h, 0, "\x01", 1); }},
        {eAWire, "AWireErase", [](int h, SOutputs&) { return AWireErase(h, 0); }},
        {eAWire, "AWireEraseUserPage", [](int h, SOutputs&) { return AWireEraseUserPage(h); }},
        {eAWire, "AWireWriteBlock", [](int h, SOutputs& o) { return AWireWriteBlock(h, 0, "\x01", 1, &o.s16); }},
        {eAWire, "AWireWriteUserPage",
         [](int h, SOutputs& o) { return AWireWriteUserPage(h, 0x800000, "\x01", 1, &o.s16); }},
        {eAWire, "AWireGetWriteBlockStatus",
         [](int h, SOutputs& o) { return AWireGetWriteBlockStatus(h, 2, &o.n[0], &o.u16[0], &o.u16[1]); }},
        {eAWire, "AWireWriteFile", [](int h, SOutputs&) { return AWireWriteFile(h, "/nonexistent/a.hex"); }},
        {eAWire, "AWireGetWriteFileStatus",
         [](int h, SOutputs& o) { return AWireGetWriteFileStatus(h, &o.n[0], &o.u8[0]); }},
        {eAWire, "AWireCloseDevice", [](int h, SOutputs&) { return AWireCloseDevice(h); }},
    };
}

// Indications as the gateway sends them; the client takes the telegram over.
void Indicate(CTarvikClientCANDll& can, unsigned short cmd, const std::string& payload)
{
    can.DataIndRespond(new CTarvikMsg(cmd, 0, std::string(payload)));
}

std::string Frame(unsigned int id, unsigned char flags, const std::string& data)
{
    return CTarvikMsg::ToChar(id) + std::string(1, static_cast<char>(flags)) + data;
}

// A CAN client, an AWire client and a client of another family, registered but never
// connected: a call that reaches its client is answered 0x030000, so a refusal before
// it is told apart.
class CCanAWireDllTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_pCAN = new CTarvikClientCANDll(0, kTimeoutMs);
        m_apClients.emplace_back(m_pCAN);
        m_apClients.emplace_back(new CTarvikClientAWire(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientI2C(kTimeoutMs));
        for (auto& client : m_apClients)
        {
            CDevice* device = new CDevice();
            device->m_pClient = client.get();
            device->m_nDeviceType = static_cast<unsigned char>(client->GetDeviceType());
            int handle = -1;
            CDeviceManager::SetDevice(&handle, device);
            m_anHandles.push_back(handle);
        }
    }
    void TearDown() override
    {
        for (int handle : m_anHandles)
            CDeviceManager::CloseDevice(handle);
    }
    // One telegram of every kind in the queues.
    void FillQueues()
    {
        m_pCAN->SetMaxSizePerQueue(10);
        Indicate(*m_pCAN, 0x0203, Frame(0x123, 0, std::string(TARVIK_CAN_FRAME_DATA, 'F')));
        Indicate(*m_pCAN, 0x0267, "\x01\x02\x08" + std::string(8, 'P'));
        Indicate(*m_pCAN, 0x0266, std::string("\x05\x81\x10\x01", 4) + "EEEEE");
        Indicate(*m_pCAN, 0x026D, Frame(0x2AB, 0, std::string(250, 'U')));
        Indicate(*m_pCAN, 0x0264, "\x07");
        Indicate(*m_pCAN, 0x026C, "\x05\x7F");
    }
    int Handle(EFamily family) const { return m_anHandles[family]; }

    CTarvikClientCANDll* m_pCAN = nullptr;
    std::vector<std::unique_ptr<CTarvikClient>> m_apClients;
    std::vector<int> m_anHandles;
};
} // namespace

TEST_F(CCanAWireDllTest, EveryFunctionRefusesUnknownHandlesAndOtherFamiliesWithoutWriting)
{
    const SOutputs untouched;
    for (const SCall& call : AllCalls())
    {
        SOutputs out;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, call.fnCall(kUnknownHandle, out)) << call.pName;
        for (int family = 0; family < eFamilyCount; ++family)
        {
            if (family == call.eFamily)
                continue;
            EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, call.fnCall(Handle(EFamily(family)), out))
                << call.pName << " on a handle of family " << family;
            EXPECT_NE(nullptr, CDeviceManager::GetDevice(Handle(EFamily(family)))) << call.pName;
        }
        EXPECT_TRUE(out == untouched) << call.pName << " wrote an output";
    }
    // The codes are no counts: an empty queue answers -1, and the handle codes lie far
    // above the largest queue.
    SOutputs out;
    EXPECT_EQ(kNothingFetched, CANopenGetSYNC(Handle(eCAN), &out.u8[0]));
    EXPECT_EQ(kSentinel, out.u8[0]);
    EXPECT_GT(TARVIK_ERR_INVALID_HANDLE, TARVIK_CAN_MAX_QUEUE_SIZE);
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, CANopenSendSYNC(Handle(eCAN)));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, AWireErase(Handle(eAWire), 0));
}

TEST_F(CCanAWireDllTest, BadArgumentsAndShortBuffersAreRefusedBeforeAnythingIsTaken)
{
    FillQueues();
    char buf[TARVIK_CANOPEN_UNDEFINED_DATA] = {};
    unsigned char bytes[TARVIK_CANOPEN_UNDEFINED_DATA] = {};
    unsigned int words[TARVIK_CAN_FILTER_WORDS + 1] = {};
    const struct
    {
        EFamily eFamily;
        const char* pCase;
        std::function<int(int)> fnCall;
    } cases[] = {
        {eCAN, "filter of 15", [&](int h) { return CANSetFilter(h, words, 15); }},
        {eCAN, "filter of 17", [&](int h) { return CANSetFilter(h, words, 17); }},
        {eCAN, "filter null", [&](int h) { return CANSetFilter(h, nullptr, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "filter into 15", [&](int h) { return CANGetFilter(h, words, 15); }},
        {eCAN, "power capacity negative",
         [&](int h) {
             return CANGetPowerStatus(h, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                      bytes, -1, nullptr, 0);
         }},
        {eCAN, "frame of 256", [&](int h) { return CANWrite(h, 1, buf, 256, 0, nullptr, nullptr); }},
        {eCAN, "frame negative", [&](int h) { return CANWrite(h, 1, buf, -1, 0, nullptr, nullptr); }},
        {eCAN, "frame from null", [&](int h) { return CANWrite(h, 1, nullptr, 1, 0, nullptr, nullptr); }},
        {eCAN, "cyclic of 256", [&](int h) { return CANSetCyclicMessage(h, 1, 1, 10, 1, buf, 256, 0); }},
        {eCAN, "queue too large",
         [&](int h) { return CANSetMaxSizePerQueue(h, TARVIK_CAN_MAX_QUEUE_SIZE + 1ul); }},
        {eCAN, "PDO of 256", [&](int h) { return CANopenSendPDO(h, 1, 2, buf, 256); }},
        {eCAN, "SDO block into negative",
         [&](int h) { return CANopenSendSDOReadBlock(h, 2, 1, 0, 50, bytes, -1, nullptr, nullptr); }},
        {eCAN, "SDO block of 65536",
         [&](int h) { return CANopenSendSDOWriteBlock(h, 2, 1, 0, 50, bytes, 0x10000, nullptr, nullptr); }},
        {eCAN, "SDO block from null",
         [&](int h) { return CANopenSendSDOWriteBlock(h, 2, 1, 0, 50, nullptr, 1, nullptr, nullptr); }},
        {eCAN, "frame into 63",
         [&](int h) { return CANGetMessage(h, nullptr, buf, 63, nullptr, nullptr, nullptr, nullptr); }},
        {eCAN, "PDO into 7", [&](int h) { return CANopenGetPDO(h, nullptr, nullptr, nullptr, buf, 7); }},
        {eCAN, "EMCY into 4", [&](int h) { return CANopenGetEMCY(h, nullptr, nullptr, nullptr, bytes, 4); }},
        {eCAN, "undefined into 254",
         [&](int h) { return CANopenGetUndefined(h, nullptr, nullptr, nullptr, nullptr, buf, 254, nullptr, nullptr); }},
        {eAWire, "config text null", [&](int h) { return AWireSetConfig(h, 1, 2, 256, 4, nullptr); }},
        {eAWire, "read into null", [&](int h) { return AWireRead(h, 0, nullptr, 4, nullptr); }},
        {eAWire, "read 65536", [&](int h) { return AWireRead(h, 0, buf, 0x10000, nullptr); }},
        {eAWire, "verify negative", [&](int h) { return AWireVerify(h, 0, buf, -1); }},
        {eAWire, "block of 65536", [&](int h) { return AWireWriteBlock(h, 0, buf, 0x10000, nullptr); }},
        {eAWire, "user page from null", [&](int h) { return AWireWriteUserPage(h, 0, nullptr, 1, nullptr); }},
        {eAWire, "file name null", [&](int h) { return AWireWriteFile(h, nullptr); }},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, c.fnCall(Handle(c.eFamily))) << c.pCase;

    // Every telegram is still there; each buffer of exactly the size named receives the
    // most the client writes and nothing past it.
    std::string frame(TARVIK_CAN_FRAME_DATA + 1, '\xEE');
    unsigned char len = 0;
    EXPECT_EQ(0, CANGetMessage(Handle(eCAN), nullptr, &frame[0], TARVIK_CAN_FRAME_DATA, &len, nullptr, nullptr,
                               nullptr));
    EXPECT_EQ(TARVIK_CAN_FRAME_DATA, len);
    EXPECT_EQ(std::string(TARVIK_CAN_FRAME_DATA, 'F') + "\xEE", frame);
    std::string pdo(TARVIK_CANOPEN_PDO_DATA + 1, '\xEE');
    EXPECT_EQ(0, CANopenGetPDO(Handle(eCAN), nullptr, nullptr, &len, &pdo[0], TARVIK_CANOPEN_PDO_DATA));
    EXPECT_EQ(std::string(8, 'P') + "\xEE", pdo);
    unsigned char emcy[TARVIK_CANOPEN_EMCY_DATA + 1];
    std::memset(emcy, kSentinel, sizeof(emcy));
    unsigned short code = 0;
    EXPECT_EQ(0, CANopenGetEMCY(Handle(eCAN), nullptr, &code, nullptr, emcy, TARVIK_CANOPEN_EMCY_DATA));
    EXPECT_EQ(0x1081, code);
    EXPECT_EQ("45 45 45 45 45 EE", ToHex(std::string(reinterpret_cast<char*>(emcy), sizeof(emcy))));
    std::string undefined(TARVIK_CANOPEN_UNDEFINED_DATA + 1, '\xEE');
    int id = 0;
    EXPECT_EQ(0, CANopenGetUndefined(Handle(eCAN), &id, nullptr, nullptr, &len, &undefined[0],
                                     TARVIK_CANOPEN_UNDEFINED_DATA, nullptr, nullptr));
    EXPECT_EQ(0x2AB, id);
    EXPECT_EQ(TARVIK_CANOPEN_PDO_DATA, len);
    EXPECT_EQ(std::string(250, 'U') + std::string(6, '\xEE'), undefined);
}

TEST_F(CCanAWireDllTest, NullOutputsAreSkippedAndStillTakeTheTelegram)
{
    FillQueues();
    Indicate(*m_pCAN, 0x0203, Frame(0x124, 0x81, "\x01"));
    // A null buffer needs no length.
    EXPECT_EQ(1, CANGetMessage(Handle(eCAN), nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr));
    int flags = 0;
    EXPECT_EQ(0, CANGetMessage(Handle(eCAN), nullptr, nullptr, -5, nullptr, &flags, nullptr, nullptr));
    EXPECT_EQ(-127, flags);
    EXPECT_EQ(0, CANopenGetPDO(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0, CANopenGetEMCY(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0, CANopenGetUndefined(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(0, CANopenGetSYNC(Handle(eCAN), nullptr));
    EXPECT_EQ(0, CANopenGetGUARD(Handle(eCAN), nullptr, nullptr));
    for (auto get : {+[](int h) { return CANGetMessage(h, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr); },
                     +[](int h) { return CANopenGetSYNC(h, nullptr); }})
        EXPECT_EQ(kNothingFetched, get(Handle(eCAN)));
    // Size 0 empties the queues.
    FillQueues();
    EXPECT_EQ(0, CANSetMaxSizePerQueue(Handle(eCAN), 0));
    EXPECT_EQ(kNothingFetched, CANopenGetGUARD(Handle(eCAN), nullptr, nullptr));
}

TEST(TarvikDllCanAWire, OpenFunctionsCheckThePortIndexAndReportAFailedConnect)
{
    const std::function<int(int*, int)> opens[] = {
        [](int* h, int index) { return CANDeviceOpen(h, "127.0.47.254", kTimeoutMs, index, 0, 0); },
        [](int* h, int index) { return AWireOpenDevice(h, "127.0.47.254", kTimeoutMs, index); },
    };
    for (const auto& open : opens)
    {
        for (int portIndex : {-1, 100})
        {
            int handle = 42;
            EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open(&handle, portIndex));
            EXPECT_EQ(42, handle);
        }
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open(nullptr, 0));
        int handle = 42;
        EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, open(&handle, 99));
        EXPECT_EQ(-1, handle);
    }
}

namespace
{
constexpr int kPortIndexA = 3;
constexpr int kPortIndexB = 4;

// Polls cond until it holds, at most 5 s.
template <typename F> bool Eventually(F cond)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!cond())
    {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::atomic<int> g_nCallbackHandle{0};
std::atomic<int> g_nCallbackId{0};

void OnFrameSeen(unsigned int id, const char*, int, int, int handle, int, int)
{
    g_nCallbackHandle = handle;
    g_nCallbackId = static_cast<int>(id);
}

// Two CAN gateways on one simulated bus and an AWire programmer, at the standard ports of
// port indices 3 and 4 on this program's first free address 127.0.48.1..40.
class CCanAWireSimTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::pair<ETarvikDevice, int> devices[] = {
            {eTarvikCAN, kPortIndexA}, {eTarvikCAN, kPortIndexB}, {eTarvikAWire, kPortIndexA}};
        for (int last = 1; last <= 40 && !m_pServer; ++last)
        {
            auto server = std::make_unique<CTarvikSimServer>();
            std::string host = "127.0.48." + std::to_string(last);
            int rc = 0;
            for (const auto& device : devices)
                if (rc == 0)
                    rc = server->AddDevice(device.first, host,
                                           CTarvikSimServer::GetStandardPort(device.first, device.second),
                                           device.second);
            ASSERT_TRUE(rc == 0 || rc == EADDRINUSE) << server->GetLastError();
            if (rc == 0)
            {
                m_sHost = host;
                m_pServer = std::move(server);
            }
        }
        ASSERT_TRUE(m_pServer != nullptr);
        ASSERT_TRUE(m_pServer->Start()) << m_pServer->GetLastError();
    }
    const char* Host() const { return m_sHost.c_str(); }

    std::unique_ptr<CTarvikSimServer> m_pServer;
    std::string m_sHost;
};
} // namespace

TEST_F(CCanAWireSimTest, AFrameWrittenOnOneHandleIsFetchedOnTheOther)
{
    int a = -1, b = -1;
    ASSERT_EQ(0, CANDeviceOpen(&a, Host(), kTimeoutMs, kPortIndexA, 1, 0));
    ASSERT_EQ(0, CANDeviceOpen(&b, Host(), kTimeoutMs, kPortIndexB, 0, 0));
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, AWireEraseUserPage(a));
    int confirm = 0, flag2 = 7;
    EXPECT_EQ(0, CANGetConfig(a, &confirm, &flag2));
    EXPECT_EQ(1, confirm);
    EXPECT_EQ(0, flag2);

    ASSERT_EQ(0, CANSetMaxSizePerQueue(b, 10));
    int seconds = -1, micros = -1;
    ASSERT_EQ(0, CANWrite(a, 0x1ABCDEF0, "\xDE\xAD\xBE\xEF", 4, 0x01, &seconds, &micros));
    EXPECT_GE(seconds, 0);
    int id = 0, flags = -1;
    unsigned char len = 0;
    std::string data(TARVIK_CAN_FRAME_DATA, '\xEE');
    ASSERT_TRUE(Eventually([&] {
        return CANGetMessage(b, &id, &data[0], TARVIK_CAN_FRAME_DATA, &len, &flags, nullptr, nullptr) == 0;
    }));
    EXPECT_EQ(0x1ABCDEF0, id);
    EXPECT_EQ(1, flags);
    EXPECT_EQ("DE AD BE EF EE", ToHex(data.substr(0, len + 1)));
    // A remote frame's requested length travels as that many unused data bytes.
    ASSERT_EQ(0, CANWrite(a, 0x124, std::string(5, '\0').data(), 5, 0x02, nullptr, nullptr));
    ASSERT_TRUE(Eventually([&] {
        return CANGetMessage(b, &id, &data[0], TARVIK_CAN_FRAME_DATA, &len, &flags, nullptr, nullptr) == 0;
    }));
    EXPECT_EQ(0x124, id);
    EXPECT_EQ(0x02, flags);
    EXPECT_EQ(5, len);

    // The callback receives the handle that CANDeviceOpen gave.
    ASSERT_EQ(0, CANSetCallbackEx(b, OnFrameSeen));
    ASSERT_EQ(0, CANWrite(a, 0x321, nullptr, 0, 0, nullptr, nullptr));
    ASSERT_TRUE(Eventually([] { return g_nCallbackId.load() == 0x321; }));
    EXPECT_EQ(b, g_nCallbackHandle.load());

    // CANopen: the master reads the vendor ID of node 2.
    unsigned char status = 0xEE;
    unsigned int value = 0;
    EXPECT_EQ(0x2FE, CANopenSendSDORead(a, 2, 0x1018, 1, 500, &status, &value));
    EXPECT_EQ(0u, value);
    ASSERT_EQ(0, CANopenSetConfig(a, 1));
    unsigned char mode = 0;
    EXPECT_EQ(0, CANopenGetConfig(a, &mode));
    EXPECT_EQ(1, mode);
    ASSERT_EQ(0, CANopenSendSDORead(a, 2, 0x1018, 1, 500, &status, &value));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0x54Au, value);

    // The values as they came, with their size, and the node's abort code.
    for (const SSdoCase& c : kSdoCases)
    {
        unsigned char size = 0xEE;
        unsigned int abortCode = kSentinel;
        if (c.m_nSize != 0)
        {
            ASSERT_EQ(0, CANopenSDOWriteValue(a, 2, c.m_nSize, c.m_nIndex, 0, 500, c.m_nValue, nullptr, nullptr,
                                              nullptr, nullptr))
                << c.m_pName;
        }
        value = kSentinel;
        EXPECT_EQ(c.m_nSize != 0 ? 0 : 0x2FD, CANopenSDOReadValue(a, 2, c.m_nIndex, 0, 500, &status, &value, &size,
                                                                  &abortCode))
            << c.m_pName;
        EXPECT_EQ(c.m_nValue, value) << c.m_pName;
        EXPECT_EQ(c.m_nSize, size) << c.m_pName;
        EXPECT_EQ(c.m_nAbortCode, abortCode) << c.m_pName;
        char text[64] = "";
        EXPECT_EQ(static_cast<int>(std::strlen(CTarvikClientCAN::GetSDOAbortText(abortCode))) + 1,
                  CANopenSDOAbortText(abortCode, text, sizeof(text)));
        if (c.m_nAbortCode != 0)
        {
            EXPECT_STREQ(c.m_pAbortText, text);
        }
    }
    // The documented read keeps its signed sum beside it.
    ASSERT_EQ(0, CANopenSendSDORead(a, 2, 0x2002, 0, 500, &status, &value));
    EXPECT_EQ(0x7F7F7F80u, value);
    char cut[7] = "";
    EXPECT_EQ(22, CANopenSDOAbortText(0x06020000, cut, sizeof(cut)));
    EXPECT_STREQ("object", cut);
    EXPECT_EQ(0, CANDeviceClose(a));
    EXPECT_EQ(0, CANDeviceClose(b));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, CANDeviceClose(b));
}

TEST_F(CCanAWireSimTest, AHexFileIsWrittenPolledToItsEndAndReadBack)
{
    hexfile_test::CTempDir dir;
    const std::string bytes = "\x12\x34\x56\x78\x9A\xBC\xDE\xF0 tarvik";
    CTarvikHexfile hex;
    hex.AddMemoryBlock(0x100, bytes.data(), static_cast<unsigned int>(bytes.size()));
    const std::string path = dir.Path("image.hex");
    ASSERT_EQ(0u, hex.SaveFile(path.c_str(), CTarvikHexfile::Intel));

    int h = -1;
    ASSERT_EQ(0, AWireOpenDevice(&h, Host(), kTimeoutMs, kPortIndexA));
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, CANopenSendSYNC(h));
    ASSERT_EQ(0, AWireSetConfig(h, 1, 2, 256, 4, "uc3"));
    unsigned int page = 0;
    char text[3];
    EXPECT_EQ(0, AWireGetConfig(h, nullptr, nullptr, &page, nullptr, text, sizeof(text)));
    EXPECT_EQ(256u, page);
    EXPECT_STREQ("c3", text); // too long for the buffer: the first character goes
    ASSERT_EQ(0, AWireErase(h, 0));
    // A damaged image (no end record) starts nothing.
    const std::string cut = dir.Path("cut.hex");
    std::ofstream(cut) << ":0400000001020304F2\n";
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, AWireWriteFile(h, cut.c_str()));
    int none = 0;
    EXPECT_EQ(255, AWireGetWriteFileStatus(h, &none, nullptr));
    ASSERT_EQ(0, AWireWriteFile(h, path.c_str()));
    EXPECT_EQ(0x0E21, AWireWriteFile(h, path.c_str()));
    int step = TARVIK_AWIRE_STEP_NOT_STARTED;
    unsigned char percent = 0;
    ASSERT_TRUE(Eventually([&] {
        return AWireGetWriteFileStatus(h, &step, &percent) != 0 || step == TARVIK_AWIRE_STEP_DONE ||
               step == TARVIK_AWIRE_STEP_FAILED;
    }));
    EXPECT_EQ(TARVIK_AWIRE_STEP_DONE, step);
    EXPECT_EQ(100, percent);
    EXPECT_EQ(255, AWireGetWriteFileStatus(h, &step, &percent));

    std::string back(bytes.size() + 1, '\xEE');
    unsigned short count = 0;
    ASSERT_EQ(0, AWireRead(h, 0x100, &back[0], static_cast<int>(bytes.size()), &count));
    EXPECT_EQ(bytes.size(), count);
    EXPECT_EQ(bytes + "\xEE", back);
    EXPECT_EQ(0, AWireVerify(h, 0x100, bytes.data(), static_cast<int>(bytes.size())));
    EXPECT_EQ(255, AWireVerify(h, 0x100, "\x12\x35", 2));

    // One block by hand: its state is followed to the end, which is reported once.
    short writeHandle = 0;
    ASSERT_EQ(0, AWireWriteBlock(h, 0x2000, "\x01\x02", 2, &writeHandle));
    int state = TARVIK_AWIRE_BLOCK_IN_PROGRESS;
    unsigned short length = 0;
    ASSERT_TRUE(Eventually([&] {
        return AWireGetWriteBlockStatus(h, writeHandle, &state, &length, nullptr) != 0 ||
               state != TARVIK_AWIRE_BLOCK_IN_PROGRESS;
    }));
    EXPECT_EQ(TARVIK_AWIRE_BLOCK_FINISHED, state);
    EXPECT_EQ(2, length);
    EXPECT_EQ(255, AWireGetWriteBlockStatus(h, writeHandle, &state, nullptr, nullptr));
    EXPECT_EQ(0, AWireCloseDevice(h));
}
