// File status of the runtime.
#ifndef TARVIK_RUNTIME_MOLFILE_H
#define TARVIK_RUNTIME_MOLFILE_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstdint>

class TARVIK_API CMolFileStatus
{
public:
    CMolFileStatus();
    ~CMolFileStatus();

    bool m_bExists;
    bool m_bRegular;
    uint64_t m_nSize;
};

class TARVIK_API CMolFile
{
public:
    // True when path names an existing file; status receives its size and kind.
    static bool GetStatus(const char* path, CMolFileStatus& status);
};

#endif
