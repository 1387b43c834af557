// An engine that does no real work, for testing what the manager and the common
// engine base do around engines.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "support/TestSupport.h"

namespace testing_support {

class FakeEngine : public AdvanceRepairBase {
public:
    explicit FakeEngine(std::wstring formatName, std::vector<std::string>* journal = nullptr)
        : AdvanceRepairBase("FakeEngine", "tests/FakeEngine"), formatName_(std::move(formatName)),
          journal_(journal) {}

    // What Repair does: run `blocks` blocks (until stopped when negative), reporting
    // progress, then return `result`.
    int blocks = 3;
    int result = 0;
    std::wstring outputPath = L"/out/repaired.avi";
    std::atomic<int> blocksDone{0};
    std::atomic<bool> inRepair{false};

    std::wstring GetFormatName() override { return formatName_; }
    void SetObserver(IVideoRepairObserver* o) override { Note("SetObserver"); AdvanceRepairBase::SetObserver(o); }
    void SetRepairMode(int mode) override { Note("SetRepairMode:" + std::to_string(mode)); }
    void SetEngineStrings(const void*) override { Note("SetEngineStrings"); }
    void SetVideoPath(const std::wstring& d, const std::wstring& s) override {
        Note("SetVideoPath:" + Narrow(d) + "|" + Narrow(s));
        AdvanceRepairBase::SetVideoPath(d, s);
    }
    void SetProgressCallback(EngineProgressCallback cb) override {
        Note("SetProgressCallback");
        AdvanceRepairBase::SetProgressCallback(std::move(cb));
    }
    int RepairWithOptions(const wchar_t*, const wchar_t*, void*, uint32_t option) override {
        Note("RepairWithOptions:" + std::to_string(option));
        return -1;
    }
    int Repair() override {
        Note("Repair");
        LogEntry("Repair");
        BeginRepair();
        inRepair = true;
        for (int i = 0; blocks < 0 || i < blocks; ++i) {
            ReportProgress(blocks < 0 ? 1 : (i + 1) * 100 / blocks);
            ++blocksDone;
            if (PauseThenShouldStop()) break;
        }
        inRepair = false;
        return result;
    }
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& out, const std::wstring& first, const std::wstring& second,
                                  int mode) override {
        Note("GetRepairedVideo:" + Narrow(first) + "|" + Narrow(second) + "|" + std::to_string(mode));
        out = outputPath;
        return outputPath;
    }
    void Release() override { Note("Release"); Stop(); }

    // Exposes the progress rule for tests.
    void Report(int percent) { ReportProgress(percent); }
    void Begin() { BeginRepair(); }

private:
    void Note(const std::string& what) {
        if (journal_ != nullptr) journal_->push_back(Narrow(formatName_) + "." + what);
    }
    std::wstring formatName_;
    std::vector<std::string>* journal_;
};

}  // namespace testing_support
