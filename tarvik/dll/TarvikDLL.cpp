#include "tarvik/dll/TarvikDLL.h"

#include "tarvik/dll/TarvikDllPrivate.h"

#include <cstring>

const char* gsDLLVersionString = "Tarvik SPI DLL V1.3-2.18";

namespace tarvik_dll
{
int CopyText(const std::string& text, char* buf, int size)
{
    if (buf == nullptr || size <= 0)
        return 0;
    std::string copied = text;
    if (text.size() + 1 > static_cast<size_t>(size))
        copied = text.substr(text.empty() ? 0 : 1, static_cast<size_t>(size) - 1);
    std::memcpy(buf, copied.c_str(), copied.size() + 1);
    return static_cast<int>(copied.size() + 1);
}
} // namespace tarvik_dll

int DLLInfo(char* buf, int size)
{
    return tarvik_dll::CopyText(gsDLLVersionString, buf, size);
}

int DeviceInfo(int handle, STarvikDeviceInfo* info)
{
    if (info == nullptr)
        return TARVIK_ERR_INVALID_PARAMETER;
    if (CDeviceManager::GetDevice(handle) == nullptr)
    {
        std::memset(info->m_abData, 0, TARVIK_DEVICE_INFO_TYPE_BYTE);
        return TARVIK_ERR_INVALID_HANDLE;
    }
    std::memset(info, 0, sizeof(*info));
    return tarvik_dll::WithClient<CTarvikClient>(handle, [info](CTarvikClient& client) { return client.Info(info); });
}

int DeviceStatus(int handle, char* buf, int size)
{
    // Deliberately unlike the other text functions: the caller's buffer holds size + 1 bytes.
    try
    {
        CDevice* device = CDeviceManager::GetDevice(handle);
        if (device == nullptr || device->m_pClient == nullptr)
            return 1;
        std::string text;
        if (device->m_pClient->Status(text) != 0)
        {
            if (buf != nullptr && size > 0)
                std::memset(buf, 0, static_cast<size_t>(size));
            text.clear();
        }
        if (buf == nullptr)
            return 0;
        if (size >= 0 && text.size() > static_cast<size_t>(size))
            text = text.substr(1, size > 0 ? static_cast<size_t>(size) - 1 : 0);
        else if (size < 0)
            text.clear();
        std::memcpy(buf, text.c_str(), text.size() + 1);
        return static_cast<int>(text.size() + 1);
    }
    catch (...)
    {
        return 0;
    }
}
