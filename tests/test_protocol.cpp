// The command tables of the device families: what tools and dissectors are generated from.
#include "tarvik/protocol/TarvikProtocolAD.h"
#include "tarvik/protocol/TarvikProtocolAWire.h"
#include "tarvik/protocol/TarvikProtocolDIO.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"
#include "tarvik/protocol/TarvikProtocolFirmware.h"
#include "tarvik/protocol/TarvikProtocolI2C.h"
#include "tarvik/protocol/TarvikProtocolRenesas.h"
#include "tarvik/protocol/TarvikProtocolSPI.h"
#include "tarvik/protocol/TarvikProtocolTestSystemCOM.h"
#include "tarvik/protocol/TarvikProtocolTestSystemIO.h"
#include "tarvik/protocol/TarvikProtocolTestSystemPWR.h"
#include "tarvik/protocol/TarvikProtocolTestSystemRelay.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace tp = tarvik_protocol;

namespace
{
struct SFamily
{
    const char* m_pszName;
    std::vector<tp::SCommandName> m_aCommands;
};

template <size_t N>
std::vector<tp::SCommandName> Rows(const tp::SCommandName (&table)[N])
{
    return std::vector<tp::SCommandName>(table, table + N);
}
} // namespace

// Within a family a number or a name given twice would make a decoder pick one at random;
// the device's own commands must not hide a common command either.
TEST(TarvikProtocol, EveryFamilyNamesEachCommandOnceAndLeavesTheCommonNumbersAlone)
{
    const SFamily families[] = {
        {"ad", Rows(tp::ad::kCommands)},
        {"awire", Rows(tp::awire::kCommands)},
        {"firmware", Rows(tp::firmware::kCommands)},
        {"i2c", Rows(tp::i2c::kCommands)},
        {"renesas", Rows(tp::renesas::kCommands)},
        {"spi", Rows(tp::spi::kCommands)},
        {"testsystem_com", Rows(tp::testsystem_com::kCommands)},
        {"testsystem_io", Rows(tp::testsystem_io::kCommands)},
        {"testsystem_pwr", Rows(tp::testsystem_pwr::kCommands)},
        {"testsystem_relay", Rows(tp::testsystem_relay::kCommands)},
    };
    std::set<int> common;
    for (const tp::SCommandName& row : tp::common::kCommands)
        EXPECT_TRUE(common.insert(row.m_nNumber).second) << row.m_pszName;
    for (const SFamily& family : families)
    {
        std::set<int> numbers;
        std::set<std::string> names;
        for (const tp::SCommandName& row : family.m_aCommands)
        {
            EXPECT_TRUE(numbers.insert(row.m_nNumber).second) << family.m_pszName << " " << row.m_pszName;
            EXPECT_TRUE(names.insert(row.m_pszName).second) << family.m_pszName << " " << row.m_pszName;
            EXPECT_EQ(0u, common.count(row.m_nNumber)) << family.m_pszName << " " << row.m_pszName;
        }
    }
}
