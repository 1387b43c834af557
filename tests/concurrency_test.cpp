// Control calls from other threads during real repairs: Pause, Resume and Cancel
// hammered from two threads, Release right after Cancel, and two managers
// repairing different files at once with one shared work directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/EngineClips.h"
#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

// The healthy clip repeated to about `bytes`: long enough that the scan is still
// running while the other threads act. Formats whose engines resynchronise on
// their own (chunks, tags, packets, elements) stay carvable when concatenated.
std::string Repeated(const std::string& clip, size_t bytes) {
    std::string big;
    big.reserve(bytes + clip.size());
    while (big.size() < bytes) big += clip;
    return big;
}

class Hammered : public ::testing::TestWithParam<EngineClip> {};

}  // namespace

// Whatever order the commands arrive in, the repair ends once it is cancelled
// and resumed, with a result or a logged failure, and the input unchanged.
TEST_P(Hammered, PauseResumeCancelFromTwoThreadsDuringARepair) {
    const std::string clip = MakeEngineClip(GetParam(), false), sample = MakeEngineClip(GetParam(), true);
    ASSERT_FALSE(clip.empty());
    TempDir dir("hammer");
    const std::string damaged = dir.file("big." + GetParam().extension);
    WriteFile(damaged, Repeated(ReadFile(clip), 24u << 20));
    const InputGuard input(damaged);

    IVideoRepairManager* manager = nullptr;
    ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
    testing_support::RecordingObserver observer;
    manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str());
    std::atomic<bool> done{false};
    std::atomic<int> result{1};
    std::thread repair([&] {
        result = manager->Repair(testing_support::Wide(damaged).c_str(), testing_support::Wide(sample).c_str());
        done = true;
    });
    auto hammer = [&](unsigned seed) {
        for (int i = 0; i < 400 && !done; ++i) {
            switch ((seed * 7 + unsigned(i) * 13) % 5) {
                case 0: case 1: manager->Pause(0); break;
                case 2: case 3: manager->Resume(0); break;
                default: if (i > 200) manager->Cancel(0);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    std::thread first(hammer, 1), second(hammer, 2);
    first.join();
    second.join();
    // A repair left paused waits for a Resume even when cancelled; a Cancel that
    // came before the engine started is forgotten by it, so both are repeated.
    while (!done) {
        manager->Cancel(0);
        manager->Resume(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    repair.join();
    wchar_t out[4096] = {};
    const bool recorded = manager->GetRepairedFilePath(out, testing_support::Wide(damaged).c_str()) == 0;
    manager->Release();
    EXPECT_TRUE(result == 0 || result == -1 || result == -2) << result;
    if (result == 0 && recorded && out[0] != L'\0') {
        EXPECT_TRUE(testing_support::FileExists(testing_support::Narrow(out)));
    }
    EXPECT_TRUE(input.Unchanged());
    // Control calls may still land between the end of the repair and `done`; the
    // repair itself must have ended last with "finish".
    const std::vector<std::string> events = observer.Events();
    auto lastJobEvent = std::find_if(events.rbegin(), events.rend(),
                                     [](const std::string& e) { return e == "start" || e == "finish"; });
    ASSERT_NE(lastJobEvent, events.rend());
    EXPECT_EQ(*lastJobEvent, "finish");
}

INSTANTIATE_TEST_SUITE_P(Engines, Hammered, ::testing::ValuesIn(AllEngineClips()),
                         [](const ::testing::TestParamInfo<EngineClip>& info) { return EngineName(info.param); });

// Release waits for the repair that is still returning from a Cancel; nothing
// is used after it is freed (the sanitizer builds check that).
TEST(Concurrency, ReleaseRightAfterCancel) {
    const EngineClip& clip = AllEngineClips()[0];
    const std::string good = MakeEngineClip(clip, false), sample = MakeEngineClip(clip, true);
    ASSERT_FALSE(good.empty());
    TempDir dir("release");
    const std::string damaged = dir.file("big.avi");
    WriteFile(damaged, Repeated(ReadFile(good), 32u << 20));
    const InputGuard input(damaged);
    for (int round = 0; round < 3; ++round) {
        IVideoRepairManager* manager = nullptr;
        ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
        testing_support::RecordingObserver observer;
        manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str());
        std::atomic<bool> started{false};
        std::thread repair([&] {
            started = true;
            manager->Repair(testing_support::Wide(damaged).c_str(), testing_support::Wide(sample).c_str());
        });
        while (!started) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20 * round));
        manager->Cancel(0);
        manager->Release();
        repair.join();
        // The repair may have begun after the Cancel (and the Release), so it may
        // have run to its end; a second Release of the same manager is harmless.
        manager->Release();
    }
    EXPECT_TRUE(input.Unchanged());
}

// Two hosts' managers in one process: the work directory is process-wide, so
// both put their dumps and extractions in the same folder at once.
TEST(Concurrency, TwoManagersRepairDifferentFilesOnTwoThreads) {
    TempDir dir("twomanagers");
    struct Job {
        EngineClip clip;
        std::string damaged, sample;
        ManagerRun run;
        int expectedFrames = 0;
    };
    std::vector<Job> jobs;
    for (const char* engine : {"Mpeg", "Wmv", "Mpeg", "Mxf"}) {
        for (const EngineClip& clip : AllEngineClips()) {
            if (clip.engine != engine) continue;
            Job job{clip, {}, {}, {}, 0};
            const std::string good = MakeEngineClip(clip, false), sample = MakeEngineClip(clip, true);
            ASSERT_FALSE(good.empty());
            const std::string folder = dir.file("job" + std::to_string(jobs.size()));
            std::filesystem::create_directories(folder);
            job.damaged = folder + "/clip." + clip.extension;  // the same names in different folders
            job.sample = folder + "/sample." + clip.extension;
            WriteFile(job.damaged, ReadFile(good));
            WriteFile(job.sample, ReadFile(sample));
            job.expectedFrames = int(ProbeVideoPackets(good).size());
            jobs.push_back(job);
        }
    }
    std::vector<std::thread> threads;
    for (Job& job : jobs) {
        threads.emplace_back([&job, &dir] {
            job.run = RepairThroughManager(job.damaged, job.sample, dir.path() + "/", dir.file("work"));
        });
    }
    for (std::thread& t : threads) t.join();
    for (const Job& job : jobs) {
        EXPECT_EQ(job.run.result, 0) << job.clip.engine << "\n";
        EXPECT_TRUE(job.run.inputUnchanged) << job.damaged;
        ASSERT_FALSE(job.run.repairedPath.empty()) << job.damaged;
        const int decoded = testing_support::CountDecodedVideoFrames(job.run.repairedPath);
        EXPECT_GE(decoded * 10, job.expectedFrames * 9) << job.damaged << ": " << decoded << " of " << job.expectedFrames;
    }
    EXPECT_EQ(FilesIn(dir.file("work")), 0u) << "every dump was removed";
}
