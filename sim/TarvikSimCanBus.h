// The simulated CAN bus that every CAN gateway of one simulator shares, with the
// CANopen nodes on it, and the one model thread that runs its timers.
//
// A frame sent by one station reaches every other station: the CANopen nodes at once,
// on the sender's thread (so a node has seen an NMT command before the gateway answers
// the request that sent it), the gateways on the bus thread, in the order sent. Every
// frame also goes into a bounded log that tests read.
//
// Timers (cyclic messages, SYNC, heartbeats, heartbeat supervision) all run on the bus
// thread. The bus calls into a station only without its own lock held; a gateway
// detaches before it is destroyed and Detach waits until the bus thread has left it.
// The nodes belong to the bus and live as long as it; the destructor stops the thread
// before anything it touches goes.
//
// Lock order: gateway -> node -> bus. The bus never calls out holding its lock.
#ifndef TARVIK_SIM_TARVIKSIMCANBUS_H
#define TARVIK_SIM_TARVIKSIMCANBUS_H

#include "sim/TarvikSimCanPacer.h"
#include "sim/TarvikSimCanStation.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class CTarvikSimCanOpenNode;

class CTarvikSimCanBus : public CTarvikSimCanPort
{
public:
    static constexpr size_t kDefaultLogSize = 4096;

    // Starts the bus thread with CANopen nodes of these ids (1..127; others are skipped).
    explicit CTarvikSimCanBus(const std::vector<unsigned char>& nodeIds = DefaultNodeIds());
    // Stops the bus thread; the nodes go after it.
    ~CTarvikSimCanBus() override;
    CTarvikSimCanBus(const CTarvikSimCanBus&) = delete;
    CTarvikSimCanBus& operator=(const CTarvikSimCanBus&) = delete;

    // Nodes 2 and 3.
    static std::vector<unsigned char> DefaultNodeIds();

    // Gateways join and leave. Detach drops the station's timers and waits until the bus
    // thread is out of it, so it may be destroyed afterwards.
    void Attach(CTarvikSimCanStation* gateway);
    void Detach(CTarvikSimCanStation* gateway);

    // Sends a frame from sender (null: from outside, e.g. a test). Stamps time and sender
    // name, logs it, hands it to the nodes at once and queues it for the gateways.
    // Returns the time stamp. Any thread.
    int64_t Transmit(STarvikSimCanFrame frame, const CTarvikSimCanStation* sender) override;
    // A frame from outside the gateways and nodes ("test").
    void Inject(const STarvikSimCanFrame& frame) { Transmit(frame, nullptr); }
    // Stations other than sender that would acknowledge a frame.
    size_t CountListeners(const CTarvikSimCanStation* sender) const;

    // The log: the last frames sent, oldest first; its size limit; emptying it.
    std::vector<STarvikSimCanFrame> GetLog() const;
    void SetLogSize(size_t frames);
    void ClearLog();
    // Frames sent since the bus began (not limited by the log).
    unsigned long GetFrameCount() const;
    // A busy bus: rate frames a second from outside ("test"), each a copy of frame whose first
    // four data bytes (when it has four) carry the running number, little-endian. The bus
    // thread sends them by a deadline clock (CTarvikSimCanPacer) between its other work, and
    // hands them to the gateways like any other frame. A new call restarts the stream; rate 0
    // stops it. False (and no change) for a rate above kMaxStreamRate.
    static constexpr unsigned long kMaxStreamRate = 1000000;
    bool SetStream(unsigned long rate, const STarvikSimCanFrame& frame = DefaultStreamFrame());
    unsigned long GetStreamRate() const;
    // Frames the stream has put on the bus, and frames it left out after falling behind by
    // more than its catch-up burst, since the bus began.
    unsigned long GetStreamedCount() const;
    unsigned long GetStreamSkipped() const;
    // Identifier 0x55, eight data bytes.
    static STarvikSimCanFrame DefaultStreamFrame();
    // Blocks until the gateways have been handed every frame sent so far (tests use it
    // to know an indication is on its way). False after timeoutMs.
    bool WaitDelivered(unsigned int timeoutMs = 5000) const;

    // CANopen nodes.
    CTarvikSimCanOpenNode* GetNode(unsigned char id) const;
    // A new node, or the node already there under that id; null for an id out of 1..127.
    CTarvikSimCanOpenNode* AddNode(unsigned char id);
    std::vector<unsigned char> GetNodeIds() const;

    // Calls owner->OnTimer(key) after firstMs, then every periodMs (0: once). Replaces a
    // timer of the same owner and key.
    void SetTimer(CTarvikSimCanStation* owner, unsigned int key, unsigned int firstMs, unsigned int periodMs) override;
    void KillTimer(CTarvikSimCanStation* owner, unsigned int key) override;

    // Wall-clock microseconds since 1970.
    static int64_t NowUs();

private:
    using Clock = std::chrono::steady_clock;
    struct STimer
    {
        CTarvikSimCanStation* m_pOwner;
        unsigned int m_nKey;
        Clock::time_point m_oDue;
        std::chrono::milliseconds m_oPeriod;
    };
    struct SDelivery
    {
        STarvikSimCanFrame m_oFrame;
        const CTarvikSimCanStation* m_pSender;
    };

    void Run();
    bool DeliverNext(std::unique_lock<std::mutex>& lock);
    bool FireDueTimer(std::unique_lock<std::mutex>& lock);
    bool SendDueStream(std::unique_lock<std::mutex>& lock);
    // The next time the bus thread has something to do without being woken.
    Clock::time_point NextWake() const;
    // Calls fn on station with the lock released, marking the station busy meanwhile.
    template <typename F> void CallOut(std::unique_lock<std::mutex>& lock, CTarvikSimCanStation* station, F fn);
    bool IsAttached(const CTarvikSimCanStation* station) const;
    void TrimLog();

    mutable std::mutex m_oMutex;
    mutable std::condition_variable m_oWake;
    mutable std::condition_variable m_oIdle;
    std::vector<CTarvikSimCanStation*> m_apGateways;
    std::vector<std::unique_ptr<CTarvikSimCanOpenNode>> m_aoNodes;
    std::deque<SDelivery> m_aoQueue;
    std::deque<STarvikSimCanFrame> m_aoLog;
    size_t m_nLogSize;
    unsigned long m_nFrames;
    unsigned long m_nDelivered;
    std::vector<STimer> m_aoTimers;
    std::unique_ptr<CTarvikSimCanPacer> m_pStream;
    STarvikSimCanFrame m_oStreamFrame;
    unsigned long m_nStreamed;
    unsigned long m_nStreamSkipped;
    // The station the bus thread is calling now, if any.
    CTarvikSimCanStation* m_pBusy;
    bool m_bStop;
    std::thread m_oThread;
};

#endif
