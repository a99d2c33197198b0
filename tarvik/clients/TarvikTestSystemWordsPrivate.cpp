#include "tarvik/clients/TarvikTestSystemWordsPrivate.h"

namespace tarvik_detail
{
std::string EncodeWords(const unsigned short* words, unsigned char count)
{
    std::string data;
    if (words == nullptr)
        return data;
    data.reserve(2 * static_cast<size_t>(count));
    for (unsigned char i = 0; i < count; ++i)
        data += CTarvikMsg::ToChar(words[i]);
    return data;
}

void DecodeWords(const CTarvikReply& reply, unsigned short* words, unsigned char count)
{
    if (words == nullptr)
        return;
    // The unit is not asked how many words it has: the caller knows its configuration.
    // A shorter answer fills only the words it carries.
    const CTarvikPayload payload = reply.Payload();
    for (size_t i = 0; i < count; ++i)
        if (!payload.ReadU16(1 + 2 * i, words[i]))
            break;
}
} // namespace tarvik_detail
