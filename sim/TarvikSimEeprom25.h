// A 25xx-style serial EEPROM on the simulated SPI bus (25LC256-like by default:
// 32 KiB, 64-byte pages, two address bytes, most significant first).
//
// Instructions understood (first byte after chip select falls):
//   0x06 WREN   set the write-enable latch (WEL)
//   0x04 WRDI   clear the write-enable latch
//   0x05 RDSR   read the status register, repeated for as long as chip select stays low
//   0x01 WRSR   write the status register (needs WEL): BP0/BP1 (bits 2, 3) and WPEN (bit 7)
//   0x03 READ   2 address bytes, then sequential data; the address wraps at the end of memory
//   0x02 WRITE  2 address bytes, then data (needs WEL); the data wraps within its page and
//               is stored when chip select rises; WEL is cleared afterwards
// Status register: bit 0 WIP (write in progress), bit 1 WEL, bits 2-3 BP0/BP1 block
// protection (01 upper quarter, 10 upper half, 11 all), bit 7 WPEN (kept, no WP pin).
// Any other instruction is ignored until chip select rises. MISO reads 0xFF while the
// chip does not drive it (instruction and address bytes, ignored instructions).
//
// Memory and the BP/WPEN bits are non-volatile: Reset() keeps them and clears WEL.
// A write cycle takes no time unless SetWriteCycleMs() sets one; during a cycle only
// RDSR is answered (WIP = 1), as on the real part.
#ifndef TARVIK_SIM_TARVIKSIMEEPROM25_H
#define TARVIK_SIM_TARVIKSIMEEPROM25_H

#include "sim/TarvikSimSpiSlave.h"

#include <chrono>
#include <string>
#include <vector>

class CTarvikSimEeprom25 : public CTarvikSimSpiSlave
{
public:
    enum EInstruction
    {
        eInstrWRSR = 0x01,
        eInstrWRITE = 0x02,
        eInstrREAD = 0x03,
        eInstrWRDI = 0x04,
        eInstrRDSR = 0x05,
        eInstrWREN = 0x06,
    };

    enum EStatusBit
    {
        eStatusWIP = 0x01,
        eStatusWEL = 0x02,
        eStatusBP0 = 0x04,
        eStatusBP1 = 0x08,
        eStatusWPEN = 0x80,
    };

    static constexpr size_t kDefaultSize = 32768;
    static constexpr size_t kDefaultPageSize = 64;
    // Content of an erased cell.
    static constexpr unsigned char kErased = 0xFF;

    // size and pageSize are powers of two; size at most 64 KiB (two address bytes).
    explicit CTarvikSimEeprom25(size_t size = kDefaultSize, size_t pageSize = kDefaultPageSize);

    void Select() override;
    void Deselect() override;
    unsigned char Transfer(unsigned char mosi) override;
    void Reset() override;

    // Direct access to the memory array for tests; addresses wrap at the end of memory.
    std::string Peek(size_t address, size_t len) const;
    void Poke(size_t address, const std::string& data);
    void Erase();
    unsigned char GetStatus() const;
    void SetWriteCycleMs(unsigned int ms);
    size_t GetSize() const { return m_aMemory.size(); }
    size_t GetPageSize() const { return m_nPageSize; }

private:
    enum EState
    {
        eStateInstruction,
        eStateAddressHigh,
        eStateAddressLow,
        eStateRead,
        eStateWrite,
        eStateReadStatus,
        eStateWriteStatus,
        eStateIgnore,
    };

    bool IsBusy() const;
    void StartInstruction(unsigned char instruction);
    bool IsProtected(size_t address) const;
    void CommitPage();
    void StartWriteCycle();

    std::vector<unsigned char> m_aMemory;
    size_t m_nPageSize;
    unsigned char m_nStatus; // non-volatile bits and WEL; WIP comes from the clock
    bool m_bSelected;
    EState m_eState;
    unsigned char m_nInstruction;
    size_t m_nAddress;
    // Page buffer of a WRITE: which bytes of the page were clocked in, and their values.
    std::vector<unsigned char> m_aPageData;
    std::vector<bool> m_abPageTouched;
    bool m_bPageDirty;
    unsigned char m_nNewStatus;
    bool m_bStatusPending;
    unsigned int m_nWriteCycleMs;
    std::chrono::steady_clock::time_point m_oBusyUntil;
};

#endif
