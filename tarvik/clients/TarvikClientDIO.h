// CTarvikClientDIO: a digital I/O gateway (device type 5): its input and output words.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTDIO_H
#define TARVIK_CLIENTS_TARVIKCLIENTDIO_H

#include "tarvik/core/TarvikClient.h"

class TARVIK_API CTarvikClientDIO : public CTarvikClient
{
public:
    explicit CTarvikClientDIO(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientDIO() override;

    // BaseReadDigital: decoded only from an answer with both words, then even when
    // the device reports an error; a shorter answer gives 0 and leaves both alone.
    int Read(unsigned int& inputs, unsigned int& outputs);
    // BaseWriteDigital.
    int Write(unsigned int outputs);
};

#endif
