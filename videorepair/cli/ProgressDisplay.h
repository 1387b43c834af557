// Shows how a repair advances, phase by phase: a redrawn line on a terminal,
// plain lines (with a heartbeat) otherwise. The library reports percentages on
// the repair thread; a watcher thread calls Tick to draw, so drawing never slows
// the engine down. What it shows never goes backwards and fits 80 columns.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

class ProgressDisplay {
public:
    enum class Style { kNone, kBar, kLines };

    ProgressDisplay(std::FILE* out, Style style) : out_(out), style_(style) {}

    void Begin(const std::string& label);     // a file's repair is about to start
    void Started();                           // the library says it started
    void SetPhase(const std::string& phase);  // "repairing", "saving", "checking"
    void SetPercent(int percent) { percent_.store(percent); }
    void SetPaused(bool paused) { paused_.store(paused); }
    void Tick();                              // redraw if something changed
    void End();                               // final state, then a line break
    void Note(const std::string& text);       // a message line that keeps the bar intact

private:
    using Clock = std::chrono::steady_clock;

    int ShownPercent();  // never below what was shown, below 100 until the end
    std::string StatusText(int percent) const;
    std::string BarLine(int percent) const;
    void DrawBar(int percent);
    void PrintLine(int percent);
    void ClearBar();

    std::FILE* out_;
    Style style_;
    std::mutex lock_;
    std::string label_;
    std::string phase_;
    bool active_ = false;
    bool started_ = false;  // the library accepted the file
    bool barShown_ = false;
    bool ended_ = false;
    int shown_ = 0;
    Clock::time_point begin_;
    Clock::time_point lastLine_;
    int lastLinePercent_ = -1;
    std::string lastLinePhase_;
    std::string lastBar_;
    std::atomic<int> percent_{0};
    std::atomic<bool> paused_{false};
};

// "1:05" or "1:02:03".
std::string FormatClock(double seconds);

// text cut to at most width bytes, its middle replaced by "...".
std::string FitWidth(const std::string& text, size_t width);
