// Progress of a job that runs in steps (writing, then verifying), given as a percentage
// of the job's bytes per step. Three ways to show it, chosen by the output:
//   - stdout a terminal: one line redrawn in place,
//     "writing   [##########----------]  48%  1.2 MB/s  0:03 left";
//   - stdout not a terminal: a plain line at each step change and every 10 %,
//     "writing 40%";
//   - --json: one object per change, {"event":"progress","step":"writing","percent":48,
//     "bytes_per_second":1234567,"seconds_left":3}.
// The rate is that of the present step since it began (as well as polling tells); the time
// left is the rest of that step.
#ifndef TARVIK_TOOLS_CLISTEPPROGRESS_H
#define TARVIK_TOOLS_CLISTEPPROGRESS_H

#include "TarvikCli.h"

#include <chrono>
#include <cstdint>
#include <string>

class CCliStepProgress
{
public:
    CCliStepProgress(const SCliGlobals& globals, uint64_t totalBytes);
    // Ends a line drawn in place.
    ~CCliStepProgress();
    CCliStepProgress(const CCliStepProgress&) = delete;
    CCliStepProgress& operator=(const CCliStepProgress&) = delete;

    // The job is at percent of step; shows it when it changed.
    void Update(const std::string& step, int percent);
    // Ends a line drawn in place, so that a message may follow.
    void EndLine();

private:
    enum EMode
    {
        eModeBar,
        eModeLines,
        eModeJson,
    };

    void Show();
    // Bytes per second in this step so far, and seconds left in it (-1: not known yet).
    double Rate() const;
    long SecondsLeft(double rate) const;

    EMode m_eMode;
    uint64_t m_nTotal;
    std::string m_sStep;
    int m_nPercent;
    int m_nLastLine;
    bool m_bDrawn;
    std::chrono::steady_clock::time_point m_oStepStart;
    // When the last change was seen: a step that is new at a poll began after it.
    std::chrono::steady_clock::time_point m_oLastSeen;
};

#endif
