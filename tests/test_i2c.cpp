// The I2C client: exact requests, the EEPROM addressing table, which outputs each
// command writes or leaves alone, and the bus with its EEPROMs in the simulator.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"
#include "support/SimFixture.h"

#include "sim/TarvikSimDeviceI2C.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientI2C.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
constexpr unsigned short kU16 = 0xBEEF;
typedef std::function<int(CTarvikClientI2C&)> TOp;
// Runs a command on outputs preset to sentinels; returns the outputs as text.
typedef std::function<std::string(CTarvikClientI2C&, int& result)> TCall;

std::string Word(unsigned short value)
{
    char text[8];
    std::snprintf(text, sizeof(text), value == kU16 ? "-" : "%X", value);
    return text;
}

class CI2CTest : public CClientFixture<CTarvikClientI2C>
{
};
} // namespace

TEST_F(CI2CTest, EachCommandSendsItsExactRequest)
{
    char buf[4];
    unsigned short n = 0;
    unsigned int rate = 0;
    unsigned char byte = 0;
    // Command code and data field of each request, written out by hand.
    const std::tuple<const char*, TOp, unsigned int, std::string> cases[] = {
        {"rate in kHz", [](CTarvikClientI2C& c) { return c.SetBaudrate(400); }, 0x0107, "80 1A 06 00"},
        {"rate 100 kHz", [](CTarvikClientI2C& c) { return c.SetBaudrate(100); }, 0x0107, "A0 86 01 00"},
        {"rate as given", [](CTarvikClientI2C& c) { return c.SetBaudrate(50000); }, 0x0107, "50 C3 00 00"},
        {"get rate", [&](CTarvikClientI2C& c) { return c.GetBaudrate(rate); }, 0x0108, ""},
        {"reset", [](CTarvikClientI2C& c) { return c.Reset(); }, 0x0104, ""},
        {"read", [&](CTarvikClientI2C& c) { return c.Read(0x1A1, buf, 4, n); }, 0x0110, "A1 01 04 00"},
        {"write", [&](CTarvikClientI2C& c) { return c.Write(0xA0, "\x01\x02", 2, n); }, 0x0111, "A0 00 01 02"},
        {"raw start", [](CTarvikClientI2C& c) { return c.RAWStart(); }, 0x0115, ""},
        {"raw send", [](CTarvikClientI2C& c) { return c.RAWSend(0xA1, 0x01); }, 0x0116, "A1 01"},
        {"raw get", [&](CTarvikClientI2C& c) { return c.RAWGet(0x02, byte); }, 0x0117, "02"},
        {"raw stop", [](CTarvikClientI2C& c) { return c.RAWStop(); }, 0x0118, ""},
        {"sequence", [&](CTarvikClientI2C& c) { return c.WriteSequence("\xA0\x00", 2, buf, 3, n, n); }, 0x0114,
         "03 00 A0 00"},
        // slave, address count, offset masked (big-endian), then the bytes or the length.
        {"eeprom write 2 address bytes",
         [](CTarvikClientI2C& c) { return c.WriteEEProm(1, 0x12345, 0x0010, "\x55", 1); }, 0x0113,
         "A2 00 02 00 00 23 45 55"},
        {"eeprom write bit in slave",
         [](CTarvikClientI2C& c) { return c.WriteEEProm(1, 0x1F0, 0x0108, "\x55\x66", 2); }, 0x0113,
         "A6 00 01 00 00 01 F0 55 66"},
        {"eeprom read", [&](CTarvikClientI2C& c) { return c.ReadEEProm(4, 0x3FF, 0x0008, buf, 4, n); }, 0x0112,
         "A8 00 01 00 00 00 FF 04 00"},
        {"eeprom read 12 address bits", [&](CTarvikClientI2C& c) { return c.ReadEEProm(0, 0x1FFF, 0x000C, buf, 4, n); },
         0x0112, "A0 00 02 00 00 0F FF 04 00"},
        {"eeprom poll", [](CTarvikClientI2C& c) { return c.WriteEEPromPollAck(0, 0x8001, 0x0010, "\x77", 1, 500); },
         0x0119, "A0 00 F4 01 02 00 00 80 01 77"},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest(std::get<1>(c), Telegram(std::get<2>(c), 2, Hex(std::get<3>(c))), std::get<0>(c));
}

TEST(I2CAddressing, EepromTypeWordGivesSlaveAddressOffsetAndAddressBytes)
{
    // select, offset, type word -> slave address, offset field, address-byte count
    const std::tuple<unsigned short, unsigned int, unsigned short, unsigned int, const char*, int> cases[] = {
        {0, 0x1FF, 0x0108, 0xA2, "00 00 01 FF", 1},   // 24C04: bit 8 in slave bit 1
        {3, 0x1FF, 0x0108, 0xAE, "00 00 01 FF", 1},   // chip select above it
        {5, 0, 0x0010, 0xAA, "00 00 00 00", 2},       // two address bytes, three select pins
        {5, 0x700, 0x0308, 0xAE, "00 00 07 00", 1},   // 24C16: three bits, no select pins
        {7, 0x12345, 0x0010, 0xAE, "00 00 23 45", 2}, // offset masked to 16 bits
        {1, 0x3FF, 0x0208, 0xAE, "00 00 03 FF", 1},   // two bits in slave bits 1-2, select bit 3
        {3, 0x1FFFF, 0x0510, 0xAE, "00 01 FF FF", 2}, // bit 10: memory bit above the select bits
        {0, 0x10000, 0x0510, 0xA8, "00 01 00 00", 2},
        {1, 0x30000, 0x0610, 0xAE, "00 03 00 00", 2},
        {0, 0x10000, 0x0610, 0xA4, "00 01 00 00", 2},
        {7, 0x80, 0x0007, 0xAE, "00 00 00 00", 1},       // offset bits above the chip are dropped
        {0, 0xFFFFFFFF, 0x0020, 0xA0, "FF FF FF FF", 2}, // 32 address bits: nothing masked
        {0, 0x1FFFF, 0x0111, 0xA2, "00 01 FF FF", 2},    // width above 16 capped in the slave address only
    };
    for (const auto& c : cases)
    {
        unsigned short select = std::get<0>(c), type = std::get<2>(c);
        unsigned int offset = std::get<1>(c);
        SCOPED_TRACE(testing::Message() << "select " << select << " offset " << std::hex << offset << " type " << type);
        EXPECT_EQ(std::get<3>(c), CTarvikClientI2C::GetEEPROMSlaveAddress(select, offset, type));
        EXPECT_EQ(std::get<4>(c), ToHex(CTarvikClientI2C::ToOffset(offset, type)));
        EXPECT_EQ(std::get<5>(c), CTarvikClientI2C::GetAddressByteCount(type));
    }
    // Widths 9 to 15 take two address bytes, keep their own bits in the offset and put the
    // bit above them into slave bit 1.
    for (unsigned short width = 9; width <= 15; ++width)
    {
        const unsigned int kept = (2u << width) - 1;
        const unsigned short type = static_cast<unsigned short>(0x0100 | width);
        EXPECT_EQ(0xA6u, CTarvikClientI2C::GetEEPROMSlaveAddress(1, 0xFFFFFFFF, type)) << width;
        EXPECT_EQ(ToHex(Frame({0, 0, int(kept >> 8), int(kept & 0xFF)})),
                  ToHex(CTarvikClientI2C::ToOffset(0xFFFFFFFF, type)))
            << width;
        EXPECT_EQ(2, CTarvikClientI2C::GetAddressByteCount(type)) << width;
    }
}

TEST_F(CI2CTest, EachCommandWritesItsOutputsByItsOwnRule)
{
    auto read = [](unsigned short len) -> TCall {
        return [len](CTarvikClientI2C& c, int& result) {
            std::string out(4, '\xEE');
            unsigned short n = kU16;
            result = c.Read(0xA1, &out[0], len, n);
            return Word(n) + " | " + ToHex(out);
        };
    };
    auto eeprom = [](unsigned short len) -> TCall {
        return [len](CTarvikClientI2C& c, int& result) {
            std::string out(4, '\xEE');
            unsigned short n = kU16;
            result = c.ReadEEProm(0, 0, 8, &out[0], len, n);
            return Word(n) + " | " + ToHex(out);
        };
    };
    const TCall write = [](CTarvikClientI2C& c, int& result) {
        unsigned short pos = kU16;
        result = c.Write(0xA0, "\x01", 1, pos);
        return Word(pos);
    };
    const TCall sequence = [](CTarvikClientI2C& c, int& result) {
        std::string out(4, '\xEE');
        unsigned short n = kU16, pos = kU16;
        result = c.WriteSequence("\xA1\x00\x02\x00", 4, &out[0], 2, n, pos);
        return Word(n) + " " + Word(pos) + " | " + ToHex(out);
    };
    const TCall rate = [](CTarvikClientI2C& c, int& result) {
        unsigned int value = 0xDEADBEEF;
        result = c.GetBaudrate(value);
        char text[40];
        std::snprintf(text, sizeof(text), "%X %u", value, c.GetCurrentBaudrate());
        return std::string(text);
    };
    const TCall rawGet = [](CTarvikClientI2C& c, int& result) {
        unsigned char byte = 0xEE;
        result = c.RAWGet(0, byte);
        return Word(byte);
    };
    const std::tuple<const char*, TCall, std::optional<std::string>, int, std::string> cases[] = {
        {"read fills what came", read(4), Frame({0, 1, 2}), 0, "2 | 01 02 EE EE"},
        {"read stops at the buffer", read(2), Frame({0, 1, 2, 3}), 0, "2 | 01 02 EE EE"},
        {"read fills on a device error", read(4), Frame({0x20, 9}), 0x0120, "1 | 09 EE EE EE"},
        {"read: empty answer", read(4), std::string(), 0x0C0100, "0 | EE EE EE EE"},
        {"read: no answer, count cleared", read(4), std::nullopt, TARVIK_ERR_TIMEOUT, "0 | EE EE EE EE"},
        {"eeprom read short form", eeprom(2), Frame({0, 1, 2}), 0, "2 | 01 02 EE EE"},
        {"eeprom read two bytes ahead", eeprom(2), Frame({0, 0xA, 0xB, 1, 2}), 0, "2 | 01 02 EE EE"},
        {"eeprom read one byte ahead", eeprom(2), Frame({0, 0xA, 1, 2}), 0, "2 | 0A 01 EE EE"},
        {"eeprom read on an error", eeprom(4), Frame({0x21, 5}), 0x0121, "1 | 05 EE EE EE"},
        {"eeprom read empty", eeprom(4), std::string(), 0x0C0100, "0 | EE EE EE EE"},
        {"eeprom read no answer", eeprom(4), std::nullopt, TARVIK_ERR_TIMEOUT, "- | EE EE EE EE"},
        {"write error position", write, Frame({0x20, 0x34, 0x12}), 0x0120, "1234"},
        {"write without position", write, Frame({0, 0x34}), 0, "-"},
        {"sequence fills from byte 3", sequence, Frame({0, 5, 0, 0xA, 0xB, 0xC}), 0, "2 5 | 0A 0B EE EE"},
        {"sequence on an error", sequence, Frame({0x20, 1, 0}), 0x0120, "0 1 | EE EE EE EE"},
        {"sequence too short", sequence, Frame({0x20}), 0x0120, "0 - | EE EE EE EE"},
        {"sequence no answer", sequence, std::nullopt, TARVIK_ERR_TIMEOUT, "- - | EE EE EE EE"},
        {"rate on success", rate, Frame({0}) + LE32(400000), 0, "61A80 400000"},
        {"rate on an error: output only", rate, Frame({0xFF}) + LE32(400000), 0x01FF, "61A80 100000"},
        {"rate short", rate, Frame({0, 1, 2}), 0, "DEADBEEF 100000"},
        {"raw get", rawGet, Frame({0, 0x5A}), 0, "5A"},
        {"raw get on an error", rawGet, Frame({0x20, 0x5A}), 0x0120, "EE"},
    };
    for (const auto& c : cases)
        ExpectOutputs(std::get<1>(c), std::get<2>(c), std::get<3>(c), std::get<4>(c), std::get<0>(c));
}

TEST_F(CI2CTest, SetBaudrateStoresTheRateSentOnlyOnSuccess)
{
    AnswerWith(Frame({0x21}));
    EXPECT_EQ(0x0121, m_pClient->SetBaudrate(400));
    EXPECT_EQ(100000u, m_pClient->GetCurrentBaudrate());
    AnswerWith(Frame({0}));
    EXPECT_EQ(0, m_pClient->Open(400));
    EXPECT_EQ(400000u, m_pClient->GetCurrentBaudrate());
}

TEST_F(CI2CTest, CommandSequenceGivesEveryReadStepTheFirstBytesRead)
{
    std::string first(3, '\xEE'), second(3, '\xEE');
    char data[] = {0x00, 0x10};
    CTarvikClientI2C::I2CCommand steps[] = {{0xA0, 2, data}, {0xA1, 3, &first[0]}, {0xA1, 3, &second[0]}};
    AnswerWith(Frame({0, 3, 0, 1, 2, 3, 4}));
    unsigned short pos = kU16;
    EXPECT_EQ(0, m_pClient->WriteSequence(steps, 3, pos));
    EXPECT_EQ(3, pos);
    // Four bytes came: the first step takes three, the second the one left, both from the start.
    EXPECT_EQ("01 02 03", ToHex(first));
    EXPECT_EQ("01 EE EE", ToHex(second));
    EXPECT_EQ(ToHex(Telegram(0x0114, 2, Hex("06 00 A0 00 02 00 00 10 A1 00 03 00 A1 00 03 00"))), ToHex(LastFrame(1)));

    // Without read steps nothing is copied, whatever comes back.
    AnswerWith(Frame({0, 0, 0, 9, 9}));
    CTarvikClientI2C::I2CCommand writeOnly[] = {{0xA0, 2, data}};
    EXPECT_EQ(0, m_pClient->WriteSequence(writeOnly, 1, pos));
    EXPECT_EQ(ToHex(Telegram(0x0114, 3, Hex("00 00 A0 00 02 00 00 10"))), ToHex(LastFrame(2)));
}

TEST_F(CI2CTest, RequestsWhoseAnswerCannotFitAreRefusedWithoutSending)
{
    std::vector<char> big(0xFFFF);
    unsigned short n = kU16;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->Read(0xA1, big.data(), 0xFFFF, n));
    EXPECT_EQ(0, n);
    n = kU16;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->ReadEEProm(0, 0, 16, big.data(), 0xFFFF, n));
    EXPECT_EQ(kU16, n);
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->WriteEEProm(0, 0, 16, nullptr, 4));
    EXPECT_TRUE(m_oGateway.GetFrames().empty());
}

namespace
{
class CI2CSimTest : public CSimFixture<CTarvikSimDeviceI2C, CTarvikClientI2C, eTarvikI2C>
{
protected:
    // At 400 kHz.
    void OpenClient(CTarvikClientI2C& client) override { ASSERT_EQ(0, client.Open(400)); }

    std::string ReadEEProm(unsigned short select, unsigned int offset, unsigned short type, unsigned short len,
                           int& result)
    {
        std::string out(len, '\0');
        unsigned short n = 0;
        result = m_oClient.ReadEEProm(select, offset, type, &out[0], len, n);
        return out.substr(0, n);
    }
};

constexpr unsigned short k24C256 = 0x0010;
constexpr unsigned short k24C04 = 0x0108;
constexpr unsigned short k24C02 = 0x0008;
} // namespace

TEST_F(CI2CSimTest, EepromWrittenPageByPageReadsBackAcrossThePageBoundary)
{
    EXPECT_EQ(400000u, m_pDevice->GetRate());
    // 24C256 pages are 64 bytes: the caller splits at 0x40.
    std::string data;
    for (int i = 0; i < 20; ++i)
        data += static_cast<char>(0x30 + i);
    EXPECT_EQ(0, m_oClient.WriteEEProm(0, 0x3A, k24C256, data.data(), 6));
    EXPECT_EQ(0, m_oClient.WriteEEPromPollAck(0, 0x40, k24C256, data.data() + 6, 14, 1000));
    int result = -1;
    EXPECT_EQ(ToHex(data), ToHex(ReadEEProm(0, 0x3A, k24C256, 20, result)));
    EXPECT_EQ(0, result);
    EXPECT_EQ(ToHex(data), ToHex(m_pDevice->PeekEeprom(CTarvikSimDeviceI2C::eChip24C256, 0x3A, 20)));

    // One write across a 24C02 page (8 bytes) wraps to the start of its page.
    EXPECT_EQ(0, m_oClient.WriteEEProm(4, 0x06, k24C02, "\x01\x02\x03\x04", 4));
    EXPECT_EQ("03 04 FF FF FF FF 01 02 FF", ToHex(ReadEEProm(4, 0, k24C02, 9, result)));
}

TEST_F(CI2CSimTest, HighOffsetBitsRideInTheSlaveAddress)
{
    EXPECT_EQ(0, m_oClient.WriteEEProm(1, 0x1F8, k24C04, "\xAB\xCD", 2));
    EXPECT_EQ("AB CD", ToHex(m_pDevice->PeekEeprom(CTarvikSimDeviceI2C::eChip24C04, 0x1F8, 2)));
    EXPECT_EQ("FF FF", ToHex(m_pDevice->PeekEeprom(CTarvikSimDeviceI2C::eChip24C04, 0xF8, 2)));
    int result = -1;
    EXPECT_EQ("AB CD", ToHex(ReadEEProm(1, 0x1F8, k24C04, 2, result)));
    // The same bytes through a plain write and read of the slave at 0xA6.
    unsigned short pos = 0, n = 0;
    EXPECT_EQ(0, m_oClient.Write(0xA6, "\xF8", 1, pos));
    char out[2] = {};
    EXPECT_EQ(0, m_oClient.Read(0xA7, out, 2, n));
    EXPECT_EQ("AB CD", ToHex(std::string(out, n)));
}

TEST_F(CI2CSimTest, MissingSlaveAndBusyChipAreNotAcknowledged)
{
    int result = -1;
    ReadEEProm(6, 0, k24C02, 2, result); // 0xAC: nobody there
    EXPECT_EQ(0x0120, result);
    EXPECT_EQ("I2C NACK (No Acknowledge)", CTarvikClient::GetErrorMsg(result));
    unsigned char byte = 0;
    EXPECT_EQ(0, m_oClient.RAWStart());
    EXPECT_EQ(0x0120, m_oClient.RAWSend(0xAA, 0));
    EXPECT_EQ(0, m_oClient.RAWStop());
    EXPECT_EQ(0x0120, m_oClient.RAWGet(1, byte));

    // A write cycle far longer than the poll time: the device gives up polling.
    m_pDevice->SetEepromWriteCycleMs(60000);
    EXPECT_EQ(0x0125, m_oClient.WriteEEPromPollAck(4, 0, k24C02, "\x11", 1, 0));
    ReadEEProm(4, 0, k24C02, 1, result);
    EXPECT_EQ(0x0120, result);
    EXPECT_EQ("11", ToHex(m_pDevice->PeekEeprom(CTarvikSimDeviceI2C::eChip24C02, 0, 1)));
}

TEST_F(CI2CSimTest, RawModeAndSequencesReachTheChips)
{
    m_pDevice->PokeEeprom(CTarvikSimDeviceI2C::eChip24C02, 0x10, "\x5A\xA5");
    unsigned char byte = 0;
    EXPECT_EQ(0, m_oClient.RAWStart());
    EXPECT_EQ(0, m_oClient.RAWSend(0xA8, 0));
    EXPECT_EQ(0, m_oClient.RAWSend(0x10, 0));
    EXPECT_EQ(0, m_oClient.RAWStart());
    EXPECT_EQ(0, m_oClient.RAWSend(0xA9, 0));
    EXPECT_EQ(0, m_oClient.RAWGet(0, byte));
    EXPECT_EQ(0x5A, byte);
    EXPECT_EQ(0, m_oClient.RAWGet(1, byte));
    EXPECT_EQ(0xA5, byte);

    char address[] = {0x10};
    std::string read(2, '\0');
    CTarvikClientI2C::I2CCommand steps[] = {{0xA8, 1, address}, {0xA9, 2, &read[0]}};
    unsigned short pos = 0;
    EXPECT_EQ(0, m_oClient.WriteSequence(steps, 2, pos));
    EXPECT_EQ("5A A5", ToHex(read));
    EXPECT_EQ(2, pos);
}
