#include "tarvik/runtime/MolFile.h"

#include <sys/stat.h>

CMolFileStatus::CMolFileStatus() : m_bExists(false), m_bRegular(false), m_nSize(0) {}

CMolFileStatus::~CMolFileStatus() = default;

bool CMolFile::GetStatus(const char* path, CMolFileStatus& status)
{
    status = CMolFileStatus();
    struct stat info = {};
    if (path == nullptr || ::stat(path, &info) != 0)
        return false;
    status.m_bExists = true;
    status.m_bRegular = S_ISREG(info.st_mode);
    status.m_nSize = static_cast<uint64_t>(info.st_size);
    return true;
}
