// The test-system units, DIO and AD gateways end to end: the library's clients against
// the simulator's models, including files uploaded, installed and activated.
#include "support/HexfileTestUtil.h"
#include "support/SimFixture.h"

#include "sim/TarvikSimDeviceAD.h"
#include "sim/TarvikSimDeviceTestSystemCOM.h"
#include "sim/TarvikSimDeviceTestUnit.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>

namespace
{
constexpr unsigned int kTimeoutMs = 2000;

class CTestSystemE2E : public tarvik_test::CSimServerFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartSim({{eTarvikTestSystemIO, 0},
                                          {eTarvikTestSystemPWR, 0},
                                          {eTarvikTestSystemCOM, 0},
                                          {eTarvikTestSystemRelay, 0},
                                          {eTarvikDIO, 0},
                                          {eTarvikAD, 0}}));
        ASSERT_NE(nullptr, m_pCom = Model<CTarvikSimDeviceTestSystemCOM>(eTarvikTestSystemCOM));
    }

    template <class TClient> std::unique_ptr<TClient> Make(ETarvikDevice type)
    {
        auto client = std::make_unique<TClient>(kTimeoutMs);
        EXPECT_EQ(0, client->Connect("127.0.0.1", m_oServer.GetPort(type)));
        EXPECT_EQ(0, client->Open());
        return client;
    }

    // A file of size pseudo-random bytes in the test's directory.
    std::string File(const std::string& name, size_t size, unsigned int seed = 1)
    {
        hexfile_test::WriteFile(m_oDir.Path(name), hexfile_test::Pattern(size, seed));
        return m_oDir.Path(name);
    }
    static unsigned int CRC(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return CTarvikClientTestSystemCOM::GetCRC32(in);
    }

    hexfile_test::CTempDir m_oDir;
    CTarvikSimDeviceTestSystemCOM* m_pCom = nullptr;
};
} // namespace

TEST_F(CTestSystemE2E, ConfigurationsAreUploadedInstalledAndActivated)
{
    auto com = Make<CTarvikClientTestSystemCOM>(eTarvikTestSystemCOM);
    const std::string a = File("a.cfg", 100000, 1), b = File("b.cfg", 32768, 2), empty = File("e.cfg", 0);
    std::string active = "old";
    EXPECT_EQ(0, com->GetConfig(active));
    EXPECT_EQ("", active);

    EXPECT_EQ(0, com->InstallConfig("cfgA", a));
    unsigned int size = 0, crc = 0;
    ASSERT_TRUE(m_pCom->GetFile("a.cfg", size, crc));
    EXPECT_EQ(100000u, size);
    EXPECT_EQ(CRC(a), crc);
    EXPECT_EQ("a.cfg", m_pCom->GetConfigFile("cfgA"));
    EXPECT_EQ(0, com->GetConfig(active));
    EXPECT_EQ("cfgA", active);
    bool there = false;
    crc = 0;
    EXPECT_EQ(0, com->IsConfigAvailable("cfgA", there, crc));
    EXPECT_TRUE(there);
    EXPECT_EQ(CRC(a), crc);

    // Installed again with the same file: the unit already has it, nothing travels.
    unsigned long transfers = m_pCom->GetTransferCount();
    EXPECT_EQ(0, com->InstallConfig("cfgA", a));
    EXPECT_EQ(transfers, m_pCom->GetTransferCount());

    // A second configuration (exactly one chunk), an empty one, and switching.
    EXPECT_EQ(0, com->InstallConfig("cfgB", b));
    EXPECT_EQ(transfers + 1, m_pCom->GetTransferCount());
    EXPECT_EQ("cfgB", m_pCom->GetActiveConfig());
    EXPECT_EQ(0, com->InstallConfig("cfgE", empty));
    EXPECT_EQ(0, com->SetConfig("cfgA"));
    EXPECT_EQ("cfgA", m_pCom->GetActiveConfig());
    EXPECT_EQ(0x0D23, com->SetConfig("cfgA"));
    EXPECT_EQ(0x0D25, com->SetConfig("none"));
    EXPECT_EQ(0, com->IsConfigAvailable("none", there, crc));
    EXPECT_FALSE(there);
    EXPECT_EQ("File CRC mismatch", CTarvikClient::GetErrorMsg(0x0D22));
}

TEST_F(CTestSystemE2E, UnitRefusesAFileWhoseCRCDiffers)
{
    auto com = Make<CTarvikClientTestSystemCOM>(eTarvikTestSystemCOM);
    const std::string a = File("a.cfg", 70000);
    EXPECT_EQ(0x0D22, com->SendFile(a, CRC(a) ^ 1));
    unsigned int size = 0, crc = 0;
    EXPECT_FALSE(m_pCom->GetFile("a.cfg", size, crc));
    EXPECT_EQ(0, com->SendFile(a, 0));
    EXPECT_TRUE(m_pCom->GetFile("a.cfg", size, crc));
}

TEST_F(CTestSystemE2E, UnitsKeepTheirWordsSwitchRelaysAndReportButtons)
{
    auto io = Make<CTarvikClientTestSystemIO>(eTarvikTestSystemIO);
    auto pwr = Make<CTarvikClientTestSystemPWR>(eTarvikTestSystemPWR);
    auto relay = Make<CTarvikClientTestSystemRelay>(eTarvikTestSystemRelay);
    unsigned short set[4] = {0x1234, 0x0001, 0xFFFF, 0x8000};
    unsigned short got[16] = {};
    EXPECT_EQ(0, io->SetValue(set, 4));
    EXPECT_EQ(0, io->GetValue(got, 16));
    EXPECT_EQ(std::vector<unsigned short>(got, got + 4), std::vector<unsigned short>(set, set + 4));
    EXPECT_EQ(0, got[4]);
    EXPECT_EQ(0, io->SetPower(set, 2));
    EXPECT_EQ(0, io->GetPower(got, 4));
    EXPECT_EQ(0x0001, got[1]);
    EXPECT_EQ(0, pwr->SetValue(set + 2, 1));
    EXPECT_EQ(0, pwr->GetValue(got, 8));
    EXPECT_EQ(0xFFFF, got[0]);
    // More words than the unit has: refused, nothing changed.
    auto* ioModel = Model<CTarvikSimDeviceTestUnit>(eTarvikTestSystemIO);
    ASSERT_NE(nullptr, ioModel);
    unsigned short many[17] = {};
    EXPECT_EQ(0x0BFF, io->SetValue(many, 17));
    EXPECT_EQ(0x1234, ioModel->GetValues()[0]);

    auto* relayModel = Model<CTarvikSimDeviceTestUnit>(eTarvikTestSystemRelay);
    ASSERT_NE(nullptr, relayModel);
    EXPECT_EQ(0, relay->SetRelay(3, true));
    EXPECT_TRUE(relayModel->IsRelayOn(3));
    EXPECT_EQ(0, relay->SetRelay(3, false));
    EXPECT_FALSE(relayModel->IsRelayOn(3));
    EXPECT_EQ(0x11FF, relay->SetRelay(200, true));
    bool pressed = true;
    EXPECT_EQ(0, relay->GetButton(2, pressed));
    EXPECT_FALSE(pressed);
    relayModel->PressButton(2);
    EXPECT_EQ(0, relay->GetButton(2, pressed));
    EXPECT_TRUE(pressed);
    EXPECT_EQ(0, relay->SetPower(set, 4));
    EXPECT_EQ(0, relay->GetPower(got, 4));
    EXPECT_EQ(0x8000, got[3]);
    // The words persist across connections until a restart.
    io.reset();
    io = Make<CTarvikClientTestSystemIO>(eTarvikTestSystemIO);
    got[0] = 0;
    EXPECT_EQ(0, io->GetValue(got, 1));
    EXPECT_EQ(0x1234, got[0]);
    EXPECT_EQ(0, io->Restart());
    EXPECT_EQ(0, io->GetValue(got, 1));
    EXPECT_EQ(0, got[0]);
}

TEST_F(CTestSystemE2E, DigitalAndAnalogGatewaysReadWhatIsWired)
{
    auto dio = Make<CTarvikClientDIO>(eTarvikDIO);
    m_oServer.GetDevice(eTarvikDIO)->SetDigitalInputs(0x00C0FFEE);
    unsigned int in = 0, out = 0;
    EXPECT_EQ(0, dio->Write(0x55AA));
    EXPECT_EQ(0, dio->Read(in, out));
    EXPECT_EQ(0x00C0FFEEu, in);
    EXPECT_EQ(0x55AAu, out);

    auto ad = Make<CTarvikClientAD>(eTarvikAD);
    auto* model = Model<CTarvikSimDeviceAD>(eTarvikAD);
    ASSERT_NE(nullptr, model);
    model->SetDigitalInputs(0x00ABCDEF);
    model->SetAdcLevel(3, 4095);
    unsigned int in0 = 0, in1 = 0, in2 = 0;
    EXPECT_EQ(0, ad->ReadDigitalInput(in0, in1, in2));
    EXPECT_EQ(0xEFu, in0);
    EXPECT_EQ(0xCDu, in1);
    EXPECT_EQ(0xABu, in2);
    std::vector<unsigned int> values;
    EXPECT_EQ(0, ad->Read(values));
    ASSERT_EQ(CTarvikSimDeviceAD::kChannels, values.size());
    for (size_t i = 0; i < values.size(); ++i)
    {
        long level = static_cast<long>(model->GetAdcLevel(i));
        EXPECT_LE(std::labs(static_cast<long>(values[i]) - level), 2) << i;
        EXPECT_LE(values[i], 4095u) << i;
    }
}
