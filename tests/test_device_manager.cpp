// The device manager: handle numbers, the client created per device type, the port
// chosen by the port index, ownership of the clients and the failures of an open.
//
// Handles are process-wide and never reused, so every test counts from the first
// handle it draws itself.
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/dll/DeviceManager.h"

#include <gtest/gtest.h>

#include <climits>

using namespace tarvik_test;

namespace
{
constexpr int kTimeoutMs = 200;
constexpr unsigned int kWaitMs = 5000;
// Loopback net of this program's gateways (127.0.42.x): the manager picks the port.
constexpr unsigned char kLoopbackNet = 42;
// SPI at port index 0.
constexpr unsigned short kSPIPort = 5002;

class CDeviceManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_oGateway.StartOnLoopbackNet(kLoopbackNet, kSPIPort)); }

    void TearDown() override
    {
        for (int handle : m_anOpened)
            CDeviceManager::CloseDevice(handle);
    }

    // Opens an SPI device at the gateway; returns its handle.
    int OpenSPI()
    {
        int handle = 0;
        EXPECT_EQ(0, CDeviceManager::OpenDevice(&handle, Host(), kTimeoutMs, eTarvikSPI, 0, 1, true));
        m_anOpened.push_back(handle);
        return handle;
    }

    const char* Host() const { return m_oGateway.GetAddress().c_str(); }

    CFakeGateway m_oGateway;
    std::vector<int> m_anOpened;
};
} // namespace

TEST_F(CDeviceManagerTest, HandlesCountUpFromOneNumberAndAreNeverReused)
{
    int first = OpenSPI();
    EXPECT_GE(first, 1);
    EXPECT_EQ(first + 1, OpenSPI());
    EXPECT_EQ(first + 2, OpenSPI());
    EXPECT_EQ(0, CDeviceManager::CloseDevice(first + 1));
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(first + 1));
    EXPECT_EQ(first + 3, OpenSPI());
    EXPECT_NE(nullptr, CDeviceManager::GetDevice(first));
    EXPECT_NE(nullptr, CDeviceManager::GetDevice(first + 2));
    EXPECT_NE(nullptr, CDeviceManager::GetDevice(first + 3));
}

TEST_F(CDeviceManagerTest, EntryRecordsTheDeviceAndOwnsAConnectedClient)
{
    int handle = OpenSPI();
    CDevice* device = CDeviceManager::GetDevice(handle);
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(handle, device->m_nHandle);
    EXPECT_EQ(m_oGateway.GetAddress(), device->m_sHost);
    EXPECT_EQ(kSPIPort, device->m_nPort);
    EXPECT_EQ(eTarvikSPI, device->m_nDeviceType);
    EXPECT_TRUE(device->m_bOwnsClient);
    CTarvikClientSPI* spi = dynamic_cast<CTarvikClientSPI*>(device->m_pClient);
    ASSERT_NE(nullptr, spi);
    EXPECT_EQ(static_cast<unsigned int>(kTimeoutMs), spi->GetTimeout());
    EXPECT_EQ(CMolIPBase::eStateConnected, spi->GetConnectState());
    EXPECT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
}

TEST(DeviceManager, PortIsTypePlusHundredTimesIndexPlus4999)
{
    struct SCase
    {
        unsigned char m_nIndex;
        unsigned short m_nPort;
    };
    const SCase cases[] = {{1, 5102}, {7, 5702}, {99, 14902}};
    for (const SCase& c : cases)
    {
        CFakeGateway gateway;
        ASSERT_TRUE(gateway.StartOnLoopbackNet(kLoopbackNet, c.m_nPort)) << c.m_nPort;
        int handle = 0;
        ASSERT_EQ(0, CDeviceManager::OpenDevice(&handle, gateway.GetAddress().c_str(), kTimeoutMs, eTarvikSPI,
                                                c.m_nIndex, 1, true))
            << c.m_nPort;
        CDevice* device = CDeviceManager::GetDevice(handle);
        ASSERT_NE(nullptr, device);
        EXPECT_EQ(c.m_nPort, device->m_nPort);
        EXPECT_TRUE(gateway.WaitForAccepted(1, kWaitMs)) << c.m_nPort;
        EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
    }
}

TEST_F(CDeviceManagerTest, UnsupportedTypeConsumesAHandleNumberWithoutConnecting)
{
    int previous = OpenSPI();
    for (int type : {0, 4, 6, 8, 10, 18, 255})
    {
        int handle = 0;
        EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE,
                  CDeviceManager::OpenDevice(&handle, Host(), kTimeoutMs, static_cast<unsigned char>(type), 0, 1, true))
            << type;
        // The number is drawn, handed out and lost.
        EXPECT_EQ(previous + 1, handle) << type;
        EXPECT_EQ(nullptr, CDeviceManager::GetDevice(handle)) << type;
        previous = handle;
    }
    EXPECT_EQ(previous + 1, OpenSPI());
    // Only the two SPI opens reached the gateway.
    EXPECT_TRUE(m_oGateway.WaitForAccepted(2, kWaitMs));
    EXPECT_EQ(2u, m_oGateway.GetAcceptedCount());
}

TEST_F(CDeviceManagerTest, PortIndexAboveNinetyNineIsRefusedBeforeAHandleIsDrawn)
{
    int previous = OpenSPI();
    for (int index : {100, 255})
    {
        int handle = 12345;
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, CDeviceManager::OpenDevice(&handle, Host(), kTimeoutMs, eTarvikSPI,
                                                                           static_cast<unsigned char>(index), 1, true));
        EXPECT_EQ(12345, handle);
    }
    EXPECT_EQ(previous + 1, OpenSPI());
}

TEST_F(CDeviceManagerTest, FailedConnectGivesItsCodeAndHandleMinusOne)
{
    int previous = OpenSPI();

    CFakeGateway refusing;
    ASSERT_TRUE(refusing.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeRefuse));
    int handle = 0;
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED,
              CDeviceManager::OpenDevice(&handle, refusing.GetAddress().c_str(), kTimeoutMs, eTarvikSPI, 0, 1, true));
    EXPECT_EQ(-1, handle);
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(previous + 1));

    CFakeGateway silent;
    ASSERT_TRUE(silent.StartOnLoopbackNet(kLoopbackNet, kSPIPort, CFakeGateway::eModeSilent));
    handle = 0;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT,
              CDeviceManager::OpenDevice(&handle, silent.GetAddress().c_str(), kTimeoutMs, eTarvikSPI, 0, 1, true));
    EXPECT_EQ(-1, handle);

    // Both failures used up a number.
    EXPECT_EQ(previous + 3, OpenSPI());
}

TEST_F(CDeviceManagerTest, ClosingTwiceOrAnUnknownHandleIsAnInvalidHandle)
{
    int handle = OpenSPI();
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, CDeviceManager::CloseDevice(handle));
    for (int unknown : {-1, 0, INT_MAX})
    {
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, CDeviceManager::CloseDevice(unknown)) << unknown;
        EXPECT_EQ(nullptr, CDeviceManager::GetDevice(unknown)) << unknown;
    }
}

TEST_F(CDeviceManagerTest, ClosingAnOwnedClientDisconnectsIt)
{
    int handle = OpenSPI();
    ASSERT_TRUE(m_oGateway.WaitForAccepted(1, kWaitMs));
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
    EXPECT_TRUE(m_oGateway.WaitForPeerClosed(1, kWaitMs));
}

TEST_F(CDeviceManagerTest, SetDeviceRegistersAnEntryWhoseClientStaysTheCallers)
{
    int previous = OpenSPI();
    m_oGateway.SetHandler([](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), Frame({0})); });
    CTarvikClientSPI client(kTimeoutMs);
    ASSERT_EQ(0, client.Connect(Host(), m_oGateway.GetPort()));

    CDevice* device = new CDevice();
    device->m_pClient = &client;
    device->m_bOwnsClient = true;
    int handle = 0;
    CDeviceManager::SetDevice(&handle, device);
    EXPECT_EQ(previous + 1, handle);
    EXPECT_EQ(handle, device->m_nHandle);
    EXPECT_FALSE(device->m_bOwnsClient);
    EXPECT_EQ(device, CDeviceManager::GetDevice(handle));

    // Closing deletes the entry only: the client is still there and connected.
    EXPECT_EQ(0, CDeviceManager::CloseDevice(handle));
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(handle));
    EXPECT_EQ(0, client.Restart());
}

TEST_F(CDeviceManagerTest, CloseAllDevicesEmptiesTheRegistryButKeepsCounting)
{
    int first = OpenSPI();
    int second = OpenSPI();
    ASSERT_TRUE(m_oGateway.WaitForAccepted(2, kWaitMs));
    CDeviceManager::CloseAllDevices();
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(first));
    EXPECT_EQ(nullptr, CDeviceManager::GetDevice(second));
    EXPECT_TRUE(m_oGateway.WaitForPeerClosed(2, kWaitMs));
    EXPECT_EQ(second + 1, OpenSPI());
}
