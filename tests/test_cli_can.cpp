// tarvik can and tarvik canopen as a user runs them, against two CAN gateways of an
// in-process simulator on one bus: what "can send" writes on one gateway, "can dump"
// prints from the other in candump's layouts, "can play" replays a captured log, and
// can-utils' log2asc reads the log as written.
#include "support/CliProcess.h"
#include "support/HexfileTestUtil.h"
#include "support/SdoCases.h"
#include "support/SimFixture.h"
#include "support/Wait.h"

#include "sim/TarvikSimServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <regex>
#include <thread>
#include <unistd.h>

namespace
{
using namespace tarvik_test;

class CliCan : public CSimServerFixture
{
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(StartSim({{eTarvikCAN, 0}, {eTarvikCAN, 1}})); }

    // tarvik's arguments for gateway index, then the command's own.
    std::vector<std::string> Args(unsigned int index, std::vector<std::string> command) const
    {
        std::vector<std::string> args = {"--host", "127.0.0.1", "--port",
                                         std::to_string(m_oServer.GetPort(eTarvikCAN, index))};
        args.insert(args.end(), command.begin(), command.end());
        return args;
    }
    SCliRun Run(unsigned int index, std::vector<std::string> command) const
    {
        return CliRunProgram(kCliTarvik, Args(index, std::move(command)));
    }
    // A dump on gateway 1, started and connected before anything is sent.
    std::unique_ptr<CCliProcess> StartDump(std::vector<std::string> options) const
    {
        std::vector<std::string> command = {"can", "dump"};
        command.insert(command.end(), options.begin(), options.end());
        CTarvikSimDevice* gateway = m_oServer.GetDevice(eTarvikCAN, 1);
        size_t before = gateway->GetConnectionCount();
        auto dump = std::make_unique<CCliProcess>(kCliTarvik, Args(1, command));
        // The dump sets its callback before it connects: connected means listening.
        Eventually([&] { return gateway->GetConnectionCount() != before; }, std::chrono::seconds(20));
        return dump;
    }

    hexfile_test::CTempDir m_oDir;
};
} // namespace

TEST_F(CliCan, SentFramesAreDumpedAndTheLogReplays)
{
    const std::string log = m_oDir.Path("bus.log");
    auto dump = StartDump({"-n", "3", "-L", "-o", log});
    SCliRun send = Run(0, {"can", "send", "123#DEADBEEF", "12345678#R5", "7FF##1AABB"});
    ASSERT_EQ(0, send.m_nExit) << CliDescribe(send);
    ASSERT_EQ(0, dump->Wait(20000)) << dump->Err();
    EXPECT_NE(std::string::npos, dump->Err().find("3 frames; dropped on arrival: none")) << dump->Err();
    std::string text = CliReadFile(log);
    EXPECT_TRUE(std::regex_match(text, std::regex("\\(\\d{10}\\.\\d{6}\\) tarvik0 123#DEADBEEF\n"
                                                  "\\(\\d{10}\\.\\d{6}\\) tarvik0 12345678#R5\n"
                                                  "\\(\\d{10}\\.\\d{6}\\) tarvik0 7FF##1AABB\n")))
        << text;

    // can-utils reads the log as it is (when installed).
    if (::access("/usr/bin/log2asc", X_OK) == 0)
    {
        SCliRun asc = CliRunProgram("/usr/bin/log2asc", {"-I", log, "tarvik0"});
        EXPECT_EQ(0, asc.m_nExit);
        EXPECT_NE(std::string::npos, asc.m_sOut.find("123             Rx   d 4 DE AD BE EF")) << asc.m_sOut;
        EXPECT_NE(std::string::npos, asc.m_sOut.find("12345678x       Rx   r")) << asc.m_sOut;
    }

    // The capture replayed on gateway 0 comes out of gateway 1 in candump's layout.
    dump = StartDump({"-n", "3"});
    SCliRun play = Run(0, {"can", "play", log});
    ASSERT_EQ(0, play.m_nExit) << CliDescribe(play);
    EXPECT_EQ("sent 3 frames\n", play.m_sOut);
    ASSERT_EQ(0, dump->Wait(20000)) << dump->Err();
    EXPECT_EQ("  tarvik0  123   [4]  DE AD BE EF\n"
              "  tarvik0  12345678   [5]  remote request\n"
              "  tarvik0  7FF  [02]  AA BB\n",
              dump->Out());
}

TEST_F(CliCan, ADumpStoppedWithCtrlCEndsCleanly)
{
    const std::string log = m_oDir.Path("some.log");
    auto dump = StartDump({"-L", "-o", log});
    ASSERT_EQ(0, Run(0, {"can", "send", "321#01"}).m_nExit);
    for (int i = 0; i < 2000 && CliReadFile(log).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    dump->Signal(SIGINT);
    EXPECT_EQ(0, dump->Wait(20000)) << dump->Err();
    EXPECT_NE(std::string::npos, CliReadFile(log).find(" tarvik0 321#01\n"));
}

TEST_F(CliCan, SettingsAndCanOpenServicesRoundTrip)
{
    struct SStep
    {
        std::vector<std::string> m_asArgs;
        int m_nExit;
        const char* m_pOut; // a line the output holds
    };
    const SStep steps[] = {
        {{"can", "status"}, 0, "dropped  none"},
        {{"--json", "can", "status"}, 0, "\"dropped\":{\"pdo\":{\"queues_off\":0,\"queue_full\":0,"},
        {{"--json", "can", "dump", "--duration", "0.2"}, 0, "{\"summary\":{\"frames\":0,\"dropped\":{\"pdo\":"},
        {{"can", "globals", "--baudrate", "250000"}, 0, "baudrate 250000"},
        {{"--json", "can", "globals"}, 0, "\"baudrate\":250000"},
        {{"can", "globals", "--baudrate", "12345"}, 1, ""},
        {{"can", "send", "--confirm", "100#00"}, 0, ") 100#00 sent"},
        {{"can", "cyclic", "200#AA", "--interval", "10", "--index", "2"}, 0, "cyclic 2: 200#AA every 10 ms"},
        {{"can", "cyclic", "200#AA", "--off", "--index", "2"}, 0, "cyclic 2: 200#AA off"},
        {{"canopen", "sdo-read", "2", "0x1000", "0"}, 1, ""},
        {{"canopen", "mode", "on"}, 0, "CANopen mode 1"},
        {{"canopen", "sdo-write", "2", "0x2001", "0", "0x1234", "--size", "2"}, 0, "value 0x1234 (4660), 2 bytes"},
        {{"canopen", "sdo-read", "2", "0x2001", "0"}, 0, "value 0x1234 (4660), 2 bytes"},
        {{"--json", "canopen", "sdo-read", "2", "0x1018", "4"}, 0, "\"status\":0"},
        {{"canopen", "nmt", "2", "start"}, 0, "NMT start sent to node 2"},
        {{"canopen", "sync"}, 0, "SYNC sent"},
        // Usage errors exit 2.
        {{"can", "send", "12#00"}, 2, ""},
        {{"can", "send", "123#001122334455667788"}, 2, ""},
        {{"can", "cyclic", "123#00"}, 2, ""},
        {{"can", "filter", "--set", "1", "2"}, 2, ""},
        {{"canopen", "nmt", "2", "jump"}, 2, ""},
        {{"canopen", "sdo-write", "2", "0x2000", "0", "0x100", "--size", "1"}, 2, ""},
    };
    for (const SStep& step : steps)
    {
        SCliRun run = Run(0, step.m_asArgs);
        std::string what = step.m_asArgs[0] + " " + step.m_asArgs[1] + "\n" + CliDescribe(run);
        EXPECT_EQ(step.m_nExit, run.m_nExit) << what;
        EXPECT_NE(std::string::npos, run.m_sOut.find(step.m_pOut)) << what;
    }
}

// The values as they came and each CANopen failure in its own words: the mode with the
// command that switches it, the node that does not answer, the node's abort code.
TEST_F(CliCan, SdoValuesAndFailuresSayWhatHappened)
{
    SCliRun off = Run(0, {"canopen", "sdo-read", "2", "0x1000", "0"});
    EXPECT_EQ(1, off.m_nExit);
    EXPECT_NE(std::string::npos, off.m_sErr.find("CANopen mode is off on this gateway")) << off.m_sErr;
    EXPECT_NE(std::string::npos,
              off.m_sErr.find(" --port " + std::to_string(m_oServer.GetPort(eTarvikCAN, 0)) + " canopen mode on"))
        << off.m_sErr;

    SCliRun events = Run(0, {"canopen", "events", "--duration", "0.1"});
    EXPECT_EQ(0, events.m_nExit);
    EXPECT_NE(std::string::npos, events.m_sErr.find("CANopen mode is off, so no events will come")) << events.m_sErr;

    ASSERT_EQ(0, Run(0, {"canopen", "mode", "on"}).m_nExit);
    for (const SSdoCase& c : kSdoCases)
    {
        char index[8];
        std::snprintf(index, sizeof(index), "0x%04X", c.m_nIndex);
        if (c.m_nSize != 0)
        {
            ASSERT_EQ(0, Run(0, {"canopen", "sdo-write", "2", index, "0", std::to_string(c.m_nValue), "--size",
                                 std::to_string(c.m_nSize)})
                             .m_nExit)
                << c.m_pName;
        }
        SCliRun json = Run(0, {"--json", "canopen", "sdo-read", "2", index, "0"});
        if (c.m_nSize != 0)
        {
            EXPECT_NE(std::string::npos, json.m_sOut.find("\"value\":" + std::to_string(c.m_nValue) +
                                                          ",\"size\":" + std::to_string(c.m_nSize)))
                << c.m_pName << CliDescribe(json);
        }
        else
        {
            char abort[160];
            std::snprintf(abort, sizeof(abort), "node 2 aborted the transfer with 0x%08X: %s", c.m_nAbortCode,
                          c.m_pAbortText);
            EXPECT_EQ(1, json.m_nExit) << c.m_pName;
            EXPECT_NE(std::string::npos, json.m_sOut.find(abort)) << c.m_pName << CliDescribe(json);
            std::snprintf(abort, sizeof(abort), "\"abort_code\":\"0x%08X\",\"abort_text\":\"%s\"", c.m_nAbortCode,
                          c.m_pAbortText);
            EXPECT_NE(std::string::npos, json.m_sOut.find(abort)) << c.m_pName << CliDescribe(json);
        }
    }
    SCliRun text = Run(0, {"canopen", "sdo-read", "2", "0x2002", "0"});
    EXPECT_EQ("SDO read node 2 object 0x2002/0: value 0x80808080 (2155905152), 4 bytes\n", text.m_sOut);

    SCliRun silent = Run(0, {"canopen", "sdo-read", "9", "0x1000", "0"});
    EXPECT_EQ(1, silent.m_nExit);
    EXPECT_NE(std::string::npos, silent.m_sErr.find("node 9 does not answer")) << silent.m_sErr;
    EXPECT_EQ(std::string::npos, silent.m_sErr.find("block timeout")) << silent.m_sErr;

    // The mode shows in the status; a dump says once that it hides the frames.
    EXPECT_NE(std::string::npos, Run(0, {"can", "status"}).m_sOut.find("canopen  on (mode 1)"));
    SCliRun dump = Run(0, {"can", "dump", "--duration", "0.2"});
    EXPECT_EQ(0, dump.m_nExit) << CliDescribe(dump);
    size_t at = dump.m_sErr.find("CANopen mode is on");
    EXPECT_NE(std::string::npos, at) << dump.m_sErr;
    EXPECT_EQ(std::string::npos, dump.m_sErr.find("CANopen mode is on", at + 1)) << dump.m_sErr;
    EXPECT_NE(std::string::npos, dump.m_sErr.find("canopen mode off")) << dump.m_sErr;
}
