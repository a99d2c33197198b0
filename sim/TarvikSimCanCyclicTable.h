// The cyclic messages of a simulated CAN gateway (request 0x225): 16 entries, each a
// frame that goes out at once when enabled and then every interval until disabled.
// Runs with the gateway's lock held; the entries' timers call the owner station, which
// hands them on to OnTimer.
#ifndef TARVIK_SIM_TARVIKSIMCANCYCLICTABLE_H
#define TARVIK_SIM_TARVIKSIMCANCYCLICTABLE_H

#include "sim/TarvikSimCanBus.h"
#include "sim/TarvikSimCanStation.h"

#include <array>
#include <string>

class CTarvikSimCanCyclicTable
{
public:
    static constexpr size_t kEntries = 16;
    // What a request did.
    enum ESet
    {
        eSetDone,
        eSetMalformed,   // no such entry, a frame head missing, interval 0
        eSetNotSendable, // a frame the controller cannot send
    };

    CTarvikSimCanCyclicTable(CTarvikSimCanBus& bus, CTarvikSimCanStation& owner);

    // The request: index | enable << 7 (1), interval ms (4), identifier (4), flags (1),
    // data; disabling reads only the first byte.
    ESet Set(const std::string& data);
    // Timer key of an entry: its frame goes out while it is enabled; false for another key.
    bool OnTimer(unsigned int key);
    // Every entry off (a restart of the gateway).
    void Reset();

private:
    struct SEntry
    {
        bool m_bEnabled = false;
        STarvikSimCanFrame m_oFrame;
    };

    CTarvikSimCanBus& m_oBus;
    CTarvikSimCanStation& m_oOwner;
    std::array<SEntry, kEntries> m_aoEntries;
};

#endif
