// The test-system clients (communication, IO, power, relay units) and the DIO and AD
// clients against the scripted gateway: exact request frames, the file transfer and
// install rules, CRC-32, and which outputs each decode writes or leaves alone.
#include "support/FakeGateway.h"
#include "support/HexfileTestUtil.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kTimeoutMs = 1000;
constexpr unsigned int kWaitMs = 5000;
constexpr size_t kChunk = 32768;
// Sentinel of the outputs: what still holds it was left alone.
constexpr unsigned int kU = 0xDEADBEEF;
constexpr unsigned short kUWord = 0xEEEE;
typedef std::optional<std::string> TAnswer;
const TAnswer kSilence;

// CRC-32 bit by bit, as the check value of a test, independent of Boost.
unsigned int BitwiseCRC32(const std::string& bytes)
{
    unsigned int crc = 0xFFFFFFFFu;
    for (unsigned char byte : bytes)
    {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) ? 0xEDB88320u : 0);
    }
    return ~crc;
}

std::string Pattern(size_t size)
{
    return hexfile_test::Pattern(size, 12345);
}

// Words in hex, "-" for a sentinel.
std::string Words(const unsigned short* words, size_t count)
{
    std::string out;
    char text[8];
    for (size_t i = 0; i < count; ++i)
    {
        std::snprintf(text, sizeof(text), words[i] == kUWord ? " -" : " %X", words[i]);
        out += text;
    }
    return out.empty() ? out : out.substr(1);
}

std::string Nums(std::initializer_list<unsigned int> values)
{
    return HexNumbers(values, kU);
}

// A file in this program's temporary directory, which goes at the program's end.
std::string TempFile(const std::string& name, const std::string& contents)
{
    static hexfile_test::CTempDir dir;
    hexfile_test::WriteFile(dir.Path(name), contents);
    return dir.Path(name);
}

class CTestSystemTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_oGateway.Start("127.0.0.1")); }

public:
    // A fresh, opened client: its first request carries id 2.
    template <class TClient> std::unique_ptr<TClient> Make()
    {
        auto client = std::make_unique<TClient>(kTimeoutMs);
        EXPECT_EQ(0, client->Connect(m_oGateway.GetAddress().c_str(), m_oGateway.GetPort()));
        EXPECT_EQ(0, client->Open());
        return client;
    }

protected:
    void AnswerWith(const TAnswer& payload) { m_oGateway.AnswerWith(payload); }

    // Answers an upload as a unit would that wants `want` bytes of file data in all:
    // 0x21 until they are in, then `last`. Other requests get `other`.
    void UnitWanting(size_t want, int last, const std::string& other = Frame({0}))
    {
        auto received = std::make_shared<size_t>(0);
        m_oGateway.SetHandler([=](const std::string& f) {
            std::string data = FrameData(f);
            unsigned int cmd = FrameCmd(f);
            if (cmd == 0x0DD3)
                *received = data.size() - 9 - static_cast<unsigned char>(data[8]);
            else if (cmd == 0x0DD4)
                *received += data.size();
            else
                return Cnf(cmd, FrameId(f), other);
            return Cnf(cmd, FrameId(f), Frame({*received < want ? 0x21 : last}));
        });
    }

    std::vector<std::string> Frames(size_t count)
    {
        EXPECT_TRUE(m_oGateway.WaitForFrames(count, kWaitMs));
        return m_oGateway.GetFrames();
    }

    CFakeGateway m_oGateway;
};
} // namespace

// ---------------------------------------------------------------- CRC and file names

TEST(TestSystemCRC, KnownVectorsAndFilesAcrossReadBlocks)
{
    const std::pair<std::string, unsigned int> vectors[] = {
        {"123456789", 0xCBF43926u},
        {"", 0x00000000u},
        {"a", 0xE8B7BE43u},
        {"The quick brown fox jumps over the lazy dog", 0x414FA339u},
    };
    for (const auto& v : vectors)
    {
        const std::string file = TempFile("v.bin", v.first);
        std::ifstream in(file, std::ios::binary);
        EXPECT_EQ(v.second, CTarvikClientTestSystemCOM::GetCRC32(in)) << v.first;
    }
    // Around the 4096-byte read size: every byte counted once.
    for (size_t size : {4095u, 4096u, 4097u, 3u * 4096u, 100000u})
    {
        std::string bytes = Pattern(size);
        const std::string file = TempFile("p.bin", bytes);
        std::ifstream in(file, std::ios::binary);
        EXPECT_EQ(BitwiseCRC32(bytes), CTarvikClientTestSystemCOM::GetCRC32(in)) << size;
        // Left at the end, readable state: the size is where it stands.
        EXPECT_TRUE(in.good());
        EXPECT_EQ(static_cast<std::streamoff>(size), static_cast<std::streamoff>(in.tellg()));
    }
    std::ifstream closed;
    EXPECT_EQ(0u, CTarvikClientTestSystemCOM::GetCRC32(closed));
}

TEST(TestSystemCRC, FileNameIsThePartAfterTheLastSeparator)
{
    const std::pair<std::string, std::string> cases[] = {
        {"C:\\cfg\\a.cfg", "a.cfg"},
        {"/tmp/a.cfg", "a.cfg"},
        {"a.cfg", "a.cfg"},
        {"/tmp\\mixed/b.cfg", "b.cfg"},
        {"dir/", ""},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.second, CTarvikClientTestSystemCOM::GetFileName(c.first)) << c.first;
}

// ---------------------------------------------------------------- request frames

TEST_F(CTestSystemTest, EachCommandSendsItsExactRequest)
{
    unsigned short words[2] = {0x1234, 0x0001};
    unsigned int u = 0;
    bool b = false;
    std::string s;
    std::vector<unsigned int> v;
    auto io = [this](std::function<int(CTarvikClientTestSystemIO&)> f) {
        return [this, f] { return f(*Make<CTarvikClientTestSystemIO>()); };
    };
    auto pwr = [this](std::function<int(CTarvikClientTestSystemPWR&)> f) {
        return [this, f] { return f(*Make<CTarvikClientTestSystemPWR>()); };
    };
    auto relay = [this](std::function<int(CTarvikClientTestSystemRelay&)> f) {
        return [this, f] { return f(*Make<CTarvikClientTestSystemRelay>()); };
    };
    auto com = [this](std::function<int(CTarvikClientTestSystemCOM&)> f) {
        return [this, f] { return f(*Make<CTarvikClientTestSystemCOM>()); };
    };
    auto dio = [this](std::function<int(CTarvikClientDIO&)> f) {
        return [this, f] { return f(*Make<CTarvikClientDIO>()); };
    };
    auto ad = [this](std::function<int(CTarvikClientAD&)> f) {
        return [this, f] { return f(*Make<CTarvikClientAD>()); };
    };
    const std::pair<std::function<int()>, std::string> cases[] = {
        {com([](auto& c) { return c.SetConfig("ab"); }), "08 00 05 0D 02 00 02 61 62 0B"},
        {com([&](auto& c) { return c.GetConfig(s); }), "05 00 06 0D 02 00 09"},
        {com([&](auto& c) { return c.IsConfigAvailable("ab", b, u); }), "08 00 D2 0D 02 00 02 61 62 DC"},
        // Words go out little-endian in array order, without a count.
        {io([&](auto& c) { return c.SetValue(words, 2); }), "09 00 10 0B 02 00 34 12 01 00 3E"},
        {io([&](auto& c) { return c.SetValue(words, 0); }), "05 00 10 0B 02 00 19"},
        {io([&](auto& c) { return c.GetValue(words, 0); }), "05 00 11 0B 02 00 18"},
        {io([&](auto& c) { return c.SetPower(words, 2); }), "09 00 20 0B 02 00 34 12 01 00 0E"},
        {io([&](auto& c) { return c.GetPower(words, 0); }), "05 00 21 0B 02 00 28"},
        {pwr([&](auto& c) { return c.SetValue(words, 2); }), "09 00 10 0C 02 00 34 12 01 00 39"},
        {pwr([&](auto& c) { return c.GetValue(words, 0); }), "05 00 11 0C 02 00 1F"},
        {relay([&](auto& c) { return c.SetPower(words, 2); }), "09 00 20 11 02 00 34 12 01 00 14"},
        {relay([&](auto& c) { return c.GetPower(words, 0); }), "05 00 21 11 02 00 32"},
        {relay([](auto& c) { return c.SetRelay(3, true); }), "07 00 12 11 02 00 03 01 03"},
        {relay([](auto& c) { return c.SetRelay(200, false); }), "07 00 12 11 02 00 C8 00 C9"},
        {relay([&](auto& c) { return c.GetButton(5, b); }), "06 00 13 11 02 00 05 05"},
        {dio([&](auto& c) { return c.Read(u, u); }), "05 00 40 05 02 00 47"},
        {dio([](auto& c) { return c.Write(0x12345678); }), "09 00 41 05 02 00 78 56 34 12 4E"},
        {ad([&](auto& c) { return c.ReadDigital(u, u); }), "05 00 40 07 02 00 45"},
        {ad([&](auto& c) {
             unsigned int a = 0;
             return c.ReadDigitalInput(a, a, a);
         }),
         "05 00 40 07 02 00 45"},
        {ad([](auto& c) { return c.WriteDigital(0x12345678); }), "09 00 41 07 02 00 78 56 34 12 4C"},
        {ad([&](auto& c) { return c.Read(v); }), "05 00 30 07 02 00 35"},
    };
    AnswerWith(Frame({0}));
    size_t sent = 0;
    for (const auto& c : cases)
    {
        EXPECT_EQ(0, c.first()) << c.second;
        EXPECT_EQ(c.second, ToHex(Frames(++sent).back()));
    }
}

// ---------------------------------------------------------------- decodes

TEST_F(CTestSystemTest, ValueWordsAreReadAlikeOnEveryUnit)
{
    // Each get of the three units, with its command code and device type.
    typedef std::function<int(CTestSystemTest&, unsigned short*, unsigned char)> TGet;
    const std::tuple<const char*, TGet, int> gets[] = {
        {"IO value",
         [](CTestSystemTest& t, unsigned short* w, unsigned char n) {
             return t.Make<CTarvikClientTestSystemIO>()->GetValue(w, n);
         },
         0x0B},
        {"IO power",
         [](CTestSystemTest& t, unsigned short* w, unsigned char n) {
             return t.Make<CTarvikClientTestSystemIO>()->GetPower(w, n);
         },
         0x0B},
        {"PWR value",
         [](CTestSystemTest& t, unsigned short* w, unsigned char n) {
             return t.Make<CTarvikClientTestSystemPWR>()->GetValue(w, n);
         },
         0x0C},
        {"relay power",
         [](CTestSystemTest& t, unsigned short* w, unsigned char n) {
             return t.Make<CTarvikClientTestSystemRelay>()->GetPower(w, n);
         },
         0x11},
    };
    // answer | words asked | device byte of the result (-1: the code given) | words after
    const std::tuple<TAnswer, unsigned char, int, std::string> cases[] = {
        {Frame({0, 0x10, 0x00, 0x20, 0x00}), 2, 0, "10 20 -"},
        // Whatever the device's result byte says.
        {Frame({0x05, 0x10, 0x00, 0x20, 0x00}), 2, 0x05, "10 20 -"},
        // The caller's count, not the answer's: extra words are not read...
        {Frame({0, 0x10, 0x00, 0x20, 0x00, 0x30, 0x00}), 1, 0, "10 - -"},
        // ...and missing ones are not invented: the words beyond the answer stay.
        {Frame({0, 0x10, 0x00, 0x20}), 3, 0, "10 - -"},
        {Frame({0}), 3, 0, "- - -"},
        {std::string(), 3, -TARVIK_ERR_CNF_INVALID, "- - -"},
        {kSilence, 3, -TARVIK_ERR_TIMEOUT, "- - -"},
    };
    for (const auto& g : gets)
        for (const auto& c : cases)
        {
            AnswerWith(std::get<0>(c));
            unsigned short words[3] = {kUWord, kUWord, kUWord};
            int result = std::get<1>(g)(*this, words, std::get<1>(c));
            int expected = std::get<2>(c) < 0 ? -std::get<2>(c) : std::get<2>(c);
            if (expected != 0 && expected != TARVIK_ERR_TIMEOUT)
                expected |= std::get<2>(g) << 8;
            EXPECT_EQ(expected, result) << std::get<0>(g) << " " << ToHex(std::get<0>(c).value_or("none"));
            EXPECT_EQ(std::get<3>(c), Words(words, 3))
                << std::get<0>(g) << " " << ToHex(std::get<0>(c).value_or("none"));
        }
    // A confirmation with a bad check byte arrived, but is not the unit's answer.
    m_oGateway.SetHandler([](const std::string& f) {
        return TelegramWithCheck(FrameCmd(f) | 0x8000, FrameId(f), Frame({0, 1, 0}), 0);
    });
    unsigned short words[1] = {kUWord};
    EXPECT_EQ(TARVIK_ERR_CRC, Make<CTarvikClientTestSystemIO>()->GetValue(words, 1));
    EXPECT_EQ("-", Words(words, 1));
}

TEST_F(CTestSystemTest, EachDecodeWritesItsOutputsByItsOwnRule)
{
    typedef std::function<std::string(CTestSystemTest&, int&)> TCall;
    const TCall button = [](CTestSystemTest& t, int& result) {
        bool pressed = true;
        result = t.Make<CTarvikClientTestSystemRelay>()->GetButton(1, pressed);
        return std::string(pressed ? "pressed" : "released");
    };
    const TCall available = [](CTestSystemTest& t, int& result) {
        bool there = false;
        unsigned int crc = kU;
        result = t.Make<CTarvikClientTestSystemCOM>()->IsConfigAvailable("a", there, crc);
        return std::string(there ? "yes " : "no ") + Nums({crc});
    };
    const TCall config = [](CTestSystemTest& t, int& result) {
        std::string name = "old";
        result = t.Make<CTarvikClientTestSystemCOM>()->GetConfig(name);
        return name;
    };
    const TCall analog = [](CTestSystemTest& t, int& result) {
        std::vector<unsigned int> values = {kU};
        result = t.Make<CTarvikClientAD>()->Read(values);
        std::string out = std::to_string(values.size());
        for (unsigned int v : values)
            out += " " + Nums({v});
        return out;
    };
    const TCall inputs = [](CTestSystemTest& t, int& result) {
        unsigned int in0 = 0x00123456, in1 = kU, in2 = kU;
        result = t.Make<CTarvikClientAD>()->ReadDigitalInput(in0, in1, in2);
        return Nums({in0, in1, in2});
    };
    const TCall dio = [](CTestSystemTest& t, int& result) {
        unsigned int in = kU, out = kU;
        result = t.Make<CTarvikClientDIO>()->Read(in, out);
        return Nums({in, out});
    };
    const std::string two = LE32(0x89ABCDEF) + LE32(0x01234567);
    const std::tuple<const char*, TCall, TAnswer, int, std::string> cases[] = {
        {"button pressed", button, Frame({0, 1}), 0, "pressed"},
        {"button without state", button, Frame({0}), 0, "released"},
        {"button device error", button, Frame({0x07, 1}), 0x1107, "released"},
        {"button empty answer", button, std::string(), 0x0C1100, "released"},
        {"button no answer", button, kSilence, TARVIK_ERR_TIMEOUT, "pressed"},
        {"available with CRC", available, Frame({0, 1}) + LE32(0xCBF43926), 0, "yes CBF43926"},
        {"available, CRC cut short", available, Frame({0, 1, 0x26, 0x39, 0xF4}), 0, "yes -"},
        {"not available", available, Frame({0, 0}) + LE32(0x12345678), 0, "no -"},
        {"available without flag", available, Frame({0}), 0, "no -"},
        {"available device error", available, Frame({0x20, 1}) + LE32(1), 0x0D20, "no -"},
        {"config name", config, Frame({0, 'c', 'f', 'g'}), 0, "cfg"},
        {"config none active", config, Frame({0}), 0, ""},
        {"config device error", config, Frame({0x24, 'x'}), 0x0D24, "old"},
        {"config no answer", config, kSilence, TARVIK_ERR_TIMEOUT, "old"},
        // Whole values only, whatever the result byte; values emptied first.
        {"AD values", analog, Frame({0}) + two + Frame({0xAA, 0xBB}), 0, "2 89ABCDEF 1234567"},
        {"AD device error", analog, Frame({0x05}) + LE32(7), 0x0705, "1 7"},
        {"AD value cut short", analog, Frame({0, 1, 2, 3}), 0, "0"},
        {"AD empty answer", analog, std::string(), 0x0C0700, "0"},
        {"AD no answer", analog, kSilence, TARVIK_ERR_TIMEOUT, "0"},
        {"inputs split", inputs, Frame({0}) + LE32(0xFFABCDEF) + LE32(0), 0, "EF CD AB"},
        // The input word lands in input0 first; a failure leaves it whole.
        {"inputs device error", inputs, Frame({0x05}) + two, 0x0705, "89ABCDEF - -"},
        // A short answer counts as success with nothing read: input0 as it was, split.
        {"inputs short answer", inputs, Frame({0}), 0, "56 34 12"},
        {"inputs no answer", inputs, kSilence, TARVIK_ERR_TIMEOUT, "123456 - -"},
        {"DIO both words", dio, Frame({0x20}) + two, 0x0520, "89ABCDEF 1234567"},
        {"DIO short answer", dio, Frame({0}) + two.substr(0, 7), 0, "- -"},
    };
    for (const auto& c : cases)
    {
        AnswerWith(std::get<2>(c));
        int result = -1;
        EXPECT_EQ(std::get<4>(c), std::get<1>(c)(*this, result)) << std::get<0>(c);
        EXPECT_EQ(std::get<3>(c), result) << std::get<0>(c);
    }
}

// ---------------------------------------------------------------- file transfer

TEST_F(CTestSystemTest, EmptyFileIsAnnouncedWithoutData)
{
    const std::string file = TempFile("e.cfg", "");
    AnswerWith(Frame({0}));
    EXPECT_EQ(0, Make<CTarvikClientTestSystemCOM>()->SendFile(file, 0));
    auto frames = Frames(1);
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ("13 00 D3 0D 02 00 00 00 00 00 00 00 00 00 05 65 2E 63 66 67 F0", ToHex(frames[0]));
}

TEST_F(CTestSystemTest, FileTravelsInChunksWhileTheUnitAsksForMore)
{
    const std::string small = "123456789";
    const std::string exact = Pattern(kChunk);
    const std::string many = Pattern(3 * kChunk + 1696);
    // name | contents | bytes the unit wants | its last answer | result | data sizes sent
    const std::tuple<const char*, std::string, size_t, int, int, std::vector<size_t>> cases[] = {
        {"one request", small, 9, 0, 0, {9}},
        // The last read filled the chunk: the end of the file is only seen by the next,
        // empty, request.
        {"exactly one chunk", exact, kChunk, 0, 0, {kChunk}},
        {"one chunk, unit wants more", exact, kChunk + 1, 0, 0x0D21, {kChunk, 0}},
        {"many chunks", many, many.size(), 0, 0, {kChunk, kChunk, kChunk, 1696}},
        {"unit wants more than the file has", many, many.size() + 10, 0, 0x0D21, {kChunk, kChunk, kChunk, 1696}},
        {"unit stops early", many, kChunk, 0x22, 0x0D22, {kChunk}},
        {"unit's check fails at the end", many, many.size(), 0x22, 0x0D22, {kChunk, kChunk, kChunk, 1696}},
    };
    size_t seen = 0;
    for (const auto& c : cases)
    {
        const std::string file = TempFile("d.cfg", std::get<1>(c));
        UnitWanting(std::get<2>(c), std::get<3>(c));
        EXPECT_EQ(std::get<4>(c), Make<CTarvikClientTestSystemCOM>()->SendFile(file, 0)) << std::get<0>(c);
        const std::vector<size_t>& sizes = std::get<5>(c);
        auto frames = Frames(seen + sizes.size());
        ASSERT_EQ(seen + sizes.size(), frames.size()) << std::get<0>(c);
        std::string sent;
        for (size_t i = 0; i < sizes.size(); ++i)
        {
            const std::string& f = frames[seen + i];
            std::string data = FrameData(f);
            EXPECT_EQ(i == 0 ? 0x0DD3u : 0x0DD4u, FrameCmd(f)) << std::get<0>(c) << " " << i;
            if (i == 0)
            {
                // CRC, size, file name, then the first chunk.
                EXPECT_EQ(LE32(BitwiseCRC32(std::get<1>(c))) + LE32(static_cast<unsigned int>(std::get<1>(c).size())) +
                              "\x05"
                              "d.cfg",
                          data.substr(0, 14))
                    << std::get<0>(c);
                data = data.substr(14);
            }
            EXPECT_EQ(sizes[i], data.size()) << std::get<0>(c) << " " << i;
            sent += data;
        }
        EXPECT_TRUE(sent == std::get<1>(c).substr(0, sent.size())) << std::get<0>(c);
        seen = frames.size();
    }
    // The golden frame of the smallest case, byte for byte.
    EXPECT_EQ("1C 00 D3 0D 02 00 26 39 F4 CB 09 00 00 00 05 64 2E 63 66 67 31 32 33 34 35 36 37 38 39 E9",
              ToHex(m_oGateway.GetFrames()[0]));
}

TEST_F(CTestSystemTest, TransferEndsAtTheFirstFailure)
{
    const std::string file = TempFile("d.cfg", Pattern(3 * kChunk));
    // A given CRC is sent as it is, not computed.
    AnswerWith(Frame({0x21}));
    auto count = std::make_shared<std::atomic<int>>(0);
    m_oGateway.SetHandler([count](const std::string& f) {
        return ++*count == 2 ? std::string() : Cnf(FrameCmd(f), FrameId(f), Frame({0x21}));
    });
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, Make<CTarvikClientTestSystemCOM>()->SendFile(file, 0x01020304));
    auto frames = Frames(2);
    EXPECT_EQ(2u, frames.size());
    EXPECT_EQ(LE32(0x01020304), FrameData(frames[0]).substr(0, 4));

    // A file that cannot be opened sends nothing.
    EXPECT_EQ(0x0D20, Make<CTarvikClientTestSystemCOM>()->SendFile(file + ".missing", 0));
    EXPECT_EQ(0x0D20, Make<CTarvikClientTestSystemCOM>()->InstallConfig("cfgA", file + ".missing"));
    EXPECT_EQ(2u, m_oGateway.GetFrames().size());
}

// ---------------------------------------------------------------- install

TEST_F(CTestSystemTest, InstallSkipsAFileTheUnitHoldsAndSendsAnyOther)
{
    const std::string file = TempFile("d.cfg", "123456789");
    const std::string d2 = "0A 00 D2 0D 02 00 04 63 66 67 41 FA";
    const std::string d3 = "1C 00 D3 0D 03 00 26 39 F4 CB 09 00 00 00 05 64 2E 63 66 67 31 32 33 34 35 36 37 38 39 E8";
    const std::string d5 = "14 00 D5 0D 04 00 26 39 F4 CB 04 63 66 67 41 05 64 2E 63 66 67 F6";
    // answer to 0xD2 | answer to 0xD5 | result | frames sent
    const std::tuple<const char*, std::string, int, int, std::vector<std::string>> cases[] = {
        {"same CRC: nothing to do", Frame({0, 1}) + LE32(0xCBF43926), 0, 0, {d2}},
        {"not there", Frame({0, 0}) + LE32(0), 0, 0, {d2, d3, d5}},
        {"other CRC", Frame({0, 1}) + LE32(0xCBF43927), 0, 0, {d2, d3, d5}},
        {"there, CRC not said", Frame({0, 1}), 0, 0, {d2, d3, d5}},
        {"install refused", Frame({0, 0}), 0x25, 0x0D25, {d2, d3, d5}},
        {"question refused", Frame({0x24}), 0, 0x0D24, {d2}},
    };
    size_t seen = 0;
    for (const auto& c : cases)
    {
        const std::string d2Answer = std::get<1>(c);
        const int d5Answer = std::get<2>(c);
        m_oGateway.SetHandler([=](const std::string& f) {
            unsigned int cmd = FrameCmd(f);
            std::string answer = cmd == 0x0DD2 ? d2Answer : cmd == 0x0DD5 ? Frame({d5Answer}) : Frame({0});
            return Cnf(cmd, FrameId(f), answer);
        });
        EXPECT_EQ(std::get<3>(c), Make<CTarvikClientTestSystemCOM>()->InstallConfig("cfgA", file)) << std::get<0>(c);
        const auto& expected = std::get<4>(c);
        auto frames = Frames(seen + expected.size());
        ASSERT_EQ(seen + expected.size(), frames.size()) << std::get<0>(c);
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(expected[i], ToHex(frames[seen + i])) << std::get<0>(c) << " " << i;
        seen = frames.size();
    }
    // A failed upload installs nothing.
    UnitWanting(9, 0x22, Frame({0, 0}));
    EXPECT_EQ(0x0D22, Make<CTarvikClientTestSystemCOM>()->InstallConfig("cfgA", file));
    auto frames = Frames(seen + 2);
    EXPECT_EQ(seen + 2, frames.size());
    EXPECT_EQ(0x0DD3u, FrameCmd(frames.back()));
}
