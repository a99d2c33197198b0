// CTarvikClientTestSystemPWR: the power unit of a test system (device type 12): its
// value words, passed through as the unit's configuration defines them.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMPWR_H
#define TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMPWR_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolTestSystemPWR.h"

class TARVIK_API CTarvikClientTestSystemPWR : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_TESTSYSTEM_PWR_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    explicit CTarvikClientTestSystemPWR(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientTestSystemPWR() override;

    int Open() override;

    // 0 or a result code; a device error reads 0x0Cxx. SetValue sends nCount words;
    // GetValue reads nCount words from any answer that arrived (whatever its result
    // byte), as many as it holds, and leaves the others alone.
    int SetValue(unsigned short* pValues, unsigned char nCount);
    int GetValue(unsigned short* pValues, unsigned char nCount);
};

#endif
