#include "tarvik/dll/TarvikDllFirmware.h"

#include "tarvik/clients/TarvikClientFirmware.h"
#include "tarvik/dll/TarvikDllPrivate.h"

#include <algorithm>

using tarvik_dll::COut;
using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
typedef CTarvikClientFirmware::STarvikDeviceInfoEx SInfoEx;

static_assert(TARVIK_FIRMWARE_BLOCK_SIZE == CTarvikClientFirmware::kFlashBlockSize, "flash block size");

constexpr size_t kMaxCount = 0xFFFF;

// The firmware client's own preparation: no telegram, the next request takes id 1.
int PrepareFirmware(CTarvikClient& client)
{
    int unused1 = 0, unused2 = 0;
    return static_cast<CTarvikClientFirmware&>(client).Open(unused1, unused2);
}

// The C record and the client's carry the same fields under the same names.
template <typename From, typename To> void CopyInfo(const From& in, To& out)
{
    out.nSWVersion = in.nSWVersion;
    out.nHWVersion = in.nHWVersion;
    out.nField3 = in.nField3;
    out.nField4 = in.nField4;
    out.nField5 = in.nField5;
    out.nField6 = in.nField6;
    out.nSWVariant = in.nSWVariant;
    std::copy(in.aField8, in.aField8 + 4, out.aField8);
    out.nField9 = in.nField9;
    out.nLayoutVersion = in.nLayoutVersion;
    out.nImageTag = in.nImageTag;
}

SInfoEx ToClient(const STarvikFirmwareInfo& in)
{
    SInfoEx out{};
    CopyInfo(in, out);
    return out;
}

void FromClient(const SInfoEx& in, STarvikFirmwareInfo& out)
{
    CopyInfo(in, out);
}

// A text of the record for the version-string functions; 0 for a null record.
template <typename Text> int CopyInfoText(const STarvikFirmwareInfo* info, char* buf, int size, Text text)
{
    try
    {
        return info != nullptr ? tarvik_dll::CopyText(text(ToClient(*info)), buf, size) : 0;
    }
    catch (...)
    {
        return 0;
    }
}
} // namespace

int FirmwareOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        // The service device has no row in the registry's table: it is built here.
        std::unique_ptr<CTarvikClient> client(new CTarvikClientFirmware(timeoutMs));
        return tarvik_dll::OpenOwned(handle, host, std::move(client), portIndex, PrepareFirmware);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int FirmwareCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientFirmware>(handle);
}

int FirmwareRestart(int handle)
{
    return WithClient<CTarvikClientFirmware>(handle, [](CTarvikClientFirmware& fw) { return fw.Restart(); });
}

int FirmwareClearFlash(int handle)
{
    return WithClient<CTarvikClientFirmware>(handle, [](CTarvikClientFirmware& fw) { return fw.ClearFlash(); });
}

int FirmwareReadFlash(int handle, unsigned short block, char* buf, int len, int* received)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        // The client fills a whole block without being told the buffer's size.
        if (buf == nullptr || len < TARVIK_FIRMWARE_BLOCK_SIZE)
            return TARVIK_ERR_INVALID_PARAMETER;
        unsigned long count = received != nullptr ? static_cast<unsigned long>(*received) : 0;
        int result = fw.ReadFlash(block, buf, count);
        if (received != nullptr)
            *received = static_cast<int>(count);
        return result;
    });
}

int FirmwareWriteFlash(int handle, unsigned short block, const char* data, int len)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        if (data == nullptr || len != TARVIK_FIRMWARE_BLOCK_SIZE)
            return TARVIK_ERR_INVALID_PARAMETER;
        return fw.WriteFlash(block, data);
    });
}

int FirmwareGetEEPromInfo(int handle, int* info)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        COut<int> value(info);
        return fw.GetEEPromInfo(*value);
    });
}

int FirmwareReadEEProm(int handle, unsigned int address, char* buf, int len, unsigned short* received)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        unsigned short count = 0;
        if (!IsBuffer(buf, len) || !FitLength(len, kMaxCount, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> got(received);
        return fw.ReadEEProm(address, buf, count, *got);
    });
}

int FirmwareWriteEEProm(int handle, unsigned int address, const char* data, int len)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        unsigned short count = 0;
        if (!IsBuffer(data, len) || !FitLength(len, kMaxCount, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return fw.WriteEEProm(address, data, count);
    });
}

int FirmwareGetInfo(int handle, STarvikFirmwareInfo* info)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        SInfoEx record{};
        int result = fw.GetInfo(record);
        if (info != nullptr)
            FromClient(record, *info);
        return result;
    });
}

int FirmwareSetInfo(int handle, STarvikFirmwareInfo* info)
{
    return WithClient<CTarvikClientFirmware>(handle, [&](CTarvikClientFirmware& fw) {
        if (info == nullptr)
            return TARVIK_ERR_INVALID_PARAMETER;
        SInfoEx record = ToClient(*info);
        int result = fw.SetInfo(record);
        info->nLayoutVersion = record.nLayoutVersion;
        return result;
    });
}

int FirmwareSWVersionString(const STarvikFirmwareInfo* info, char* buf, int size)
{
    return CopyInfoText(info, buf, size, [](const SInfoEx& record) { return record.GetSWVersionString(); });
}

int FirmwareHWVersionString(const STarvikFirmwareInfo* info, char* buf, int size)
{
    return CopyInfoText(info, buf, size, [](const SInfoEx& record) { return record.GetHWVersionString(); });
}
