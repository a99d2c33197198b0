// CDeviceManager: the process-wide registry that lets the flat C interface refer to
// client objects by small integer handles. Handles start at 1 and are never reused.
#ifndef TARVIK_DLL_DEVICEMANAGER_H
#define TARVIK_DLL_DEVICEMANAGER_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/runtime/MolSync.h"

#include <map>
#include <memory>
#include <string>

// One registry entry.
class TARVIK_API CDevice
{
public:
    CDevice();
    ~CDevice();
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    CTarvikClient* m_pClient;
    std::string m_sHost;
    unsigned short m_nPort;
    int m_nHandle;
    unsigned char m_nDeviceType;
    // When true the destructor deletes m_pClient (which disconnects it).
    bool m_bOwnsClient;
};

class TARVIK_API CDeviceManager
{
public:
    // Creates the client for type, connects it to host at 4999 + type + 100 x portIndex
    // and registers it. 0 with *handle set; 0x920000 for portIndex > 99 (handle
    // untouched); 0x910000 for an unsupported type (a handle number is still drawn);
    // a connect failure gives its code with *handle = -1.
    static int OpenDevice(int* handle, const char* host, int timeoutMs, unsigned char type, unsigned char portIndex,
                          unsigned char protocol, bool flag);
    // The same for a client built by the caller, for device types without a row in
    // OpenDevice's table (the service device 0, DIO 5, AD 7): the handle is drawn, the
    // client connected and registered by OpenDevice's rules, and the entry owns it from
    // here on (a failed connect deletes it). 0x920000 without a client, a handle or a
    // port index in 0..99, nothing touched. Used by the C interface's open functions.
    static int OpenOwnedDevice(int* handle, const char* host, std::unique_ptr<CTarvikClient> client,
                               unsigned char portIndex, unsigned char protocol, bool flag);
    // Registers an entry built by the caller, who keeps the client.
    static void SetDevice(int* handle, CDevice* device);
    // The entry or null. Not protected against a concurrent CloseDevice.
    static CDevice* GetDevice(int handle);
    // 0, or 0x900000 for an unknown handle.
    static int CloseDevice(int handle);
    static void CloseAllDevices();

private:
    static int DrawHandle();
    static void Register(int handle, CDevice* device);
    static CTarvikClient* CreateClient(unsigned char type, int handle, int timeoutMs);
    // Builds the owning entry under the drawn *handle, connects and registers it;
    // on failure *handle = -1 and the entry with its client is deleted.
    static int ConnectOwned(int* handle, const char* host, std::unique_ptr<CTarvikClient> client, unsigned char type,
                            unsigned char portIndex, unsigned char protocol, bool flag);

    static std::map<int, CDevice*> m_aoHandleMap;
    static CMolMutex m_oMutexHandleMap;
    static int m_nMaxHandle;
    static CMolMutex m_oMutexMaxHandle;
};

#endif
