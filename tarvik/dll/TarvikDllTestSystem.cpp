#include "tarvik/dll/TarvikDllTestSystem.h"

#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"
#include "tarvik/dll/TarvikDllPrivate.h"

using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
// Words travel with an 8-bit count; names with an 8-bit length byte.
constexpr size_t kMaxWords = 0xFF;
constexpr size_t kMaxName = 0xFF;

int Open(int* handle, const char* host, int timeoutMs, ETarvikDevice type, int portIndex)
{
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, static_cast<unsigned char>(type), portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

// Runs one word operation of Client (member op) after checking the words and their count.
template <typename Client, typename Op> int Words(int handle, const unsigned short* values, int count, Op op)
{
    return WithClient<Client>(handle, [&](Client& client) {
        unsigned char n = 0;
        if (!IsBuffer(values, count) || !FitLength(count, kMaxWords, n))
            return TARVIK_ERR_INVALID_PARAMETER;
        // The set operations only read the words; the client's signature is not const.
        return (client.*op)(const_cast<unsigned short*>(values), n);
    });
}

// A name that fits the length byte it travels with.
bool IsName(const char* name)
{
    return name != nullptr && std::char_traits<char>::length(name) <= kMaxName;
}
} // namespace

int TSCOMOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    return Open(handle, host, timeoutMs, eTarvikTestSystemCOM, portIndex);
}

int TSCOMCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientTestSystemCOM>(handle);
}

int TSCOMSetConfig(int handle, const char* name)
{
    return WithClient<CTarvikClientTestSystemCOM>(handle, [&](CTarvikClientTestSystemCOM& com) {
        return IsName(name) ? com.SetConfig(name) : TARVIK_ERR_INVALID_PARAMETER;
    });
}

int TSCOMGetConfig(int handle, char* buf, int size)
{
    return WithClient<CTarvikClientTestSystemCOM>(handle, [&](CTarvikClientTestSystemCOM& com) {
        std::string name;
        int result = com.GetConfig(name);
        if (result == 0)
            tarvik_dll::CopyText(name, buf, size);
        return result;
    });
}

int TSCOMIsConfigAvailable(int handle, const char* name, int* available, unsigned int* crc)
{
    return WithClient<CTarvikClientTestSystemCOM>(handle, [&](CTarvikClientTestSystemCOM& com) {
        if (!IsName(name))
            return TARVIK_ERR_INVALID_PARAMETER;
        bool isThere = available != nullptr && *available != 0;
        tarvik_dll::COut<unsigned int> sum(crc);
        int result = com.IsConfigAvailable(name, isThere, *sum);
        // Written back only when the client changed it, so that an untouched int stays as it was.
        if (available != nullptr && (*available != 0) != isThere)
            *available = isThere ? 1 : 0;
        return result;
    });
}

int TSCOMSendFile(int handle, const char* path, unsigned int crc)
{
    return WithClient<CTarvikClientTestSystemCOM>(handle, [&](CTarvikClientTestSystemCOM& com) {
        if (path == nullptr || !IsName(CTarvikClientTestSystemCOM::GetFileName(path).c_str()))
            return TARVIK_ERR_INVALID_PARAMETER;
        return com.SendFile(path, crc);
    });
}

int TSCOMInstallConfig(int handle, const char* name, const char* path)
{
    return WithClient<CTarvikClientTestSystemCOM>(handle, [&](CTarvikClientTestSystemCOM& com) {
        if (!IsName(name) || path == nullptr || !IsName(CTarvikClientTestSystemCOM::GetFileName(path).c_str()))
            return TARVIK_ERR_INVALID_PARAMETER;
        return com.InstallConfig(name, path);
    });
}

int TSIOOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    return Open(handle, host, timeoutMs, eTarvikTestSystemIO, portIndex);
}

int TSIOCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientTestSystemIO>(handle);
}

int TSIOSetValue(int handle, const unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemIO>(handle, values, count, &CTarvikClientTestSystemIO::SetValue);
}

int TSIOGetValue(int handle, unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemIO>(handle, values, count, &CTarvikClientTestSystemIO::GetValue);
}

int TSIOSetPower(int handle, const unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemIO>(handle, values, count, &CTarvikClientTestSystemIO::SetPower);
}

int TSIOGetPower(int handle, unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemIO>(handle, values, count, &CTarvikClientTestSystemIO::GetPower);
}

int TSPWROpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    return Open(handle, host, timeoutMs, eTarvikTestSystemPWR, portIndex);
}

int TSPWRCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientTestSystemPWR>(handle);
}

int TSPWRSetValue(int handle, const unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemPWR>(handle, values, count, &CTarvikClientTestSystemPWR::SetValue);
}

int TSPWRGetValue(int handle, unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemPWR>(handle, values, count, &CTarvikClientTestSystemPWR::GetValue);
}

int TSRelayOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    return Open(handle, host, timeoutMs, eTarvikTestSystemRelay, portIndex);
}

int TSRelayCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientTestSystemRelay>(handle);
}

int TSRelaySetRelay(int handle, unsigned char relay, int on)
{
    return WithClient<CTarvikClientTestSystemRelay>(
        handle, [&](CTarvikClientTestSystemRelay& unit) { return unit.SetRelay(relay, on != 0); });
}

int TSRelayGetButton(int handle, unsigned char button, int* pressed)
{
    return WithClient<CTarvikClientTestSystemRelay>(handle, [&](CTarvikClientTestSystemRelay& unit) {
        bool isPressed = false;
        int result = unit.GetButton(button, isPressed);
        // The client decides from every confirmation that arrived, also an empty one.
        int transport = TarvikErrorTransport(result);
        if (pressed != nullptr && (transport == 0 || result == (TARVIK_ERR_CNF_INVALID | eTarvikTestSystemRelay << 8)))
            *pressed = isPressed ? 1 : 0;
        return result;
    });
}

int TSRelaySetPower(int handle, const unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemRelay>(handle, values, count, &CTarvikClientTestSystemRelay::SetPower);
}

int TSRelayGetPower(int handle, unsigned short* values, int count)
{
    return Words<CTarvikClientTestSystemRelay>(handle, values, count, &CTarvikClientTestSystemRelay::GetPower);
}
