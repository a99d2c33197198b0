// The AWire client against the simulated programmer and its target: whole files written
// and read back, progress reports at a programming rate, the gateway's failures, the
// configuration and the user page.
#include "support/HexfileTestUtil.h"
#include "support/SimFixture.h"
#include "support/Wait.h"

#include "sim/TarvikSimDeviceAWire.h"
#include "tarvik/clients/TarvikClientAWire.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace tarvik_test;

namespace
{
typedef CTarvikClientAWire CAWire;
typedef CAWire::FileStep FileStep;
typedef CTarvikSimDeviceAWire CDevice;

using hexfile_test::Pattern;

class CAWireSimTest : public CSimFixture<CDevice, CAWire, eTarvikAWire>
{
protected:
    // Polls the file write to its end: "step percent"; every (step, percent) seen on the way.
    std::string WaitForEnd(std::set<std::pair<int, int>>* seen = nullptr)
    {
        std::string end = "no end";
        tarvik_test::Eventually(
            [&] {
                FileStep::EFileStep step = FileStep::eNotStarted;
                unsigned char percent = 0;
                int result = m_oClient.GetWriteFileStatus(step, percent);
                if (seen != nullptr && result == 0)
                    seen->insert({step, percent});
                if (result != 0)
                    end = "result " + std::to_string(result);
                else if (step == FileStep::eDone || step == FileStep::eFailed)
                    end = std::to_string(step) + " " + std::to_string(percent);
                return end != "no end";
            },
            std::chrono::seconds(20));
        return end;
    }
    // The target's bytes as the client reads them.
    std::string ReadBack(unsigned int address, size_t length)
    {
        std::string out;
        while (out.size() < length)
        {
            char buf[32768];
            unsigned short want =
                static_cast<unsigned short>(length - out.size() < sizeof buf ? length - out.size() : sizeof buf);
            unsigned short count = 0;
            if (m_oClient.Read(static_cast<unsigned int>(address + out.size()), want, buf, count) != 0 || count == 0)
                break;
            out.append(buf, count);
        }
        return out;
    }
    bool BlockEnds(short handle, CAWire::Progress::EProgress& state)
    {
        unsigned short length = 0, done = 0;
        return tarvik_test::Eventually(
            [&] { return m_oClient.GetWriteBlockStatus(handle, state, length, done) == 0 && state != 1; });
    }

    hexfile_test::CTempDir m_oDir;
};
} // namespace

TEST_F(CAWireSimTest, AnIntelHexImageIsWrittenAndReadsBackIdentical)
{
    const std::string first = Pattern(100000, 1), second = Pattern(777, 2);
    ASSERT_EQ(0, m_oClient.Erase(0));
    ASSERT_EQ(0, m_oClient.WriteFile(m_oDir.Image({{0x100, first}, {0x30000, second}})));
    EXPECT_EQ("3 100", WaitForEnd());
    EXPECT_EQ(first, ReadBack(0x100, first.size()));
    EXPECT_EQ(second, ReadBack(0x30000, second.size()));
    // Around the blocks the flash is still erased.
    EXPECT_EQ(std::string(0x100, '\xFF'), ReadBack(0, 0x100));
    EXPECT_EQ(256u, m_oClient.GetPageSize());
}

TEST_F(CAWireSimTest, ProgressGrowsAsTheTargetIsProgrammed)
{
    // 4 chunks at 1 MB/s: some 130 ms of programming, reported as it goes.
    m_pDevice->SetRate(1000000);
    ASSERT_EQ(0, m_oClient.WriteFile(m_oDir.Image({{0, Pattern(4 * 32768, 3)}})));
    std::set<std::pair<int, int>> seen;
    EXPECT_EQ("3 100", WaitForEnd(&seen));
    size_t writing = 0;
    int last = -1;
    bool growing = true;
    for (const auto& s : seen)
        if (s.first == FileStep::eWriting)
        {
            ++writing;
            growing = growing && s.second > last;
            last = s.second;
        }
    // Percentages inside a chunk, not just at its end: the block progress counts.
    EXPECT_GE(writing, 5u);
    EXPECT_TRUE(growing);
    EXPECT_LE(m_pDevice->GetMostQueued(), 2u);
}

TEST_F(CAWireSimTest, TheGatewaysFailuresEndTheFileWrite)
{
    typedef CAWire::FileFailure FileFailure;
    const std::string data = Pattern(70000, 4);
    CTarvikHexfile image;
    image.AddMemoryBlock(0, data.data(), static_cast<unsigned int>(data.size()));
    // what | prepare | end | target afterwards at 0x8000 (first byte) | cause | where
    const std::tuple<const char*, std::function<void(CDevice&, CAWire&)>, std::string, std::string, int, uint64_t>
        cases[] = {
            {"failed second block", [](CDevice& d, CAWire&) { d.InjectBlockFailure(2, 1); }, "-1 100", "\xFF",
             FileFailure::eBlockFailed, 0x8000},
            // Not erased: flash only clears bits, so the read-back differs.
            {"not erased",
             [](CDevice&, CAWire& c) {
                 short h;
                 c.WriteBlock(0x8000, 1, "\x0F", h);
             },
             "-1 100", std::string(1, static_cast<char>(data[0x8000] & 0x0F)), FileFailure::eVerifyMismatch, 0x8000},
            {"erased", [](CDevice&, CAWire&) {}, "3 100", data.substr(0x8000, 1), FileFailure::eNone, 0},
        };
    for (const auto& c : cases)
    {
        ASSERT_EQ(0, m_oClient.Erase(0));
        std::get<1>(c)(*m_pDevice, m_oClient);
        // The loaded image is written as it is; the cause is the same however fast the end comes.
        ASSERT_EQ(0, m_oClient.WriteImage(image));
        EXPECT_EQ(std::get<2>(c), WaitForEnd()) << std::get<0>(c);
        EXPECT_EQ(std::get<3>(c), m_pDevice->Peek(0x8000, 1)) << std::get<0>(c);
        const CAWire::SFileFailure failure = m_oClient.GetWriteFileFailure();
        EXPECT_EQ(std::get<4>(c), failure.m_eCause) << std::get<0>(c);
        EXPECT_EQ(std::get<5>(c), failure.m_nAddress) << std::get<0>(c);
    }
    // A file that cannot be loaded says so as its cause.
    ASSERT_EQ(0, m_oClient.WriteFile(m_oDir.Path("missing.hex")));
    EXPECT_EQ("-1 100", WaitForEnd());
    EXPECT_EQ(FileFailure::eLoad, m_oClient.GetWriteFileFailure().m_eCause);
}

TEST_F(CAWireSimTest, ConfigurationUserPageAndRefusals)
{
    unsigned int v1 = 0, v2 = 0, page = 0, v4 = 0;
    std::string text;
    ASSERT_EQ(0, m_oClient.SetConfig(1, 2, 512, 4, "uc3"));
    EXPECT_EQ(512u, m_oClient.GetPageSize());
    // The gateway remembers the values; the page size is the target's.
    ASSERT_EQ(0, m_oClient.GetConfig(v1, v2, page, v4, text));
    EXPECT_EQ("1 2 256 4 uc3", std::to_string(v1) + " " + std::to_string(v2) + " " + std::to_string(page) + " " +
                                   std::to_string(v4) + " " + text);
    EXPECT_EQ(256u, m_oClient.GetPageSize());

    const unsigned int userPage = CDevice::kUserPageOffset;
    short handle = 0;
    CAWire::Progress::EProgress state;
    ASSERT_EQ(0, m_oClient.WriteUserPage(userPage + 4, 4, "\x12\x34\x56\x78", handle));
    ASSERT_TRUE(BlockEnds(handle, state));
    EXPECT_EQ(0, state);
    EXPECT_EQ(0, m_oClient.Verify(userPage + 4, 4, "\x12\x34\x56\x78"));
    EXPECT_EQ(0, m_oClient.EraseUserPage());
    EXPECT_EQ(std::string(8, '\xFF'), ReadBack(userPage, 8));

    // A block outside its region fails in its report; reads outside and block erases are refused.
    ASSERT_EQ(0, m_oClient.WriteBlock(userPage, 4, "abcd", handle));
    ASSERT_TRUE(BlockEnds(handle, state));
    EXPECT_EQ(2, state);
    char buf[4];
    unsigned short count = 0;
    EXPECT_EQ(0x0E26, m_oClient.Read(0x40000, 4, buf, count));
    EXPECT_EQ(0x0E24, m_oClient.Erase(1));
}
