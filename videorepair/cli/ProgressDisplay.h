// Shows how a repair advances: a redrawn bar on a terminal, plain lines
// otherwise. The library reports percentages on the repair thread; a watcher
// thread calls Tick to draw, so drawing never slows the engine down.
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

    void Begin(const std::string& label);  // a file's repair is about to start
    void Started();                        // the library says it started
    void SetPercent(int percent) { percent_.store(percent); }
    void SetPaused(bool paused) { paused_.store(paused); }
    void Tick();                           // redraw if something changed
    void End();                            // final state, then a line break
    void Note(const std::string& text);    // a message line that keeps the bar intact

private:
    using Clock = std::chrono::steady_clock;

    std::string StatusText(int percent) const;
    void DrawBar(int percent);
    void PrintLine(int percent);
    void ClearBar();

    std::FILE* out_;
    Style style_;
    std::mutex lock_;
    std::string label_;
    bool active_ = false;
    bool started_ = false;  // the library accepted the file
    bool barShown_ = false;
    Clock::time_point begin_;
    Clock::time_point lastLine_;
    int lastLinePercent_ = -1;
    std::string lastBar_;
    std::atomic<int> percent_{0};
    std::atomic<bool> paused_{false};
};

// "1:05" or "1:02:03".
std::string FormatClock(double seconds);
