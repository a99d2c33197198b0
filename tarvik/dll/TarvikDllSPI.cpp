#include "tarvik/dll/TarvikDllSPI.h"

#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/dll/TarvikDllPrivate.h"

using tarvik_dll::WithClient;

namespace
{
constexpr unsigned char kSPIPortIndex = 0;

unsigned short Cut16(int len)
{
    return static_cast<unsigned short>(len);
}
} // namespace

int SPIOpenDevice(int* handle, const char* host, int timeoutMs)
{
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, eTarvikSPI, kSPIPortIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int SPICloseDevice(int handle)
{
    try
    {
        CDevice* device = CDeviceManager::GetDevice(handle);
        if (device != nullptr && device->m_pClient != nullptr)
            device->m_pClient->Close();
        return CDeviceManager::CloseDevice(handle);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int SPIDataReq(int handle, const char* send, int sendLen, char* recv, int recvLen)
{
    return WithClient<CTarvikClientSPI>(
        handle, [&](CTarvikClientSPI& spi) { return spi.DataReq(send, Cut16(sendLen), recv, Cut16(recvLen)); });
}

int SPISequenceReq(int handle, const char* seq, int len, short* id)
{
    return WithClient<CTarvikClientSPI>(handle,
                                        [&](CTarvikClientSPI& spi) { return spi.SequenceReq(seq, Cut16(len), id); });
}

int SPISequenceGetCnf(int handle, short id, char* out, int outLen)
{
    return WithClient<CTarvikClientSPI>(
        handle, [&](CTarvikClientSPI& spi) { return spi.SequenceGetCnf(id, out, Cut16(outLen)); });
}

int SPIReadDigital(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return WithClient<CTarvikClientSPI>(handle, [&](CTarvikClientSPI& spi) {
        // Locals keep a null output pointer from being written through.
        unsigned int in = inputs != nullptr ? *inputs : 0;
        unsigned int out = outputs != nullptr ? *outputs : 0;
        int result = spi.ReadDigital(in, out);
        if (inputs != nullptr)
            *inputs = in;
        if (outputs != nullptr)
            *outputs = out;
        return result;
    });
}

int SPIWriteDigital(int handle, unsigned int outputs)
{
    return WithClient<CTarvikClientSPI>(handle, [&](CTarvikClientSPI& spi) { return spi.WriteDigital(outputs); });
}

int SPISetGlobals(int handle, unsigned int rate, int setting1, int setting2, int setting3)
{
    return WithClient<CTarvikClientSPI>(handle, [&](CTarvikClientSPI& spi) {
        return spi.SetGlobals(rate, static_cast<unsigned char>(setting1), static_cast<unsigned char>(setting2),
                              static_cast<unsigned char>(setting3));
    });
}

int SPIGetGlobals(int handle, unsigned int* rate, unsigned char* setting1, unsigned char* setting2,
                  unsigned char* setting3)
{
    return WithClient<CTarvikClientSPI>(handle, [&](CTarvikClientSPI& spi) {
        // A failed request leaves the locals, so the outputs receive zeros.
        unsigned int r = 0;
        unsigned char s1 = 0, s2 = 0, s3 = 0;
        int result = spi.GetGlobals(r, s1, s2, s3);
        if (rate != nullptr)
            *rate = r;
        if (setting1 != nullptr)
            *setting1 = s1;
        if (setting2 != nullptr)
            *setting2 = s2;
        if (setting3 != nullptr)
            *setting3 = s3;
        return result;
    });
}

int SPIErrorMessage(int code, char* buf, int size)
{
    try
    {
        return tarvik_dll::CopyText(CTarvikClient::GetErrorMsg(code), buf, size);
    }
    catch (...)
    {
        return 0;
    }
}
