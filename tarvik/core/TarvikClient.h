// CTarvikClient: base of every device client. One TCP connection to one gateway,
// requests matched to their confirmations by message id, indications handed to the
// device client, and the commands that every gateway understands.
//
// Threads: the application's thread runs every public operation; one client serves
// one calling thread at a time. The connection's receive thread runs DataInd, ConInd
// and DataIndRespond.
//
// Lifetime: C++ destroys a derived class's part before the base destructor runs, so
// the receive thread must be stopped before any of it goes. Every client class of
// this library calls StopConnection() first thing in its destructor; a class of
// yours derived from a client must do the same in its own destructor:
//
//   class CMyClient : public CTarvikClientSPI
//   {
//   public:
//       ~CMyClient() override { StopConnection(); }   // before my members go
//       bool DataIndRespond(CTarvikMsg* msg) override;  // uses my members
//   };
#ifndef TARVIK_CORE_TARVIKCLIENT_H
#define TARVIK_CORE_TARVIKCLIENT_H

#include "tarvik/core/TarvikDeviceInfo.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikReply.h"
#include "tarvik/core/TarvikResult.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"
#include "tarvik/runtime/MolIPConnection.h"
#include "tarvik/runtime/MolSync.h"
#include "tarvik/runtime/MolTime.h"
#include "tarvik/runtime/TarvikExport.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

// One telegram seen by a client, handed to the application's trace sink.
struct STarvikTrace
{
    enum EKind
    {
        eSent = 0,         // a request left the client
        eReceived = 1,     // a telegram arrived (m_bValid false: malformed, dropped)
        eConnected = 2,    // the connection came up
        eDisconnected = 3, // the connection ended (peer close, error or local disconnect)
    };
    EKind m_eKind;
    int64_t m_nTimeUs; // wall-clock time, microseconds since 1970
    int m_nDeviceType; // the client's device type
    unsigned short m_nCmdCode;
    short m_nMsgID;
    const char* m_pData; // payload; valid only during the call
    size_t m_nDataLen;
    bool m_bValid;    // length field agrees with the frame size
    bool m_bCRCValid; // stored check byte equals the computed one
};

// Called on the calling thread (sent) or the receive thread (received, connected,
// disconnected), without any lock of the library held; must not block for long and
// must not call back into the client.
typedef void (*PTarvikTraceSink)(const STarvikTrace& trace, void* user);

class TARVIK_API CTarvikClient
{
public:
    // Command numbers of the commands that every gateway understands.
    enum ECommonCmd
    {
        TARVIK_COMMON_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    // A stored confirmation and when it arrived.
    class TARVIK_API CMessageItem
    {
    public:
        CMessageItem();
        explicit CMessageItem(CTarvikMsg* msg);
        ~CMessageItem();
        CMessageItem(const CMessageItem&) = delete;
        CMessageItem& operator=(const CMessageItem&) = delete;
        // Hands the telegram out and gives up ownership.
        CTarvikMsg* PopMsg();
        const CMolLocalTime& GetReceived() const { return m_oReceived; }

    private:
        CTarvikMsg* m_pMessage;
        CMolLocalTime m_oReceived;
    };

    // The connection, forwarding its callbacks to the parent client.
    class TARVIK_API CConnection : public CMolIPConnection
    {
    public:
        CConnection();
        void SetParentClass(CTarvikClient* parent) { m_pParent = parent; }

    protected:
        void DataInd(const char* data, unsigned short len) override;
        void BatchInd(bool begin) override;
        void ConnectInd(bool connected) override;
        bool IsConnectMsgAccepted(const std::string& msg) override;

    private:
        CTarvikClient* m_pParent;
    };

    // Stored confirmations are capped: past either limit the oldest are dropped, so
    // that no device, however many answers nobody asked for it sends, can grow a client.
    static constexpr size_t kMaxPendingCount = 4096;
    static constexpr size_t kMaxPendingBytes = 4u << 20;

    CTarvikClient(ETarvikDevice type, unsigned int timeout);
    // Stops the connection (StopConnection()) and drops every stored confirmation.
    virtual ~CTarvikClient();
    CTarvikClient(const CTarvikClient&) = delete;
    CTarvikClient& operator=(const CTarvikClient&) = delete;

    // Prepares the device after connecting; the base sets the message id counter to 2. Returns 0.
    virtual int Open();
    // Disconnect().
    virtual int Close();

    // Connects to host; port 0 means 4999 + device type (5099 for type 0).
    // Returns 0, 1 (connection limit) or a transport code (0x020000..0x060000).
    int Connect(const char* host, unsigned short port = 0, unsigned char protocol = 1, bool flag = true);
    int Disconnect();
    // Disconnects and waits until the receive thread has ended: once it returns, no
    // callback (DataInd, ConInd, DataIndRespond, the trace sink) runs on this object
    // until the next Connect. The first call in the destructor of every class derived
    // from a client. Must not be called from a callback (there it only disconnects).
    void StopConnection();
    // Objects of derived classes destroyed so far whose connection was still up when
    // the base destructor began: a derived class that does not call StopConnection() first.
    static unsigned long GetLateStopCount();
    // The connection's state; 3 = connected.
    int GetConnectState() const;
    CMolIPConnection& GetConnection() { return m_oConnection; }
    ETarvikDevice GetDeviceType() const { return static_cast<ETarvikDevice>(m_nDeviceType); }
    unsigned int GetTimeout() const { return m_nTimeout; }

    // Sends req only. Returns 0 or a transport code.
    virtual int SendMsg(const CTarvikMsg& req);
    // One received telegram (receive thread).
    virtual void DataInd(const char* data, unsigned short len);
    // The telegrams of one socket read are about to come (true) or have all come (false)
    // through DataInd (receive thread). A device client may gather indications meanwhile
    // and hand them on once per batch; it must not hold any back past the end. Telegrams
    // fed to DataInd from elsewhere come without a batch. The base does nothing.
    virtual void DataIndBatch(bool begin);
    // Connection came up or ended (receive thread); the base does nothing.
    virtual void ConInd(bool connected);
    // Offered every received non-confirmation (receive thread); true takes ownership of msg.
    virtual bool DataIndRespond(CTarvikMsg* msg);
    // Result code of a confirmation: 0x0C0000 | type << 8 when empty, else its result byte | type << 8.
    virtual int GetCnfRetCode(const CTarvikMsg& cnf);
    // Sends req and waits for its confirmation (waitMs null: the client's time-out).
    // A confirmation stored earlier under req's id is stale and dropped before sending.
    // 0: cnf is the confirmation; 0x040000: none came; 0x0A0000: bad check byte;
    // 0x0B0000: wrong command code (cnf is handed over in these two cases too);
    // a transport code from the send (cnf untouched). The caller deletes cnf.
    int SendMsg(const CTarvikMsg& req, CTarvikMsg*& cnf, const unsigned int* waitMs);
    // Same, copying the confirmation into cnf.
    int SendMsg(const CTarvikMsg& req, CTarvikMsg& cnf, const unsigned int* waitMs);

    // Waits for the confirmation with this id; null after the wait. Purges old ones.
    CTarvikMsg* WaitForMsg(short id, const unsigned int* waitMs);
    // Takes the stored confirmation with this id, or null.
    CTarvikMsg* GetMsg(short id);
    // Drops stored confirmations older than ten times the time-out.
    void RemoveOldMsgs();
    // Parses a received block; null when it is malformed.
    CTarvikMsg* ToMsg(const unsigned char* data, unsigned short len);

    static int ConvertTCPRetCode(int tcpResult);
    static std::string GetErrorMsg(int code);

    // Commands of every gateway. All return 0 or a result code.
    int Restart();
    // info (may be null) is cleared first, byte 18 = this client's device type; on
    // success up to 20 bytes of the answer are copied into it.
    int Info(STarvikDeviceInfo* info);
    // text is set only on success with a non-empty text.
    int Status(std::string& text);
    // Decoded only when the answer carries both words (then even when the device
    // reports an error); a shorter answer returns 0 and leaves both untouched.
    int BaseReadDigital(unsigned int& inputs, unsigned int& outputs);
    int BaseWriteDigital(unsigned int outputs);
    // count: capacity of values on input; on return the number the device sent
    // (may exceed the capacity; only that many were stored), 0 on failure.
    int ReadAnalog(unsigned int& first, unsigned int* values, unsigned short& count);
    int WriteAnalog(const unsigned int* values, unsigned short count);

    // Trace sink for every telegram sent and received; null switches it off. Sink and
    // user change together. Any thread may call it at any time, except from a sink:
    // it returns once no call of the old sink is under way, so the old user data may
    // then be released. Do not call it while holding a lock that the old sink takes.
    void SetTraceSink(PTarvikTraceSink sink, void* user);

protected:
    // Command code of this client for a command number.
    unsigned short MakeCmdCode(unsigned char cmd) const;
    // Takes the next message id (post-increment, 16-bit wrap).
    short NextMsgID();
    // The id the next request takes.
    void SetNextMsgID(short id) { m_nNextMsgID.store(id, std::memory_order_relaxed); }
    // Largest confirmation data field that can reach the client: a frame's size travels
    // in 16 bits on the receive side, so 65535 - 7 bytes.
    static constexpr size_t kMaxCnfData = 0xFFFF - CTarvikMsg::kOverhead;
    // The one request/confirmation step of every device command: draws the id,
    // sends cmd with payload, waits (waitMs null: the time-out) and hands back the
    // confirmation in reply. Returns reply.Result(): the send-and-wait result, or
    // when that is 0 GetCnfRetCode of the confirmation. A payload longer than a
    // telegram can carry, or an answer of answerLen data bytes (result byte included)
    // longer than kMaxCnfData, gives 0x920000 without sending.
    int Request(unsigned char cmd, const char* data, size_t len, CTarvikReply& reply,
                const unsigned int* waitMs = nullptr, size_t answerLen = 0);
    int Request(unsigned char cmd, std::string&& payload, CTarvikReply& reply, const unsigned int* waitMs = nullptr,
                size_t answerLen = 0);
    // Checks a collected confirmation against the request's command code:
    // 0x040000 when none, 0x0A0000 bad check byte, 0x0B0000 wrong code, else 0.
    static int CheckCnf(const CTarvikMsg* cnf, unsigned short reqCode);
    // Sends cmd without waiting (no event reset); *id (may be null) receives the message
    // id to Collect() its confirmation with. An over-long payload gives 0x920000
    // without drawing an id or sending.
    int Post(unsigned char cmd, const char* data, size_t len, short* id);
    // Collects the confirmation of an earlier asynchronous request into reply.
    int Collect(short id, unsigned short reqCode, CTarvikReply& reply, const unsigned int* waitMs = nullptr);

    void Trace(STarvikTrace::EKind kind, const CTarvikMsg* msg, bool valid);
    bool IsTracing() const { return m_bTracing.load(std::memory_order_acquire); }

    // Send-and-wait into a confirmation of the caller's: true when one arrived (then
    // cnf holds it). The same steps as SendMsg(req, cnf*, waitMs) without a heap telegram.
    // sent (may be null) tells whether the request went out.
    int SendAndWait(const CTarvikMsg& req, CTarvikMsg& cnf, bool& received, const unsigned int* waitMs,
                    bool* sent = nullptr);

private:
    friend class CConnection;
    // The one request waited for by SendMsg: its confirmation is parsed straight into
    // m_oSlotCnf, so that the usual round trip needs neither a heap telegram nor a map
    // entry. Confirmations under other ids (late, stray, asynchronous) go to m_aoPending.
    enum ESlot
    {
        eSlotFree,
        eSlotArmed,
        eSlotFilled,
    };
    // Drops what is stored under id and, when the slot is free, arms it for id (true).
    bool ArmSlot(short id);
    // Frees the slot; a confirmation in it that nobody took goes to m_aoPending.
    void DisarmSlot();
    // Receive thread: parses a well-formed confirmation for the armed slot into it; false
    // when the block is anything else.
    bool FillSlot(const char* data, unsigned short len);
    // Takes the confirmation with this id out of the slot or the map into cnf.
    bool TakeCnf(short id, CTarvikMsg& cnf);
    bool WaitForCnf(short id, const unsigned int* waitMs, CTarvikMsg& cnf);
    // Caller holds m_oPendingMutex. Stores cnf (owned) in the map, replacing one under its id.
    void InsertPending(CTarvikMsg* cnf);
    void StoreCnf(CTarvikMsg* cnf);
    // Drops the stored confirmation under id, if any.
    void DiscardMsg(short id);
    // Caller holds m_oPendingMutex. Drops the oldest entries past the caps.
    void CapPending();
    void ErasePending(std::map<short, CMessageItem*>::iterator it);
    void OnConnectInd(bool connected);

    CConnection m_oConnection;
    unsigned int m_nTimeout;
    std::map<short, CMessageItem*> m_aoPending;
    size_t m_nPendingBytes;
    // Arrival of the oldest entry in m_aoPending, or later (nanoseconds, local time):
    // a wait scans the map only once something in it may be old enough to purge.
    int64_t m_nOldestPendingNs;
    ESlot m_eSlot;
    short m_nSlotID;
    CTarvikMsg m_oSlotCnf;
    CMolMutex m_oPendingMutex;
    std::atomic<short> m_nNextMsgID;
    int m_nDeviceType;
    // Whether this object is of a class derived from this one (known from Connect on).
    std::atomic<bool> m_bDerived;
    CMolEvent m_oCnfEvent;
    // The trace sink and its user pointer change together under m_oTraceMutex; the
    // flag lets an untraced client skip the lock. m_nTraceCalls counts sink calls
    // under way, so that SetTraceSink can wait for the old sink to be done.
    std::atomic<bool> m_bTracing;
    std::mutex m_oTraceMutex;
    std::condition_variable m_oTraceIdle;
    PTarvikTraceSink m_pTraceSink;
    void* m_pTraceUser;
    unsigned int m_nTraceCalls;
};

#endif
