// tarvik can and tarvik canopen as a user runs them, against two CAN gateways of an
// in-process simulator on one bus: what "can send" writes on one gateway, "can dump"
// prints from the other in candump's layouts, "can play" replays a captured log, and
// can-utils' log2asc reads the log as written.
#include "support/CliProcess.h"

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

class CliCan : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (unsigned int index : {0u, 1u})
            ASSERT_EQ(0, m_oServer.AddDevice(eTarvikCAN, "127.0.0.1", 0, index));
        ASSERT_TRUE(m_oServer.Start());
        char dir[] = "/tmp/tarvik-cli-can-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(dir));
        m_sDir = dir;
    }
    void TearDown() override { std::system(("rm -rf " + m_sDir).c_str()); }

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
        for (int i = 0; i < 4000 && gateway->GetConnectionCount() == before; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return dump;
    }

    CTarvikSimServer m_oServer;
    std::string m_sDir;
};
} // namespace

TEST_F(CliCan, SentFramesAreDumpedAndTheLogReplays)
{
    const std::string log = m_sDir + "/bus.log";
    auto dump = StartDump({"-n", "3", "-L", "-o", log});
    SCliRun send = Run(0, {"can", "send", "123#DEADBEEF", "12345678#R", "7FF##1AABB"});
    ASSERT_EQ(0, send.m_nExit) << CliDescribe(send);
    ASSERT_EQ(0, dump->Wait(20000)) << dump->Err();
    std::string text = CliReadFile(log);
    EXPECT_TRUE(std::regex_match(text, std::regex("\\(\\d{10}\\.\\d{6}\\) tarvik0 123#DEADBEEF\n"
                                                  "\\(\\d{10}\\.\\d{6}\\) tarvik0 12345678#R\n"
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
              "  tarvik0  12345678   [0]  remote request\n"
              "  tarvik0  7FF  [02]  AA BB\n",
              dump->Out());
}

TEST_F(CliCan, ADumpStoppedWithCtrlCEndsCleanly)
{
    const std::string log = m_sDir + "/some.log";
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
        {{"can", "globals", "--baudrate", "250000"}, 0, "baudrate 250000"},
        {{"--json", "can", "globals"}, 0, "\"baudrate\":250000"},
        {{"can", "globals", "--baudrate", "12345"}, 1, ""},
        {{"can", "send", "--confirm", "100#00"}, 0, ") 100#00 sent"},
        {{"can", "cyclic", "200#AA", "--interval", "10", "--index", "2"}, 0, "cyclic 2: 200#AA every 10 ms"},
        {{"can", "cyclic", "200#AA", "--off", "--index", "2"}, 0, "cyclic 2: 200#AA off"},
        {{"canopen", "sdo-read", "2", "0x1000", "0"}, 1, ""},
        {{"canopen", "mode", "on"}, 0, "CANopen mode 1"},
        {{"canopen", "sdo-write", "2", "0x2001", "0", "0x1234", "--size", "2"}, 0, "status 0"},
        {{"canopen", "sdo-read", "2", "0x2001", "0"}, 0, "value 0x00001234 (4660)"},
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
