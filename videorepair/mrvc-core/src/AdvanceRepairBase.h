// What every container engine shares: the control flags, the progress rule, the
// pause/stop check, the log and observer pointers, and the two paths.
#pragma once

#include <atomic>
#include <string>

#include "IAdvanceVideoRepair.h"
#include "RepairLog.h"

class AdvanceRepairBase : public IAdvanceVideoRepair {
public:
    explicit AdvanceRepairBase(const char* className, const char* logSource);
    virtual ~AdvanceRepairBase() = default;  // lies behind the sixteen interface slots

    void SetObserver(IVideoRepairObserver* observer) override { observer_ = observer; }
    void Pause() override;
    void Resume() override;
    void Stop() override;
    void SetLogger(RepairLog* log) override { log_ = log; }
    void SetVideoPath(const std::wstring& damagedPath, const std::wstring& samplePath) override;
    void SetRepairMode(int) override {}
    void SetEngineStrings(const void*) override {}
    // The thorough repair for kRepairOptionThorough; -1 for every other option.
    int RepairWithOptions(const wchar_t* damagedPath, const wchar_t* samplePath, void* optionData,
                          uint32_t option) override;
    void SetProgressCallback(EngineProgressCallback callback) override;
    using IAdvanceVideoRepair::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                  const std::wstring& second, int mode,
                                  std::function<void(int)> unused) override;
    int Unsupported(void*) override { return -1; }

    bool IsPaused() const { return paused_.load(std::memory_order_relaxed); }
    bool IsStopRequested() const { return stopRequested_.load(std::memory_order_relaxed); }
    const std::wstring& DamagedPath() const { return damagedPath_; }
    const std::wstring& SamplePath() const { return samplePath_; }
    // The file the last thorough repair kept; empty when it failed.
    const std::wstring& ThoroughResult() const { return thoroughResult_; }

protected:
    // True for engines whose own carving repair runs in this process (no child
    // program): the thorough repair then judges its result as one more candidate.
    virtual bool CarvesInProcess() const { return false; }
    // Logs "Start " + "<Class>::<method>" at DEBUG, as every engine does on entry.
    void LogEntry(const char* method);
    // Starts a repair: clears the stop request and forgets earlier progress.
    void BeginRepair();
    // Clamps to 0..100 and reports only values that grew since the last report.
    void ReportProgress(int percent);
    // Between blocks: sleeps in 500 ms steps while paused; true when the loop must end.
    bool PauseThenShouldStop();
    void ClearStopRequest() { stopRequested_.store(false, std::memory_order_relaxed); }
    void RequestStop() { stopRequested_.store(true, std::memory_order_relaxed); }

    template <class T>
    void Log(uint32_t line, int level, const std::string& message, const T& value) {
        if (log_ != nullptr) log_->Log(logSource_, line, level, message, value);
    }

    RepairLog* log_ = nullptr;
    IVideoRepairObserver* observer_ = nullptr;
    std::wstring damagedPath_;
    std::wstring samplePath_;

private:
    class ThoroughControl;
    std::wstring CarvedCandidate(const std::wstring& directory, int progressFrom, int progressTo);

    const char* className_;
    const char* logSource_;
    EngineProgressCallback progress_;
    int lastProgress_ = -1;
    std::atomic<bool> paused_{false};
    std::atomic<bool> stopRequested_{true};  // Stop before Repair has no effect: Repair clears it
    std::wstring thoroughResult_;
};

// Logs through the engine's own log at the calling line.
#define ENGINE_LOG(level, message, value) Log(__LINE__, (level), (message), (value))
