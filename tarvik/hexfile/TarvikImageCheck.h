// Strict reading of a memory-image file: the image is read as CTarvikHexfile::LoadFile reads it,
// but every problem of the file is collected with its line and kind instead of the last one
// only, and nothing is printed. LoadFile itself stays as lenient as it always was.
//
// Problems found: lines that are no record, characters that are not hex digits, record byte
// counts that disagree with the line, Intel and S-record checksums, record types that carry no
// meaning, data beyond 4 GiB, a missing end record (Intel 01; S7, S8 or S9), records behind the
// end record, S5/S6 counts that disagree with the data records before them, and bytes that two
// records both give. Blank lines, comment lines (';' or '#') and a UTF-8 byte-order mark before
// the first line are no problem.
//
// The image that results is what the file says where it is sound; records with a wrong
// checksum still give their bytes (a non-hex digit counts as 0) and records that are too short
// for their count give none, so a caller that accepts the problems gets the image LoadFile
// would have built. One object is used by one thread at a time. Nothing is thrown.
#ifndef TARVIK_HEXFILE_TARVIKIMAGECHECK_H
#define TARVIK_HEXFILE_TARVIKIMAGECHECK_H

#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/runtime/TarvikExport.h"

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

class TARVIK_API CTarvikImageCheck
{
public:
    enum EKind
    {
        KindOpen = 0,    // the file cannot be read
        KindEmpty,       // the file holds nothing
        KindFormat,      // a line that is no record of the file's format
        KindNonHex,      // a character that is not a hex digit where one must stand
        KindByteCount,   // the record's byte count disagrees with the line or its type
        KindChecksum,    // the record's checksum disagrees with its bytes
        KindRecordType,  // a record type that carries no meaning (S4, Intel 06 and above)
        KindAddress,     // data beyond 4 GiB
        KindMissingEnd,  // no end record: the file may be cut short
        KindAfterEnd,    // a record behind the end record
        KindRecordCount, // an S5/S6 count that disagrees with the data records before it
        KindOverlap      // bytes that an earlier record gives already
    };

    struct TARVIK_API SProblem
    {
        std::string m_sFile; // the name the caller gave for the file
        uint64_t m_nLine;    // 1 for the first line; 0 for the file as a whole
        EKind m_eKind;
        std::string m_sText; // what is wrong, without file and line

        // "file:line: text" (no line for the file as a whole).
        std::string Describe() const;
    };

    // At most this many problems are kept; GetProblemCount() counts them all.
    static const size_t m_nMaxKeptProblems = 1000;

    CTarvikImageCheck();

    // Replaces the blocks of image by the contents of the file name, read as type (Detect: the
    // first record decides, ':' Intel HEX, 'S' S-records, raw bytes when no record comes first).
    // Problems name the file as display (name when empty). True when there was none.
    bool LoadFile(CTarvikHexfile& image, const char* name, CTarvikHexfile::EType type = CTarvikHexfile::Detect,
                  const std::string& display = std::string());
    // The same from a stream that is read to its end.
    bool Load(CTarvikHexfile& image, std::istream& stream, CTarvikHexfile::EType type, const std::string& display);

    // The problems of the last load in the order of their lines.
    const std::vector<SProblem>& GetProblems() const { return m_vecProblems; }
    uint64_t GetProblemCount() const { return m_nProblemCount; }
    // The format the last load took the file as (Intel, Motorola or Binary).
    CTarvikHexfile::EType GetType() const { return m_eType; }

    // A short name of the kind: "checksum", "byte count", ...
    static const char* KindName(EKind kind);

private:
    bool LoadText(CTarvikHexfile& image, const std::string& text, CTarvikHexfile::EType type);
    void Report(uint64_t line, EKind kind, const std::string& text);

    std::string m_sDisplay;
    CTarvikHexfile::EType m_eType;
    std::vector<SProblem> m_vecProblems;
    uint64_t m_nProblemCount;
};

#endif
