// Every confirmation decode of every client (SPI, the test-system units, DIO, AD, Renesas,
// I2C, firmware, CAN, AWire; and the CAN client's and AWire client's indications, which an answer may bring in front),
// answered from fuzz input without a socket: the first byte picks the command, its arguments and each answer come from
// the rest. Output buffers are exactly as large as the caller says, so a write past one is seen.
#include "FuzzAnswer.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientFirmware.h"
#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/clients/TarvikClientRenesas.h"
#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{
typedef CFuzzAnswering<CTarvikClientSPI> CSpi;
typedef CFuzzAnswering<CTarvikClientTestSystemCOM> CCom;
typedef CFuzzAnswering<CTarvikClientTestSystemIO> CIO;
typedef CFuzzAnswering<CTarvikClientTestSystemPWR> CPwr;
typedef CFuzzAnswering<CTarvikClientTestSystemRelay> CRelay;
typedef CFuzzAnswering<CTarvikClientDIO> CDio;
typedef CFuzzAnswering<CTarvikClientAD> CAd;
typedef CFuzzAnswering<CTarvikClientRenesas> CRenesas;
typedef CFuzzAnswering<CTarvikClientI2C> CI2c;
typedef CFuzzAnswering<CTarvikClientFirmware> CFw;
typedef CFuzzAnswering<CTarvikClientAWire> CAWire;

// The registry's CAN client, constructed like the others from a time-out alone.
class CCanDllClient : public CTarvikClientCANDll
{
public:
    explicit CCanDllClient(int timeoutMs) : CTarvikClientCANDll(1, timeoutMs) {}
    ~CCanDllClient() override { StopConnection(); }
};
typedef CFuzzAnswering<CCanDllClient> CCan;

// The clients of the test system and the simple gateways, for one input.
struct SOthers
{
    explicit SOthers(CFuzzInput& in) : com(in), io(in), pwr(in), relay(in), dio(in), ad(in), i2c(in), fw(in) {}
    CCom com;
    CIO io;
    CPwr pwr;
    CRelay relay;
    CDio dio;
    CAd ad;
    CI2c i2c;
    CFw fw;
};

// A file of a little over two chunks, made once per process and removed at its end.
class CUploadFile
{
public:
    CUploadFile()
    {
        const char* dir = std::getenv("TMPDIR");
        m_sPath = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/fuzz_confirm_XXXXXX";
        int fd = mkstemp(&m_sPath[0]);
        if (fd >= 0)
            close(fd);
        std::ofstream(m_sPath, std::ios::binary) << std::string(2 * 32768 + 100, '\x5A');
    }
    ~CUploadFile() { std::remove(m_sPath.c_str()); }
    const std::string& Path() const { return m_sPath; }

private:
    std::string m_sPath;
};

const std::string& UploadPath()
{
    static CUploadFile file;
    return file.Path();
}

// Exactly as many words as the caller says, so that a write past them is seen.
template <class TGet> void GetWords(CFuzzInput& in, TGet get)
{
    std::vector<unsigned short> words(in.Byte());
    get(words.empty() ? nullptr : words.data(), static_cast<unsigned char>(words.size()));
}

template <class TSet> void SetWords(CFuzzInput& in, TSet set)
{
    std::vector<unsigned short> words(in.Byte(), 0x1234);
    set(words.empty() ? nullptr : words.data(), static_cast<unsigned char>(words.size()));
}

// A buffer of exactly the size the input says, so that a write past it is seen.
std::vector<char> Buffer(CFuzzInput& in)
{
    return std::vector<char>(in.Byte());
}

char* Ptr(std::vector<char>& buffer)
{
    return buffer.empty() ? nullptr : buffer.data();
}

unsigned short Len(const std::vector<char>& buffer)
{
    return static_cast<unsigned short>(buffer.size());
}

unsigned short Len(const std::string& data)
{
    return static_cast<unsigned short>(data.size());
}

// One row per command (or a few commands that belong together): the input's byte picks the row.
template <class TClient> using FRow = void (*)(TClient&, CFuzzInput&);
template <class TClient, size_t N>
void Run(const FRow<TClient> (&rows)[N], TClient& client, uint8_t which, CFuzzInput& in)
{
    rows[which % N](client, in);
}

// The common commands, through any client.
const FRow<CTarvikClient> kCommon[] = {
    [](CTarvikClient& c, CFuzzInput&) { c.Restart(); },
    [](CTarvikClient& c, CFuzzInput& in) {
        STarvikDeviceInfo info;
        c.Info(in.Byte() & 1 ? &info : nullptr);
    },
    [](CTarvikClient& c, CFuzzInput&) {
        std::string text;
        c.Status(text);
    },
    [](CTarvikClient& c, CFuzzInput&) {
        unsigned int inputs = 0, outputs = 0;
        c.BaseReadDigital(inputs, outputs);
    },
    [](CTarvikClient& c, CFuzzInput& in) { c.BaseWriteDigital(in.Word()); },
    [](CTarvikClient& c, CFuzzInput& in) {
        unsigned short count = in.Byte();
        std::vector<unsigned int> values(count);
        unsigned int first = 0;
        c.ReadAnalog(first, values.empty() ? nullptr : values.data(), count);
    },
    [](CTarvikClient& c, CFuzzInput& in) {
        std::vector<unsigned int> values(in.Byte(), 7u);
        c.WriteAnalog(values.data(), static_cast<unsigned short>(values.size()));
    },
};

const FRow<CSpi> kSpi[] = {
    [](CSpi& c, CFuzzInput&) {
        unsigned int rate = 0;
        unsigned char a = 0, b = 0, d = 0;
        c.GetGlobals(rate, a, b, d);
    },
    [](CSpi& c, CFuzzInput& in) { c.SetGlobals(in.Word(), in.Byte(), in.Byte(), in.Byte()); },
    [](CSpi& c, CFuzzInput& in) {
        std::string send = in.Bytes(in.Byte());
        std::vector<char> recv(in.Word());
        c.DataReq(send.data(), Len(send), Ptr(recv), Len(recv));
    },
    [](CSpi& c, CFuzzInput& in) {
        std::string seq = in.Bytes(in.Byte());
        std::vector<char> out = Buffer(in);
        c.SequenceReq(seq.data(), Len(seq), Ptr(out), Len(out));
    },
    [](CSpi& c, CFuzzInput& in) {
        // Started, then collected: the answer is stored when the request goes out.
        short id = 0;
        std::string seq = in.Bytes(in.Byte());
        c.SequenceReq(seq.data(), Len(seq), &id);
        std::vector<char> out = Buffer(in);
        c.SequenceGetCnf(static_cast<short>(id + (in.Byte() & 1)), Ptr(out), Len(out));
    },
    [](CSpi& c, CFuzzInput& in) {
        unsigned int inputs = 0, outputs = 0;
        c.ReadDigital(inputs, outputs);
        c.WriteDigital(in.Word());
    },
};

const FRow<CCom> kCom[] = {
    [](CCom& c, CFuzzInput& in) { c.SetConfig(in.Bytes(in.Byte())); },
    [](CCom& c, CFuzzInput&) {
        std::string name;
        c.GetConfig(name);
    },
    [](CCom& c, CFuzzInput& in) {
        bool available = false;
        unsigned int crc = 0;
        c.IsConfigAvailable(in.Bytes(in.Byte()), available, crc);
    },
    [](CCom& c, CFuzzInput& in) { c.SendFile(UploadPath(), in.Word()); },
    [](CCom& c, CFuzzInput& in) { c.InstallConfig(in.Bytes(in.Byte()), UploadPath()); },
};

const FRow<CI2c> kI2c[] = {
    [](CI2c& c, CFuzzInput& in) {
        unsigned int rate = 0;
        c.GetBaudrate(rate);
        c.SetBaudrate(in.Word());
    },
    [](CI2c& c, CFuzzInput& in) {
        std::vector<char> buffer = Buffer(in);
        unsigned short n = 0;
        c.Read(in.Word(), Ptr(buffer), Len(buffer), n);
    },
    [](CI2c& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Byte());
        unsigned short pos = 0;
        c.Write(in.Word(), data.data(), Len(data), pos);
    },
    [](CI2c& c, CFuzzInput& in) {
        unsigned char byte = 0;
        c.RAWStart();
        c.RAWSend(in.Byte(), in.Byte());
        c.RAWGet(in.Byte(), byte);
        c.RAWStop();
    },
    [](CI2c& c, CFuzzInput& in) {
        std::string seq = in.Bytes(in.Byte());
        std::vector<char> buffer = Buffer(in);
        unsigned short n = 0, pos = 0;
        c.WriteSequence(seq.data(), Len(seq), Ptr(buffer), Len(buffer), n, pos);
    },
    [](CI2c& c, CFuzzInput& in) {
        std::vector<std::vector<char>> buffers(in.Byte() % 5);
        std::vector<CTarvikClientI2C::I2CCommand> steps;
        for (std::vector<char>& buffer : buffers)
        {
            unsigned short command = in.Byte();
            buffer = Buffer(in);
            steps.push_back({command, Len(buffer), Ptr(buffer)});
        }
        unsigned short pos = 0;
        c.WriteSequence(steps.empty() ? nullptr : steps.data(), static_cast<unsigned short>(steps.size()), pos);
    },
    [](CI2c& c, CFuzzInput& in) {
        std::vector<char> buffer = Buffer(in);
        unsigned short n = 0;
        c.ReadEEProm(in.Byte(), in.Word(), in.Word(), Ptr(buffer), Len(buffer), n);
    },
    [](CI2c& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Byte());
        c.WriteEEProm(in.Byte(), in.Word(), in.Word(), data.data(), Len(data));
        c.WriteEEPromPollAck(in.Byte(), in.Word(), in.Word(), data.data(), Len(data), in.Word());
    },
};

const FRow<CFw> kFirmware[] = {
    [](CFw& c, CFuzzInput& in) {
        std::vector<char> block(CTarvikClientFirmware::kFlashBlockSize);
        unsigned long n = 0;
        c.ReadFlash(in.Word(), block.data(), n);
    },
    [](CFw& c, CFuzzInput&) {
        int info = 0;
        c.GetEEPromInfo(info);
        c.Restart();
        c.ClearFlash();
    },
    [](CFw& c, CFuzzInput& in) {
        std::vector<char> buffer = Buffer(in);
        unsigned short n = 0;
        c.ReadEEProm(in.Word(), Ptr(buffer), Len(buffer), n);
    },
    [](CFw& c, CFuzzInput&) {
        CTarvikClientFirmware::STarvikDeviceInfoEx info = {};
        c.GetInfo(info);
        info.GetSWVersionString();
        info.GetHWVersionString();
    },
    [](CFw& c, CFuzzInput& in) {
        CTarvikClientFirmware::STarvikDeviceInfoEx info = {};
        info.nField5 = in.Word();
        c.SetInfo(info);
    },
    [](CFw& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Byte());
        c.WriteEEProm(in.Word(), data.data(), Len(data));
    },
};

using W = unsigned short*;
using N = unsigned char;
const FRow<SOthers> kOthers[] = {
    [](SOthers& o, CFuzzInput& in) { Run(kCom, o.com, in.Byte(), in); },
    [](SOthers& o, CFuzzInput& in) {
        SetWords(in, [&](W w, N n) {
            o.io.SetValue(w, n);
            o.io.SetPower(w, n);
        });
    },
    [](SOthers& o, CFuzzInput& in) { GetWords(in, [&](W w, N n) { o.io.GetValue(w, n); }); },
    [](SOthers& o, CFuzzInput& in) { GetWords(in, [&](W w, N n) { o.io.GetPower(w, n); }); },
    [](SOthers& o, CFuzzInput& in) { SetWords(in, [&](W w, N n) { o.pwr.SetValue(w, n); }); },
    [](SOthers& o, CFuzzInput& in) { GetWords(in, [&](W w, N n) { o.pwr.GetValue(w, n); }); },
    [](SOthers& o, CFuzzInput& in) {
        bool pressed = false;
        o.relay.SetRelay(in.Byte(), in.Byte() & 1);
        o.relay.GetButton(in.Byte(), pressed);
    },
    [](SOthers& o, CFuzzInput& in) { GetWords(in, [&](W w, N n) { o.relay.GetPower(w, n); }); },
    [](SOthers& o, CFuzzInput& in) { SetWords(in, [&](W w, N n) { o.relay.SetPower(w, n); }); },
    [](SOthers& o, CFuzzInput& in) {
        unsigned int inputs = 0, outputs = 0;
        o.dio.Read(inputs, outputs);
        o.dio.Write(in.Word());
    },
    [](SOthers& o, CFuzzInput& in) {
        unsigned int a = 0, b = 0, c = 0;
        o.ad.ReadDigitalInput(a, b, c);
        o.ad.ReadDigital(a, b);
        o.ad.WriteDigital(in.Word());
    },
    [](SOthers& o, CFuzzInput& in) {
        std::vector<unsigned int> values(in.Byte());
        o.ad.Read(values);
    },
    [](SOthers& o, CFuzzInput& in) { Run(kI2c, o.i2c, in.Byte(), in); },
    [](SOthers& o, CFuzzInput& in) { Run(kFirmware, o.fw, in.Byte(), in); },
};

// The Renesas programming commands; the buffers are exactly as large as asked.
const FRow<CRenesas> kRenesas[] = {
    [](CRenesas& c, CFuzzInput&) {
        c.Init();
        c.Complete();
    },
    [](CRenesas& c, CFuzzInput& in) {
        std::string id = in.Bytes(in.Byte() & 0x0F);
        c.CheckID(id.empty() ? nullptr : id.data(), static_cast<unsigned char>(id.size()));
    },
    [](CRenesas& c, CFuzzInput& in) { c.SetBaudrate(in.Byte()); },
    [](CRenesas& c, CFuzzInput& in) {
        std::vector<char> page(in.Word() & 0x01FF);
        unsigned short received = 0;
        c.ReadPage(in.Word(), Ptr(page), Len(page), received);
    },
    [](CRenesas& c, CFuzzInput&) { c.EraseAll(); },
    [](CRenesas& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Word() & 0x01FF);
        c.WritePage(in.Word(), data.empty() ? nullptr : data.data(), Len(data));
    },
    [](CRenesas& c, CFuzzInput& in) {
        std::vector<char> version = Buffer(in);
        c.GetVersion(Ptr(version), static_cast<unsigned char>(version.size()));
    },
    [](CRenesas& c, CFuzzInput& in) {
        unsigned short sum = 0;
        c.VerifyCheck(in.Word(), in.Word(), sum);
    },
    [](CRenesas& c, CFuzzInput& in) { c.BlockErase(in.Word()); },
    [](CRenesas& c, CFuzzInput& in) {
        unsigned int inputs = 0, outputs = 0;
        c.ReadDigital(inputs, outputs);
        c.WriteDigital(in.Word());
    },
};

const FRow<CCan> kCanSDO[] = {
    [](CCan& c, CFuzzInput& in) {
        unsigned char status = 0;
        unsigned int value = 0;
        c.CANopenSendSDORead(in.Byte(), in.Word(), in.Byte(), 0, status, value);
    },
    [](CCan& c, CFuzzInput& in) {
        unsigned char status = 0;
        unsigned int value = 0;
        c.CANopenSendSDOWrite(in.Byte(), in.Byte(), in.Word(), in.Byte(), 0, in.Word(), status, value);
    },
    [](CCan& c, CFuzzInput& in) {
        std::vector<unsigned char> buffer(in.Byte());
        unsigned char status = 0;
        unsigned short n = 0;
        c.CANopenSendSDOReadBlock(in.Byte(), in.Word(), in.Byte(), 0, static_cast<unsigned short>(buffer.size()),
                                  status, n, buffer.empty() ? nullptr : buffer.data());
    },
    [](CCan& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Byte());
        unsigned char status = 0;
        unsigned int value = 0;
        c.CANopenSendSDOWriteBlock(in.Byte(), in.Word(), in.Byte(), 0, Len(data),
                                   reinterpret_cast<const unsigned char*>(data.data()), status, value);
    },
    [](CCan& c, CFuzzInput& in) {
        CTarvikClientCAN::SSDOValue sdo{};
        c.CANopenSDOReadValue(in.Byte(), in.Word(), in.Byte(), 0, sdo);
    },
    [](CCan& c, CFuzzInput& in) {
        unsigned char status = 0;
        unsigned int value = 0;
        std::string block;
        c.CANopenSDOReadBlockData(in.Byte(), in.Word(), in.Byte(), 0, status, block, value);
    },
};

const FRow<CCan> kCan[] = {
    [](CCan& c, CFuzzInput& in) {
        bool b1 = false, b2 = false;
        c.GetConfig(b1, b2);
        c.SetConfig(in.Byte() & 1, false);
    },
    [](CCan& c, CFuzzInput&) {
        CTarvikClientCAN::SConfigFilter filter = {};
        c.GetFilter(filter);
        c.SetFilter(filter);
    },
    [](CCan& c, CFuzzInput&) {
        bool b1 = false, b2 = false, b3 = false, b4 = false, b5 = false;
        unsigned char u8 = 0;
        unsigned int u32 = 0, u32b = 0;
        c.GetGlobals(u32, u8, b1, b2, b3, b4, u32b, b5);
    },
    [](CCan& c, CFuzzInput&) {
        unsigned char u8 = 0;
        unsigned short u16 = 0, u16b = 0;
        c.GetZCardParameter(u8, u16, u16b);
    },
    [](CCan& c, CFuzzInput& in) {
        timeval tv = {};
        bool b1 = false;
        c.GetTime(b1, tv);
        std::string stamp = in.Bytes(in.Byte());
        c.GetTime(in.Byte(), stamp.empty() ? nullptr : stamp.data(), Len(stamp), tv);
    },
    [](CCan& c, CFuzzInput& in) {
        unsigned char n = 0, n1 = 0, n2 = 0;
        short s1 = 0;
        unsigned short u16 = 0, u16b = 0;
        bool b1 = false;
        std::vector<unsigned short> values(in.Byte() % 8);
        unsigned char c1 = in.Byte() % 8, c2 = in.Byte() % 8;
        std::unique_ptr<bool[]> states1(c1 > 0 ? new bool[c1] : nullptr), states2(c2 > 0 ? new bool[c2] : nullptr);
        c.GetPowerStatus(static_cast<unsigned char>(values.size()), n, c1, n1, c2, n2, s1, u16, u16b, b1,
                         values.empty() ? nullptr : values.data(), states1.get(), states2.get());
    },
    [](CCan& c, CFuzzInput& in) {
        // Confirmed or not, as the device's answer to the mode switch decides.
        int sec = 0, us = 0;
        std::string data = in.Bytes(in.Byte());
        c.Write(static_cast<int>(in.Word()), data.data(), static_cast<unsigned char>(data.size()), in.Byte(), &sec,
                &us);
    },
    [](CCan& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Byte());
        c.SetCyclicMessage(in.Byte(), in.Byte() & 1, in.Word(), in.Word(), data.data(),
                           static_cast<unsigned char>(data.size()), in.Byte());
    },
    [](CCan& c, CFuzzInput&) {
        unsigned char mode = 0;
        c.CANopenGetConfig(mode);
    },
    [](CCan& c, CFuzzInput& in) { Run(kCanSDO, c, in.Byte(), in); },
    [](CCan& c, CFuzzInput& in) {
        c.SetMaxSizePerQueue(in.Byte() % 4);
        c.CANopenSendSYNC();
    },
    [](CCan& c, CFuzzInput&) { DrainCan(c); },
};

// A block or user-page write, then its progress indication (0x0EE1 with fuzz bytes, offered
// the way the receive thread offers them) and both statuses.
void WriteAndFollow(CAWire& c, CFuzzInput& in, bool block)
{
    short handle = 0;
    std::string data = in.Bytes(in.Byte());
    if (block)
        c.WriteBlock(in.Word(), Len(data), data.data(), handle);
    else
        c.WriteUserPage(in.Word(), Len(data), data.data(), handle);
    std::string ind =
        CTarvikMsg(static_cast<unsigned short>(0x0EE1 ^ (in.Byte() & 0x80)), 0,
                   CTarvikMsg::ToChar(static_cast<short>(handle + (in.Byte() & 1))) + in.Bytes(in.Byte() & 7))
            .GetMessageData();
    c.DataInd(ind.data(), Len(ind));
    CTarvikClientAWire::Progress::EProgress state;
    unsigned short length = 0, done = 0;
    c.GetWriteBlockStatus(handle, state, length, done);
    CTarvikClientAWire::FileStep::EFileStep step;
    unsigned char percent = 0;
    c.GetWriteFileStatus(step, percent);
}

// The AWire commands. No file write: its thread would send from another thread than the
// input is read on.
const FRow<CAWire> kAWire[] = {
    [](CAWire& c, CFuzzInput& in) {
        unsigned int a = 0, b = 0, d = 0, e = 0;
        std::string text;
        c.GetConfig(a, b, d, e, text);
        c.SetConfig(in.Word(), in.Word(), in.Word(), in.Word(), in.Bytes(in.Byte()));
    },
    [](CAWire& c, CFuzzInput& in) {
        std::vector<char> buffer(in.Word() & 0x03FF);
        unsigned short count = 0;
        c.Read(in.Word(), Len(buffer), Ptr(buffer), count);
    },
    [](CAWire& c, CFuzzInput& in) {
        std::string data = in.Bytes(in.Word() & 0x03FF);
        c.Verify(in.Word(), Len(data), data.empty() ? nullptr : data.data());
    },
    [](CAWire& c, CFuzzInput& in) {
        c.Erase(in.Word());
        c.EraseUserPage();
    },
    [](CAWire& c, CFuzzInput& in) { WriteAndFollow(c, in, false); },
    [](CAWire& c, CFuzzInput& in) { WriteAndFollow(c, in, true); },
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CFuzzInput in(data, size);
    CSpi spi(in);
    spi.Open();
    SOthers others(in);
    CRenesas renesas(in);
    CCan can(in);
    can.SetMaxSizePerQueue(4);
    CAWire awire(in);
    // Several commands per input, so that what one leaves stored meets the next.
    for (int i = 0; i < 8 && !in.Empty(); ++i)
    {
        uint8_t which = in.Byte();
        if (which & 0x80)
            Run(kSpi, spi, which & 0x7F, in);
        else if (which & 0x40)
            Run(kOthers, others, which & 0x3F, in);
        else if ((which & 0x38) == 0x38)
            Run(kAWire, awire, which & 0x07, in);
        else if (which & 0x20)
            Run(kRenesas, renesas, which & 0x1F, in);
        else if (which & 0x10)
        {
            Run(kCan, can, which & 0x0F, in);
            DrainCan(can);
        }
        else
            Run(kCommon, static_cast<CTarvikClient&>(spi), which & 0x7F, in);
    }
    return 0;
}
