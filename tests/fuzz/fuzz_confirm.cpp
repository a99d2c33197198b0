// Every confirmation decode of every client (SPI, the test-system units, DIO, AD, Renesas,
// I2C, firmware, CAN, AWire; and the CAN client's and AWire client's indications, which an answer may bring in front), answered from fuzz input without a socket: the first byte picks the
// command, its arguments and each answer come from the rest.
// Output buffers are exactly as large as the caller says, so a write past one is seen.
#include "FuzzAnswer.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientRenesas.h"
#include "tarvik/clients/TarvikClientFirmware.h"
#include "tarvik/clients/TarvikClientI2C.h"
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
    unsigned char count = in.Byte();
    std::vector<unsigned short> words(count);
    get(words.empty() ? nullptr : words.data(), count);
}

template <class TSet> void SetWords(CFuzzInput& in, TSet set)
{
    unsigned char count = in.Byte();
    std::vector<unsigned short> words(count, 0x1234);
    set(words.empty() ? nullptr : words.data(), count);
}

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
void RunCom(CCom& com, uint8_t which, CFuzzInput& in)
{
    switch (which % 5)
    {
    case 0: com.SetConfig(in.Bytes(in.Byte())); break;
    case 1:
    {
        std::string name;
        com.GetConfig(name);
        break;
    }
    case 2:
    {
        bool available = false;
        unsigned int crc = 0;
        com.IsConfigAvailable(in.Bytes(in.Byte()), available, crc);
        break;
    }
    case 3: com.SendFile(UploadPath(), in.Word()); break;
    default: com.InstallConfig(in.Bytes(in.Byte()), UploadPath()); break;
    }
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

void RunI2cSequence(CI2c& i2c, CFuzzInput& in)
{
    std::vector<std::vector<char>> buffers(in.Byte() % 5);
    std::vector<CTarvikClientI2C::I2CCommand> steps;
    for (std::vector<char>& buffer : buffers)
    {
        unsigned short command = in.Byte();
        buffer = Buffer(in);
        steps.push_back({command, Len(buffer), Ptr(buffer)});
    }
    unsigned short pos = 0;
    i2c.WriteSequence(steps.empty() ? nullptr : steps.data(), static_cast<unsigned short>(steps.size()), pos);
}

void RunI2c(CI2c& i2c, uint8_t which, CFuzzInput& in)
{
    unsigned short n = 0, pos = 0;
    switch (which % 8)
    {
    case 0:
    {
        unsigned int rate = 0;
        i2c.GetBaudrate(rate);
        i2c.SetBaudrate(in.Word());
        break;
    }
    case 1:
    {
        std::vector<char> buffer = Buffer(in);
        i2c.Read(in.Word(), Ptr(buffer), Len(buffer), n);
        break;
    }
    case 2:
    {
        std::string data = in.Bytes(in.Byte());
        i2c.Write(in.Word(), data.data(), static_cast<unsigned short>(data.size()), pos);
        break;
    }
    case 3:
    {
        unsigned char byte = 0;
        i2c.RAWStart();
        i2c.RAWSend(in.Byte(), in.Byte());
        i2c.RAWGet(in.Byte(), byte);
        i2c.RAWStop();
        break;
    }
    case 4:
    {
        std::string seq = in.Bytes(in.Byte());
        std::vector<char> buffer = Buffer(in);
        i2c.WriteSequence(seq.data(), static_cast<unsigned short>(seq.size()), Ptr(buffer), Len(buffer), n, pos);
        break;
    }
    case 5: RunI2cSequence(i2c, in); break;
    case 6:
    {
        std::vector<char> buffer = Buffer(in);
        i2c.ReadEEProm(in.Byte(), in.Word(), in.Word(), Ptr(buffer), Len(buffer), n);
        break;
    }
    default:
    {
        std::string data = in.Bytes(in.Byte());
        i2c.WriteEEProm(in.Byte(), in.Word(), in.Word(), data.data(), static_cast<unsigned short>(data.size()));
        i2c.WriteEEPromPollAck(in.Byte(), in.Word(), in.Word(), data.data(), static_cast<unsigned short>(data.size()),
                               in.Word());
        break;
    }
    }
}

void RunFirmware(CFw& fw, uint8_t which, CFuzzInput& in)
{
    switch (which % 6)
    {
    case 0:
    {
        std::vector<char> block(CTarvikClientFirmware::kFlashBlockSize);
        unsigned long n = 0;
        fw.ReadFlash(in.Word(), block.data(), n);
        break;
    }
    case 1:
    {
        int info = 0;
        fw.GetEEPromInfo(info);
        fw.Restart();
        fw.ClearFlash();
        break;
    }
    case 2:
    {
        std::vector<char> buffer = Buffer(in);
        unsigned short n = 0;
        fw.ReadEEProm(in.Word(), Ptr(buffer), Len(buffer), n);
        break;
    }
    case 3:
    {
        CTarvikClientFirmware::STarvikDeviceInfoEx info = {};
        fw.GetInfo(info);
        info.GetSWVersionString();
        info.GetHWVersionString();
        break;
    }
    case 4:
    {
        CTarvikClientFirmware::STarvikDeviceInfoEx info = {};
        info.nField5 = in.Word();
        fw.SetInfo(info);
        break;
    }
    default:
    {
        std::string data = in.Bytes(in.Byte());
        fw.WriteEEProm(in.Word(), data.data(), static_cast<unsigned short>(data.size()));
        break;
    }
    }
}

void RunOthers(SOthers& o, uint8_t which, CFuzzInput& in)
{
    using W = unsigned short*;
    using N = unsigned char;
    switch (which % 14)
    {
    case 0: RunCom(o.com, in.Byte(), in); break;
    case 12: RunI2c(o.i2c, in.Byte(), in); break;
    case 13: RunFirmware(o.fw, in.Byte(), in); break;
    case 1: SetWords(in, [&](W w, N n) { o.io.SetValue(w, n); o.io.SetPower(w, n); }); break;
    case 2: GetWords(in, [&](W w, N n) { o.io.GetValue(w, n); }); break;
    case 3: GetWords(in, [&](W w, N n) { o.io.GetPower(w, n); }); break;
    case 4: SetWords(in, [&](W w, N n) { o.pwr.SetValue(w, n); }); break;
    case 5: GetWords(in, [&](W w, N n) { o.pwr.GetValue(w, n); }); break;
    case 6:
    {
        bool pressed = false;
        o.relay.SetRelay(in.Byte(), in.Byte() & 1);
        o.relay.GetButton(in.Byte(), pressed);
        break;
    }
    case 7: GetWords(in, [&](W w, N n) { o.relay.GetPower(w, n); }); break;
    case 8: SetWords(in, [&](W w, N n) { o.relay.SetPower(w, n); }); break;
    case 9:
    {
        unsigned int inputs = 0, outputs = 0;
        o.dio.Read(inputs, outputs);
        o.dio.Write(in.Word());
        break;
    }
    case 10:
    {
        unsigned int a = 0, b = 0, c = 0;
        o.ad.ReadDigitalInput(a, b, c);
        o.ad.ReadDigital(a, b);
        o.ad.WriteDigital(in.Word());
        break;
    }
    default:
    {
        std::vector<unsigned int> values(in.Byte());
        o.ad.Read(values);
        break;
    }
    }
}

// The Renesas programming commands; the buffers are exactly as large as asked.
void RunRenesas(CRenesas& ren, uint8_t which, CFuzzInput& in)
{
    switch (which % 10)
    {
    case 0: ren.Init(); ren.Complete(); break;
    case 1:
    {
        std::string id = in.Bytes(in.Byte() & 0x0F);
        ren.CheckID(id.empty() ? nullptr : id.data(), static_cast<unsigned char>(id.size()));
        break;
    }
    case 2: ren.SetBaudrate(in.Byte()); break;
    case 3:
    {
        std::vector<char> page(in.Word() & 0x01FF);
        unsigned short received = 0;
        ren.ReadPage(in.Word(), page.empty() ? nullptr : page.data(), static_cast<unsigned short>(page.size()),
                     received);
        break;
    }
    case 4: ren.EraseAll(); break;
    case 5:
    {
        std::string data = in.Bytes(in.Word() & 0x01FF);
        ren.WritePage(in.Word(), data.empty() ? nullptr : data.data(), static_cast<unsigned short>(data.size()));
        break;
    }
    case 6:
    {
        std::vector<char> version(in.Byte());
        ren.GetVersion(version.empty() ? nullptr : version.data(), static_cast<unsigned char>(version.size()));
        break;
    }
    case 7:
    {
        unsigned short sum = 0;
        ren.VerifyCheck(in.Word(), in.Word(), sum);
        break;
    }
    case 8: ren.BlockErase(in.Word()); break;
    default:
    {
        unsigned int inputs = 0, outputs = 0;
        ren.ReadDigital(inputs, outputs);
        ren.WriteDigital(in.Word());
        break;
    }
    }
}
// Every fetch of the CAN client once, with buffers exactly as large as documented.
void DrainCan(CCan& can)
{
    std::vector<char> frame(CTarvikClientCANDll::kMaxFrameData), pdo(CTarvikClientCANDll::kMaxPDOData), any(255);
    std::vector<unsigned char> emcy(5);
    int id = 0, flags = 0, sec = 0, us = 0;
    unsigned char a = 0, b = 0, len = 0;
    unsigned short code = 0;
    can.CANGetMessage(&id, frame.data(), &len, &flags, &sec, &us);
    can.CANopenGetPDO(&a, &b, &len, pdo.data());
    can.CANopenGetSYNC(&a);
    can.CANopenGetEMCY(&a, &code, &b, emcy.data());
    can.CANopenGetGUARD(&a, &b);
    can.CANopenGetUndefined(&id, &a, &b, &len, any.data(), &sec, &us);
}

void RunCanSDO(CCan& can, uint8_t which, CFuzzInput& in)
{
    unsigned char status = 0;
    unsigned int value = 0;
    CTarvikClientCAN::SSDOValue sdo{};
    std::string block;
    switch (which % 6)
    {
    case 4: can.CANopenSDOReadValue(in.Byte(), in.Word(), in.Byte(), 0, sdo); break;
    case 5: can.CANopenSDOReadBlockData(in.Byte(), in.Word(), in.Byte(), 0, status, block, value); break;
    case 0: can.CANopenSendSDORead(in.Byte(), in.Word(), in.Byte(), 0, status, value); break;
    case 1: can.CANopenSendSDOWrite(in.Byte(), in.Byte(), in.Word(), in.Byte(), 0, in.Word(), status, value); break;
    case 2:
    {
        std::vector<unsigned char> buffer(in.Byte());
        unsigned short n = 0;
        can.CANopenSendSDOReadBlock(in.Byte(), in.Word(), in.Byte(), 0, static_cast<unsigned short>(buffer.size()),
                                    status, n, buffer.empty() ? nullptr : buffer.data());
        break;
    }
    default:
    {
        std::string data = in.Bytes(in.Byte());
        can.CANopenSendSDOWriteBlock(in.Byte(), in.Word(), in.Byte(), 0, static_cast<unsigned short>(data.size()),
                                     reinterpret_cast<const unsigned char*>(data.data()), status, value);
        break;
    }
    }
}

void RunCan(CCan& can, uint8_t which, CFuzzInput& in)
{
    bool b1 = false, b2 = false, b3 = false, b4 = false, b5 = false;
    unsigned char u8 = 0;
    unsigned short u16 = 0, u16b = 0;
    unsigned int u32 = 0, u32b = 0;
    switch (which % 12)
    {
    case 0: can.GetConfig(b1, b2); can.SetConfig(in.Byte() & 1, false); break;
    case 1:
    {
        CTarvikClientCAN::SConfigFilter filter = {};
        can.GetFilter(filter);
        can.SetFilter(filter);
        break;
    }
    case 2: can.GetGlobals(u32, u8, b1, b2, b3, b4, u32b, b5); break;
    case 3: can.GetZCardParameter(u8, u16, u16b); break;
    case 4:
    {
        timeval tv = {};
        can.GetTime(b1, tv);
        std::string stamp = in.Bytes(in.Byte());
        can.GetTime(in.Byte(), stamp.empty() ? nullptr : stamp.data(), static_cast<unsigned short>(stamp.size()), tv);
        break;
    }
    case 5:
    {
        unsigned char n = 0, n1 = 0, n2 = 0;
        short s1 = 0;
        std::vector<unsigned short> values(in.Byte() % 8);
        unsigned char c1 = in.Byte() % 8, c2 = in.Byte() % 8;
        std::unique_ptr<bool[]> states1(c1 > 0 ? new bool[c1] : nullptr), states2(c2 > 0 ? new bool[c2] : nullptr);
        can.GetPowerStatus(static_cast<unsigned char>(values.size()), n, c1, n1, c2, n2, s1, u16, u16b, b1,
                           values.empty() ? nullptr : values.data(), states1.get(), states2.get());
        break;
    }
    case 6:
    {
        // Confirmed or not, as the device's answer to the mode switch decides.
        int sec = 0, us = 0;
        std::string data = in.Bytes(in.Byte());
        can.Write(static_cast<int>(in.Word()), data.data(), static_cast<unsigned char>(data.size()), in.Byte(), &sec,
                  &us);
        break;
    }
    case 7:
    {
        std::string data = in.Bytes(in.Byte());
        can.SetCyclicMessage(in.Byte(), in.Byte() & 1, in.Word(), in.Word(), data.data(),
                             static_cast<unsigned char>(data.size()), in.Byte());
        break;
    }
    case 8: can.CANopenGetConfig(u8); break;
    case 9: RunCanSDO(can, in.Byte(), in); break;
    case 10:
        can.SetMaxSizePerQueue(in.Byte() % 4);
        can.CANopenSendSYNC();
        break;
    default: DrainCan(can); break;
    }
    DrainCan(can);
}

// The AWire commands and its progress indications (0x0EE1 with fuzz bytes, offered the
// way the receive thread offers them). No file write: its thread would send from
// another thread than the input is read on.
void RunAWire(CAWire& aw, uint8_t which, CFuzzInput& in)
{
    switch (which % 6)
    {
    case 0:
    {
        unsigned int a = 0, b = 0, c = 0, d = 0;
        std::string text;
        aw.GetConfig(a, b, c, d, text);
        aw.SetConfig(in.Word(), in.Word(), in.Word(), in.Word(), in.Bytes(in.Byte()));
        break;
    }
    case 1:
    {
        std::vector<char> buffer(in.Word() & 0x03FF);
        unsigned short count = 0;
        aw.Read(in.Word(), static_cast<unsigned short>(buffer.size()), buffer.empty() ? nullptr : buffer.data(),
                count);
        break;
    }
    case 2:
    {
        std::string data = in.Bytes(in.Word() & 0x03FF);
        aw.Verify(in.Word(), static_cast<unsigned short>(data.size()), data.empty() ? nullptr : data.data());
        break;
    }
    case 3: aw.Erase(in.Word()); aw.EraseUserPage(); break;
    default:
    {
        short handle = 0;
        std::string data = in.Bytes(in.Byte());
        if (which & 1)
            aw.WriteBlock(in.Word(), static_cast<unsigned short>(data.size()), data.data(), handle);
        else
            aw.WriteUserPage(in.Word(), static_cast<unsigned short>(data.size()), data.data(), handle);
        std::string ind = CTarvikMsg(static_cast<unsigned short>(0x0EE1 ^ (in.Byte() & 0x80)), 0,
                                     CTarvikMsg::ToChar(static_cast<short>(handle + (in.Byte() & 1))) + in.Bytes(in.Byte() & 7))
                              .GetMessageData();
        aw.DataInd(ind.data(), static_cast<unsigned short>(ind.size()));
        CTarvikClientAWire::Progress::EProgress state;
        unsigned short length = 0, done = 0;
        aw.GetWriteBlockStatus(handle, state, length, done);
        CTarvikClientAWire::FileStep::EFileStep step;
        unsigned char percent = 0;
        aw.GetWriteFileStatus(step, percent);
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
            RunSpi(spi, static_cast<uint8_t>(which & 0x7F), in);
        else if (which & 0x40)
            RunOthers(others, static_cast<uint8_t>(which & 0x3F), in);
        else if ((which & 0x38) == 0x38)
            RunAWire(awire, static_cast<uint8_t>(which & 0x07), in);
        else if (which & 0x20)
            RunRenesas(renesas, static_cast<uint8_t>(which & 0x1F), in);
        else if (which & 0x10)
            RunCan(can, static_cast<uint8_t>(which & 0x0F), in);
        else
            RunCommon(spi, static_cast<uint8_t>(which & 0x7F), in);
    }
    return 0;
}
