// Arbitrary byte streams into the receive path: the frame cutter and the engine's
// telegram parsing together, read in chunks whose size the input picks, with
// confirmations stored, replaced, capped and collected and indications offered; and the
// CAN client's indications queued per read or handed to callbacks, then fetched.
#include "FuzzAnswer.h"

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/core/TarvikClient.h"
#include "tarvik/runtime/MolFrameCutter.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{
class CReceiving : public CTarvikClient
{
public:
    CReceiving() : CTarvikClient(eTarvikCAN, 0) {}
    ~CReceiving() override { StopConnection(); }
    // Takes every other indication, as a device client that queues them would.
    bool DataIndRespond(CTarvikMsg* msg) override
    {
        if (++m_nOffered % 2 == 0)
            return false;
        m_nSeen += msg->GetData().size();
        delete msg;
        return true;
    }
    static void Deliver(void* self, const char* frame, unsigned short len)
    {
        static_cast<CReceiving*>(self)->DataInd(frame, len);
    }

private:
    unsigned long m_nOffered = 0;
    size_t m_nSeen = 0;
};
// The CAN client fed as its connection feeds it: one batch per read.
class CReceivingCAN : public CTarvikClientCANDll
{
public:
    CReceivingCAN() : CTarvikClientCANDll(1, 0) {}
    ~CReceivingCAN() override { StopConnection(); }
    static void Deliver(void* self, const char* frame, unsigned short len)
    {
        static_cast<CReceivingCAN*>(self)->DataInd(frame, len);
    }
};

// Callbacks read every byte they are given, so that a length past the data is seen.
void OnFrame(unsigned int, const char* data, int len, int, int)
{
    FuzzSum(data, len);
}
void OnPDO(unsigned char, unsigned char, unsigned char len, const char* data, int, int, int)
{
    FuzzSum(data, len);
}
void OnEMCY(unsigned char, unsigned short, unsigned char, const unsigned char* data, int, int, int)
{
    FuzzSum(data, 5);
}
void OnUndefined(int, unsigned char, unsigned char, unsigned char len, const char* data, int, int, int)
{
    FuzzSum(data, len);
}

// Cuts data into frames, chunk bytes per read, and hands them to client as its connection
// does: each read's telegrams marked as one batch.
template <class TClient> void Feed(TClient& client, const uint8_t* data, size_t size, size_t chunk)
{
    CMolFrameCutter cutter;
    for (size_t pos = 2; pos < size;)
    {
        size_t space = 0;
        char* into = cutter.GetSpace(space);
        size_t n = std::min(std::min(size - pos, chunk), space);
        std::memcpy(into, data + pos, n);
        pos += n;
        client.DataIndBatch(true);
        cutter.Commit(n, &TClient::Deliver, &client);
        client.DataIndBatch(false);
    }
}

void FeedCan(const uint8_t* data, size_t size, size_t chunk)
{
    CReceivingCAN can;
    can.SetMaxSizePerQueue(data[1] % 8 + 1);
    if (data[1] & 0x10)
        can.SetCallback(&OnFrame);
    if (data[1] & 0x20)
        can.CANopenSetCallback(&OnPDO, nullptr, &OnEMCY, nullptr, &OnUndefined);
    Feed(can, data, size, chunk);
    DrainCan(can);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t chunk = static_cast<size_t>(data[0]) + 1;
    const short collect = static_cast<short>(data[1] << 8 | data[0]);
    CReceiving client;
    Feed(client, data, size, chunk);
    unsigned int noWait = 0;
    delete client.WaitForMsg(collect, &noWait);
    delete client.GetMsg(0);
    FeedCan(data, size, chunk);
    return 0;
}
