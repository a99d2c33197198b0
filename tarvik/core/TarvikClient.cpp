#include "tarvik/core/TarvikClient.h"

#include <chrono>
#include <cstring>

namespace
{
constexpr unsigned int kInfinite = 0xFFFFFFFFu;

int64_t WallClockMicroSeconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
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
    : m_nTimeout(timeout), m_nNextMsgID(0), m_nDeviceType(type), m_pTraceSink(nullptr), m_pTraceUser(nullptr)
{
    m_oConnection.SetParentClass(this);
}

CTarvikClient::~CTarvikClient()
{
    if (GetConnectState() == CMolIPBase::eStateConnected)
        Disconnect();
    // The receive thread must be gone before this object is, even after a peer close.
    m_oConnection.Shutdown();
    m_oConnection.SetParentClass(nullptr);
    CMolLock lock(m_oPendingMutex);
    for (auto& entry : m_aoPending)
        delete entry.second;
    m_aoPending.clear();
}

int CTarvikClient::Open()
{
    m_nNextMsgID = 2;
    return 0;
}

int CTarvikClient::Close()
{
    return Disconnect();
}

int CTarvikClient::Connect(const char* host, unsigned short port, unsigned char protocol, bool flag)
{
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

int CTarvikClient::SendMsg(const CTarvikMsg& req, CTarvikMsg*& cnf, const unsigned int* waitMs)
{
    m_oCnfEvent.Reset();
    int result = SendMsg(req);
    if (result != 0)
        return result;
    cnf = WaitForMsg(req.GetMsgID(), waitMs);
    return CheckCnf(cnf, req.GetCmdCode());
}

int CTarvikClient::SendMsg(const CTarvikMsg& req, CTarvikMsg& cnf, const unsigned int* waitMs)
{
    CTarvikMsg* received = nullptr;
    int result = SendMsg(req, received, waitMs);
    if (received != nullptr)
    {
        cnf = *received;
        delete received;
    }
    return result;
}

CTarvikMsg* CTarvikClient::WaitForMsg(short id, const unsigned int* waitMs)
{
    // The wait is taken as signed: a wait of 2^31 ms or more does not wait at all.
    int32_t remaining = static_cast<int32_t>(waitMs != nullptr ? *waitMs : m_nTimeout);
    int64_t deadlineUs = MolMonotonicMicroSeconds() + static_cast<int64_t>(remaining) * 1000;
    CTarvikMsg* msg = GetMsg(id);
    while (remaining >= 0 && msg == nullptr)
    {
        // One event serves every waiter: a wake-up for another id just looks again.
        if (!m_oCnfEvent.Wait(static_cast<unsigned int>(remaining)))
            break;
        msg = GetMsg(id);
        if (msg == nullptr)
        {
            int64_t leftUs = deadlineUs - MolMonotonicMicroSeconds();
            remaining = static_cast<int32_t>(leftUs < 0 ? -1 : leftUs / 1000);
        }
    }
    RemoveOldMsgs();
    return msg;
}

CTarvikMsg* CTarvikClient::GetMsg(short id)
{
    CMolLock lock(m_oPendingMutex);
    auto it = m_aoPending.find(id);
    if (it == m_aoPending.end())
        return nullptr;
    CTarvikMsg* msg = it->second->PopMsg();
    delete it->second;
    m_aoPending.erase(it);
    return msg;
}

void CTarvikClient::RemoveOldMsgs()
{
    CMolLocalTime limit(0, 0);
    limit.CurrentLocalTime();
    limit.SubTime(0, 0, 0, m_nTimeout / 100, 0, 0, 0);
    CMolLock lock(m_oPendingMutex);
    for (auto it = m_aoPending.begin(); it != m_aoPending.end();)
    {
        if (it->second->GetReceived() < limit)
        {
            delete it->second;
            it = m_aoPending.erase(it);
        }
        else
            ++it;
    }
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
    CMessageItem* item = nullptr;
    try
    {
        item = new CMessageItem(cnf);
    }
    catch (...)
    {
        delete cnf;
        return;
    }
    CMolLock lock(m_oPendingMutex);
    auto result = m_aoPending.emplace(cnf->GetMsgID(), item);
    if (!result.second)
    {
        // A second confirmation under the same id replaces the first.
        delete result.first->second;
        result.first->second = item;
    }
    m_oCnfEvent.Signal();
}

void CTarvikClient::OnConnectInd(bool connected)
{
    if (IsTracing())
        Trace(connected ? STarvikTrace::eConnected : STarvikTrace::eDisconnected, nullptr, true);
    ConInd(connected);
}

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
    short id = m_nNextMsgID;
    m_nNextMsgID = static_cast<short>(static_cast<unsigned short>(id) + 1);
    return id;
}

int CTarvikClient::Request(unsigned char cmd, const char* data, size_t len, CTarvikReply& reply,
                           const unsigned int* waitMs)
{
    return Request(cmd, std::string(data != nullptr ? data : "", data != nullptr ? len : 0), reply, waitMs);
}

int CTarvikClient::Request(unsigned char cmd, std::string&& payload, CTarvikReply& reply, const unsigned int* waitMs)
{
    if (payload.size() > CTarvikMsg::kMaxData)
    {
        reply.Set(TARVIK_ERR_INVALID_PARAMETER, TARVIK_ERR_INVALID_PARAMETER, nullptr);
        return reply.Result();
    }
    CTarvikMsg req(MakeCmdCode(cmd), NextMsgID(), std::move(payload));
    CTarvikMsg* cnf = nullptr;
    int transport = SendMsg(req, cnf, waitMs);
    int result = (transport == 0 && cnf != nullptr) ? GetCnfRetCode(*cnf) : transport;
    reply.Set(transport, result, cnf);
    return result;
}

int CTarvikClient::Post(unsigned char cmd, const char* data, size_t len, short* id)
{
    // A wrapped length field would put the device out of step with the byte stream.
    if (data != nullptr && len > CTarvikMsg::kMaxData)
        return TARVIK_ERR_INVALID_PARAMETER;
    short msgID = NextMsgID();
    CTarvikMsg req(MakeCmdCode(cmd), msgID, data, static_cast<unsigned short>(len));
    int result = SendMsg(req);
    if (id != nullptr)
        *id = msgID;
    return result;
}

int CTarvikClient::Collect(short id, unsigned short reqCode, CTarvikReply& reply, const unsigned int* waitMs)
{
    CTarvikMsg* cnf = WaitForMsg(id, waitMs);
    int transport = CheckCnf(cnf, reqCode);
    int result = (transport == 0) ? GetCnfRetCode(*cnf) : transport;
    reply.Set(transport, result, cnf);
    return result;
}

void CTarvikClient::SetTraceSink(PTarvikTraceSink sink, void* user)
{
    m_pTraceUser.store(user, std::memory_order_release);
    m_pTraceSink.store(sink, std::memory_order_release);
}

void CTarvikClient::Trace(STarvikTrace::EKind kind, const CTarvikMsg* msg, bool valid)
{
    PTarvikTraceSink sink = m_pTraceSink.load(std::memory_order_acquire);
    if (sink == nullptr)
        return;
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
    sink(trace, m_pTraceUser.load(std::memory_order_acquire));
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
    payload.reserve(4u * count);
    for (unsigned short i = 0; values != nullptr && i < count; ++i)
        payload += CTarvikMsg::ToChar(values[i]);
    CTarvikReply reply;
    return Request(eCmdWriteAnalog, std::move(payload), reply);
}
