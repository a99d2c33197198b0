// Glue shared by the exported C functions; not installed.
#ifndef TARVIK_DLL_TARVIKDLLPRIVATE_H
#define TARVIK_DLL_TARVIKDLLPRIVATE_H

#include "tarvik/dll/DeviceManager.h"

#include <cstddef>
#include <memory>
#include <string>

namespace tarvik_dll
{
// Copies text into buf as the C interface does: nothing for a null buffer or a size
// <= 0; a text that does not fit loses its first character and is cut to size - 1.
// Returns the bytes written including the terminating zero.
int CopyText(const std::string& text, char* buf, int size);

// Prepares a freshly opened device: the client's Open() or what a family uses instead.
typedef int (*PPrepare)(CTarvikClient& client);
int OpenClient(CTarvikClient& client);

// The open functions of every family: connects through the registry (protocol 1, flag
// set), then prepares the client. 0x920000 for a port index outside 0..99 (*handle
// untouched); a failed connect gives its code with *handle = -1; a failed prepare
// closes the client, drops the handle, sets *handle = -1 and gives the prepare's code.
// OpenByTable creates the client by the registry's table (0x910000 for a type without
// a row); OpenOwned registers a client built by the caller.
int OpenByTable(int* handle, const char* host, int timeoutMs, unsigned char type, int portIndex,
                PPrepare prepare = OpenClient);
int OpenOwned(int* handle, const char* host, std::unique_ptr<CTarvikClient> client, int portIndex,
              PPrepare prepare = OpenClient);

// Looks the handle up and runs call on its client as Client (a device client class).
// 0x900000: unknown handle; 0 without a client; 0x910000: a client of another class.
// No exception leaves: one inside gives "Tarvik command failed".
template <typename Client, typename Call> int WithClient(int handle, Call call)
{
    try
    {
        CDevice* device = CDeviceManager::GetDevice(handle);
        if (device == nullptr)
            return TARVIK_ERR_INVALID_HANDLE;
        if (device->m_pClient == nullptr)
            return 0;
        Client* client = dynamic_cast<Client*>(device->m_pClient);
        if (client == nullptr)
            return TARVIK_ERR_INVALID_DEVICE_TYPE;
        return call(*client);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

// The close functions of every family but SPI: the client's Close(), then the handle
// is dropped. 0x900000: unknown handle; 0x910000: a handle of another family, left open.
template <typename Client> int CloseFamily(int handle)
{
    try
    {
        int result = WithClient<Client>(handle, [](Client& client) {
            client.Close();
            return 0;
        });
        return result != 0 ? result : CDeviceManager::CloseDevice(handle);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

// A length from C that the client takes as a narrower count: false for a negative
// one or one above max, which would be cut and lose data (the caller answers 0x920000).
template <typename T> bool FitLength(int len, size_t max, T& out)
{
    if (len < 0 || static_cast<size_t>(len) > max)
        return false;
    out = static_cast<T>(len);
    return true;
}

// A buffer of len bytes: a null pointer is only valid with nothing in it.
inline bool IsBuffer(const void* buf, int len)
{
    return buf != nullptr || len == 0;
}

// A client output that reaches the caller's pointer only when it is not null. It starts
// with the caller's value, so an output that the client leaves alone stays as it was.
template <typename T> class COut
{
public:
    explicit COut(T* target) : m_pTarget(target), m_oValue(target != nullptr ? *target : T()) {}
    ~COut()
    {
        if (m_pTarget != nullptr)
            *m_pTarget = m_oValue;
    }
    COut(const COut&) = delete;
    COut& operator=(const COut&) = delete;
    T& operator*() { return m_oValue; }

private:
    T* m_pTarget;
    T m_oValue;
};
} // namespace tarvik_dll

#endif
