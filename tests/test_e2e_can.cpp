// The CAN clients against two simulated gateways on one bus: frames of every kind from
// one client's Write reach the other's queue whole, and the CANopen services reach the
// bus's nodes and come back as the client decodes them.
#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimCanOpenNode.h"
#include "sim/TarvikSimServer.h"
#include "support/Wait.h"
#include "tarvik/clients/TarvikClientCANDll.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

using tarvik_test::Eventually;

namespace
{
constexpr int kTimeoutMs = 2000;
constexpr unsigned char kNode = 2;
constexpr unsigned char kFlagExtended = 0x01;
constexpr unsigned char kFlagRemote = 0x02;
constexpr unsigned char kFlagFD = 0x08;

struct SFrame
{
    int m_nId;
    int m_nFlags;
    std::string m_sData;
    bool operator==(const SFrame& o) const
    {
        return m_nId == o.m_nId && m_nFlags == o.m_nFlags && m_sData == o.m_sData;
    }
};

// What the emergency callback saw; it has no user pointer, so the test's sink is global.
std::mutex g_oMutex;
std::vector<unsigned short> g_anEmcyCodes;

void OnEmcy(unsigned char, unsigned short code, unsigned char, const unsigned char*, int, int, int)
{
    std::lock_guard<std::mutex> lock(g_oMutex);
    g_anEmcyCodes.push_back(code);
}

class E2ECan : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, m_oServer.AddDevice(eTarvikCAN, "127.0.0.1", 0, 0));
        ASSERT_EQ(0, m_oServer.AddDevice(eTarvikCAN, "127.0.0.1", 0, 1));
        ASSERT_TRUE(m_oServer.Start());
        for (int i = 0; i < 2; ++i)
        {
            ASSERT_EQ(0, m_apClients[i]->Connect("127.0.0.1", m_oServer.GetPort(eTarvikCAN, i)));
            ASSERT_EQ(0, m_apClients[i]->Open(false, false));
        }
        std::lock_guard<std::mutex> lock(g_oMutex);
        g_anEmcyCodes.clear();
    }
    CTarvikClientCANDll& A() { return *m_apClients[0]; }
    CTarvikClientCANDll& B() { return *m_apClients[1]; }

    // Every frame waiting in B's queue.
    std::vector<SFrame> Drain()
    {
        std::vector<SFrame> frames;
        char data[255];
        int id = 0, flags = 0, s = 0, us = 0;
        unsigned char len = 0;
        while (B().CANGetMessage(&id, data, &len, &flags, &s, &us) >= 0)
            frames.push_back({id, flags, std::string(data, len)});
        return frames;
    }

    CTarvikSimServer m_oServer;
    std::unique_ptr<CTarvikClientCANDll> m_apClients[2] = {std::make_unique<CTarvikClientCANDll>(1, kTimeoutMs),
                                                           std::make_unique<CTarvikClientCANDll>(2, kTimeoutMs)};
};

const SFrame kFrames[] = {
    {0x123, 0, "\xDE\xAD\xBE\xEF"},
    {0x1ABCDEF0, kFlagExtended, "\x01\x02"},
    {0x7FF, kFlagRemote, ""},
    {0x100, kFlagFD, std::string(64, '\x5A')},
    {0x000, 0, ""},
};
} // namespace

TEST_F(E2ECan, FramesWrittenByOneClientReachTheOtherWhole)
{
    B().SetMaxSizePerQueue(100);
    for (const SFrame& f : kFrames)
        ASSERT_EQ(0, A().Write(f.m_nId, f.m_sData.data(), static_cast<unsigned char>(f.m_sData.size()),
                               static_cast<unsigned char>(f.m_nFlags), nullptr, nullptr));
    std::vector<SFrame> got;
    ASSERT_TRUE(Eventually(
        [&]
        {
            for (const SFrame& f : Drain())
                got.push_back(f);
            return got.size() >= std::size(kFrames);
        }));
    ASSERT_EQ(std::size(kFrames), got.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_TRUE(got[i] == kFrames[i]) << i;

    EXPECT_TRUE(Drain().empty());
}

TEST_F(E2ECan, CanOpenServicesReachTheNodes)
{
    unsigned char status = 0xEE;
    unsigned int value = 0;
    EXPECT_EQ(0x2FE, A().CANopenSendSDORead(kNode, 0x1000, 0, 500, status, value));
    ASSERT_EQ(0, A().CANopenSetConfig(1));

    // Expedited transfers, and a node's refusal of an unknown object.
    ASSERT_EQ(0, A().CANopenSendSDOWrite(kNode, 2, 0x2001, 0, 500, 0xBEEF, status, value));
    ASSERT_EQ(0, A().CANopenSendSDORead(kNode, 0x2001, 0, 500, status, value));
    EXPECT_EQ(0, status);
    // Byte 0xEF borrows from the byte above it: the client's signed sum.
    EXPECT_EQ(0xBDEFu, value & 0xFFFF);
    EXPECT_EQ(0x2FD, A().CANopenSendSDORead(kNode, 0x6666, 0, 500, status, value));

    // A block written and read back; the read copies from the status byte on.
    std::string block(3000, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 13);
    ASSERT_EQ(0, A().CANopenSendSDOWriteBlock(kNode, 0x2100, 0, 1000, static_cast<unsigned short>(block.size()),
                                              reinterpret_cast<const unsigned char*>(block.data()), status, value));
    std::vector<unsigned char> back(4096);
    unsigned short len = 0;
    ASSERT_EQ(0, A().CANopenSendSDOReadBlock(kNode, 0x2100, 0, 1000, static_cast<unsigned short>(back.size()), status,
                                             len, back.data()));
    ASSERT_EQ(block.size(), len);
    EXPECT_EQ(status, back[0]);
    EXPECT_EQ(block.substr(0, len - 1), std::string(reinterpret_cast<char*>(back.data()) + 1, len - 1));
}

TEST_F(E2ECan, SyncPdoAndEmergenciesComeBackAsIndications)
{
    ASSERT_EQ(0, A().CANopenSetConfig(1));
    A().SetMaxSizePerQueue(100);
    A().CANopenSetCallback(nullptr, nullptr, OnEmcy, nullptr, nullptr);
    ASSERT_EQ(0, A().CANopenSendNMT(kNode, 0x01));
    unsigned char status = 0;
    unsigned int value = 0;
    ASSERT_EQ(0, A().CANopenSendSDOWrite(kNode, 1, 0x2000, 0, 500, 0x42, status, value));
    ASSERT_EQ(0, A().CANopenSendSYNC());
    unsigned char p1 = 0, p2 = 0, len = 0;
    char data[8] = {};
    ASSERT_TRUE(Eventually([&] { return A().CANopenGetPDO(&p1, &p2, &len, data) >= 0; }));
    EXPECT_EQ(kNode, p1);
    ASSERT_GE(len, 1);
    EXPECT_EQ(0x42, static_cast<unsigned char>(data[0]));

    CTarvikSimCanOpenNode* node = m_oServer.GetCanBus()->GetNode(kNode);
    ASSERT_NE(nullptr, node);
    ASSERT_TRUE(node->RaiseEmcy(0x1081, 0x01));
    ASSERT_TRUE(Eventually(
        []
        {
            std::lock_guard<std::mutex> lock(g_oMutex);
            return !g_anEmcyCodes.empty();
        }));
    // The callback's error code takes byte 1 as signed: 0x81 fills the high byte.
    std::lock_guard<std::mutex> lock(g_oMutex);
    EXPECT_EQ(0xFF81, g_anEmcyCodes[0]);
}
