// The Renesas programming gateway (device type 9) with a target microcontroller whose
// flash it programs.
//
// Commands, besides the common ones of every device:
//   0x20 Init         none -> nothing; starts a programming sequence, ID not yet checked
//   0x21 CheckID      7 ID bytes -> nothing; unlocks the flash when they match
//   0x22 SetBaudrate  u8 rate code -> nothing; remembered as given
//   0x23 ReadPage     u16 page -> 256 bytes
//   0x24 EraseAll     none -> nothing; every byte 0xFF
//   0x25 WritePage    u16 page, 256 bytes -> nothing
//   0x26 GetVersion   none -> the version text
//   0x27 Complete     none -> nothing; ends the sequence, the flash is locked again
//   0x28 VerifyCheck  u16 first page, u16 last page -> u16 sum of their bytes
//   0x29 BlockErase   u16 block -> nothing; its 16 pages 0xFF
// Flash: 256 pages of 256 bytes in 16 blocks of 16 pages, erased (0xFF) at start and
// kept over a Restart. Programming only clears bits, as real flash does: a page whose
// bytes would need a 0 turned into a 1 fails and stays as it was.
// Result bytes: 0x20 ("Renesas timeout") for any command but Init outside a sequence
// (the target is not listening); 0x21 ("Renesas invalid ID") for a wrong ID and for
// flash commands before the ID was checked; 0x22 for a block out of range; 0x23 for a
// page that cannot be programmed or is out of range; 0xFF for data of the wrong length,
// a read of a page out of range and a checksum over a bad range.
#ifndef TARVIK_SIM_TARVIKSIMDEVICERENESAS_H
#define TARVIK_SIM_TARVIKSIMDEVICERENESAS_H

#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolRenesas.h"

#include <string>

class CTarvikSimDeviceRenesas : public CTarvikSimDevice
{
public:
    enum ERenesasResult
    {
        eResultTimeout = 0x20,
        eResultInvalidID = 0x21,
        eResultEraseFailed = 0x22,
        eResultProgramFailed = 0x23,
    };

    static constexpr size_t kPageSize = tarvik_protocol::renesas::kPageSize;
    static constexpr size_t kPageCount = 256;
    static constexpr size_t kPagesPerBlock = 16;
    static constexpr size_t kIDSize = tarvik_protocol::renesas::kIDSize;
    // The target's ID at start: "RENESAS".
    static const char* const kDefaultID;
    static const char* const kVersion;

    explicit CTarvikSimDeviceRenesas(unsigned int index = 0);
    ~CTarvikSimDeviceRenesas() override;

    // For tests; thread-safe.
    void SetTargetID(const std::string& id);
    std::string PeekPage(size_t page) const;
    bool IsInSequence() const;
    unsigned char GetBaudrate() const;

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    std::string Init(const std::string& data);
    std::string CheckID(const std::string& data);
    std::string SetBaudrate(const std::string& data);
    std::string ReadPage(const std::string& data) const;
    std::string EraseAll(const std::string& data);
    std::string WritePage(const std::string& data);
    std::string VerifyCheck(const std::string& data) const;
    std::string BlockErase(const std::string& data);
    std::string Complete(const std::string& data);
    // Why a flash command cannot run now (0: it can).
    unsigned char Locked() const;

    std::string m_sID;
    std::string m_sFlash;
    bool m_bInSequence;
    bool m_bIDChecked;
    unsigned char m_nBaudrate;
};

#endif
