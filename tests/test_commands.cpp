// The commands of every gateway and of the SPI client: exact request frames, result
// codes and which outputs each command writes or leaves alone.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientSPI.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
// Sentinel of the outputs: what still holds it was left alone.
constexpr unsigned int kU = 0xDEADBEEF;
constexpr unsigned char kUByte = 0xEE;
// The payload of every confirmation; none: no answer at all.
typedef std::optional<std::string> TAnswer;
const TAnswer kSilence;
// Runs a command on outputs preset to the sentinels; returns the outputs as text.
typedef std::function<std::string(CTarvikClientSPI&, int& result)> TCall;

// Numbers in hex, "-" for a sentinel.
std::string Nums(std::initializer_list<unsigned int> values)
{
    return HexNumbers(values, kU);
}

class CCommandTest : public CClientFixture<CTarvikClientSPI>
{
};
} // namespace

TEST_F(CCommandTest, EachCommandSendsItsExactRequest)
{
    unsigned int u = 0, values[2] = {1, 0x100};
    unsigned short count = 2;
    unsigned char s = 0;
    std::string text;
    char buf[8];
    short id = 0;
    const std::pair<std::function<int(CTarvikClientSPI&)>, std::string> cases[] = {
        {[](CTarvikClientSPI& c) { return c.Restart(); }, "05 00 0C 03 02 00 0D"},
        {[](CTarvikClientSPI& c) { return c.Info(nullptr); }, "05 00 09 03 02 00 08"},
        {[&](CTarvikClientSPI& c) { return c.Status(text); }, "05 00 0A 03 02 00 0B"},
        {[&](CTarvikClientSPI& c) { return c.BaseReadDigital(u, u); }, "05 00 40 03 02 00 41"},
        {[](CTarvikClientSPI& c) { return c.BaseWriteDigital(0x12345678); }, "09 00 41 03 02 00 78 56 34 12 48"},
        {[&](CTarvikClientSPI& c) { return c.ReadAnalog(u, values, count); }, "05 00 42 03 02 00 43"},
        {[&](CTarvikClientSPI& c) { return c.WriteAnalog(values, 2); }, "0D 00 43 03 02 00 01 00 00 00 00 01 00 00 42"},
        {[&](CTarvikClientSPI& c) { return c.WriteAnalog(values, 0); }, "05 00 43 03 02 00 42"},
        {[](CTarvikClientSPI& c) { return c.SetGlobals(1000000, 1, 2, 3); },
         "0C 00 07 03 02 00 40 42 0F 00 01 02 03 0B"},
        {[&](CTarvikClientSPI& c) { return c.GetGlobals(u, s, s, s); }, "05 00 08 03 02 00 09"},
        // Sent bytes are zero-padded to the receive length.
        {[&](CTarvikClientSPI& c) { return c.DataReq("\x01\x02", 2, buf, 5); }, "0A 00 03 03 02 00 01 02 00 00 00 01"},
        {[&](CTarvikClientSPI& c) { return c.DataReq("\x01\x02\x03", 3, buf, 2); }, "08 00 03 03 02 00 01 02 03 02"},
        {[&](CTarvikClientSPI& c) { return c.SequenceReq("\x10\x20", 2, buf, 8); }, "07 00 14 03 02 00 10 20 25"},
        {[&](CTarvikClientSPI& c) { return c.SequenceReq("\x10\x20", 2, &id); }, "07 00 14 03 02 00 10 20 25"},
        {[](CTarvikClientSPI& c) { return c.WriteDigital(1); }, "09 00 41 03 02 00 01 00 00 00 41"},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest(c.first, Hex(c.second), c.second);
}

TEST_F(CCommandTest, EachCommandWritesItsOutputsByItsOwnRule)
{
    const TCall info = [](CTarvikClientSPI& c, int& result) {
        STarvikDeviceInfo info;
        std::memset(&info, kUByte, sizeof(info));
        result = c.Info(&info);
        return ToHex(std::string(reinterpret_cast<char*>(info.m_abData), sizeof(info)));
    };
    const TCall status = [](CTarvikClientSPI& c, int& result) {
        std::string text = "old";
        result = c.Status(text);
        return text;
    };
    const TCall digital = [](CTarvikClientSPI& c, int& result) {
        unsigned int in = kU, out = kU;
        result = c.BaseReadDigital(in, out);
        return Nums({in, out});
    };
    // count | first value, then the stored values
    auto analog = [](unsigned short capacity) -> TCall {
        return [capacity](CTarvikClientSPI& c, int& result) {
            unsigned int v[4] = {kU, kU, kU, kU};
            unsigned short count = capacity;
            result = c.ReadAnalog(v[0], capacity > 0 ? v + 1 : nullptr, count);
            return std::to_string(count) + " | " + Nums({v[0], v[1], v[2], v[3]});
        };
    };
    // DataReq copies the bytes after the result byte, the waiting SequenceReq from the result byte on.
    auto transfer = [](bool sequence, unsigned short len) -> TCall {
        return [sequence, len](CTarvikClientSPI& c, int& result) {
            std::string out(4, static_cast<char>(kUByte));
            result = sequence ? c.SequenceReq("\x10", 1, &out[0], len) : c.DataReq("\x01", 1, &out[0], len);
            return ToHex(out);
        };
    };
    const std::string cleared = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03 00";
    std::string twentyTwo;
    for (int i = 1; i <= 22; ++i)
        twentyTwo += static_cast<char>(i);
    const std::string words = LE32(0x89ABCDEF) + LE32(0x01234567);
    const std::string values = LE32(0x11111111) + LE32(1) + LE32(2) + LE32(3) + LE32(4);
    const std::tuple<TCall, TAnswer, int, std::string> cases[] = {
        // Info clears the record and marks byte 18 with the device type; up to 20 bytes are copied.
        {info, Frame({0}) + twentyTwo, 0, "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14"},
        {info, Frame({0, 0xAA, 0xBB}), 0, "AA BB" + cleared.substr(5)},
        {info, Frame({0x20}) + twentyTwo, 0x0320, cleared},
        // Status sets the text only from a successful answer with text.
        {status, Frame({0, 'a', 0, 'b'}), 0, std::string("a\0b", 3)},
        {status, Frame({0}), 0, "old"},
        {status, Frame({0x21}) + "Ready", 0x0321, "old"},
        {status, std::string(), 0x0C0300, "old"},
        // Both words are decoded even with a device error; anything shorter returns 0 and writes nothing.
        {digital, Frame({0}) + words + Frame({0x55}), 0, "89ABCDEF 1234567"},
        {digital, Frame({0x20}) + words, 0x0320, "89ABCDEF 1234567"},
        {digital, Frame({0}) + words.substr(0, 7), 0, "- -"},
        {digital, Frame({0x20}), 0, "- -"},
        // ReadAnalog stores what fits, counts what came (whole values only), 0 on failure.
        {analog(2), Frame({0}) + values, 0, "4 | 11111111 1 2 -"},
        {analog(3), Frame({0}) + values.substr(0, 10), 0, "1 | 11111111 1 - -"},
        {analog(0), Frame({0}) + values, 0, "4 | 11111111 - - -"},
        {analog(3), Frame({0, 1, 2, 3}), 0, "0 | - - - -"},
        {analog(3), Frame({0x20}) + values, 0x0320, "0 | - - - -"},
        {transfer(false, 2), Frame({0, 0xA1, 0xA2, 0xA3}), 0, "A1 A2 EE EE"},
        {transfer(false, 4), Frame({0x30, 0xA1}), 0x0330, "A1 EE EE EE"},
        {transfer(false, 4), Frame({0x21}), 0x0321, "EE EE EE EE"},
        {transfer(true, 2), Frame({0, 0xA1, 0xA2, 0xA3}), 0, "00 A1 EE EE"},
        {transfer(true, 4), Frame({0x30, 0xA1}), 0x0330, "30 A1 EE EE"},
        {transfer(true, 4), kSilence, TARVIK_ERR_TIMEOUT, "EE EE EE EE"},
    };
    for (const auto& c : cases)
    {
        AnswerWith(std::get<1>(c));
        int result = -1;
        EXPECT_EQ(std::get<3>(c), std::get<0>(c)(*m_pClient, result)) << ToHex(std::get<1>(c).value_or("none"));
        EXPECT_EQ(std::get<2>(c), result) << ToHex(std::get<1>(c).value_or("none"));
    }
}

TEST_F(CCommandTest, AsynchronousSequenceIsCollectedLaterByItsId)
{
    m_oGateway.SetHandler([](const std::string& f) {
        return Cnf(0x0314, FrameId(f), Frame({0, 0x11, static_cast<int>(FrameId(f))}));
    });
    short first = -1, second = -1;
    EXPECT_EQ(0, m_pClient->SequenceReq("\x10", 1, &first));
    EXPECT_EQ(0, m_pClient->SequenceReq("\x10", 1, &second));
    EXPECT_EQ(2, first);
    EXPECT_EQ(3, second);
    // Collected in the other order; the bytes after the result byte are copied, once.
    std::string out(4, '\xEE');
    EXPECT_EQ(0, m_pClient->SequenceGetCnf(second, &out[0], 4));
    EXPECT_EQ("11 03 EE EE", ToHex(out));
    EXPECT_EQ(0, m_pClient->SequenceGetCnf(first, &out[0], 1));
    EXPECT_EQ("11 03 EE EE", ToHex(out));
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_pClient->SequenceGetCnf(first, &out[0], 4));

    const std::tuple<std::function<std::string(short)>, int, std::string> cases[] = {
        {[](short id) {
             return Cnf(0x0314, id, Frame({0x31, 0x77}));
         },
         0x0331, "77 EE"},
        {[](short id) {
             return Cnf(0x0303, id, Frame({0, 0x77}));
         },
         TARVIK_ERR_NOT_CONFIRMED, "EE EE"},
        {[](short) { return std::string(); }, TARVIK_ERR_TIMEOUT, "EE EE"},
    };
    for (const auto& c : cases)
    {
        auto answer = std::get<0>(c);
        m_oGateway.SetHandler([answer](const std::string& f) { return answer(FrameId(f)); });
        short id = 0;
        ASSERT_EQ(0, m_pClient->SequenceReq("\x10", 1, &id));
        out.assign(2, '\xEE');
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(std::get<1>(c), m_pClient->SequenceGetCnf(id, &out[0], 2));
        EXPECT_EQ(std::get<2>(c), ToHex(out));
        EXPECT_TRUE(std::get<1>(c) != TARVIK_ERR_TIMEOUT ||
                    std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(kTimeoutMs - 10));
    }
}

TEST_F(CCommandTest, PayloadTooLongForATelegramIsRefusedWithoutSending)
{
    // The length field counts data + 5 in 16 bits: 65530 bytes of data at most. A
    // transfer's answer (result byte + one byte per byte clocked) must also arrive in
    // a frame of at most 65535 bytes: 65527 bytes clocked at most.
    AnswerWith(Frame({0}));
    const std::string tooLong(65531, '\x5A');
    std::string recv(2, '\xEE');
    short id = 77;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->DataReq(tooLong.data(), 65531, &recv[0], 2));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->DataReq(tooLong.data(), 65528, &recv[0], 2));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->DataReq(tooLong.data(), 2, &recv[0], 65528));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->SequenceReq(tooLong.data(), 65531, &recv[0], 2));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->SequenceReq(tooLong.data(), 65531, &id));
    EXPECT_EQ("EE EE", ToHex(recv));
    EXPECT_EQ(77, id);
    // The longest of each goes out whole, and the stream stays in step after the refusals.
    EXPECT_EQ(0, m_pClient->DataReq(tooLong.data(), 65527, &recv[0], 2));
    EXPECT_EQ(0, m_pClient->SequenceReq(tooLong.data(), 65530, &recv[0], 2));
    EXPECT_EQ(0, m_pClient->SequenceReq(tooLong.data(), 65530, &id));
    EXPECT_EQ(0, m_pClient->WriteDigital(1));
    std::vector<std::string> frames = Frames(4);
    ASSERT_EQ(4u, frames.size());
    EXPECT_EQ(Telegram(0x0303, 2, tooLong.substr(4)), frames[0]);
    EXPECT_EQ(Telegram(0x0314, 3, tooLong.substr(1)), frames[1]);
    EXPECT_EQ(Telegram(0x0314, id, tooLong.substr(1)), frames[2]);
    EXPECT_EQ(0x0341u, FrameCmd(frames[3]));
}

TEST(TarvikClientSPIHelpers, OffsetBytesAndEEPROMSlaveAddress)
{
    for (int format = 0; format <= 5; ++format)
        EXPECT_EQ(format >= 1 && format <= 4 ? Hex("01 02 03 04").substr(4 - format) : "",
                  CTarvikClientSPI::ToOffset(0x01020304, static_cast<EOffsetFormat>(format)))
            << format;
    // Flags: bits 0..7 word address bits, bits 8..9 extra bits that ride in the address.
    const unsigned int cases[][4] = {
        {0, 0x0134, 0x0108, 0xA2},  // 8 address bits, one extra: offset bit 8 in bit 1
        {5, 0x0000, 0x0010, 0xAA},  // no extra bits: three sub-address bits
        {0, 0x0134, 0x0008, 0xA0},  // without extra bits the offset stays out
        {7, 0x03FF, 0x0208, 0xAE},  // two extra bits, one sub-address bit
        {0, 0x10000, 0x0114, 0xA2}, // more than 16 address bits count as 16
        {2, 0x1234, 0x0410, 0xA4},  // flag bits above bit 9 are ignored
    };
    for (const auto& c : cases)
        EXPECT_EQ(c[3], CTarvikClientSPI::GetEEPROMSlaveAddress(static_cast<unsigned short>(c[0]), c[1], c[2]))
            << std::hex << c[0] << " " << c[1] << " " << c[2];
}
