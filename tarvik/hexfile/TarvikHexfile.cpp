#include "tarvik/hexfile/TarvikHexfile.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

bool CTarvikHexfile::s_bFirstTime = true;
unsigned int CTarvikHexfile::nTempFilenameLfdNr = 1;
const uint64_t CTarvikHexfile::m_nMaxAddressSupported;

// ---------------------------------------------------------------------------------------------
// SMemoryBlock

CTarvikHexfile::SMemoryBlock::SMemoryBlock() : m_nStartAddress(0), m_nLength(0), m_pData(nullptr) {}

CTarvikHexfile::SMemoryBlock::SMemoryBlock(uint64_t start, const char* data, uint64_t length)
    : m_nStartAddress(start), m_nLength(length), m_pData(new char[length]())
{
    if (data != nullptr && length > 0)
        std::memcpy(m_pData, data, length);
}

CTarvikHexfile::SMemoryBlock::~SMemoryBlock()
{
    delete[] m_pData;
}

bool CTarvikHexfile::SMemoryBlock::operator==(const SMemoryBlock& other) const
{
    if (m_nLength != other.m_nLength)
        return false;
    return m_nLength == 0 || std::memcmp(m_pData, other.m_pData, m_nLength) == 0;
}

// ---------------------------------------------------------------------------------------------
// Image

CTarvikHexfile::CTarvikHexfile() : m_eType(Detect), m_nMaxAddr(0), m_nMinAddr(0) {}

CTarvikHexfile::~CTarvikHexfile()
{
    ClearMemoryBlocks();
}

void CTarvikHexfile::AddMemoryBlock(unsigned int start, const char* data, unsigned int length)
{
    try
    {
        std::unique_ptr<SMemoryBlock> block(new SMemoryBlock(start, data, length));
        m_vecBlocks.push_back(block.get());
        (void)block.release(); // the list owns it now
    }
    catch (const std::bad_alloc&)
    {
        return;
    }
    // An empty block holds no address, so it cannot raise the maximum.
    if (length == 0)
        return;
    unsigned int last = start + length - 1;
    if (last > m_nMaxAddr)
        m_nMaxAddr = last;
}

void CTarvikHexfile::AddMemoryBlock(SMemoryBlock* block)
{
    if (block == nullptr)
        return;
    try
    {
        m_vecBlocks.push_back(block);
    }
    catch (const std::bad_alloc&)
    {
        delete block;
        return;
    }
    if (block->m_nLength == 0)
        return;
    uint64_t last = block->m_nStartAddress + block->m_nLength - 1;
    if (last > m_nMaxAddr)
        m_nMaxAddr = last;
}

void CTarvikHexfile::ClearMemoryBlocks()
{
    for (SMemoryBlock* block : m_vecBlocks)
        delete block;
    m_vecBlocks.clear();
}

void CTarvikHexfile::RecalcMinMax()
{
    m_nMaxAddr = 0;
    for (size_t i = 0; i < m_vecBlocks.size(); ++i)
    {
        const SMemoryBlock* block = m_vecBlocks[i];
        if (block->m_nStartAddress + block->m_nLength > m_nMaxAddr)
            m_nMaxAddr = block->m_nStartAddress + block->m_nLength - 1;
        if (i == 0 || block->m_nStartAddress < m_nMinAddr)
            m_nMinAddr = block->m_nStartAddress;
    }
}

char CTarvikHexfile::GetDataByte(uint64_t address) const
{
    if (address > m_nMaxAddr)
        return 0;
    for (const SMemoryBlock* block : m_vecBlocks)
    {
        if (address >= block->m_nStartAddress && address - block->m_nStartAddress < block->m_nLength)
            return block->m_pData[address - block->m_nStartAddress];
    }
    return 0;
}

void CTarvikHexfile::SetDataByte(uint64_t address, char value)
{
    for (SMemoryBlock* block : m_vecBlocks)
    {
        if (address >= block->m_nStartAddress && address - block->m_nStartAddress < block->m_nLength)
        {
            block->m_pData[address - block->m_nStartAddress] = value;
            return;
        }
    }
    // A new byte stays a block of its own, even right beside another block.
    try
    {
        std::unique_ptr<SMemoryBlock> block(new SMemoryBlock(address, &value, 1));
        m_vecBlocks.push_back(block.get());
        (void)block.release(); // the list owns it now
    }
    catch (const std::bad_alloc&)
    {
        return;
    }
    RecalcMinMax();
}

uint64_t CTarvikHexfile::GetTotalBytes() const
{
    uint64_t total = 0;
    for (const SMemoryBlock* block : m_vecBlocks)
        total += block->m_nLength;
    return total;
}
