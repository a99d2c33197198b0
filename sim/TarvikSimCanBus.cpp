#include "sim/TarvikSimCanBus.h"

#include "sim/TarvikSimCanOpenNode.h"
#include "tarvik/core/TarvikMsg.h"

#include <algorithm>

namespace
{
constexpr unsigned char kMinNodeId = 1;
constexpr unsigned char kMaxNodeId = 127;
constexpr const char* kOutsideName = "test";
} // namespace

CTarvikSimCanBus::CTarvikSimCanBus(const std::vector<unsigned char>& nodeIds)
    : m_nLogSize(kDefaultLogSize), m_nFrames(0), m_nDelivered(0), m_nStreamed(0), m_nStreamSkipped(0), m_pBusy(nullptr),
      m_bStop(false)
{
    for (unsigned char id : nodeIds)
        AddNode(id);
    m_oThread = std::thread(&CTarvikSimCanBus::Run, this);
}

CTarvikSimCanBus::~CTarvikSimCanBus()
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bStop = true;
    }
    m_oWake.notify_all();
    m_oThread.join();
}

std::vector<unsigned char> CTarvikSimCanBus::DefaultNodeIds()
{
    return {2, 3};
}

int64_t CTarvikSimCanBus::NowUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void CTarvikSimCanBus::Attach(CTarvikSimCanStation* gateway)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    if (!IsAttached(gateway))
        m_apGateways.push_back(gateway);
}

void CTarvikSimCanBus::Detach(CTarvikSimCanStation* gateway)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    m_apGateways.erase(std::remove(m_apGateways.begin(), m_apGateways.end(), gateway), m_apGateways.end());
    m_aoTimers.erase(std::remove_if(m_aoTimers.begin(), m_aoTimers.end(),
                                    [gateway](const STimer& timer) { return timer.m_pOwner == gateway; }),
                     m_aoTimers.end());
    // From the bus thread itself (a station detaching in a callback) there is nothing to wait for.
    if (std::this_thread::get_id() != m_oThread.get_id())
        m_oIdle.wait(lock, [this, gateway] { return m_pBusy != gateway; });
}

bool CTarvikSimCanBus::IsAttached(const CTarvikSimCanStation* station) const
{
    return std::find(m_apGateways.begin(), m_apGateways.end(), station) != m_apGateways.end();
}

int64_t CTarvikSimCanBus::Transmit(STarvikSimCanFrame frame, const CTarvikSimCanStation* sender)
{
    frame.m_nFlags &= static_cast<unsigned char>(~STarvikSimCanFrame::kFlagTimeStamp);
    frame.m_sSender = sender != nullptr ? sender->GetStationName() : kOutsideName;
    std::vector<CTarvikSimCanOpenNode*> nodes;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        frame.m_nTimeUs = NowUs();
        m_aoLog.push_back(frame);
        TrimLog();
        ++m_nFrames;
        m_aoQueue.push_back(SDelivery{frame, sender});
        for (const auto& node : m_aoNodes)
            if (node.get() != sender)
                nodes.push_back(node.get());
    }
    m_oWake.notify_all();
    // Nodes never leave the bus, so the pointers stay good without the lock.
    for (CTarvikSimCanOpenNode* node : nodes)
        node->OnFrame(frame);
    return frame.m_nTimeUs;
}

size_t CTarvikSimCanBus::CountListeners(const CTarvikSimCanStation* sender) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    size_t count = 0;
    for (const auto& node : m_aoNodes)
        count += node.get() != sender && node->IsPowered();
    for (const CTarvikSimCanStation* gateway : m_apGateways)
        count += gateway != sender;
    return count;
}

void CTarvikSimCanBus::TrimLog()
{
    while (m_aoLog.size() > m_nLogSize)
        m_aoLog.pop_front();
}

std::vector<STarvikSimCanFrame> CTarvikSimCanBus::GetLog() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return std::vector<STarvikSimCanFrame>(m_aoLog.begin(), m_aoLog.end());
}

void CTarvikSimCanBus::SetLogSize(size_t frames)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nLogSize = frames;
    TrimLog();
}

void CTarvikSimCanBus::ClearLog()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoLog.clear();
}

unsigned long CTarvikSimCanBus::GetFrameCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nFrames;
}

bool CTarvikSimCanBus::WaitDelivered(unsigned int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    unsigned long target = m_nFrames;
    return m_oIdle.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [this, target] { return m_nDelivered >= target; });
}

CTarvikSimCanOpenNode* CTarvikSimCanBus::GetNode(unsigned char id) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    for (const auto& node : m_aoNodes)
        if (node->GetNodeId() == id)
            return node.get();
    return nullptr;
}

CTarvikSimCanOpenNode* CTarvikSimCanBus::AddNode(unsigned char id)
{
    if (id < kMinNodeId || id > kMaxNodeId)
        return nullptr;
    std::lock_guard<std::mutex> lock(m_oMutex);
    for (const auto& node : m_aoNodes)
        if (node->GetNodeId() == id)
            return node.get();
    // The node's constructor only keeps the reference: no call back into the bus here.
    m_aoNodes.push_back(std::make_unique<CTarvikSimCanOpenNode>(id, *this));
    return m_aoNodes.back().get();
}

std::vector<unsigned char> CTarvikSimCanBus::GetNodeIds() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    std::vector<unsigned char> ids;
    for (const auto& node : m_aoNodes)
        ids.push_back(node->GetNodeId());
    return ids;
}

void CTarvikSimCanBus::SetTimer(CTarvikSimCanStation* owner, unsigned int key, unsigned int firstMs,
                                unsigned int periodMs)
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        STimer timer{owner, key, Clock::now() + std::chrono::milliseconds(firstMs),
                     std::chrono::milliseconds(periodMs)};
        auto it = std::find_if(m_aoTimers.begin(), m_aoTimers.end(),
                               [owner, key](const STimer& t) { return t.m_pOwner == owner && t.m_nKey == key; });
        if (it != m_aoTimers.end())
            *it = timer;
        else
            m_aoTimers.push_back(timer);
    }
    m_oWake.notify_all();
}

void CTarvikSimCanBus::KillTimer(CTarvikSimCanStation* owner, unsigned int key)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_aoTimers.erase(std::remove_if(m_aoTimers.begin(), m_aoTimers.end(),
                                    [owner, key](const STimer& t) { return t.m_pOwner == owner && t.m_nKey == key; }),
                     m_aoTimers.end());
}

void CTarvikSimCanBus::Run()
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    while (!m_bStop)
    {
        if (DeliverNext(lock) || FireDueTimer(lock) || SendDueStream(lock))
            continue;
        const Clock::time_point wake = NextWake();
        if (wake == Clock::time_point::max())
            m_oWake.wait(lock);
        else
            m_oWake.wait_until(lock, wake);
    }
}

CTarvikSimCanBus::Clock::time_point CTarvikSimCanBus::NextWake() const
{
    Clock::time_point wake = Clock::time_point::max();
    for (const STimer& timer : m_aoTimers)
        wake = std::min(wake, timer.m_oDue);
    if (m_pStream)
        wake = std::min(wake, m_pStream->NextDue());
    return wake;
}

bool CTarvikSimCanBus::SetStream(unsigned long rate, const STarvikSimCanFrame& frame)
{
    if (rate > kMaxStreamRate)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (m_pStream)
            m_nStreamSkipped += m_pStream->GetSkipped();
        m_pStream.reset(rate == 0 ? nullptr : new CTarvikSimCanPacer(rate, Clock::now()));
        m_oStreamFrame = frame;
    }
    m_oWake.notify_all();
    return true;
}

unsigned long CTarvikSimCanBus::GetStreamRate() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_pStream ? m_pStream->GetRate() : 0;
}

unsigned long CTarvikSimCanBus::GetStreamedCount() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nStreamed;
}

unsigned long CTarvikSimCanBus::GetStreamSkipped() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nStreamSkipped + (m_pStream ? m_pStream->GetSkipped() : 0);
}

STarvikSimCanFrame CTarvikSimCanBus::DefaultStreamFrame()
{
    STarvikSimCanFrame frame;
    frame.m_nId = 0x55;
    frame.m_sData.assign(8, '\0');
    return frame;
}

bool CTarvikSimCanBus::SendDueStream(std::unique_lock<std::mutex>& lock)
{
    if (!m_pStream)
        return false;
    const size_t count = m_pStream->Take(Clock::now());
    if (count == 0)
        return false;
    std::vector<STarvikSimCanFrame> frames(count, m_oStreamFrame);
    for (STarvikSimCanFrame& frame : frames)
    {
        if (frame.m_sData.size() >= 4)
            frame.m_sData.replace(0, 4, CTarvikMsg::ToChar(static_cast<unsigned int>(m_nStreamed)));
        ++m_nStreamed;
    }
    // Transmit takes the lock itself and calls the nodes without it.
    lock.unlock();
    for (const STarvikSimCanFrame& frame : frames)
        Transmit(frame, nullptr);
    lock.lock();
    return true;
}

template <typename F>
void CTarvikSimCanBus::CallOut(std::unique_lock<std::mutex>& lock, CTarvikSimCanStation* station, F fn)
{
    m_pBusy = station;
    lock.unlock();
    fn();
    lock.lock();
    m_pBusy = nullptr;
    m_oIdle.notify_all();
}

bool CTarvikSimCanBus::DeliverNext(std::unique_lock<std::mutex>& lock)
{
    if (m_aoQueue.empty())
        return false;
    SDelivery delivery = std::move(m_aoQueue.front());
    m_aoQueue.pop_front();
    // The list may change while a gateway is called: look each one up afresh.
    std::vector<CTarvikSimCanStation*> gateways = m_apGateways;
    for (CTarvikSimCanStation* gateway : gateways)
        if (gateway != delivery.m_pSender && IsAttached(gateway))
            CallOut(lock, gateway, [&] { gateway->OnFrame(delivery.m_oFrame); });
    ++m_nDelivered;
    m_oIdle.notify_all();
    return true;
}

bool CTarvikSimCanBus::FireDueTimer(std::unique_lock<std::mutex>& lock)
{
    Clock::time_point now = Clock::now();
    auto due = std::min_element(m_aoTimers.begin(), m_aoTimers.end(),
                                [](const STimer& a, const STimer& b) { return a.m_oDue < b.m_oDue; });
    if (due == m_aoTimers.end() || due->m_oDue > now)
        return false;
    CTarvikSimCanStation* owner = due->m_pOwner;
    unsigned int key = due->m_nKey;
    if (due->m_oPeriod.count() == 0)
        m_aoTimers.erase(due);
    else
    {
        // A late timer keeps its period but does not fire a burst to catch up.
        due->m_oDue += due->m_oPeriod;
        if (due->m_oDue <= now)
            due->m_oDue = now + due->m_oPeriod;
    }
    CallOut(lock, owner, [owner, key] { owner->OnTimer(key); });
    return true;
}
