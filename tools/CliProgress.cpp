#include "CliProgress.h"

#include <cstdio>
#include <unistd.h>

namespace
{
constexpr int kBarWidth = 30;
constexpr double kKiB = 1024.0;
constexpr double kMiB = 1024.0 * kKiB;
} // namespace

CCliProgress::CCliProgress(const std::string& label, uint64_t total)
    : m_sLabel(label), m_nTotal(total), m_nDone(0), m_nShown(-1), m_bTerminal(isatty(STDERR_FILENO) == 1)
{
}

CCliProgress::~CCliProgress()
{
    if (m_nShown >= 0)
        std::fputc('\n', stderr);
}

void CCliProgress::Add(uint64_t bytes)
{
    m_nDone += bytes;
    if (!m_bTerminal)
        return;
    uint64_t done = m_nDone < m_nTotal ? m_nDone : m_nTotal;
    int percent = m_nTotal == 0 ? 100 : static_cast<int>(done * 100 / m_nTotal);
    if (percent != m_nShown)
        Draw(percent);
}

void CCliProgress::Draw(int percent)
{
    m_nShown = percent;
    std::string bar(kBarWidth, '-');
    bar.replace(0, static_cast<size_t>(percent * kBarWidth / 100), static_cast<size_t>(percent * kBarWidth / 100), '#');
    uint64_t done = m_nDone < m_nTotal ? m_nDone : m_nTotal;
    // EEPROMs and flash pages are KiB-sized: MiB would show them as 0.0.
    bool small = static_cast<double>(m_nTotal) < kMiB;
    double unit = small ? kKiB : kMiB;
    std::fprintf(stderr, "\r%s [%s] %3d%%  %.1f/%.1f %s", m_sLabel.c_str(), bar.c_str(), percent,
                 static_cast<double>(done) / unit, static_cast<double>(m_nTotal) / unit, small ? "KiB" : "MiB");
    std::fflush(stderr);
}
