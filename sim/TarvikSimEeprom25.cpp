#include "sim/TarvikSimEeprom25.h"

#include <algorithm>

namespace
{
// Status bits that WRSR may change and that survive a power cycle.
constexpr unsigned char kWritableStatus =
    CTarvikSimEeprom25::eStatusBP0 | CTarvikSimEeprom25::eStatusBP1 | CTarvikSimEeprom25::eStatusWPEN;

bool IsPowerOfTwo(size_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}
} // namespace

CTarvikSimEeprom25::CTarvikSimEeprom25(size_t size, size_t pageSize)
    : m_aMemory(IsPowerOfTwo(size) && size <= 65536 ? size : kDefaultSize, kErased),
      m_nPageSize(IsPowerOfTwo(pageSize) && pageSize <= m_aMemory.size() ? pageSize : kDefaultPageSize), m_nStatus(0),
      m_bSelected(false), m_eState(eStateInstruction), m_nInstruction(0), m_nAddress(0),
      m_aPageData(m_nPageSize, kErased), m_abPageTouched(m_nPageSize, false), m_bPageDirty(false), m_nNewStatus(0),
      m_bStatusPending(false), m_nWriteCycleMs(0), m_oBusyUntil()
{
}

void CTarvikSimEeprom25::Select()
{
    m_bSelected = true;
    m_eState = eStateInstruction;
    m_bPageDirty = false;
    m_bStatusPending = false;
}

void CTarvikSimEeprom25::Deselect()
{
    if (!m_bSelected)
        return;
    m_bSelected = false;
    // Writes are carried out on the rising edge of chip select, as on the real part.
    if (m_eState == eStateWrite && m_bPageDirty)
        CommitPage();
    else if (m_eState == eStateWriteStatus && m_bStatusPending)
    {
        m_nStatus = static_cast<unsigned char>((m_nStatus & ~kWritableStatus) | (m_nNewStatus & kWritableStatus));
        StartWriteCycle();
    }
    m_eState = eStateInstruction;
}

unsigned char CTarvikSimEeprom25::Transfer(unsigned char mosi)
{
    if (!m_bSelected)
        return kIdleByte;
    switch (m_eState)
    {
    case eStateInstruction: StartInstruction(mosi); return kIdleByte;
    case eStateAddressHigh:
        m_nAddress = static_cast<size_t>(mosi) << 8;
        m_eState = eStateAddressLow;
        return kIdleByte;
    case eStateAddressLow:
        m_nAddress = (m_nAddress | mosi) & (m_aMemory.size() - 1);
        m_eState = m_nInstruction == eInstrREAD ? eStateRead : eStateWrite;
        return kIdleByte;
    case eStateRead:
    {
        unsigned char value = m_aMemory[m_nAddress];
        m_nAddress = (m_nAddress + 1) & (m_aMemory.size() - 1);
        return value;
    }
    case eStateWrite:
    {
        // The address counter wraps within the page: later bytes overwrite earlier ones.
        size_t offset = m_nAddress & (m_nPageSize - 1);
        m_aPageData[offset] = mosi;
        m_abPageTouched[offset] = true;
        m_bPageDirty = true;
        m_nAddress = (m_nAddress & ~(m_nPageSize - 1)) | ((offset + 1) & (m_nPageSize - 1));
        return kIdleByte;
    }
    case eStateReadStatus: return GetStatus();
    case eStateWriteStatus:
        if (!m_bStatusPending)
        {
            m_nNewStatus = mosi;
            m_bStatusPending = true;
        }
        return kIdleByte;
    case eStateIgnore: break;
    }
    return kIdleByte;
}

void CTarvikSimEeprom25::StartInstruction(unsigned char instruction)
{
    m_nInstruction = instruction;
    m_eState = eStateIgnore;
    if (IsBusy())
    {
        // A write cycle is running: the part only answers status reads.
        if (instruction == eInstrRDSR)
            m_eState = eStateReadStatus;
        return;
    }
    switch (instruction)
    {
    case eInstrWREN: m_nStatus |= eStatusWEL; break;
    case eInstrWRDI: m_nStatus &= static_cast<unsigned char>(~eStatusWEL); break;
    case eInstrRDSR: m_eState = eStateReadStatus; break;
    case eInstrWRSR:
        if (m_nStatus & eStatusWEL)
            m_eState = eStateWriteStatus;
        break;
    case eInstrREAD: m_eState = eStateAddressHigh; break;
    case eInstrWRITE:
        if (m_nStatus & eStatusWEL)
        {
            std::fill(m_abPageTouched.begin(), m_abPageTouched.end(), false);
            m_eState = eStateAddressHigh;
        }
        break;
    default: break;
    }
}

bool CTarvikSimEeprom25::IsProtected(size_t address) const
{
    size_t size = m_aMemory.size();
    switch ((m_nStatus & (eStatusBP0 | eStatusBP1)) >> 2)
    {
    case 1: return address >= size - size / 4;
    case 2: return address >= size / 2;
    case 3: return true;
    default: return false;
    }
}

void CTarvikSimEeprom25::CommitPage()
{
    size_t pageBase = m_nAddress & ~(m_nPageSize - 1);
    // A write into a protected block is ignored; the latch is cleared either way.
    if (!IsProtected(pageBase))
    {
        for (size_t i = 0; i < m_nPageSize; ++i)
            if (m_abPageTouched[i])
                m_aMemory[pageBase + i] = m_aPageData[i];
    }
    StartWriteCycle();
}

void CTarvikSimEeprom25::StartWriteCycle()
{
    m_nStatus &= static_cast<unsigned char>(~eStatusWEL);
    m_oBusyUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_nWriteCycleMs);
}

bool CTarvikSimEeprom25::IsBusy() const
{
    return m_nWriteCycleMs != 0 && std::chrono::steady_clock::now() < m_oBusyUntil;
}

void CTarvikSimEeprom25::Reset()
{
    m_bSelected = false;
    m_eState = eStateInstruction;
    m_bPageDirty = false;
    m_bStatusPending = false;
    m_nStatus &= kWritableStatus;
    m_oBusyUntil = std::chrono::steady_clock::time_point();
}

std::string CTarvikSimEeprom25::Peek(size_t address, size_t len) const
{
    std::string out(len, '\0');
    for (size_t i = 0; i < len; ++i)
        out[i] = static_cast<char>(m_aMemory[(address + i) & (m_aMemory.size() - 1)]);
    return out;
}

void CTarvikSimEeprom25::Poke(size_t address, const std::string& data)
{
    for (size_t i = 0; i < data.size(); ++i)
        m_aMemory[(address + i) & (m_aMemory.size() - 1)] = static_cast<unsigned char>(data[i]);
}

void CTarvikSimEeprom25::Erase()
{
    std::fill(m_aMemory.begin(), m_aMemory.end(), kErased);
}

unsigned char CTarvikSimEeprom25::GetStatus() const
{
    return static_cast<unsigned char>(m_nStatus | (IsBusy() ? eStatusWIP : 0));
}

void CTarvikSimEeprom25::SetWriteCycleMs(unsigned int ms)
{
    m_nWriteCycleMs = ms;
}
