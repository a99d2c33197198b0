#include "tarvik/dll/TarvikDllPrivate.h"

#include <cstring>

namespace tarvik_dll
{
namespace
{
constexpr int kMaxPortIndex = 99;
// Protocol and flag with which every C open function connects.
constexpr unsigned char kProtocol = 1;
constexpr bool kConnectFlag = true;

bool IsPortIndex(int portIndex)
{
    return portIndex >= 0 && portIndex <= kMaxPortIndex;
}

// Steps after a successful connect, shared by both ways of opening.
int Prepare(int* handle, PPrepare prepare)
{
    CDevice* device = CDeviceManager::GetDevice(*handle);
    if (device == nullptr)
        return TARVIK_ERR_INVALID_HANDLE;
    int result = prepare(*device->m_pClient);
    if (result == 0)
        return 0;
    device->m_pClient->Close();
    CDeviceManager::CloseDevice(*handle);
    *handle = -1;
    return result;
}
} // namespace

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

int OpenClient(CTarvikClient& client)
{
    return client.Open();
}

int OpenByTable(int* handle, const char* host, int timeoutMs, unsigned char type, int portIndex, PPrepare prepare)
{
    if (!IsPortIndex(portIndex))
        return TARVIK_ERR_INVALID_PARAMETER;
    int result = CDeviceManager::OpenDevice(handle, host, timeoutMs, type, static_cast<unsigned char>(portIndex),
                                            kProtocol, kConnectFlag);
    if (result != 0)
        return result;
    return Prepare(handle, prepare);
}

int OpenOwned(int* handle, const char* host, std::unique_ptr<CTarvikClient> client, int portIndex, PPrepare prepare)
{
    if (!IsPortIndex(portIndex))
        return TARVIK_ERR_INVALID_PARAMETER;
    int result = CDeviceManager::OpenOwnedDevice(handle, host, std::move(client), static_cast<unsigned char>(portIndex),
                                                 kProtocol, kConnectFlag);
    if (result != 0)
        return result;
    return Prepare(handle, prepare);
}
} // namespace tarvik_dll
