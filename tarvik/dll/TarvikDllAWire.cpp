#include "tarvik/dll/TarvikDllAWire.h"

#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/dll/TarvikDllPrivate.h"
#include "tarvik/hexfile/TarvikImageCheck.h"

#include <string>

using tarvik_dll::COut;
using tarvik_dll::FitLength;
using tarvik_dll::IsBuffer;
using tarvik_dll::WithClient;

namespace
{
constexpr size_t kMaxLength = 0xFFFF;
// The gateway's text is at most 255 bytes: a longer marker shows that none came.
constexpr size_t kNoText = 0x100;

static_assert(TARVIK_AWIRE_STEP_FAILED == CTarvikClientAWire::FileStep::eFailed &&
                  TARVIK_AWIRE_STEP_DONE == CTarvikClientAWire::FileStep::eDone,
              "file steps");

// A buffer and its length as the client takes them; false: answer 0x920000.
bool Fit(const void* buf, int len, unsigned short& out)
{
    return IsBuffer(buf, len) && FitLength(len, kMaxLength, out);
}

typedef int (CTarvikClientAWire::*PWrite)(unsigned int, unsigned short, const char*, short&);

int Write(int handle, PWrite write, unsigned int address, const char* data, int len, short* writeHandle)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        unsigned short count = 0;
        if (!Fit(data, len, count))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<short> out(writeHandle);
        return (awire.*write)(address, count, data, *out);
    });
}
} // namespace

int AWireOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex)
{
    try
    {
        return tarvik_dll::OpenByTable(handle, host, timeoutMs, eTarvikAWire, portIndex);
    }
    catch (...)
    {
        return TARVIK_ERR_COMMAND_FAILED;
    }
}

int AWireCloseDevice(int handle)
{
    return tarvik_dll::CloseFamily<CTarvikClientAWire>(handle);
}

int AWireSetConfig(int handle, unsigned int value1, unsigned int value2, unsigned int pageSize, unsigned int value4,
                   const char* text)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        if (text == nullptr)
            return TARVIK_ERR_INVALID_PARAMETER;
        return awire.SetConfig(value1, value2, pageSize, value4, text);
    });
}

int AWireGetConfig(int handle, unsigned int* value1, unsigned int* value2, unsigned int* pageSize, unsigned int* value4,
                   char* buf, int size)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        COut<unsigned int> v1(value1), v2(value2), page(pageSize), v4(value4);
        std::string text(kNoText, '\0');
        int result = awire.GetConfig(*v1, *v2, *page, *v4, text);
        if (result == 0 && text.size() < kNoText)
            tarvik_dll::CopyText(text, buf, size);
        return result;
    });
}

int AWireRead(int handle, unsigned int address, char* buf, int len, unsigned short* count)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        unsigned short length = 0;
        if (!Fit(buf, len, length))
            return TARVIK_ERR_INVALID_PARAMETER;
        COut<unsigned short> got(count);
        return awire.Read(address, length, buf, *got);
    });
}

int AWireVerify(int handle, unsigned int address, const char* data, int len)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        unsigned short length = 0;
        if (!Fit(data, len, length))
            return TARVIK_ERR_INVALID_PARAMETER;
        return awire.Verify(address, length, data);
    });
}

int AWireErase(int handle, unsigned short value)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) { return awire.Erase(value); });
}

int AWireEraseUserPage(int handle)
{
    return WithClient<CTarvikClientAWire>(handle, [](CTarvikClientAWire& awire) { return awire.EraseUserPage(); });
}

int AWireWriteBlock(int handle, unsigned int address, const char* data, int len, short* writeHandle)
{
    return Write(handle, &CTarvikClientAWire::WriteBlock, address, data, len, writeHandle);
}

int AWireWriteUserPage(int handle, unsigned int address, const char* data, int len, short* writeHandle)
{
    return Write(handle, &CTarvikClientAWire::WriteUserPage, address, data, len, writeHandle);
}

int AWireGetWriteBlockStatus(int handle, short writeHandle, int* state, unsigned short* length, unsigned short* done)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        COut<int> st(state);
        COut<unsigned short> len(length), got(done);
        auto progress = static_cast<CTarvikClientAWire::Progress::EProgress>(*st);
        int result = awire.GetWriteBlockStatus(writeHandle, progress, *len, *got);
        *st = progress;
        return result;
    });
}

int AWireWriteFile(int handle, const char* filename)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        if (filename == nullptr)
            return TARVIK_ERR_INVALID_PARAMETER;
        // A damaged image is refused before anything is sent; one that cannot be read at
        // all goes the documented way (step -1).
        CTarvikHexfile image;
        CTarvikImageCheck check;
        if (check.LoadFile(image, filename))
            return awire.WriteImage(image);
        for (const CTarvikImageCheck::SProblem& problem : check.GetProblems())
            if (problem.m_eKind != CTarvikImageCheck::KindOpen)
                return TARVIK_ERR_INVALID_PARAMETER;
        return awire.WriteFile(filename);
    });
}

int AWireGetWriteFileStatus(int handle, int* step, unsigned char* percent)
{
    return WithClient<CTarvikClientAWire>(handle, [&](CTarvikClientAWire& awire) {
        COut<int> st(step);
        COut<unsigned char> pct(percent);
        auto fileStep = static_cast<CTarvikClientAWire::FileStep::EFileStep>(*st);
        int result = awire.GetWriteFileStatus(fileStep, *pct);
        *st = fileStep;
        return result;
    });
}
