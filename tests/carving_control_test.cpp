// Pause, resume and cancel from another thread while the AVI and FLV engines
// work on files large enough to take a while. The repairing thread is held at a
// chosen progress value inside the observer, so each command lands at a known
// point of the repair.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

class GateObserver : public IVideoRepairObserver {
public:
    explicit GateObserver(std::vector<int> gates) : gates_(std::move(gates)) {}

    void OnProgress(int32_t, int32_t value, int32_t, void*) override {
        std::unique_lock<std::mutex> lock(lock_);
        values_.push_back(value);
        if (next_ < gates_.size() && value >= gates_[next_]) {
            held_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return !held_; });
            ++next_;
        }
    }
    void OnStarted() override {}
    void OnStopped() override {}
    void OnPaused() override {}
    void OnResumed() override {}
    void OnFinished() override {}

    // Waits until the repairing thread is held at the next gate.
    void WaitHeld() {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait(lock, [this] { return held_; });
    }
    void LetGo() {
        std::lock_guard<std::mutex> lock(lock_);
        held_ = false;
        changed_.notify_all();
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(lock_);
        return values_.size();
    }

private:
    std::vector<int> gates_;
    size_t next_ = 0;
    bool held_ = false;
    std::vector<int> values_;
    std::mutex lock_;
    std::condition_variable changed_;
};

// A manager repairing on its own thread, as a host's worker would.
class BackgroundRepair {
public:
    BackgroundRepair(GateObserver& observer, const std::string& workDir) {
        InitKzVideoRepairLib(&manager_);
        work_ = testing_support::Wide(workDir);
        manager_->Initialize(&observer, work_.c_str(), work_.c_str());
    }
    ~BackgroundRepair() {
        if (thread_.joinable()) thread_.join();
        manager_->Release();
    }
    void Start(const std::string& damaged, const std::string& sample) {
        damaged_ = testing_support::Wide(damaged);
        sample_ = testing_support::Wide(sample);
        thread_ = std::thread([this] {
            result_ = manager_->Repair(damaged_.c_str(), sample_.c_str());
            done_ = true;
        });
    }
    bool Done() const { return done_; }
    // Joins and returns the result.
    int Finish() {
        thread_.join();
        return result_;
    }
    std::string RepairedPath() {
        std::vector<wchar_t> out(4096, L'\0');
        if (manager_->GetRepairedFilePath(out.data(), damaged_.c_str()) != 0) return std::string();
        return testing_support::Narrow(out.data());
    }
    IVideoRepairManager& Manager() { return *manager_; }

private:
    IVideoRepairManager* manager_ = nullptr;
    std::wstring work_, damaged_, sample_;
    std::thread thread_;
    std::atomic<int> result_{-1};
    std::atomic<bool> done_{false};
};

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// While paused, no progress is reported and the repair does not end.
void ExpectStaysPaused(GateObserver& observer, BackgroundRepair& repair) {
    SleepMs(700);
    const size_t before = observer.Count();
    SleepMs(1100);
    EXPECT_EQ(observer.Count(), before);
    EXPECT_FALSE(repair.Done());
}

constexpr size_t kBigBytes = 64u << 20;

std::string MjpegClip(bool sample) {
    return testing_support::GeneratedMedia(
        sample ? "control_mjpeg_sample.avi" : "control_mjpeg_clip.avi",
        {"-f", "lavfi", "-i", sample ? "testsrc2=size=320x240:rate=25" : "testsrc=size=320x240:rate=25", "-t", "2",
         "-c:v", "mjpeg", "-q:v", "2"});
}

// The clip's header and then its chunks over and over, without an index.
std::string BigAvi(const std::string& clip) {
    const size_t movi = clip.find("movi"), idx1 = clip.rfind("idx1");
    const std::string chunks = clip.substr(movi + 4, idx1 - movi - 4);
    std::string big = clip.substr(0, movi + 4);
    big.reserve(kBigBytes + chunks.size());
    while (big.size() < kBigBytes) big += chunks;
    return big;
}

std::string Flv1Clip(bool sample) {
    return testing_support::GeneratedMedia(
        sample ? "control_flv1_sample.flv" : "control_flv1_clip.flv",
        {"-f", "lavfi", "-i", sample ? "testsrc2=size=320x240:rate=25" : "testsrc=size=320x240:rate=25", "-t", "2",
         "-c:v", "flv", "-q:v", "2"});
}

// The clip's tags over and over behind its 13-byte head: one long run.
std::string BigFlv(const std::string& clip) {
    const std::string tags = clip.substr(13);
    std::string big = clip.substr(0, 13);
    big.reserve(kBigBytes + tags.size());
    while (big.size() < kBigBytes) big += tags;
    return big;
}

}  // namespace

TEST(CarvingControl, AviPausesResumesAndCancelsKeepingWhatWasFound) {
    const std::string clip = MjpegClip(false), sample = MjpegClip(true);
    ASSERT_FALSE(clip.empty());
    ASSERT_FALSE(sample.empty());
    TempDir dir("avictl");
    const std::string damagedPath = dir.file("big.avi");
    const std::string big = BigAvi(ReadFile(clip));
    WriteFile(damagedPath, big);
    const InputGuard input(damagedPath);

    GateObserver observer({50, 60});
    BackgroundRepair repair(observer, dir.path());
    repair.Start(damagedPath, sample);

    observer.WaitHeld();  // scanning, at 50 %
    repair.Manager().Pause(0);
    observer.LetGo();
    ExpectStaysPaused(observer, repair);
    repair.Manager().Resume(0);

    observer.WaitHeld();  // scanning again, at 60 %
    repair.Manager().Cancel(0);
    observer.LetGo();
    const auto cancelled = std::chrono::steady_clock::now();
    EXPECT_EQ(repair.Finish(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - cancelled, std::chrono::seconds(5));

    // The walk stopped after its first chunk: that chunk is the output's data,
    // behind the sample's header, with a one-entry index.
    const std::string out = ReadFile(repair.RepairedPath());
    const std::string sampleBytes = ReadFile(sample);
    const size_t headerLength = sampleBytes.find("movi") - 8;
    ASSERT_GT(out.size(), headerLength + 12);
    EXPECT_EQ(out.substr(8, 40), sampleBytes.substr(8, 40));
    EXPECT_EQ(out.substr(52, headerLength - 52), sampleBytes.substr(52, headerLength - 52));
    const uint32_t moviSize = Le32At(out, headerLength + 4);
    const size_t firstChunk = big.find("movi") + 4;
    EXPECT_EQ(out.substr(headerLength + 12, moviSize - 4), big.substr(firstChunk, moviSize - 4));
    const size_t idx1 = headerLength + 8 + moviSize;
    EXPECT_EQ(out.substr(idx1, 4), "idx1");
    EXPECT_EQ(Le32At(out, idx1 + 4), 16u);
    EXPECT_EQ(testing_support::CountDecodedVideoFrames(repair.RepairedPath()), 1);
    EXPECT_TRUE(input.Unchanged());
}

TEST(CarvingControl, FlvCancelWhilePausedKeepsTheRunSoFar) {
    const std::string clip = Flv1Clip(false), sample = Flv1Clip(true);
    ASSERT_FALSE(clip.empty());
    TempDir dir("flvctl");
    const std::string damagedPath = dir.file("big.flv");
    const std::string big = BigFlv(ReadFile(clip));
    WriteFile(damagedPath, big);
    const InputGuard input(damagedPath);

    GateObserver observer({20});
    BackgroundRepair repair(observer, dir.path());
    repair.Start(damagedPath, sample);
    observer.WaitHeld();  // about to scan
    repair.Manager().Pause(0);
    observer.LetGo();
    ExpectStaysPaused(observer, repair);  // held after the run's first tag
    repair.Manager().Cancel(0);
    EXPECT_EQ(repair.Finish(), 0);

    const std::string out = ReadFile(repair.RepairedPath());
    const size_t firstTag = 11 + ((uint32_t(uint8_t(big[14])) << 16) | (uint32_t(uint8_t(big[15])) << 8) |
                                  uint32_t(uint8_t(big[16]))) + 4;
    EXPECT_EQ(out, ReadFile(sample).substr(0, 13) + big.substr(13, firstTag));
    EXPECT_TRUE(input.Unchanged());
}

TEST(CarvingControl, FlvResumedRepairCarriesTheWholeRun) {
    const std::string clip = Flv1Clip(false), sample = Flv1Clip(true);
    ASSERT_FALSE(clip.empty());
    TempDir dir("flvres");
    const std::string damagedPath = dir.file("big.flv");
    const std::string big = BigFlv(ReadFile(clip));
    WriteFile(damagedPath, big);
    const InputGuard input(damagedPath);

    GateObserver observer({20});
    BackgroundRepair repair(observer, dir.path());
    repair.Start(damagedPath, sample);
    observer.WaitHeld();
    repair.Manager().Pause(0);
    observer.LetGo();
    SleepMs(600);
    EXPECT_FALSE(repair.Done());
    repair.Manager().Resume(0);
    EXPECT_EQ(repair.Finish(), 0);
    const std::string out = ReadFile(repair.RepairedPath());
    ASSERT_EQ(out.size(), big.size());
    EXPECT_TRUE(out.compare(13, std::string::npos, big, 13, std::string::npos) == 0);
    EXPECT_TRUE(input.Unchanged());
}
