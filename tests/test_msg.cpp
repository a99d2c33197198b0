// The telegram: parse rules and the check byte. The frame layout is pinned by the
// golden request frames of the command tests.
#include "support/FakeGateway.h"

#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikPayload.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

using namespace tarvik_test;

namespace
{
std::string RandomBytes(size_t size, unsigned int seed)
{
    std::mt19937 gen(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = static_cast<char>(gen() & 0xFF);
    return out;
}
} // namespace

TEST(TarvikMsg, ParseRules)
{
    struct SCase
    {
        const char* m_sName;
        std::string m_sBlock;
        bool m_bValid;
        unsigned short m_nCmd;
        short m_nID;
        std::string m_sData;
        int m_nCRC;
    };
    const SCase cases[] = {
        {"whole frame", Hex("08 00 03 83 FE FF 00 11 22 B2"), true, 0x8303, -2, Frame({0, 0x11, 0x22}), 0xB2},
        {"no data", Hex("05 00 0C 83 02 00 8D"), true, 0x830C, 2, "", 0x8D},
        // The fields are taken as they stand, yet the telegram is invalid.
        {"length field 9 on 8 bytes", Hex("09 00 03 83 02 00 77 F7"), false, 0x8303, 2, Frame({0x77}), 0xF7},
        {"length field 4 on 7 bytes", Hex("04 00 0C 83 02 00 8D"), false, 0x830C, 2, "", 0x8D},
        // Shorter than 7 bytes: the empty telegram.
        {"short block", Hex("05 00 0C 83 02 00"), false, 0, 0, "", 0},
    };
    for (const SCase& c : cases)
    {
        // Start from a telegram with content: every field must be replaced.
        CTarvikMsg msg(0x1234, 9, "\x01", 1);
        EXPECT_EQ(c.m_bValid, msg.SetMessage(c.m_sBlock.data(), static_cast<unsigned short>(c.m_sBlock.size())))
            << c.m_sName;
        EXPECT_EQ(c.m_nCmd, msg.GetCmdCode()) << c.m_sName;
        EXPECT_EQ(c.m_nID, msg.GetMsgID()) << c.m_sName;
        EXPECT_EQ(ToHex(c.m_sData), ToHex(msg.GetData())) << c.m_sName;
        EXPECT_EQ(c.m_nCRC, msg.GetCRC()) << c.m_sName;
    }
}

TEST(TarvikMsg, BadCheckByteIsKeptAndWrittenBackAsReceived)
{
    const std::string frame = Hex("06 00 03 83 02 00 00 FF");
    CTarvikMsg msg;
    EXPECT_TRUE(msg.SetMessage(frame.data(), static_cast<unsigned short>(frame.size())));
    EXPECT_FALSE(msg.IsCRCValid());
    EXPECT_EQ(0x82, msg.ComputeCRC());
    EXPECT_EQ(ToHex(frame), ToHex(msg.GetMessageData()));
}

// The check byte is folded word-wise: sizes around and across the word size and
// buffers off a word boundary must all give the plain byte-wise XOR.
TEST(TarvikMsg, CheckByteIsThePlainXorForEveryPayloadSize)
{
    std::vector<size_t> sizes = {127, 128, 129, 1000, 65529, 65530};
    for (size_t size = 0; size <= 40; ++size)
        sizes.push_back(size);
    for (size_t size : sizes)
    {
        std::string data = RandomBytes(size, static_cast<unsigned int>(size) + 17);
        CTarvikMsg msg(0x0303, static_cast<short>(size), data.data(), static_cast<unsigned short>(size));
        ASSERT_EQ(Telegram(0x0303, static_cast<int>(size), data), msg.GetMessageData()) << "payload size " << size;
        EXPECT_TRUE(msg.IsCRCValid());
    }
    const std::string block = RandomBytes(40, 99);
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t len = 0; len + offset <= block.size(); ++len)
        {
            unsigned char expected = 0;
            for (size_t i = 0; i < len; ++i)
                expected ^= static_cast<unsigned char>(block[offset + i]);
            ASSERT_EQ(expected, CTarvikMsg::XorBytes(block.data() + offset, len)) << offset << " " << len;
        }
}

TEST(TarvikPayload, WordsAtAnOffsetAreLittleEndianAndZeroWhenCutShort)
{
    const std::string bytes("\x11\x22\x33\x44\x55", 5);
    const CTarvikPayload payload(bytes);
    struct SRow
    {
        size_t m_nPos;
        unsigned short m_nU16;
        unsigned int m_nU32;
    };
    const SRow rows[] = {
        {0, 0x2211, 0x44332211u},        {1, 0x3322, 0x55443322u}, {2, 0x4433, 0}, {3, 0x5544, 0}, {4, 0, 0}, {5, 0, 0},
        {static_cast<size_t>(-1), 0, 0},
    };
    for (const SRow& row : rows)
    {
        EXPECT_EQ(row.m_nU16, payload.U16At(row.m_nPos)) << row.m_nPos;
        EXPECT_EQ(row.m_nU32, payload.U32At(row.m_nPos)) << row.m_nPos;
    }
    EXPECT_EQ(0u, CTarvikPayload(nullptr, 4).U32At(0));
}
