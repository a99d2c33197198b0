#include "CliCan.h"

#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <cstring>

namespace
{
namespace can = tarvik_protocol::can;

// The kinds as the text and JSON name them (as tarvik.CAN.drop_counts() does).
const char* const kQueueNames[CTarvikClientCANDll::eQueueCount] = {"pdo", "sync", "emcy", "guard", "undefined", "can"};
} // namespace

CCliCan::CCliCan(const SCliGlobals& globals, ITarvikCanReceiver* receiver, unsigned long queueSize)
    : m_oSession(globals), m_oClient(0, static_cast<int>(globals.m_nTimeoutMs))
{
    m_oClient.SetReceiver(receiver);
    if (queueSize != 0)
        m_oClient.SetMaxSizePerQueue(queueSize);
    m_oSession.Open(m_oClient);
}

unsigned char CliCanFlagsOf(const SCliCanFrame& frame)
{
    unsigned char flags = 0;
    if (frame.m_bExtended)
        flags |= can::kFlagExtended;
    if (frame.m_bRemote)
        flags |= can::kFlagRemote;
    if (frame.m_bFD)
        flags |=
            static_cast<unsigned char>(can::kFlagFD | (frame.m_nFDFlags & can::kFDNibbleMask) << can::kFlagFDShift);
    return flags;
}

SCliCanFrame CliCanFrameOf(unsigned int id, const char* data, int len, int flags)
{
    SCliCanFrame frame;
    frame.m_nId = id;
    frame.m_bExtended = (flags & can::kFlagExtended) != 0;
    frame.m_bRemote = (flags & can::kFlagRemote) != 0;
    frame.m_bFD = (flags & can::kFlagFD) != 0;
    frame.m_nFDFlags = static_cast<unsigned char>((flags >> can::kFlagFDShift) & can::kFDNibbleMask);
    unsigned int max = frame.m_bFD ? SCliCanFrame::kMaxFD : SCliCanFrame::kMaxClassic;
    // A remote frame carries the requested length, no data.
    frame.m_nLen = static_cast<unsigned char>(len < 0 ? 0 : (static_cast<unsigned int>(len) > max ? max : len));
    if (!frame.m_bRemote && data != nullptr)
        std::memcpy(frame.m_aData, data, frame.m_nLen);
    return frame;
}

SCliCanFrame CliCanParseFrameArg(const std::string& text)
{
    SCliCanFrame frame;
    std::string error;
    if (!CliParseCanFrame(text, frame, error))
        CliFail("frame \"" + text + "\": " + error, eCliExitUsage);
    return frame;
}

std::string CliCanInterfaceName(const SCliGlobals& globals)
{
    return "tarvik" + std::to_string(globals.m_nPortIndex);
}

std::string CliCanDropsText(const CTarvikClientCANDll& client)
{
    std::string text;
    for (int i = 0; i < CTarvikClientCANDll::eQueueCount; ++i)
    {
        STarvikCanDropCounts counts{};
        client.GetDropCounts(static_cast<CTarvikClientCANDll::EQueue>(i), counts);
        std::string kind;
        auto add = [&kind](unsigned long long count, const char* why) {
            if (count != 0)
                kind += (kind.empty() ? "" : ", ") + std::to_string(count) + " " + why;
        };
        add(counts.nDisabled, "queues off");
        add(counts.nFull, "queue full");
        add(counts.nTooLong, "too long");
        add(counts.nTooShort, "too short");
        if (!kind.empty())
            text += (text.empty() ? "" : "; ") + std::string(kQueueNames[i]) + ": " + kind;
    }
    return text.empty() ? "none" : text;
}

TCliJson CliCanDropsJson(const CTarvikClientCANDll& client)
{
    TCliJson json = TCliJson::object();
    for (int i = 0; i < CTarvikClientCANDll::eQueueCount; ++i)
    {
        STarvikCanDropCounts counts{};
        client.GetDropCounts(static_cast<CTarvikClientCANDll::EQueue>(i), counts);
        json[kQueueNames[i]] = TCliJson{{"queues_off", counts.nDisabled},
                                        {"queue_full", counts.nFull},
                                        {"too_long", counts.nTooLong},
                                        {"too_short", counts.nTooShort}};
    }
    return json;
}
