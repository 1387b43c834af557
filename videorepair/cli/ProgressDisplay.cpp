#include "ProgressDisplay.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kBarWidth = 30;
constexpr size_t kLabelWidth = 24;
constexpr int kLineStep = 10;                          // percent between plain lines
constexpr std::chrono::seconds kLineHeartbeat{5};      // a plain line at least this often
constexpr int kMinimumForEstimate = 10;                // below this an estimate is a guess

std::string Shortened(const std::string& label) {
    if (label.size() <= kLabelWidth) return label + std::string(kLabelWidth - label.size(), ' ');
    return "..." + label.substr(label.size() - (kLabelWidth - 3));
}

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

void ProgressDisplay::Begin(const std::string& label) {
    std::lock_guard<std::mutex> guard(lock_);
    label_ = label;
    active_ = true;
    started_ = false;
    barShown_ = false;
    lastBar_.clear();
    lastLinePercent_ = -1;
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

std::string ProgressDisplay::StatusText(int percent) const {
    double elapsed = std::chrono::duration<double>(Clock::now() - begin_).count();
    std::string text = FormatClock(elapsed) + " elapsed";
    if (paused_.load()) return text + ", paused (Ctrl-Z resumes)";
    if (percent >= kMinimumForEstimate && percent < 100) {
        text += ", ~" + FormatClock(elapsed * (100 - percent) / percent) + " left";
    }
    return text;
}

void ProgressDisplay::DrawBar(int percent) {
    int filled = kBarWidth * std::clamp(percent, 0, 100) / 100;
    std::string bar = "\r" + Shortened(label_) + " [" + std::string(size_t(filled), '#') +
                      std::string(size_t(kBarWidth - filled), '-') + "] " + std::to_string(percent) + "%  " +
                      StatusText(percent);
    if (bar == lastBar_) return;
    // Pad over the rest of a longer previous bar.
    size_t width = bar.size();
    if (lastBar_.size() > width) bar += std::string(lastBar_.size() - width, ' ');
    std::fputs(bar.c_str(), out_);
    std::fflush(out_);
    lastBar_ = bar.substr(0, width);
    barShown_ = true;
}

void ProgressDisplay::PrintLine(int percent) {
    std::fprintf(out_, "%s: %d%% (%s)\n", label_.c_str(), percent, StatusText(percent).c_str());
    std::fflush(out_);
    lastLinePercent_ = percent;
    lastLine_ = Clock::now();
}

void ProgressDisplay::Tick() {
    std::lock_guard<std::mutex> guard(lock_);
    if (!active_ || !started_) return;
    int percent = percent_.load();
    if (style_ == Style::kBar) {
        DrawBar(percent);
    } else if (style_ == Style::kLines) {
        bool stepped = percent / kLineStep > std::max(lastLinePercent_, 0) / kLineStep;
        bool quiet = Clock::now() - lastLine_ >= kLineHeartbeat;
        if ((stepped || quiet) && percent < 100) PrintLine(percent);
    }
}

void ProgressDisplay::End() {
    std::lock_guard<std::mutex> guard(lock_);
    if (!active_ || !started_) return;
    int percent = percent_.load();
    if (style_ == Style::kBar) {
        DrawBar(percent);
        std::fputs("\n", out_);
    } else if (style_ == Style::kLines && percent != lastLinePercent_) {
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
