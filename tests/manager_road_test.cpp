// The manager around its engines: selection, the order of set-up, records,
// progress, and the control calls, with engines that do no real work.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "VideoRepairManager.h"
#include "support/FakeEngine.h"

using namespace testing_support;
using namespace std::chrono_literals;

namespace {

class ManagerRoad : public ::testing::Test {
protected:
    void SetUp() override {
        table_ = {
            {L"avi", [this] { return Track(new FakeEngine(L"avi", &journal_)); }},
            {L"mts", [this] { return Track(new FakeEngine(L"mts", &journal_)); }},
            {L"m2ts", [this] { return Track(new FakeEngine(L"mts", &journal_)); }},
            {L"mkv", [this] { return Track(new FakeEngine(L"mkv", &journal_)); }},
        };
        manager_ = std::make_unique<VideoRepairManager>(table_);
        ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("work").c_str()), 0);
    }
    void TearDown() override { manager_->Release(); }

    FakeEngine* Track(FakeEngine* e) {
        e->blocks = nextBlocks_;
        e->result = nextResult_;
        e->outputPath = nextOutput_;
        std::lock_guard<std::mutex> hold(createdLock_);
        created_.push_back(e);
        return e;
    }
    // The first engine, once the repair thread has made it (null before).
    FakeEngine* FirstCreated() {
        std::lock_guard<std::mutex> hold(createdLock_);
        return created_.empty() ? nullptr : created_[0];
    }
    std::string Log() { return ReadFile(dir_.file("KzVideoRepair.log")); }

    TempDir dir_;
    RecordingObserver observer_;
    std::vector<std::string> journal_;
    std::mutex createdLock_;  // engines are made on the repair's thread
    std::vector<FakeEngine*> created_;
    EngineTable table_;
    std::unique_ptr<VideoRepairManager> manager_;
    int nextBlocks_ = 3;
    int nextResult_ = 0;
    std::wstring nextOutput_ = L"/out/first.avi";
};

}  // namespace

TEST_F(ManagerRoad, RepairSetsUpTheEngineInOrderAndRecordsTheResult) {
    manager_->SetRepairMode(2);
    ASSERT_EQ(manager_->Repair(L"/d/clip.avi", L"/s/good.avi"), 0);
    EXPECT_EQ(journal_, (std::vector<std::string>{
                            "avi.SetObserver", "avi.SetRepairMode:2", "avi.SetEngineStrings",
                            "avi.SetVideoPath:/d/clip.avi|/s/good.avi", "avi.SetProgressCallback", "avi.Repair",
                            "avi.GetRepairedVideo:/d/clip.avi||0"}));
    EXPECT_EQ(observer_.Events(), (std::vector<std::string>{"start", "p0:33", "p0:66", "p0:100", "finish"}));
    wchar_t path[256];
    ASSERT_EQ(manager_->GetRepairedFilePath(path, L"/d/clip.avi"), 0);
    EXPECT_EQ(std::wstring(path), L"/out/first.avi");
}

TEST_F(ManagerRoad, AFailedRepairEndsForTheObserverButLeavesNoRecord) {
    nextResult_ = -2;
    EXPECT_EQ(manager_->Repair(L"/d/clip.avi", L"/s/good.avi"), -2);
    EXPECT_EQ(observer_.Events().back(), "finish");
    EXPECT_EQ(journal_.back(), "avi.Repair");  // no output asked for
    wchar_t path[256];
    EXPECT_EQ(manager_->GetRepairedFilePath(path, L"/d/clip.avi"), -1);
}

// An engine is reused when its format name equals the extension, ignoring case,
// but only an exact, lower-case extension creates one; the transport-stream
// engine answers "mts", so an m2ts file after an mts file gets an engine of its own.
TEST_F(ManagerRoad, EnginesAreMadeByExactExtensionAndReusedByFormatName) {
    const struct {
        std::vector<const wchar_t*> damaged;
        int lastResult;
        size_t engines;
    } cases[] = {
        {{L"/d/a.avi", L"/d/b.avi"}, 0, 1},
        {{L"/d/a.avi", L"/d/C.AVI"}, 0, 1},
        {{L"/d/C.AVI"}, -1, 0},
        {{L"/d/a.mts", L"/d/a.m2ts"}, 0, 2},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("work").c_str()), 0);
        int result = 1;
        for (const wchar_t* damaged : c.damaged) result = manager_->Repair(damaged, L"/s/sample");
        EXPECT_EQ(result, c.lastResult) << Narrow(c.damaged.back());
        EXPECT_EQ(manager_->EngineCount(), c.engines) << Narrow(c.damaged.back());
    }
}

TEST_F(ManagerRoad, RefusedUnknownAndMissingExtensionsGetNothing) {
    for (const wchar_t* name : {L"/d/clip.MP4", L"/d/clip.mp4", L"/d/x.Mov", L"/d/x.3gp", L"/d/x.3g2", L"/d/x.m4v",
                                L"/d/x.insv", L"/d/x.360", L"/d/x.M4A", L"/d/clip.ts", L"/d/noextension"}) {
        EXPECT_EQ(manager_->Repair(name, L"/s/good"), -1) << Narrow(name);
    }
    for (const wchar_t* name : {L"/d/clip.MP4", L"/d/clip.mp4", L"/d/x.insv"}) {
        EXPECT_EQ(manager_->FfmpegRepair(name), -1);
    }
    EXPECT_EQ(manager_->Repair(nullptr, L"/s"), -1);
    EXPECT_EQ(manager_->Repair(L"/d/a.avi", nullptr), -1);
    EXPECT_EQ(manager_->FfmpegRepair(nullptr), -1);
    EXPECT_EQ(manager_->EngineCount(), 0u);
    EXPECT_TRUE(observer_.Events().empty());
    EXPECT_EQ(Log(), "");
}

TEST_F(ManagerRoad, RepairWithOptionsForwardsToTheEngineWithoutSetUp) {
    int data = 0;
    EXPECT_EQ(manager_->RepairWithOptions(L"/d/a.avi", L"/s/a.avi", 7, nullptr), -1);
    EXPECT_TRUE(journal_.empty());
    EXPECT_EQ(manager_->RepairWithOptions(L"/d/a.avi", L"/s/a.avi", 7, &data), -1);
    EXPECT_EQ(journal_, (std::vector<std::string>{"avi.RepairWithOptions:7"}));
    EXPECT_EQ(manager_->RepairWithOptions(L"/d/a.mp4", L"/s/a.mp4", 7, &data), -1);
    wchar_t path[64];
    EXPECT_EQ(manager_->GetRepairedFilePath(path, L"/d/a.avi"), -1);
}

TEST_F(ManagerRoad, RecordLookUpIgnoresCaseAndTheFirstNonEmptyRecordWins) {
    nextOutput_ = L"";
    ASSERT_EQ(manager_->Repair(L"/d/Clip.avi", L"/s/a.avi"), 0);  // a record with no path
    created_[0]->outputPath = L"/out/second.avi";
    ASSERT_EQ(manager_->Repair(L"/d/Clip.avi", L"/s/a.avi"), 0);
    created_[0]->outputPath = L"/out/third.avi";
    ASSERT_EQ(manager_->Repair(L"/d/clip.avi", L"/s/a.avi"), 0);
    wchar_t path[256];
    ASSERT_EQ(manager_->GetRepairedFilePath(path, L"/D/CLIP.AVI"), 0);
    EXPECT_EQ(std::wstring(path), L"/out/second.avi");
    EXPECT_EQ(manager_->GetRepairedFilePath(nullptr, L"/d/clip.avi"), -1);
    EXPECT_EQ(manager_->GetRepairedFilePath(path, nullptr), -1);
}

TEST_F(ManagerRoad, ReinitializeForgetsRecordsAndEngines) {
    ASSERT_EQ(manager_->Repair(L"/d/a.avi", L"/s/a.avi"), 0);
    ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("work").c_str()), 0);
    wchar_t path[256];
    EXPECT_EQ(manager_->GetRepairedFilePath(path, L"/d/a.avi"), -1);
    EXPECT_EQ(manager_->EngineCount(), 0u);
}

TEST_F(ManagerRoad, PauseResumeAndCancelReachARunningRepair) {
    nextBlocks_ = -1;  // until cancelled, however slowly this thread gets to look
    auto running = std::async(std::launch::async, [this] { return manager_->Repair(L"/d/a.avi", L"/s/a.avi"); });
    while (FirstCreated() == nullptr || !FirstCreated()->inRepair) std::this_thread::sleep_for(1ms);
    manager_->Pause(42);
    EXPECT_TRUE(created_[0]->IsPaused());
    EXPECT_TRUE(manager_->IsPaused());
    int held = created_[0]->blocksDone;
    std::this_thread::sleep_for(600ms);
    EXPECT_LE(created_[0]->blocksDone - held, 1);
    manager_->Resume(42);
    EXPECT_FALSE(created_[0]->IsPaused());
    manager_->Cancel(42);
    EXPECT_EQ(running.get(), 0);  // the engine keeps what it found
    auto events = observer_.Events();
    EXPECT_NE(std::find(events.begin(), events.end(), "paused"), events.end());
    EXPECT_NE(std::find(events.begin(), events.end(), "resumed"), events.end());
    EXPECT_NE(std::find(events.begin(), events.end(), "stopped"), events.end());
    EXPECT_EQ(events.back(), "finish");
    wchar_t path[256];
    EXPECT_EQ(manager_->GetRepairedFilePath(path, L"/d/a.avi"), 0);
}

TEST_F(ManagerRoad, CancelWithoutEnginesStillTellsTheObserver) {
    manager_->Cancel(0);
    EXPECT_EQ(observer_.Events(), (std::vector<std::string>{"stopped"}));
    EXPECT_TRUE(manager_->IsStopped());
}

TEST_F(ManagerRoad, ReleaseCleansUpEnginesAndLaterRepairsFail) {
    ASSERT_EQ(manager_->Repair(L"/d/a.avi", L"/s/a.avi"), 0);
    manager_->Release();
    EXPECT_EQ(journal_.back(), "avi.Release");
    EXPECT_EQ(manager_->Repair(L"/d/a.avi", L"/s/a.avi"), -1);
    manager_->Pause(0);  // no registry: only the flag and the observer
    EXPECT_EQ(observer_.Events().back(), "paused");
}

TEST(ManagerControl, WorksBeforeInitialize) {
    VideoRepairManager m;
    m.Pause(0);
    EXPECT_TRUE(m.IsPaused());
    m.Resume(0);
    EXPECT_FALSE(m.IsPaused());
    m.Cancel(0);
    m.Release();
    EXPECT_EQ(m.Repair(L"/a.avi", L"/b.avi"), -1);
}
