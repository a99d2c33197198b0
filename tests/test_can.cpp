// The CAN client: exact requests, which outputs each command writes or leaves alone on
// short, odd and failing answers, the signed value decodes, the SDO wait and block
// copy, and the two write modes.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"
#include "support/SdoCases.h"

#include "tarvik/clients/TarvikClientCAN.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <tuple>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kSentinel = 0xEEEEEEEE;
typedef std::function<int(CTarvikClientCAN&)> TOp;
// Runs a command on outputs preset to sentinels; returns the outputs as text.
typedef std::function<std::string(CTarvikClientCAN&, int& result)> TCall;

// An answer beats the time-out even on a loaded machine; the cases that expect a
// time-out pay it.
class CCANTest : public CClientFixture<CTarvikClientCAN, 1000>
{
};
} // namespace

TEST_F(CCANTest, EachCommandSendsItsExactRequest)
{
    bool b1 = false, b2 = false, b3 = false, b4 = false, b5 = false;
    unsigned char u8 = 0, u8b = 0, u8c = 0;
    unsigned short u16 = 0, u16b = 0;
    short s16 = 0;
    unsigned int u32 = 0, u32b = 0;
    unsigned char block[16];
    timeval tv = {};
    CTarvikClientCAN::SConfigFilter filter = {};
    std::string filterBytes;
    for (unsigned int i = 0; i < 16; ++i)
    {
        filter.nFilter[i] = 0x11223300u + i;
        filterBytes += LE32(0x11223300u + i);
    }
    // Command code and data field of each request, written out by hand.
    const std::tuple<const char*, TOp, unsigned int, std::string> cases[] = {
        {"set config", [](CTarvikClientCAN& c) { return c.SetConfig(true, false); }, 0x0205, "01 00"},
        {"get config", [&](CTarvikClientCAN& c) { return c.GetConfig(b1, b2); }, 0x0206, ""},
        {"set filter: sixteen words in order", [&](CTarvikClientCAN& c) { return c.SetFilter(filter); }, 0x0220,
         ToHex(filterBytes)},
        {"get filter", [&](CTarvikClientCAN& c) { return c.GetFilter(filter); }, 0x0221, ""},
        {"set globals: setting ahead of the rate",
         [](CTarvikClientCAN& c) { return c.SetGlobals(125000, 7, true, false, true, true, 0x12345678, false); },
         0x0207, "07 48 E8 01 00 01 00 01 01 78 56 34 12 00"},
        {"get globals", [&](CTarvikClientCAN& c) { return c.GetGlobals(u32, u8, b1, b2, b3, b4, u32b, b5); }, 0x0208,
         ""},
        {"z-card: third value twice", [](CTarvikClientCAN& c) { return c.SetZCardParameter(1, 0x0203, 0x0405); },
         0x0251, "01 03 02 05 04 05 04"},
        {"get z-card", [&](CTarvikClientCAN& c) { return c.GetZCardParameter(u8, u16, u16b); }, 0x0252, ""},
        {"set time",
         [](CTarvikClientCAN& c) {
             return c.SetTime(timeval{0x12345678, 999999});
         },
         0x020B, "78 56 34 12 3F 42 0F 00"},
        {"set time signed",
         [](CTarvikClientCAN& c) {
             return c.SetTime(timeval{-1, -2});
         },
         0x020B, "FF FF FF FF FE FF FF FF"},
        {"get time", [&](CTarvikClientCAN& c) { return c.GetTime(b1, tv); }, 0x020E, ""},
        {"power status",
         [&](CTarvikClientCAN& c) {
             return c.GetPowerStatus(0, u8, 0, u8b, 0, u8c, s16, u16, u16b, b1, nullptr, nullptr, nullptr);
         },
         0x0222, ""},
        {"power relay", [](CTarvikClientCAN& c) { return c.SetPowerRelais(true); }, 0x0223, "01"},
        {"supplies", [](CTarvikClientCAN& c) { return c.SetActivePowerSupplies(0x12345678); }, 0x0224, "78 56 34 12"},
        {"write", [](CTarvikClientCAN& c) { return c.Write(0x123, "\x11\x22", 2, 0x81, nullptr, nullptr); }, 0x0203,
         "23 01 00 00 81 11 22"},
        {"write without data", [](CTarvikClientCAN& c) { return c.Write(-1, nullptr, 4, 0, nullptr, nullptr); }, 0x0203,
         "FF FF FF FF 00"},
        {"cyclic on", [](CTarvikClientCAN& c) { return c.SetCyclicMessage(5, true, 100, 0x7FF, "\xAA", 1, 2); }, 0x0225,
         "85 64 00 00 00 FF 07 00 00 02 AA"},
        {"cyclic off", [](CTarvikClientCAN& c) { return c.SetCyclicMessage(5, false, 1, 1, nullptr, 0, 0); }, 0x0225,
         "05 01 00 00 00 01 00 00 00 00"},
        {"cyclic: index bit 7 kept",
         [](CTarvikClientCAN& c) { return c.SetCyclicMessage(0x85, false, 0, 0, "", 0, 0); }, 0x0225,
         "85 00 00 00 00 00 00 00 00 00"},
        {"canopen mode", [](CTarvikClientCAN& c) { return c.CANopenSetConfig(3); }, 0x0260, "03"},
        {"canopen get mode", [&](CTarvikClientCAN& c) { return c.CANopenGetConfig(u8); }, 0x0261, ""},
        {"sync mode", [](CTarvikClientCAN& c) { return c.CANopenSetSYNCMode(0x1234); }, 0x0262, "34 12"},
        {"nmt", [](CTarvikClientCAN& c) { return c.CANopenSendNMT(5, 0x81); }, 0x0263, "05 81"},
        {"sync", [](CTarvikClientCAN& c) { return c.CANopenSendSYNC(); }, 0x0264, ""},
        {"time", [](CTarvikClientCAN& c) { return c.CANopenSendTIME(0x1234, 0x89ABCDEF); }, 0x0265,
         "34 12 EF CD AB 89"},
        {"pdo: no length byte", [](CTarvikClientCAN& c) { return c.CANopenSendPDO(1, 2, 3, "\x0A\x0B\x0C"); }, 0x0267,
         "01 02 0A 0B 0C"},
        {"sdo read", [&](CTarvikClientCAN& c) { return c.CANopenSendSDORead(0x22, 0x1000, 1, 500, u8, u32); }, 0x0268,
         "22 00 10 01 F4 01"},
        {"sdo write: size after node",
         [&](CTarvikClientCAN& c) { return c.CANopenSendSDOWrite(0x22, 4, 0x2000, 2, 100, 0xDEADBEEF, u8, u32); },
         0x0269, "22 04 00 20 02 64 00 EF BE AD DE"},
        {"sdo read block",
         [&](CTarvikClientCAN& c) { return c.CANopenSendSDOReadBlock(0x22, 0x1008, 0, 300, 16, u8, u16, block); },
         0x026A, "22 08 10 00 2C 01"},
        {"sdo write block",
         [&](CTarvikClientCAN& c) {
             const unsigned char data[] = {1, 2, 3};
             return c.CANopenSendSDOWriteBlock(0x22, 0x1F50, 1, 1000, 3, data, u8, u32);
         },
         0x026B, "22 50 1F 01 E8 03 01 02 03"},
        {"sdo read value: the same request",
         [&](CTarvikClientCAN& c) {
             // The answer here is a result byte alone: no SDO value.
             CTarvikClientCAN::SSDOValue v{};
             return c.CANopenSDOReadValue(0x22, 0x1000, 1, 500, v) == TARVIK_ERR_CNF_INVALID ? 0 : -1;
         },
         0x0268, "22 00 10 01 F4 01"},
        {"sdo write value: the same request",
         [&](CTarvikClientCAN& c) {
             CTarvikClientCAN::SSDOValue v{};
             return c.CANopenSDOWriteValue(0x22, 4, 0x2000, 2, 100, 0xDEADBEEF, v) == TARVIK_ERR_CNF_INVALID ? 0 : -1;
         },
         0x0269, "22 04 00 20 02 64 00 EF BE AD DE"},
        {"sdo write block: address alone",
         [&](CTarvikClientCAN& c) { return c.CANopenSendSDOWriteBlock(0x22, 0x1F50, 1, 1000, 0, nullptr, u8, u32); },
         0x026B, "22 50 1F 01 E8 03"},
    };
    AnswerWith(Frame({0}));
    for (const auto& c : cases)
        ExpectRequest(std::get<1>(c), Telegram(std::get<2>(c), 2, Hex(std::get<3>(c))), std::get<0>(c));
}

TEST_F(CCANTest, EachCommandWritesItsOutputsByItsOwnRule)
{
    auto u = [](unsigned int v) { return v; };
    const TCall config = [u](CTarvikClientCAN& c, int& result) {
        bool a = false, b = true;
        result = c.GetConfig(a, b);
        return HexNumbers({u(a), u(b)}, 0xFF);
    };
    const TCall filter = [](CTarvikClientCAN& c, int& result) {
        CTarvikClientCAN::SConfigFilter f;
        for (unsigned int& word : f.nFilter)
            word = kSentinel;
        result = c.GetFilter(f);
        return HexNumbers({f.nFilter[0], f.nFilter[15]}, kSentinel);
    };
    const TCall globals = [](CTarvikClientCAN& c, int& result) {
        unsigned int rate = kSentinel, option = kSentinel;
        unsigned char setting = 0xEE;
        bool f1 = true, f2 = true, f3 = true, o1 = true, o2 = true;
        result = c.GetGlobals(rate, setting, f1, f2, f3, o1, option, o2);
        return HexNumbers({rate, setting, f1, f2, f3, o1, option, o2}, kSentinel) +
               (setting == 0xEE ? " untouched" : "");
    };
    const TCall zcard = [](CTarvikClientCAN& c, int& result) {
        unsigned char p1 = 0xEE;
        unsigned short p2 = 0xEEEE, p3 = 0xEEEE;
        result = c.GetZCardParameter(p1, p2, p3);
        return HexNumbers({p1, p2, p3}, 0xEEEE);
    };
    const TCall clock = [](CTarvikClientCAN& c, int& result) {
        bool valid = false;
        timeval tv = {0xEEEE, 0xEEEE};
        result = c.GetTime(valid, tv);
        return HexNumbers({valid, static_cast<unsigned int>(tv.tv_sec), static_cast<unsigned int>(tv.tv_usec)}, 0xEEEE);
    };
    // Capacity 2 values, 2 and 1 states; every slot preset to its sentinel.
    const TCall power = [](CTarvikClientCAN& c, int& result) {
        unsigned char n = 0xEE, n1 = 0xEE, n2 = 0xEE;
        short s1 = 0x7EEE;
        unsigned short s2 = 0xEEEE, s3 = 0xEEEE, values[3] = {0xEEEE, 0xEEEE, 0xEEEE};
        bool bit = false, states1[3] = {true, true, true}, states2[2] = {false, false};
        result = c.GetPowerStatus(2, n, 2, n1, 1, n2, s1, s2, s3, bit, values, states1, states2);
        return HexNumbers({n, n1, n2, static_cast<unsigned short>(s1), s2, s3, bit}, 0xEE) + " | " +
               HexNumbers({values[0], values[1], values[2]}, 0xEEEE) + " | " +
               HexNumbers({states1[0], states1[1], states1[2], states2[0], states2[1]}, 0xEE);
    };
    const TCall mode = [](CTarvikClientCAN& c, int& result) {
        unsigned char m = 0xEE;
        result = c.CANopenGetConfig(m);
        return HexNumbers({m}, 0xEE);
    };
    auto sdoBlock = [](unsigned short capacity) -> TCall {
        return [capacity](CTarvikClientCAN& c, int& result) {
            unsigned char status = 0xEE, buf[10];
            unsigned short n = 0xEEEE;
            std::fill(buf, buf + 10, 0xEE);
            result = c.CANopenSendSDOReadBlock(1, 0x1000, 0, 1000, capacity, status, n, buf);
            return HexNumbers({status, n}, 0xEEEE) + " | " + ToHex(std::string(buf, buf + 10));
        };
    };
    // Confirmed mode first, then the frame's answer.
    auto write = [this](std::optional<std::string> answer) -> TCall {
        return [this, answer](CTarvikClientCAN& c, int& result) {
            int sec = 0x0EEEEEEE, us = 0x0EEEEEEE;
            AnswerWith(Frame({0}));
            EXPECT_EQ(0, c.SetConfig(true, false));
            AnswerWith(answer);
            result = c.Write(1, "\x01", 1, 0, &sec, &us);
            return HexNumbers({static_cast<unsigned int>(sec), static_cast<unsigned int>(us)}, 0x0EEEEEEE);
        };
    };
    const std::tuple<const char*, TCall, std::optional<std::string>, int, std::string> cases[] = {
        {"config: exactly 1 is true", config, Hex("00 01 02"), 0, "1 0"},
        {"config: second flag", config, Hex("00 00 01"), 0, "0 1"},
        {"config: two bytes leave both", config, Hex("00 01"), 0, "0 1"},
        {"config: error leaves both", config, Hex("21 01 00"), 0x0221, "0 1"},
        {"filter: all sixteen", filter, Frame({0}) + LE32(7) + std::string(56, '\0') + LE32(0xA5A5A5A5), 0,
         "7 A5A5A5A5"},
        {"filter: 64 bytes leave it", filter, Frame({0}) + std::string(63, '\x01'), 0, "- -"},
        {"globals: five bytes leave all", globals, Hex("00 07 48 E8 01"), 0, "- EE 1 1 1 1 - 1 untouched"},
        {"globals: six bytes clear the rest", globals, Hex("00 07 48 E8 01 00"), 0, "1E848 7 0 0 0 0 0 0"},
        {"globals: flags exactly 1", globals, Hex("00 07 48 E8 01 00 01 02 01"), 0, "1E848 7 1 0 1 0 0 0"},
        {"globals: fourteen bytes, option2 false", globals, Hex("00 07 48 E8 01 00 01 01 01 02 78 56 34 12"), 0,
         "1E848 7 1 1 1 1 12345678 0"},
        {"globals: all fields", globals, Hex("00 07 48 E8 01 00 01 01 01 00 78 56 34 12 09"), 0,
         "1E848 7 1 1 1 0 12345678 1"},
        {"globals: option value needs all of it", globals, Hex("00 07 48 E8 01 00 01 01 01 02 78 56 34"), 0,
         "1E848 7 1 1 1 0 0 0"},
        {"globals: error", globals, Hex("24 07 48 E8 01 00 01"), 0x0224, "- EE 1 1 1 1 - 1 untouched"},
        {"z-card: signed bytes", zcard, Hex("00 07 80 01 FF 7F"), 0, "7 80 7EFF"},
        {"z-card: five bytes leave all", zcard, Hex("00 07 80 01 FF"), 0, "EE - -"},
        {"time", clock, Frame({0, 2}) + LE32(0xFFFFFFFB) + LE32(7), 0, "1 FFFFFFFB 7"},
        {"time: nine bytes leave all", clock, Frame({0, 1}) + LE32(5) + Hex("07 00 00"), 0, "0 - -"},
        {"power: counts from the device, states after all values", power,
         Hex("00 04 02 01 FE FF 34 12 78 56 03 01 00 02 00 03 00 04 00 01 00 03"), 0,
         "4 2 1 FFFE 1234 5678 1 | 1 2 - | 1 0 1 1 0"},
        {"power: announced entries missing stay alone", power, Hex("00 04 02 01 FE FF 34 12 78 56 00 01 00 02"), 0,
         "4 2 1 FFFE 1234 5678 0 | 1 - - | 1 1 1 0 0"},
        {"power: twelve bytes leave all", power, Hex("00 04 02 01 FE FF 34 12 78 56 03 01"), 0,
         "- - - 7EEE EEEE EEEE 0 | - - - | 1 1 1 0 0"},
        {"canopen mode: result byte alone gives 0", mode, Hex("00"), 0, "0"},
        {"canopen mode", mode, Hex("00 05"), 0, "5"},
        {"canopen mode: error", mode, Hex("FE 05"), 0x02FE, "-"},
        {"read block: capacity 4 from the status byte on", sdoBlock(4), Hex("00 07 01 02 03 04 05 06 07 08"), 0,
         "7 4 | 07 01 02 03 EE EE EE EE EE EE"},
        {"read block: last data byte not copied", sdoBlock(10), Hex("00 07 01 02 03 04 05 06 07 08"), 0,
         "7 8 | 07 01 02 03 04 05 06 07 EE EE"},
        {"read block: status alone", sdoBlock(10), Hex("00 07"), 0, "7 0 | EE EE EE EE EE EE EE EE EE EE"},
        {"read block: result byte alone", sdoBlock(10), Hex("00"), 0, "EE - | EE EE EE EE EE EE EE EE EE EE"},
        {"read block: error", sdoBlock(10), Hex("FC 07 01"), 0x02FC, "EE - | EE EE EE EE EE EE EE EE EE EE"},
        {"write: device time", write(Frame({0}) + LE32(100) + LE32(200)), std::nullopt, 0, "64 C8"},
        {"write: device time with an error", write(Frame({0x21}) + LE32(100) + LE32(200)), std::nullopt, 0x0221,
         "64 C8"},
        {"write: eight bytes leave both", write(Frame({0}) + LE32(100) + Hex("C8 00 00")), std::nullopt, 0, "- -"},
        {"write: no answer", write(std::nullopt), std::nullopt, TARVIK_ERR_TIMEOUT, "- -"},
    };
    for (const auto& c : cases)
        ExpectOutputs(std::get<1>(c), std::get<2>(c), std::get<3>(c), std::get<4>(c), std::get<0>(c));
}

// The three SDO transfers that answer a status and a value decode them alike: each value
// byte signed and added at its place.
TEST_F(CCANTest, SDOValueBytesAreSummedWithTheirSign)
{
    const std::function<int(CTarvikClientCAN&, unsigned char&, unsigned int&)> transfers[] = {
        [](CTarvikClientCAN& c, unsigned char& s, unsigned int& v) {
            return c.CANopenSendSDORead(1, 2, 3, 1000, s, v);
        },
        [](CTarvikClientCAN& c, unsigned char& s, unsigned int& v) {
            return c.CANopenSendSDOWrite(1, 4, 2, 3, 1000, 0, s, v);
        },
        [](CTarvikClientCAN& c, unsigned char& s, unsigned int& v) {
            return c.CANopenSendSDOWriteBlock(1, 2, 3, 1000, 0, nullptr, s, v);
        },
    };
    const std::tuple<const char*, std::string, int, std::string> cases[] = {
        {"one byte", "00 00 2A", 0, "0 2A"},
        {"one byte 0xFF", "00 00 FF", 0, "0 FFFFFFFF"},
        {"0x92 borrows", "00 00 34 92 00 00", 0, "0 FFFF9234"},
        {"0xFF then zeros", "00 00 FF 00 00 00", 0, "0 FFFFFFFF"},
        {"all four plain", "00 03 78 56 34 12", 0, "3 12345678"},
        {"extra bytes ignored", "00 03 01 00 00 00 77", 0, "3 1"},
        {"status alone leaves the value", "00 05", 0, "5 -"},
        {"result byte alone", "00", 0, "EE -"},
        {"device error", "FD 05 01", 0x02FD, "EE -"},
    };
    for (const auto& transfer : transfers)
        for (const auto& c : cases)
        {
            NewClient();
            AnswerWith(Hex(std::get<1>(c)));
            unsigned char status = 0xEE;
            unsigned int value = kSentinel;
            EXPECT_EQ(std::get<2>(c), transfer(*m_pClient, status, value)) << std::get<0>(c);
            EXPECT_EQ(std::get<3>(c), HexNumbers({status, value}, kSentinel)) << std::get<0>(c);
        }
}

// The ...Value services take the value bytes as they came, unsigned, with their count,
// and the node's abort code from a failed answer; what is no SDO value is refused.
TEST_F(CCANTest, SDOValuesComeAsReceivedWithTheNodesAbortCode)
{
    constexpr unsigned int kNoSentinel = 0xFFFFFFFE; // every output is printed as it is
    typedef std::function<int(CTarvikClientCAN&, CTarvikClientCAN::SSDOValue&)> TTransfer;
    const TTransfer transfers[] = {
        [](CTarvikClientCAN& c, CTarvikClientCAN::SSDOValue& v) { return c.CANopenSDOReadValue(1, 2, 3, 1000, v); },
        [](CTarvikClientCAN& c, CTarvikClientCAN::SSDOValue& v) {
            return c.CANopenSDOWriteValue(1, 4, 2, 3, 1000, 0, v);
        },
        [](CTarvikClientCAN& c, CTarvikClientCAN::SSDOValue& v) {
            return c.CANopenSDOWriteBlockValue(1, 2, 3, 1000, 0, nullptr, v);
        },
    };
    // Answer payload; result; status size value abort code.
    std::vector<std::tuple<std::string, std::string, int, std::string>> cases;
    for (const SSdoCase& c : kSdoCases)
        cases.emplace_back(
            c.m_pName,
            c.m_nSize != 0 ? "00 00 " + std::string(c.m_pValueBytes) : "FD 80 " + ToHex(LE32(c.m_nAbortCode)),
            c.m_nSize != 0 ? 0 : 0x02FD, HexNumbers({0, c.m_nSize, c.m_nValue, c.m_nAbortCode}, kNoSentinel));
    cases.insert(cases.end(), {
                                  {"0x191 in four bytes", "00 00 91 01 00 00", 0, "0 4 191 0"},
                                  {"a status and no value", "00 07", 0, "7 0 0 0"},
                                  {"NACK without an abort code", "FD 05 01", 0x02FD, "0 0 0 0"},
                                  {"abort code cut short", "FD 80 00 00 02", 0x02FD, "0 0 0 0"},
                                  {"node silent", "FC", 0x02FC, "0 0 0 0"},
                                  {"no status byte", "00", TARVIK_ERR_CNF_INVALID, "0 0 0 0"},
                                  {"five value bytes", "00 00 01 02 03 04 05", TARVIK_ERR_CNF_INVALID, "0 0 0 0"},
                              });
    for (const TTransfer& transfer : transfers)
        for (const auto& c : cases)
        {
            NewClient();
            AnswerWith(Hex(std::get<1>(c)));
            CTarvikClientCAN::SSDOValue v{0xEE, 0xEE, kSentinel, kSentinel};
            EXPECT_EQ(std::get<2>(c), transfer(*m_pClient, v)) << std::get<0>(c);
            EXPECT_EQ(std::get<3>(c), HexNumbers({v.nStatus, v.nSize, v.nValue, v.nAbortCode}, kNoSentinel))
                << std::get<0>(c);
        }

    // The block read keeps every data byte after the status, and names an abort alike.
    const std::tuple<const char*, int, std::string> blocks[] = {
        {"00 07 01 02 03", 0, "7 0 | 01 02 03"},
        {"FD 80 00 00 02 06", 0x02FD, "EE 6020000 | "},
        {"00", TARVIK_ERR_CNF_INVALID, "EE 0 | "},
    };
    for (const auto& c : blocks)
    {
        NewClient();
        AnswerWith(Hex(std::get<0>(c)));
        unsigned char status = 0xEE;
        unsigned int abortCode = kSentinel;
        std::string data = "old";
        EXPECT_EQ(std::get<1>(c), m_pClient->CANopenSDOReadBlockData(1, 2, 3, 1000, status, data, abortCode));
        EXPECT_EQ(std::get<2>(c), HexNumbers({status, abortCode}, kNoSentinel) + " | " + ToHex(data)) << std::get<0>(c);
    }
    EXPECT_STREQ("object does not exist", CTarvikClientCAN::GetSDOAbortText(0x06020000));
    EXPECT_STREQ("unknown abort code", CTarvikClientCAN::GetSDOAbortText(0x12345678));
}

// Every SDO service waits twice its device time-out, not once and not the client's own
// time-out (1 s): the gateway answers after 1.5 device time-outs.
TEST_F(CCANTest, SDOTransfersWaitTwiceTheDeviceTimeout)
{
    constexpr unsigned short kDeviceMs = 2000;
    struct SOut
    {
        unsigned char s = 0, b[4] = {};
        unsigned short n = 0;
        unsigned int v = 0;
        std::string d;
        CTarvikClientCAN::SSDOValue value;
    };
    typedef std::function<int(CTarvikClientCAN&, SOut&)> TCall;
    const TCall calls[] = {
        [](CTarvikClientCAN& c, SOut& o) { return c.CANopenSendSDORead(1, 0x1000, 0, kDeviceMs, o.s, o.v); },
        [](CTarvikClientCAN& c, SOut& o) { return c.CANopenSendSDOWrite(1, 4, 0x1000, 0, kDeviceMs, 0, o.s, o.v); },
        [](CTarvikClientCAN& c, SOut& o) {
            return c.CANopenSendSDOReadBlock(1, 0x1000, 0, kDeviceMs, 4, o.s, o.n, o.b);
        },
        [](CTarvikClientCAN& c, SOut& o) {
            return c.CANopenSendSDOWriteBlock(1, 0x1000, 0, kDeviceMs, 1, o.b, o.s, o.v);
        },
        [](CTarvikClientCAN& c, SOut& o) { return c.CANopenSDOReadValue(1, 0x1000, 0, kDeviceMs, o.value); },
        [](CTarvikClientCAN& c, SOut& o) { return c.CANopenSDOWriteValue(1, 4, 0x1000, 0, kDeviceMs, 0, o.value); },
        [](CTarvikClientCAN& c, SOut& o) {
            return c.CANopenSDOWriteBlockValue(1, 0x1000, 0, kDeviceMs, 1, o.b, o.value);
        },
        [](CTarvikClientCAN& c, SOut& o) { return c.CANopenSDOReadBlockData(1, 0x1000, 0, kDeviceMs, o.s, o.d, o.v); },
    };
    // The gateway runs each client's handler on a thread of its own: one client per
    // service, so that every answer comes 1.5 device time-outs after its request.
    m_oGateway.SetHandler([](const std::string& f) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kDeviceMs * 3 / 2));
        return Cnf(FrameCmd(f), FrameId(f), Hex("00 00 01"));
    });
    std::vector<std::future<int>> results;
    for (const TCall& call : calls)
        results.push_back(std::async(std::launch::async, [this, call] {
            CTarvikClientCAN client(1000);
            SOut out;
            int rc = client.Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort());
            return rc != 0 ? rc : call(client, out);
        }));
    for (size_t i = 0; i < results.size(); ++i)
        EXPECT_EQ(0, results[i].get()) << "service " << i;
    // A device time-out of 50 ms is waited 100 ms; other commands wait the client's time-out.
    m_oGateway.SetHandler(nullptr);
    SOut out;
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_pClient->CANopenSendSDOWrite(1, 4, 0x1000, 0, 50, 0, out.s, out.v));
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_pClient->CANopenSendSYNC());
}

// Write waits for each frame's confirmation only while the device accepted that mode.
TEST_F(CCANTest, WriteWaitsOnlyInTheModeTheDeviceAccepted)
{
    const std::tuple<const char*, std::function<int(CTarvikClientCAN&)>, std::string, int, int> cases[] = {
        {"set accepted", [](CTarvikClientCAN& c) { return c.SetConfig(true, false); }, "00", 0, TARVIK_ERR_TIMEOUT},
        {"open accepted", [](CTarvikClientCAN& c) { return c.Open(true, true); }, "00", 0, TARVIK_ERR_TIMEOUT},
        {"set refused keeps the old mode", [](CTarvikClientCAN& c) { return c.SetConfig(true, false); }, "21", 0x0221,
         0},
        {"read from the device",
         [](CTarvikClientCAN& c) {
             bool a, b;
             return c.GetConfig(a, b);
         },
         "00 01 00", 0, TARVIK_ERR_TIMEOUT},
        {"short read keeps the old mode",
         [](CTarvikClientCAN& c) {
             bool a, b;
             return c.GetConfig(a, b);
         },
         "00 01", 0, 0},
    };
    for (const auto& c : cases)
    {
        NewClient();
        AnswerWith(Hex(std::get<2>(c)));
        EXPECT_EQ(std::get<3>(c), std::get<1>(c)(*m_pClient)) << std::get<0>(c);
        AnswerWith(std::nullopt);
        EXPECT_EQ(std::get<4>(c), m_pClient->Write(1, "\x01", 1, 0, nullptr, nullptr)) << std::get<0>(c);
    }
}

TEST_F(CCANTest, UnconfirmedWriteGivesTheLocalWallClock)
{
    int sec = 0, us = -1, only = 0;
    time_t before = std::time(nullptr);
    struct tm local;
    localtime_r(&before, &local);
    ASSERT_EQ(0, m_pClient->Write(0x10, "\x01", 1, 0, &sec, &us));
    EXPECT_NEAR(static_cast<double>(before + local.tm_gmtoff), static_cast<double>(sec), 2.0);
    EXPECT_GE(us, 0);
    EXPECT_LT(us, 1000000);
    ASSERT_EQ(0, m_pClient->Write(0x10, nullptr, 0, 0, &only, nullptr));
    EXPECT_NEAR(static_cast<double>(sec), static_cast<double>(only), 2.0);
    EXPECT_EQ(2u, Frames(2).size());
}

TEST_F(CCANTest, StartAliveSendsNothing)
{
    AnswerWith(Frame({0}));
    EXPECT_EQ(0, m_pClient->StartAlive(3));
    EXPECT_EQ(0, m_pClient->Restart());
    // Only the restart went out.
    EXPECT_EQ(1u, Frames(1).size());
}
