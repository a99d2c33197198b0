// A 24Cxx-style serial EEPROM on the simulated I2C bus.
//
// The chip answers the slave addresses 1010 xxx r/w whose bits match its chip-select
// pins; the bits it uses as high memory-address bits ("block" bits, from bit 1 up or
// from a given bit) may have any value. After the address in write form come the
// memory-address bytes (one or two, most significant first), then data: the data
// wraps within its page (a 24Cxx page write) and is stored at the stop condition,
// which starts the write cycle. A read continues from the current address and wraps
// at the end of memory. During the write cycle the chip acknowledges nothing, so a
// master polls it with its address until it answers (acknowledge polling).
//
// A write cycle takes no time unless SetWriteCycleMs() sets one. Memory keeps its
// content over Reset(); an erased cell reads 0xFF.
#ifndef TARVIK_SIM_TARVIKSIMEEPROM24_H
#define TARVIK_SIM_TARVIKSIMEEPROM24_H

#include <chrono>
#include <string>
#include <vector>

class CTarvikSimEeprom24
{
public:
    static constexpr unsigned char kErased = 0xFF;

    // size and pageSize powers of two; addressBytes 1 or 2; slaveBase the write-form
    // address with every block bit clear; blockShift the bit of the lowest block bit.
    CTarvikSimEeprom24(const char* name, size_t size, size_t pageSize, unsigned int addressBytes,
                       unsigned char slaveBase, unsigned int blockShift = 1);

    const std::string& GetName() const { return m_sName; }
    // Whether the address byte (bit 0 ignored) selects this chip.
    bool Matches(unsigned char address) const;
    // Start condition with the address byte; false: no acknowledge (busy in a write cycle).
    bool Start(unsigned char address);
    // A byte from the master; false: no acknowledge.
    bool Write(unsigned char byte);
    unsigned char Read();
    void Stop();
    void Reset();

    std::string Peek(size_t address, size_t len) const;
    void Poke(size_t address, const std::string& data);
    void SetWriteCycleMs(unsigned int ms) { m_nWriteCycleMs = ms; }
    size_t GetSize() const { return m_aMemory.size(); }
    size_t GetPageSize() const { return m_nPageSize; }

private:
    bool IsBusy() const;
    size_t BlockBits() const;
    void Commit();

    std::string m_sName;
    std::vector<unsigned char> m_aMemory;
    size_t m_nPageSize;
    unsigned int m_nAddressBytes;
    unsigned char m_nSlaveBase;
    unsigned int m_nBlockShift;
    unsigned char m_nBlockMask;
    // Transaction state: address bytes still expected, and the page buffer of a write.
    bool m_bActive;
    bool m_bReading;
    unsigned int m_nAddressLeft;
    size_t m_nAddress;
    size_t m_nWordAddress;
    std::vector<std::pair<size_t, unsigned char>> m_aPending;
    unsigned int m_nWriteCycleMs;
    std::chrono::steady_clock::time_point m_oBusyUntil;
};

#endif
