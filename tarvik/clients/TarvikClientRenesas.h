// CTarvikClientRenesas: a gateway that programs the on-chip flash of a Renesas
// microcontroller (device type 9). Each operation is one request; the programming
// sequence (Init ... Complete) lives in the gateway, which answers a command it does
// not accept in its present state with its own result code.
//
// Threads: the application's thread; one request at a time.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTRENESAS_H
#define TARVIK_CLIENTS_TARVIKCLIENTRENESAS_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolRenesas.h"

#include <cstddef>

class TARVIK_API CTarvikClientRenesas : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_RENESAS_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    // Result codes of the gateway (device byte | 9 << 8).
    enum EResult
    {
        eResultTimeout = 0x000920,       // "Renesas timeout"
        eResultInvalidID = 0x000921,     // "Renesas invalid ID"
        eResultEraseFailed = 0x000922,   // "Renesas failed erase the flash"
        eResultProgramFailed = 0x000923, // "Renesas program the page failed"
    };

    // A flash page; WritePage always sends exactly this many bytes.
    static constexpr size_t kPageSize = tarvik_protocol::renesas::kPageSize;
    // CheckID always sends this many ID bytes.
    static constexpr size_t kIDSize = tarvik_protocol::renesas::kIDSize;

    explicit CTarvikClientRenesas(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientRenesas() override;

    // Every operation returns 0 or a result code; a gateway error reads 0x09xx.

    // Starts a programming sequence on the target.
    int Init();
    // Sends the first min(nIDLen, 7) bytes of pID; the positions after them carry
    // 1-based position numbers (k + 1 at 0-based position k). 0x0921: wrong ID.
    int CheckID(const char* pID, unsigned char nIDLen);
    // A rate code, interpreted by the gateway.
    int SetBaudrate(unsigned char nBaudrate);
    // nReceived is 0 unless a confirmation arrived; then it is the number of page
    // bytes copied into pBuffer (at most nBufferLen), also when the gateway reports
    // an error.
    int ReadPage(unsigned short nPage, char* pBuffer, unsigned short nBufferLen, unsigned short& nReceived);
    int EraseAll();
    // Programs one whole page: a shorter buffer is padded with 0x00 (not the erased
    // value 0xFF), a longer one is cut at 256 bytes. 0x0923: programming failed.
    int WritePage(unsigned short nPage, const char* pBuffer, unsigned short nBufferLen);
    // Copies up to nBufferLen bytes of the version text from any confirmation that
    // arrived; no terminating zero is added.
    int GetVersion(char* pBuffer, unsigned char nBufferLen);
    // Ends the programming sequence.
    int Complete();
    // Checksum over a range (nFirst, nSecond) that the gateway interprets. Any
    // confirmation sets nChecksum: to the sum when it carries one (even with an error
    // result), else to 0; without a confirmation it is left alone.
    int VerifyCheck(unsigned short nFirst, unsigned short nSecond, unsigned short& nChecksum);
    // 0x0922: erasing failed.
    int BlockErase(unsigned short nBlock);

    int ReadDigital(unsigned int& inputs, unsigned int& outputs);
    int WriteDigital(unsigned int outputs);
};

#endif
