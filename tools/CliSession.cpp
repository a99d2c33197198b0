#include "CliSession.h"

#include "CliFormat.h"

#include "sim/TarvikSimServer.h"

#include <cerrno>

namespace
{
struct SDeviceName
{
    const char* m_pName;
    ETarvikDevice m_eType;
};

// Short names on the command line; the display names come from the library.
const SDeviceName kDeviceNames[] = {
    {"firmware", eTarvikFirmware},
    {"i2c", eTarvikI2C},
    {"can", eTarvikCAN},
    {"spi", eTarvikSPI},
    {"rs232", eTarvikRS232},
    {"dio", eTarvikDIO},
    {"audio", eTarvikAudio},
    {"ad", eTarvikAD},
    {"programmer", eTarvikUniversalProgrammer},
    {"renesas", eTarvikRenesas},
    {"tsio", eTarvikTestSystemIO},
    {"tspwr", eTarvikTestSystemPWR},
    {"tscom", eTarvikTestSystemCOM},
    {"awire", eTarvikAWire},
    {"tsrelay", eTarvikTestSystemRelay},
};

const char* const kSimHost = "127.0.0.1";

std::string DeviceLabel(ETarvikDevice type)
{
    std::string name = TarvikDeviceName(type);
    if (name == TarvikDeviceName(-1))
        return "device type " + std::to_string(static_cast<int>(type));
    return name;
}
} // namespace

CCliSession::CCliSession(const SCliGlobals& globals) : m_oGlobals(globals) {}

CCliSession::~CCliSession() = default;

void CCliSession::Open(CTarvikClient& client)
{
    ETarvikDevice type = client.GetDeviceType();
    bool simulated = m_oGlobals.m_bSim || m_oGlobals.m_sHost.empty();
    std::string host = simulated ? kSimHost : m_oGlobals.m_sHost;
    unsigned short port = simulated ? StartSimulator(type) : TarvikDevicePort(type, m_oGlobals.m_nPortIndex);
    m_sDescription = DeviceLabel(type) + " at " + host + ":" + std::to_string(port);
    if (simulated)
        m_sDescription += " (simulator)";
    if (m_oGlobals.m_bTrace)
        CliInstallTracePrinter(client);
    CliCheck(client.Connect(host.c_str(), port), "connect to " + m_sDescription);
    CliCheck(client.Open(), "open " + m_sDescription);
}

unsigned short CCliSession::StartSimulator(ETarvikDevice type)
{
    if (m_pSim == nullptr)
        m_pSim = std::make_unique<CTarvikSimServer>();
    if (m_pSim->GetPort(type) != 0)
        return m_pSim->GetPort(type);
    int error = m_pSim->AddDevice(type, kSimHost, 0, static_cast<unsigned int>(m_oGlobals.m_nPortIndex));
    if (error == EINVAL)
        CliFail("the simulator has no model of " + DeviceLabel(type) + "; give --host");
    if (error != 0 || !m_pSim->Start())
        CliFail("simulator: " + m_pSim->GetLastError());
    return m_pSim->GetPort(type);
}

ETarvikDevice CCliSession::ParseDeviceType(const std::string& name)
{
    for (const SDeviceName& entry : kDeviceNames)
        if (name == entry.m_pName)
            return entry.m_eType;
    bool numeric = !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
    if (numeric && name.size() <= 3 && std::stoi(name) <= 0x7F)
        return static_cast<ETarvikDevice>(std::stoi(name));
    CliFail("unknown device \"" + name + "\" (one of " + DeviceTypeNames() + ", or a type number)", eCliExitUsage);
}

std::string CCliSession::DeviceTypeNames()
{
    std::string names;
    for (const SDeviceName& entry : kDeviceNames)
        names += (names.empty() ? "" : ", ") + std::string(entry.m_pName);
    return names;
}
