// A received confirmation and its result, with bounds-checked readers of its payload.
#ifndef TARVIK_CORE_TARVIKREPLY_H
#define TARVIK_CORE_TARVIKREPLY_H

#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikPayload.h"

#include <string>

class TARVIK_API CTarvikReply
{
public:
    CTarvikReply();
    ~CTarvikReply();
    CTarvikReply(const CTarvikReply&) = delete;
    CTarvikReply& operator=(const CTarvikReply&) = delete;

    // Takes ownership of cnf (may be null).
    void Set(int transport, int result, CTarvikMsg* cnf);
    // The same with the confirmation already in Cnf() (received false: none).
    void Set(int transport, int result, bool received);
    // Where a confirmation is received into, so that a reply needs no heap telegram.
    CTarvikMsg& Cnf() { return m_oCnf; }
    // Result of the send-and-wait step alone (0 when a proper confirmation arrived).
    int Transport() const { return m_nTransport; }
    // Transport result, or, when that is 0, the device's result code.
    int Result() const { return m_nResult; }

    // Payload size (0 without a confirmation); byte 0 is the device's result byte.
    size_t Size() const;
    const char* Data() const;
    // The payload with the full set of bounds-checked readers (empty without a confirmation).
    CTarvikPayload Payload() const { return CTarvikPayload(Data(), Size()); }
    // Readers return false and leave value untouched when the bytes are not all there.
    bool ReadU8(size_t pos, unsigned char& value) const;
    bool ReadU32(size_t pos, unsigned int& value) const;
    // Copies min(max, Size() - pos) bytes from pos (nothing when pos is past the end).
    size_t CopyTo(size_t pos, void* out, size_t max) const;
    // The payload from pos to the end (empty when pos is past the end).
    std::string Substr(size_t pos) const;

private:
    CTarvikMsg m_oCnf;
    bool m_bHasCnf;
    int m_nTransport;
    int m_nResult;
};

#endif
