// CTarvikClientTestSystemIO: the IO unit of a test system (device type 11): its value
// words and its power channels. What each word means is the unit's configuration; the
// client passes the words through.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMIO_H
#define TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMIO_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolTestSystemIO.h"

class TARVIK_API CTarvikClientTestSystemIO : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_TESTSYSTEM_IO_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    explicit CTarvikClientTestSystemIO(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientTestSystemIO() override;

    int Open() override;

    // Every operation returns 0 or a result code; a device error reads 0x0Bxx.
    // A set sends nCount words; a get reads nCount words from any answer that arrived
    // (whatever its result byte), as many as it holds, and leaves the others alone.
    int SetValue(unsigned short* pValues, unsigned char nCount);
    int GetValue(unsigned short* pValues, unsigned char nCount);
    int SetPower(unsigned short* pValues, unsigned char nCount);
    int GetPower(unsigned short* pValues, unsigned char nCount);
};

#endif
