// The communication unit of a test system (device type 13): it stores uploaded files
// under their names with their CRC-32, and installs, activates and reports
// configurations by name.
//
// Commands, besides the common ones of every device (names: a length byte and the
// characters; u32 little-endian):
//   0x05 SetConfig         name -> nothing; 0x23 already active, 0x25 not installed
//   0x06 GetConfig         -> the active configuration's name (empty: none)
//   0xD2 IsConfigAvailable name -> u8 available, u32 CRC of its file (0 when not there)
//   0xD3 file start        u32 CRC, u32 size, file name, first bytes -> 0x21 while more
//                          is expected; at the end 0 (stored) or 0x22 (CRC mismatch)
//   0xD4 file data         next bytes -> as 0xD3
//   0xD5 InstallConfig     u32 CRC, name, file name -> nothing; the configuration is
//                          installed and becomes the active one; 0x20 when no file of
//                          that name was stored, 0x22 when its CRC differs
// A transfer that receives more bytes than it announced ends with 0x22; 0xD4 without a
// transfer under way and malformed data answer 0xFF. The file contents are checked on
// the fly, not kept: a unit here only has to know what it holds. Files, configurations
// and the active one survive a Restart; a transfer under way does not.
#ifndef TARVIK_SIM_TARVIKSIMDEVICETESTSYSTEMCOM_H
#define TARVIK_SIM_TARVIKSIMDEVICETESTSYSTEMCOM_H

#include "sim/TarvikSimDevice.h"
#include "tarvik/protocol/TarvikProtocolTestSystemCOM.h"

#include <boost/crc.hpp>

#include <map>
#include <string>

class CTarvikSimDeviceTestSystemCOM : public CTarvikSimDevice
{
public:
    enum EComResult
    {
        eResultFileOpen = 0x20,
        eResultMoreData = 0x21,
        eResultCRCMismatch = 0x22,
        eResultAlreadyActive = 0x23,
        eResultStartFailed = 0x25,
    };

    explicit CTarvikSimDeviceTestSystemCOM(unsigned int index = 0);
    ~CTarvikSimDeviceTestSystemCOM() override;

    // "Tarvik Test System COM" (the library's device names stop at type 9).
    std::string GetName() const override { return "Tarvik Test System COM"; }

    // State, for tests; thread-safe.
    // Size and CRC of a stored file; false when there is none of that name.
    bool GetFile(const std::string& name, unsigned int& size, unsigned int& crc) const;
    // File name of an installed configuration, empty when there is none.
    std::string GetConfigFile(const std::string& config) const;
    std::string GetActiveConfig() const;
    // Transfers begun so far (each 0xD3).
    unsigned long GetTransferCount() const;
    // Installs a configuration directly, as if its file had been uploaded.
    void PresetConfig(const std::string& config, const std::string& file, unsigned int size, unsigned int crc);

protected:
    bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer) override;
    void OnRestart() override;

private:
    struct SFile
    {
        unsigned int m_nSize;
        unsigned int m_nCRC;
    };
    // The upload under way.
    struct STransfer
    {
        bool m_bActive = false;
        std::string m_sName;
        unsigned int m_nSize = 0;
        unsigned int m_nCRC = 0;
        unsigned long long m_nReceived = 0;
        boost::crc_32_type m_oCRC;
    };

    std::string SetConfig(const std::string& data);
    std::string IsConfigAvailable(const std::string& data) const;
    std::string FileStart(const std::string& data);
    std::string FileData(const std::string& data);
    std::string Accept(const char* bytes, size_t len);
    std::string InstallConfig(const std::string& data);

    std::map<std::string, SFile> m_aoFiles;
    // Configuration name -> file name.
    std::map<std::string, std::string> m_asConfigs;
    std::string m_sActive;
    STransfer m_oTransfer;
    unsigned long m_nTransfers;
};

#endif
