// The value words shared by the test-system IO, power and relay units: u16 little-endian
// each, in array order, with no count field (the data length gives the count).
// Internal to the library; not installed.
#ifndef TARVIK_CLIENTS_TARVIKTESTSYSTEMWORDSPRIVATE_H
#define TARVIK_CLIENTS_TARVIKTESTSYSTEMWORDSPRIVATE_H

#include "tarvik/core/TarvikReply.h"

#include <string>

namespace tarvik_detail
{
// The request data of a set: count words (none when words is null).
std::string EncodeWords(const unsigned short* words, unsigned char count);
// Word i from answer bytes 1 + 2i and 2 + 2i, for as many of the count words as the
// answer holds; the rest of words is left alone.
void DecodeWords(const CTarvikReply& reply, unsigned short* words, unsigned char count);
} // namespace tarvik_detail

#endif
