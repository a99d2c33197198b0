#include "tarvik/dll/TarvikDllAD.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/dll/TarvikDllPrivate.h"

#include <algorithm>
#include <vector>

using tarvik_dll::COut;
using tarvik_dll::WithClient;

int ADOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        // AD has no row in the registry's table: the client is built here.
        std::unique_ptr<CTarvikClient> client(new CTarvikClientAD(timeoutMs));
        return tarvik_dll::OpenOwned(handle, host, std::move(client), portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int ADCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientAD>(handle);
}

int ADReadDigital(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return WithClient<CTarvikClientAD>(handle, [&](CTarvikClientAD& ad) {
        COut<unsigned int> in(inputs), out(outputs);
        return ad.ReadDigital(*in, *out);
    });
}

int ADWriteDigital(int handle, unsigned int outputs)
{
    return WithClient<CTarvikClientAD>(handle, [&](CTarvikClientAD& ad) { return ad.WriteDigital(outputs); });
}

int ADReadDigitalInput(int handle, unsigned int* input0, unsigned int* input1, unsigned int* input2)
{
    return WithClient<CTarvikClientAD>(handle, [&](CTarvikClientAD& ad) {
        COut<unsigned int> in0(input0), in1(input1), in2(input2);
        return ad.ReadDigitalInput(*in0, *in1, *in2);
    });
}

int ADRead(int handle, unsigned int* values, int capacity, int* count)
{
    return WithClient<CTarvikClientAD>(handle, [&](CTarvikClientAD& ad) {
        if (capacity < 0 || !tarvik_dll::IsBuffer(values, capacity))
            return TARVIK_ERR_INVALID_PARAMETER;
        std::vector<unsigned int> read;
        int result = ad.Read(read);
        std::copy_n(read.begin(), std::min(read.size(), static_cast<size_t>(capacity)), values);
        if (count != nullptr)
            *count = static_cast<int>(read.size());
        return result;
    });
}
