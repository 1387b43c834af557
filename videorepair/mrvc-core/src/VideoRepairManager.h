// The repair manager a host drives: configuration, engine selection, repair
// records, saving, and the ffmpeg-only repair.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EngineRegistry.h"
#include "IVideoRepairManager.h"
#include "RepairLog.h"

struct RepairRecord {
    bool succeeded = true;
    bool byEngine = false;
    std::wstring videoPath;
    std::wstring repairedPath;
    std::wstring currentPath;
};

// The block handed to engines through their slot 8.
struct EngineStrings {
    std::wstring values[4];
};

class VideoRepairManager final : public IVideoRepairManager {
public:
    // The engine table is the library's own; tests may hand in another.
    explicit VideoRepairManager(const EngineTable& engineTable = DefaultEngineTable())
        : engineTable_(engineTable) {}
    ~VideoRepairManager();

    int32_t Initialize(IVideoRepairObserver* observer, const wchar_t* logDirectory,
                       const wchar_t* workDirectory) override;
    int32_t FfmpegRepair(const wchar_t* videoPath) override;
    int32_t Repair(const wchar_t* videoPath, const wchar_t* samplePath) override;
    void Pause(uint32_t jobId) override;
    void Resume(uint32_t jobId) override;
    void Cancel(uint32_t jobId) override;
    void Release() override;
    int32_t GetRepairedFilePath(wchar_t* outPath, const wchar_t* videoPath) override;
    int32_t SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath) override;
    int32_t RepairWithOptions(const wchar_t* videoPath, const wchar_t* samplePath, uint32_t option,
                              void* optionData) override;
    int32_t SetRepairMode(uint32_t mode) override;
    int32_t SetEngineStrings(const wchar_t* s1, const wchar_t* s2, const wchar_t* s3,
                             const wchar_t* s4) override;
    int32_t SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath,
                   SaveProgressCallback callback) override;
    int32_t Reserved(void*) override { return -1; }

    // For tests and diagnostics.
    const std::wstring& FfmpegPath() const { return ffmpegPath_; }
    const std::wstring& LogDirectory() const { return logDirectory_; }
    uint32_t RepairMode() const { return repairMode_; }
    const EngineStrings& Strings() const { return engineStrings_; }
    size_t EngineCount();
    bool IsPaused() const { return paused_.load(std::memory_order_relaxed); }
    bool IsStopped() const { return stopped_.load(std::memory_order_relaxed); }

private:
    EngineRegistry* Registry();
    // Selects the engine for a refused-checked path, or null. The thorough road
    // also reaches the refused extensions' thorough-only engine.
    IAdvanceVideoRepair* EngineFor(const std::wstring& videoPath, bool thorough = false);
    // The set-up, observer events and record that every engine repair shares; run
    // does the engine's work and names the repaired file.
    using EngineRun = std::function<int(IAdvanceVideoRepair&, std::wstring&)>;
    int32_t RunEngine(const wchar_t* videoPath, const wchar_t* samplePath, const EngineRun& run,
                      bool thorough = false);
    const RepairRecord* FindRecord(const std::wstring& videoPath) const;
    void ForEachEngine(void (AdvanceRepairBase::*action)());
    void ReportProgress(int kind, int value);
    int32_t CopyRepairedFile(const std::wstring& source, const std::wstring& destination,
                             const SaveProgressCallback& callback);

    const EngineTable& engineTable_;
    std::unique_ptr<EngineRegistry> engineRegistry_;
    IVideoRepairObserver* observer_ = nullptr;
    std::atomic<bool> paused_{false};
    std::atomic<bool> stopped_{true};  // nothing in the manager clears it
    std::unique_ptr<RepairLog> log_;
    std::wstring ffmpegPath_;
    std::vector<std::unique_ptr<RepairRecord>> records_;
    std::wstring applicationDirectory_;
    std::wstring logDirectory_;
    uint32_t repairMode_ = 1;
    EngineStrings engineStrings_;
    std::mutex lock_;          // serialises repairs, configuration and record look-ups
    std::mutex registryLock_;  // guards the registry pointer for Pause/Resume/Cancel
};
