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

std::string Repeat(std::string head, const std::string& body) {
    head.reserve(kBigBytes + body.size());
    while (head.size() < kBigBytes) head += body;
    return head;
}

std::string Clip(const std::string& codec, const std::string& ext, bool sample) {
    return testing_support::GeneratedMedia(
        "control_" + codec + (sample ? "_sample." : "_clip.") + ext,
        {"-f", "lavfi", "-i", sample ? "testsrc2=size=320x240:rate=25" : "testsrc=size=320x240:rate=25", "-t", "2",
         "-c:v", codec, "-q:v", "2"});
}

struct Container {
    std::string ext, codec;
    std::vector<int> gates;  // where the repair is held: the pause lands at the first
    std::string (*big)(const std::string& clip);
    // Checks the output of a repair cancelled right after its first chunk or tag.
    void (*expectFirstUnitOnly)(const std::string& path, const std::string& out, const std::string& big, const std::string& sample);
};

// The clip's header and then its chunks over and over, without an index.
std::string BigAvi(const std::string& clip) {
    const size_t movi = clip.find("movi"), idx1 = clip.rfind("idx1");
    return Repeat(clip.substr(0, movi + 4), clip.substr(movi + 4, idx1 - movi - 4));
}

// The first chunk is the output's data, behind the sample's header, with a one-entry index.
void AviFirstChunkOnly(const std::string& path, const std::string& out, const std::string& big, const std::string& sample) {
    const size_t headerLength = sample.find("movi") - 8;
    ASSERT_GT(out.size(), headerLength + 12);
    EXPECT_EQ(out.substr(8, 40), sample.substr(8, 40));
    EXPECT_EQ(out.substr(52, headerLength - 52), sample.substr(52, headerLength - 52));
    const uint32_t moviSize = Le32At(out, headerLength + 4);
    EXPECT_EQ(out.substr(headerLength + 12, moviSize - 4), big.substr(big.find("movi") + 4, moviSize - 4));
    const size_t idx1 = headerLength + 8 + moviSize;
    EXPECT_EQ(out.substr(idx1, 4), "idx1");
    EXPECT_EQ(Le32At(out, idx1 + 4), 16u);
    EXPECT_EQ(testing_support::CountDecodedVideoFrames(path), 1);
}

// The clip's tags over and over behind its 13-byte head: one long run.
std::string BigFlv(const std::string& clip) { return Repeat(clip.substr(0, 13), clip.substr(13)); }

void FlvFirstTagOnly(const std::string&, const std::string& out, const std::string& big, const std::string& sample) {
    const size_t firstTag = 11 + ((uint32_t(uint8_t(big[14])) << 16) | (uint32_t(uint8_t(big[15])) << 8) |
                                  uint32_t(uint8_t(big[16]))) + 4;
    EXPECT_EQ(out, sample.substr(0, 13) + big.substr(13, firstTag));
}

const Container kAvi{"avi", "mjpeg", {50, 60}, BigAvi, AviFirstChunkOnly};
const Container kFlv{"flv", "flv", {20}, BigFlv, FlvFirstTagOnly};

enum class Then { kResumeAndCancelAtTheNextGate, kCancelWhilePaused, kResume };

struct ControlCase {
    const char* name;
    const Container* container;
    Then then;
};

void PrintTo(const ControlCase& c, std::ostream* os) { *os << c.name; }

class CarvingControl : public ::testing::TestWithParam<ControlCase> {};

}  // namespace

// A cancelled engine keeps what it found and the result is still written; a
// resumed one carries on to the end.
TEST_P(CarvingControl, PauseHoldsTheScanAndCancelKeepsWhatWasFound) {
    const Container& c = *GetParam().container;
    const std::string clip = Clip(c.codec, c.ext, false), sample = Clip(c.codec, c.ext, true);
    ASSERT_FALSE(clip.empty());
    ASSERT_FALSE(sample.empty());
    TempDir dir("control");
    const std::string damagedPath = dir.file("big." + c.ext);
    const std::string big = c.big(ReadFile(clip));
    WriteFile(damagedPath, big);
    const InputGuard input(damagedPath);

    GateObserver observer(c.gates);
    BackgroundRepair repair(observer, dir.path());
    repair.Start(damagedPath, sample);
    observer.WaitHeld();
    repair.Manager().Pause(0);
    observer.LetGo();
    ExpectStaysPaused(observer, repair);
    switch (GetParam().then) {
        case Then::kResumeAndCancelAtTheNextGate:
            repair.Manager().Resume(0);
            observer.WaitHeld();
            repair.Manager().Cancel(0);
            observer.LetGo();
            break;
        case Then::kCancelWhilePaused: repair.Manager().Cancel(0); break;
        case Then::kResume: repair.Manager().Resume(0); break;
    }
    ASSERT_EQ(repair.Finish(), 0);
    const std::string out = ReadFile(repair.RepairedPath());
    if (GetParam().then == Then::kResume) {
        ASSERT_EQ(out.size(), big.size());
        EXPECT_TRUE(out.compare(13, std::string::npos, big, 13, std::string::npos) == 0);
    } else {
        c.expectFirstUnitOnly(repair.RepairedPath(), out, big, ReadFile(sample));
    }
    EXPECT_TRUE(input.Unchanged());
}

INSTANTIATE_TEST_SUITE_P(Scripts, CarvingControl,
                         ::testing::Values(ControlCase{"AviCancelAfterResume", &kAvi, Then::kResumeAndCancelAtTheNextGate},
                                           ControlCase{"FlvCancelWhilePaused", &kFlv, Then::kCancelWhilePaused},
                                           ControlCase{"FlvResumeCarriesTheWholeRun", &kFlv, Then::kResume}),
                         [](const ::testing::TestParamInfo<ControlCase>& info) { return info.param.name; });
