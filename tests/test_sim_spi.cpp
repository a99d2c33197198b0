// The simulated SPI gateway: globals, transfers to the 25xx EEPROM on its bus, and
// sequences with their result bytes, checked with hand-written frames.
#include "support/FakeGateway.h"

#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimEeprom25.h"
#include "sim/TarvikSimRawClient.h"
#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

using namespace tarvik_test;

namespace
{
constexpr unsigned int kDataReq = 0x0303;
constexpr unsigned int kSetGlobals = 0x0307;
constexpr unsigned int kGetGlobals = 0x0308;
constexpr unsigned int kRestart = 0x030C;
constexpr unsigned int kSequence = 0x0314;

// EEPROM instructions, as on the chip's data sheet.
const std::string kWREN = Hex("06");
const std::string kWRDI = Hex("04");
const std::string kRDSR = Hex("05 FF");

std::string Read(unsigned int address, size_t len)
{
    return Hex("03") + Frame({static_cast<int>(address >> 8), static_cast<int>(address & 0xFF)}) +
           std::string(len, '\0');
}

std::string Write(unsigned int address, const std::string& data)
{
    return Hex("02") + Frame({static_cast<int>(address >> 8), static_cast<int>(address & 0xFF)}) + data;
}

std::string WriteStatus(int status)
{
    return Frame({0x01, status});
}

// Sequence operations.
std::string U16(size_t value)
{
    return Frame({static_cast<int>(value & 0xFF), static_cast<int>((value >> 8) & 0xFF)});
}
const std::string kSelect = Hex("01");
const std::string kDeselect = Hex("02");
std::string OpWrite(const std::string& bytes)
{
    return Hex("03") + U16(bytes.size()) + bytes;
}
std::string OpRead(size_t count)
{
    return Hex("04") + U16(count);
}
std::string OpTransfer(const std::string& bytes)
{
    return Hex("05") + U16(bytes.size()) + bytes;
}
std::string OpDelay(size_t us)
{
    return Hex("06") + U16(us);
}
std::string OpPoll(int cmd, int mask, int value, size_t ms)
{
    return Frame({0x07, cmd, mask, value}) + U16(ms);
}

class SimSpi : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, m_oServer.AddDevice(eTarvikSPI));
        ASSERT_TRUE(m_oServer.Start());
        m_pDevice = dynamic_cast<CTarvikSimDeviceSPI*>(m_oServer.GetDevice(eTarvikSPI));
        ASSERT_NE(nullptr, m_pDevice);
        ASSERT_TRUE(m_oClient.Connect("127.0.0.1", m_oServer.GetPort(eTarvikSPI)));
    }

    std::string Ask(const std::string& frame) { return m_oClient.Transact(frame); }

    // Data field of the answer (result byte first) to a request built from its parts;
    // the answer's code, id, length and check byte are checked on the way.
    std::string Request(unsigned int cmd, const std::string& data)
    {
        int id = m_nNextId++;
        std::string answer = Ask(Telegram(cmd, id, data));
        EXPECT_EQ(ToHex(Cnf(cmd, id, FrameData(answer))), ToHex(answer));
        return FrameData(answer);
    }

    std::string Transfer(const std::string& mosi) { return Request(kDataReq, mosi); }
    std::string Sequence(const std::string& script) { return Request(kSequence, script); }
    // Status register, read through the gateway.
    int Status() { return static_cast<unsigned char>(Transfer(kRDSR).at(2)); }

    CTarvikSimServer m_oServer;
    CTarvikSimDeviceSPI* m_pDevice = nullptr;
    CTarvikSimRawClient m_oClient;
    int m_nNextId = 0x100;
};
} // namespace

TEST_F(SimSpi, GlobalsAreRememberedUntilRestart)
{
    // Rate 2000000, settings 3, 1, 0x5A.
    EXPECT_EQ(ToHex(Hex("06 00 07 83 10 00 00 94")), ToHex(Ask(Hex("0C 00 07 03 10 00 80 84 1E 00 03 01 5A 56"))));
    EXPECT_EQ(ToHex(Hex("0D 00 08 83 11 00 00 80 84 1E 00 03 01 5A D8")), ToHex(Ask(Hex("05 00 08 03 11 00 1A"))));

    EXPECT_EQ(Hex("00"), Request(kRestart, ""));
    // Back to 1000000, 0, 0, 0.
    EXPECT_EQ(Hex("00 40 42 0F 00 00 00 00"), Request(kGetGlobals, ""));
}

TEST_F(SimSpi, GlobalsWithWrongDataLengthAreInconsistent)
{
    ASSERT_EQ(Hex("00"), Request(kSetGlobals, LE32(400000) + Hex("01 02 03")));
    EXPECT_EQ(Hex("20"), Request(kSetGlobals, LE32(1) + Hex("01 02")));
    EXPECT_EQ(Hex("20"), Request(kSetGlobals, LE32(1) + Hex("01 02 03 04")));
    EXPECT_EQ(Hex("20"), Request(kSetGlobals, ""));
    EXPECT_EQ(Hex("20"), Request(kGetGlobals, Hex("00")));
    EXPECT_EQ(Hex("00") + LE32(400000) + Hex("01 02 03"), Request(kGetGlobals, ""));
}

TEST_F(SimSpi, EepromWriteWrapsWithinItsPageAndReadsBack)
{
    // WREN.
    EXPECT_EQ(ToHex(Hex("07 00 03 83 12 00 00 FF 6D")), ToHex(Ask(Hex("06 00 03 03 12 00 06 14"))));
    // WRITE at 0x007C: 11 22 33 44 fill the page up to 0x7F, 55 66 wrap to 0x40 and 0x41.
    EXPECT_EQ(ToHex(Hex("0F 00 03 83 13 00 00 FF FF FF FF FF FF FF FF FF 6C")),
              ToHex(Ask(Hex("0E 00 03 03 13 00 02 00 7C 11 22 33 44 55 66 1A"))));
    // READ 6 bytes at 0x007C: a read runs on into the next page (still erased).
    EXPECT_EQ(ToHex(Hex("0F 00 03 83 14 00 00 FF FF FF 11 22 33 44 FF FF 2F")),
              ToHex(Ask(Hex("0E 00 03 03 14 00 03 00 7C 00 00 00 00 00 00 6B"))));

    EXPECT_EQ(Hex("00 FF FF FF 55 66 FF"), Transfer(Read(0x0040, 3)));
    EXPECT_EQ(Hex("55 66"), m_pDevice->PeekEeprom(0x40, 2));
    EXPECT_EQ(Hex("11 22 33 44"), m_pDevice->PeekEeprom(0x7C, 4));
    EXPECT_EQ(Hex("FF FF"), m_pDevice->PeekEeprom(0x7A, 2));
    // The write cleared the write-enable latch.
    EXPECT_EQ(0x00, Status());
}

TEST_F(SimSpi, MoreThanAPageOverwritesTheStartOfThePage)
{
    std::string data;
    for (int i = 0; i < 70; ++i)
        data += static_cast<char>(i);
    Transfer(kWREN);
    Transfer(Write(0x0080, data));
    // Bytes 64..69 landed on 0x80..0x85 over bytes 0..5.
    std::string expected = data.substr(64, 6) + data.substr(6, 58);
    EXPECT_EQ(ToHex(expected), ToHex(m_pDevice->PeekEeprom(0x80, 64)));
    EXPECT_EQ(Hex("FF"), m_pDevice->PeekEeprom(0xC0, 1));
}

TEST_F(SimSpi, WritesNeedTheWriteEnableLatch)
{
    Transfer(Write(0x0010, Hex("AA")));
    EXPECT_EQ(Hex("FF"), m_pDevice->PeekEeprom(0x10, 1));

    Transfer(kWREN);
    EXPECT_EQ(0x02, Status());
    Transfer(kWRDI);
    EXPECT_EQ(0x00, Status());
    Transfer(Write(0x0010, Hex("AA")));
    EXPECT_EQ(Hex("FF"), m_pDevice->PeekEeprom(0x10, 1));

    // Chip select raised after the address: no data, no write, the latch stays.
    Transfer(kWREN);
    Transfer(Write(0x0010, ""));
    EXPECT_EQ(0x02, Status());
    Transfer(Write(0x0010, Hex("AB")));
    EXPECT_EQ(Hex("AB"), m_pDevice->PeekEeprom(0x10, 1));
}

TEST_F(SimSpi, ReadWrapsAtTheEndOfMemoryAndIgnoresTheTopAddressBit)
{
    m_pDevice->PokeEeprom(0x7FFE, Hex("C1 C2"));
    m_pDevice->PokeEeprom(0x0000, Hex("D1 D2"));
    EXPECT_EQ(Hex("00 FF FF FF C1 C2 D1 D2"), Transfer(Read(0x7FFE, 4)));
    // 32 KiB: address bit 15 is not decoded.
    EXPECT_EQ(Hex("00 FF FF FF D1 D2"), Transfer(Read(0x8000, 2)));
}

TEST_F(SimSpi, BlockProtectionKeepsTheUpperQuarter)
{
    Transfer(kWREN);
    Transfer(WriteStatus(0x04)); // BP0: 0x6000..0x7FFF protected
    EXPECT_EQ(0x04, Status());

    Transfer(kWREN);
    Transfer(Write(0x6000, Hex("01 02")));
    EXPECT_EQ(Hex("FF FF"), m_pDevice->PeekEeprom(0x6000, 2));
    EXPECT_EQ(0x04, Status()) << "the latch is cleared even when the write is refused";

    Transfer(kWREN);
    Transfer(Write(0x5FC0, Hex("03 04")));
    EXPECT_EQ(Hex("03 04"), m_pDevice->PeekEeprom(0x5FC0, 2));

    // WRSR without the latch changes nothing; only BP0, BP1 and WPEN are writable.
    Transfer(WriteStatus(0x0C));
    EXPECT_EQ(0x04, Status());
    Transfer(kWREN);
    Transfer(WriteStatus(0xFF));
    EXPECT_EQ(0x8C, Status());
}

TEST_F(SimSpi, RestartKeepsTheEepromButClearsItsLatch)
{
    Transfer(kWREN);
    Transfer(Write(0x0200, Hex("5A")));
    Transfer(kWREN);
    Transfer(WriteStatus(0x08));
    Transfer(kWREN);
    ASSERT_EQ(0x0A, Status());

    EXPECT_EQ(Hex("00"), Request(kRestart, ""));
    EXPECT_EQ(0x08, Status());
    EXPECT_EQ(Hex("00 FF FF FF 5A"), Transfer(Read(0x0200, 1)));
}

TEST_F(SimSpi, TransferSizeIsBoundByTheAnswerTelegram)
{
    EXPECT_EQ(Hex("00"), Transfer(""));
    // 65529 bytes out: 65530 bytes of answer data, the largest telegram.
    m_pDevice->PokeEeprom(0, Hex("E0 E1"));
    std::string answer = Transfer(Read(0, 65526));
    ASSERT_EQ(65530u, answer.size());
    EXPECT_EQ(Hex("00 FF FF FF E0 E1"), answer.substr(0, 6));
    // Two rounds through memory.
    EXPECT_EQ(Hex("E0 E1"), answer.substr(4 + 32768, 2));
    // One byte more has no room in the answer.
    EXPECT_EQ(Hex("20"), Transfer(Read(0, 65527)));
}

TEST_F(SimSpi, SequenceRunsItsOperationsOnTheBus)
{
    m_pDevice->PokeEeprom(0x7C, Hex("11 22 33 44"));
    // SELECT, WRITE 03 00 7C, READ 4, DESELECT.
    EXPECT_EQ(ToHex(Hex("0A 00 14 83 15 00 00 11 22 33 44 C6")),
              ToHex(Ask(Hex("10 00 14 03 15 00 01 03 03 00 03 00 7C 04 04 00 02 7E"))));

    struct SCase
    {
        const char* m_pName;
        std::string m_sScript;
        std::string m_sAnswer;
    };
    const SCase cases[] = {
        {"empty script", "", Hex("00")},
        {"TRANSFER is full duplex", kSelect + OpTransfer(Hex("03 00 7D 00 00")) + kDeselect, Hex("00 FF FF FF 22 33")},
        {"READ and TRANSFER without select see an idle line", OpRead(2) + OpTransfer(Hex("05 00")),
         Hex("00 FF FF FF FF")},
        {"END stops the script", kSelect + OpTransfer(Hex("03 00 7E")) + OpRead(1) + Hex("00") + OpRead(5),
         Hex("00 FF FF FF 33")},
        {"chip select is raised between frames", kSelect + OpWrite(Hex("03 00 7C")) + kDeselect + kSelect + OpRead(1),
         Hex("00 FF")},
        {"repeated select and deselect are harmless",
         kDeselect + kSelect + kSelect + OpWrite(Hex("03 00 7F")) + OpRead(1) + kDeselect + kDeselect, Hex("00 44")},
        {"short delays", OpDelay(100) + OpDelay(0) + kSelect + OpWrite(kRDSR.substr(0, 1)) + OpRead(1), Hex("00 00")},
        {"poll that is met at once", OpPoll(0x05, 0x01, 0x00, 0) + OpPoll(0x05, 0x03, 0x00, 100), Hex("00")},
    };
    for (const SCase& c : cases)
        EXPECT_EQ(ToHex(c.m_sAnswer), ToHex(Sequence(c.m_sScript))) << c.m_pName;
}

TEST_F(SimSpi, SequenceWritesAndTheScriptEndRaisesChipSelect)
{
    // The last WRITE is left selected: the end of the script commits it.
    EXPECT_EQ(Hex("00 02"), Sequence(kSelect + OpWrite(kWREN) + kDeselect + kSelect + OpWrite(kRDSR.substr(0, 1)) +
                                     OpRead(1) + kDeselect + kSelect + OpWrite(Write(0x0300, Hex("BE EF")))));
    EXPECT_EQ(Hex("BE EF"), m_pDevice->PeekEeprom(0x300, 2));
    EXPECT_EQ(0x00, Status());
}

TEST_F(SimSpi, BadSequencesAnswerTheirResultByteAndTouchNothing)
{
    // Would write 0x77 to 0x0400 if any of it ran.
    const std::string writing = kSelect + OpWrite(kWREN) + kDeselect + kSelect + OpWrite(Write(0x0400, Hex("77")));
    // 17 delays of 60 ms.
    std::string longDelays;
    for (int i = 0; i < 17; ++i)
        longDelays += OpDelay(60000);
    // Unknown op code 0x30, golden.
    EXPECT_EQ(ToHex(Hex("06 00 14 83 16 00 30 B1")), ToHex(Ask(Hex("06 00 14 03 16 00 30 31"))));

    struct SCase
    {
        const char* m_pName;
        std::string m_sScript;
        int m_nResult;
    };
    const SCase cases[] = {
        {"unknown op code", writing + Hex("08"), 0x30},
        {"unknown op code 0xFF", writing + Hex("FF 00 00"), 0x30},
        {"WRITE without its count", writing + Hex("03 01"), 0x20},
        {"WRITE with fewer bytes than counted", writing + Hex("03 04 00 01 02 03"), 0x20},
        {"TRANSFER with fewer bytes than counted", writing + Hex("05 02 00 01"), 0x20},
        {"READ without its count", writing + Hex("04"), 0x20},
        {"DELAY without its time", writing + Hex("06 10"), 0x20},
        {"POLL cut short", writing + Hex("07 05 01 00 0A"), 0x20},
        {"reads beyond one answer telegram", writing + OpRead(0xFFFF), 0x20},
        {"reads adding up beyond one telegram", writing + OpRead(40000) + OpTransfer(std::string(25530, '\0')), 0x20},
        {"delays over one second", writing + longDelays, 0x31},
        {"poll time-out over one second", writing + OpPoll(0x05, 0x01, 0x00, 1001), 0x31},
        {"delay and poll over one second", writing + OpDelay(50000) + OpPoll(0x05, 0x01, 0x00, 951), 0x31},
    };
    for (const SCase& c : cases)
    {
        EXPECT_EQ(ToHex(Frame({c.m_nResult})), ToHex(Sequence(c.m_sScript))) << c.m_pName;
        EXPECT_EQ(Hex("FF"), m_pDevice->PeekEeprom(0x400, 1)) << c.m_pName;
        EXPECT_EQ(0x00, Status()) << c.m_pName;
    }
    // The largest allowed read and wait pass the check.
    EXPECT_EQ(65530u, Sequence(OpRead(65529)).size());
    EXPECT_EQ(Hex("00"), Sequence(OpPoll(0x05, 0x01, 0x00, 950) + OpDelay(50000)));
}

TEST_F(SimSpi, PollWaitsForTheWriteCycleAndTimesOut)
{
    m_pDevice->SetEepromWriteCycleMs(20);
    std::string script = kSelect + OpWrite(kWREN) + kDeselect + kSelect + OpWrite(Write(0x0500, Hex("C3"))) +
                         kDeselect + OpPoll(0x05, 0x01, 0x00, 500) + kSelect + OpWrite(Hex("03 05 00")) + OpRead(1);
    EXPECT_EQ(Hex("00 C3"), Sequence(script));

    // A cycle far longer than the poll: the poll gives up with 0x31.
    m_pDevice->SetEepromWriteCycleMs(60000);
    Transfer(kWREN);
    Transfer(Write(0x0501, Hex("3C")));
    EXPECT_EQ(0x01, Status());
    // While busy the chip answers nothing but RDSR.
    EXPECT_EQ(Hex("00 FF FF FF FF"), Transfer(Read(0x0500, 1)));
    EXPECT_EQ(Hex("31"), Sequence(OpPoll(0x05, 0x01, 0x00, 5) + kSelect + OpRead(1)));
    m_pDevice->SetEepromWriteCycleMs(0);
    EXPECT_EQ(Hex("00 FF FF FF C3 3C"), Transfer(Read(0x0500, 2)));
}

TEST(SimEeprom25, StatusAndPowerUp)
{
    CTarvikSimEeprom25 eeprom;
    EXPECT_EQ(32768u, eeprom.GetSize());
    EXPECT_EQ(64u, eeprom.GetPageSize());
    EXPECT_EQ(Hex("FF FF"), eeprom.Peek(0x1234, 2));

    // Without chip select the chip neither listens nor drives MISO.
    EXPECT_EQ(0xFF, eeprom.Transfer(CTarvikSimEeprom25::eInstrWREN));
    EXPECT_EQ(0x00, eeprom.GetStatus());

    eeprom.Select();
    EXPECT_EQ(0xFF, eeprom.Transfer(CTarvikSimEeprom25::eInstrWREN));
    eeprom.Deselect();
    EXPECT_EQ(CTarvikSimEeprom25::eStatusWEL, eeprom.GetStatus());

    // RDSR repeats the status for as long as the chip is selected.
    eeprom.Select();
    eeprom.Transfer(CTarvikSimEeprom25::eInstrRDSR);
    EXPECT_EQ(0x02, eeprom.Transfer(0));
    EXPECT_EQ(0x02, eeprom.Transfer(0));
    // Reset in the middle of a frame: the latch goes, the frame is abandoned.
    eeprom.Reset();
    EXPECT_EQ(0xFF, eeprom.Transfer(0));
    EXPECT_EQ(0x00, eeprom.GetStatus());

    // An unknown instruction is ignored up to the end of its frame.
    eeprom.Select();
    EXPECT_EQ(0xFF, eeprom.Transfer(0x9F));
    EXPECT_EQ(0xFF, eeprom.Transfer(CTarvikSimEeprom25::eInstrWREN));
    eeprom.Deselect();
    EXPECT_EQ(0x00, eeprom.GetStatus());
}

TEST(SimEeprom25, OtherGeometries)
{
    // 8 KiB with 32-byte pages: the address wraps at 0x2000, a write at the page's end.
    CTarvikSimEeprom25 eeprom(8192, 32);
    eeprom.Select();
    eeprom.Transfer(CTarvikSimEeprom25::eInstrWREN);
    eeprom.Deselect();
    eeprom.Select();
    for (int byte : {0x02, 0x20, 0x1F, 0xA1, 0xA2})
        eeprom.Transfer(static_cast<unsigned char>(byte));
    eeprom.Deselect();
    EXPECT_EQ(Hex("A1"), eeprom.Peek(0x1F, 1));
    EXPECT_EQ(Hex("A2"), eeprom.Peek(0x00, 1));

    // Sizes that are no power of two fall back to the 32 KiB part.
    CTarvikSimEeprom25 odd(1000, 48);
    EXPECT_EQ(32768u, odd.GetSize());
    EXPECT_EQ(64u, odd.GetPageSize());
}
