// CTarvikClientAD: an analog/digital gateway (device type 7): its digital words and
// its converter channels.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTAD_H
#define TARVIK_CLIENTS_TARVIKCLIENTAD_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolAD.h"

#include <vector>

class TARVIK_API CTarvikClientAD : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_AD_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    explicit CTarvikClientAD(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientAD() override;

    // Every operation returns 0 or a result code; a device error reads 0x07xx.
    // BaseReadDigital and BaseWriteDigital.
    int ReadDigital(unsigned int& inputs, unsigned int& outputs);
    int WriteDigital(unsigned int outputs);
    // The input word split into its three low bytes. input0 receives the word from
    // BaseReadDigital (so on a failure it may hold the whole word, with input1 and
    // input2 left alone); on success bits 8..15 go to input1, 16..23 to input2, and
    // input0 keeps bits 0..7. A short answer succeeds with input0 as it was, split.
    int ReadDigitalInput(unsigned int& input0, unsigned int& input1, unsigned int& input2);
    // The converter values, u32 each, from any answer that arrived (whatever its
    // result byte); a trailing part of a value is ignored. values is emptied first.
    int Read(std::vector<unsigned int>& values);
};

#endif
