// The AWire programming client against the scripted gateway: exact request frames,
// which outputs each read writes, the progress map of block writes, and the file-write
// thread's chunk plan, pipelining, progress and failure paths.
#include "support/ClientFixture.h"
#include "support/FakeGateway.h"
#include "support/HexfileTestUtil.h"
#include "support/Wait.h"

#include "tarvik/clients/TarvikClientAWire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace tarvik_test;

namespace
{
typedef CTarvikClientAWire CAWire;
typedef CAWire::FileStep FileStep;
typedef CAWire::Progress Progress;
constexpr unsigned int kUnset = 0xDEADBEEF;
constexpr unsigned short kUWord = 0xBEEF;
typedef std::optional<std::string> TAnswer;
const TAnswer kSilence;

std::string LE16(unsigned int value)
{
    return Frame({static_cast<int>(value & 0xFF), static_cast<int>(value >> 8 & 0xFF)});
}

// A progress indication: handle, state, done.
std::string ProgressInd(short handle, int state, unsigned int done, unsigned int cmd = 0x0EE1)
{
    return Telegram(cmd, 0x7000, LE16(static_cast<unsigned short>(handle)) + Frame({state}) + LE16(done));
}

// A programmer behind the fake gateway: keeps what is written, answers reads from it
// and reports every block write finished at once, or, when held, when the test says so.
class CProgrammer
{
public:
    unsigned int m_nPageSize = 256;
    bool m_bHold = false;
    // The first block write reports this state as its end (-1: 0, finished).
    int m_nFailState = -1;
    // Reads answer every byte inverted.
    bool m_bCorrupt = false;

    std::string Handle(const std::string& frame)
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        std::string data = FrameData(frame);
        switch (FrameCmd(frame))
        {
        case 0x0E06:
            return Cnf(0x0E06, FrameId(frame),
                       Frame({0}) + LE32(1) + LE32(2) + LE32(m_nPageSize) + LE32(4) + Frame({0}));
        case 0x0EE0: return Write(FrameId(frame), data);
        case 0x0EE3: return Cnf(0x0EE3, FrameId(frame), Frame({0}) + Read(data));
        default: return Cnf(FrameCmd(frame), FrameId(frame), Frame({0}));
        }
    }
    // Reports the oldest held block write finished; false when none is held.
    bool FinishOldest(CFakeGateway& gateway)
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (m_asHeld.empty())
            return false;
        gateway.Send(m_asHeld.front());
        m_asHeld.erase(m_asHeld.begin());
        return true;
    }
    size_t Held()
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return m_asHeld.size();
    }

private:
    std::string Write(short id, const std::string& data)
    {
        unsigned int address = static_cast<unsigned char>(data[0]) | static_cast<unsigned char>(data[1]) << 8 |
                               static_cast<unsigned char>(data[2]) << 16;
        unsigned int length = static_cast<unsigned char>(data[4]) | static_cast<unsigned char>(data[5]) << 8;
        m_sMemory.replace(address, length, data, 6, length);
        int state = m_nFailState >= 0 ? m_nFailState : 0;
        m_nFailState = -1;
        std::string end = ProgressInd(id, state, length);
        if (!m_bHold)
            return Cnf(0x0EE0, id, Frame({0})) + end;
        m_asHeld.push_back(end);
        return Cnf(0x0EE0, id, Frame({0}));
    }
    std::string Read(const std::string& data)
    {
        unsigned int address = static_cast<unsigned char>(data[0]) | static_cast<unsigned char>(data[1]) << 8 |
                               static_cast<unsigned char>(data[2]) << 16;
        unsigned int length = static_cast<unsigned char>(data[4]) | static_cast<unsigned char>(data[5]) << 8;
        std::string bytes = m_sMemory.substr(address, length);
        for (char& c : bytes)
            c = m_bCorrupt ? static_cast<char>(~c) : c;
        return bytes;
    }

    std::mutex m_oMutex;
    std::string m_sMemory = std::string(0x40000, '\xFF');
    std::vector<std::string> m_asHeld;
};

class CAWireTest : public CClientFixture<CAWire>
{
protected:
    // The gateway's threads run the programmer: they end before it goes.
    void TearDown() override
    {
        m_pClient.reset();
        m_oGateway.Stop();
    }
    void UseProgrammer()
    {
        m_oGateway.SetHandler([this](const std::string& f) { return m_oProgrammer.Handle(f); });
    }
    // Polls the file write until it reports its end: "step percent", and how many polls it took.
    std::string FileEnd()
    {
        FileStep::EFileStep step = FileStep::eNotStarted;
        unsigned char percent = 0;
        bool ended = Eventually(
            [&] {
                return m_pClient->GetWriteFileStatus(step, percent) != 0 || step == FileStep::eDone ||
                       step == FileStep::eFailed;
            },
            std::chrono::seconds(10));
        EXPECT_TRUE(ended);
        return std::to_string(step) + " " + std::to_string(percent);
    }
    // "address+length" of every frame of the command, in hex.
    std::vector<std::string> Requests(unsigned int cmd, size_t from = 0)
    {
        std::vector<std::string> out;
        std::vector<std::string> frames = m_oGateway.GetFrames();
        for (size_t i = from; i < frames.size(); ++i)
        {
            const std::string& f = frames[i];
            if (FrameCmd(f) != cmd)
                continue;
            std::string d = FrameData(f);
            unsigned int address = 0, length = 0;
            for (int i = 3; i >= 0; --i)
                address = address << 8 | static_cast<unsigned char>(d[i]);
            length = static_cast<unsigned char>(d[4]) | static_cast<unsigned char>(d[5]) << 8;
            char text[32];
            std::snprintf(text, sizeof text, "%X+%u", address, length);
            out.push_back(text);
        }
        return out;
    }

    CProgrammer m_oProgrammer;
    hexfile_test::CTempDir m_oDir;
};

std::string Counting(size_t len, int first = 0)
{
    std::string out;
    for (size_t i = 0; i < len; ++i)
        out += static_cast<char>(first + i * 7 + i / 251);
    return out;
}
} // namespace

TEST_F(CAWireTest, EachCommandSendsItsExactRequest)
{
    unsigned int u = 0;
    unsigned short n = 0;
    short handle = 0;
    std::string text, buf(8, '\0');
    const std::string long300(300, 'x');
    const std::pair<std::function<int(CAWire&)>, std::string> cases[] = {
        {[&](CAWire& c) { return c.GetConfig(u, u, u, u, text); }, "05 00 06 0E 02 00 0A"},
        {[](CAWire& c) { return c.EraseUserPage(); }, "05 00 E5 0E 02 00 E9"},
        {[](CAWire& c) { return c.Erase(0x1234); }, "07 00 E2 0E 02 00 34 12 C8"},
        {[](CAWire& c) { return c.SetConfig(1, 2, 0x0200, 4, "ab"); },
         ToHex(Telegram(0x0E05, 2, LE32(1) + LE32(2) + LE32(0x200) + LE32(4) + Frame({2}) + "ab"))},
        // A text of 300 bytes goes as its first 255 behind a length byte of 255.
        {[&](CAWire& c) { return c.SetConfig(0, 0, 256, 0, long300); },
         ToHex(Telegram(0x0E05, 2, LE32(0) + LE32(0) + LE32(256) + LE32(0) + Frame({255}) + long300.substr(0, 255)))},
        {[&](CAWire& c) { return c.Read(0x80001234, 2, &buf[0], n); },
         ToHex(Telegram(0x0EE3, 2, Hex("34 12 00 80 02 00")))},
        {[](CAWire& c) { return c.Verify(0x10, 2, "AB"); }, ToHex(Telegram(0x0EE3, 2, Hex("10 00 00 00 02 00")))},
        {[&](CAWire& c) { return c.WriteBlock(0x100, 3, "\x01\x02\x03", handle); },
         ToHex(Telegram(0x0EE0, 2, Hex("00 01 00 00 03 00 01 02 03")))},
        {[&](CAWire& c) { return c.WriteUserPage(8, 2, "AB", handle); },
         ToHex(Telegram(0x0EE4, 2, Hex("08 00 00 00 02 00") + "AB"))},
    };
    AnswerWith(Frame({0, 'A', 'B'}));
    for (const auto& c : cases)
        ExpectRequest(c.first, Hex(c.second), c.second);
    EXPECT_EQ(2, handle);
}

TEST_F(CAWireTest, DeviceBytesBecomeTheClientsResultCodes)
{
    const std::pair<TAnswer, int> cases[] = {
        {Frame({0}), 0},           {Frame({0x22}), 0x0E22},        {Frame({0x25, 0x55}), 0x0E25},
        {std::string(), 0x0C0E00}, {kSilence, TARVIK_ERR_TIMEOUT},
    };
    for (const auto& c : cases)
    {
        AnswerWith(c.first);
        EXPECT_EQ(c.second, m_pClient->Erase(0)) << ToHex(c.first.value_or("none"));
    }
    EXPECT_EQ("A transfer currently is in progress", CTarvikClient::GetErrorMsg(CAWire::eResultBusy));
    EXPECT_EQ("Failed to read data from target", CTarvikClient::GetErrorMsg(0x0E26));
}

TEST_F(CAWireTest, EachReadWritesItsOutputsByItsOwnRule)
{
    // "v1 v2 page v4 | text | remembered page size", "-" for an output left alone.
    const auto config = [](CAWire& c, int& result) {
        unsigned int v[4] = {kUnset, kUnset, kUnset, kUnset};
        std::string s = "-";
        result = c.GetConfig(v[0], v[1], v[2], v[3], s);
        return HexNumbers({v[0], v[1], v[2], v[3]}, kUnset) + " | " + s + " | " + std::to_string(c.GetPageSize());
    };
    // "count | buffer" of a read of 4 into a buffer of 6.
    const auto read = [](CAWire& c, int& result) {
        std::string out(6, '-');
        unsigned short count = kUWord;
        result = c.Read(0, 4, &out[0], count);
        return (count == kUWord ? std::string("-") : std::to_string(count)) + " | " + out;
    };
    const std::string values = LE32(1) + LE32(2) + LE32(0x100) + LE32(4);
    const std::tuple<std::function<std::string(CAWire&, int&)>, TAnswer, int, std::string> cases[] = {
        {config, Frame({0}) + values + Frame({3}) + "xyz!", 0, "1 2 100 4 | xyz | 256"},
        // Values without the length byte behind them: nothing is taken.
        {config, Frame({0}) + values, 0, "- - - - | - | 0"},
        // The text only when all of it is there.
        {config, Frame({0}) + values + Frame({3}) + "xy", 0, "1 2 100 4 | - | 256"},
        {config, Frame({0x23}) + values + Frame({0}), 0x0E23, "- - - - | - | 0"},
        {config, kSilence, TARVIK_ERR_TIMEOUT, "- - - - | - | 0"},
        {read, Frame({0}) + "ABCDEF", 0, "4 | ABCD--"},
        {read, Frame({0}) + "AB", 0, "2 | AB----"},
        {read, Frame({0x26}) + "ABCD", 0x0E26, "- | ------"},
        {read, std::string(), 0x0C0E00, "- | ------"},
    };
    for (const auto& c : cases)
        ExpectOutputs(std::get<0>(c), std::get<1>(c), std::get<2>(c), std::get<3>(c),
                      ToHex(std::get<1>(c).value_or("none")));
}

TEST_F(CAWireTest, VerifyComparesEachPieceWithTheStartOfTheData)
{
    // The target holds "ABCD" from 0 but hands out at most two bytes per read.
    const std::string target = "ABCD";
    const std::tuple<const char*, std::string, int, std::vector<std::string>> cases[] = {
        // The second piece (CD) is compared with the start of the data again.
        {"short reads", "ABCD", 255, {"0+4", "2+2"}},
        {"short reads, repeating data", "ABAB", 255, {"0+4", "2+2"}},
        {"one piece", "AB", 0, {"0+2"}},
        {"difference", "AX", 255, {"0+2"}},
    };
    m_oGateway.SetHandler([&](const std::string& f) {
        unsigned int at = static_cast<unsigned char>(FrameData(f)[0]);
        return Cnf(FrameCmd(f), FrameId(f), Frame({0}) + target.substr(at, 2));
    });
    size_t seen = 0;
    for (const auto& c : cases)
    {
        EXPECT_EQ(std::get<2>(c),
                  m_pClient->Verify(0, static_cast<unsigned short>(std::get<1>(c).size()), std::get<1>(c).data()))
            << std::get<0>(c);
        ASSERT_TRUE(m_oGateway.WaitForFrames(seen + std::get<3>(c).size(), 5000));
        std::vector<std::string> reads = Requests(0x0EE3);
        EXPECT_EQ(std::get<3>(c), std::vector<std::string>(reads.begin() + seen, reads.end())) << std::get<0>(c);
        seen = reads.size();
    }
    // An answer without bytes would never finish: a difference after one read.
    AnswerWith(Frame({0}));
    EXPECT_EQ(255, m_pClient->Verify(0, 4, "ABCD"));
    AnswerWith(Frame({0x26}));
    EXPECT_EQ(0x0E26, m_pClient->Verify(0, 4, "ABCD"));
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->Verify(0, 4, nullptr));
}

TEST_F(CAWireTest, BlockWritesAreFollowedThroughTheirProgressReports)
{
    AnswerWith(Frame({0}));
    short handle = 0;
    ASSERT_EQ(0, m_pClient->WriteBlock(0x100, 1000, std::string(1000, 'a').data(), handle));
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, 5000));
    // "state length done" after each telegram from the gateway; "255" for an unknown handle.
    const auto status = [&](short h) {
        Progress::EProgress state = Progress::eInProgress;
        unsigned short length = kUWord, done = kUWord;
        int result = m_pClient->GetWriteBlockStatus(h, state, length, done);
        return result != 0 ? std::to_string(result)
                           : std::to_string(state) + " " + std::to_string(length) + " " + std::to_string(done);
    };
    const std::pair<std::string, std::string> cases[] = {
        {std::string(), "1 1000 0"},
        {ProgressInd(handle, 1, 200), "1 1000 200"},
        // Too short, another command, a confirmation, another handle: nothing changes.
        {Telegram(0x0EE1, 0, LE16(handle) + Frame({0, 0xFF})), "1 1000 200"},
        {ProgressInd(handle, 0, 1000, 0x0EE2), "1 1000 200"},
        {ProgressInd(handle, 0, 1000, 0x8EE1), "1 1000 200"},
        {ProgressInd(static_cast<short>(handle + 1), 0, 1000), "1 1000 200"},
        // A gateway's failure stays until the block is written again.
        {ProgressInd(handle, 0x82, 300), "130 1000 300"},
        {ProgressInd(handle, 0, 1000), "0 1000 1000"},
        // Collected once.
        {std::string(), "255"},
    };
    for (const auto& c : cases)
    {
        if (!c.first.empty())
        {
            // A marker behind each telegram tells when the client has seen it.
            ASSERT_TRUE(m_oGateway.Send(c.first));
            ASSERT_EQ(0, m_pClient->Erase(0));
        }
        EXPECT_EQ(c.second, status(handle)) << ToHex(c.first);
    }
}

TEST_F(CAWireTest, ABlockWriteIsFollowedEvenWhenItsFirstReportComesAtOnce)
{
    // The gateway reports the block finished before the send has even returned.
    m_oGateway.SetHandler([](const std::string& f) { return ProgressInd(FrameId(f), 0, 16); });
    for (int i = 0; i < 20; ++i)
    {
        short handle = 0;
        ASSERT_EQ(0, m_pClient->WriteUserPage(0, 16, std::string(16, 'u').data(), handle));
        Progress::EProgress state = Progress::eInProgress;
        unsigned short length = 0, done = 0;
        EXPECT_TRUE(Eventually([&] {
            return m_pClient->GetWriteBlockStatus(handle, state, length, done) == 0 && state == 0;
        })) << i;
    }
}

TEST_F(CAWireTest, BlockWritesThatCannotBeSentLeaveNothingBehind)
{
    short handle = 77;
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->WriteBlock(0, 4, nullptr, handle));
    std::string big(65525, 'b');
    EXPECT_EQ(TARVIK_ERR_INVALID_PARAMETER, m_pClient->WriteBlock(0, 65525, big.data(), handle));
    EXPECT_EQ(77, handle);
    m_pClient->StopConnection();
    EXPECT_EQ(TARVIK_ERR_NOT_CONNECTED, m_pClient->WriteBlock(0, 4, "abcd", handle));
    Progress::EProgress state;
    unsigned short length = 0, done = 0;
    EXPECT_EQ(255, m_pClient->GetWriteBlockStatus(handle, state, length, done));
    EXPECT_TRUE(m_oGateway.GetFrames().empty());
}

TEST_F(CAWireTest, AFileIsWrittenInPageAlignedChunksAndReadBack)
{
    EXPECT_EQ(32768, CAWire::CWriteFileThread::ChunkSize(256));
    EXPECT_EQ(30000, CAWire::CWriteFileThread::ChunkSize(3000));
    EXPECT_EQ(32768, CAWire::CWriteFileThread::ChunkSize(40000));
    EXPECT_EQ(20000, CAWire::CWriteFileThread::ChunkSize(20000));
    // page size | block address and length | the writes | the reads
    const std::tuple<unsigned int, unsigned int, size_t, std::vector<std::string>, std::vector<std::string>> cases[] = {
        {256, 0x100, 40000, {"100+32512", "8000+7488"}, {"100+32768", "8100+7232"}},
        {3000, 0, 70000, {"0+30000", "7530+30000", "EA60+10000"}, {"0+32768", "8000+32768", "10000+4464"}},
        {40000, 0x10, 40000, {"10+32752", "8000+7248"}, {"10+32768", "8010+7232"}},
    };
    UseProgrammer();
    for (const auto& c : cases)
    {
        size_t from = m_oGateway.GetFrames().size();
        NewClient();
        m_oProgrammer.m_nPageSize = std::get<0>(c);
        std::string path = m_oDir.Image({{std::get<1>(c), Counting(std::get<2>(c))}});
        ASSERT_EQ(0, m_pClient->WriteFile(path));
        EXPECT_EQ("3 100", FileEnd()) << std::get<0>(c);
        EXPECT_EQ(std::get<3>(c), Requests(0x0EE0, from)) << std::get<0>(c);
        EXPECT_EQ(std::get<4>(c), Requests(0x0EE3, from)) << std::get<0>(c);
        // Asked for the page size once, since it was not known yet.
        EXPECT_EQ(1u, Requests(0x0E06, from).size());
    }
}

TEST_F(CAWireTest, AtMostTwoChunksOfABlockAreInFlight)
{
    m_oProgrammer.m_bHold = true;
    UseProgrammer();
    const size_t chunks = 5, total = chunks * 32768;
    ASSERT_EQ(0, m_pClient->WriteFile(m_oDir.Image({{0, Counting(total)}})));
    size_t most = 0;
    for (size_t finished = 0; finished < chunks; ++finished)
    {
        size_t expected = chunks - finished < 2 ? chunks - finished : 2;
        ASSERT_TRUE(Eventually([&] { return m_oProgrammer.Held() >= expected; })) << finished;
        // Time for a third chunk to come, if the thread did not wait for the first two.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        most = std::max(most, m_oProgrammer.Held());
        if (finished == 1)
        {
            // One chunk done, the next half programmed: (32768 + 16384) / total.
            ASSERT_TRUE(m_oGateway.Send(ProgressInd(FrameId(m_oGateway.GetFrames()[2]), 1, 16384)));
            FileStep::EFileStep step = FileStep::eNotStarted;
            unsigned char percent = 0;
            EXPECT_TRUE(Eventually([&] {
                return m_pClient->GetWriteFileStatus(step, percent) == 0 && step == 1 && percent == 30;
            })) << step
                << " " << int(percent);
        }
        ASSERT_TRUE(m_oProgrammer.FinishOldest(m_oGateway));
    }
    EXPECT_EQ(2u, most);
    EXPECT_EQ("3 100", FileEnd());

    // A block's last chunk is followed at once by the next block's first.
    NewClient();
    ASSERT_EQ(0, m_pClient->WriteFile(m_oDir.Image({{0, "one"}, {0x1000, "two"}, {0x2000, "three"}})));
    EXPECT_TRUE(Eventually([&] { return m_oProgrammer.Held() == 3; }));
    while (m_oProgrammer.FinishOldest(m_oGateway))
    {
    }
    EXPECT_EQ("3 100", FileEnd());
}

TEST_F(CAWireTest, AFileWriteEndsOnceAndAtFullPercent)
{
    std::ofstream(m_oDir.Path("empty.hex")) << ":00000001FF\n";
    struct SCase
    {
        const char* m_pName;
        std::string m_sImage;
        std::function<void(CProgrammer&)> m_fnFail; // the gateway's failure
        std::string m_sEnd;
        // Block writes sent, from .. to: two may be in flight, so the failure report of
        // the first can come before or after the second is sent.
        size_t m_nWritesMin, m_nWritesMax;
        size_t m_nReads;
    };
    const SCase cases[] = {
        {"missing file", m_oDir.Path("missing.hex"), [](CProgrammer&) {}, "-1 100", 0, 0, 0},
        {"empty image", m_oDir.Path("empty.hex"), [](CProgrammer&) {}, "3 100", 0, 0, 0},
        // A failed block ends the write; nothing is read back.
        {"block fails", m_oDir.Image({{0, Counting(40000)}}), [](CProgrammer& p) { p.m_nFailState = 2; }, "-1 100", 1,
         2, 0},
        {"verify mismatch", m_oDir.Image({{0, Counting(40000)}}), [](CProgrammer& p) { p.m_bCorrupt = true; }, "-1 100",
         2, 2, 1},
        {"written", m_oDir.Image({{0, Counting(40000)}}), [](CProgrammer&) {}, "3 100", 2, 2, 2},
    };
    UseProgrammer();
    for (const SCase& c : cases)
    {
        NewClient();
        ASSERT_EQ(0, m_pClient->SetConfig(0, 0, 256, 0, ""));
        m_oProgrammer.m_bCorrupt = false;
        c.m_fnFail(m_oProgrammer);
        size_t from = m_oGateway.GetFrames().size();
        ASSERT_EQ(0, m_pClient->WriteFile(c.m_sImage)) << c.m_pName;
        EXPECT_EQ(c.m_sEnd, FileEnd()) << c.m_pName;
        size_t writes = Requests(0x0EE0, from).size();
        EXPECT_GE(writes, c.m_nWritesMin) << c.m_pName;
        EXPECT_LE(writes, c.m_nWritesMax) << c.m_pName;
        EXPECT_EQ(c.m_nReads, Requests(0x0EE3, from).size()) << c.m_pName;
        FileStep::EFileStep step;
        unsigned char percent;
        EXPECT_EQ(255, m_pClient->GetWriteFileStatus(step, percent)) << c.m_pName;
    }
}

TEST_F(CAWireTest, WhileAFileWriteExistsWritesAndConfigurationAreRefused)
{
    UseProgrammer();
    ASSERT_EQ(0, m_pClient->SetConfig(0, 0, 256, 0, ""));
    // Ended at once (no file), but not collected yet: it still exists.
    ASSERT_EQ(0, m_pClient->WriteFile(m_oDir.Path("missing.hex")));
    ASSERT_TRUE(m_oGateway.WaitForFrames(1, 5000));
    short handle = 0;
    char buf[4];
    unsigned short count = 0;
    EXPECT_EQ(0x0E21, m_pClient->WriteBlock(0, 4, "abcd", handle));
    EXPECT_EQ(0x0E21, m_pClient->WriteUserPage(0, 4, "abcd", handle));
    EXPECT_EQ(0x0E21, m_pClient->SetConfig(0, 0, 512, 0, ""));
    EXPECT_EQ(0x0E21, m_pClient->WriteFile(m_oDir.Path("missing.hex")));
    EXPECT_EQ(0, m_pClient->Read(0, 4, buf, count));
    EXPECT_EQ(0, m_pClient->Erase(0));
    EXPECT_EQ(3u, m_oGateway.GetFrames().size());
    EXPECT_EQ(256u, m_pClient->GetPageSize());
    EXPECT_EQ("-1 100", FileEnd());
    EXPECT_EQ(0, m_pClient->WriteBlock(0, 4, "abcd", handle));
}

TEST_F(CAWireTest, WithoutAPageSizeWriteFileAsksTheGatewayFirst)
{
    FileStep::EFileStep step;
    unsigned char percent;
    m_oProgrammer.m_nPageSize = 0;
    UseProgrammer();
    // The gateway does not know it either: nothing starts.
    EXPECT_EQ(0, m_pClient->WriteFile(m_oDir.Path("missing.hex")));
    EXPECT_EQ(255, m_pClient->GetWriteFileStatus(step, percent));
    AnswerWith(kSilence);
    EXPECT_EQ(TARVIK_ERR_TIMEOUT, m_pClient->WriteFile(m_oDir.Path("missing.hex")));
    EXPECT_EQ(255, m_pClient->GetWriteFileStatus(step, percent));
}

TEST_F(CAWireTest, AClientDestroyedDuringAFileWriteStopsItsThread)
{
    m_oProgrammer.m_bHold = true;
    UseProgrammer();
    ASSERT_EQ(0, m_pClient->WriteFile(m_oDir.Image({{0, Counting(4 * 32768)}})));
    ASSERT_TRUE(Eventually([&] { return m_oProgrammer.Held() == 2; }));
    m_pClient.reset();
}
