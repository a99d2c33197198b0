// A progress bar on stderr for long transfers: "install a.cfg [#####-----]  48%  31.5/64.0 MiB"
// (KiB below 1 MiB).
// Drawn only when stderr is a terminal, and redrawn only when the shown percentage changes,
// so that a redirected stderr stays clean and a fast transfer is not slowed by drawing.
#ifndef TARVIK_TOOLS_CLIPROGRESS_H
#define TARVIK_TOOLS_CLIPROGRESS_H

#include <cstdint>
#include <string>

class CCliProgress
{
public:
    CCliProgress(const std::string& label, uint64_t total);
    // Ends the line if anything was drawn.
    ~CCliProgress();
    CCliProgress(const CCliProgress&) = delete;
    CCliProgress& operator=(const CCliProgress&) = delete;

    // Adds bytes done; any thread, one at a time.
    void Add(uint64_t bytes);
    uint64_t GetDone() const { return m_nDone; }

private:
    void Draw(int percent);

    std::string m_sLabel;
    uint64_t m_nTotal;
    uint64_t m_nDone;
    int m_nShown;
    bool m_bTerminal;
};

#endif
