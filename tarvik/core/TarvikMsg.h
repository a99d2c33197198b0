// One telegram of the gateway protocol.
//
// Wire frame, all integers little-endian:
//   u16 length (= data size + 5) | u16 command code | i16 message id | data | u8 check byte
// The check byte is the XOR of the command code, message id and data bytes.
#ifndef TARVIK_CORE_TARVIKMSG_H
#define TARVIK_CORE_TARVIKMSG_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstddef>
#include <cstdint>
#include <string>

class TARVIK_API CTarvikMsg
{
public:
    // Bytes around the data field: length, command code, message id, check byte.
    static constexpr unsigned short kOverhead = 7;
    // Bit of the command code that marks a confirmation.
    static constexpr unsigned short kConfirmationBit = 0x8000;
    // Largest data field whose length field (data size + 5) fits in 16 bits.
    static constexpr size_t kMaxData = 0xFFFF - 5;

    CTarvikMsg();
    CTarvikMsg(unsigned short cmd, short id, const char* data, unsigned short len);
    // Takes the payload by move. The length field is 16 bits wide: a payload of more
    // than 65530 bytes cannot be sent (CTarvikClient refuses it before sending).
    CTarvikMsg(unsigned short cmd, short id, std::string&& data);
    // Parses a received frame (see SetMessage(const char*, unsigned short)).
    CTarvikMsg(const char* frame, unsigned short len);
    CTarvikMsg(const CTarvikMsg&) = default;
    CTarvikMsg& operator=(const CTarvikMsg&) = default;
    // A move takes the payload over without copying it (queues of telegrams move them in and out).
    CTarvikMsg(CTarvikMsg&&) noexcept = default;
    CTarvikMsg& operator=(CTarvikMsg&&) noexcept = default;
    virtual ~CTarvikMsg();

    // Builds a telegram; a null data pointer or a zero length gives an empty payload.
    void SetMessage(unsigned short cmd, short id, const char* data, unsigned short len);
    // Parses a whole frame. Shorter than 7 bytes: empty telegram, false. Otherwise all
    // fields are taken as they stand (the check byte is not verified) and the result
    // is IsValid().
    bool SetMessage(const char* frame, unsigned short len);

    unsigned short GetCmdCode() const { return m_nCmdCode; }
    short GetMsgID() const { return m_nMsgID; }
    unsigned char GetCRC() const { return m_nCRC; }
    unsigned short GetLength() const { return m_nLength; }
    const std::string& GetData() const { return m_sData; }
    bool IsConfirmation() const { return (m_nCmdCode & kConfirmationBit) != 0; }

    // True when the length field equals the payload size + 5.
    virtual bool IsValid() const;
    bool IsCRCValid() const;
    // XOR of LE16(command code), LE16(message id) and the payload.
    virtual unsigned char ComputeCRC() const;

    // The complete wire frame, with the stored check byte.
    std::string GetMessageData() const;
    // Writes the wire frame into out (at least GetData().size() + 7 bytes); returns its size.
    size_t GetMessageData(char* out) const;

    static std::string ToChar(short value);
    static std::string ToChar(unsigned short value);
    static std::string ToChar(int value);
    static std::string ToChar(unsigned int value);
    static std::string ToChar(long value);
    static std::string ToChar(unsigned long value);
    // Little-endian reads; the caller has checked that enough bytes are there.
    static void FromChar(short& value, const char* p);
    static void FromChar(unsigned short& value, const char* p);
    static void FromChar(int& value, const char* p);
    static void FromChar(unsigned int& value, const char* p);
    static void FromChar(long& value, const char* p);
    static void FromChar(unsigned long& value, const char* p);

    // XOR of all bytes of a buffer, eight at a time.
    static unsigned char XorBytes(const char* data, size_t len);

private:
    std::string m_sData;
    unsigned short m_nLength;
    unsigned short m_nCmdCode;
    short m_nMsgID;
    unsigned char m_nCRC;
};

#endif
