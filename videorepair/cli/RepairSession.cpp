#include "RepairSession.h"

#include <chrono>
#include <vector>

#include "Console.h"
#include "VideoRepairExport.h"
#include "WideText.h"

namespace {

// GetRepairedFilePath never asks for the buffer's size; make it larger than any path.
constexpr size_t kPathBufferChars = 65536;
constexpr std::chrono::milliseconds kWatchInterval{100};

}  // namespace

void RepairSession::Observer::OnProgress(int32_t kind, int32_t value, int32_t, void*) {
    if (kind == 0) display_.SetPercent(value);
}

void RepairSession::Observer::OnStarted() {
    started.store(true);
    display_.Started();
}

void RepairSession::Observer::OnPaused() {
    paused.store(true);
    display_.SetPaused(true);
}

void RepairSession::Observer::OnResumed() {
    paused.store(false);
    display_.SetPaused(false);
}

RepairSession::RepairSession(ProgressDisplay& display) : display_(display), observer_(display) {}

RepairSession::~RepairSession() {
    {
        std::lock_guard<std::mutex> guard(watchLock_);
        stopWatching_ = true;
    }
    watchWake_.notify_all();
    if (watcher_.joinable()) watcher_.join();
    if (verbose_) ShowNewLogLines();
    if (manager_ != nullptr) manager_->Release();  // hosts release, never delete, the manager
}

bool RepairSession::Open(const std::string& logDirectory, const std::string& workDirectory, bool verbose,
                         std::string& error) {
    verbose_ = verbose;
    if (InitKzVideoRepairLib(&manager_) != 0 || manager_ == nullptr) {
        error = "the repair library could not make its manager";
        return false;
    }
    std::wstring logs = wide_text::ToWide(logDirectory);
    std::wstring work = wide_text::ToWide(workDirectory);
    if (manager_->Initialize(&observer_, logs.c_str(), work.c_str()) != 0) {
        error = "the repair library could not be initialised (log " + logDirectory + ")";
        return false;
    }
    log_ = LogTail(logDirectory + "/KzVideoRepair.log");
    watcher_ = std::thread([this] { Watch(); });
    return true;
}

RepairOutcome RepairSession::Run(const std::string& damaged, const RepairRequest& request, const std::string& label) {
    RepairOutcome outcome;
    std::wstring damagedWide = wide_text::ToWide(damaged);
    // A pause belonged to the previous file; an engine made for this one would
    // not even know of it.
    if (observer_.paused.load()) manager_->Resume(0);
    observer_.started.store(false);
    log_.Mark();
    display_.Begin(label);
    auto begin = std::chrono::steady_clock::now();
    std::wstring sampleWide = wide_text::ToWide(request.sample);
    if (request.road == RepairRoad::kRemux) {
        outcome.result = manager_->FfmpegRepair(damagedWide.c_str());
    } else if (request.road == RepairRoad::kCompatible) {
        outcome.result = manager_->Repair(damagedWide.c_str(), sampleWide.c_str());
    } else {
        std::wstring outputWide = wide_text::ToWide(request.outputPath);
        outcome.judge.size = sizeof outcome.judge;
        outcome.judge.flags = request.fullCheck ? kThoroughFullDecodeCheck : 0;
        outcome.judge.outputPath = outputWide.empty() ? nullptr : outputWide.c_str();
        std::wstring recordWide = wide_text::ToWide(request.recordPath);
        outcome.judge.recordPath = recordWide.empty() ? nullptr : recordWide.c_str();
        outcome.result =
            manager_->RepairWithOptions(damagedWide.c_str(), sampleWide.c_str(), kRepairOptionThorough, &outcome.judge);
        outcome.judge.outputPath = nullptr;
        outcome.judge.recordPath = nullptr;
        outcome.judged = true;
    }
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    outcome.started = observer_.started.load();
    outcome.cancelled = CancelRequested();
    if (outcome.result == 0) {
        std::vector<wchar_t> path(kPathBufferChars, L'\0');
        if (manager_->GetRepairedFilePath(path.data(), damagedWide.c_str()) == 0) {
            outcome.repairedPath = wide_text::ToNarrow(path.data());
        }
    }
    outcome.error = log_.LastError();
    outcome.ffmpegLine = log_.LastFfmpegLine();
    if (!outcome.judged) outcome.unreadable = log_.Pairs("Repair read zeros for unreadable bytes (offset, length):");
    return outcome;
}

bool RepairSession::Save(const std::string& damaged, const std::string& destination, std::string& error) {
    log_.Mark();
    int result = manager_->SaveAs(wide_text::ToWide(damaged).c_str(), wide_text::ToWide(destination).c_str());
    if (result == 0) return true;
    error = log_.LastError();
    if (error.empty()) error = "SaveAs returned " + std::to_string(result);
    return false;
}

bool RepairSession::CancelRequested() const {
    return cancelRequested_.load() || console::InterruptCount() > 0;
}

void RepairSession::Watch() {
    std::unique_lock<std::mutex> guard(watchLock_);
    while (!stopWatching_) {
        HandleRequests();
        if (verbose_) ShowNewLogLines();
        display_.Tick();
        watchWake_.wait_for(guard, kWatchInterval);
    }
}

void RepairSession::ShowNewLogLines() {
    std::string lines = log_.TakeNewLines();
    if (!lines.empty()) display_.Note(lines);
}

void RepairSession::HandleRequests() {
    int interrupts = console::InterruptCount();
    if (interrupts > interruptsSeen_) {
        interruptsSeen_ = interrupts;
        if (!cancelRequested_.exchange(true)) {
            display_.Note("Cancelling: the engine keeps what it found and still writes the repaired file; "
                          "press Ctrl-C again to quit at once.");
            manager_->Cancel(0);
        }
    }
    int toggles = console::PauseToggleCount();
    if (toggles > pauseTogglesSeen_) {
        // Several presses between two looks cancel out in pairs.
        bool flip = (toggles - pauseTogglesSeen_) % 2 == 1;
        pauseTogglesSeen_ = toggles;
        if (flip && observer_.paused.load()) {
            manager_->Resume(0);
        } else if (flip) {
            manager_->Pause(0);
        }
    }
    int continues = console::ContinueCount();
    if (continues > continuesSeen_) {
        continuesSeen_ = continues;
        if (observer_.paused.load()) manager_->Resume(0);
    }
}
