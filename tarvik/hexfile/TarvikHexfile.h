// Memory image of a target: contiguous blocks of bytes at 32-bit addresses, read from and
// written to Intel HEX, Motorola S-record and raw binary files, and printed as hex dumps.
//
// One object is used by one thread at a time. The first-extended-address flag s_bFirstTime
// and the temporary-name counter nTempFilenameLfdNr are shared by all objects and are not
// locked. No method throws; failures are result codes with a text in GetErrorMessage().
#ifndef TARVIK_HEXFILE_TARVIKHEXFILE_H
#define TARVIK_HEXFILE_TARVIKHEXFILE_H

#include "tarvik/runtime/TarvikExport.h"

#include <cstdint>
#include <istream>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

class TARVIK_API CTarvikHexfile
{
public:
    // Result codes of this class (not device result codes).
    enum EResult : uint32_t
    {
        ResultOk = 0,
        ResultOpenFailed = 128, // file could not be opened (load or save)
        ResultSaveFailed = 129, // file could not be saved
        ResultInvalidRecordType = 144,
        ResultInvalidFormat = 145,
        ResultChecksumOrAddress = 146, // Intel checksum; S-record address above 4 GiB
        ResultEmptyOrAddress = 147,    // empty file; Intel address above 4 GiB
        ResultBinaryRefused = 148      // binary save of an image not at 0 or in several blocks
    };

    enum EType
    {
        Detect = 0, // loader decides from the first character of the file
        Intel = 1,
        Motorola = 2,
        Binary = 3
    };

    // One contiguous run of bytes. The block owns its data.
    struct TARVIK_API SMemoryBlock
    {
        uint64_t m_nStartAddress;
        uint64_t m_nLength;
        char* m_pData;

        SMemoryBlock();
        // Copies length bytes from data, or zero-fills them when data is null.
        SMemoryBlock(uint64_t start, const char* data, uint64_t length);
        ~SMemoryBlock();
        SMemoryBlock(const SMemoryBlock&) = delete;
        SMemoryBlock& operator=(const SMemoryBlock&) = delete;

        // Compares length and contents only: equal bytes at different addresses are equal.
        bool operator==(const SMemoryBlock& other) const;
    };

    // Collects the bytes of a text file in 4096-byte pages, so that records may come in any
    // order and overlap; the blocks are built in one ordered pass at the end. A page keeps only
    // the 64-byte slices that bytes were written to, so it costs about what it holds: a file that
    // puts one byte on each of many pages does not pay 4096 entries for each of them.
    class TARVIK_API CByteMap
    {
    public:
        // Bytes 64 k to 64 k + 63 of a page; bit i of m_nPresent is set once byte i was written.
        struct SSlice
        {
            uint64_t m_nPresent;
            char m_acData[64];
        };
        // The slices of a page in address order. Bit k of m_nSlices is set when slice k of the
        // page is there; its place in m_vecSlices is the number of lower bits set.
        struct SPage
        {
            uint64_t m_nSlices = 0;
            std::vector<SSlice> m_vecSlices;
        };

        CByteMap();
        // Inline: a multi-megabyte image takes one call per byte.
        void SetByte(unsigned int address, char value)
        {
            const unsigned int base = address & ~0x3Fu;
            if (m_pLastSlice == nullptr || base != m_nLastSliceBase)
                SelectSlice(base);
            const unsigned int index = address & 0x3Fu;
            m_pLastSlice->m_acData[index] = value;
            m_pLastSlice->m_nPresent |= uint64_t(1) << index;
        }
        // SetByte for count bytes at address, address + 1, ... (wrapping past 0xFFFFFFFF),
        // a slice at a time, and highest raised to every address written. On bad_alloc the
        // slices before the one that failed are written and counted in highest.
        void SetBytes(unsigned int address, const char* data, unsigned int count, uint64_t& highest);
        // Replaces the contents of blocks (releasing what it held) by the collected runs.
        void ToMemoryBlocks(std::vector<SMemoryBlock*>& blocks);
        void Clear();

    private:
        // Makes the slice at base (created with its page when missing) the current one.
        void SelectSlice(unsigned int base);
        // fn(address, data, length) for every span of written bytes, in address order.
        template <typename F> void ForEachSpan(F fn) const;

        std::map<unsigned int, SPage> m_mapPages;
        // Records arrive mostly in address order: the page and the slice of the last write are
        // kept at hand. Creating a slice moves the others of its page, so only the slice just
        // selected is ever remembered.
        unsigned int m_nLastPageBase;
        SPage* m_pLastPage;
        unsigned int m_nLastSliceBase;
        SSlice* m_pLastSlice;
    };

    static const uint64_t m_nMaxAddressSupported = 0xFFFFFFFFull;

    CTarvikHexfile();
    virtual ~CTarvikHexfile();
    CTarvikHexfile(const CTarvikHexfile&) = delete;
    CTarvikHexfile& operator=(const CTarvikHexfile&) = delete;

    // Reading. Codes: 0, 128, 144, 145, 146, 147.
    uint32_t LoadFile(const char* name, EType type = Detect);
    uint32_t AnalizeFile(std::istream& stream, EType type);
    uint32_t AnalizeLineIntel(const std::string& line, CByteMap& map, unsigned int& extendedAddress);
    uint32_t AnalizeLineMotorola(const std::string& line, CByteMap& map);
    uint32_t LoadFileBinary(const char* name);

    // The image.
    void AddMemoryBlock(unsigned int start, const char* data, unsigned int length);
    void AddMemoryBlock(SMemoryBlock* block); // takes ownership
    void ClearMemoryBlocks();
    void RecalcMinMax();
    char GetDataByte(uint64_t address) const;
    void SetDataByte(uint64_t address, char value);
    uint64_t GetTotalBytes() const;
    const std::vector<SMemoryBlock*>& GetMemoryBlocks() const { return m_vecBlocks; }
    const std::string& GetErrorMessage() const { return m_sErrorMessage; }
    const std::string& GetFilename() const { return m_sFilename; }

    // Writing. SaveFile codes: 0, 128, 129 (with 148's text for a refused binary save).
    uint32_t SaveFile(const char* name, EType type);
    bool SaveAsFileIntel(std::ostream& stream);
    bool SaveAsFileMotorola(std::ostream& stream);
    uint32_t SaveAsFileBinary(std::ostream& stream);
    void SetFilename(const char* name);
    std::string GetSizeString(int bytes) const;

    // Dumps. The caller provides a zero-filled output of
    // ceil(size / N) * GetNumberOfBytesNeedForLine(N) + 1 characters: every line, the last one
    // too, ends in a newline, and a NUL follows the last. Lines have no address column.
    void MemDumpLine(const char* data, const bool* present, uint64_t size, uint64_t offset, char* out,
                     unsigned long* written, uint64_t bytesPerLine, uint64_t address) const;
    void MemDump(const char* data, const bool* present, uint64_t size, char* out, uint64_t bytesPerLine,
                 uint64_t address) const;
    void GetPrintDump(char* out, uint64_t bytesPerLine, uint64_t from, uint64_t to) const;
    void GetPrintDump(char* out, uint64_t bytesPerLine) const;
    uint64_t GetNumberOfBytesNeedForLine(unsigned int bytesPerLine) const;

    EType m_eType;
    uint64_t m_nMaxAddr;
    uint64_t m_nMinAddr;
    std::vector<SMemoryBlock*> m_vecBlocks;
    std::string m_sFilename;
    std::string m_sErrorMessage;

    // Only the first extended-address record the process ever parses may raise m_nMinAddr
    // from 0; later ones can only lower it.
    static bool s_bFirstTime;
    // Counter behind the temporary names tmp1, tmp2, ... of SetFilename(nullptr).
    static unsigned int nTempFilenameLfdNr;
};

#endif
