#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/FakeEngine.h"

using namespace testing_support;
using namespace std::chrono_literals;

TEST(EngineBase, StopBeforeRepairHasNoEffect) {
    FakeEngine engine(L"fake");
    engine.blocks = 5;
    engine.Stop();
    EXPECT_EQ(engine.Repair(), 0);
    EXPECT_EQ(engine.blocksDone.load(), 5);
}

TEST(EngineBase, StopDuringRepairKeepsWhatWasDone) {
    FakeEngine engine(L"fake");
    engine.blocks = 1000000;
    engine.Pause();
    auto f = std::async(std::launch::async, [&] { return engine.Repair(); });
    while (!engine.inRepair) std::this_thread::sleep_for(1ms);
    engine.Stop();  // clears the pause too, so the sleeping loop wakes and leaves
    EXPECT_EQ(f.get(), 0);
    EXPECT_EQ(engine.blocksDone.load(), 1);
}

TEST(EngineBase, PauseHoldsTheLoopUntilResume) {
    FakeEngine engine(L"fake");
    engine.blocks = 3;
    engine.Pause();
    auto f = std::async(std::launch::async, [&] { return engine.Repair(); });
    while (engine.blocksDone.load() < 1) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(engine.blocksDone.load(), 1);  // still held after more than one sleep step
    engine.Resume();
    EXPECT_EQ(f.get(), 0);
    EXPECT_EQ(engine.blocksDone.load(), 3);
}

TEST(EngineBase, ProgressIsClampedAndReportedOnlyWhenItGrows) {
    FakeEngine engine(L"fake");
    std::vector<int> seen;
    engine.SetProgressCallback([&](int p) { seen.push_back(p); });
    engine.Begin();
    for (int p : {-5, 2, 2, 1, 40, 39, 75, 150, 100}) engine.Report(p);
    EXPECT_EQ(seen, (std::vector<int>{0, 2, 40, 75, 100}));
    engine.Begin();  // a new repair starts counting again
    engine.Report(3);
    EXPECT_EQ(seen.back(), 3);
}

TEST(EngineBase, SetVideoPathWithTheEnginesOwnMembers) {
    FakeEngine engine(L"fake");
    engine.SetVideoPath(L"/a.avi", L"/b.avi");
    engine.SetVideoPath(engine.DamagedPath(), engine.SamplePath());
    EXPECT_EQ(engine.DamagedPath(), L"/a.avi");
    EXPECT_EQ(engine.SamplePath(), L"/b.avi");
}

TEST(EngineBase, EntryIsLoggedWithClassAndSlotName) {
    TempDir dir;
    RepairLog log(0, dir.file("a.log"));
    FakeEngine engine(L"fake");
    engine.SetLogger(&log);
    engine.SetVideoPath(L"/a.avi", L"/b.avi");
    engine.Repair();
    std::string text = ReadFile(dir.file("a.log"));
    EXPECT_NE(text.find(") Start  FakeEngine::SetVideoPath\n"), std::string::npos) << text;
    EXPECT_NE(text.find(") Start  FakeEngine::Repair\n"), std::string::npos) << text;
}
