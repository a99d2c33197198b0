#include "CliSession.h"

#include "CliFormat.h"

#include "sim/TarvikSimServer.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

// The connect probe that finds the cause of a failed connect waits at most this long.
constexpr int kProbeWaitMs = 1000;

std::string DeviceLabel(ETarvikDevice type)
{
    std::string name = TarvikDeviceName(type);
    if (name == TarvikDeviceName(-1))
        return "device type " + std::to_string(static_cast<int>(type));
    return name;
}

[[noreturn]] void FailHost(const std::string& text, const char* why)
{
    CliFail("--host: " + std::string(why) + ": \"" + text + "\"", eCliExitUsage);
}

// --host as "host", "host:port", "[v6addr]:port", "[v6addr]" or a bare IPv6 address
// (two colons or more); port 0 when none is given.
void SplitHostPort(const std::string& text, std::string& host, unsigned short& port)
{
    std::string portText;
    bool hasPort = false;
    if (!text.empty() && text[0] == '[')
    {
        size_t close = text.find(']');
        if (close == std::string::npos)
            FailHost(text, "no ']' after the IPv6 address");
        host = text.substr(1, close - 1);
        hasPort = close + 1 < text.size();
        if (hasPort && text[close + 1] != ':')
            FailHost(text, "':' expected after ']'");
        portText = hasPort ? text.substr(close + 2) : "";
    }
    else if (std::count(text.begin(), text.end(), ':') == 1)
    {
        size_t colon = text.find(':');
        host = text.substr(0, colon);
        portText = text.substr(colon + 1);
        hasPort = true;
    }
    else
        host = text;
    if (host.empty())
        FailHost(text, "no host name or address");
    port = hasPort ? static_cast<unsigned short>(CliParseNumber(portText, 65535, "port of --host")) : 0;
    if (hasPort && port == 0)
        FailHost(text, "port 0");
}

std::string Address(const std::string& host, unsigned short port)
{
    bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

// Connects once more, without the library, to learn what the library folds into
// "not connected": the errno of the last address tried, 0 if one accepted.
int ProbeConnect(const std::string& host, unsigned short port)
{
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    struct addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
        return 0;
    int error = 0;
    for (struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next)
    {
        int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0)
            continue;
        error = connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ? 0 : errno;
        struct pollfd pending = {fd, POLLOUT, 0};
        if (error == EINPROGRESS && poll(&pending, 1, kProbeWaitMs) == 1)
        {
            socklen_t len = sizeof(error);
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
        }
        close(fd);
        if (error == 0)
            break;
    }
    freeaddrinfo(list);
    return error;
}

std::string ResolveCause(const std::string& host)
{
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* list = nullptr;
    int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error == 0)
    {
        freeaddrinfo(list);
        return "";
    }
    return "cannot resolve host '" + host + "' (" + gai_strerror(error) + ")";
}

std::string RefusedCause(const std::string& host, unsigned short port)
{
    int error = ProbeConnect(host, port);
    std::string address = Address(host, port);
    if (error == ECONNREFUSED)
        return "connection refused by " + address + " \u2014 is a gateway or tarvik-sim listening?";
    if (error == ENETUNREACH || error == EHOSTUNREACH)
        return "no route to " + address;
    return "";
}
} // namespace

CCliSession::CCliSession(const SCliGlobals& globals) : m_oGlobals(globals) {}

CCliSession::~CCliSession() = default;

void CCliSession::Open(CTarvikClient& client)
{
    ETarvikDevice type = client.GetDeviceType();
    bool simulated = m_oGlobals.m_bSim;
    if (!simulated && m_oGlobals.m_sHost.empty())
        CliFail("no gateway named: give --host HOST[:PORT] (-H), set TARVIK_HOST=HOST[:PORT], "
                "or --sim for the simulator built into tarvik",
                eCliExitUsage);
    if (simulated)
        CliMarkSimulated();
    std::string host = kSimHost;
    unsigned short port = 0;
    if (simulated)
        port = StartSimulator(type);
    else
        port = GatewayPort(type, host);
    m_sAddress = Address(host, port);
    m_sDescription = DeviceLabel(type) + " at " + m_sAddress + (simulated ? " (simulator)" : "");
    if (m_oGlobals.m_bTrace)
        CliInstallTracePrinter(client);
    int result = client.Connect(host.c_str(), port);
    if (result != 0)
        CliCheck(result, "connect to " + m_sDescription, ConnectCause(result, host, port));
    Check(client.Open(), "open " + m_sDescription);
}

void CCliSession::Check(int result, const std::string& what) const
{
    if (result == TARVIK_ERR_TIMEOUT)
        CliCheck(result, what,
                 "no answer from " + m_sAddress + " within " + std::to_string(m_oGlobals.m_nTimeoutMs) + " ms");
    if (result == TARVIK_ERR_NOT_CONNECTED)
        CliCheck(result, what, "the connection to " + m_sAddress + " has ended");
    CliCheck(result, what);
}

unsigned short CCliSession::GatewayPort(ETarvikDevice type, std::string& host) const
{
    unsigned short port = 0;
    SplitHostPort(m_oGlobals.m_sHost, host, port);
    if (port != 0 && m_oGlobals.m_nPort != 0 && port != m_oGlobals.m_nPort)
        CliFail("--port " + std::to_string(m_oGlobals.m_nPort) + " and --host " + m_oGlobals.m_sHost +
                    " name different ports",
                eCliExitUsage);
    if (m_oGlobals.m_nPort != 0)
        return static_cast<unsigned short>(m_oGlobals.m_nPort);
    return port != 0 ? port : TarvikDevicePort(type, m_oGlobals.m_nPortIndex);
}

std::string CCliSession::ConnectCause(int result, const std::string& host, unsigned short port) const
{
    switch (result)
    {
    case TARVIK_ERR_SOCKET: return ResolveCause(host);
    case TARVIK_ERR_NOT_CONNECTED: return RefusedCause(host, port);
    case TARVIK_ERR_TIMEOUT:
        return "no answer from " + Address(host, port) + " within " + std::to_string(m_oGlobals.m_nTimeoutMs) +
               " ms (host down, or the port filtered?)";
    default: return "";
    }
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
