// The firmware and device-information client: exact requests, result rewrites of the
// information EEPROM, outputs written or left alone, the information image and its
// version texts, and the service device in the simulator.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"
#include "support/SimFixture.h"

#include "sim/TarvikSimDeviceFirmware.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientFirmware.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
typedef CTarvikClientFirmware::STarvikDeviceInfoEx SInfo;
typedef std::function<std::string(CTarvikClientFirmware&, int& result)> TCall;

class CFirmwareTest : public CClientFixture<CTarvikClientFirmware>
{
protected:
    // This Open only sets the next message id to 1; its two arguments stay as they are.
    void OpenClient(CTarvikClientFirmware& client) override
    {
        int a = 7, b = 8;
        ASSERT_EQ(0, client.Open(a, b));
        EXPECT_EQ(7, a);
        EXPECT_EQ(8, b);
    }
};

std::string Hex32(unsigned int value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%X", value);
    return text;
}
} // namespace

TEST_F(CFirmwareTest, EachCommandSendsItsExactRequest)
{
    char buf[16];
    unsigned long received = 0;
    unsigned short n = 0;
    int info = 0;
    const std::tuple<const char*, std::function<int(CTarvikClientFirmware&)>, unsigned int, std::string> cases[] = {
        {"restart", [](CTarvikClientFirmware& c) { return c.Restart(); }, 0x00E7, ""},
        {"clear flash", [](CTarvikClientFirmware& c) { return c.ClearFlash(); }, 0x00E3, ""},
        {"read flash", [&](CTarvikClientFirmware& c) { return c.ReadFlash(0x0102, buf, received); }, 0x00E4, "02 01"},
        {"eeprom info", [&](CTarvikClientFirmware& c) { return c.GetEEPromInfo(info); }, 0x00E0, ""},
        // The address keeps its low 16 bits, most significant byte first.
        {"eeprom read", [&](CTarvikClientFirmware& c) { return c.ReadEEProm(0x12345, buf, 16, n); }, 0x00E1,
         "00 00 23 45 10 00"},
        {"eeprom write", [](CTarvikClientFirmware& c) { return c.WriteEEProm(0x10, "\x01\x02", 2); }, 0x00E2,
         "00 00 00 10 01 02"},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest(std::get<1>(c), Telegram(std::get<2>(c), 1, Hex(std::get<3>(c))), std::get<0>(c));
    // A flash block is the block number and exactly 2048 bytes.
    std::string block(2048, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 7);
    ExpectRequest([&](CTarvikClientFirmware& f) { return f.WriteFlash(5, block.data()); },
                  Telegram(0x00E5, 1, Hex("05 00") + block), "flash block");
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->WriteFlash(5, nullptr));
}

TEST_F(CFirmwareTest, EachCommandWritesItsOutputsByItsOwnRule)
{
    auto readFlash = [](CTarvikClientFirmware& c, int& result) {
        std::string out(2048, '\xEE');
        unsigned long n = 0xBEEF;
        result = c.ReadFlash(1, &out[0], n);
        return std::to_string(n) + " | " + ToHex(out.substr(0, 3)) + " " + ToHex(out.substr(2047));
    };
    auto info = [](CTarvikClientFirmware& c, int& result) {
        int value = 0x5555;
        result = c.GetEEPromInfo(value);
        return Hex32(static_cast<unsigned int>(value));
    };
    auto readEEProm = [](CTarvikClientFirmware& c, int& result) {
        std::string out(3, '\xEE');
        unsigned short n = 0xBEEF;
        result = c.ReadEEProm(0, &out[0], 3, n);
        return Hex32(n) + " | " + ToHex(out);
    };
    auto writeEEProm = [](CTarvikClientFirmware& c, int& result) {
        result = c.WriteEEProm(0, "\x01", 1);
        return std::string();
    };
    auto restart = [](CTarvikClientFirmware& c, int& result) {
        result = c.Restart();
        return std::string();
    };
    const std::string block = Frame({0, 1, 0}) + std::string(2048, '\x11') + Frame({0x22});
    const std::tuple<const char*, TCall, std::optional<std::string>, int, std::string> cases[] = {
        {"flash block", readFlash, block, 0, "2048 | 11 11 11 11"},
        {"flash short block", readFlash, Frame({0, 1, 0, 0x33}), 0, "1 | 33 EE EE EE"},
        {"flash on an error", readFlash, Frame({0xFF, 1, 0, 0x33}), 0xFF, "1 | 33 EE EE EE"},
        {"flash answer shorter than 3", readFlash, Frame({0x02}), 0x02, "2048 | EE EE EE EE"},
        {"flash no answer", readFlash, std::nullopt, TARVIK_ERR_TIMEOUT, "0 | EE EE EE EE"},
        {"info four bytes from 3", info, Frame({0, 9, 9, 1, 2, 3, 4, 5}), 0, "4030201"},
        {"info two bytes", info, Frame({0, 9, 9, 1, 2}), 0, "201"},
        {"info on an error", info, Frame({0xFF, 9, 9, 1}), 0xFF, "1"},
        {"info no answer", info, std::nullopt, TARVIK_ERR_TIMEOUT, "0"},
        // The information EEPROM reports its failures as I2C codes, transport ones too.
        {"eeprom read", readEEProm, Frame({0, 1, 2, 3, 4}), 0, "3 | 01 02 03"},
        {"eeprom read nack", readEEProm, Frame({0x20, 7}), 0x0120, "1 | 07 EE EE"},
        {"eeprom read empty", readEEProm, std::string(), 0x0C0100, "0 | EE EE EE"},
        {"eeprom read no answer", readEEProm, std::nullopt, 0x040100, "BEEF | EE EE EE"},
        {"eeprom write timeout", writeEEProm, Frame({0x21}), 0x0121, ""},
        {"eeprom write no answer", writeEEProm, std::nullopt, 0x040100, ""},
        {"flash commands have no device byte", restart, Frame({0x02}), 0x02, ""},
    };
    for (const auto& c : cases)
        ExpectOutputs(std::get<1>(c), std::get<2>(c), std::get<3>(c), std::get<4>(c), std::get<0>(c));
    m_pClient->Disconnect();
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED | 0x100, m_pClient->WriteEEProm(0, "\x01", 1));
}

TEST_F(CFirmwareTest, SetInfoStopsAtTheFirstFailingWrite)
{
    int writes = 0;
    m_oGateway.SetHandler([&writes](const std::string& f) {
        if (FrameCmd(f) == 0x00E1)
            return Cnf(0x00E1, FrameId(f), Frame({0}) + std::string(256, '\0'));
        return Cnf(FrameCmd(f), FrameId(f), Frame({++writes == 3 ? 0x21 : 0}));
    });
    SInfo info = {};
    EXPECT_EQ(0x0121, m_pClient->SetInfo(info));
    std::vector<std::string> frames = m_oGateway.GetFrames();
    ASSERT_EQ(4u, frames.size());
    EXPECT_EQ("00 00 00 20", ToHex(FrameData(frames[3]).substr(0, 4)));

    // An unreadable image is not written and leaves the record zero.
    AnswerWith(Frame({0x20}));
    info.nField3 = 5;
    EXPECT_EQ(0x0120, m_pClient->GetInfo(info));
    EXPECT_EQ(0u, info.nField3);
    EXPECT_EQ(0x0120, m_pClient->SetInfo(info));
    EXPECT_EQ(6u, m_oGateway.GetFrames().size());
}

TEST(FirmwareInfo, VersionTextsAndByteSwap)
{
    const std::tuple<unsigned int, unsigned char, unsigned int, std::string, std::string> cases[] = {
        {0x00020A03, 0, 0x0001010A, "2.10.3", "1.1.A"},
        {0x00010203, 0, 0x0001010B, "1.2.3", "1.1.B"},
        {0x00010203, 0x1B, 0xAABBCCDD, "1.2.3-1B", "TLX-GW"},
        // A revision below 10 gives no digit: 0x05 + 0x37 is '<'.
        {0x00FF0000, 0x0A, 0x00020305, "255.0.0-0A", "2.3.<"},
    };
    for (const auto& c : cases)
    {
        SInfo info = {};
        info.nSWVersion = std::get<0>(c);
        info.nSWVariant = std::get<1>(c);
        info.nHWVersion = std::get<2>(c);
        EXPECT_EQ(std::get<3>(c), info.GetSWVersionString());
        EXPECT_EQ(std::get<4>(c), info.GetHWVersionString());
    }
    EXPECT_EQ(0x78563412u, CTarvikClientFirmware::swablong(0x12345678));
}

namespace
{
class CFirmwareSimTest : public CSimFixture<CTarvikSimDeviceFirmware, CTarvikClientFirmware, eTarvikFirmware>
{
protected:
    void OpenClient(CTarvikClientFirmware& client) override
    {
        int a = 0, b = 0;
        ASSERT_EQ(0, client.Open(a, b));
    }
};
} // namespace

TEST_F(CFirmwareSimTest, InfoSetAndReadBack)
{
    EXPECT_EQ(5099, CTarvikSimServer::GetStandardPort(eTarvikFirmware));
    SInfo info = {};
    ASSERT_EQ(0, m_oClient.GetInfo(info));
    EXPECT_EQ("1.2.3-1B", info.GetSWVersionString());
    EXPECT_EQ(2u, info.nLayoutVersion);

    SInfo mine = {};
    mine.nSWVersion = 0x00090909;
    mine.nHWVersion = 0x00090909;
    mine.nImageTag = 0x1234;
    mine.nField3 = 0x01020304;
    mine.nField4 = 0xA1A2A3A4;
    mine.nField5 = 0xB1B2;
    mine.nField6 = 0xC1;
    mine.nSWVariant = 0x77;
    mine.aField8[0] = 1;
    mine.aField8[3] = 0xFFFFFFFE;
    mine.nField9 = 0xD1;
    ASSERT_EQ(0, m_oClient.SetInfo(mine));
    EXPECT_EQ(2u, mine.nLayoutVersion);

    SInfo back = {};
    ASSERT_EQ(0, m_oClient.GetInfo(back));
    // The header is always the fixed one; the variant byte stays as the device had it.
    EXPECT_EQ(0x00010101u, back.nSWVersion);
    EXPECT_EQ(0x0001010Au, back.nHWVersion);
    EXPECT_EQ(0x2000u, back.nImageTag);
    EXPECT_EQ(2u, back.nLayoutVersion);
    EXPECT_EQ(0x1B, back.nSWVariant);
    EXPECT_EQ(0x01020304u, back.nField3);
    EXPECT_EQ(0xA1A2A3A4u, back.nField4);
    EXPECT_EQ(0xB1B2, back.nField5);
    EXPECT_EQ(0xC1, back.nField6);
    EXPECT_EQ(1u, back.aField8[0]);
    EXPECT_EQ(0xFFFFFFFEu, back.aField8[3]);
    EXPECT_EQ(0xD1, back.nField9);
    EXPECT_EQ("04 03 02 01 C1 1B", ToHex(m_pDevice->PeekEeprom(0x10, 6)));
}

TEST_F(CFirmwareSimTest, LayoutOneImageIsReadWithItsOldByteOrder)
{
    std::string image(64, '\0');
    image.replace(0x0C, 4, LE32(1));
    image.replace(0x10, 4, LE32(0x11111111));
    image.replace(0x14, 2, Hex("05 06"));
    image.replace(0x20, 16, LE32(0x01020304) + LE32(0x01020304) + LE32(0x0A0B0C0D) + LE32(0x11223344));
    image[0x30] = 0x42;
    m_pDevice->PokeEeprom(0, image);
    SInfo info = {};
    ASSERT_EQ(0, m_oClient.GetInfo(info));
    EXPECT_EQ(1u, info.nLayoutVersion);
    EXPECT_EQ(1, info.nField6);
    EXPECT_EQ(0, info.nSWVariant);
    EXPECT_EQ(0u, info.nField3);
    EXPECT_EQ(0u, info.nField4);
    EXPECT_EQ(0, info.nField5);
    EXPECT_EQ(0x42, info.nField9);
    EXPECT_EQ(0x01020304u, info.aField8[0]);
    EXPECT_EQ(0x04030201u, info.aField8[1]);
    EXPECT_EQ(0x0D0C0B0Au, info.aField8[2]);
    EXPECT_EQ(0x44332211u, info.aField8[3]);
}

TEST_F(CFirmwareSimTest, FlashBlocksAndEEPromBounds)
{
    std::string block(2048, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i ^ 0x5A);
    ASSERT_EQ(0, m_oClient.WriteFlash(3, block.data()));
    std::string out(2048, '\0');
    unsigned long n = 0;
    ASSERT_EQ(0, m_oClient.ReadFlash(3, &out[0], n));
    EXPECT_EQ(2048u, n);
    EXPECT_TRUE(out == block);
    ASSERT_EQ(0, m_oClient.ClearFlash());
    EXPECT_EQ(std::string(2048, '\xFF'), m_pDevice->PeekBlock(3));
    EXPECT_EQ(0xFF, m_oClient.ReadFlash(64, &out[0], n));

    int size = 0;
    EXPECT_EQ(0, m_oClient.GetEEPromInfo(size));
    EXPECT_EQ(256, size);
    EXPECT_EQ(0x0102, m_oClient.WriteEEProm(250, "0123456789", 10));
    EXPECT_EQ(0, m_oClient.Restart());
}
