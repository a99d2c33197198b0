#include "tarvik/dll/TarvikDLL.h"

#include "tarvik/core/TarvikVersionText.h"
#include "tarvik/dll/TarvikDllPrivate.h"

#include <algorithm>
#include <cstring>

const char* gsDLLVersionString = TARVIK_DLL_VERSION_TEXT;

int DLLInfo(char* buf, int size)
{
    return tarvik_dll::CopyText(gsDLLVersionString, buf, size);
}

int TarvikErrorMessage(int code, char* buf, int size)
{
    if (size < 0 || (buf == nullptr && size > 0))
        return -1;
    try
    {
        const std::string text = CTarvikClient::GetErrorMsg(code);
        if (size > 0)
        {
            const size_t kept = std::min(text.size(), static_cast<size_t>(size) - 1);
            std::memcpy(buf, text.data(), kept);
            buf[kept] = '\0';
        }
        return static_cast<int>(text.size() + 1);
    }
    catch (...)
    {
        return -1;
    }
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

int DeviceRestart(int handle)
{
    return tarvik_dll::WithClient<CTarvikClient>(handle, [](CTarvikClient& client) { return client.Restart(); });
}

int DeviceReadDigital(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return tarvik_dll::WithClient<CTarvikClient>(handle, [&](CTarvikClient& client) {
        tarvik_dll::COut<unsigned int> in(inputs), out(outputs);
        return client.BaseReadDigital(*in, *out);
    });
}

int DeviceWriteDigital(int handle, unsigned int outputs)
{
    return tarvik_dll::WithClient<CTarvikClient>(
        handle, [&](CTarvikClient& client) { return client.BaseWriteDigital(outputs); });
}

int DeviceReadAnalog(int handle, unsigned int* first, unsigned int* values, int capacity, int* count)
{
    return tarvik_dll::WithClient<CTarvikClient>(handle, [&](CTarvikClient& client) {
        if (capacity < 0 || !tarvik_dll::IsBuffer(values, capacity))
            return TARVIK_ERR_INVALID_PARAMETER;
        // Only a capacity: cutting it loses nothing the client could have stored.
        auto n = static_cast<unsigned short>(capacity > 0xFFFF ? 0xFFFF : capacity);
        tarvik_dll::COut<unsigned int> value(first);
        int result = client.ReadAnalog(*value, values, n);
        if (count != nullptr)
            *count = n;
        return result;
    });
}

int DeviceWriteAnalog(int handle, const unsigned int* values, int count)
{
    return tarvik_dll::WithClient<CTarvikClient>(handle, [&](CTarvikClient& client) {
        unsigned short n = 0;
        if (!tarvik_dll::IsBuffer(values, count) || !tarvik_dll::FitLength(count, 0xFFFF, n))
            return TARVIK_ERR_INVALID_PARAMETER;
        return client.WriteAnalog(values, n);
    });
}
