// CTarvikClientTestSystemCOM: the communication unit of a test system (device type 13).
// A test system runs one named configuration at a time. Configurations are files that
// this client uploads with their CRC-32, installs (activates) by name, selects when the
// unit already holds them, and asks about.
//
// Threads: the application's thread; one request at a time, so at most one chunk of a
// file is in flight.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMCOM_H
#define TARVIK_CLIENTS_TARVIKCLIENTTESTSYSTEMCOM_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/protocol/TarvikProtocolTestSystemCOM.h"

#include <cstddef>
#include <fstream>
#include <string>

class TARVIK_API CTarvikClientTestSystemCOM : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_TESTSYSTEM_COM_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    // Result codes of the unit (device byte | 13 << 8).
    enum EResult
    {
        eResultFileOpen = 0x000D20,           // "File could not be opened"
        eResultTransferIncomplete = 0x000D21, // "File transfer did not complete successfully"
        eResultCRCMismatch = 0x000D22,        // "File CRC mismatch"
        eResultAlreadyActive = 0x000D23,      // "Requested configuration is already active"
        eResultStopFailed = 0x000D24,         // "Could not stop configuration"
        eResultStartFailed = 0x000D25,        // "Could not start configuration"
    };

    // Device byte with which the unit asks for the next chunk of a file.
    static constexpr unsigned char kMoreData = tarvik_protocol::testsystem_com::kMoreData;
    // A file travels in chunks of this size, one request each.
    static constexpr size_t kChunkSize = tarvik_protocol::testsystem_com::kChunkSize;
    // The CRC is computed reading the file in pieces of this size.
    static constexpr size_t kCRCBlockSize = tarvik_protocol::testsystem_com::kCRCBlockSize;

    explicit CTarvikClientTestSystemCOM(int timeoutMs);
    // Stops the connection first (see CTarvikClient::StopConnection).
    ~CTarvikClientTestSystemCOM() override;

    // Names travel as a length byte and the characters: keep them below 256 characters.
    // Every operation returns 0 or a result code.

    // Starts the named configuration; 0x0D23, 0x0D24, 0x0D25 from the unit.
    int SetConfig(const std::string& sName);
    // The active configuration's name; sName is set only on success.
    int GetConfig(std::string& sName);
    // Whether the unit holds the configuration; on success bAvailable is set when the
    // answer carries it, nCRC when the configuration is there and the answer carries it.
    int IsConfigAvailable(const std::string& sName, bool& bAvailable, unsigned int& nCRC);
    // Uploads a file in chunks; nCRC 0: computed here. 0x0D20 when the file cannot be
    // opened, 0x0D21 when the file ran out while the unit wanted more, 0x0D22 when the
    // unit's check failed. The file is never held in memory as a whole.
    int SendFile(const std::string& sPath, unsigned int nCRC);
    // Uploads the file unless the unit already holds the configuration with the same
    // CRC, then installs and activates it under sName. The first failure ends it.
    int InstallConfig(const std::string& sName, const std::string& sPath);

    // The part after the last '/' or '\\'; the whole path without either.
    static std::string GetFileName(const std::string& sPath);
    // CRC-32 of the whole file (0 when it is not open); leaves the stream at its end
    // with its error state cleared.
    static unsigned int GetCRC32(std::ifstream& file);
};

#endif
