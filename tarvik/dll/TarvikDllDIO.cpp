#include "tarvik/dll/TarvikDllDIO.h"

#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/dll/TarvikDllPrivate.h"

using tarvik_dll::COut;
using tarvik_dll::WithClient;

int DIOOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        // DIO has no row in the registry's table: the client is built here.
        std::unique_ptr<CTarvikClient> client(new CTarvikClientDIO(timeoutMs));
        return tarvik_dll::OpenOwned(handle, host, std::move(client), portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int DIOCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientDIO>(handle);
}

int DIORead(int handle, unsigned int* inputs, unsigned int* outputs)
{
    return WithClient<CTarvikClientDIO>(handle, [&](CTarvikClientDIO& dio) {
        COut<unsigned int> in(inputs), out(outputs);
        return dio.Read(*in, *out);
    });
}

int DIOWrite(int handle, unsigned int outputs)
{
    return WithClient<CTarvikClientDIO>(handle, [&](CTarvikClientDIO& dio) { return dio.Write(outputs); });
}
