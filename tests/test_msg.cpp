// The telegram: frame layout, parse rules, check byte and the little-endian encoders.
#include "support/FakeGateway.h"

#include "tarvik/core/TarvikMsg.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>

using namespace tarvik_test;

namespace
{
CTarvikMsg Parse(const std::string& frame, bool* valid = nullptr)
{
    CTarvikMsg msg;
    bool result = msg.SetMessage(frame.data(), static_cast<unsigned short>(frame.size()));
    if (valid != nullptr)
        *valid = result;
    return msg;
}

std::string RandomBytes(size_t size, unsigned int seed)
{
    std::mt19937 gen(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = static_cast<char>(gen() & 0xFF);
    return out;
}
} // namespace

TEST(TarvikMsg, BuildsTheFrameLowByteFirstWithTheCheckByteLast)
{
    struct SCase
    {
        unsigned short m_nCmd;
        short m_nID;
        std::string m_sData;
        std::string m_sFrame;
    };
    const SCase cases[] = {
        // 0x0C ^ 0x03 ^ 0x02 ^ 0x00
        {0x030C, 2, "", Hex("05 00 0C 03 02 00 0D")},
        {0x0303, 0x1234, Frame({1, 2, 3}), Hex("08 00 03 03 34 12 01 02 03 26")},
        // A negative id goes out as its two's complement.
        {0x0303, -2, Frame({0xAA}), Hex("06 00 03 03 FE FF AA AB")},
        // Zero bytes inside the data are data like any other.
        {0x0307, 2, Frame({0x40, 0x42, 0x0F, 0x00, 0x01, 0x02, 0x03}),
         Hex("0C 00 07 03 02 00 40 42 0F 00 01 02 03 0B")},
    };
    for (const SCase& c : cases)
    {
        CTarvikMsg msg(c.m_nCmd, c.m_nID, c.m_sData.data(), static_cast<unsigned short>(c.m_sData.size()));
        EXPECT_EQ(ToHex(c.m_sFrame), ToHex(msg.GetMessageData()));
        EXPECT_EQ(c.m_sData.size() + 5, msg.GetLength());
        EXPECT_EQ(static_cast<unsigned char>(c.m_sFrame.back()), msg.GetCRC());
        EXPECT_TRUE(msg.IsValid());
        EXPECT_TRUE(msg.IsCRCValid());

        // The by-move constructor builds the same frame.
        CTarvikMsg moved(c.m_nCmd, c.m_nID, std::string(c.m_sData));
        EXPECT_EQ(ToHex(c.m_sFrame), ToHex(moved.GetMessageData()));

        // The buffer variant writes the same bytes and says how many.
        std::string out(c.m_sFrame.size() + 4, '\x5A');
        EXPECT_EQ(c.m_sFrame.size(), msg.GetMessageData(&out[0]));
        EXPECT_EQ(ToHex(c.m_sFrame + "\x5A\x5A\x5A\x5A"), ToHex(out));
    }
}

TEST(TarvikMsg, NullDataOrZeroLengthGiveAnEmptyPayload)
{
    const char bytes[] = {1, 2, 3};
    CTarvikMsg nullData(0x030C, 2, nullptr, 10);
    CTarvikMsg zeroLength(0x030C, 2, bytes, 0);
    for (const CTarvikMsg* msg : {&nullData, &zeroLength})
    {
        EXPECT_TRUE(msg->GetData().empty());
        EXPECT_EQ(5, msg->GetLength());
        EXPECT_EQ(0x0D, msg->GetCRC());
        EXPECT_EQ(ToHex(Hex("05 00 0C 03 02 00 0D")), ToHex(msg->GetMessageData()));
    }

    CTarvikMsg empty;
    EXPECT_EQ(ToHex(Hex("05 00 00 00 00 00 00")), ToHex(empty.GetMessageData()));
    EXPECT_TRUE(empty.IsValid());
    EXPECT_FALSE(empty.IsConfirmation());
}

TEST(TarvikMsg, BuildingAgainReplacesEveryField)
{
    CTarvikMsg msg(0x0303, 7, "\x01\x02", 2);
    msg.SetMessage(0x030C, 2, nullptr, 0);
    EXPECT_EQ(ToHex(Hex("05 00 0C 03 02 00 0D")), ToHex(msg.GetMessageData()));
}

TEST(TarvikMsg, ParsesAWholeFrameFieldByField)
{
    bool valid = false;
    CTarvikMsg msg = Parse(Hex("08 00 03 83 FE FF 00 11 22 B2"), &valid);
    EXPECT_TRUE(valid);
    EXPECT_EQ(8, msg.GetLength());
    EXPECT_EQ(0x8303, msg.GetCmdCode());
    EXPECT_EQ(-2, msg.GetMsgID());
    EXPECT_EQ(ToHex(Frame({0x00, 0x11, 0x22})), ToHex(msg.GetData()));
    EXPECT_EQ(0xB2, msg.GetCRC());
    EXPECT_TRUE(msg.IsCRCValid());
    EXPECT_TRUE(msg.IsConfirmation());
}

TEST(TarvikMsg, ShortestFrameHasNoDataAndIsValidOnlyWithLengthFive)
{
    bool valid = false;
    CTarvikMsg msg = Parse(Hex("05 00 0C 83 02 00 8D"), &valid);
    EXPECT_TRUE(valid);
    EXPECT_TRUE(msg.GetData().empty());
    EXPECT_EQ(0x8D, msg.GetCRC());
    EXPECT_TRUE(msg.IsCRCValid());

    Parse(Hex("06 00 0C 83 02 00 8D"), &valid);
    EXPECT_FALSE(valid);
    Parse(Hex("04 00 0C 83 02 00 8D"), &valid);
    EXPECT_FALSE(valid);
}

TEST(TarvikMsg, BlockShorterThanSevenBytesGivesTheEmptyTelegram)
{
    for (size_t size = 0; size < 7; ++size)
    {
        // Start from a telegram with content: every field must be reset.
        CTarvikMsg msg(0x8303, 9, "\x01", 1);
        std::string block = Hex("05 00 0C 83 02 00 8D").substr(0, size);
        EXPECT_FALSE(msg.SetMessage(block.data(), static_cast<unsigned short>(size))) << size;
        EXPECT_EQ(0, msg.GetCmdCode());
        EXPECT_EQ(0, msg.GetMsgID());
        EXPECT_EQ(5, msg.GetLength());
        EXPECT_EQ(0, msg.GetCRC());
        EXPECT_TRUE(msg.GetData().empty());
    }
    CTarvikMsg msg;
    EXPECT_FALSE(msg.SetMessage(nullptr, 7));
}

TEST(TarvikMsg, LengthMismatchFillsTheFieldsButIsInvalid)
{
    bool valid = true;
    // Length field 9 on an 8-byte frame.
    CTarvikMsg msg = Parse(Hex("09 00 03 83 02 00 77 F7"), &valid);
    EXPECT_FALSE(valid);
    EXPECT_FALSE(msg.IsValid());
    EXPECT_EQ(9, msg.GetLength());
    EXPECT_EQ(0x8303, msg.GetCmdCode());
    EXPECT_EQ(2, msg.GetMsgID());
    EXPECT_EQ(ToHex(Frame({0x77})), ToHex(msg.GetData()));
    EXPECT_EQ(0xF7, msg.GetCRC());
}

TEST(TarvikMsg, BadCheckByteParsesAndIsOnlySeenByIsCRCValid)
{
    const std::string frame = Hex("06 00 03 83 02 00 00 FF");
    bool valid = false;
    CTarvikMsg msg = Parse(frame, &valid);
    EXPECT_TRUE(valid);
    EXPECT_FALSE(msg.IsCRCValid());
    EXPECT_EQ(0xFF, msg.GetCRC());
    EXPECT_EQ(0x82, msg.ComputeCRC());
    // The stored check byte is written back as received, not recomputed.
    EXPECT_EQ(ToHex(frame), ToHex(msg.GetMessageData()));

    // A copy is member-wise: the wrong check byte travels with it.
    CTarvikMsg copy(msg); // NOLINT(performance-unnecessary-copy-initialization): the copy is under test
    EXPECT_EQ(ToHex(frame), ToHex(copy.GetMessageData()));
    EXPECT_FALSE(copy.IsCRCValid());
}

TEST(TarvikMsg, ConfirmationIsBitFifteenOfTheCommandCode)
{
    EXPECT_TRUE(CTarvikMsg(0x830C, 0, nullptr, 0).IsConfirmation());
    EXPECT_TRUE(CTarvikMsg(0x8000, 0, nullptr, 0).IsConfirmation());
    EXPECT_FALSE(CTarvikMsg(0x030C, 0, nullptr, 0).IsConfirmation());
    EXPECT_FALSE(CTarvikMsg(0x7FFF, 0, nullptr, 0).IsConfirmation());
}

TEST(TarvikMsg, ParsedFrameIsReproducedExactly)
{
    for (size_t size : {0u, 1u, 7u, 8u, 9u, 300u, 5000u})
    {
        std::string frame = Telegram(0x8314, 0x7FFF, RandomBytes(size, static_cast<unsigned int>(size)));
        bool valid = false;
        CTarvikMsg msg = Parse(frame, &valid);
        EXPECT_TRUE(valid) << size;
        EXPECT_TRUE(msg.IsCRCValid()) << size;
        EXPECT_EQ(frame, msg.GetMessageData()) << size;
    }
}

// The check byte is folded word-wise: payload sizes around and across the word size,
// and buffers that start off a word boundary, must all give the plain byte-wise XOR.
TEST(TarvikMsg, CheckByteIsThePlainXorForEveryPayloadSize)
{
    std::vector<size_t> sizes;
    for (size_t size = 0; size <= 70; ++size)
        sizes.push_back(size);
    for (size_t size : {127u, 128u, 129u, 255u, 1000u, 4099u, 65529u, 65530u})
        sizes.push_back(size);
    for (size_t size : sizes)
    {
        std::string data = RandomBytes(size, static_cast<unsigned int>(size) + 17);
        CTarvikMsg msg(0x0303, static_cast<short>(size), data.data(), static_cast<unsigned short>(size));
        std::string expected = Telegram(0x0303, static_cast<int>(size), data);
        ASSERT_EQ(static_cast<unsigned char>(expected.back()), msg.GetCRC()) << "payload size " << size;
        EXPECT_EQ(expected, msg.GetMessageData()) << "payload size " << size;
    }

    const std::string block = RandomBytes(80, 99);
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t len = 0; len + offset <= block.size(); ++len)
        {
            unsigned char expected = 0;
            for (size_t i = 0; i < len; ++i)
                expected ^= static_cast<unsigned char>(block[offset + i]);
            ASSERT_EQ(expected, CTarvikMsg::XorBytes(block.data() + offset, len))
                << "offset " << offset << " length " << len;
        }
}

TEST(TarvikMsg, LargestPayloadFillsTheLengthField)
{
    std::string data(65530, '\x01');
    CTarvikMsg msg(0x0303, 1, data.data(), static_cast<unsigned short>(data.size()));
    EXPECT_TRUE(msg.IsValid());
    EXPECT_EQ(0xFFFF, msg.GetLength());
    EXPECT_EQ(ToHex(Hex("FF FF")), ToHex(msg.GetMessageData().substr(0, 2)));
}

TEST(TarvikMsg, ToCharWritesLowByteFirst)
{
    EXPECT_EQ(ToHex(Hex("FE FF")), ToHex(CTarvikMsg::ToChar(static_cast<short>(-2))));
    EXPECT_EQ(ToHex(Hex("34 12")), ToHex(CTarvikMsg::ToChar(static_cast<unsigned short>(0x1234))));
    EXPECT_EQ(ToHex(Hex("FF FF FF FF")), ToHex(CTarvikMsg::ToChar(-1)));
    EXPECT_EQ(ToHex(Hex("78 56 34 12")), ToHex(CTarvikMsg::ToChar(0x12345678u)));
    EXPECT_EQ(ToHex(Hex("08 07 06 05 04 03 02 01")), ToHex(CTarvikMsg::ToChar(0x0102030405060708L)));
    EXPECT_EQ(ToHex(Hex("FE FF FF FF FF FF FF FF")), ToHex(CTarvikMsg::ToChar(-2L)));
    EXPECT_EQ(ToHex(Hex("F0 DE BC 9A 78 56 34 12")), ToHex(CTarvikMsg::ToChar(0x123456789ABCDEF0UL)));
}

TEST(TarvikMsg, FromCharReadsLowByteFirst)
{
    const std::string bytes = Hex("FE FF FF 80 00 00 00 80");
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned int ui = 0;
    long l = 0;
    unsigned long ul = 0;
    CTarvikMsg::FromChar(s, bytes.data());
    CTarvikMsg::FromChar(us, bytes.data());
    CTarvikMsg::FromChar(i, bytes.data() + 4);
    CTarvikMsg::FromChar(ui, bytes.data());
    CTarvikMsg::FromChar(l, bytes.data());
    CTarvikMsg::FromChar(ul, bytes.data());
    EXPECT_EQ(-2, s);
    EXPECT_EQ(0xFFFE, us);
    EXPECT_EQ(INT_MIN, i);
    EXPECT_EQ(0x80FFFFFEu, ui);
    EXPECT_EQ(static_cast<long>(0x8000000080FFFFFEULL), l);
    EXPECT_EQ(0x8000000080FFFFFEUL, ul);
}
