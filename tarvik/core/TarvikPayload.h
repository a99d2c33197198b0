// CTarvikPayload: a read-only view of a telegram's data field with bounds-checked
// little-endian readers, for decoding confirmations and indications alike. Nothing a
// device sends is trusted: a read that would pass the end fails and leaves its output alone.
#ifndef TARVIK_CORE_TARVIKPAYLOAD_H
#define TARVIK_CORE_TARVIKPAYLOAD_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstddef>
#include <string>

class TARVIK_API CTarvikPayload
{
public:
    CTarvikPayload(const char* data, size_t size) : m_pData(data != nullptr ? data : ""), m_nSize(data ? size : 0) {}
    explicit CTarvikPayload(const std::string& data) : m_pData(data.data()), m_nSize(data.size()) {}

    size_t Size() const { return m_nSize; }
    const char* Data() const { return m_pData; }
    // Byte pos, 0 past the end (for fields whose absence the caller has ruled out).
    unsigned char At(size_t pos) const { return pos < m_nSize ? static_cast<unsigned char>(m_pData[pos]) : 0; }
    // Little-endian u16 and u32 at pos, 0 when they are not all there (likewise for
    // fields whose length the caller has checked).
    unsigned short U16At(size_t pos) const { return Has(pos, 2) ? static_cast<unsigned short>(Le(pos, 2)) : 0; }
    unsigned int U32At(size_t pos) const { return Has(pos, 4) ? Le(pos, 4) : 0; }

    // Readers return false and leave value untouched when the bytes are not all there.
    // Defined here, so that a decoder of many telegrams a second pays no call per field.
    bool ReadU8(size_t pos, unsigned char& value) const { return Read(pos, 1, value); }
    bool ReadU16(size_t pos, unsigned short& value) const { return Read(pos, 2, value); }
    bool ReadS16(size_t pos, short& value) const { return Read(pos, 2, value); }
    bool ReadU32(size_t pos, unsigned int& value) const { return Read(pos, 4, value); }
    bool ReadS32(size_t pos, int& value) const { return Read(pos, 4, value); }
    // Copies min(max, Size() - pos) bytes from pos (nothing when pos is past the end or
    // out is null); returns the number copied.
    size_t CopyTo(size_t pos, void* out, size_t max) const;

private:
    bool Has(size_t pos, size_t len) const { return pos <= m_nSize && m_nSize - pos >= len; }
    // len (1..4) bytes at pos, little-endian; the caller has checked that they are there.
    unsigned int Le(size_t pos, size_t len) const
    {
        unsigned int value = 0;
        for (size_t i = 0; i < len; ++i)
            value |= static_cast<unsigned int>(static_cast<unsigned char>(m_pData[pos + i])) << (8 * i);
        return value;
    }
    // The bits taken as T (signed types wrap as two's complement, as on the wire).
    template <class T> bool Read(size_t pos, size_t len, T& value) const
    {
        if (!Has(pos, len))
            return false;
        value = static_cast<T>(Le(pos, len));
        return true;
    }

    const char* m_pData;
    size_t m_nSize;
};

#endif
