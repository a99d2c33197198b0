// CTarvikClientTestSystemRelay: the relay unit of a test system (device type 17): its
// relays, its power channels and its push-buttons.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMRELAY_H
#define TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMRELAY_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolTestSystemRelay.h"

class TARVIK_API CTarvikClientTestSystemRelay : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_TESTSYSTEM_RELAY_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    explicit CTarvikClientTestSystemRelay(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientTestSystemRelay() override;

    int Open() override;

    // Every operation returns 0 or a result code; a device error reads 0x11xx.
    int SetRelay(unsigned char nRelay, bool bOn);
    // bPressed is set whenever an answer arrived: the unit's state on success with a
    // state byte, false otherwise; a transport failure leaves it alone.
    int GetButton(unsigned char nButton, bool& bPressed);
    // SetPower sends nCount words; GetPower reads nCount words from any answer that
    // arrived (whatever its result byte), as many as it holds, and leaves the others alone.
    int SetPower(unsigned short* pValues, unsigned char nCount);
    int GetPower(unsigned short* pValues, unsigned char nCount);
};

#endif
