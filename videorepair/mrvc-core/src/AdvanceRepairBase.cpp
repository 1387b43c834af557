#include "AdvanceRepairBase.h"

#include <algorithm>

#include "OutputNaming.h"
#include "VideoRepairOptions.h"
#include "platform/Platform.h"
#include "thorough/ThoroughRepair.h"

// The thorough road's view of the engine: its flags, its progress and its log.
class AdvanceRepairBase::ThoroughControl : public thorough::RepairControl {
public:
    explicit ThoroughControl(AdvanceRepairBase& engine) : engine_(engine) {}
    bool ShouldStop() override { return engine_.PauseThenShouldStop(); }
    void Progress(int percent) override { engine_.ReportProgress(percent); }
    RepairLog* Log() override { return engine_.log_; }

private:
    AdvanceRepairBase& engine_;
};

namespace {

// Fields past what the caller's struct holds are never touched.
template <class T>
void Fill(ThoroughRepairOptions* options, T ThoroughRepairOptions::*field, const T& value) {
    const auto* base = reinterpret_cast<const char*>(options);
    const auto* at = reinterpret_cast<const char*>(&(options->*field));
    if (size_t(at - base) + sizeof(T) <= options->size) options->*field = value;
}

void Report(ThoroughRepairOptions* options, const thorough::ThoroughOutcome& outcome) {
    Fill(options, &ThoroughRepairOptions::verdict, int32_t(outcome.verdict));
    Fill(options, &ThoroughRepairOptions::damaged, outcome.damaged);
    Fill(options, &ThoroughRepairOptions::repaired, outcome.repaired);
    Fill(options, &ThoroughRepairOptions::judgeSeconds, outcome.judgeSeconds);
    Fill(options, &ThoroughRepairOptions::unreadableBytes, outcome.unreadableBytes);
    if (offsetof(ThoroughRepairOptions, reason) + sizeof(options->reason) <= options->size) {
        size_t n = std::min(outcome.reason.size(), sizeof(options->reason) - 1);
        std::copy_n(outcome.reason.data(), n, options->reason);
        options->reason[n] = '\0';
    }
}

}  // namespace

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

int AdvanceRepairBase::RepairWithOptions(const wchar_t* damagedPath, const wchar_t* samplePath, void* optionData,
                                         uint32_t option) {
    if (option != kRepairOptionThorough || damagedPath == nullptr || samplePath == nullptr || optionData == nullptr)
        return -1;
    auto* options = static_cast<ThoroughRepairOptions*>(optionData);
    if (options->size < kThoroughOptionsMinimumSize) return -1;
    if (damagedPath != damagedPath_.c_str()) damagedPath_ = damagedPath;
    if (samplePath != samplePath_.c_str()) samplePath_ = samplePath;
    LogEntry("RepairWithOptions");
    BeginRepair();
    thoroughResult_.clear();

    thorough::ThoroughJob job;
    job.damagedPath = damagedPath_;
    job.samplePath = samplePath_;
    job.outputPath = options->outputPath != nullptr ? options->outputPath : L"";
    if (job.outputPath.empty()) naming::MakeOutputPath(job.outputPath, damagedPath_, std::wstring(), 0);
    job.formatName = platform::ToNarrow(GetFormatName());
    if (offsetof(ThoroughRepairOptions, recordPath) + sizeof(options->recordPath) <= options->size &&
        options->recordPath != nullptr)
        job.recordPath = options->recordPath;
    job.fullDecodeCheck = (options->flags & kThoroughFullDecodeCheck) != 0;
    if (CarvesInProcess() && !samplePath_.empty()) {
        job.carvingRepair = [this](const std::wstring& directory, thorough::ProgressRange progress) {
            return CarvedCandidate(directory, progress.from, progress.to);
        };
    }
    ThoroughControl control(*this);
    thorough::ThoroughOutcome outcome;
    int result = thorough::ThoroughRepair(job, control).Run(outcome);
    Report(options, outcome);
    if (result == 0) thoroughResult_ = job.outputPath;
    return result;
}

// Runs the engine's own carving repair with its progress squeezed into [from, to].
std::wstring AdvanceRepairBase::CarvedCandidate(const std::wstring& directory, int from, int to) {
    EngineProgressCallback host = progress_;
    int shown = lastProgress_;
    progress_ = [&host, &shown, from, to](int percent) {
        int scaled = from + (to - from) * std::clamp(percent, 0, 100) / 100;
        if (scaled <= shown) return;
        shown = scaled;
        if (host) host(scaled);
    };
    int result = Repair();
    progress_ = host;
    lastProgress_ = shown;
    if (result != 0) return std::wstring();
    std::wstring output;
    return GetRepairedVideo(output, damagedPath_, directory, 0);
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
