// CFuzzAnswering<TClient>: a device client whose requests are answered from fuzz input
// without a socket. SendMsg hands the request's answer, built from the next bytes of
// the input, straight to the engine's DataInd; the command's own wait then finds it
// (the client's time-out is 0, so a request left unanswered costs no time).
#ifndef TARVIK_TESTS_FUZZ_FUZZANSWER_H
#define TARVIK_TESTS_FUZZ_FUZZANSWER_H

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/core/TarvikMsg.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The input, read front to back; past its end every read gives 0.
class CFuzzInput
{
public:
    CFuzzInput(const uint8_t* data, size_t size) : m_pData(data), m_nSize(size), m_nPos(0) {}
    uint8_t Byte() { return m_nPos < m_nSize ? m_pData[m_nPos++] : 0; }
    unsigned short Word() { return static_cast<unsigned short>(Byte() | Byte() << 8); }
    // Up to max bytes, as many as the input still has.
    std::string Bytes(size_t max)
    {
        size_t n = m_nSize - m_nPos < max ? m_nSize - m_nPos : max;
        std::string out(reinterpret_cast<const char*>(m_pData + m_nPos), n);
        m_nPos += n;
        return out;
    }
    bool Empty() const { return m_nPos >= m_nSize; }

private:
    const uint8_t* m_pData;
    size_t m_nSize;
    size_t m_nPos;
};

template <class TClient> class CFuzzAnswering : public TClient
{
public:
    explicit CFuzzAnswering(CFuzzInput& input) : TClient(0), m_oInput(input) {}
    ~CFuzzAnswering() override { this->StopConnection(); }

    // One answer per request: a mode byte, a length byte, then that many payload bytes.
    // Mode bits: 0 no answer, 1 bad check byte, 2 another command code, 3 another id,
    // 4 an indication in front, 5 the answer twice.
    int SendMsg(const CTarvikMsg& req) override
    {
        uint8_t mode = m_oInput.Byte();
        std::string payload = m_oInput.Bytes(m_oInput.Byte() * 4u);
        if (mode & 0x01)
            return 0;
        unsigned short cmd = static_cast<unsigned short>(req.GetCmdCode() | CTarvikMsg::kConfirmationBit);
        if (mode & 0x04)
            cmd = static_cast<unsigned short>(cmd ^ 0x0001);
        short id = static_cast<short>(req.GetMsgID() + ((mode & 0x08) ? 1 : 0));
        if (mode & 0x10)
            Deliver(CTarvikMsg(static_cast<unsigned short>(cmd & 0x7FFF), id, std::string(payload)), false);
        CTarvikMsg cnf(cmd, id, std::move(payload));
        Deliver(cnf, (mode & 0x02) != 0);
        if (mode & 0x20)
            Deliver(cnf, false);
        return 0;
    }

private:
    void Deliver(const CTarvikMsg& msg, bool badCRC)
    {
        std::string frame = msg.GetMessageData();
        if (badCRC)
            frame.back() = static_cast<char>(~frame.back());
        this->DataInd(frame.data(), static_cast<unsigned short>(frame.size()));
    }

    CFuzzInput& m_oInput;
};

// Reads every byte it is given, so that a length past the data is seen.
inline unsigned int g_nFuzzSum = 0;
inline void FuzzSum(const void* data, int len)
{
    for (int i = 0; i < len; ++i)
        g_nFuzzSum += static_cast<const unsigned char*>(data)[i];
}

// Fetches until every queue of a CAN client is empty, with buffers exactly as large as documented.
inline void DrainCan(CTarvikClientCANDll& can)
{
    std::vector<char> frame(CTarvikClientCANDll::kMaxFrameData), pdo(CTarvikClientCANDll::kMaxPDOData), any(255);
    std::vector<unsigned char> emcy(5);
    int id = 0, flags = 0, sec = 0, us = 0;
    unsigned char a = 0, b = 0, len = 0;
    unsigned short code = 0;
    while (can.CANGetMessage(&id, frame.data(), &len, &flags, &sec, &us) >= 0)
        FuzzSum(frame.data(), len);
    while (can.CANopenGetPDO(&a, &b, &len, pdo.data()) >= 0)
        FuzzSum(pdo.data(), len);
    while (can.CANopenGetSYNC(&a) >= 0 || can.CANopenGetGUARD(&a, &b) >= 0)
    {
    }
    while (can.CANopenGetEMCY(&a, &code, &b, emcy.data()) >= 0)
        FuzzSum(emcy.data(), 5);
    while (can.CANopenGetUndefined(&id, &a, &b, &len, any.data(), &sec, &us) >= 0)
        FuzzSum(any.data(), len);
}

#endif
