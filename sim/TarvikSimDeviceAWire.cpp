#include "sim/TarvikSimDeviceAWire.h"

#include "tarvik/core/TarvikPayload.h"
#include "tarvik/protocol/TarvikProtocolAWire.h"

#include <chrono>

namespace
{
// The device answers the command numbers its client sends.
namespace wire = tarvik_protocol::awire;
constexpr unsigned char kOk = CTarvikSimDevice::eResultOk;
constexpr unsigned char kFailed = CTarvikSimDevice::eResultFailed;
// SetConfig: four values and the text's length byte.
constexpr size_t kConfigHeader = 17;
// Address and length in front of a block or a read.
constexpr size_t kBlockHeader = 6;
// State-1 reports of one block come at most this often.
constexpr auto kReportPause = std::chrono::milliseconds(10);
typedef std::chrono::steady_clock CClock;
} // namespace

CTarvikSimDeviceAWire::CTarvikSimDeviceAWire(unsigned int index, size_t flashSize, size_t pageSize, unsigned int base)
    : CTarvikSimDevice(eTarvikAWire, index), m_nFlashSize(flashSize), m_nPageSize(pageSize == 0 ? 1 : pageSize),
      m_nBase(base), m_sMemory(flashSize + m_nPageSize, '\xFF'), m_anConfig{0, 0, 0}, m_nRate(0), m_nFailState(-1),
      m_nFailAfter(0), m_bWorking(false), m_nMostQueued(0), m_bStop(false)
{
    m_oWorker = std::thread([this] { Worker(); });
}

CTarvikSimDeviceAWire::~CTarvikSimDeviceAWire()
{
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        m_bStop = true;
    }
    m_oJobsChanged.notify_all();
    m_oWorker.join();
}

std::string CTarvikSimDeviceAWire::GetName() const
{
    return "Tarvik AWire";
}

bool CTarvikSimDeviceAWire::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    switch (cmd)
    {
    case wire::eCmdSetConfig: answer = SetConfig(data); return true;
    case wire::eCmdGetConfig: answer = GetConfig(data); return true;
    case wire::eCmdWriteBlock: answer = WriteBlock(data, false); return true;
    case wire::eCmdErase: answer = Erase(data); return true;
    case wire::eCmdRead: answer = Read(data); return true;
    case wire::eCmdWriteUserPage: answer = WriteBlock(data, true); return true;
    case wire::eCmdEraseUserPage: answer = EraseUserPage(data); return true;
    default: return false;
    }
}

std::string CTarvikSimDeviceAWire::SetConfig(const std::string& data)
{
    if (data.size() < kConfigHeader || data.size() != kConfigHeader + static_cast<unsigned char>(data[16]))
        return Answer(kFailed);
    m_anConfig[0] = CTarvikPayload(data).U32At(0);
    m_anConfig[1] = CTarvikPayload(data).U32At(4);
    m_anConfig[2] = CTarvikPayload(data).U32At(12);
    m_sConfigText = data.substr(kConfigHeader);
    return Answer(kOk);
}

std::string CTarvikSimDeviceAWire::GetConfig(const std::string& data) const
{
    if (!data.empty())
        return Answer(kFailed);
    std::string config = CTarvikMsg::ToChar(m_anConfig[0]) + CTarvikMsg::ToChar(m_anConfig[1]) +
                         CTarvikMsg::ToChar(static_cast<unsigned int>(m_nPageSize)) + CTarvikMsg::ToChar(m_anConfig[2]);
    config += static_cast<char>(m_sConfigText.size());
    return Answer(kOk, config + m_sConfigText);
}

bool CTarvikSimDeviceAWire::Locate(unsigned int address, size_t length, bool userPage, size_t& offset) const
{
    uint64_t start = userPage ? uint64_t(m_nBase) + kUserPageOffset : m_nBase;
    uint64_t size = userPage ? m_nPageSize : m_nFlashSize;
    if (address < start || address - start + length > size)
        return false;
    offset = static_cast<size_t>(address - start) + (userPage ? m_nFlashSize : 0);
    return true;
}

bool CTarvikSimDeviceAWire::LocateAny(unsigned int address, size_t length, size_t& offset) const
{
    return Locate(address, length, false, offset) || Locate(address, length, true, offset);
}

std::string CTarvikSimDeviceAWire::Read(const std::string& data) const
{
    if (data.size() != kBlockHeader)
        return Answer(kFailed);
    unsigned short length = CTarvikPayload(data).U16At(4);
    size_t offset = 0;
    if (length > kMaxData - 1)
        return Answer(kFailed);
    if (!LocateAny(CTarvikPayload(data).U32At(0), length, offset))
        return Answer(eResultReadFailed);
    return Answer(kOk, m_sMemory.substr(offset, length));
}

std::string CTarvikSimDeviceAWire::Erase(const std::string& data)
{
    if (data.size() != 2)
        return Answer(kFailed);
    if (CTarvikPayload(data).U16At(0) != 0)
        return Answer(eResultEraseBlock);
    m_sMemory.replace(0, m_nFlashSize, m_nFlashSize, '\xFF');
    return Answer(kOk);
}

std::string CTarvikSimDeviceAWire::EraseUserPage(const std::string& data)
{
    if (!data.empty())
        return Answer(kFailed);
    m_sMemory.replace(m_nFlashSize, m_nPageSize, m_nPageSize, '\xFF');
    return Answer(kOk);
}

std::string CTarvikSimDeviceAWire::WriteBlock(const std::string& data, bool userPage)
{
    if (data.size() < kBlockHeader || data.size() != kBlockHeader + CTarvikPayload(data).U16At(4))
        return Answer(kFailed);
    SJob job{GetRequester(), GetRequestID(), userPage, CTarvikPayload(data).U32At(0), data.substr(kBlockHeader)};
    if (m_nRate == 0 && m_dqJobs.empty() && !m_bWorking)
    {
        // No delay: programmed now, reported right behind the confirmation.
        m_nMostQueued = m_nMostQueued > 0 ? m_nMostQueued : 1;
        Report(job, Program(job), job.m_sData.size());
        return Answer(kOk);
    }
    m_dqJobs.push_back(std::move(job));
    size_t queued = m_dqJobs.size() + (m_bWorking ? 1 : 0);
    m_nMostQueued = queued > m_nMostQueued ? queued : m_nMostQueued;
    m_oJobsChanged.notify_all();
    return Answer(kOk);
}

unsigned char CTarvikSimDeviceAWire::Program(const SJob& job)
{
    size_t offset = 0;
    if (!Locate(job.m_nAddress, job.m_sData.size(), job.m_bUserPage, offset))
        return eStateFailed;
    if (m_nFailState >= 0)
    {
        if (m_nFailAfter == 0)
        {
            unsigned char state = static_cast<unsigned char>(m_nFailState);
            m_nFailState = -1;
            return state;
        }
        --m_nFailAfter;
    }
    // Flash programming clears bits only. Plain pointers over distinct buffers let the
    // compiler do it a vector at a time.
    char* target = &m_sMemory[offset];
    const char* source = job.m_sData.data();
    for (size_t i = 0, n = job.m_sData.size(); i < n; ++i)
        target[i] = static_cast<char>(target[i] & source[i]);
    return eStateFinished;
}

void CTarvikSimDeviceAWire::Report(const SJob& job, unsigned char state, size_t done)
{
    std::string payload = CTarvikMsg::ToChar(job.m_nHandle);
    payload += static_cast<char>(state);
    payload += CTarvikMsg::ToChar(static_cast<unsigned short>(done));
    unsigned short code = static_cast<unsigned short>(eTarvikAWire << 8 | wire::eCmdWriteProgress);
    // A client that has gone misses its reports, as it would with a real gateway.
    IndicateTo(job.m_nConnection, CTarvikMsg(code, 0, std::move(payload)));
}

void CTarvikSimDeviceAWire::Worker()
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    for (;;)
    {
        m_oJobsChanged.wait(lock, [this] { return m_bStop || !m_dqJobs.empty(); });
        if (m_bStop)
            return;
        SJob job = std::move(m_dqJobs.front());
        m_dqJobs.pop_front();
        m_bWorking = true;
        lock.unlock();
        RunJob(job);
        lock.lock();
        m_bWorking = false;
    }
}

void CTarvikSimDeviceAWire::RunJob(const SJob& job)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    const CClock::time_point start = CClock::now();
    CClock::time_point reported = start;
    size_t length = job.m_sData.size();
    for (size_t done = 0; done < length && m_nRate != 0;)
    {
        done += length - done < m_nPageSize ? length - done : m_nPageSize;
        auto due = start + std::chrono::microseconds(static_cast<uint64_t>(done) * 1000000u / m_nRate);
        if (m_oJobsChanged.wait_until(lock, due, [this] { return m_bStop; }))
            return;
        if (done < length && CClock::now() - reported >= kReportPause)
        {
            reported = CClock::now();
            Report(job, eStateInProgress, done);
        }
    }
    // Done before it is reported: a client may answer the report with its next block at
    // once, and that block must not count this one as still in work.
    m_bWorking = false;
    Report(job, Program(job), length);
}

void CTarvikSimDeviceAWire::OnRestart()
{
    // Blocks not yet programmed are lost; memory and configuration stay.
    m_dqJobs.clear();
}

void CTarvikSimDeviceAWire::SetRate(unsigned long bytesPerSecond)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nRate = bytesPerSecond;
}

void CTarvikSimDeviceAWire::InjectBlockFailure(unsigned char state, unsigned int after)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nFailState = state;
    m_nFailAfter = after;
}

std::string CTarvikSimDeviceAWire::Peek(unsigned int address, size_t length) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    size_t offset = 0;
    return LocateAny(address, length, offset) ? m_sMemory.substr(offset, length) : std::string();
}

void CTarvikSimDeviceAWire::SetGeometry(size_t flashSize, size_t pageSize)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_nFlashSize = flashSize;
    m_nPageSize = pageSize == 0 ? 1 : pageSize;
    m_sMemory.assign(m_nFlashSize + m_nPageSize, '\xFF');
}

size_t CTarvikSimDeviceAWire::GetPageSize() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nPageSize;
}

size_t CTarvikSimDeviceAWire::GetMostQueued() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nMostQueued;
}
