// The SDO values that a signed decode gets wrong (a byte of 0x80 or more at each size
// an expedited transfer has) and one abort: the rows that every surface of the SDO
// services (C++, C, CLI; Python keeps its own copy) reads back through its own layer.
#ifndef TARVIK_TESTS_SUPPORT_SDOCASES_H
#define TARVIK_TESTS_SUPPORT_SDOCASES_H

namespace tarvik_test
{
struct SSdoCase
{
    const char* m_pName;
    unsigned short m_nIndex; // an entry of the simulated node 2, written first when m_nSize != 0
    unsigned char m_nSize;   // value bytes on the wire; 0: the node aborts
    unsigned int m_nValue;
    const char* m_pValueBytes; // the value bytes of the gateway's answer
    unsigned int m_nAbortCode;
    const char* m_pAbortText;
};

const SSdoCase kSdoCases[] = {
    {"u8 0xFF", 0x2000, 1, 0xFF, "FF", 0, ""},
    {"u16 0xFFFF", 0x2001, 2, 0xFFFF, "FF FF", 0, ""},
    {"u32 0x80808080", 0x2002, 4, 0x80808080, "80 80 80 80", 0, ""},
    {"no such object", 0x3000, 0, 0, "", 0x06020000, "object does not exist"},
};
} // namespace tarvik_test

#endif
