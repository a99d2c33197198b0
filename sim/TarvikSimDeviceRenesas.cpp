#include "sim/TarvikSimDeviceRenesas.h"

#include "tarvik/core/TarvikPayload.h"

namespace
{
// The device answers the command numbers its client sends.
namespace wire = tarvik_protocol::renesas;
constexpr unsigned char kOk = CTarvikSimDevice::eResultOk;
constexpr unsigned char kFailed = CTarvikSimDevice::eResultFailed;
constexpr unsigned char kInvalidID = CTarvikSimDeviceRenesas::eResultInvalidID;
constexpr size_t kFlashSize = CTarvikSimDeviceRenesas::kPageSize * CTarvikSimDeviceRenesas::kPageCount;
constexpr size_t kBlockCount = CTarvikSimDeviceRenesas::kPageCount / CTarvikSimDeviceRenesas::kPagesPerBlock;
} // namespace

const char* const CTarvikSimDeviceRenesas::kDefaultID = "RENESAS";
const char* const CTarvikSimDeviceRenesas::kVersion = "Tarvik Renesas target V1.04";

CTarvikSimDeviceRenesas::CTarvikSimDeviceRenesas(unsigned int index)
    : CTarvikSimDevice(eTarvikRenesas, index), m_sID(kDefaultID), m_sFlash(kFlashSize, '\xFF'), m_bInSequence(false),
      m_bIDChecked(false), m_nBaudrate(0)
{
}

CTarvikSimDeviceRenesas::~CTarvikSimDeviceRenesas() = default;

bool CTarvikSimDeviceRenesas::HandleCommand(unsigned char cmd, const std::string& data, std::string& answer)
{
    if (cmd < wire::eCmdInit || cmd > wire::eCmdBlockErase)
        return false;
    // Outside a sequence the target is not in programming mode and never answers.
    if (cmd != wire::eCmdInit && !m_bInSequence)
    {
        answer = Answer(eResultTimeout);
        return true;
    }
    switch (cmd)
    {
    case wire::eCmdInit: answer = Init(data); break;
    case wire::eCmdCheckID: answer = CheckID(data); break;
    case wire::eCmdSetBaudrate: answer = SetBaudrate(data); break;
    case wire::eCmdReadPage: answer = ReadPage(data); break;
    case wire::eCmdEraseAll: answer = EraseAll(data); break;
    case wire::eCmdWritePage: answer = WritePage(data); break;
    case wire::eCmdGetVersion: answer = data.empty() ? Answer(kOk, kVersion) : Answer(kFailed); break;
    case wire::eCmdComplete: answer = Complete(data); break;
    case wire::eCmdVerifyCheck: answer = VerifyCheck(data); break;
    default: answer = BlockErase(data); break;
    }
    return true;
}

std::string CTarvikSimDeviceRenesas::Init(const std::string& data)
{
    if (!data.empty())
        return Answer(kFailed);
    m_bInSequence = true;
    m_bIDChecked = false;
    return Answer(kOk);
}

std::string CTarvikSimDeviceRenesas::CheckID(const std::string& data)
{
    if (data.size() != kIDSize)
        return Answer(kFailed);
    m_bIDChecked = data == m_sID;
    return Answer(m_bIDChecked ? kOk : kInvalidID);
}

std::string CTarvikSimDeviceRenesas::SetBaudrate(const std::string& data)
{
    if (data.size() != 1)
        return Answer(kFailed);
    m_nBaudrate = static_cast<unsigned char>(data[0]);
    return Answer(kOk);
}

unsigned char CTarvikSimDeviceRenesas::Locked() const
{
    return m_bIDChecked ? kOk : kInvalidID;
}

std::string CTarvikSimDeviceRenesas::ReadPage(const std::string& data) const
{
    if (Locked() != kOk)
        return Answer(Locked());
    if (data.size() != 2 || CTarvikPayload(data).U16At(0) >= kPageCount)
        return Answer(kFailed);
    return Answer(kOk, m_sFlash.substr(CTarvikPayload(data).U16At(0) * kPageSize, kPageSize));
}

std::string CTarvikSimDeviceRenesas::EraseAll(const std::string& data)
{
    if (Locked() != kOk)
        return Answer(Locked());
    if (!data.empty())
        return Answer(kFailed);
    m_sFlash.assign(kFlashSize, '\xFF');
    return Answer(kOk);
}

std::string CTarvikSimDeviceRenesas::WritePage(const std::string& data)
{
    if (Locked() != kOk)
        return Answer(Locked());
    if (data.size() != 2 + kPageSize)
        return Answer(kFailed);
    unsigned short page = CTarvikPayload(data).U16At(0);
    if (page >= kPageCount)
        return Answer(eResultProgramFailed);
    size_t base = page * kPageSize;
    // Programming clears bits only; a 1 where the flash holds a 0 needs an erase first.
    for (size_t i = 0; i < kPageSize; ++i)
        if ((data[2 + i] & ~m_sFlash[base + i]) != 0)
            return Answer(eResultProgramFailed);
    m_sFlash.replace(base, kPageSize, data, 2, kPageSize);
    return Answer(kOk);
}

std::string CTarvikSimDeviceRenesas::VerifyCheck(const std::string& data) const
{
    if (Locked() != kOk)
        return Answer(Locked());
    if (data.size() != 4)
        return Answer(kFailed);
    unsigned short first = CTarvikPayload(data).U16At(0);
    unsigned short last = CTarvikPayload(data).U16At(2);
    if (first > last || last >= kPageCount)
        return Answer(kFailed);
    unsigned short sum = 0;
    for (size_t i = first * kPageSize; i < (last + 1u) * kPageSize; ++i)
        sum = static_cast<unsigned short>(sum + static_cast<unsigned char>(m_sFlash[i]));
    return Answer(kOk, CTarvikMsg::ToChar(sum));
}

std::string CTarvikSimDeviceRenesas::BlockErase(const std::string& data)
{
    if (Locked() != kOk)
        return Answer(Locked());
    if (data.size() != 2)
        return Answer(kFailed);
    unsigned short block = CTarvikPayload(data).U16At(0);
    if (block >= kBlockCount)
        return Answer(eResultEraseFailed);
    size_t blockSize = kPagesPerBlock * kPageSize;
    m_sFlash.replace(block * blockSize, blockSize, blockSize, '\xFF');
    return Answer(kOk);
}

std::string CTarvikSimDeviceRenesas::Complete(const std::string& data)
{
    if (!data.empty())
        return Answer(kFailed);
    m_bInSequence = false;
    m_bIDChecked = false;
    return Answer(kOk);
}

void CTarvikSimDeviceRenesas::OnRestart()
{
    // The flash keeps its contents; the programming sequence and rate code do not.
    m_bInSequence = false;
    m_bIDChecked = false;
    m_nBaudrate = 0;
}

void CTarvikSimDeviceRenesas::SetTargetID(const std::string& id)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_sID = id;
}

std::string CTarvikSimDeviceRenesas::PeekPage(size_t page) const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return page < kPageCount ? m_sFlash.substr(page * kPageSize, kPageSize) : std::string();
}

bool CTarvikSimDeviceRenesas::IsInSequence() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_bInSequence;
}

unsigned char CTarvikSimDeviceRenesas::GetBaudrate() const
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_nBaudrate;
}
