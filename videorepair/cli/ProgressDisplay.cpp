#include "ProgressDisplay.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr size_t kLineWidth = 79;  // an 80-column terminal wraps at the 80th
constexpr int kBarWidth = 20;
constexpr int kLineStep = 10;                      // percent between plain lines
constexpr std::chrono::seconds kLineHeartbeat{5};  // a plain line at least this often
constexpr int kMinimumForEstimate = 10;            // below this an estimate is a guess

}  // namespace

std::string FormatClock(double seconds) {
    long total = long(std::max(0.0, std::round(seconds)));
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    }
    return text;
}

std::string FitWidth(const std::string& text, size_t width) {
    if (text.size() <= width) return text;
    if (width <= 3) return text.substr(0, width);
    size_t head = (width - 3) / 2;
    size_t tail = width - 3 - head;
    return text.substr(0, head) + "..." + text.substr(text.size() - tail);
}

void ProgressDisplay::Begin(const std::string& label) {
    std::lock_guard<std::mutex> guard(lock_);
    label_ = label;
    phase_ = "repairing";
    active_ = true;
    started_ = false;
    barShown_ = false;
    ended_ = false;
    shown_ = 0;
    lastBar_.clear();
    lastLinePercent_ = -1;
    lastLinePhase_.clear();
    percent_.store(0);
    begin_ = lastLine_ = Clock::now();
}

void ProgressDisplay::Started() {
    std::lock_guard<std::mutex> guard(lock_);
    started_ = true;
    if (style_ != Style::kLines || !active_) return;
    std::fprintf(out_, "%s: started\n", label_.c_str());
    std::fflush(out_);
}

void ProgressDisplay::SetPhase(const std::string& phase) {
    std::lock_guard<std::mutex> guard(lock_);
    phase_ = phase;
    if (phase_ != "repairing") shown_ = 100;  // the library's part is done
}

int ProgressDisplay::ShownPercent() {
    // Passes over the file restart the library's count; the user sees the furthest.
    int limit = phase_ == "repairing" && !ended_ ? 99 : 100;
    shown_ = std::max(shown_, std::min(std::clamp(percent_.load(), 0, 100), limit));
    return shown_;
}

std::string ProgressDisplay::StatusText(int percent) const {
    double elapsed = std::chrono::duration<double>(Clock::now() - begin_).count();
    std::string text = FormatClock(elapsed);
    if (paused_.load()) return text + " paused (Ctrl-Z resumes)";
    if (phase_ == "repairing" && percent >= kMinimumForEstimate && percent < 99) {
        text += " ~" + FormatClock(elapsed * (100 - percent) / percent) + " left";
    }
    return text;
}

std::string ProgressDisplay::BarLine(int percent) const {
    int filled = kBarWidth * percent / 100;
    char number[8];
    std::snprintf(number, sizeof number, "%3d%%", percent);
    std::string rest = " " + phase_ + " [" + std::string(size_t(filled), '#') +
                       std::string(size_t(kBarWidth - filled), '-') + "] " + number + " " + StatusText(percent);
    size_t room = kLineWidth > rest.size() ? kLineWidth - rest.size() : 8;
    return FitWidth(label_, std::max<size_t>(room, 8)) + rest;
}

void ProgressDisplay::DrawBar(int percent) {
    std::string bar = FitWidth(BarLine(percent), kLineWidth);
    if (bar == lastBar_) return;
    // Pad over the rest of a longer previous bar.
    std::string padded = bar;
    if (lastBar_.size() > bar.size()) padded += std::string(lastBar_.size() - bar.size(), ' ');
    std::fputs(("\r" + padded).c_str(), out_);
    std::fflush(out_);
    lastBar_ = bar;
    barShown_ = true;
}

void ProgressDisplay::PrintLine(int percent) {
    std::fprintf(out_, "%s: %s %d%% (%s)\n", label_.c_str(), phase_.c_str(), percent, StatusText(percent).c_str());
    std::fflush(out_);
    lastLinePercent_ = percent;
    lastLinePhase_ = phase_;
    lastLine_ = Clock::now();
}

void ProgressDisplay::Tick() {
    std::lock_guard<std::mutex> guard(lock_);
    if (!active_ || !started_) return;
    int percent = ShownPercent();
    if (style_ == Style::kBar) {
        DrawBar(percent);
    } else if (style_ == Style::kLines) {
        bool stepped = percent / kLineStep > std::max(lastLinePercent_, 0) / kLineStep;
        bool quiet = Clock::now() - lastLine_ >= kLineHeartbeat;
        if (stepped || quiet || phase_ != lastLinePhase_) PrintLine(percent);
    }
}

void ProgressDisplay::End() {
    std::lock_guard<std::mutex> guard(lock_);
    if (!active_ || !started_) return;
    ended_ = true;
    int percent = ShownPercent();
    if (style_ == Style::kBar) {
        DrawBar(percent);
        std::fputs("\n", out_);
    } else if (style_ == Style::kLines && (percent != lastLinePercent_ || phase_ != lastLinePhase_)) {
        PrintLine(percent);
    }
    std::fflush(out_);
    active_ = false;
    barShown_ = false;
}

void ProgressDisplay::ClearBar() {
    if (!barShown_) return;
    std::fprintf(out_, "\r%s\r", std::string(lastBar_.size(), ' ').c_str());
    lastBar_.clear();
    barShown_ = false;
}

void ProgressDisplay::Note(const std::string& text) {
    std::lock_guard<std::mutex> guard(lock_);
    if (style_ == Style::kBar) ClearBar();
    std::fprintf(out_, "%s\n", text.c_str());
    std::fflush(out_);
}
