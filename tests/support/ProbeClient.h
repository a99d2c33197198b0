// CProbeClient: an SPI-typed engine client for tests that logs, in order, what its
// trace sink sees and the indications the engine offers it.
#ifndef TARVIK_TESTS_SUPPORT_PROBECLIENT_H
#define TARVIK_TESTS_SUPPORT_PROBECLIENT_H

#include "support/FakeGateway.h"

#include "tarvik/core/TarvikClient.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarvik_test
{
// How long Log() waits for the entries it is asked for.
constexpr unsigned int kProbeWaitMs = 5000;

// An SPI-typed client that logs, in order, the trace sink's entries and the
// indications the engine offers it ("indication <frame>").
class CProbeClient : public CTarvikClient
{
public:
    explicit CProbeClient(unsigned int timeout) : CTarvikClient(eTarvikSPI, timeout)
    {
        SetTraceSink(&CProbeClient::Sink, this);
    }
    // The receive thread calls into this class: stop it before the members go.
    ~CProbeClient() override { StopConnection(); }

    using CTarvikClient::NextMsgID;
    using CTarvikClient::Request;

    // Takes every stored confirmation out: how many there were, and their data bytes.
    size_t DrainStored(size_t* bytes = nullptr)
    {
        size_t count = 0;
        size_t size = 0;
        for (int id = -32768; id <= 32767; ++id)
        {
            std::unique_ptr<CTarvikMsg> msg(GetMsg(static_cast<short>(id)));
            count += msg != nullptr;
            size += msg != nullptr ? msg->GetData().size() : 0;
        }
        if (bytes != nullptr)
            *bytes = size;
        return count;
    }

    bool DataIndRespond(CTarvikMsg* msg) override
    {
        Add("indication " + ToHex(msg->GetMessageData()), 0);
        return false;
    }
    // Counts the blocks the engine has finished with (stored, offered or dropped).
    void DataInd(const char* data, unsigned short len) override
    {
        CTarvikClient::DataInd(data, len);
        Add(std::string(), 1);
    }
    // "<device type> <kind> <command code> #<id> [<data>][ bad check byte]"
    static void Sink(const STarvikTrace& trace, void* user)
    {
        static const char* const kKinds[] = {"sent", "received", "connected", "disconnected"};
        std::string entry = std::to_string(trace.m_nDeviceType) + " " + kKinds[trace.m_eKind];
        char fields[32];
        std::snprintf(fields, sizeof(fields), " %04X #%d [", trace.m_nCmdCode, trace.m_nMsgID);
        if (trace.m_eKind <= STarvikTrace::eReceived)
            entry += !trace.m_bValid ? " invalid"
                                     : fields + ToHex(std::string(trace.m_pData, trace.m_nDataLen)) + "]" +
                                           (trace.m_bCRCValid ? "" : " bad check byte");
        static_cast<CProbeClient*>(user)->Add(entry, 0);
    }
    // The log once handled blocks were handled and it holds entries entries.
    std::vector<std::string> Log(size_t handled, size_t entries = 0)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        m_oChanged.wait_for(lock, std::chrono::milliseconds(kProbeWaitMs),
                            [&] { return m_nHandled >= handled && m_asLog.size() >= entries; });
        return m_asLog;
    }
    // Sends cmd with data under the next id and waits as SendMsg does; keeps the confirmation in cnf.
    int Transact(unsigned short cmd, const std::string& data, std::unique_ptr<CTarvikMsg>& cnf)
    {
        CTarvikMsg req(cmd, NextMsgID(), data.data(), static_cast<unsigned short>(data.size()));
        CTarvikMsg* raw = nullptr;
        int result = SendMsg(req, raw, nullptr);
        cnf.reset(raw);
        return result;
    }

private:
    void Add(const std::string& entry, size_t handled)
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        if (!entry.empty())
            m_asLog.push_back(entry);
        m_nHandled += handled;
        m_oChanged.notify_all();
    }

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    size_t m_nHandled = 0;
    std::vector<std::string> m_asLog;
};

} // namespace tarvik_test

#endif
