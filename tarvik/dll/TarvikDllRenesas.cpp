#include "tarvik/dll/TarvikDllRenesas.h"

#include "tarvik/clients/TarvikClientRenesas.h"
#include "tarvik/dll/TarvikDllPrivate.h"

using tarvik_dll::COut;
using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
// The longest version text the gateway's answer can be asked for (an 8-bit length).
constexpr size_t kMaxVersion = 0xFF;
// CheckID takes an 8-bit length but sends only the first 7 bytes: longer IDs are cut
// by the client as it always did, so only the 8 bits must fit.
constexpr size_t kMaxIDLen = 0xFF;
} // namespace

int RenesasOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, eTarvikRenesas, portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int RenesasCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientRenesas>(handle);
}

int RenesasInit(int handle)
{
    return WithClient<CTarvikClientRenesas>(handle, [](CTarvikClientRenesas& r) { return r.Init(); });
}

int RenesasCheckID(int handle, const char* id, int len)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        unsigned char count = 0;
        if (!IsBuffer(id, len) || !FitLength(len, kMaxIDLen, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return r.CheckID(id, count);
    });
}

int RenesasSetBaudrate(int handle, unsigned char rateCode)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) { return r.SetBaudrate(rateCode); });
}

int RenesasReadPage(int handle, unsigned short page, char* buf, int len, unsigned short* received)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        if (!IsBuffer(buf, len) || len < 0)
            return TARVIK_ERR_INVALID_PARAMETER;
        // Only a capacity: a page never fills more than 16 bits, so a larger buffer loses nothing.
        auto count = static_cast<unsigned short>(len > 0xFFFF ? 0xFFFF : len);
        COut<unsigned short> got(received);
        return r.ReadPage(page, buf, count, *got);
    });
}

int RenesasEraseAll(int handle)
{
    return WithClient<CTarvikClientRenesas>(handle, [](CTarvikClientRenesas& r) { return r.EraseAll(); });
}

int RenesasBlockErase(int handle, unsigned short block)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) { return r.BlockErase(block); });
}

int RenesasWritePage(int handle, unsigned short page, const char* data, int len)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        unsigned short count = 0;
        if (!IsBuffer(data, len) || !FitLength(len, CTarvikClientRenesas::kPageSize, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        return r.WritePage(page, data, count);
    });
}

int RenesasGetVersion(int handle, char* buf, int size)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        // The client copies the text without a terminator: a zeroed buffer ends it.
        char text[kMaxVersion + 1] = {};
        int result = r.GetVersion(text, static_cast<unsigned char>(kMaxVersion));
        if (result == 0)
            tarvik_dll::CopyText(text, buf, size);
        return result;
    });
}

int RenesasComplete(int handle)
{
    return WithClient<CTarvikClientRenesas>(handle, [](CTarvikClientRenesas& r) { return r.Complete(); });
}

int RenesasVerifyCheck(int handle, unsigned short first, unsigned short second, unsigned short* checksum)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        COut<unsigned short> sum(checksum);
        return r.VerifyCheck(first, second, *sum);
    });
}

int RenesasReadDigital(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) {
        COut<unsigned int> in(inputs), out(outputs);
        return r.ReadDigital(*in, *out);
    });
}

int RenesasWriteDigital(int handle, unsigned int outputs)
{
    return WithClient<CTarvikClientRenesas>(handle, [&](CTarvikClientRenesas& r) { return r.WriteDigital(outputs); });
}
