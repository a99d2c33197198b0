// Arbitrary byte streams into the receive path: the frame cutter and the engine's
// telegram parsing together, read in chunks whose size the input picks, with
// confirmations stored, replaced, capped and collected and indications offered.
#include "tarvik/core/TarvikClient.h"
#include "tarvik/runtime/MolFrameCutter.h"

#include <cstring>

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
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t chunk = static_cast<size_t>(data[0]) + 1;
    const short collect = static_cast<short>(data[1] << 8 | data[0]);
    CReceiving client;
    CMolFrameCutter cutter;
    for (size_t pos = 2; pos < size;)
    {
        size_t space = 0;
        char* into = cutter.GetSpace(space);
        size_t n = size - pos;
        if (n > chunk)
            n = chunk;
        if (n > space)
            n = space;
        std::memcpy(into, data + pos, n);
        pos += n;
        cutter.Commit(n, &CReceiving::Deliver, &client);
    }
    unsigned int noWait = 0;
    delete client.WaitForMsg(collect, &noWait);
    delete client.GetMsg(0);
    return 0;
}
