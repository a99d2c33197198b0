// The Renesas programming client end to end against the simulated target: a whole
// program-and-check cycle, and the target refusing what it does not accept.
#include "support/SimFixture.h"

#include "sim/TarvikSimDeviceRenesas.h"
#include "sim/TarvikSimServer.h"
#include "tarvik/clients/TarvikClientRenesas.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
typedef CTarvikClientRenesas CRen;
const std::string kID = "RENESAS";

// Page contents that differ from page to page and from the erased value.
std::string Pattern(unsigned short page, size_t len = CRen::kPageSize)
{
    std::string out(len, '\0');
    for (size_t i = 0; i < len; ++i)
        out[i] = static_cast<char>((page * 31 + i * 7) & 0x7F);
    return out;
}

unsigned short Sum(const std::string& bytes)
{
    unsigned short sum = 0;
    for (char byte : bytes)
        sum = static_cast<unsigned short>(sum + static_cast<unsigned char>(byte));
    return sum;
}

class CRenesasE2E : public tarvik_test::CSimFixture<CTarvikSimDeviceRenesas, CRen, eTarvikRenesas>
{
protected:
    // Init and a matching ID: the flash is open for programming.
    void Unlock()
    {
        ASSERT_EQ(0, m_oClient.Init());
        ASSERT_EQ(0, m_oClient.CheckID(kID.data(), 7));
    }

    std::string ReadPage(unsigned short page, int expected = 0)
    {
        std::string out(CRen::kPageSize, '\0');
        unsigned short received = 0;
        EXPECT_EQ(expected, m_oClient.ReadPage(page, &out[0], static_cast<unsigned short>(out.size()), received));
        out.resize(received);
        return out;
    }
};
} // namespace

TEST_F(CRenesasE2E, ProgramReadBackAndCheckACycle)
{
    Unlock();
    EXPECT_EQ(0, m_oClient.SetBaudrate(3));
    EXPECT_EQ(3, m_pDevice->GetBaudrate());
    char version[64] = {};
    EXPECT_EQ(0, m_oClient.GetVersion(version, sizeof(version) - 1));
    EXPECT_STREQ(CTarvikSimDeviceRenesas::kVersion, version);
    EXPECT_EQ(0, m_oClient.EraseAll());

    // Three whole pages and a short one, which the client pads with zero bytes.
    std::string image;
    for (unsigned short page = 4; page < 7; ++page)
    {
        EXPECT_EQ(0, m_oClient.WritePage(page, Pattern(page).data(), CRen::kPageSize)) << page;
        image += Pattern(page);
    }
    EXPECT_EQ(0, m_oClient.WritePage(7, Pattern(7).data(), 100));
    const std::string shortPage = Pattern(7, 100) + std::string(156, '\0');
    image += shortPage;

    for (unsigned short page = 4; page < 7; ++page)
        EXPECT_EQ(Pattern(page), ReadPage(page)) << page;
    EXPECT_EQ(shortPage, ReadPage(7));
    EXPECT_EQ(shortPage, m_pDevice->PeekPage(7));
    EXPECT_EQ(std::string(CRen::kPageSize, '\xFF'), ReadPage(8));

    unsigned short sum = 0;
    EXPECT_EQ(0, m_oClient.VerifyCheck(4, 7, sum));
    EXPECT_EQ(Sum(image), sum);
    EXPECT_EQ(0, m_oClient.Complete());
    EXPECT_FALSE(m_pDevice->IsInSequence());
}

TEST_F(CRenesasE2E, TheTargetRefusesWhatItDoesNotAccept)
{
    const std::string page = Pattern(1);
    unsigned short sum = 0xBEEF;
    // Outside a sequence the target does not answer the gateway.
    EXPECT_EQ(CRen::eResultTimeout, m_oClient.WritePage(1, page.data(), CRen::kPageSize));
    EXPECT_EQ(0, m_oClient.Init());
    // Flash commands wait for a matching ID; a wrong one does not open the flash.
    EXPECT_EQ(CRen::eResultInvalidID, m_oClient.CheckID("RENESAX", 7));
    EXPECT_EQ(CRen::eResultInvalidID, m_oClient.EraseAll());
    EXPECT_EQ(CRen::eResultInvalidID, m_oClient.VerifyCheck(0, 0, sum));
    EXPECT_EQ(0, sum);
    EXPECT_EQ(0, m_oClient.CheckID(kID.data(), 7));

    // Programming clears bits only: a page programmed twice fails and keeps the first.
    EXPECT_EQ(0, m_oClient.WritePage(1, page.data(), CRen::kPageSize));
    const std::string other(CRen::kPageSize, '\x7F');
    EXPECT_EQ(CRen::eResultProgramFailed, m_oClient.WritePage(1, other.data(), CRen::kPageSize));
    EXPECT_EQ(page, ReadPage(1));
    EXPECT_EQ(CRen::eResultProgramFailed, m_oClient.WritePage(256, page.data(), CRen::kPageSize));
    // Block 0 holds pages 0 to 15; after its erase the page takes new contents.
    EXPECT_EQ(CRen::eResultEraseFailed, m_oClient.BlockErase(16));
    EXPECT_EQ(0, m_oClient.BlockErase(0));
    EXPECT_EQ(std::string(CRen::kPageSize, '\xFF'), m_pDevice->PeekPage(1));
    EXPECT_EQ(0, m_oClient.WritePage(1, other.data(), CRen::kPageSize));
    EXPECT_EQ(other, ReadPage(1));
    // A read the target refuses hands out what it sent: nothing.
    EXPECT_EQ("", ReadPage(256, TARVIK_ERR_COMMAND_FAILED | eTarvikRenesas << 8));

    // Complete locks the flash again; the contents stay over a restart.
    EXPECT_EQ(0, m_oClient.Complete());
    EXPECT_EQ(CRen::eResultTimeout, m_oClient.EraseAll());
    EXPECT_EQ(0, m_oClient.Restart());
    EXPECT_EQ(other, m_pDevice->PeekPage(1));
}
