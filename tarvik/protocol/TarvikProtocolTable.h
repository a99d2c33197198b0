// Every device family's command table in one list, and the name of a command code. The
// tool's trace names telegrams with it and the tests check the tables through it; a new
// family joins here once and is known everywhere.
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOLTABLE_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOLTABLE_H

#include "tarvik/protocol/TarvikProtocolAD.h"
#include "tarvik/protocol/TarvikProtocolAWire.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"
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

#include <cstddef>

namespace tarvik_protocol
{
// One family: its device type, a short name and its own commands (without the common ones).
struct SFamilyCommands
{
    ETarvikDevice m_eDevice;
    const char* m_pszName;
    const SCommandName* m_pCommands;
    size_t m_nCount;
};

template <size_t N>
constexpr SFamilyCommands Family(ETarvikDevice device, const char* name, const SCommandName (&rows)[N])
{
    return SFamilyCommands{device, name, rows, N};
}

constexpr SFamilyCommands kFamilies[] = {
    Family(firmware::kDeviceType, "firmware", firmware::kCommands),
    Family(i2c::kDeviceType, "i2c", i2c::kCommands),
    Family(can::kDeviceType, "can", can::kCommands),
    Family(spi::kDeviceType, "spi", spi::kCommands),
    Family(dio::kDeviceType, "dio", dio::kCommands),
    Family(ad::kDeviceType, "ad", ad::kCommands),
    Family(renesas::kDeviceType, "renesas", renesas::kCommands),
    Family(testsystem_io::kDeviceType, "testsystem_io", testsystem_io::kCommands),
    Family(testsystem_pwr::kDeviceType, "testsystem_pwr", testsystem_pwr::kCommands),
    Family(testsystem_com::kDeviceType, "testsystem_com", testsystem_com::kCommands),
    Family(awire::kDeviceType, "awire", awire::kCommands),
    Family(testsystem_relay::kDeviceType, "testsystem_relay", testsystem_relay::kCommands),
};

// The name of a request, confirmation or indication code (the confirmation bit and the
// device type in the high byte are taken into account), or null for a number that no
// table knows.
inline const char* CommandName(unsigned short code)
{
    const int device = (code >> 8) & 0x7F;
    const unsigned char number = static_cast<unsigned char>(code & 0xFF);
    for (const SFamilyCommands& family : kFamilies)
    {
        if (family.m_eDevice != device)
            continue;
        for (size_t i = 0; i < family.m_nCount; ++i)
            if (family.m_pCommands[i].m_nNumber == number)
                return family.m_pCommands[i].m_pszName;
    }
    for (const SCommandName& row : common::kCommands)
        if (row.m_nNumber == number)
            return row.m_pszName;
    return nullptr;
}
} // namespace tarvik_protocol

#endif
