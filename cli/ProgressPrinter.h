#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

// A run's progress on a stream: on a terminal a bar redrawn in place with counts, bytes and the time
// left; otherwise a plain line now and then, so that a log is readable afterwards.
class ProgressPrinter {
public:
    ProgressPrinter(std::FILE* out, bool terminal);

    void update(std::int64_t files, std::int64_t totalFiles, std::uint64_t bytes, std::uint64_t totalBytes);
    // Shows the last figures, which updates in quick succession may have passed over, and ends the bar's
    // line, so that what is printed next starts on its own.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void show(Clock::time_point now);

    std::FILE* m_out;
    bool m_terminal;
    Clock::time_point m_started = Clock::now();
    Clock::time_point m_lastShown{};
    bool m_shown = false;
    bool m_pending = false;
    std::int64_t m_files = 0;
    std::int64_t m_totalFiles = 0;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_totalBytes = 0;
};
