#include "AdvanceRepairBase.h"

#include <algorithm>

#include "platform/Platform.h"

AdvanceRepairBase::AdvanceRepairBase(const char* className, const char* logSource)
    : className_(className), logSource_(logSource) {}

void AdvanceRepairBase::Pause() { paused_.store(true, std::memory_order_relaxed); }

void AdvanceRepairBase::Resume() { paused_.store(false, std::memory_order_relaxed); }

void AdvanceRepairBase::Stop() {
    paused_.store(false, std::memory_order_relaxed);
    stopRequested_.store(true, std::memory_order_relaxed);
}

void AdvanceRepairBase::SetVideoPath(const std::wstring& damagedPath, const std::wstring& samplePath) {
    if (&damagedPath != &damagedPath_) damagedPath_ = damagedPath;
    if (&samplePath != &samplePath_) samplePath_ = samplePath;
    LogEntry("SetVideoPath");
}

void AdvanceRepairBase::SetProgressCallback(EngineProgressCallback callback) {
    EngineProgressCallback temporary(std::move(callback));
    progress_.swap(temporary);
}

std::wstring AdvanceRepairBase::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                 const std::wstring& second, int mode,
                                                 std::function<void(int)>) {
    return GetRepairedVideo(result, first, second, mode);
}

void AdvanceRepairBase::LogEntry(const char* method) {
    Log(__LINE__, kLogDebug, "Start ", std::string(className_) + "::" + method);
}

void AdvanceRepairBase::BeginRepair() {
    ClearStopRequest();
    lastProgress_ = -1;
}

void AdvanceRepairBase::ReportProgress(int percent) {
    percent = std::clamp(percent, 0, 100);
    if (percent <= lastProgress_) return;
    lastProgress_ = percent;
    if (progress_) progress_(percent);
}

bool AdvanceRepairBase::PauseThenShouldStop() {
    while (IsPaused()) platform::SleepMilliseconds(500);
    return IsStopRequested();
}
