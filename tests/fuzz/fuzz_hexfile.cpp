// Memory-image reader under libFuzzer. The first input byte picks the format mode (its low two
// bits: Detect, Intel, Motorola, Binary) and the dump width; the rest is the file. Whatever was
// read, with whatever result, must then
// - dump around its first block into an output of exactly the documented size, filling it;
// - survive being written as Intel HEX and as S-records and read back: the same blocks at the
//   same addresses. Both writers cut blocks into records that the reader takes back whole, and
//   a loaded image has sorted blocks below 4 GiB that never touch, so the blocks come back as
//   they were;
// - be written as binary exactly when it is one block and its minimum is 0, as that block's
//   bytes (a binary file drops the start address, so it is not read back).
// The strict check reads the same file: it keeps no more problems than it says, names no line
// the file does not have, and a file that it finds sound gives the blocks the lenient loader
// gives (where both take it the same way: a record first, no line the loader cuts off).
// A failed check aborts, so libFuzzer keeps the input.
#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/hexfile/TarvikImageCheck.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{
using TBlocks = std::vector<std::pair<uint64_t, std::string>>;

TBlocks Blocks(const CTarvikHexfile& image)
{
    TBlocks blocks;
    for (const CTarvikHexfile::SMemoryBlock* block : image.GetMemoryBlocks())
        blocks.emplace_back(block->m_nStartAddress, std::string(block->m_pData, block->m_nLength));
    return blocks;
}

void Fail(const char* what)
{
    std::fprintf(stderr, "fuzz_hexfile: %s\n", what);
    std::abort();
}

void RemoveScratch();

// LoadFile takes a name: one scratch file per process, in $TMPDIR (run_fuzz.sh points it to a
// directory of its own), else in memory (/dev/shm) where there is one.
const std::string& ScratchPath()
{
    static const std::string path = [] {
        const char* dir = std::getenv("TMPDIR");
        if (dir == nullptr || *dir == '\0')
            dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::atexit(RemoveScratch);
        return std::string(dir) + "/tarvik_fuzz_hexfile." + std::to_string(getpid());
    }();
    return path;
}

void RemoveScratch()
{
    std::remove(ScratchPath().c_str());
}

void WriteScratch(const uint8_t* data, size_t size)
{
    std::FILE* file = std::fopen(ScratchPath().c_str(), "wb");
    if (file == nullptr)
        Fail("cannot write the scratch file");
    if (size > 0 && std::fwrite(data, 1, size, file) != size)
        Fail("cannot write the scratch file");
    std::fclose(file);
}

void CheckDump(const CTarvikHexfile& image, unsigned int bytesPerLine)
{
    if (image.GetMemoryBlocks().empty())
        return;
    const uint64_t start = image.GetMemoryBlocks().front()->m_nStartAddress;
    const uint64_t from = start >= 3 ? start - 3 : 0;
    const uint64_t to = from + 200;
    const uint64_t low = std::min(image.m_nMaxAddr, from);
    const uint64_t high = std::min(image.m_nMaxAddr, to);
    const uint64_t lines = (high - low) / bytesPerLine + 1;
    const uint64_t need = lines * image.GetNumberOfBytesNeedForLine(bytesPerLine) + 1;
    // Exactly the documented size, so that the sanitizer sees a single character too many.
    std::unique_ptr<char[]> out(new char[need]());
    image.GetPrintDump(out.get(), bytesPerLine, from, to);
    if (std::strlen(out.get()) != need - 1)
        Fail("the dump does not fill its documented size");
}

void CheckRoundTrip(CTarvikHexfile& image, CTarvikHexfile::EType type)
{
    std::stringstream text;
    const bool saved = type == CTarvikHexfile::Intel ? image.SaveAsFileIntel(text) : image.SaveAsFileMotorola(text);
    if (!saved)
        Fail("a text writer failed");
    CTarvikHexfile reread;
    const uint32_t result = reread.AnalizeFile(text, CTarvikHexfile::Detect);
    // An empty image is one end record in Intel HEX, but an empty S-record file.
    const bool emptySrec = type == CTarvikHexfile::Motorola && image.GetMemoryBlocks().empty();
    if (result != (emptySrec ? CTarvikHexfile::ResultEmptyOrAddress : CTarvikHexfile::ResultOk))
        Fail(type == CTarvikHexfile::Intel ? "Intel HEX written is not read back without error"
                                           : "S-records written are not read back without error");
    if (!emptySrec && reread.m_eType != type)
        Fail("a written file is detected as another format");
    if (Blocks(reread) != Blocks(image))
        Fail(type == CTarvikHexfile::Intel ? "Intel HEX does not give back the blocks written"
                                           : "S-records do not give back the blocks written");
}
void CheckBinary(CTarvikHexfile& image)
{
    std::ostringstream out;
    const uint32_t result = image.SaveAsFileBinary(out);
    const auto& blocks = image.GetMemoryBlocks();
    if (blocks.size() == 1 && image.m_nMinAddr == 0)
    {
        if (result != CTarvikHexfile::ResultOk || out.str() != std::string(blocks[0]->m_pData, blocks[0]->m_nLength))
            Fail("one block with minimum 0 is not written as its bytes");
    }
    else if (result != (blocks.empty() ? CTarvikHexfile::ResultOk : CTarvikHexfile::ResultBinaryRefused) ||
             !out.str().empty())
        Fail("a binary save writes what it must refuse");
}
void CheckStrict(const std::string& text, CTarvikHexfile::EType type, const CTarvikHexfile& lenient)
{
    CTarvikHexfile image;
    CTarvikImageCheck check;
    const bool sound = check.LoadFile(image, ScratchPath().c_str(), type, "fuzz");
    const auto& problems = check.GetProblems();
    if (sound != (check.GetProblemCount() == 0) || problems.size() > CTarvikImageCheck::m_nMaxKeptProblems ||
        problems.size() > check.GetProblemCount())
        Fail("the check miscounts its problems");
    const uint64_t lines = static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const CTarvikImageCheck::SProblem& problem : problems)
        if (problem.m_nLine > lines)
            Fail("the check names a line the file does not have");
    if (!sound || text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        return;
    if (type == CTarvikHexfile::Detect && text[0] != ':' && text[0] != 'S')
        return;
    size_t longest = 0;
    for (size_t pos = 0; pos <= text.size();)
    {
        size_t end = text.find('\n', pos);
        end = end == std::string::npos ? text.size() : end;
        longest = std::max(longest, end - pos);
        pos = end + 1;
    }
    if (longest < 1000 && Blocks(image) != Blocks(lenient))
        Fail("a file the check finds sound loads differently");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    static const CTarvikHexfile::EType kTypes[] = {CTarvikHexfile::Detect, CTarvikHexfile::Intel,
                                                   CTarvikHexfile::Motorola, CTarvikHexfile::Binary};
    const CTarvikHexfile::EType type = kTypes[data[0] & 3];
    const unsigned int bytesPerLine = 1 + (data[0] >> 2) % 32;
    WriteScratch(data + 1, size - 1);

    CTarvikHexfile image;
    image.LoadFile(ScratchPath().c_str(), type);
    CheckDump(image, bytesPerLine);
    CheckStrict(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), type, image);
    CheckRoundTrip(image, CTarvikHexfile::Intel);
    CheckRoundTrip(image, CTarvikHexfile::Motorola);
    CheckBinary(image);
    return 0;
}
