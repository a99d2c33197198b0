// The simulator's TCP server: one listening socket per emulated device, a thread that
// accepts clients, and one thread per client connection (CTarvikSimConnection).
//
// Typical use in a test:
//   CTarvikSimServer server;
//   server.AddDevice(eTarvikSPI);                  // loopback, any free port
//   server.Start();
//   connect to 127.0.0.1 : server.GetPort(eTarvikSPI) ...
//   server.Stop();                                 // or let the destructor do it
//
// Configuration (AddDevice, Start, Stop) belongs to one thread; the fault settings,
// CloseConnections, GetConnectionCount, GetRefusedCount and the devices' own accessors may be used from
// any thread at any time.
#ifndef TARVIK_SIM_TARVIKSIMSERVER_H
#define TARVIK_SIM_TARVIKSIMSERVER_H

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimDevice.h"
#include "sim/TarvikSimFaults.h"

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CTarvikSimConnection;

class CTarvikSimServer
{
public:
    CTarvikSimServer();
    // Stops the server.
    ~CTarvikSimServer();
    CTarvikSimServer(const CTarvikSimServer&) = delete;
    CTarvikSimServer& operator=(const CTarvikSimServer&) = delete;

    // Port of device type t at port index i: 4999 + t + 100 x i (the gateways' own scheme).
    static unsigned short GetStandardPort(ETarvikDevice type, unsigned int index = 0);

    // Creates the model of the type and binds its listening socket at once, so GetPort()
    // is known before Start(). Port 0 takes any free port; an empty host listens on all
    // interfaces. index is the device's port index, reported in its Info record; several
    // devices of one type differ in it (every CAN gateway joins the one CAN bus).
    // Returns 0, or an errno value: EINVAL no model of the type, EEXIST type and index
    // already added, EBUSY server started or stopped, else the failing socket call's errno.
    int AddDevice(ETarvikDevice type, const std::string& host = "127.0.0.1", unsigned short port = 0,
                  unsigned int index = 0);
    // Starts accepting clients. False with no device, or after Stop().
    bool Start();
    // Closes every socket and joins every thread; the server cannot be started again.
    void Stop();
    bool IsRunning() const { return m_bRunning.load(); }

    // Port and host of a device; 0 and "" for a type not added. Without an index: the
    // first device of the type that was added.
    unsigned short GetPort(ETarvikDevice type) const;
    unsigned short GetPort(ETarvikDevice type, unsigned int index) const;
    std::string GetHost(ETarvikDevice type) const;
    // The device model (null for a type not added); lives as long as the server.
    CTarvikSimDevice* GetDevice(ETarvikDevice type) const;
    CTarvikSimDevice* GetDevice(ETarvikDevice type, unsigned int index) const;
    // Types in the order added, a type once for each device.
    std::vector<ETarvikDevice> GetDeviceTypes() const;
    // Every device in the order added.
    std::vector<CTarvikSimDevice*> GetDevices() const;

    // CANopen node ids of the CAN bus, taken when the first CAN gateway is added
    // (default: CTarvikSimCanBus::DefaultNodeIds()).
    void SetCanNodeIds(const std::vector<unsigned char>& ids) { m_anCanNodeIds = ids; }
    // The bus of the CAN gateways; null until one is added. Lives as long as the server.
    const std::shared_ptr<CTarvikSimCanBus>& GetCanBus() const { return m_pCanBus; }
    // Text of the last failed AddDevice or Start.
    std::string GetLastError() const { return m_sLastError; }

    // Faults (see TarvikSimFaults.h), effective from the next answer of every
    // connection; any thread, at any time. Settings combine.
    void SetFault(ETarvikSimFault fault) { m_oFaults.m_eFault = fault; }
    ETarvikSimFault GetFault() const { return m_oFaults.m_eFault.load(); }
    // Every answer is sent ms later, plus a drawn 0..jitterMs.
    void SetAnswerDelay(unsigned int ms, unsigned int jitterMs = 0)
    {
        m_oFaults.m_nDelayMs = ms;
        m_oFaults.m_nJitterMs = jitterMs;
    }
    unsigned int GetAnswerDelay() const { return m_oFaults.m_nDelayMs.load(); }
    // This share of requests (0..100 %) is carried out but not answered.
    void SetDropPercent(unsigned int percent) { m_oFaults.m_nDropPercent = percent > 100 ? 100 : percent; }
    // Seed of the draws behind drops, jitter and garbage.
    void SetSeed(uint64_t seed) { m_oFaults.m_nSeed = seed; }
    // Indications (command number kTarvikSimIndicationCmd, bit 15 clear) before each answer.
    void SetIndications(unsigned int count) { m_oFaults.m_nIndications = count; }
    // Confirmations nobody asked for (ids 0x4000..0x7FFF) before each answer.
    void SetStrayConfirmations(unsigned int count) { m_oFaults.m_nStrayCnfs = count; }
    // A connection that has had count requests closes on the next one (0: never).
    void SetCloseAfter(unsigned int count) { m_oFaults.m_nCloseAfter = count; }
    // Answers go out byte by byte with ms between bytes (0: whole).
    void SetDribble(unsigned int ms) { m_oFaults.m_nDribbleMs = ms; }
    // Clients beyond count open connections are accepted and closed at once (0: no limit).
    void SetMaxConnections(unsigned int count) { m_oFaults.m_nMaxConnections = count; }
    // Clients turned away by the limit so far.
    unsigned long GetRefusedCount() const { return m_nRefused.load(); }
    // Every fault setting back to normal answers.
    void ClearFaults();
    // Drops every client connection now; new clients are still accepted.
    void CloseConnections();
    // Client connections that are still open.
    size_t GetConnectionCount() const;

private:
    struct SEndpoint
    {
        std::unique_ptr<CTarvikSimDevice> m_pDevice;
        std::string m_sHost;
        unsigned short m_nPort;
        int m_nSocket;
    };

    // The first endpoint of the type; with an index, that device exactly.
    const SEndpoint* FindEndpoint(ETarvikDevice type) const;
    const SEndpoint* FindEndpoint(ETarvikDevice type, unsigned int index) const;
    int Fail(int error, const std::string& text);
    int Listen(SEndpoint& endpoint, unsigned short port);
    void Run();
    void AcceptClients(SEndpoint& endpoint);
    void ReapFinished();
    bool IsFull() const;
    void CloseListeners();

    // Declared before the endpoints: the gateways leave the bus before it goes.
    std::vector<unsigned char> m_anCanNodeIds;
    std::shared_ptr<CTarvikSimCanBus> m_pCanBus;
    std::vector<SEndpoint> m_aoEndpoints;
    STarvikSimFaults m_oFaults;
    std::thread m_oThread;
    int m_nWakeFd;
    std::atomic<bool> m_bRunning;
    bool m_bStopped;
    std::atomic<unsigned long> m_nRefused;
    std::string m_sLastError;
    mutable std::mutex m_oMutex;
    std::list<std::unique_ptr<CTarvikSimConnection>> m_aoConnections;
};

#endif
