#include "tarvik/clients/TarvikClientAWire.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

namespace
{
// A configuration answer: result byte, four values, the text's length byte.
constexpr size_t kConfigValuesEnd = 17;
// Longest text a configuration carries: its length travels in one byte.
constexpr size_t kMaxConfigText = 255;
// A progress indication: handle (2), state (1), done (2).
constexpr size_t kProgressSize = 5;
// Address and length in front of a block's data.
constexpr size_t kBlockHeader = 6;
// Longest pause of the file-write thread between two looks at its block writes.
constexpr unsigned int kPollPauseMs = 1;
// How long a wait for a progress report yields before it blocks.
constexpr int kReportSpinUs = 50;

std::string AddressAndLength(unsigned int address, unsigned short length)
{
    return CTarvikMsg::ToChar(address) + CTarvikMsg::ToChar(length);
}
} // namespace

CTarvikClientAWire::CTarvikClientAWire(int timeoutMs)
    : CTarvikClient(eTarvikAWire, static_cast<unsigned int>(timeoutMs)), m_nReports(0), m_pWriteFileThread(nullptr),
      m_nPageSize(0), m_oLastFailure{FileFailure::eNone, 0, 0}
{
}

CTarvikClientAWire::~CTarvikClientAWire()
{
    StopConnection();
    // No indication arrives any more; a file write still running ends here.
    delete m_pWriteFileThread;
    m_pWriteFileThread = nullptr;
}

int CTarvikClientAWire::SetConfig(unsigned int nValue1, unsigned int nValue2, unsigned int nPageSize,
                                  unsigned int nValue4, const std::string& s)
{
    if (m_pWriteFileThread != nullptr)
        return eResultBusy;
    size_t textLen = s.size() < kMaxConfigText ? s.size() : kMaxConfigText;
    std::string payload = CTarvikMsg::ToChar(nValue1) + CTarvikMsg::ToChar(nValue2) + CTarvikMsg::ToChar(nPageSize) +
                          CTarvikMsg::ToChar(nValue4);
    payload += static_cast<char>(textLen);
    payload.append(s, 0, textLen);
    CTarvikReply reply;
    int result = Request(eCmdSetConfig, std::move(payload), reply);
    if (result == 0)
        m_nPageSize = nPageSize;
    return result;
}

int CTarvikClientAWire::GetConfig(unsigned int& nValue1, unsigned int& nValue2, unsigned int& nPageSize,
                                  unsigned int& nValue4, std::string& s)
{
    CTarvikReply reply;
    int result = Request(eCmdGetConfig, nullptr, 0, reply);
    unsigned char textLen = 0;
    // The values only come with the text's length byte behind them.
    if (result != 0 || !reply.ReadU8(kConfigValuesEnd, textLen))
        return result;
    reply.ReadU32(1, nValue1);
    reply.ReadU32(5, nValue2);
    reply.ReadU32(9, nPageSize);
    reply.ReadU32(13, nValue4);
    if (reply.Size() >= kConfigValuesEnd + 1 + textLen)
        s = reply.Substr(kConfigValuesEnd + 1).substr(0, textLen);
    m_nPageSize = nPageSize;
    return result;
}

int CTarvikClientAWire::Read(unsigned int address, unsigned short length, char* buffer, unsigned short& count)
{
    CTarvikReply reply;
    int result = Request(eCmdRead, AddressAndLength(address, length), reply, nullptr, 1u + length);
    if (result == 0)
        count = static_cast<unsigned short>(reply.CopyTo(1, buffer, buffer != nullptr ? length : 0));
    return result;
}

int CTarvikClientAWire::Verify(unsigned int address, unsigned short length, const char* data)
{
    if (data == nullptr && length != 0)
        return TARVIK_ERR_INVALID_PARAMETER;
    unsigned short remaining = length;
    while (remaining != 0)
    {
        CTarvikReply reply;
        int result = Request(eCmdRead, AddressAndLength(address, remaining), reply, nullptr, 1u + remaining);
        if (result != 0)
            return result;
        size_t received = reply.Size() - 1;
        size_t n = received < remaining ? received : remaining;
        // The comparison always starts at the beginning of data; it only shows when the
        // gateway sends fewer bytes than asked. An empty answer would loop for ever.
        if (n == 0 || std::memcmp(reply.Data() + 1, data, n) != 0)
            return eResultUnknown;
        address += static_cast<unsigned int>(n);
        remaining = static_cast<unsigned short>(remaining - n);
    }
    return 0;
}

int CTarvikClientAWire::Erase(unsigned short nValue)
{
    CTarvikReply reply;
    return Request(eCmdErase, CTarvikMsg::ToChar(nValue), reply);
}

int CTarvikClientAWire::EraseUserPage()
{
    CTarvikReply reply;
    return Request(eCmdEraseUserPage, nullptr, 0, reply);
}

int CTarvikClientAWire::WriteBlock(unsigned int address, unsigned short length, const char* data, short& handle)
{
    if (m_pWriteFileThread != nullptr)
        return eResultBusy;
    return WriteBlockInternal(address, length, data, handle);
}

int CTarvikClientAWire::WriteUserPage(unsigned int address, unsigned short length, const char* data, short& handle)
{
    if (m_pWriteFileThread != nullptr)
        return eResultBusy;
    return WriteUserPageInternal(address, length, data, handle);
}

int CTarvikClientAWire::WriteBlockInternal(unsigned int address, unsigned short length, const char* data, short& handle)
{
    return SendBlock(eCmdWriteBlock, address, length, data, handle);
}

int CTarvikClientAWire::WriteUserPageInternal(unsigned int address, unsigned short length, const char* data,
                                              short& handle)
{
    return SendBlock(eCmdWriteUserPage, address, length, data, handle);
}

int CTarvikClientAWire::SendBlock(unsigned char cmd, unsigned int address, unsigned short length, const char* data,
                                  short& handle)
{
    // A wrapped length field would put the gateway out of step with the byte stream.
    if ((data == nullptr && length != 0) || kBlockHeader + length > CTarvikMsg::kMaxData)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string payload;
    payload.reserve(kBlockHeader + length);
    payload = AddressAndLength(address, length);
    payload.append(data != nullptr ? data : "", length);
    short id = NextMsgID();
    // The entry exists before the block leaves: the first progress report may come at once.
    {
        CMolLock lock(m_oProgressMutex);
        m_mapWriteBlockProgress[id] = SWriteBlockProgress{Progress::eInProgress, length, 0};
    }
    handle = id;
    int result = SendMsg(CTarvikMsg(MakeCmdCode(cmd), id, std::move(payload)));
    if (result != 0)
    {
        CMolLock lock(m_oProgressMutex);
        m_mapWriteBlockProgress.erase(id);
    }
    return result;
}

bool CTarvikClientAWire::DataIndRespond(CTarvikMsg* msg)
{
    const std::string& data = msg->GetData();
    if (msg->GetCmdCode() != MakeCmdCode(eCmdWriteProgress) || data.size() < kProgressSize)
        return false;
    const CTarvikPayload payload(data);
    short handle = 0;
    unsigned short done = 0;
    payload.ReadS16(0, handle);
    payload.ReadU16(3, done);
    {
        CMolLock lock(m_oProgressMutex);
        auto it = m_mapWriteBlockProgress.find(handle);
        if (it == m_mapWriteBlockProgress.end())
            return false;
        it->second.m_eState = static_cast<Progress::EProgress>(payload.At(2));
        it->second.m_nDone = done;
    }
    {
        std::lock_guard<std::mutex> lock(m_oReportMutex);
        ++m_nReports;
    }
    m_oReport.notify_all();
    return false;
}

uint64_t CTarvikClientAWire::WaitForProgress(uint64_t seen, unsigned int ms)
{
    // The report usually comes within tens of microseconds. Yielding for a short while first,
    // as the confirmation wait does, saves the file-write thread falling asleep and being
    // woken by the receive thread for every chunk: on a small machine that hand-over costs
    // as much as the chunk's own transfer.
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(kReportSpinUs);
    while (m_nReports.load(std::memory_order_acquire) == seen && std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
    std::unique_lock<std::mutex> lock(m_oReportMutex);
    m_oReport.wait_for(lock, std::chrono::milliseconds(ms), [&] { return m_nReports != seen; });
    return m_nReports;
}

void CTarvikClientAWire::CWriteFileThread::PauseForProgress()
{
    // A fixed millisecond between polls would cap the writes at two chunks a
    // millisecond, far below what the gateway and the network take; a report ends the
    // pause at once, and the millisecond stays the longest a poll waits.
    m_nSeenReports = m_rClient.WaitForProgress(m_nSeenReports, kPollPauseMs);
}

int CTarvikClientAWire::GetWriteBlockStatus(short handle, Progress::EProgress& state, unsigned short& length,
                                            unsigned short& done)
{
    CMolLock lock(m_oProgressMutex);
    auto it = m_mapWriteBlockProgress.find(handle);
    if (it == m_mapWriteBlockProgress.end())
        return eResultUnknown;
    state = it->second.m_eState;
    length = it->second.m_nLength;
    done = it->second.m_nDone;
    if (state == Progress::eFinished)
        m_mapWriteBlockProgress.erase(it);
    return 0;
}

int CTarvikClientAWire::GetWriteFileStatus(FileStep::EFileStep& step, unsigned char& percent)
{
    if (m_pWriteFileThread == nullptr)
        return eResultUnknown;
    const CWriteFileThread& thread = *m_pWriteFileThread;
    step = thread.GetStep();
    uint64_t total = thread.GetTotalBytes();
    uint64_t done = 0;
    switch (step)
    {
    case FileStep::eWriting: done = thread.GetBytesWritten() + thread.GetBlockProgress(); break;
    case FileStep::eVerifying: done = thread.GetBytesVerified(); break;
    case FileStep::eNotStarted: break;
    default:
        // The end is reported once; the file write is then gone.
        percent = 100;
        m_oLastFailure = thread.GetFailure();
        delete m_pWriteFileThread;
        m_pWriteFileThread = nullptr;
        return 0;
    }
    // An image without bytes has a total of 0 until it is done; a gateway's progress
    // value may claim more than the block has.
    uint64_t value = total == 0 ? 0 : done * 100 / total;
    percent = static_cast<unsigned char>(value > 100 ? 100 : value);
    return 0;
}

int CTarvikClientAWire::WriteFile(const std::string& filename)
{
    return StartFileWrite(&filename, nullptr);
}

int CTarvikClientAWire::WriteImage(const CTarvikHexfile& image)
{
    return StartFileWrite(nullptr, &image);
}

CTarvikClientAWire::SFileFailure CTarvikClientAWire::GetWriteFileFailure() const
{
    return m_oLastFailure;
}

int CTarvikClientAWire::StartFileWrite(const std::string* filename, const CTarvikHexfile* image)
{
    if (m_pWriteFileThread != nullptr)
        return eResultBusy;
    if (m_nPageSize == 0)
    {
        unsigned int value1 = 0, value2 = 0, pageSize = 0, value4 = 0;
        std::string text;
        int result = GetConfig(value1, value2, pageSize, value4, text);
        if (result != 0)
            return result;
        if (m_nPageSize == 0)
            return 0;
    }
    try
    {
        m_pWriteFileThread =
            filename != nullptr ? new CWriteFileThread(*this, *filename) : new CWriteFileThread(*this, *image);
    }
    catch (const std::exception&)
    {
        return eResultUnknown;
    }
    if (!m_pWriteFileThread->Start())
    {
        delete m_pWriteFileThread;
        m_pWriteFileThread = nullptr;
        return eResultUnknown;
    }
    return 0;
}

// ---------------------------------------------------------------------------------
// CWriteFileThread

CTarvikClientAWire::CWriteFileThread::CWriteFileThread(CTarvikClientAWire& client, const std::string& filename)
    : CMolThread(0), m_rClient(client), m_eStep(FileStep::eNotStarted), m_nTotalBytes(0), m_nBytesWritten(0),
      m_nBlockProgress(0), m_nBytesVerified(0), m_nSeenReports(0), m_eFailure(FileFailure::eNone), m_nFailureResult(0),
      m_nFailureAddress(0)
{
    if (m_Hexfile.LoadFile(filename.c_str(), CTarvikHexfile::Detect) != 0)
    {
        Fail(FileFailure::eLoad, 0, 0);
        return;
    }
    m_nTotalBytes = m_Hexfile.GetTotalBytes();
}

CTarvikClientAWire::CWriteFileThread::CWriteFileThread(CTarvikClientAWire& client, const CTarvikHexfile& image)
    : CMolThread(0), m_rClient(client), m_eStep(FileStep::eNotStarted), m_nTotalBytes(0), m_nBytesWritten(0),
      m_nBlockProgress(0), m_nBytesVerified(0), m_nSeenReports(0), m_eFailure(FileFailure::eNone), m_nFailureResult(0),
      m_nFailureAddress(0)
{
    const size_t before = m_Hexfile.GetMemoryBlocks().size();
    for (const CTarvikHexfile::SMemoryBlock* block : image.GetMemoryBlocks())
        m_Hexfile.AddMemoryBlock(
            new CTarvikHexfile::SMemoryBlock(block->m_nStartAddress, block->m_pData, block->m_nLength));
    // AddMemoryBlock drops a block it has no room to keep.
    if (m_Hexfile.GetMemoryBlocks().size() - before != image.GetMemoryBlocks().size())
    {
        Fail(FileFailure::eLoad, 0, 0);
        return;
    }
    m_nTotalBytes = m_Hexfile.GetTotalBytes();
}

void CTarvikClientAWire::CWriteFileThread::Fail(FileFailure::EFileFailure cause, int result, uint64_t address)
{
    m_nFailureResult = result;
    m_nFailureAddress = address;
    m_eFailure = cause;
    m_eStep = FileStep::eFailed;
}

CTarvikClientAWire::SFileFailure CTarvikClientAWire::CWriteFileThread::GetFailure() const
{
    return SFileFailure{static_cast<FileFailure::EFileFailure>(m_eFailure.load()), m_nFailureResult.load(),
                        m_nFailureAddress.load()};
}

CTarvikClientAWire::CWriteFileThread::~CWriteFileThread()
{
    Terminate();
}

unsigned short CTarvikClientAWire::CWriteFileThread::ChunkSize(unsigned int pageSize)
{
    if (pageSize == 0 || pageSize > kMaxChunk)
        return static_cast<unsigned short>(kMaxChunk);
    return static_cast<unsigned short>(kMaxChunk / pageSize * pageSize);
}

void CTarvikClientAWire::CWriteFileThread::Run()
{
    if (m_eStep == FileStep::eFailed)
        return;
    m_eStep = FileStep::eWriting;
    WriteData();
    VerifyData();
}

void CTarvikClientAWire::CWriteFileThread::WriteData()
{
    unsigned short chunk = ChunkSize(m_rClient.GetPageSize());
    for (const CTarvikHexfile::SMemoryBlock* block : m_Hexfile.GetMemoryBlocks())
    {
        if (m_eStep != FileStep::eWriting || IsTerminationRequested())
            return;
        if (!WriteImageBlock(*block, chunk))
            return;
    }
    // Everything is sent: wait until the gateway has programmed it all.
    while (m_eStep == FileStep::eWriting)
    {
        if (IsTerminationRequested())
            return;
        if (m_dqPendingHandles.empty())
        {
            m_eStep = FileStep::eVerifying;
            return;
        }
        PauseForProgress();
        UpdateStatus();
    }
}

bool CTarvikClientAWire::CWriteFileThread::WriteImageBlock(const CTarvikHexfile::SMemoryBlock& block,
                                                           unsigned short chunk)
{
    uint64_t address = block.m_nStartAddress;
    uint64_t remaining = block.m_nLength;
    const char* data = block.m_pData;
    while (remaining != 0)
    {
        if (IsTerminationRequested())
            return false;
        // The first chunk ends where the next chunk-aligned one begins, so that no later
        // chunk starts inside a page.
        uint64_t length = chunk - address % chunk;
        if (length > remaining)
            length = remaining;
        short handle = 0;
        const int result = m_rClient.WriteBlockInternal(static_cast<unsigned int>(address),
                                                        static_cast<unsigned short>(length), data, handle);
        if (result != 0)
        {
            Fail(FileFailure::eWriteRequest, result, address);
            return false;
        }
        m_dqPendingHandles.push_back(handle);
        m_dqPendingAddresses.push_back(address);
        address += length;
        data += length;
        remaining -= length;
        // The gateway gets the next chunk while it programs this one: at most two in
        // flight. The first chunk of the next block follows at once.
        while (remaining != 0 && !IsTerminationRequested() && m_dqPendingHandles.size() >= 2 &&
               m_eStep == FileStep::eWriting)
        {
            PauseForProgress();
            UpdateStatus();
        }
    }
    return true;
}

void CTarvikClientAWire::CWriteFileThread::UpdateStatus()
{
    while (!m_dqPendingHandles.empty())
    {
        Progress::EProgress state = Progress::eInProgress;
        unsigned short length = 0, done = 0;
        if (m_rClient.GetWriteBlockStatus(m_dqPendingHandles.front(), state, length, done) != 0)
        {
            m_dqPendingHandles.pop_front();
            m_dqPendingAddresses.pop_front();
            continue;
        }
        if (state == Progress::eFinished)
        {
            m_nBytesWritten += length;
            m_nBlockProgress = 0;
            m_dqPendingHandles.pop_front();
            m_dqPendingAddresses.pop_front();
            continue;
        }
        if (state == Progress::eInProgress)
            m_nBlockProgress = done;
        else
            Fail(FileFailure::eBlockFailed, static_cast<int>(state), m_dqPendingAddresses.front());
        return;
    }
}

void CTarvikClientAWire::CWriteFileThread::VerifyData()
{
    if (m_eStep != FileStep::eVerifying)
        return;
    for (const CTarvikHexfile::SMemoryBlock* block : m_Hexfile.GetMemoryBlocks())
    {
        uint64_t address = block->m_nStartAddress;
        uint64_t remaining = block->m_nLength;
        const char* data = block->m_pData;
        while (remaining != 0)
        {
            if (IsTerminationRequested())
                return;
            unsigned short length = static_cast<unsigned short>(remaining < kMaxChunk ? remaining : kMaxChunk);
            const int result = m_rClient.Verify(static_cast<unsigned int>(address), length, data);
            if (result != 0)
            {
                Fail(result == eResultUnknown ? FileFailure::eVerifyMismatch : FileFailure::eVerifyRead, result,
                     address);
                return;
            }
            m_nBytesVerified += length;
            address += length;
            data += length;
            remaining -= length;
        }
    }
    if (m_eStep == FileStep::eVerifying)
        m_eStep = FileStep::eDone;
}
