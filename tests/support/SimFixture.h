// CSimServerFixture: a simulator in this process whose devices a test adds on free
// loopback ports. CSimFixture<TDevice, TClient, TType>: one simulated device of type TType,
// and a client connected to it and opened.
#ifndef TARVIK_TESTS_SUPPORT_SIMFIXTURE_H
#define TARVIK_TESTS_SUPPORT_SIMFIXTURE_H

#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <utility>

namespace tarvik_test
{
class CSimServerFixture : public ::testing::Test
{
protected:
    // Adds the devices (type, port index) and starts the simulator.
    void StartSim(std::initializer_list<std::pair<ETarvikDevice, unsigned int>> devices)
    {
        for (const auto& device : devices)
            ASSERT_EQ(0, m_oServer.AddDevice(device.first, "127.0.0.1", 0, device.second)) << device.first;
        ASSERT_TRUE(m_oServer.Start());
    }
    // The model of a type (at a port index), as its class; the test ends when it is not one.
    template <class TDevice> TDevice* Model(ETarvikDevice type, unsigned int index = 0)
    {
        auto* device = dynamic_cast<TDevice*>(m_oServer.GetDevice(type, index));
        EXPECT_NE(nullptr, device) << type;
        return device;
    }

    CTarvikSimServer m_oServer;
};

template <class TDevice, class TClient, ETarvikDevice TType> class CSimFixture : public CSimServerFixture
{
protected:
    // Long enough that only a fault of the test makes a request time out.
    static constexpr int kSimClientTimeoutMs = 5000;

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartSim({{TType, 0}}));
        ASSERT_NE(nullptr, m_pDevice = Model<TDevice>(TType));
        ASSERT_EQ(0, m_oClient.Connect("127.0.0.1", m_oServer.GetPort(TType)));
        OpenClient(m_oClient);
    }
    // Open() by default; a class whose Open takes arguments says how.
    virtual void OpenClient(TClient& client) { ASSERT_EQ(0, client.Open()); }

    TDevice* m_pDevice = nullptr;
    TClient m_oClient{kSimClientTimeoutMs};
};
} // namespace tarvik_test

#endif
