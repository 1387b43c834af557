// One manager of lib_videorepair driven as a desktop host drives it: the exported
// entry point, Initialize with an observer, then RepairWithOptions / Repair /
// FfmpegRepair, the repaired path and SaveAs. A watcher thread turns Ctrl-C and Ctrl-Z into
// Cancel / Pause / Resume, which must not come from the thread blocked in a repair.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>
#include <thread>

#include "IVideoRepairManager.h"
#include "IVideoRepairObserver.h"
#include "LogTail.h"
#include "VideoRepairOptions.h"
#include "ProgressDisplay.h"

enum class RepairRoad { kThorough, kCompatible, kRemux };

// How to repair one damaged file.
struct RepairRequest {
    RepairRoad road = RepairRoad::kThorough;
    std::string sample;      // may be empty for the thorough repair; unused by a remux
    std::string outputPath;  // thorough repair: where the library writes the result; empty: beside the input
    bool fullCheck = false;  // thorough repair: decode every video frame when judging
    std::string recordPath;  // thorough repair: where the library writes its record; empty: nowhere
};

// What the library did with one damaged file.
struct RepairOutcome {
    bool started = false;    // the library began (the observer heard "started")
    bool cancelled = false;  // Ctrl-C arrived while it ran
    int result = -1;         // RepairWithOptions', Repair's or FfmpegRepair's result
    bool judged = false;     // a thorough repair ran: judge below is filled
    ThoroughRepairOptions judge{};  // its outputPath is not kept
    std::string repairedPath;
    std::string error;       // the library's last ERROR line of this call
    std::string ffmpegLine;  // ffmpeg's last line of output, when it ran
    // Compatible road: the damaged file's stretches that read as zeros (offset, length).
    std::vector<std::pair<int64_t, int64_t>> unreadable;
    double seconds = 0.0;
};

class RepairSession {
public:
    explicit RepairSession(ProgressDisplay& display);
    ~RepairSession();
    RepairSession(const RepairSession&) = delete;
    RepairSession& operator=(const RepairSession&) = delete;

    // Loads the manager and initialises it; false with the reason in error.
    // verbose: the library's log lines are shown as they are written.
    bool Open(const std::string& logDirectory, const std::string& workDirectory, bool verbose, std::string& error);

    RepairOutcome Run(const std::string& damaged, const RepairRequest& request, const std::string& label);

    // SaveAs; false with the library's reason in error.
    bool Save(const std::string& damaged, const std::string& destination, std::string& error);

    // Ctrl-C counts from the moment the signal arrives, before the watcher acts on it.
    bool CancelRequested() const;
    const std::string& LogPath() const { return log_.Path(); }

private:
    class Observer : public IVideoRepairObserver {
    public:
        explicit Observer(ProgressDisplay& display) : display_(display) {}
        void OnProgress(int32_t kind, int32_t value, int32_t, void*) override;
        void OnStarted() override;
        void OnStopped() override {}
        void OnPaused() override;
        void OnResumed() override;
        void OnFinished() override {}
        std::atomic<bool> started{false};
        std::atomic<bool> paused{false};

    private:
        ProgressDisplay& display_;
    };

    void Watch();
    void HandleRequests();
    void ShowNewLogLines();

    ProgressDisplay& display_;
    Observer observer_;
    IVideoRepairManager* manager_ = nullptr;
    LogTail log_{std::string()};
    std::thread watcher_;
    std::mutex watchLock_;
    std::condition_variable watchWake_;
    bool stopWatching_ = false;
    bool verbose_ = false;
    std::atomic<bool> cancelRequested_{false};
    int interruptsSeen_ = 0;
    int pauseTogglesSeen_ = 0;
    int continuesSeen_ = 0;
};
