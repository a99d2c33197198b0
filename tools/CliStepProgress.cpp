#include "CliStepProgress.h"

#include "CliFormat.h"

#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace
{
constexpr int kStepBarWidth = 20;
// Plain lines come at every this many percent.
constexpr int kLineStep = 10;

std::string RateText(double rate)
{
    char text[32];
    if (rate >= 1e6)
        std::snprintf(text, sizeof text, "%.1f MB/s", rate / 1e6);
    else
        std::snprintf(text, sizeof text, "%.1f kB/s", rate / 1e3);
    return text;
}
} // namespace

CCliStepProgress::CCliStepProgress(const SCliGlobals& globals, uint64_t totalBytes)
    : m_eMode(globals.m_bJson              ? eModeJson
              : isatty(STDOUT_FILENO) == 1 ? eModeBar
                                           : eModeLines),
      m_nTotal(totalBytes), m_nPercent(-1), m_nLastLine(-1), m_bDrawn(false),
      m_oStepStart(std::chrono::steady_clock::now()), m_oLastSeen(m_oStepStart)
{
}

CCliStepProgress::~CCliStepProgress()
{
    EndLine();
}

void CCliStepProgress::EndLine()
{
    if (m_bDrawn)
        std::fputc('\n', stdout);
    m_bDrawn = false;
    std::fflush(stdout);
}

void CCliStepProgress::Update(const std::string& step, int percent)
{
    if (step == m_sStep && percent == m_nPercent)
        return;
    if (step != m_sStep)
    {
        EndLine();
        m_sStep = step;
        m_nLastLine = -1;
        m_oStepStart = m_oLastSeen;
    }
    m_nPercent = percent;
    m_oLastSeen = std::chrono::steady_clock::now();
    Show();
}

double CCliStepProgress::Rate() const
{
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_oStepStart).count();
    double bytes = static_cast<double>(m_nTotal) * m_nPercent / 100.0;
    return seconds > 0 ? bytes / seconds : 0;
}

long CCliStepProgress::SecondsLeft(double rate) const
{
    if (rate <= 0 || m_nPercent <= 0)
        return -1;
    double left = static_cast<double>(m_nTotal) * (100 - m_nPercent) / 100.0;
    return std::lround(left / rate);
}

void CCliStepProgress::Show()
{
    double rate = Rate();
    long left = SecondsLeft(rate);
    if (m_eMode == eModeJson)
    {
        TCliJson json{{"event", "progress"},
                      {"step", m_sStep},
                      {"percent", m_nPercent},
                      {"bytes_per_second", static_cast<uint64_t>(rate)}};
        if (left >= 0)
            json["seconds_left"] = left;
        std::printf("%s\n", CliJsonLine(json).c_str());
    }
    else if (m_eMode == eModeLines)
    {
        if (m_nLastLine >= 0 && m_nPercent < m_nLastLine + kLineStep && m_nPercent != 100)
            return;
        m_nLastLine = m_nPercent;
        std::printf("%s %d%%\n", m_sStep.c_str(), m_nPercent);
    }
    else
    {
        std::string bar(kStepBarWidth, '-');
        bar.replace(0, static_cast<size_t>(m_nPercent * kStepBarWidth / 100),
                    static_cast<size_t>(m_nPercent * kStepBarWidth / 100), '#');
        std::string leftText =
            left < 0 ? "-:--"
                     : std::to_string(left / 60) + ":" + (left % 60 < 10 ? "0" : "") + std::to_string(left % 60);
        std::printf("\r%-9s [%s] %3d%%  %s  %s left ", m_sStep.c_str(), bar.c_str(), m_nPercent, RateText(rate).c_str(),
                    leftText.c_str());
        m_bDrawn = true;
    }
    std::fflush(stdout);
}
