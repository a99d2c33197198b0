// The AWire programming gateway (device type 14) with a target microcontroller: a flash
// of configurable size and page size at a base address, and one user page.
//
// Commands, besides the common ones of every device:
//   0x05 SetConfig       u32 v1, u32 v2, u32 page, u32 v4, u8 n, n text bytes -> nothing;
//                        v1, v2, v4 and the text are remembered, the page size is the target's
//   0x06 GetConfig       none -> u32 v1, u32 v2, u32 page size, u32 v4, u8 n, n text bytes
//   0xE0 WriteBlock      u32 address, u16 length, length bytes -> nothing; then progress
//   0xE2 Erase           u16 value -> nothing; 0 erases the whole flash (0xFF), any other
//                        value answers 0x24 ("EraseBlock not supported")
//   0xE3 Read            u32 address, u16 length -> the bytes
//   0xE4 WriteUserPage   as WriteBlock, for the user page
//   0xE5 EraseUserPage   none -> nothing; the user page 0xFF
// Memory map: the flash at [base, base + flash size), the user page (one page) at
// base + 0x00800000. A read outside both answers 0x26 ("Failed to read data from target").
//
// A block write is confirmed at once; then the gateway programs it and reports its
// progress in indications 0x0EE1 to the connection that sent it: i16 handle (the
// request's message id), u8 state (1 in progress, 0 finished, 2 failed), u16 done. With a
// programming rate (bytes per second) the work runs on the model's own thread, with
// state-1 reports as it goes (at most one per page and one per 10 ms); at rate 0 the
// block is programmed while its request is handled and only the final report follows
// the confirmation. Programming only clears bits, as flash does: a block written over
// data that was not erased reads back as the AND of both. A block outside its region
// reports state 2 and changes nothing; an injected failure reports the state asked for.
// Everything is kept over a Restart except the blocks not yet programmed.
#ifndef TARVIK_SIM_TARVIKSIMDEVICEAWIRE_H
#define TARVIK_SIM_TARVIKSIMDEVICEAWIRE_H

#include "sim/TarvikSimDevice.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>

class CTarvikSimDeviceAWire : public CTarvikSimDevice
{
public:
    enum EAWireResult
    {
        eResultEraseBlock = 0x24,
        eResultReadFailed = 0x26,
    };
    enum EState
    {
        eStateFinished = 0,
        eStateInProgress = 1,
        eStateFailed = 2,
    };

    static constexpr size_t kDefaultFlashSize = size_t{256} * 1024;
    static constexpr size_t kDefaultPageSize = 256;
    static constexpr unsigned int kUserPageOffset = 0x00800000;

    explicit CTarvikSimDeviceAWire(unsigned int index = 0, size_t flashSize = kDefaultFlashSize,
                                   size_t pageSize = kDefaultPageSize, unsigned int base = 0);
    // Stops the programming thread before anything else goes.
    ~CTarvikSimDeviceAWire() override;
    // "Tarvik AWire": the library's table of display names has none for this type.
    std::string GetName() const override;

    // For tests and the simulator program; thread-safe.
    // Bytes per second that the target programs; 0: no delay.
    void SetRate(unsigned long bytesPerSecond);
    // The block write after `after` more that succeed reports state instead of 0 and
    // leaves the memory alone (once).
    void InjectBlockFailure(unsigned char state, unsigned int after = 0);
    // Memory as the target holds it ("" outside the map).
    std::string Peek(unsigned int address, size_t length) const;
    // A target of another size: flash and user page erased.
    void SetGeometry(size_t flashSize, size_t pageSize);
    size_t GetPageSize() const;
    unsigned int GetBase() const { return m_nBase; }
    // The most block writes that were waiting or being programmed at one time.
    size_t GetMostQueued() const;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    // One block write to be programmed.
    struct SJob
    {
        unsigned long m_nConnection;
        short m_nHandle;
        bool m_bUserPage;
        unsigned int m_nAddress;
        std::string m_sData;
    };

    std::string SetConfig(const std::string& data);
    std::string GetConfig(const std::string& data) const;
    std::string Read(const std::string& data) const;
    std::string Erase(const std::string& data);
    std::string EraseUserPage(const std::string& data);
    std::string WriteBlock(const std::string& data, bool userPage);
    // Where address..address+length lies in m_sMemory; false outside the region.
    bool Locate(unsigned int address, size_t length, bool userPage, size_t& offset) const;
    bool LocateAny(unsigned int address, size_t length, size_t& offset) const;
    // Programs a job into memory and gives its final state; m_oMutex held.
    unsigned char Program(const SJob& job);
    void Report(const SJob& job, unsigned char state, size_t done);
    void Worker();
    // Programs one job at the rate, reporting progress; without m_oMutex.
    void RunJob(const SJob& job);

    size_t m_nFlashSize;
    size_t m_nPageSize;
    const unsigned int m_nBase;
    // The flash, then the user page.
    std::string m_sMemory;
    unsigned int m_anConfig[3];
    std::string m_sConfigText;
    unsigned long m_nRate;
    int m_nFailState;
    unsigned int m_nFailAfter;
    std::deque<SJob> m_dqJobs;
    bool m_bWorking;
    size_t m_nMostQueued;
    bool m_bStop;
    std::condition_variable m_oJobsChanged;
    std::thread m_oWorker;
};

#endif
