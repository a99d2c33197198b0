// The C functions of the I2C/EEPROM, Renesas, firmware, test-system, DIO and AD
// families: each refuses unknown handles, handles of another family and bad arguments
// without touching a client or an output, and each family works end to end against the
// simulator through its open function.
#include "support/FakeGateway.h"

#include "sim/TarvikSimDeviceFirmware.h"
#include "sim/TarvikSimDeviceI2C.h"
#include "sim/TarvikSimDeviceRenesas.h"
#include "sim/TarvikSimDeviceTestSystemCOM.h"
#include "sim/TarvikSimDeviceTestUnit.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/Tarvik.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

using namespace tarvik_test;

namespace
{
constexpr int kUnknownHandle = 999999;
constexpr int kTimeoutMs = 3000;
constexpr unsigned char kSentinel = 0xEE;

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
    eFamilyCount
};

// Every output a call may write, filled with sentinel bytes so that a write shows.
struct SOutputs
{
    SOutputs() { std::memset(this, kSentinel, sizeof(*this)); }
    char buf[TARVIK_FIRMWARE_BLOCK_SIZE + 1];
    unsigned short u16;
    unsigned int u32[3];
    unsigned char u8;
    int n;
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

// One row per function that takes a handle, with outputs and valid arguments.
std::vector<SCall> AllCalls()
{
    static STarvikI2CStep step = {0xA1, 1, nullptr};
    return {
        {eI2C, "I2CSetBaudrate", [](int h, SOutputs&) { return I2CSetBaudrate(h, 400); }},
        {eI2C, "I2CGetBaudrate", [](int h, SOutputs& o) { return I2CGetBaudrate(h, &o.u32[0]); }},
        {eI2C, "I2CReset", [](int h, SOutputs&) { return I2CReset(h); }},
        {eI2C, "I2CReadDigital", [](int h, SOutputs& o) { return I2CReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eI2C, "I2CWriteDigital", [](int h, SOutputs&) { return I2CWriteDigital(h, 1); }},
        {eI2C, "I2CRead", [](int h, SOutputs& o) { return I2CRead(h, 0xA0, o.buf, 4, &o.u16); }},
        {eI2C, "I2CWrite", [](int h, SOutputs& o) { return I2CWrite(h, 0xA0, "\x01", 1, &o.u16); }},
        {eI2C, "I2CRAWStart", [](int h, SOutputs&) { return I2CRAWStart(h); }},
        {eI2C, "I2CRAWSend", [](int h, SOutputs&) { return I2CRAWSend(h, 0xA0, 0); }},
        {eI2C, "I2CRAWGet", [](int h, SOutputs& o) { return I2CRAWGet(h, 1, &o.u8); }},
        {eI2C, "I2CRAWStop", [](int h, SOutputs&) { return I2CRAWStop(h); }},
        {eI2C, "I2CWriteSequence",
         [](int h, SOutputs& o) { return I2CWriteSequence(h, "\xA1\x00\x01\x00", 4, o.buf, 1, &o.u16, &o.u16); }},
        {eI2C, "I2CWriteSequenceSteps",
         [](int h, SOutputs& o) {
             step.pBuffer = o.buf;
             return I2CWriteSequenceSteps(h, &step, 1, &o.u16);
         }},
        {eI2C, "EEPROMWrite", [](int h, SOutputs&) { return EEPROMWrite(h, 4, 0, 0x0008, "\x01", 1); }},
        {eI2C, "EEPROMWritePollAck",
         [](int h, SOutputs&) { return EEPROMWritePollAck(h, 4, 0, 0x0008, "\x01", 1, 10); }},
        {eI2C, "EEPROMRead", [](int h, SOutputs& o) { return EEPROMRead(h, 4, 0, 0x0008, o.buf, 4, &o.u16); }},
        {eI2C, "I2CCloseDevice", [](int h, SOutputs&) { return I2CCloseDevice(h); }},
        {eRenesas, "RenesasInit", [](int h, SOutputs&) { return RenesasInit(h); }},
        {eRenesas, "RenesasCheckID", [](int h, SOutputs&) { return RenesasCheckID(h, "RENESAS", 7); }},
        {eRenesas, "RenesasSetBaudrate", [](int h, SOutputs&) { return RenesasSetBaudrate(h, 1); }},
        {eRenesas, "RenesasReadPage", [](int h, SOutputs& o) { return RenesasReadPage(h, 0, o.buf, 256, &o.u16); }},
        {eRenesas, "RenesasEraseAll", [](int h, SOutputs&) { return RenesasEraseAll(h); }},
        {eRenesas, "RenesasBlockErase", [](int h, SOutputs&) { return RenesasBlockErase(h, 0); }},
        {eRenesas, "RenesasWritePage", [](int h, SOutputs&) { return RenesasWritePage(h, 0, "\x01", 1); }},
        {eRenesas, "RenesasGetVersion", [](int h, SOutputs& o) { return RenesasGetVersion(h, o.buf, 64); }},
        {eRenesas, "RenesasComplete", [](int h, SOutputs&) { return RenesasComplete(h); }},
        {eRenesas, "RenesasVerifyCheck", [](int h, SOutputs& o) { return RenesasVerifyCheck(h, 0, 1, &o.u16); }},
        {eRenesas, "RenesasReadDigital",
         [](int h, SOutputs& o) { return RenesasReadDigital(h, &o.u32[0], &o.u32[1]); }},
        {eRenesas, "RenesasWriteDigital", [](int h, SOutputs&) { return RenesasWriteDigital(h, 1); }},
        {eRenesas, "RenesasCloseDevice", [](int h, SOutputs&) { return RenesasCloseDevice(h); }},
        {eFirmware, "FirmwareRestart", [](int h, SOutputs&) { return FirmwareRestart(h); }},
        {eFirmware, "FirmwareClearFlash", [](int h, SOutputs&) { return FirmwareClearFlash(h); }},
        {eFirmware, "FirmwareReadFlash",
         [](int h, SOutputs& o) { return FirmwareReadFlash(h, 0, o.buf, TARVIK_FIRMWARE_BLOCK_SIZE, &o.n); }},
        {eFirmware, "FirmwareWriteFlash",
         [](int h, SOutputs&) {
             std::string block(TARVIK_FIRMWARE_BLOCK_SIZE, '\0');
             return FirmwareWriteFlash(h, 0, block.data(), TARVIK_FIRMWARE_BLOCK_SIZE);
         }},
        {eFirmware, "FirmwareGetEEPromInfo", [](int h, SOutputs& o) { return FirmwareGetEEPromInfo(h, &o.n); }},
        {eFirmware, "FirmwareReadEEProm",
         [](int h, SOutputs& o) { return FirmwareReadEEProm(h, 0, o.buf, 16, &o.u16); }},
        {eFirmware, "FirmwareWriteEEProm", [](int h, SOutputs&) { return FirmwareWriteEEProm(h, 0, "\x01", 1); }},
        {eFirmware, "FirmwareGetInfo", [](int h, SOutputs& o) { return FirmwareGetInfo(h, &o.info); }},
        {eFirmware, "FirmwareSetInfo", [](int h, SOutputs& o) { return FirmwareSetInfo(h, &o.info); }},
        {eFirmware, "FirmwareCloseDevice", [](int h, SOutputs&) { return FirmwareCloseDevice(h); }},
        {eTSCOM, "TSCOMSetConfig", [](int h, SOutputs&) { return TSCOMSetConfig(h, "station"); }},
        {eTSCOM, "TSCOMGetConfig", [](int h, SOutputs& o) { return TSCOMGetConfig(h, o.buf, 64); }},
        {eTSCOM, "TSCOMIsConfigAvailable",
         [](int h, SOutputs& o) { return TSCOMIsConfigAvailable(h, "station", &o.n, &o.u32[0]); }},
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
        {eTSRelay, "TSRelayGetButton", [](int h, SOutputs& o) { return TSRelayGetButton(h, 0, &o.n); }},
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
        {eAD, "ADRead", [](int h, SOutputs& o) { return ADRead(h, o.u32, 3, &o.n); }},
        {eAD, "ADCloseDevice", [](int h, SOutputs&) { return ADCloseDevice(h); }},
    };
}

// One client of each family, registered but never connected: a call that reaches its
// client is answered 0x030000, so a refusal before it is told apart.
class CFamiliesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_apClients.emplace_back(new CTarvikClientI2C(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientRenesas(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientFirmware(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientTestSystemCOM(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientTestSystemIO(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientTestSystemPWR(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientTestSystemRelay(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientDIO(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientAD(kTimeoutMs));
        m_apClients.emplace_back(new CTarvikClientSPI(kTimeoutMs));
        for (auto& client : m_apClients)
            m_anHandles.push_back(Register(client.get()));
    }
    void TearDown() override
    {
        for (int handle : m_anHandles)
            CDeviceManager::CloseDevice(handle);
    }

    static int Register(CTarvikClient* client)
    {
        CDevice* device = new CDevice();
        device->m_pClient = client;
        device->m_nDeviceType = static_cast<unsigned char>(client->GetDeviceType());
        int handle = -1;
        CDeviceManager::SetDevice(&handle, device);
        return handle;
    }

    std::vector<std::unique_ptr<CTarvikClient>> m_apClients;
    std::vector<int> m_anHandles;
};
} // namespace

TEST_F(CFamiliesTest, EveryFunctionRefusesUnknownHandlesAndOtherFamiliesWithoutWriting)
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
            EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, call.fnCall(m_anHandles[family], out))
                << call.pName << " on a handle of family " << family;
            // A close on another family's handle leaves that handle open.
            EXPECT_NE(nullptr, CDeviceManager::GetDevice(m_anHandles[family])) << call.pName;
        }
        EXPECT_TRUE(out == untouched) << call.pName << " wrote an output";
    }
}

TEST_F(CFamiliesTest, BadArgumentsAreRefusedBeforeTheClientIsAsked)
{
    char buf[TARVIK_FIRMWARE_BLOCK_SIZE + 1] = {};
    unsigned short words[256] = {};
    unsigned int values[4] = {};
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
        {eI2C, "sequence read negative",
         [&](int h) { return I2CWriteSequence(h, buf, 4, buf, -1, nullptr, nullptr); }},
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
    };
    for (const auto& c : cases)
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, c.fnCall(m_anHandles[c.eFamily])) << c.pCase;
    // The same calls with good arguments do reach the (unconnected) client.
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, I2CRead(m_anHandles[eI2C], 0xA0, buf, 4, nullptr));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, TSIOSetValue(m_anHandles[eTSIO], words, 255));
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, ADRead(m_anHandles[eAD], nullptr, 0, nullptr));
}

TEST(TarvikDllFamilies, OpenFunctionsCheckThePortIndexAndReportAFailedConnect)
{
    typedef int (*POpen)(int*, const char*, int, int);
    const std::pair<const char*, POpen> opens[] = {
        {"I2C", I2COpenDevice},     {"Renesas", RenesasOpenDevice}, {"Firmware", FirmwareOpenDevice},
        {"TSCOM", TSCOMOpenDevice}, {"TSIO", TSIOOpenDevice},       {"TSPWR", TSPWROpenDevice},
        {"TSRelay", TSRelayOpenDevice}, {"DIO", DIOOpenDevice},     {"AD", ADOpenDevice},
    };
    for (const auto& open : opens)
    {
        for (int portIndex : {-1, 100, 256})
        {
            int handle = 42;
            EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open.second(&handle, "127.0.0.1", kTimeoutMs, portIndex))
                << open.first << " " << portIndex;
            EXPECT_EQ(42, handle) << open.first;
        }
        EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, open.second(nullptr, "127.0.0.1", kTimeoutMs, 0)) << open.first;
        // Nothing listens on this address: the connect is refused and no handle stays.
        int handle = 42;
        EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, open.second(&handle, "127.0.47.254", kTimeoutMs, 99)) << open.first;
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

namespace
{
// Port index of the simulated gateways: every open dials 4999 + type + 300.
constexpr int kPortIndex = 3;

// The simulator with one device of every family but SPI and CAN, at the standard ports
// of port index 3 on this program's first free address 127.0.47.1..40.
class CFamiliesSimTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const ETarvikDevice types[] = {eTarvikI2C,          eTarvikRenesas,      eTarvikFirmware,
                                       eTarvikTestSystemCOM, eTarvikTestSystemIO, eTarvikTestSystemPWR,
                                       eTarvikTestSystemRelay, eTarvikDIO,        eTarvikAD};
        for (int last = 1; last <= 40 && !m_pServer; ++last)
        {
            auto server = std::make_unique<CTarvikSimServer>();
            std::string host = "127.0.47." + std::to_string(last);
            int rc = 0;
            for (ETarvikDevice type : types)
                if (rc == 0)
                    rc = server->AddDevice(type, host, CTarvikSimServer::GetStandardPort(type, kPortIndex),
                                           kPortIndex);
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
} // namespace

TEST_F(CFamiliesSimTest, I2CAndEepromRoundTrip)
{
    int handle = -1;
    ASSERT_EQ(0, I2COpenDevice(&handle, Host(), kTimeoutMs, kPortIndex));
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, RenesasInit(handle));
    EXPECT_EQ(0, I2CSetBaudrate(handle, 400));
    unsigned int rate = 0;
    EXPECT_EQ(0, I2CGetBaudrate(handle, &rate));
    EXPECT_EQ(400000u, rate);
    // The 24C04 at select 1 keeps memory bit 8 in the slave address.
    const unsigned short type24C04 = TARVIK_EEPROM_TYPE(8, 1, 0);
    EXPECT_EQ(0, EEPROMWritePollAck(handle, 1, 0x1F0, type24C04, "\xCA\xFE\x12\x34", 4, 50));
    auto* sim = Device<CTarvikSimDeviceI2C>(eTarvikI2C);
    EXPECT_EQ("CA FE 12 34", ToHex(sim->PeekEeprom(CTarvikSimDeviceI2C::eChip24C04, 0x1F0, 4)));
    std::string back(6, '\xEE');
    unsigned short received = 0;
    EXPECT_EQ(0, EEPROMRead(handle, 1, 0x1F0, type24C04, &back[0], 4, &received));
    EXPECT_EQ(4, received);
    EXPECT_EQ("CA FE 12 34 EE EE", ToHex(back));
    // Null outputs are skipped; an unacknowledged address answers the NACK code.
    EXPECT_EQ(0, EEPROMRead(handle, 1, 0x1F0, type24C04, &back[0], 2, nullptr));
    EXPECT_EQ(0x0120, I2CRead(handle, 0xB0, &back[0], 2, nullptr));
    EXPECT_EQ(0xA6u, EEPROMGetSlaveAddress(1, 0x1F0, type24C04));
    // A sequence of steps: set the 24C02's address pointer, then read two bytes.
    sim->PokeEeprom(CTarvikSimDeviceI2C::eChip24C02, 0x20, "\x5A\xA5");
    char pointer = 0x20;
    char two[2] = {};
    STarvikI2CStep steps[] = {{0xA8, 1, &pointer}, {0xA9, 2, two}};
    unsigned short errorPos = 0xEEEE;
    EXPECT_EQ(0, I2CWriteSequenceSteps(handle, steps, 2, &errorPos));
    EXPECT_EQ("5A A5", ToHex(std::string(two, 2)));
    EXPECT_EQ(0, I2CCloseDevice(handle));
    EXPECT_EQ(TARVIK_ERR_INVALID_HANDLE, I2CCloseDevice(handle));
}

TEST_F(CFamiliesSimTest, RenesasProgramsAPageAndReadsItBack)
{
    int handle = -1;
    ASSERT_EQ(0, RenesasOpenDevice(&handle, Host(), kTimeoutMs, kPortIndex));
    char version[8];
    std::memset(version, kSentinel, sizeof(version));
    // Before Init the target does not listen: the version text stays where it was.
    EXPECT_EQ(0x0920, RenesasGetVersion(handle, version, sizeof(version)));
    EXPECT_EQ(std::string(sizeof(version), '\xEE'), std::string(version, sizeof(version)));
    EXPECT_EQ(0, RenesasInit(handle));
    EXPECT_EQ(0x0921, RenesasCheckID(handle, "WRONG", 5));
    EXPECT_EQ(0, RenesasCheckID(handle, "RENESAS", 7));
    // A text that does not fit loses its first character, as every text of the interface.
    EXPECT_EQ(0, RenesasGetVersion(handle, version, sizeof(version)));
    EXPECT_STREQ("arvik R", version);
    EXPECT_EQ(0, RenesasBlockErase(handle, 0));
    EXPECT_EQ(0, RenesasWritePage(handle, 2, "\x01\x02\x03", 3));
    std::string page(TARVIK_RENESAS_PAGE_SIZE + 2, '\xEE');
    unsigned short received = 0;
    EXPECT_EQ(0, RenesasReadPage(handle, 2, &page[0], static_cast<int>(page.size()), &received));
    EXPECT_EQ(TARVIK_RENESAS_PAGE_SIZE, received);
    EXPECT_EQ("01 02 03 00 00", ToHex(page.substr(0, 5)));
    EXPECT_EQ("00 EE EE", ToHex(page.substr(TARVIK_RENESAS_PAGE_SIZE - 1)));
    unsigned short sum = 0;
    EXPECT_EQ(0, RenesasVerifyCheck(handle, 2, 2, &sum));
    EXPECT_EQ(6, sum);
    EXPECT_EQ(0, RenesasComplete(handle));
    EXPECT_EQ(0x0920, RenesasEraseAll(handle));
    EXPECT_EQ(0, RenesasCloseDevice(handle));
}

TEST_F(CFamiliesSimTest, FirmwareBlocksAndInformationRecord)
{
    int handle = -1;
    ASSERT_EQ(0, FirmwareOpenDevice(&handle, Host(), kTimeoutMs, kPortIndex));
    // The service device is registered as an owning entry at 5099 + 300.
    CDevice* device = CDeviceManager::GetDevice(handle);
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(5399, device->m_nPort);
    EXPECT_EQ(eTarvikFirmware, device->m_nDeviceType);
    EXPECT_TRUE(device->m_bOwnsClient);

    STarvikFirmwareInfo info;
    std::memset(&info, kSentinel, sizeof(info));
    ASSERT_EQ(0, FirmwareGetInfo(handle, &info));
    EXPECT_EQ(0x00010203u, info.nSWVersion);
    char text[16];
    EXPECT_EQ(9, FirmwareSWVersionString(&info, text, sizeof(text)));
    EXPECT_STREQ("1.2.3-1B", text);
    EXPECT_EQ(6, FirmwareHWVersionString(&info, text, sizeof(text)));
    EXPECT_STREQ("1.1.A", text);
    info.nField3 = 0x11223344;
    info.nLayoutVersion = 7;
    EXPECT_EQ(0, FirmwareSetInfo(handle, &info));
    EXPECT_EQ(2u, info.nLayoutVersion);
    STarvikFirmwareInfo back;
    ASSERT_EQ(0, FirmwareGetInfo(handle, &back));
    EXPECT_EQ(0x11223344u, back.nField3);
    EXPECT_EQ(0x00010101u, back.nSWVersion);

    std::string block(TARVIK_FIRMWARE_BLOCK_SIZE, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 7);
    EXPECT_EQ(0, FirmwareWriteFlash(handle, 5, block.data(), TARVIK_FIRMWARE_BLOCK_SIZE));
    std::string read(TARVIK_FIRMWARE_BLOCK_SIZE, '\0');
    int received = 0;
    EXPECT_EQ(0, FirmwareReadFlash(handle, 5, &read[0], TARVIK_FIRMWARE_BLOCK_SIZE, &received));
    EXPECT_EQ(TARVIK_FIRMWARE_BLOCK_SIZE, received);
    EXPECT_TRUE(read == block);
    // An EEPROM access past the end comes back with bit 8 set.
    char eeprom[4] = {};
    EXPECT_EQ(0x0102, FirmwareWriteEEProm(handle, 0xFFFE, eeprom, 4));
    EXPECT_EQ(0, FirmwareCloseDevice(handle));
}

TEST_F(CFamiliesSimTest, TestSystemUnitsSetAndReadBack)
{
    int io = -1, pwr = -1, relay = -1, com = -1;
    ASSERT_EQ(0, TSIOOpenDevice(&io, Host(), kTimeoutMs, kPortIndex));
    ASSERT_EQ(0, TSPWROpenDevice(&pwr, Host(), kTimeoutMs, kPortIndex));
    ASSERT_EQ(0, TSRelayOpenDevice(&relay, Host(), kTimeoutMs, kPortIndex));
    ASSERT_EQ(0, TSCOMOpenDevice(&com, Host(), kTimeoutMs, kPortIndex));
    // One unit's handle is not another's.
    unsigned short words[3] = {0x1234, 0x0001, 0xBEEF};
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, TSPWRSetValue(io, words, 3));
    EXPECT_EQ(0, TSIOSetValue(io, words, 3));
    EXPECT_EQ(0, TSPWRSetValue(pwr, words, 2));
    EXPECT_EQ(0, TSRelaySetPower(relay, words, 1));
    unsigned short back[3] = {};
    EXPECT_EQ(0, TSIOGetValue(io, back, 3));
    EXPECT_EQ(HexNumbers({0x1234, 0x0001, 0xBEEF}, 0xEEEE), HexNumbers({back[0], back[1], back[2]}, 0xEEEE));
    EXPECT_EQ(0, TSRelaySetRelay(relay, 5, 2));
    EXPECT_TRUE(Device<CTarvikSimDeviceTestUnit>(eTarvikTestSystemRelay)->IsRelayOn(5));
    Device<CTarvikSimDeviceTestUnit>(eTarvikTestSystemRelay)->PressButton(3);
    int pressed = 7;
    EXPECT_EQ(0, TSRelayGetButton(relay, 3, &pressed));
    EXPECT_EQ(1, pressed);
    EXPECT_EQ(0x11FF, TSRelayGetButton(relay, 200, &pressed));
    EXPECT_EQ(0, pressed);

    char path[] = "/tmp/tarvik_dll_familiesXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "station 4: flash, test, label\n";
    EXPECT_EQ(0, TSCOMInstallConfig(com, "station4", path));
    char name[32];
    std::memset(name, kSentinel, sizeof(name));
    EXPECT_EQ(0, TSCOMGetConfig(com, name, sizeof(name)));
    EXPECT_STREQ("station4", name);
    int available = 0;
    unsigned int crc = 0;
    EXPECT_EQ(0, TSCOMIsConfigAvailable(com, "station4", &available, &crc));
    EXPECT_EQ(1, available);
    EXPECT_NE(0u, crc);
    EXPECT_EQ(0x0D20, TSCOMSendFile(com, "/nonexistent/a.cfg", 0));
    std::remove(path);
    for (int rc : {TSIOCloseDevice(io), TSPWRCloseDevice(pwr), TSRelayCloseDevice(relay), TSCOMCloseDevice(com)})
        EXPECT_EQ(0, rc);
}

TEST_F(CFamiliesSimTest, DigitalAndAnalogGateways)
{
    int dio = -1, ad = -1;
    ASSERT_EQ(0, DIOOpenDevice(&dio, Host(), kTimeoutMs, kPortIndex));
    ASSERT_EQ(0, ADOpenDevice(&ad, Host(), kTimeoutMs, kPortIndex));
    EXPECT_EQ(TARVIK_ERR_INVALID_DEVICE_TYPE, ADWriteDigital(dio, 1));
    m_pServer->GetDevice(eTarvikDIO)->SetDigitalInputs(0x00ABCDEF);
    EXPECT_EQ(0, DIOWrite(dio, 0x80000001));
    unsigned int inputs = 0, outputs = 0;
    EXPECT_EQ(0, DIORead(dio, &inputs, &outputs));
    EXPECT_EQ(HexNumbers({0xABCDEF, 0x80000001}, 0), HexNumbers({inputs, outputs}, 0));
    EXPECT_EQ(0, DIORead(dio, nullptr, nullptr));
    // The common commands reach any family's handle.
    EXPECT_EQ(0, DeviceReadDigital(dio, nullptr, &outputs));
    const unsigned int levels[2] = {100, 200};
    EXPECT_EQ(0, DeviceWriteAnalog(dio, levels, 2));
    unsigned int first = 0, analog[1] = {};
    int count = 0;
    EXPECT_EQ(0, DeviceReadAnalog(dio, &first, analog, 1, &count));
    EXPECT_EQ(8u, first);
    EXPECT_EQ(8, count);
    EXPECT_EQ(100u, analog[0]);

    m_pServer->GetDevice(eTarvikAD)->SetDigitalInputs(0x00ABCDEF);
    unsigned int in[3] = {};
    EXPECT_EQ(0, ADReadDigitalInput(ad, &in[0], &in[1], &in[2]));
    EXPECT_EQ(HexNumbers({0xEF, 0xCD, 0xAB}, 0), HexNumbers({in[0], in[1], in[2]}, 0));
    // Eight channels sent, three stored.
    unsigned int values[4] = {0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE};
    EXPECT_EQ(0, ADRead(ad, values, 3, &count));
    EXPECT_EQ(8, count);
    EXPECT_LT(values[2], 4096u);
    EXPECT_EQ(0xEEEEEEEEu, values[3]);
    EXPECT_EQ(0, DIOCloseDevice(dio));
    EXPECT_EQ(0, ADCloseDevice(ad));
}
