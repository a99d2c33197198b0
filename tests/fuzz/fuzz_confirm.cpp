// Every confirmation decode of every client, answered from fuzz input without a socket:
// the first byte picks the command, its arguments and each answer come from the rest.
// Output buffers are exactly as large as the caller says, so a write past one is seen.
#include "FuzzAnswer.h"

#include "tarvik/clients/TarvikClientSPI.h"

#include <string>
#include <vector>

namespace
{
typedef CFuzzAnswering<CTarvikClientSPI> CSpi;

// The common commands, through any client.
void RunCommon(CTarvikClient& client, uint8_t which, CFuzzInput& in)
{
    switch (which % 7)
    {
    case 0: client.Restart(); break;
    case 1:
    {
        STarvikDeviceInfo info;
        client.Info(in.Byte() & 1 ? &info : nullptr);
        break;
    }
    case 2:
    {
        std::string text;
        client.Status(text);
        break;
    }
    case 3:
    {
        unsigned int inputs = 0, outputs = 0;
        client.BaseReadDigital(inputs, outputs);
        break;
    }
    case 4: client.BaseWriteDigital(in.Word()); break;
    case 5:
    {
        unsigned short count = in.Byte();
        std::vector<unsigned int> values(count);
        unsigned int first = 0;
        client.ReadAnalog(first, values.empty() ? nullptr : values.data(), count);
        break;
    }
    default:
    {
        std::vector<unsigned int> values(in.Byte(), 7u);
        client.WriteAnalog(values.data(), static_cast<unsigned short>(values.size()));
        break;
    }
    }
}

void RunSpi(CSpi& spi, uint8_t which, CFuzzInput& in)
{
    switch (which % 6)
    {
    case 0:
    {
        unsigned int rate = 0;
        unsigned char a = 0, b = 0, c = 0;
        spi.GetGlobals(rate, a, b, c);
        break;
    }
    case 1: spi.SetGlobals(in.Word(), in.Byte(), in.Byte(), in.Byte()); break;
    case 2:
    {
        std::string send = in.Bytes(in.Byte());
        std::vector<char> recv(in.Word());
        spi.DataReq(send.data(), static_cast<unsigned short>(send.size()), recv.empty() ? nullptr : recv.data(),
                    static_cast<unsigned short>(recv.size()));
        break;
    }
    case 3:
    {
        std::string seq = in.Bytes(in.Byte());
        std::vector<char> out(in.Byte());
        spi.SequenceReq(seq.data(), static_cast<unsigned short>(seq.size()), out.empty() ? nullptr : out.data(),
                        static_cast<unsigned short>(out.size()));
        break;
    }
    case 4:
    {
        // Started, then collected: the answer is stored when the request goes out.
        short id = 0;
        std::string seq = in.Bytes(in.Byte());
        spi.SequenceReq(seq.data(), static_cast<unsigned short>(seq.size()), &id);
        std::vector<char> out(in.Byte());
        spi.SequenceGetCnf(static_cast<short>(id + (in.Byte() & 1)), out.empty() ? nullptr : out.data(),
                           static_cast<unsigned short>(out.size()));
        break;
    }
    default:
    {
        unsigned int inputs = 0, outputs = 0;
        spi.ReadDigital(inputs, outputs);
        spi.WriteDigital(in.Word());
        break;
    }
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput in(data, size);
    CSpi spi(in);
    spi.Open();
    // Several commands per input, so that what one leaves stored meets the next.
    for (int i = 0; i < 8 && !in.Empty(); ++i)
    {
        uint8_t which = in.Byte();
        if (which & 0x80)
            RunSpi(spi, static_cast<uint8_t>(which & 0x7F), in);
        else
            RunCommon(spi, static_cast<uint8_t>(which & 0x7F), in);
    }
    return 0;
}
