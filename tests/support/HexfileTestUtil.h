// Helpers shared by the memory-image tests: images as comparable values, sample files and a
// per-test temporary directory (so that ctest may run the tests in parallel).
#ifndef TARVIK_TESTS_HEXFILETESTUTIL_H
#define TARVIK_TESTS_HEXFILETESTUTIL_H

#include "tarvik/hexfile/TarvikHexfile.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace hexfile_test
{
// Blocks as (start address, bytes), comparable with EXPECT_EQ.
using Blocks = std::vector<std::pair<uint64_t, std::string>>;

inline Blocks ToBlocks(const std::vector<CTarvikHexfile::SMemoryBlock*>& blocks)
{
    Blocks result;
    for (const auto* block : blocks)
        result.emplace_back(block->m_nStartAddress, std::string(block->m_pData, block->m_nLength));
    return result;
}

inline Blocks ImageBlocks(const CTarvikHexfile& image)
{
    return ToBlocks(image.GetMemoryBlocks());
}

// Bytes that vary (a seeded pseudo-random sequence), so that a piece sent twice or out of
// order shows.
inline std::string Pattern(size_t size, unsigned int seed)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes)
    {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 16);
    }
    return bytes;
}

inline std::string DataPath(const char* name)
{
    return std::string(TARVIK_TEST_DATA_DIR) + "/" + name;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

class CTempDir
{
public:
    CTempDir()
    {
        char path[] = "/tmp/tarvik_hexfileXXXXXX";
        m_sPath = mkdtemp(path) != nullptr ? path : "/tmp";
    }
    ~CTempDir()
    {
        if (m_sPath != "/tmp")
            (void)std::system(("rm -rf '" + m_sPath + "'").c_str());
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    std::string Path(const std::string& name) const { return m_sPath + "/" + name; }
    // A new Intel HEX file in the directory holding the blocks (address, bytes).
    std::string Image(const std::vector<std::pair<unsigned int, std::string>>& blocks)
    {
        CTarvikHexfile hex;
        for (const auto& block : blocks)
            hex.AddMemoryBlock(block.first, block.second.data(), static_cast<unsigned int>(block.second.size()));
        std::string path = Path("image" + std::to_string(++m_nImages) + ".hex");
        return hex.SaveFile(path.c_str(), CTarvikHexfile::Intel) == 0 ? path : std::string();
    }

private:
    std::string m_sPath;
    int m_nImages = 0;
};
} // namespace hexfile_test

#endif
