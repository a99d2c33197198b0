// CClientFixture<TClient>: a scripted gateway on 127.0.0.1 and a fresh client of one
// device class connected to it and opened, for byte-exact tests of a client's commands.
#ifndef TARVIK_TESTS_SUPPORT_CLIENTFIXTURE_H
#define TARVIK_TESTS_SUPPORT_CLIENTFIXTURE_H

#include "support/FakeGateway.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarvik_test
{
template <class TClient, unsigned int TTimeoutMs = 1000> class CClientFixture : public ::testing::Test
{
protected:
    static constexpr unsigned int kFrameWaitMs = 5000;
    static constexpr unsigned int kCloseWaitMs = 2000;

    void SetUp() override
    {
        ASSERT_TRUE(m_oGateway.Start("127.0.0.1"));
        NewClient();
    }

    // A fresh client, connected and opened: its requests carry ids from where Open leaves them.
    void NewClient()
    {
        if (m_pClient)
        {
            // Everything the old client sent is recorded before the new one starts, so that
            // counting from GetFrames().size() counts the new client's frames only: the gateway
            // sees the close after all bytes that came ahead of it. A client that the gateway
            // closed itself is not waited for long.
            const size_t closed = m_oGateway.GetPeerClosed();
            m_pClient.reset();
            m_oGateway.WaitForPeerClosed(closed + 1, kCloseWaitMs);
        }
        m_pClient.reset(new TClient(TTimeoutMs));
        ASSERT_EQ(0, m_pClient->Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
        OpenClient(*m_pClient);
    }
    // Open() by default; a class whose Open takes arguments says how.
    virtual void OpenClient(TClient& client) { ASSERT_EQ(0, client.Open()); }

    void AnswerWith(const std::optional<std::string>& payload) { m_oGateway.AnswerWith(payload); }

    // Every frame received once there are count of them.
    std::vector<std::string> Frames(size_t count)
    {
        EXPECT_TRUE(m_oGateway.WaitForFrames(count, kFrameWaitMs));
        return m_oGateway.GetFrames();
    }
    // The last frame once there are count of them; empty when none came.
    std::string LastFrame(size_t count)
    {
        std::vector<std::string> frames = Frames(count);
        return frames.empty() ? std::string() : frames.back();
    }

    // A fresh client runs call, which succeeds and sends exactly the frame want.
    template <class FCall> void ExpectRequest(FCall call, const std::string& want, const std::string& name)
    {
        NewClient();
        const size_t before = m_oGateway.GetFrames().size();
        EXPECT_EQ(0, call(*m_pClient)) << name;
        EXPECT_EQ(ToHex(want), ToHex(LastFrame(before + 1))) << name;
    }
    // A fresh client runs call(client, result) against answer: the result, and the outputs
    // as the text call makes of them.
    template <class FCall>
    void ExpectOutputs(FCall call, const std::optional<std::string>& answer, int result, const std::string& outputs,
                       const std::string& name)
    {
        NewClient();
        AnswerWith(answer);
        int got = -1;
        EXPECT_EQ(outputs, call(*m_pClient, got)) << name;
        EXPECT_EQ(result, got) << name;
    }

    CFakeGateway m_oGateway;
    std::unique_ptr<TClient> m_pClient;
};
} // namespace tarvik_test

#endif
