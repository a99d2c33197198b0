// The C functions of every family: each refuses unknown handles, handles of another
// family and bad arguments without touching a client, a queue or an output; the Get
// functions never write past the buffer length they are given; and every family works
// end to end against the simulator through its open function.
#include "support/FakeGateway.h"
#include "support/HexfileTestUtil.h"
#include "support/Wait.h"

#include "sim/TarvikSimDeviceI2C.h"
#include "sim/TarvikSimDeviceTestUnit.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace tarvik_test;

namespace
{
constexpr int kUnknownHandle = 999999;
constexpr int kTimeoutMs = 3000;
constexpr unsigned char kSentinel = 0xEE;
constexpr int kNothingFetched = -1;

// The families, in the order of the registered fake clients.
enum EFamily
{
    eI2C,
    eRenesas,
    eFirmware,
    eTSCOM,
    eTSIO,
    eTSPWR,
    eTSRelay,
    eDIO,
    eAD,
    eSPI,
    eCAN,
    eAWire,
    eFamilyCount
};

// Every output a call may write, filled with sentinel bytes so that a write shows.
struct SOutputs
{
    SOutputs() { std::memset(this, kSentinel, sizeof(*this)); }
    char buf[TARVIK_FIRMWARE_BLOCK_SIZE + 1];
    unsigned char u8[4];
    unsigned short u16[4];
    short s16;
    unsigned int u32[TARVIK_CAN_FILTER_WORDS];
    int n[4];
    unsigned short words[4];
    STarvikFirmwareInfo info;
};

bool operator==(const SOutputs& a, const SOutputs& b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

struct SCall
{
    EFamily eFamily;
    const char* pName;
    std::function<int(int handle, SOutputs& out)> fnCall;
};

void OnFrame(unsigned int, const char*, int, int, int) {}
void OnFrameEx(unsigned int, const char*, int, int, int, int, int) {}
void OnSync(unsigned char, int, int, int) {}

// One row per function that takes a handle, with outputs and valid arguments.
std::vector<SCall> AllCalls()
{
    static STarvikI2CStep step = {0xA1, 1, nullptr};
    static const unsigned int filter[TARVIK_CAN_FILTER_WORDS] = {};
    return {
        {eI2C, "I2CSetBaudrate", [](int h, SOutputs&) { return I2CSetBaudrate(h, 400); }},
        {eI2C, "I2CGetBaudrate", [](int h, SOutputs& o) { return I2CGetBaudrate(h, &o.u32[0]); }},
        {eI2C, "I2CReset", [](int h, SOutputs&) { return I2CReset(h); }},
        {eI2C, "I2CReadDigital", [](int h, SOutputs& o) { return I2CReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eI2C, "I2CWriteDigital", [](int h, SOutputs&) { return I2CWriteDigital(h, 1); }},
        {eI2C, "I2CRead", [](int h, SOutputs& o) { return I2CRead(h, 0xA0, o.buf, 4, &o.u16[0]); }},
        {eI2C, "I2CWrite", [](int h, SOutputs& o) { return I2CWrite(h, 0xA0, "\x01", 1, &o.u16[0]); }},
        {eI2C, "I2CRAWStart", [](int h, SOutputs&) { return I2CRAWStart(h); }},
        {eI2C, "I2CRAWSend", [](int h, SOutputs&) { return I2CRAWSend(h, 0xA0, 0); }},
        {eI2C, "I2CRAWGet", [](int h, SOutputs& o) { return I2CRAWGet(h, 1, &o.u8[0]); }},
        {eI2C, "I2CRAWStop", [](int h, SOutputs&) { return I2CRAWStop(h); }},
        {eI2C, "I2CWriteSequence",
         [](int h, SOutputs& o) { return I2CWriteSequence(h, "\xA1\x00\x01\x00", 4, o.buf, 1, &o.u16[0], &o.u16[0]); }},
        {eI2C, "I2CWriteSequenceSteps",
         [](int h, SOutputs& o) {
             step.pBuffer = o.buf;
             return I2CWriteSequenceSteps(h, &step, 1, &o.u16[0]);
         }},
        {eI2C, "EEPROMWrite", [](int h, SOutputs&) { return EEPROMWrite(h, 4, 0, 0x0008, "\x01", 1); }},
        {eI2C, "EEPROMWritePollAck",
         [](int h, SOutputs&) { return EEPROMWritePollAck(h, 4, 0, 0x0008, "\x01", 1, 10); }},
        {eI2C, "EEPROMRead", [](int h, SOutputs& o) { return EEPROMRead(h, 4, 0, 0x0008, o.buf, 4, &o.u16[0]); }},
        {eI2C, "I2CCloseDevice", [](int h, SOutputs&) { return I2CCloseDevice(h); }},
        {eRenesas, "RenesasInit", [](int h, SOutputs&) { return RenesasInit(h); }},
        {eRenesas, "RenesasCheckID", [](int h, SOutputs&) { return RenesasCheckID(h, "RENESAS", 7); }},
        {eRenesas, "RenesasSetBaudrate", [](int h, SOutputs&) { return RenesasSetBaudrate(h, 1); }},
        {eRenesas, "RenesasReadPage", [](int h, SOutputs& o) { return RenesasReadPage(h, 0, o.buf, 256, &o.u16[0]); }},
        {eRenesas, "RenesasEraseAll", [](int h, SOutputs&) { return RenesasEraseAll(h); }},
        {eRenesas, "RenesasBlockErase", [](int h, SOutputs&) { return RenesasBlockErase(h, 0); }},
        {eRenesas, "RenesasWritePage", [](int h, SOutputs&) { return RenesasWritePage(h, 0, "\x01", 1); }},
        {eRenesas, "RenesasGetVersion", [](int h, SOutputs& o) { return RenesasGetVersion(h, o.buf, 64); }},
        {eRenesas, "RenesasComplete", [](int h, SOutputs&) { return RenesasComplete(h); }},
        {eRenesas, "RenesasVerifyCheck", [](int h, SOutputs& o) { return RenesasVerifyCheck(h, 0, 1, &o.u16[0]); }},
        {eRenesas, "RenesasReadDigital",
         [](int h, SOutputs& o) { return RenesasReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eRenesas, "RenesasWriteDigital", [](int h, SOutputs&) { return RenesasWriteDigital(h, 1); }},
        {eRenesas, "RenesasCloseDevice", [](int h, SOutputs&) { return RenesasCloseDevice(h); }},
        {eFirmware, "FirmwareRestart", [](int h, SOutputs&) { return FirmwareRestart(h); }},
        {eFirmware, "FirmwareClearFlash", [](int h, SOutputs&) { return FirmwareClearFlash(h); }},
        {eFirmware, "FirmwareReadFlash",
         [](int h, SOutputs& o) { return FirmwareReadFlash(h, 0, o.buf, TARVIK_FIRMWARE_BLOCK_SIZE, &o.n[0]); }},
        {eFirmware, "FirmwareWriteFlash",
         [](int h, SOutputs&) {
             std::string block(TARVIK_FIRMWARE_BLOCK_SIZE, '\0');
             return FirmwareWriteFlash(h, 0, block.data(), TARVIK_FIRMWARE_BLOCK_SIZE);
         }},
        {eFirmware, "FirmwareGetEEPromInfo", [](int h, SOutputs& o) { return FirmwareGetEEPromInfo(h, &o.n[0]); }},
        {eFirmware, "FirmwareReadEEProm",
         [](int h, SOutputs& o) { return FirmwareReadEEProm(h, 0, o.buf, 16, &o.u16[0]); }},
        {eFirmware, "FirmwareWriteEEProm", [](int h, SOutputs&) { return FirmwareWriteEEProm(h, 0, "\x01", 1); }},
        {eFirmware, "FirmwareGetInfo", [](int h, SOutputs& o) { return FirmwareGetInfo(h, &o.info); }},
        {eFirmware, "FirmwareSetInfo", [](int h, SOutputs& o) { return FirmwareSetInfo(h, &o.info); }},
        {eFirmware, "FirmwareCloseDevice", [](int h, SOutputs&) { return FirmwareCloseDevice(h); }},
        {eTSCOM, "TSCOMSetConfig", [](int h, SOutputs&) { return TSCOMSetConfig(h, "station"); }},
        {eTSCOM, "TSCOMGetConfig", [](int h, SOutputs& o) { return TSCOMGetConfig(h, o.buf, 64); }},
        {eTSCOM, "TSCOMIsConfigAvailable",
         [](int h, SOutputs& o) { return TSCOMIsConfigAvailable(h, "station", &o.n[0], &o.u32[0]); }},
        {eTSCOM, "TSCOMSendFile", [](int h, SOutputs&) { return TSCOMSendFile(h, "/nonexistent/a.cfg", 0); }},
        {eTSCOM, "TSCOMInstallConfig",
         [](int h, SOutputs&) { return TSCOMInstallConfig(h, "station", "/nonexistent/a.cfg"); }},
        {eTSCOM, "TSCOMCloseDevice", [](int h, SOutputs&) { return TSCOMCloseDevice(h); }},
        {eTSIO, "TSIOSetValue", [](int h, SOutputs& o) { return TSIOSetValue(h, o.words, 4); }},
        {eTSIO, "TSIOGetValue", [](int h, SOutputs& o) { return TSIOGetValue(h, o.words, 4); }},
        {eTSIO, "TSIOSetPower", [](int h, SOutputs& o) { return TSIOSetPower(h, o.words, 4); }},
        {eTSIO, "TSIOGetPower", [](int h, SOutputs& o) { return TSIOGetPower(h, o.words, 4); }},
        {eTSIO, "TSIOCloseDevice", [](int h, SOutputs&) { return TSIOCloseDevice(h); }},
        {eTSPWR, "TSPWRSetValue", [](int h, SOutputs& o) { return TSPWRSetValue(h, o.words, 4); }},
        {eTSPWR, "TSPWRGetValue", [](int h, SOutputs& o) { return TSPWRGetValue(h, o.words, 4); }},
        {eTSPWR, "TSPWRCloseDevice", [](int h, SOutputs&) { return TSPWRCloseDevice(h); }},
        {eTSRelay, "TSRelaySetRelay", [](int h, SOutputs&) { return TSRelaySetRelay(h, 1, 1); }},
        {eTSRelay, "TSRelayGetButton", [](int h, SOutputs& o) { return TSRelayGetButton(h, 0, &o.n[0]); }},
        {eTSRelay, "TSRelaySetPower", [](int h, SOutputs& o) { return TSRelaySetPower(h, o.words, 4); }},
        {eTSRelay, "TSRelayGetPower", [](int h, SOutputs& o) { return TSRelayGetPower(h, o.words, 4); }},
        {eTSRelay, "TSRelayCloseDevice", [](int h, SOutputs&) { return TSRelayCloseDevice(h); }},
        {eDIO, "DIORead", [](int h, SOutputs& o) { return DIORead(h, &o.u32[0], &o.u32[1]); }},
        {eDIO, "DIOWrite", [](int h, SOutputs&) { return DIOWrite(h, 1); }},
        {eDIO, "DIOCloseDevice", [](int h, SOutputs&) { return DIOCloseDevice(h); }},
        {eAD, "ADReadDigital", [](int h, SOutputs& o) { return ADReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eAD, "ADWriteDigital", [](int h, SOutputs&) { return ADWriteDigital(h, 1); }},
        {eAD, "ADReadDigitalInput",
         [](int h, SOutputs& o) { return ADReadDigitalInput(h, &o.u32[0], &o.u32[1], &o.u32[2]); }},
        {eAD, "ADRead", [](int h, SOutputs& o) { return ADRead(h, o.u32, 3, &o.n[0]); }},
        {eAD, "ADCloseDevice", [](int h, SOutputs&) { return ADCloseDevice(h); }},
        {eSPI, "SPIDataReq", [](int h, SOutputs& o) { return SPIDataReq(h, "\x01", 1, o.buf, 4); }},
        {eSPI, "SPISequenceReq", [](int h, SOutputs& o) { return SPISequenceReq(h, "\x01", 1, &o.s16); }},
        {eSPI, "SPISequenceGetCnf", [](int h, SOutputs& o) { return SPISequenceGetCnf(h, 2, o.buf, 4); }},
        {eSPI, "SPIReadDigital", [](int h, SOutputs& o) { return SPIReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eSPI, "SPIWriteDigital", [](int h, SOutputs&) { return SPIWriteDigital(h, 1); }},
        {eSPI, "SPISetGlobals", [](int h, SOutputs&) { return SPISetGlobals(h, 1000000, 1, 2, 3); }},
        {eSPI, "SPIGetGlobals",
         [](int h, SOutputs& o) { return SPIGetGlobals(h, &o.u32[0], &o.u8[0], &o.u8[1], &o.u8[2]); }},
        {eCAN, "CANSetConfig", [](int h, SOutputs&) { return CANSetConfig(h, 1, 0); }},
        {eCAN, "CANGetConfig", [](int h, SOutputs& o) { return CANGetConfig(h, &o.n[0], &o.n[1]); }},
        {eCAN, "CANSetFilter", [](int h, SOutputs&) { return CANSetFilter(h, filter, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "CANGetFilter", [](int h, SOutputs& o) { return CANGetFilter(h, o.u32, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "CANSetGlobals", [](int h, SOutputs&) { return CANSetGlobals(h, 500000, 1, 1, 0, 0, 1, 7, 0); }},
        {eCAN, "CANGetGlobals",
         [](int h, SOutputs& o) {
             return CANGetGlobals(h, &o.u32[0], &o.u8[0], &o.n[0], &o.n[1], &o.n[2], &o.n[3], &o.u32[1], &o.n[0]);
         }},
        {eCAN, "CANSetZCardParameter", [](int h, SOutputs&) { return CANSetZCardParameter(h, 1, 2, 3); }},
        {eCAN, "CANGetZCardParameter",
         [](int h, SOutputs& o) { return CANGetZCardParameter(h, &o.u8[0], &o.u16[0], &o.u16[1]); }},
        {eCAN, "CANSetTime", [](int h, SOutputs&) { return CANSetTime(h, 1000, 5); }},
        {eCAN, "CANGetTime", [](int h, SOutputs& o) { return CANGetTime(h, &o.n[0], &o.n[1], &o.n[2]); }},
        {eCAN, "CANGetPowerStatus",
         [](int h, SOutputs& o) {
             return CANGetPowerStatus(h, &o.u8[0], &o.u8[1], &o.u8[2], &o.s16, &o.u16[0], &o.u16[1], &o.n[0], &o.u16[2],
                                      2, &o.u8[3], 1, reinterpret_cast<unsigned char*>(o.buf), 4);
         }},
        {eCAN, "CANSetPowerRelais", [](int h, SOutputs&) { return CANSetPowerRelais(h, 1); }},
        {eCAN, "CANSetActivePowerSupplies", [](int h, SOutputs&) { return CANSetActivePowerSupplies(h, 3); }},
        {eCAN, "CANWrite", [](int h, SOutputs& o) { return CANWrite(h, 0x123, "\x01", 1, 0, &o.n[0], &o.n[1]); }},
        {eCAN, "CANSetCyclicMessage",
         [](int h, SOutputs&) { return CANSetCyclicMessage(h, 1, 1, 100, 0x123, "\x01", 1, 0); }},
        {eCAN, "CANStartAlive", [](int h, SOutputs&) { return CANStartAlive(h, 3); }},
        {eCAN, "CANSetCallback", [](int h, SOutputs&) { return CANSetCallback(h, OnFrame); }},
        {eCAN, "CANSetCallbackEx", [](int h, SOutputs&) { return CANSetCallbackEx(h, OnFrameEx); }},
        {eCAN, "CANSetMaxSizePerQueue", [](int h, SOutputs&) { return CANSetMaxSizePerQueue(h, 10); }},
        {eCAN, "CANGetMessage",
         [](int h, SOutputs& o) {
             return CANGetMessage(h, &o.n[0], o.buf, TARVIK_CAN_FRAME_DATA, &o.u8[0], &o.n[1], &o.n[2], &o.n[3]);
         }},
        {eCAN, "CANGetMessages", [](int h, SOutputs& o) { return CANGetMessages(h, nullptr, 0, &o.n[0]); }},
        {eCAN, "CANopenSetConfig", [](int h, SOutputs&) { return CANopenSetConfig(h, 1); }},
        {eCAN, "CANopenGetConfig", [](int h, SOutputs& o) { return CANopenGetConfig(h, &o.u8[0]); }},
        {eCAN, "CANopenSetSYNCMode", [](int h, SOutputs&) { return CANopenSetSYNCMode(h, 1); }},
        {eCAN, "CANopenSendNMT", [](int h, SOutputs&) { return CANopenSendNMT(h, 2, 1); }},
        {eCAN, "CANopenSendSYNC", [](int h, SOutputs&) { return CANopenSendSYNC(h); }},
        {eCAN, "CANopenSendTIME", [](int h, SOutputs&) { return CANopenSendTIME(h, 1, 2); }},
        {eCAN, "CANopenSendPDO", [](int h, SOutputs&) { return CANopenSendPDO(h, 1, 2, "\x01", 1); }},
        {eCAN, "CANopenSendSDORead",
         [](int h, SOutputs& o) { return CANopenSendSDORead(h, 2, 0x1000, 0, 50, &o.u8[0], &o.u32[0]); }},
        {eCAN, "CANopenSendSDOWrite",
         [](int h, SOutputs& o) { return CANopenSendSDOWrite(h, 2, 4, 0x2001, 0, 50, 7, &o.u8[0], &o.u32[0]); }},
        {eCAN, "CANopenSDOReadValue",
         [](int h, SOutputs& o) {
             return CANopenSDOReadValue(h, 2, 0x1000, 0, 50, &o.u8[0], &o.u32[0], &o.u8[1], &o.u32[1]);
         }},
        {eCAN, "CANopenSDOWriteValue",
         [](int h, SOutputs& o) {
             return CANopenSDOWriteValue(h, 2, 4, 0x2001, 0, 50, 7, &o.u8[0], &o.u32[0], &o.u8[1], &o.u32[1]);
         }},
        {eCAN, "CANopenSendSDOReadBlock",
         [](int h, SOutputs& o) {
             return CANopenSendSDOReadBlock(h, 2, 0x2100, 0, 50, reinterpret_cast<unsigned char*>(o.buf), 16, &o.u8[0],
                                            &o.u16[0]);
         }},
        {eCAN, "CANopenSendSDOWriteBlock",
         [](int h, SOutputs& o) {
             return CANopenSendSDOWriteBlock(h, 2, 0x2100, 0, 50, o.u8, 2, &o.u8[2], &o.u32[0]);
         }},
        {eCAN, "CANopenSetCallback",
         [](int h, SOutputs&) { return CANopenSetCallback(h, nullptr, OnSync, nullptr, nullptr, nullptr); }},
        {eCAN, "CANopenGetPDO",
         [](int h, SOutputs& o) {
             return CANopenGetPDO(h, &o.u8[0], &o.u8[1], &o.u8[2], o.buf, TARVIK_CANOPEN_PDO_DATA);
         }},
        {eCAN, "CANopenGetSYNC", [](int h, SOutputs& o) { return CANopenGetSYNC(h, &o.u8[0]); }},
        {eCAN, "CANopenGetEMCY",
         [](int h, SOutputs& o) {
             return CANopenGetEMCY(h, &o.u8[0], &o.u16[0], &o.u8[1], reinterpret_cast<unsigned char*>(o.buf),
                                   TARVIK_CANOPEN_EMCY_DATA);
         }},
        {eCAN, "CANopenGetGUARD", [](int h, SOutputs& o) { return CANopenGetGUARD(h, &o.u8[0], &o.u8[1]); }},
        {eCAN, "CANopenGetUndefined",
         [](int h, SOutputs& o) {
             return CANopenGetUndefined(h, &o.n[0], &o.u8[0], &o.u8[1], &o.u8[2], o.buf, TARVIK_CANOPEN_UNDEFINED_DATA,
                                        &o.n[1], &o.n[2]);
         }},
        {eCAN, "CANDeviceClose", [](int h, SOutputs&) { return CANDeviceClose(h); }},
        {eCAN, "CANCloseDevice", [](int h, SOutputs&) { return CANCloseDevice(h); }},
        {eAWire, "AWireSetConfig", [](int h, SOutputs&) { return AWireSetConfig(h, 1, 2, 256, 4, "target"); }},
        {eAWire, "AWireGetConfig",
         [](int h, SOutputs& o) { return AWireGetConfig(h, &o.u32[0], &o.u32[1], &o.u32[2], &o.u32[3], o.buf, 64); }},
        {eAWire, "AWireRead", [](int h, SOutputs& o) { return AWireRead(h, 0, o.buf, 16, &o.u16[0]); }},
        {eAWire, "AWireVerify", [](int h, SOutputs&) { return AWireVerify(h, 0, "\x01", 1); }},
        {eAWire, "AWireErase", [](int h, SOutputs&) { return AWireErase(h, 0); }},
        {eAWire, "AWireEraseUserPage", [](int h, SOutputs&) { return AWireEraseUserPage(h); }},
        {eAWire, "AWireWriteBlock", [](int h, SOutputs& o) { return AWireWriteBlock(h, 0, "\x01", 1, &o.s16); }},
        {eAWire, "AWireWriteUserPage",
         [](int h, SOutputs& o) { return AWireWriteUserPage(h, 0x800000, "\x01", 1, &o.s16); }},
        {eAWire, "AWireGetWriteBlockStatus",
         [](int h, SOutputs& o) { return AWireGetWriteBlockStatus(h, 2, &o.n[0], &o.u16[0], &o.u16[1]); }},
        {eAWire, "AWireWriteFile", [](int h, SOutputs&) { return AWireWriteFile(h, "/nonexistent/a.hex"); }},
        {eAWire, "AWireGetWriteFileStatus",
         [](int h, SOutputs& o) { return AWireGetWriteFileStatus(h, &o.n[0], &o.u8[0]); }},
        {eAWire, "AWireCloseDevice", [](int h, SOutputs&) { return AWireCloseDevice(h); }},
    };
}

// Indications as the gateway sends them; the client takes the telegram over.
void Indicate(CTarvikClientCANDll& can, unsigned short cmd, const std::string& payload)
{
    can.DataIndRespond(new CTarvikMsg(cmd, 0, std::string(payload)));
}

std::string CanFrame(unsigned int id, unsigned char flags, const std::string& data)
{
    return CTarvikMsg::ToChar(id) + std::string(1, static_cast<char>(flags)) + data;
}

int Register(CTarvikClient* client)
{
    CDevice* device = new CDevice();
    device->m_pClient = client;
    device->m_nDeviceType = static_cast<unsigned char>(client->GetDeviceType());
    int handle = -1;
    CDeviceManager::SetDevice(&handle, device);
    return handle;
}

// One client of each family, registered but never connected: a call that reaches its
// client is answered 0x030000, so a refusal before it is told apart.
class CDllFamiliesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_pCAN = new CTarvikClientCANDll(0, kTimeoutMs);
        CTarvikClient* clients[] = {new CTarvikClientI2C(kTimeoutMs),
                                    new CTarvikClientRenesas(kTimeoutMs),
                                    new CTarvikClientFirmware(kTimeoutMs),
                                    new CTarvikClientTestSystemCOM(kTimeoutMs),
                                    new CTarvikClientTestSystemIO(kTimeoutMs),
                                    new CTarvikClientTestSystemPWR(kTimeoutMs),
                                    new CTarvikClientTestSystemRelay(kTimeoutMs),
                                    new CTarvikClientDIO(kTimeoutMs),
                                    new CTarvikClientAD(kTimeoutMs),
                                    new CTarvikClientSPI(kTimeoutMs),
                                    m_pCAN,
                                    new CTarvikClientAWire(kTimeoutMs)};
        for (CTarvikClient* client : clients)
        {
            m_apClients.emplace_back(client);
            m_anHandles.push_back(Register(client));
        }
    }
    void TearDown() override
    {
        for (int handle : m_anHandles)
            CDeviceManager::CloseDevice(handle);
    }
    // One telegram of every kind in the CAN client's queues.
    void FillQueues()
    {
        m_pCAN->SetMaxSizePerQueue(10);
        Indicate(*m_pCAN, 0x0203, CanFrame(0x123, 0, std::string(TARVIK_CAN_FRAME_DATA, 'F')));
        Indicate(*m_pCAN, 0x0267, "\x01\x02\x08" + std::string(8, 'P'));
        Indicate(*m_pCAN, 0x0266, std::string("\x05\x81\x10\x01", 4) + "EEEEE");
        Indicate(*m_pCAN, 0x026D, CanFrame(0x2AB, 0, std::string(250, 'U')));
        Indicate(*m_pCAN, 0x0264, "\x07");
        Indicate(*m_pCAN, 0x026C, "\x05\x7F");
    }
    int Handle(EFamily family) const { return m_anHandles[family]; }

    CTarvikClientCANDll* m_pCAN = nullptr;
    std::vector<std::unique_ptr<CTarvikClient>> m_apClients;
    std::vector<int> m_anHandles;
};
} // namespace

TEST_F(CDllFamiliesTest, EveryFunctionRefusesUnknownHandlesAndOtherFamiliesWithoutWriting)
{
    const SOutputs untouched;
    for (const SCall& call : AllCalls())
    {
        SOutputs out;
        EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, call.fnCall(kUnknownHandle, out)) << call.pName;
        for (int family = 0; family < eFamilyCount; ++family)
        {
            if (family == call.eFamily)
                continue;
            EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, call.fnCall(Handle(EFamily(family)), out))
                << call.pName << " on a handle of family " << family;
            // A close on another family's handle leaves that handle open.
            EXPECT_NE(nullptr, CDeviceManager::GetDevice(Handle(EFamily(family)))) << call.pName;
        }
        EXPECT_TRUE(out == untouched) << call.pName << " wrote an output";
    }
    // The codes are no counts: an empty queue answers -1, and the handle codes lie far
    // above the largest queue.
    SOutputs out;
    EXPECT_EQ(kNothingFetched, CANopenGetSYNC(Handle(eCAN), &out.u8[0]));
    EXPECT_EQ(kSentinel, out.u8[0]);
    EXPECT_GT(TARVIK_ERR_INVALID_HANDLE, TARVIK_CAN_MAX_QUEUE_SIZE);
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, CANopenSendSYNC(Handle(eCAN)));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, AWireErase(Handle(eAWire), 0));
}

TEST_F(CDllFamiliesTest, BadArgumentsAreRefusedBeforeTheClientIsAskedAndNothingIsTaken)
{
    FillQueues();
    char buf[TARVIK_FIRMWARE_BLOCK_SIZE + 1] = {};
    unsigned char bytes[TARVIK_CANOPEN_UNDEFINED_DATA] = {};
    unsigned int words32[TARVIK_CAN_FILTER_WORDS + 1] = {};
    unsigned short words[256] = {};
    unsigned int values[4] = {};
    int count = 42;
    STarvikI2CStep nullStep = {0xA0, 2, nullptr};
    const std::string longName(256, 'n');
    const std::string longPath = "/tmp/" + longName;
    const struct
    {
        EFamily eFamily;
        const char* pCase;
        std::function<int(int)> fnCall;
    } cases[] = {
        {eI2C, "read into null", [&](int h) { return I2CRead(h, 0xA0, nullptr, 4, nullptr); }},
        {eI2C, "read negative", [&](int h) { return I2CRead(h, 0xA0, buf, -1, nullptr); }},
        {eI2C, "read 65536 asked", [&](int h) { return I2CRead(h, 0xA0, buf, 0x10000, nullptr); }},
        {eI2C, "write from null", [&](int h) { return I2CWrite(h, 0xA0, nullptr, 1, nullptr); }},
        {eI2C, "write 65536", [&](int h) { return I2CWrite(h, 0xA0, buf, 0x10000, nullptr); }},
        {eI2C, "sequence null", [&](int h) { return I2CWriteSequence(h, nullptr, 4, buf, 1, nullptr, nullptr); }},
        {eI2C, "sequence read negative", [&](int h) { return I2CWriteSequence(h, buf, 4, buf, -1, nullptr, nullptr); }},
        {eI2C, "steps null", [&](int h) { return I2CWriteSequenceSteps(h, nullptr, 1, nullptr); }},
        {eI2C, "step without buffer", [&](int h) { return I2CWriteSequenceSteps(h, &nullStep, 1, nullptr); }},
        {eI2C, "steps negative", [&](int h) { return I2CWriteSequenceSteps(h, &nullStep, -1, nullptr); }},
        {eI2C, "EEPROM write 65536", [&](int h) { return EEPROMWrite(h, 0, 0, 8, buf, 0x10000); }},
        {eI2C, "EEPROM poll null", [&](int h) { return EEPROMWritePollAck(h, 0, 0, 8, nullptr, 1, 5); }},
        {eI2C, "EEPROM read negative", [&](int h) { return EEPROMRead(h, 0, 0, 8, buf, -5, nullptr); }},
        {eRenesas, "ID null", [&](int h) { return RenesasCheckID(h, nullptr, 7); }},
        {eRenesas, "ID 256", [&](int h) { return RenesasCheckID(h, buf, 256); }},
        {eRenesas, "page read negative", [&](int h) { return RenesasReadPage(h, 0, buf, -1, nullptr); }},
        {eRenesas, "page of 257", [&](int h) { return RenesasWritePage(h, 0, buf, 257); }},
        {eRenesas, "page from null", [&](int h) { return RenesasWritePage(h, 0, nullptr, 1); }},
        {eFirmware, "flash block short", [&](int h) { return FirmwareReadFlash(h, 0, buf, 2047, nullptr); }},
        {eFirmware, "flash block null", [&](int h) { return FirmwareReadFlash(h, 0, nullptr, 2048, nullptr); }},
        {eFirmware, "flash write short", [&](int h) { return FirmwareWriteFlash(h, 0, buf, 2047); }},
        {eFirmware, "flash write long", [&](int h) { return FirmwareWriteFlash(h, 0, buf, 2049); }},
        {eFirmware, "EEPROM read 65536", [&](int h) { return FirmwareReadEEProm(h, 0, buf, 0x10000, nullptr); }},
        {eFirmware, "EEPROM write null", [&](int h) { return FirmwareWriteEEProm(h, 0, nullptr, 16); }},
        {eFirmware, "set info null", [&](int h) { return FirmwareSetInfo(h, nullptr); }},
        {eTSCOM, "name null", [&](int h) { return TSCOMSetConfig(h, nullptr); }},
        {eTSCOM, "name of 256", [&](int h) { return TSCOMSetConfig(h, longName.c_str()); }},
        {eTSCOM, "available null", [&](int h) { return TSCOMIsConfigAvailable(h, nullptr, nullptr, nullptr); }},
        {eTSCOM, "file name of 256", [&](int h) { return TSCOMSendFile(h, longPath.c_str(), 0); }},
        {eTSCOM, "install path null", [&](int h) { return TSCOMInstallConfig(h, "a", nullptr); }},
        {eTSIO, "256 words", [&](int h) { return TSIOSetValue(h, words, 256); }},
        {eTSIO, "words null", [&](int h) { return TSIOGetPower(h, nullptr, 2); }},
        {eTSPWR, "negative count", [&](int h) { return TSPWRGetValue(h, words, -1); }},
        {eTSRelay, "256 words", [&](int h) { return TSRelayGetPower(h, words, 256); }},
        {eAD, "negative capacity", [&](int h) { return ADRead(h, values, -1, nullptr); }},
        {eAD, "values null", [&](int h) { return ADRead(h, nullptr, 4, nullptr); }},
        {eDIO, "analog count 65536", [&](int h) { return DeviceWriteAnalog(h, values, 0x10000); }},
        {eDIO, "analog values null", [&](int h) { return DeviceReadAnalog(h, nullptr, nullptr, 2, nullptr); }},
        {eCAN, "filter of 15", [&](int h) { return CANSetFilter(h, words32, 15); }},
        {eCAN, "filter of 17", [&](int h) { return CANSetFilter(h, words32, 17); }},
        {eCAN, "filter null", [&](int h) { return CANSetFilter(h, nullptr, TARVIK_CAN_FILTER_WORDS); }},
        {eCAN, "filter into 15", [&](int h) { return CANGetFilter(h, words32, 15); }},
        {eCAN, "power capacity negative",
         [&](int h) {
             return CANGetPowerStatus(h, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                      bytes, -1, nullptr, 0);
         }},
        {eCAN, "frame of 256", [&](int h) { return CANWrite(h, 1, buf, 256, 0, nullptr, nullptr); }},
        {eCAN, "frame negative", [&](int h) { return CANWrite(h, 1, buf, -1, 0, nullptr, nullptr); }},
        {eCAN, "frame from null", [&](int h) { return CANWrite(h, 1, nullptr, 1, 0, nullptr, nullptr); }},
        {eCAN, "cyclic of 256", [&](int h) { return CANSetCyclicMessage(h, 1, 1, 10, 1, buf, 256, 0); }},
        {eCAN, "queue too large", [&](int h) { return CANSetMaxSizePerQueue(h, TARVIK_CAN_MAX_QUEUE_SIZE + 1ul); }},
        {eDIO, "analog capacity negative", [&](int h) { return DeviceReadAnalog(h, nullptr, values, -1, &count); }},
        {eCAN, "PDO of 256", [&](int h) { return CANopenSendPDO(h, 1, 2, buf, 256); }},
        {eCAN, "SDO block into negative",
         [&](int h) { return CANopenSendSDOReadBlock(h, 2, 1, 0, 50, bytes, -1, nullptr, nullptr); }},
        {eCAN, "SDO block of 65536",
         [&](int h) { return CANopenSendSDOWriteBlock(h, 2, 1, 0, 50, bytes, 0x10000, nullptr, nullptr); }},
        {eCAN, "SDO block from null",
         [&](int h) { return CANopenSendSDOWriteBlock(h, 2, 1, 0, 50, nullptr, 1, nullptr, nullptr); }},
        {eCAN, "frame into 63",
         [&](int h) { return CANGetMessage(h, nullptr, buf, 63, nullptr, nullptr, nullptr, nullptr); }},
        {eCAN, "frames negative", [&](int h) { return CANGetMessages(h, nullptr, -1, nullptr); }},
        {eCAN, "frames into null", [&](int h) { return CANGetMessages(h, nullptr, 1, nullptr); }},
        {eCAN, "PDO into 7", [&](int h) { return CANopenGetPDO(h, nullptr, nullptr, nullptr, buf, 7); }},
        {eCAN, "EMCY into 4", [&](int h) { return CANopenGetEMCY(h, nullptr, nullptr, nullptr, bytes, 4); }},
        {eCAN, "undefined into 254",
         [&](int h) { return CANopenGetUndefined(h, nullptr, nullptr, nullptr, nullptr, buf, 254, nullptr, nullptr); }},
        {eAWire, "config text null", [&](int h) { return AWireSetConfig(h, 1, 2, 256, 4, nullptr); }},
        {eAWire, "read into null", [&](int h) { return AWireRead(h, 0, nullptr, 4, nullptr); }},
        {eAWire, "read 65536", [&](int h) { return AWireRead(h, 0, buf, 0x10000, nullptr); }},
        {eAWire, "verify negative", [&](int h) { return AWireVerify(h, 0, buf, -1); }},
        {eAWire, "block of 65536", [&](int h) { return AWireWriteBlock(h, 0, buf, 0x10000, nullptr); }},
        {eAWire, "user page from null", [&](int h) { return AWireWriteUserPage(h, 0, nullptr, 1, nullptr); }},
        {eAWire, "file name null", [&](int h) { return AWireWriteFile(h, nullptr); }},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, c.fnCall(Handle(c.eFamily))) << c.pCase;
    EXPECT_EQ(42, count);
    // The same calls with good arguments do reach the (unconnected) client; the largest
    // queue size is taken.
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, I2CRead(Handle(eI2C), 0xA0, buf, 4, nullptr));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, TSIOSetValue(Handle(eTSIO), words, 255));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, ADRead(Handle(eAD), nullptr, 0, nullptr));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, DeviceReadAnalog(Handle(eDIO), nullptr, values, 0, nullptr));
    EXPECT_EQ(0, CANSetMaxSizePerQueue(Handle(eCAN), TARVIK_CAN_MAX_QUEUE_SIZE));

    // Every telegram is still there; each buffer of exactly the size named receives the
    // most the client writes and nothing past it.
    std::string frame(TARVIK_CAN_FRAME_DATA + 1, '\xEE');
    unsigned char len = 0;
    EXPECT_EQ(0,
              CANGetMessage(Handle(eCAN), nullptr, &frame[0], TARVIK_CAN_FRAME_DATA, &len, nullptr, nullptr, nullptr));
    EXPECT_EQ(TARVIK_CAN_FRAME_DATA, len);
    EXPECT_EQ(std::string(TARVIK_CAN_FRAME_DATA, 'F') + "\xEE", frame);
    std::string pdo(TARVIK_CANOPEN_PDO_DATA + 1, '\xEE');
    EXPECT_EQ(0, CANopenGetPDO(Handle(eCAN), nullptr, nullptr, &len, &pdo[0], TARVIK_CANOPEN_PDO_DATA));
    EXPECT_EQ(std::string(8, 'P') + "\xEE", pdo);
    unsigned char emcy[TARVIK_CANOPEN_EMCY_DATA + 1];
    std::memset(emcy, kSentinel, sizeof(emcy));
    unsigned short code = 0;
    EXPECT_EQ(0, CANopenGetEMCY(Handle(eCAN), nullptr, &code, nullptr, emcy, TARVIK_CANOPEN_EMCY_DATA));
    EXPECT_EQ(0x1081, code);
    EXPECT_EQ("45 45 45 45 45 EE", ToHex(std::string(reinterpret_cast<char*>(emcy), sizeof(emcy))));
    std::string undefined(TARVIK_CANOPEN_UNDEFINED_DATA + 1, '\xEE');
    int id = 0;
    EXPECT_EQ(0, CANopenGetUndefined(Handle(eCAN), &id, nullptr, nullptr, &len, &undefined[0],
                                     TARVIK_CANOPEN_UNDEFINED_DATA, nullptr, nullptr));
    EXPECT_EQ(0x2AB, id);
    EXPECT_EQ(TARVIK_CANOPEN_PDO_DATA, len);
    EXPECT_EQ(std::string(250, 'U') + std::string(6, '\xEE'), undefined);
}

TEST_F(CDllFamiliesTest, NullOutputsAreSkippedAndStillTakeTheTelegram)
{
    FillQueues();
    Indicate(*m_pCAN, 0x0203, CanFrame(0x124, 0x81, "\x01"));
    // A null buffer needs no length.
    EXPECT_EQ(1, CANGetMessage(Handle(eCAN), nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr));
    int flags = 0;
    EXPECT_EQ(0, CANGetMessage(Handle(eCAN), nullptr, nullptr, -5, nullptr, &flags, nullptr, nullptr));
    EXPECT_EQ(-127, flags);
    EXPECT_EQ(0, CANopenGetPDO(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0, CANopenGetEMCY(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0, CANopenGetUndefined(Handle(eCAN), nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(0, CANopenGetSYNC(Handle(eCAN), nullptr));
    EXPECT_EQ(0, CANopenGetGUARD(Handle(eCAN), nullptr, nullptr));
    for (auto get : {+[](int h) { return CANGetMessage(h, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr); },
                     +[](int h) { return CANopenGetSYNC(h, nullptr); }})
        EXPECT_EQ(kNothingFetched, get(Handle(eCAN)));
    // Size 0 empties the queues.
    FillQueues();
    EXPECT_EQ(0, CANSetMaxSizePerQueue(Handle(eCAN), 0));
    EXPECT_EQ(kNothingFetched, CANopenGetGUARD(Handle(eCAN), nullptr, nullptr));
}

TEST(TarvikDllFamilies, OpenFunctionsCheckThePortIndexAndReportAFailedConnect)
{
    const std::pair<const char*, std::function<int(int*, const char*, int)>> opens[] = {
        {"I2C", [](int* h, const char* a, int i) { return I2COpenDevice(h, a, kTimeoutMs, i); }},
        {"Renesas", [](int* h, const char* a, int i) { return RenesasOpenDevice(h, a, kTimeoutMs, i); }},
        {"Firmware", [](int* h, const char* a, int i) { return FirmwareOpenDevice(h, a, kTimeoutMs, i); }},
        {"TSCOM", [](int* h, const char* a, int i) { return TSCOMOpenDevice(h, a, kTimeoutMs, i); }},
        {"TSIO", [](int* h, const char* a, int i) { return TSIOOpenDevice(h, a, kTimeoutMs, i); }},
        {"TSPWR", [](int* h, const char* a, int i) { return TSPWROpenDevice(h, a, kTimeoutMs, i); }},
        {"TSRelay", [](int* h, const char* a, int i) { return TSRelayOpenDevice(h, a, kTimeoutMs, i); }},
        {"DIO", [](int* h, const char* a, int i) { return DIOOpenDevice(h, a, kTimeoutMs, i); }},
        {"AD", [](int* h, const char* a, int i) { return ADOpenDevice(h, a, kTimeoutMs, i); }},
        {"CAN", [](int* h, const char* a, int i) { return CANDeviceOpen(h, a, kTimeoutMs, i, 0, 0); }},
        {"CANOpenDevice", [](int* h, const char* a, int i) { return CANOpenDevice(h, a, kTimeoutMs, i, 0, 0); }},
        {"AWire", [](int* h, const char* a, int i) { return AWireOpenDevice(h, a, kTimeoutMs, i); }},
    };
    for (const auto& open : opens)
    {
        for (int portIndex : {-1, 100, 256})
        {
            int handle = 42;
            EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open.second(&handle, "127.0.0.1", portIndex))
                << open.first << " " << portIndex;
            EXPECT_EQ(42, handle) << open.first;
        }
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open.second(nullptr, "127.0.0.1", 0)) << open.first;
        // Nothing listens on this address: the connect is refused and no handle stays.
        int handle = 42;
        EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, open.second(&handle, "127.0.47.254", 99)) << open.first;
        EXPECT_EQ(-1, handle) << open.first;
    }
    // The registry's table keeps answering the types without a row as unknown.
    for (unsigned char type : {eTarvikFirmware, eTarvikDIO, eTarvikAD})
    {
        int handle = 0;
        EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE,
                  CDeviceManager::OpenDevice(&handle, "127.0.0.1", kTimeoutMs, type, 0, 1, true));
        EXPECT_EQ(nullptr, CDeviceManager::GetDevice(handle));
    }
}

// The yes/no outputs reach the caller's int only when their truth changed: a caller's
// 5 stays 5 for a yes, and a no the device did not send leaves the int alone.
TEST(TarvikDllFamilies, YesNoOutputsAreRewrittenOnlyWhenTheTruthChanged)
{
    CFakeGateway gateway;
    ASSERT_TRUE(gateway.Start("127.0.0.1"));
    auto* can = new CTarvikClientCANDll(0, kTimeoutMs);
    std::unique_ptr<CTarvikClient> owner(can);
    ASSERT_EQ(0, can->Connect("127.0.0.1", gateway.GetPort()));
    const int handle = Register(can);
    const struct
    {
        const char* m_pAnswer;
        int m_nConfirm, m_nFlag2;
        const char* m_pAfter;
    } cases[] = {
        {"00 01 00", 5, 5, "5 0"},
        {"00 01 01", 0, -3, "1 -3"},
        {"00 00 00", 0, 0, "0 0"},
        {"00 01", 0, 7, "0 7"}, // the answer carries no flags: both left alone
    };
    for (const auto& c : cases)
    {
        const std::string answer = Hex(c.m_pAnswer);
        gateway.SetHandler([answer](const std::string& f) { return Cnf(FrameCmd(f), FrameId(f), answer); });
        int confirm = c.m_nConfirm, flag2 = c.m_nFlag2;
        EXPECT_EQ(0, CANGetConfig(handle, &confirm, &flag2)) << c.m_pAnswer;
        EXPECT_EQ(c.m_pAfter, std::to_string(confirm) + " " + std::to_string(flag2)) << c.m_pAnswer;
    }
    CDeviceManager::CloseDevice(handle);
}

namespace
{
// Port indices of the simulated gateways: every open dials 4999 + type + 300 (+ 1 for B).
constexpr int kPortIndex = 3;
constexpr int kPortIndexB = 4;

std::atomic<int> g_nCallbackHandle{0};
std::atomic<int> g_nCallbackId{0};

void OnFrameSeen(unsigned int id, const char*, int, int, int handle, int, int)
{
    g_nCallbackHandle = handle;
    g_nCallbackId = static_cast<int>(id);
}

// The simulator with one device of every family, a second CAN gateway on the same bus,
// at the standard ports of port indices 3 and 4 (SPI: 5002) on this program's first free
// address 127.0.47.1..40. The C layer passes results through: one round trip per family
// shows that its open function reaches the right device and its calls the right client.
class CDllSimTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::pair<ETarvikDevice, int> devices[] = {{eTarvikI2C, kPortIndex},
                                                         {eTarvikRenesas, kPortIndex},
                                                         {eTarvikFirmware, kPortIndex},
                                                         {eTarvikTestSystemCOM, kPortIndex},
                                                         {eTarvikTestSystemIO, kPortIndex},
                                                         {eTarvikTestSystemPWR, kPortIndex},
                                                         {eTarvikTestSystemRelay, kPortIndex},
                                                         {eTarvikDIO, kPortIndex},
                                                         {eTarvikAD, kPortIndex},
                                                         {eTarvikCAN, kPortIndex},
                                                         {eTarvikCAN, kPortIndexB},
                                                         {eTarvikAWire, kPortIndex},
                                                         {eTarvikSPI, 0}};
        for (int last = 1; last <= 40 && !m_pServer; ++last)
        {
            auto server = std::make_unique<CTarvikSimServer>();
            std::string host = "127.0.47." + std::to_string(last);
            int rc = 0;
            for (const auto& device : devices)
                if (rc == 0)
                    rc = server->AddDevice(device.first, host,
                                           CTarvikSimServer::GetStandardPort(device.first, device.second),
                                           device.second);
            ASSERT_TRUE(rc == 0 || rc == EADDRINUSE) << server->GetLastError();
            if (rc == 0)
            {
                m_sHost = host;
                m_pServer = std::move(server);
            }
        }
        ASSERT_TRUE(m_pServer != nullptr);
        ASSERT_TRUE(m_pServer->Start()) << m_pServer->GetLastError();
    }
    template <typename TDevice> TDevice* Device(ETarvikDevice type)
    {
        return dynamic_cast<TDevice*>(m_pServer->GetDevice(type));
    }
    const char* Host() const { return m_sHost.c_str(); }

    std::unique_ptr<CTarvikSimServer> m_pServer;
    std::string m_sHost;
};

// Opens a handle with open(&handle), runs body on it and closes it; a second close is refused.
template <class FOpen, class FBody, class FClose> void WithHandle(FOpen open, FBody body, FClose close)
{
    int h = -1;
    ASSERT_EQ(0, open(&h));
    body(h);
    EXPECT_EQ(0, close(h));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, close(h));
}
} // namespace

TEST_F(CDllSimTest, EveryFamilyRoundTripsThroughItsOpenFunction)
{
    const char* host = Host();
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"I2C",
         [&] {
             WithHandle([&](int* h) { return I2COpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            const unsigned short type24C04 = TARVIK_EEPROM_TYPE(8, 1, 0);
                            EXPECT_EQ(0, EEPROMWritePollAck(h, 1, 0x1F0, type24C04, "\xCA\xFE\x12\x34", 4, 50));
                            EXPECT_EQ("CA FE 12 34",
                                      ToHex(Device<CTarvikSimDeviceI2C>(eTarvikI2C)
                                                ->PeekEeprom(CTarvikSimDeviceI2C::eChip24C04, 0x1F0, 4)));
                            std::string back(6, '\xEE');
                            unsigned short received = 0;
                            EXPECT_EQ(0, EEPROMRead(h, 1, 0x1F0, type24C04, &back[0], 4, &received));
                            EXPECT_EQ(4, received);
                            EXPECT_EQ("CA FE 12 34 EE EE", ToHex(back));
                            // Steps: set the 24C04's address pointer, then read two bytes.
                            char pointer = static_cast<char>(0xF0), two[2] = {};
                            STarvikI2CStep steps[] = {{0xA6, 1, &pointer}, {0xA7, 2, two}};
                            unsigned short errorPos = 0xEEEE;
                            EXPECT_EQ(0, I2CWriteSequenceSteps(h, steps, 2, &errorPos));
                            EXPECT_EQ("CA FE", ToHex(std::string(two, 2)));
                        },
                        I2CCloseDevice);
         }},
        {"Renesas",
         [&] {
             WithHandle([&](int* h) { return RenesasOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            EXPECT_EQ(0, RenesasInit(h));
                            EXPECT_EQ(0, RenesasCheckID(h, "RENESAS", 7));
                            EXPECT_EQ(0, RenesasBlockErase(h, 0));
                            EXPECT_EQ(0, RenesasWritePage(h, 2, "\x01\x02\x03", 3));
                            std::string page(TARVIK_RENESAS_PAGE_SIZE + 1, '\xEE');
                            unsigned short received = 0;
                            EXPECT_EQ(0, RenesasReadPage(h, 2, &page[0], static_cast<int>(page.size()), &received));
                            EXPECT_EQ(TARVIK_RENESAS_PAGE_SIZE, received);
                            EXPECT_EQ("01 02 03 00", ToHex(page.substr(0, 4)));
                            EXPECT_EQ('\xEE', page.back());
                        },
                        RenesasCloseDevice);
         }},
        {"Firmware",
         [&] {
             WithHandle([&](int* h) { return FirmwareOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            // The service device is registered as an owning entry at 5099 + 300.
                            CDevice* device = CDeviceManager::GetDevice(h);
                            ASSERT_NE(nullptr, device);
                            EXPECT_EQ(5399, device->m_nPort);
                            EXPECT_TRUE(device->m_bOwnsClient);
                            STarvikFirmwareInfo info;
                            std::memset(&info, kSentinel, sizeof(info));
                            ASSERT_EQ(0, FirmwareGetInfo(h, &info));
                            EXPECT_EQ(0x00010203u, info.nSWVersion);
                            std::string block(TARVIK_FIRMWARE_BLOCK_SIZE, 'b'), read(block.size(), '\0');
                            int received = 0;
                            EXPECT_EQ(0, FirmwareWriteFlash(h, 5, block.data(), TARVIK_FIRMWARE_BLOCK_SIZE));
                            EXPECT_EQ(0, FirmwareReadFlash(h, 5, &read[0], TARVIK_FIRMWARE_BLOCK_SIZE, &received));
                            EXPECT_TRUE(read == block);
                        },
                        FirmwareCloseDevice);
         }},
        {"test system IO and PWR",
         [&] {
             unsigned short words[3] = {0x1234, 0x0001, 0xBEEF}, back[3] = {};
             WithHandle([&](int* h) { return TSPWROpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) { EXPECT_EQ(0, TSPWRSetValue(h, words, 2)); }, TSPWRCloseDevice);
             WithHandle(
                 [&](int* h) { return TSIOOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                 [&](int h) {
                     EXPECT_EQ(0, TSIOSetValue(h, words, 3));
                     EXPECT_EQ(0, TSIOGetValue(h, back, 3));
                     EXPECT_EQ(HexNumbers({0x1234, 0x0001, 0xBEEF}, 0), HexNumbers({back[0], back[1], back[2]}, 0));
                 },
                 TSIOCloseDevice);
         }},
        {"test system relay and COM",
         [&] {
             WithHandle([&](int* h) { return TSRelayOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            EXPECT_EQ(0, TSRelaySetRelay(h, 5, 2));
                            EXPECT_TRUE(Device<CTarvikSimDeviceTestUnit>(eTarvikTestSystemRelay)->IsRelayOn(5));
                        },
                        TSRelayCloseDevice);
             WithHandle([&](int* h) { return TSCOMOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            hexfile_test::CTempDir dir;
                            hexfile_test::WriteFile(dir.Path("station4.cfg"), "station 4: flash, test, label\n");
                            EXPECT_EQ(0, TSCOMInstallConfig(h, "station4", dir.Path("station4.cfg").c_str()));
                            char name[32];
                            std::memset(name, kSentinel, sizeof(name));
                            EXPECT_EQ(0, TSCOMGetConfig(h, name, sizeof(name)));
                            EXPECT_STREQ("station4", name);
                        },
                        TSCOMCloseDevice);
         }},
        {"DIO and AD",
         [&] {
             m_pServer->GetDevice(eTarvikDIO)->SetDigitalInputs(0x00ABCDEF);
             m_pServer->GetDevice(eTarvikAD)->SetDigitalInputs(0x00123456);
             WithHandle([&](int* h) { return DIOOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            EXPECT_EQ(0, DIOWrite(h, 0x80000001));
                            unsigned int inputs = 0, outputs = 0;
                            EXPECT_EQ(0, DIORead(h, &inputs, &outputs));
                            EXPECT_EQ(HexNumbers({0xABCDEF, 0x80000001}, 0), HexNumbers({inputs, outputs}, 0));
                        },
                        DIOCloseDevice);
             WithHandle([&](int* h) { return ADOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            unsigned int in[3] = {};
                            EXPECT_EQ(0, ADReadDigitalInput(h, &in[0], &in[1], &in[2]));
                            EXPECT_EQ(HexNumbers({0x56, 0x34, 0x12}, 0), HexNumbers({in[0], in[1], in[2]}, 0));
                            // Eight channels sent, three stored.
                            unsigned int values[4] = {0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE};
                            int count = 0;
                            EXPECT_EQ(0, ADRead(h, values, 3, &count));
                            EXPECT_EQ(8, count);
                            EXPECT_LT(values[2], 4096u);
                            EXPECT_EQ(0xEEEEEEEEu, values[3]);
                        },
                        ADCloseDevice);
         }},
        {"CAN",
         [&] {
             int a = -1;
             ASSERT_EQ(0, CANDeviceOpen(&a, host, kTimeoutMs, kPortIndex, 1, 0));
             WithHandle([&](int* h) { return CANDeviceOpen(h, host, kTimeoutMs, kPortIndexB, 0, 0); },
                        [&](int b) {
                            ASSERT_EQ(0, CANSetMaxSizePerQueue(b, 10));
                            ASSERT_EQ(0, CANWrite(a, 0x1ABCDEF0, "\xDE\xAD\xBE\xEF", 4, 0x01, nullptr, nullptr));
                            int id = 0, flags = -1;
                            unsigned char len = 0;
                            std::string data(TARVIK_CAN_FRAME_DATA, '\xEE');
                            ASSERT_TRUE(Eventually([&] {
                                return CANGetMessage(b, &id, &data[0], TARVIK_CAN_FRAME_DATA, &len, &flags, nullptr,
                                                     nullptr) == 0;
                            }));
                            EXPECT_EQ(0x1ABCDEF0, id);
                            EXPECT_EQ(1, flags);
                            EXPECT_EQ("DE AD BE EF EE", ToHex(data.substr(0, len + 1)));
                            // The callback receives the handle that CANDeviceOpen gave.
                            ASSERT_EQ(0, CANSetCallbackEx(b, OnFrameSeen));
                            ASSERT_EQ(0, CANWrite(a, 0x321, nullptr, 0, 0, nullptr, nullptr));
                            ASSERT_TRUE(Eventually([] { return g_nCallbackId.load() == 0x321; }));
                            EXPECT_EQ(b, g_nCallbackHandle.load());
                        },
                        CANDeviceClose);
             // CANopen: the master reads the vendor ID of node 2.
             unsigned char status = 0xEE;
             unsigned int value = 0;
             ASSERT_EQ(0, CANopenSetConfig(a, 1));
             ASSERT_EQ(0, CANopenSendSDORead(a, 2, 0x1018, 1, 500, &status, &value));
             EXPECT_EQ(0, status);
             EXPECT_EQ(0x54Au, value);
             EXPECT_EQ(0, CANDeviceClose(a));
         }},
        {"AWire",
         [&] {
             hexfile_test::CTempDir dir;
             const std::string bytes = "\x12\x34\x56\x78\x9A\xBC\xDE\xF0 tarvik";
             const std::string path = dir.Image({{0x100, bytes}});
             WithHandle([&](int* h) { return AWireOpenDevice(h, host, kTimeoutMs, kPortIndex); },
                        [&](int h) {
                            ASSERT_EQ(0, AWireErase(h, 0));
                            ASSERT_EQ(0, AWireWriteFile(h, path.c_str()));
                            int step = TARVIK_AWIRE_STEP_NOT_STARTED;
                            unsigned char percent = 0;
                            ASSERT_TRUE(Eventually([&] {
                                return AWireGetWriteFileStatus(h, &step, &percent) != 0 ||
                                       step == TARVIK_AWIRE_STEP_DONE || step == TARVIK_AWIRE_STEP_FAILED;
                            }));
                            EXPECT_EQ(TARVIK_AWIRE_STEP_DONE, step);
                            std::string back(bytes.size() + 1, '\xEE');
                            unsigned short count = 0;
                            ASSERT_EQ(0, AWireRead(h, 0x100, &back[0], static_cast<int>(bytes.size()), &count));
                            EXPECT_EQ(bytes + "\xEE", back);
                        },
                        AWireCloseDevice);
         }},
        {"SPI",
         [&] {
             // SPIOpenDevice dials port 5002 whatever the index.
             WithHandle([&](int* h) { return SPIOpenDevice(h, host, kTimeoutMs); },
                        [&](int h) {
                            const char script[] = {0x01, 0x09, 0x02};
                            short id = -1;
                            ASSERT_EQ(0, SPISequenceReq(h, script, sizeof(script), &id));
                            char out[4] = {};
                            int rc = SPISequenceGetCnf(h, id, out, sizeof(out));
                            EXPECT_EQ(0x0330, rc);
                            char text[64] = {};
                            SPIErrorMessage(rc, text, sizeof(text));
                            EXPECT_STREQ("SPI sequence unknown command op code", text);
                        },
                        SPICloseDevice);
         }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.first);
        row.second();
    }
}
