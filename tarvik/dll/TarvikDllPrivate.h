// Glue shared by the exported C functions; not installed.
#ifndef TARVIK_DLL_TARVIKDLLPRIVATE_H
#define TARVIK_DLL_TARVIKDLLPRIVATE_H

#include "tarvik/dll/DeviceManager.h"

#include <string>

namespace tarvik_dll
{
// Copies text into buf as the C interface does: nothing for a null buffer or a size
// <= 0; a text that does not fit loses its first character and is cut to size - 1.
// Returns the bytes written including the terminating zero.
int CopyText(const std::string& text, char* buf, int size);

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
} // namespace tarvik_dll

#endif
