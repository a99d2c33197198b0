// CSimFixture<TDevice, TClient, TType>: one simulated device of type TType on a free
// loopback port in this process, and a client connected to it and opened.
#ifndef TARVIK_TESTS_SUPPORT_SIMFIXTURE_H
#define TARVIK_TESTS_SUPPORT_SIMFIXTURE_H

#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

namespace tarvik_test
{
template <class TDevice, class TClient, ETarvikDevice TType> class CSimFixture : public ::testing::Test
{
protected:
    // Long enough that only a fault of the test makes a request time out.
    static constexpr int kSimClientTimeoutMs = 5000;

    void SetUp() override
    {
        ASSERT_EQ(0, m_oServer.AddDevice(TType));
        ASSERT_TRUE(m_oServer.Start());
        m_pDevice = dynamic_cast<TDevice*>(m_oServer.GetDevice(TType));
        ASSERT_NE(nullptr, m_pDevice);
        ASSERT_EQ(0, m_oClient.Connect("127.0.0.1", m_oServer.GetPort(TType)));
        OpenClient(m_oClient);
    }
    // Open() by default; a class whose Open takes arguments says how.
    virtual void OpenClient(TClient& client) { ASSERT_EQ(0, client.Open()); }

    CTarvikSimServer m_oServer;
    TDevice* m_pDevice = nullptr;
    TClient m_oClient{kSimClientTimeoutMs};
};
} // namespace tarvik_test

#endif
