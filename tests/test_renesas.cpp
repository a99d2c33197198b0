// The Renesas flash programming client against the scripted gateway: exact request
// frames, result codes, and which outputs each read writes or leaves alone.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"

#include "tarvik/clients/TarvikClientRenesas.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
// Sentinels of the outputs: what still holds one was left alone.
constexpr char kUByte = '\xEE';
constexpr unsigned short kUWord = 0xBEEF;
// The payload of every confirmation; none: no answer at all.
typedef std::optional<std::string> TAnswer;
const TAnswer kSilence;
// Runs a command on outputs preset to the sentinels; returns the outputs as text.
typedef std::function<std::string(CTarvikClientRenesas&, int& result)> TCall;

// A page of 256 bytes counting up from first.
std::string Counting(size_t len, int first = 0)
{
    std::string out;
    for (size_t i = 0; i < len; ++i)
        out += static_cast<char>(first + i);
    return out;
}

class CRenesasTest : public CClientFixture<CTarvikClientRenesas>
{
};
} // namespace

TEST_F(CRenesasTest, EachCommandSendsItsExactRequest)
{
    char buf[8];
    unsigned short word = 0;
    unsigned int u = 0;
    const std::pair<std::function<int(CTarvikClientRenesas&)>, std::string> cases[] = {
        {[](CTarvikClientRenesas& c) { return c.Init(); }, "05 00 20 09 02 00 2B"},
        // The ID field is always 7 bytes: the caller's first ones, then the positions 1-based.
        {[](CTarvikClientRenesas& c) { return c.CheckID("ABC", 3); }, "0C 00 21 09 02 00 41 42 43 04 05 06 07 6A"},
        {[](CTarvikClientRenesas& c) { return c.CheckID("0123456789", 10); },
         "0C 00 21 09 02 00 30 31 32 33 34 35 36 1D"},
        {[](CTarvikClientRenesas& c) { return c.CheckID("XYZ", 0); }, "0C 00 21 09 02 00 01 02 03 04 05 06 07 2A"},
        {[](CTarvikClientRenesas& c) { return c.CheckID(nullptr, 5); }, "0C 00 21 09 02 00 01 02 03 04 05 06 07 2A"},
        {[](CTarvikClientRenesas& c) { return c.SetBaudrate(5); }, "06 00 22 09 02 00 05 2C"},
        {[&](CTarvikClientRenesas& c) { return c.ReadPage(0x1234, buf, 8, word); }, "07 00 23 09 02 00 34 12 0E"},
        {[](CTarvikClientRenesas& c) { return c.EraseAll(); }, "05 00 24 09 02 00 2F"},
        {[&](CTarvikClientRenesas& c) { return c.GetVersion(buf, 8); }, "05 00 26 09 02 00 2D"},
        {[](CTarvikClientRenesas& c) { return c.Complete(); }, "05 00 27 09 02 00 2C"},
        {[&](CTarvikClientRenesas& c) { return c.VerifyCheck(0x10, 0x1F, word); }, "09 00 28 09 02 00 10 00 1F 00 2C"},
        {[](CTarvikClientRenesas& c) { return c.BlockErase(0x010F); }, "07 00 29 09 02 00 0F 01 2C"},
        {[&](CTarvikClientRenesas& c) { return c.ReadDigital(u, u); }, "05 00 40 09 02 00 4B"},
        {[](CTarvikClientRenesas& c) { return c.WriteDigital(0x12345678); }, "09 00 41 09 02 00 78 56 34 12 42"},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest(c.first, Hex(c.second), c.second);
}

TEST_F(CRenesasTest, WritePageSendsOneWholeZeroPaddedPage)
{
    const std::string long300 = Counting(300, 1);
    const std::tuple<const char*, unsigned short, std::string> cases[] = {
        // Padded with 0x00, not with the erased value 0xFF.
        {"ten bytes", 10, Counting(10, 1) + std::string(246, '\0')},
        {"a page", 256, long300.substr(0, 256)},
        {"cut at a page", 300, long300.substr(0, 256)},
        {"nothing", 0, std::string(256, '\0')},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest([&](CTarvikClientRenesas& r) { return r.WritePage(0x0102, long300.data(), std::get<1>(c)); },
                      Telegram(0x0925, 2, Hex("02 01") + std::get<2>(c)), std::get<0>(c));
    ExpectRequest([](CTarvikClientRenesas& r) { return r.WritePage(7, nullptr, 10); },
                  Telegram(0x0925, 2, Hex("07 00") + std::string(256, '\0')), "null page");
}

TEST_F(CRenesasTest, DeviceBytesBecomeTheClientsResultCodes)
{
    const std::pair<TAnswer, int> cases[] = {
        {Frame({0}), 0},         {Frame({0x20}), 0x0920}, {Frame({0x21}), 0x0921},   {Frame({0x22, 0x55}), 0x0922},
        {Frame({0x23}), 0x0923}, {Frame({0x07}), 0x0907}, {std::string(), 0x0C0900}, {kSilence, TARVIK_ERR_TIMEOUT},
    };
    for (const auto& c : cases)
    {
        AnswerWith(c.first);
        EXPECT_EQ(c.second, m_pClient->BlockErase(3)) << ToHex(c.first.value_or("none"));
    }
    EXPECT_EQ("Renesas invalid ID", CTarvikClient::GetErrorMsg(0x0921));
    EXPECT_EQ("Renesas program the page failed", CTarvikClient::GetErrorMsg(0x0923));
}

TEST_F(CRenesasTest, EachReadWritesItsOutputsByItsOwnRule)
{
    // received | the 6-byte buffer, of which the client may fill len
    auto readPage = [](unsigned short len) -> TCall {
        return [len](CTarvikClientRenesas& c, int& result) {
            std::string out(6, kUByte);
            unsigned short received = kUWord;
            result = c.ReadPage(1, &out[0], len, received);
            return std::to_string(received) + " | " + ToHex(out);
        };
    };
    auto version = [](unsigned char len) -> TCall {
        return [len](CTarvikClientRenesas& c, int& result) {
            std::string out(6, kUByte);
            result = c.GetVersion(&out[0], len);
            return ToHex(out);
        };
    };
    const TCall checksum = [](CTarvikClientRenesas& c, int& result) {
        unsigned short sum = kUWord;
        result = c.VerifyCheck(0, 3, sum);
        return std::to_string(sum);
    };
    const std::string twenty = "Renesas RX flash 1.2";
    const std::string page = Counting(256, 0xA1);
    const std::tuple<TCall, TAnswer, int, std::string> cases[] = {
        // ReadPage: as much as fits, from any confirmation; nReceived 0 without one.
        {readPage(4), Frame({0}) + page, 0, "4 | A1 A2 A3 A4 EE EE"},
        {readPage(6), Frame({0, 0xA1, 0xA2}), 0, "2 | A1 A2 EE EE EE EE"},
        {readPage(6), Frame({0}), 0, "0 | EE EE EE EE EE EE"},
        {readPage(6), Frame({0x23, 0xA1}), 0x0923, "1 | A1 EE EE EE EE EE"},
        {readPage(6), std::string(), 0x0C0900, "0 | EE EE EE EE EE EE"},
        {readPage(6), kSilence, TARVIK_ERR_TIMEOUT, "0 | EE EE EE EE EE EE"},
        // GetVersion: as much as fits, no terminating zero, also with an error.
        {version(4), Frame({0}) + twenty, 0, "52 65 6E 65 EE EE"},
        {version(6), Frame({0, 'V', '1'}), 0, "56 31 EE EE EE EE"},
        {version(6), Frame({0x20, 'V'}), 0x0920, "56 EE EE EE EE EE"},
        {version(6), std::string(), 0x0C0900, "EE EE EE EE EE EE"},
        {version(6), kSilence, TARVIK_ERR_TIMEOUT, "EE EE EE EE EE EE"},
        // VerifyCheck: any confirmation clears the sum, one with two more bytes sets it.
        {checksum, Frame({0, 0x34, 0x12, 0x99}), 0, "4660"},
        {checksum, Frame({0x22, 0x34, 0x12}), 0x0922, "4660"},
        {checksum, Frame({0}), 0, "0"},
        {checksum, Frame({0x21}), 0x0921, "0"},
        {checksum, Frame({0, 0x34}), 0, "0"},
        {checksum, std::string(), 0x0C0900, "0"},
        {checksum, kSilence, TARVIK_ERR_TIMEOUT, "48879"},
    };
    for (const auto& c : cases)
        ExpectOutputs(std::get<0>(c), std::get<1>(c), std::get<2>(c), std::get<3>(c),
                      ToHex(std::get<1>(c).value_or("none")));
}

TEST_F(CRenesasTest, AnswersThatAreNotTheConfirmationLeaveTheOutputsAlone)
{
    const std::pair<std::function<std::string(const std::string&)>, int> cases[] = {
        {[](const std::string& f) {
             std::string t = Cnf(FrameCmd(f), FrameId(f), Frame({0, 1, 2, 3}));
             t.back() = static_cast<char>(~t.back());
             return t;
         },
         TARVIK_ERR_CRC},
        {[](const std::string& f) {
             return Cnf(FrameCmd(f) + 1, FrameId(f), Frame({0, 1, 2, 3}));
         },
         TARVIK_ERR_NOT_CONFIRMED},
    };
    for (const auto& c : cases)
    {
        m_oGateway.SetHandler(c.first);
        std::string out(4, kUByte);
        unsigned short received = kUWord, sum = kUWord;
        EXPECT_EQ(c.second, m_pClient->ReadPage(0, &out[0], 4, received));
        EXPECT_EQ(0, received);
        EXPECT_EQ(c.second, m_pClient->GetVersion(&out[0], 4));
        EXPECT_EQ(c.second, m_pClient->VerifyCheck(0, 1, sum));
        EXPECT_EQ("EE EE EE EE", ToHex(out));
        EXPECT_EQ(kUWord, sum);
    }
}
