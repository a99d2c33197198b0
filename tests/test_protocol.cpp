// The command tables of the device families: what tools and dissectors are generated from.
#include "tarvik/protocol/TarvikProtocolTable.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tp = tarvik_protocol;

// Within a family a number or a name given twice would make a decoder pick one at random;
// the device's own commands must not hide a common command either.
TEST(TarvikProtocol, EveryFamilyNamesEachCommandOnceAndLeavesTheCommonNumbersAlone)
{
    std::set<int> common;
    for (const tp::SCommandName& row : tp::common::kCommands)
        EXPECT_TRUE(common.insert(row.m_nNumber).second) << row.m_pszName;
    std::set<int> devices;
    for (const tp::SFamilyCommands& family : tp::kFamilies)
    {
        EXPECT_TRUE(devices.insert(family.m_eDevice).second) << family.m_pszName;
        std::set<int> numbers;
        std::set<std::string> names;
        for (size_t i = 0; i < family.m_nCount; ++i)
        {
            const tp::SCommandName& row = family.m_pCommands[i];
            EXPECT_TRUE(numbers.insert(row.m_nNumber).second) << family.m_pszName << " " << row.m_pszName;
            EXPECT_TRUE(names.insert(row.m_pszName).second) << family.m_pszName << " " << row.m_pszName;
            // The DIO gateway's Read and Write are the common digital commands under its own names.
            if (family.m_eDevice != eTarvikDIO)
            {
                EXPECT_EQ(0u, common.count(row.m_nNumber)) << family.m_pszName << " " << row.m_pszName;
            }
        }
    }
}
