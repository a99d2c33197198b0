#include "sim/TarvikSimEeprom24.h"

CTarvikSimEeprom24::CTarvikSimEeprom24(const char* name, size_t size, size_t pageSize, unsigned int addressBytes,
                                       unsigned char slaveBase, unsigned int blockShift)
    : m_sName(name), m_aMemory(size, kErased), m_nPageSize(pageSize), m_nAddressBytes(addressBytes),
      m_nSlaveBase(slaveBase), m_nBlockShift(blockShift), m_nBlockMask(0), m_bActive(false), m_bReading(false),
      m_nAddressLeft(0), m_nAddress(0), m_nWordAddress(0), m_nWriteCycleMs(0)
{
    // Memory beyond what the address bytes reach is chosen by block bits of the address.
    size_t blocks = size >> (8 * addressBytes);
    for (size_t b = 1; b < blocks; b <<= 1)
        m_nBlockMask = static_cast<unsigned char>(m_nBlockMask | (b << blockShift));
}

bool CTarvikSimEeprom24::Matches(unsigned char address) const
{
    return (address & 0xFE & ~m_nBlockMask) == m_nSlaveBase;
}

size_t CTarvikSimEeprom24::BlockBits() const
{
    return 8 * static_cast<size_t>(m_nAddressBytes);
}

bool CTarvikSimEeprom24::IsBusy() const
{
    return std::chrono::steady_clock::now() < m_oBusyUntil;
}

bool CTarvikSimEeprom24::Start(unsigned char address)
{
    if (IsBusy())
        return false;
    // A repeated start ends a write without storing, as on the chip.
    m_aPending.clear();
    size_t block = (address & m_nBlockMask) >> m_nBlockShift;
    m_bActive = true;
    m_bReading = (address & 1) != 0;
    if (!m_bReading)
    {
        m_nAddressLeft = m_nAddressBytes;
        m_nWordAddress = 0;
        m_nAddress = block << BlockBits();
    }
    return true;
}

bool CTarvikSimEeprom24::Write(unsigned char byte)
{
    if (!m_bActive || m_bReading)
        return false;
    if (m_nAddressLeft > 0)
    {
        m_nWordAddress = (m_nWordAddress << 8 | byte) & ((size_t(1) << BlockBits()) - 1);
        if (--m_nAddressLeft == 0)
            m_nAddress = ((m_nAddress >> BlockBits() << BlockBits()) | m_nWordAddress) % m_aMemory.size();
        return true;
    }
    m_aPending.emplace_back(m_nAddress, byte);
    // The page write wraps to the start of the page.
    size_t page = m_nAddress & ~(m_nPageSize - 1);
    m_nAddress = page | ((m_nAddress + 1) & (m_nPageSize - 1));
    return true;
}

unsigned char CTarvikSimEeprom24::Read()
{
    if (!m_bActive || !m_bReading)
        return kErased;
    unsigned char byte = m_aMemory[m_nAddress];
    m_nAddress = (m_nAddress + 1) % m_aMemory.size();
    return byte;
}

void CTarvikSimEeprom24::Stop()
{
    if (m_bActive && !m_bReading && !m_aPending.empty())
        Commit();
    m_bActive = false;
    m_aPending.clear();
}

void CTarvikSimEeprom24::Commit()
{
    for (const auto& cell : m_aPending)
        m_aMemory[cell.first] = cell.second;
    m_oBusyUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_nWriteCycleMs);
}

void CTarvikSimEeprom24::Reset()
{
    m_bActive = false;
    m_aPending.clear();
}

std::string CTarvikSimEeprom24::Peek(size_t address, size_t len) const
{
    std::string out;
    for (size_t i = 0; i < len; ++i)
        out += static_cast<char>(m_aMemory[(address + i) % m_aMemory.size()]);
    return out;
}

void CTarvikSimEeprom24::Poke(size_t address, const std::string& data)
{
    for (size_t i = 0; i < data.size(); ++i)
        m_aMemory[(address + i) % m_aMemory.size()] = static_cast<unsigned char>(data[i]);
}
