#include "tarvik/dll/DeviceManager.h"

#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/clients/TarvikClientRenesas.h"
#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

std::map<int, CDevice*> CDeviceManager::m_aoHandleMap;
CMolMutex CDeviceManager::m_oMutexHandleMap;
int CDeviceManager::m_nMaxHandle = 0;
CMolMutex CDeviceManager::m_oMutexMaxHandle;

namespace
{
constexpr unsigned char kMaxPortIndex = 99;
constexpr unsigned char kMaxDeviceType = 17;
} // namespace

CDevice::CDevice() : m_pClient(nullptr), m_nPort(0), m_nHandle(0), m_nDeviceType(0), m_bOwnsClient(false) {}

CDevice::~CDevice()
{
    if (m_bOwnsClient)
        delete m_pClient;
}

int CDeviceManager::DrawHandle()
{
    CMolLock lock(m_oMutexMaxHandle);
    return ++m_nMaxHandle;
}

void CDeviceManager::Register(int handle, CDevice* device)
{
    CMolLock lock(m_oMutexHandleMap);
    // An entry under the same number is replaced, not deleted (numbers are never reused).
    m_aoHandleMap[handle] = device;
}

// The client class for each device type this library drives; null for the others.
CTarvikClient* CDeviceManager::CreateClient(unsigned char type, int handle, int timeoutMs)
{
    switch (type)
    {
    case eTarvikI2C: return new CTarvikClientI2C(timeoutMs);
    // The CAN client hands the handle to the application's callbacks.
    case eTarvikCAN: return new CTarvikClientCANDll(handle, timeoutMs);
    case eTarvikSPI: return new CTarvikClientSPI(timeoutMs);
    case eTarvikRenesas: return new CTarvikClientRenesas(timeoutMs);
    case eTarvikTestSystemIO: return new CTarvikClientTestSystemIO(timeoutMs);
    case eTarvikTestSystemPWR: return new CTarvikClientTestSystemPWR(timeoutMs);
    case eTarvikTestSystemCOM: return new CTarvikClientTestSystemCOM(timeoutMs);
    case eTarvikAWire: return new CTarvikClientAWire(timeoutMs);
    case eTarvikTestSystemRelay: return new CTarvikClientTestSystemRelay(timeoutMs);
    default: return nullptr;
    }
}

int CDeviceManager::OpenDevice(int* handle, const char* host, int timeoutMs, unsigned char type,
                               unsigned char portIndex, unsigned char protocol, bool flag)
{
    if (portIndex > kMaxPortIndex || handle == nullptr)
        return TARVIK_ERR_INVALID_PARAMETER;
    *handle = DrawHandle();
    if (type > kMaxDeviceType)
        return TARVIK_ERR_INVALID_DEVICE_TYPE;
    std::unique_ptr<CTarvikClient> client;
    try
    {
        client.reset(CreateClient(type, *handle, timeoutMs));
    }
    catch (...)
    {
        *handle = -1;
        return TARVIK_ERR_SOCKET;
    }
    if (client == nullptr)
        return TARVIK_ERR_INVALID_DEVICE_TYPE;
    return ConnectOwned(handle, host, std::move(client), type, portIndex, protocol, flag);
}

int CDeviceManager::OpenOwnedDevice(int* handle, const char* host, std::unique_ptr<CTarvikClient> client,
                                    unsigned char portIndex, unsigned char protocol, bool flag)
{
    if (portIndex > kMaxPortIndex || handle == nullptr || client == nullptr)
        return TARVIK_ERR_INVALID_PARAMETER;
    *handle = DrawHandle();
    auto type = static_cast<unsigned char>(client->GetDeviceType());
    return ConnectOwned(handle, host, std::move(client), type, portIndex, protocol, flag);
}

int CDeviceManager::ConnectOwned(int* handle, const char* host, std::unique_ptr<CTarvikClient> client,
                                 unsigned char type, unsigned char portIndex, unsigned char protocol, bool flag)
{
    std::unique_ptr<CDevice> device;
    try
    {
        device.reset(new CDevice());
        device->m_nHandle = *handle;
        device->m_nPort = TarvikDevicePort(type, portIndex);
        device->m_sHost = host != nullptr ? host : "";
        device->m_nDeviceType = type;
    }
    catch (...)
    {
        *handle = -1;
        return TARVIK_ERR_SOCKET;
    }
    device->m_pClient = client.release();
    device->m_bOwnsClient = true;
    // No lock is held while connecting; deleting the entry deletes (and disconnects) the client.
    int result = device->m_pClient->Connect(host, device->m_nPort, protocol, flag);
    if (result != 0)
    {
        *handle = -1;
        return result;
    }
    const int registered = device->m_nHandle;
    Register(registered, device.release());
    return 0;
}

void CDeviceManager::SetDevice(int* handle, CDevice* device)
{
    if (device == nullptr)
        return;
    int newHandle = DrawHandle();
    if (handle != nullptr)
        *handle = newHandle;
    device->m_nHandle = newHandle;
    device->m_bOwnsClient = false;
    Register(newHandle, device);
}

CDevice* CDeviceManager::GetDevice(int handle)
{
    CMolLock lock(m_oMutexHandleMap);
    auto it = m_aoHandleMap.find(handle);
    return it != m_aoHandleMap.end() ? it->second : nullptr;
}

int CDeviceManager::CloseDevice(int handle)
{
    CDevice* device = nullptr;
    {
        CMolLock lock(m_oMutexHandleMap);
        auto it = m_aoHandleMap.find(handle);
        if (it == m_aoHandleMap.end())
            return TARVIK_ERR_INVALID_HANDLE;
        device = it->second;
        m_aoHandleMap.erase(it);
    }
    // Deleting joins the client's receive thread; no lock is held meanwhile.
    delete device;
    return 0;
}

void CDeviceManager::CloseAllDevices()
{
    std::map<int, CDevice*> closing;
    {
        CMolLock lock(m_oMutexHandleMap);
        closing.swap(m_aoHandleMap);
    }
    for (auto& entry : closing)
        delete entry.second;
}
