#include "tarvik/core/TarvikClient.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace
{
// What one stored confirmation costs beyond its data: telegram, item and map node.
constexpr size_t kPendingEntryCost = 128;
// Past a cap, the oldest entries go until this share of it is left, so that a flood
// costs one sort per quarter of the cap and not one per telegram.
constexpr size_t kPendingKeepNum = 3;
constexpr size_t kPendingKeepDen = 4;

constexpr int64_t kNoneOld = std::numeric_limits<int64_t>::max();

std::atomic<unsigned long> s_nLateStops{0};

// Sink calls under way on this thread, of any client: SetTraceSink from inside a
// sink must not wait for itself.
thread_local int t_nInTraceSink = 0;

size_t PendingCost(const CTarvikMsg* msg)
{
    return kPendingEntryCost + (msg != nullptr ? msg->GetData().size() : 0);
}

int64_t WallClockMicroSeconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}
} // namespace

// ---------------------------------------------------------------- CMessageItem

CTarvikClient::CMessageItem::CMessageItem() : m_pMessage(nullptr), m_oReceived(0, 0) {}

CTarvikClient::CMessageItem::CMessageItem(CTarvikMsg* msg) : m_pMessage(msg)
{
    m_oReceived.CurrentLocalTime();
}

CTarvikClient::CMessageItem::~CMessageItem()
{
    delete m_pMessage;
}

CTarvikMsg* CTarvikClient::CMessageItem::PopMsg()
{
    CTarvikMsg* msg = m_pMessage;
    m_pMessage = nullptr;
    return msg;
}

// ---------------------------------------------------------------- CConnection

CTarvikClient::CConnection::CConnection() : m_pParent(nullptr) {}

void CTarvikClient::CConnection::DataInd(const char* data, unsigned short len)
{
    if (m_pParent != nullptr)
        m_pParent->DataInd(data, len);
}

void CTarvikClient::CConnection::BatchInd(bool begin)
{
    if (m_pParent != nullptr)
        m_pParent->DataIndBatch(begin);
}

void CTarvikClient::CConnection::ConnectInd(bool connected)
{
    if (m_pParent != nullptr)
        m_pParent->OnConnectInd(connected);
}

bool CTarvikClient::CConnection::IsConnectMsgAccepted(const std::string&)
{
    return true;
}

// ---------------------------------------------------------------- CTarvikClient

CTarvikClient::CTarvikClient(ETarvikDevice type, unsigned int timeout)
    : m_nTimeout(timeout), m_nPendingBytes(0), m_nOldestPendingNs(kNoneOld), m_eSlot(eSlotFree), m_nSlotID(0),
      m_nNextMsgID(0), m_nDeviceType(type), m_bDerived(false), m_bTracing(false), m_pTraceSink(nullptr),
      m_pTraceUser(nullptr), m_nTraceCalls(0)
{
    m_oConnection.SetParentClass(this);
}

CTarvikClient::~CTarvikClient()
{
    // A derived part that has gone already may have been called into: count it, so
    // that a test can find a client class that forgot StopConnection().
    if (m_bDerived.load(std::memory_order_relaxed) && m_oConnection.GetState() == CMolIPBase::eStateConnected)
        s_nLateStops.fetch_add(1, std::memory_order_relaxed);
    StopConnection();
    m_oConnection.SetParentClass(nullptr);
    CMolLock lock(m_oPendingMutex);
    for (auto& entry : m_aoPending)
        delete entry.second;
    m_aoPending.clear();
    m_nPendingBytes = 0;
}

void CTarvikClient::StopConnection()
{
    if (GetConnectState() == CMolIPBase::eStateConnected)
        Disconnect();
    // Also after the peer closed: the thread may still be delivering the disconnect.
    m_oConnection.Shutdown();
}

unsigned long CTarvikClient::GetLateStopCount()
{
    return s_nLateStops.load(std::memory_order_relaxed);
}

int CTarvikClient::Open()
{
    m_nNextMsgID.store(2, std::memory_order_relaxed);
    return 0;
}

int CTarvikClient::Close()
{
    return Disconnect();
}

int CTarvikClient::Connect(const char* host, unsigned short port, unsigned char protocol, bool flag)
{
    // Connect runs on a whole object: here its type is the most derived one.
    m_bDerived.store(typeid(*this) != typeid(CTarvikClient), std::memory_order_relaxed);
    if (port == 0)
        port = TarvikDevicePort(m_nDeviceType);
    int result = m_oConnection.ConnectReq(host, port, m_nTimeout, static_cast<unsigned char>(m_nDeviceType),
                                          static_cast<CMolIPBase::EProtocol>(protocol), std::string(), flag);
    return ConvertTCPRetCode(result);
}

int CTarvikClient::Disconnect()
{
    return ConvertTCPRetCode(m_oConnection.DisconnectReq(m_nTimeout));
}

int CTarvikClient::GetConnectState() const
{
    return m_oConnection.GetState();
}

int CTarvikClient::SendMsg(const CTarvikMsg& req)
{
    if (IsTracing())
        Trace(STarvikTrace::eSent, &req, req.IsValid());
    // One buffer, one send: a frame split over two writes stalls on delayed ACKs.
    char stackFrame[256];
    size_t size = req.GetData().size() + CTarvikMsg::kOverhead;
    if (size <= sizeof(stackFrame))
    {
        req.GetMessageData(stackFrame);
        return ConvertTCPRetCode(m_oConnection.DataReqLong(stackFrame, size, m_nTimeout));
    }
    std::string frame = req.GetMessageData();
    return ConvertTCPRetCode(m_oConnection.DataReqLong(frame.data(), frame.size(), m_nTimeout));
}

int CTarvikClient::CheckCnf(const CTarvikMsg* cnf, unsigned short reqCode)
{
    if (cnf == nullptr)
        return TARVIK_ERR_TIMEOUT;
    if (!cnf->IsCRCValid())
        return TARVIK_ERR_CRC;
    if (cnf->GetCmdCode() != static_cast<unsigned short>(reqCode | CTarvikMsg::kConfirmationBit))
        return TARVIK_ERR_NOT_CONFIRMED;
    return 0;
}

int CTarvikClient::SendAndWait(const CTarvikMsg& req, CTarvikMsg& cnf, bool& received, const unsigned int* waitMs,
                               bool* sent)
{
    received = false;
    m_oCnfEvent.Reset();
    // Whatever is stored under this id now came before the request: a late answer to an
    // earlier use of the id, a duplicate, or one sent under a wrong id. Never this answer.
    // A second caller on the same client finds the slot taken and waits on the map.
    const bool armed = ArmSlot(req.GetMsgID());
    int result = SendMsg(req);
    if (sent != nullptr)
        *sent = result == 0;
    if (result == 0)
        received = WaitForCnf(req.GetMsgID(), waitMs, cnf);
    if (armed)
        DisarmSlot();
    if (result != 0)
        return result;
    return CheckCnf(received ? &cnf : nullptr, req.GetCmdCode());
}

int CTarvikClient::SendMsg(const CTarvikMsg& req, CTarvikMsg*& cnf, const unsigned int* waitMs)
{
    CTarvikMsg received;
    bool arrived = false, sent = false;
    int result = SendAndWait(req, received, arrived, waitMs, &sent);
    // A failed send leaves cnf untouched.
    if (sent)
        cnf = arrived ? new CTarvikMsg(std::move(received)) : nullptr;
    return result;
}

int CTarvikClient::SendMsg(const CTarvikMsg& req, CTarvikMsg& cnf, const unsigned int* waitMs)
{
    CTarvikMsg received;
    bool arrived = false;
    int result = SendAndWait(req, received, arrived, waitMs);
    if (arrived)
        cnf = std::move(received);
    return result;
}

CTarvikMsg* CTarvikClient::WaitForMsg(short id, const unsigned int* waitMs)
{
    CTarvikMsg cnf;
    if (!WaitForCnf(id, waitMs, cnf))
        return nullptr;
    return new CTarvikMsg(std::move(cnf));
}

bool CTarvikClient::WaitForCnf(short id, const unsigned int* waitMs, CTarvikMsg& cnf)
{
    // The wait is taken as signed: a wait of 2^31 ms or more does not wait at all.
    int32_t remaining = static_cast<int32_t>(waitMs != nullptr ? *waitMs : m_nTimeout);
    int64_t deadlineUs = MolMonotonicMicroSeconds() + static_cast<int64_t>(remaining) * 1000;
    bool found = TakeCnf(id, cnf);
    while (remaining >= 0 && !found)
    {
        // One event serves every waiter: a wake-up for another id just looks again.
        if (!m_oCnfEvent.Wait(static_cast<unsigned int>(remaining)))
            break;
        found = TakeCnf(id, cnf);
        if (!found)
        {
            int64_t leftUs = deadlineUs - MolMonotonicMicroSeconds();
            remaining = static_cast<int32_t>(leftUs < 0 ? -1 : leftUs / 1000);
        }
    }
    RemoveOldMsgs();
    return found;
}

CTarvikMsg* CTarvikClient::GetMsg(short id)
{
    CTarvikMsg cnf;
    if (!TakeCnf(id, cnf))
        return nullptr;
    return new CTarvikMsg(std::move(cnf));
}

bool CTarvikClient::TakeCnf(short id, CTarvikMsg& cnf)
{
    CMolLock lock(m_oPendingMutex);
    if (m_eSlot == eSlotFilled && m_nSlotID == id)
    {
        cnf = std::move(m_oSlotCnf);
        m_eSlot = eSlotArmed;
        return true;
    }
    if (m_aoPending.empty())
        return false;
    auto it = m_aoPending.find(id);
    if (it == m_aoPending.end())
        return false;
    CTarvikMsg* msg = it->second->PopMsg();
    m_nPendingBytes -= PendingCost(msg);
    delete it->second;
    m_aoPending.erase(it);
    cnf = std::move(*msg);
    delete msg;
    return true;
}

bool CTarvikClient::ArmSlot(short id)
{
    CMolLock lock(m_oPendingMutex);
    auto it = m_aoPending.find(id);
    if (it != m_aoPending.end())
        ErasePending(it);
    if (m_eSlot != eSlotFree)
    {
        // Taken by another caller; an answer under this id that sits in it is stale too.
        if (m_nSlotID == id && m_eSlot == eSlotFilled)
            m_eSlot = eSlotArmed;
        return false;
    }
    m_eSlot = eSlotArmed;
    m_nSlotID = id;
    return true;
}

void CTarvikClient::DisarmSlot()
{
    CMolLock lock(m_oPendingMutex);
    if (m_eSlot == eSlotFilled)
    {
        // Came after its requester stopped looking: kept like any late confirmation.
        try
        {
            InsertPending(new CTarvikMsg(std::move(m_oSlotCnf)));
        }
        catch (...)
        {
            // Out of memory: lost like a confirmation that never came.
        }
    }
    m_eSlot = eSlotFree;
}

bool CTarvikClient::FillSlot(const char* data, unsigned short len)
{
    // Only a well-formed confirmation: a malformed block is dropped by the usual path.
    if (len < CTarvikMsg::kOverhead)
        return false;
    const CTarvikPayload frame(data, len);
    unsigned short length = 0, cmd = 0;
    short id = 0;
    frame.ReadU16(0, length);
    frame.ReadU16(2, cmd);
    frame.ReadS16(4, id);
    if (static_cast<size_t>(length) + 2 != len || (cmd & CTarvikMsg::kConfirmationBit) == 0)
        return false;
    CMolLock lock(m_oPendingMutex);
    if (m_eSlot == eSlotFree || m_nSlotID != id)
        return false;
    try
    {
        m_oSlotCnf.SetMessage(data, len);
    }
    catch (...)
    {
        // Out of memory: lost like a malformed block.
        m_eSlot = eSlotArmed;
        return true;
    }
    // A second confirmation under the id replaces the first.
    m_eSlot = eSlotFilled;
    m_oCnfEvent.Signal();
    return true;
}

void CTarvikClient::DiscardMsg(short id)
{
    CMolLock lock(m_oPendingMutex);
    auto it = m_aoPending.find(id);
    if (it != m_aoPending.end())
        ErasePending(it);
}

// Caller holds m_oPendingMutex.
void CTarvikClient::ErasePending(std::map<short, CMessageItem*>::iterator it)
{
    CTarvikMsg* msg = it->second->PopMsg();
    m_nPendingBytes -= PendingCost(msg);
    delete msg;
    delete it->second;
    m_aoPending.erase(it);
}

void CTarvikClient::CapPending()
{
    if (m_aoPending.size() <= kMaxPendingCount && m_nPendingBytes <= kMaxPendingBytes)
        return;
    std::vector<std::pair<int64_t, short>> byAge;
    byAge.reserve(m_aoPending.size());
    for (const auto& entry : m_aoPending)
        byAge.emplace_back(entry.second->GetReceived().GetNanoSeconds(), entry.first);
    std::sort(byAge.begin(), byAge.end());
    const size_t keepCount = kMaxPendingCount * kPendingKeepNum / kPendingKeepDen;
    const size_t keepBytes = kMaxPendingBytes * kPendingKeepNum / kPendingKeepDen;
    for (const auto& aged : byAge)
    {
        if (m_aoPending.size() <= keepCount && m_nPendingBytes <= keepBytes)
            break;
        ErasePending(m_aoPending.find(aged.second));
    }
}

void CTarvikClient::RemoveOldMsgs()
{
    CMolLock lock(m_oPendingMutex);
    if (m_aoPending.empty())
    {
        m_nOldestPendingNs = kNoneOld;
        return;
    }
    CMolLocalTime limit(0, 0);
    limit.CurrentLocalTime();
    limit.SubTime(0, 0, 0, m_nTimeout / 100, 0, 0, 0);
    // Nothing stored is old enough yet: no scan.
    if (m_nOldestPendingNs >= limit.GetNanoSeconds())
        return;
    int64_t oldest = kNoneOld;
    for (auto it = m_aoPending.begin(); it != m_aoPending.end();)
    {
        auto next = std::next(it);
        if (it->second->GetReceived() < limit)
            ErasePending(it);
        else
            oldest = std::min(oldest, it->second->GetReceived().GetNanoSeconds());
        it = next;
    }
    m_nOldestPendingNs = oldest;
}

CTarvikMsg* CTarvikClient::ToMsg(const unsigned char* data, unsigned short len)
{
    CTarvikMsg* msg = new CTarvikMsg();
    if (!msg->SetMessage(reinterpret_cast<const char*>(data), len))
    {
        delete msg;
        return nullptr;
    }
    return msg;
}

void CTarvikClient::DataInd(const char* data, unsigned short len)
{
    // The answer to the request under way goes straight into its slot. With a trace
    // sink the usual path runs, which reports it and then hands it to the slot.
    if (!IsTracing() && FillSlot(data, len))
        return;
    CTarvikMsg* msg = nullptr;
    try
    {
        msg = ToMsg(reinterpret_cast<const unsigned char*>(data), len);
    }
    catch (...)
    {
        // Out of memory on the receive thread: the block is lost like a malformed one.
        return;
    }
    if (IsTracing())
    {
        CTarvikMsg seen;
        if (msg == nullptr)
            seen.SetMessage(data, len);
        Trace(STarvikTrace::eReceived, msg != nullptr ? msg : &seen, msg != nullptr);
    }
    if (msg == nullptr)
        return;
    if (!msg->IsConfirmation())
    {
        if (!DataIndRespond(msg))
            delete msg;
        return;
    }
    StoreCnf(msg);
}

void CTarvikClient::StoreCnf(CTarvikMsg* cnf)
{
    CMolLock lock(m_oPendingMutex);
    if (m_eSlot != eSlotFree && m_nSlotID == cnf->GetMsgID())
    {
        m_oSlotCnf = std::move(*cnf);
        delete cnf;
        m_eSlot = eSlotFilled;
    }
    else
        InsertPending(cnf);
    m_oCnfEvent.Signal();
}

// Caller holds m_oPendingMutex.
void CTarvikClient::InsertPending(CTarvikMsg* cnf)
{
    CMessageItem* item = nullptr;
    try
    {
        item = new CMessageItem(cnf);
        auto result = m_aoPending.emplace(cnf->GetMsgID(), item);
        if (!result.second)
        {
            // A second confirmation under the same id replaces the first.
            ErasePending(result.first);
            m_aoPending.emplace(cnf->GetMsgID(), item);
        }
    }
    catch (...)
    {
        // Out of memory: lost like a confirmation that never came.
        if (item == nullptr)
            delete cnf;
        delete item;
        return;
    }
    m_nOldestPendingNs = std::min(m_nOldestPendingNs, item->GetReceived().GetNanoSeconds());
    m_nPendingBytes += PendingCost(cnf);
    CapPending();
}

void CTarvikClient::OnConnectInd(bool connected)
{
    if (IsTracing())
        Trace(connected ? STarvikTrace::eConnected : STarvikTrace::eDisconnected, nullptr, true);
    ConInd(connected);
}

void CTarvikClient::DataIndBatch(bool) {}

void CTarvikClient::ConInd(bool) {}

bool CTarvikClient::DataIndRespond(CTarvikMsg*)
{
    return false;
}

int CTarvikClient::ConvertTCPRetCode(int tcpResult)
{
    if (tcpResult == CMolIPBase::eResultSuccess)
        return 0;
    if (tcpResult == CMolIPBase::eResultConnectionLimit)
        return TARVIK_ERR_CONNECTION_LIMIT;
    return tcpResult << 16;
}

int CTarvikClient::GetCnfRetCode(const CTarvikMsg& cnf)
{
    int type = (m_nDeviceType << 8) & 0xFFFF;
    if (cnf.GetData().empty())
        return TARVIK_ERR_CNF_INVALID | type;
    unsigned char code = static_cast<unsigned char>(cnf.GetData()[0]);
    return code == 0 ? 0 : (code | type);
}

std::string CTarvikClient::GetErrorMsg(int code)
{
    return TarvikErrorMsg(code);
}

unsigned short CTarvikClient::MakeCmdCode(unsigned char cmd) const
{
    return static_cast<unsigned short>(((m_nDeviceType & 0x7F) << 8) | cmd);
}

short CTarvikClient::NextMsgID()
{
    // Post-increment with a 16-bit wrap (atomic, so two threads never draw one id).
    short id = m_nNextMsgID.load(std::memory_order_relaxed);
    while (!m_nNextMsgID.compare_exchange_weak(id, static_cast<short>(static_cast<unsigned short>(id) + 1),
                                               std::memory_order_relaxed))
    {
    }
    return id;
}

int CTarvikClient::Request(unsigned char cmd, const char* data, size_t len, CTarvikReply& reply,
                           const unsigned int* waitMs, size_t answerLen)
{
    return Request(cmd, std::string(data != nullptr ? data : "", data != nullptr ? len : 0), reply, waitMs, answerLen);
}

int CTarvikClient::Request(unsigned char cmd, std::string&& payload, CTarvikReply& reply, const unsigned int* waitMs,
                           size_t answerLen)
{
    // An answer that cannot reach us would only cost the caller a time-out.
    if (payload.size() > CTarvikMsg::kMaxData || answerLen > kMaxCnfData)
    {
        reply.Set(TARVIK_ERR_INVALID_PARAMETER, TARVIK_ERR_INVALID_PARAMETER, nullptr);
        return reply.Result();
    }
    CTarvikMsg req(MakeCmdCode(cmd), NextMsgID(), std::move(payload));
    CTarvikMsg& cnf = reply.Cnf();
    bool received = false;
    int transport = SendAndWait(req, cnf, received, waitMs);
    int result = (transport == 0 && received) ? GetCnfRetCode(cnf) : transport;
    reply.Set(transport, result, received);
    return result;
}

int CTarvikClient::Post(unsigned char cmd, const char* data, size_t len, short* id)
{
    // A wrapped length field would put the device out of step with the byte stream.
    if (data != nullptr && len > CTarvikMsg::kMaxData)
        return TARVIK_ERR_INVALID_PARAMETER;
    short msgID = NextMsgID();
    CTarvikMsg req(MakeCmdCode(cmd), msgID, data, static_cast<unsigned short>(len));
    DiscardMsg(msgID);
    int result = SendMsg(req);
    if (id != nullptr)
        *id = msgID;
    return result;
}

int CTarvikClient::Collect(short id, unsigned short reqCode, CTarvikReply& reply, const unsigned int* waitMs)
{
    CTarvikMsg& cnf = reply.Cnf();
    const bool received = WaitForCnf(id, waitMs, cnf);
    int transport = CheckCnf(received ? &cnf : nullptr, reqCode);
    int result = (transport == 0) ? GetCnfRetCode(cnf) : transport;
    reply.Set(transport, result, received);
    return result;
}

void CTarvikClient::SetTraceSink(PTarvikTraceSink sink, void* user)
{
    std::unique_lock<std::mutex> lock(m_oTraceMutex);
    m_pTraceSink = sink;
    m_pTraceUser = user;
    m_bTracing.store(sink != nullptr, std::memory_order_release);
    // From inside a sink the old sink is this very call: waiting would never end.
    if (t_nInTraceSink == 0)
        m_oTraceIdle.wait(lock, [this] { return m_nTraceCalls == 0; });
}

void CTarvikClient::Trace(STarvikTrace::EKind kind, const CTarvikMsg* msg, bool valid)
{
    PTarvikTraceSink sink = nullptr;
    void* user = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_oTraceMutex);
        sink = m_pTraceSink;
        user = m_pTraceUser;
        if (sink == nullptr)
            return;
        ++m_nTraceCalls;
    }
    STarvikTrace trace = {};
    trace.m_eKind = kind;
    trace.m_nTimeUs = WallClockMicroSeconds();
    trace.m_nDeviceType = m_nDeviceType;
    trace.m_bValid = valid;
    trace.m_pData = "";
    if (msg != nullptr)
    {
        trace.m_nCmdCode = msg->GetCmdCode();
        trace.m_nMsgID = msg->GetMsgID();
        trace.m_pData = msg->GetData().data();
        trace.m_nDataLen = msg->GetData().size();
        trace.m_bCRCValid = msg->IsCRCValid();
    }
    // Counted down however the sink returns, or SetTraceSink would wait for ever.
    struct SCallDone
    {
        CTarvikClient& m_oClient;
        ~SCallDone()
        {
            --t_nInTraceSink;
            std::lock_guard<std::mutex> lock(m_oClient.m_oTraceMutex);
            if (--m_oClient.m_nTraceCalls == 0)
                m_oClient.m_oTraceIdle.notify_all();
        }
    } done{*this};
    ++t_nInTraceSink;
    sink(trace, user);
}

// ---------------------------------------------------------------- common commands

int CTarvikClient::Restart()
{
    CTarvikReply reply;
    return Request(eCmdRestart, nullptr, 0, reply);
}

int CTarvikClient::Info(STarvikDeviceInfo* info)
{
    if (info != nullptr)
    {
        std::memset(info, 0, sizeof(*info));
        info->m_abData[TARVIK_DEVICE_INFO_TYPE_BYTE] = static_cast<unsigned char>(m_nDeviceType);
    }
    CTarvikReply reply;
    int result = Request(eCmdInfo, nullptr, 0, reply);
    if (result == 0 && info != nullptr)
        reply.CopyTo(1, info->m_abData, sizeof(info->m_abData));
    return result;
}

int CTarvikClient::Status(std::string& text)
{
    CTarvikReply reply;
    int result = Request(eCmdStatus, nullptr, 0, reply);
    if (result == 0 && reply.Size() > 1)
        text = reply.Substr(1);
    return result;
}

int CTarvikClient::BaseReadDigital(unsigned int& inputs, unsigned int& outputs)
{
    CTarvikReply reply;
    Request(eCmdBaseReadDigital, nullptr, 0, reply);
    if (reply.Transport() != 0)
        return reply.Transport();
    // Only an answer with both words is decoded, whatever its result byte; a
    // shorter one counts as success and leaves the outputs alone.
    if (reply.Size() <= 8)
        return 0;
    reply.ReadU32(1, inputs);
    reply.ReadU32(5, outputs);
    return reply.Result();
}

int CTarvikClient::BaseWriteDigital(unsigned int outputs)
{
    CTarvikReply reply;
    return Request(eCmdBaseWriteDigital, CTarvikMsg::ToChar(outputs), reply);
}

int CTarvikClient::ReadAnalog(unsigned int& first, unsigned int* values, unsigned short& count)
{
    unsigned short capacity = count;
    CTarvikReply reply;
    int result = Request(eCmdReadAnalog, nullptr, 0, reply);
    if (result != 0 || reply.Size() < 5)
    {
        count = 0;
        return result;
    }
    reply.ReadU32(1, first);
    size_t sent = (reply.Size() - 5) / 4;
    for (size_t i = 0; i < sent && i < capacity && values != nullptr; ++i)
        reply.ReadU32(5 + 4 * i, values[i]);
    count = static_cast<unsigned short>(sent);
    return 0;
}

int CTarvikClient::WriteAnalog(const unsigned int* values, unsigned short count)
{
    std::string payload;
    payload.reserve(4 * static_cast<size_t>(count));
    for (unsigned short i = 0; values != nullptr && i < count; ++i)
        payload += CTarvikMsg::ToChar(values[i]);
    CTarvikReply reply;
    return Request(eCmdWriteAnalog, std::move(payload), reply);
}
