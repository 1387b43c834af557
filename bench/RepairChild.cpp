#include "RepairChild.h"

#include <dlfcn.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <string>
#include <thread>

#include "IVideoRepairManager.h"
#include "IVideoRepairObserver.h"
#include "VideoRepairExport.h"
#include "VideoRepairOptions.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

double Seconds(const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; }

// Remembers the latest repair progress and when the engine's pass ended (OnFinished
// comes after the engine's Repair and before the repaired file is written).
struct TimingObserver : IVideoRepairObserver {
    std::atomic<int> progress{0};
    Clock::time_point finished{};
    void OnProgress(int32_t kind, int32_t value, int32_t, void*) override {
        if (kind == 0) progress = value;
    }
    void OnStarted() override {}
    void OnStopped() override {}
    void OnPaused() override {}
    void OnResumed() override {}
    void OnFinished() override { finished = Clock::now(); }
};

IVideoRepairManager* OpenManager(const std::string& library, TimingObserver& observer, const std::string& work) {
    void* lib = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return nullptr;
    auto init = reinterpret_cast<InitKzVideoRepairLibFn>(dlsym(lib, "InitKzVideoRepairLib"));
    IVideoRepairManager* manager = nullptr;
    if (init == nullptr || init(&manager) != 0) return nullptr;
    manager->Initialize(&observer, Wide(work).c_str(), Wide(work).c_str());
    return manager;
}

int RepairOnce(IVideoRepairManager* manager, TimingObserver& observer, const std::string& damaged,
               const std::string& sample, Clock::time_point launched) {
    auto start = Clock::now();
    int rc = manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str());
    wchar_t out[4096];
    bool repaired = rc == 0 && manager->GetRepairedFilePath(out, Wide(damaged).c_str()) == 0;
    std::wstring path = repaired ? std::wstring(out) : std::wstring();
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    double pass = std::chrono::duration<double>(observer.finished - start).count();
    // Tagged lines: the library may print on the console too ("read buf failed").
    double loading = std::chrono::duration<double>(start - launched).count();
    std::printf("\nvr_bench-repaired %s\nvr_bench-times %.4f %ld %.4f %.4f\n", std::string(path.begin(), path.end()).c_str(),
                pass, children.ru_maxrss, Seconds(children.ru_utime) + Seconds(children.ru_stime), loading);
    return repaired && !path.empty() ? 0 : 1;
}

// Bytes this process read and wrote through system calls ("<read> <written>",
// Linux's /proc/self/io; "-1 -1" elsewhere): what a repair moved, whatever the
// machine's speed that day.
std::string BytesMoved() {
    std::FILE* io = std::fopen("/proc/self/io", "r");
    long long read = -1, written = -1, value = 0;
    char key[32];
    while (io != nullptr && std::fscanf(io, "%31s %lld", key, &value) == 2) {
        if (std::strcmp(key, "rchar:") == 0) read = value;
        if (std::strcmp(key, "wchar:") == 0) written = value;
    }
    if (io != nullptr) std::fclose(io);
    return std::to_string(read) + " " + std::to_string(written);
}

const char* VerdictName(int32_t verdict) {
    switch (verdict) {
        case kVerdictNone: return "none";
        case kVerdictRebuilt: return "rebuilt";
        case kVerdictRemuxed: return "remuxed";
        case kVerdictAsIs: return "as-is";
        default: return "unknown";
    }
}

// The thorough repair into `output`: prints the repaired path as RepairOnce does and
// "vr_bench-thorough <return code> <verdict> <reason>" (verdict "fail" when the call
// answered an error).
int RepairThorough(IVideoRepairManager* manager, const std::string& damaged, const std::string& sample,
                   const std::string& output) {
    ThoroughRepairOptions opts{};
    opts.size = sizeof opts;
    opts.flags = 0;
    std::wstring out = Wide(output);
    opts.outputPath = output.empty() ? nullptr : out.c_str();
    int rc = manager->RepairWithOptions(Wide(damaged).c_str(), Wide(sample).c_str(), kRepairOptionThorough, &opts);
    std::string path;
    if (rc == 0) {
        wchar_t got[4096];
        if (manager->GetRepairedFilePath(got, Wide(damaged).c_str()) == 0) path = std::string(got, got + std::wcslen(got));
        if (path.empty() || !std::filesystem::exists(path)) path = std::filesystem::exists(output) ? output : std::string();
    }
    std::string reason(opts.reason, strnlen(opts.reason, sizeof opts.reason));
    for (char& c : reason)
        if (c == '\n' || c == '\r') c = ' ';
    std::printf("\nvr_bench-repaired %s\nvr_bench-judge %.4f\nvr_bench-thorough %d %s %s\nvr_bench-io %s\n",
                path.c_str(), opts.judgeSeconds, rc, rc == 0 ? VerdictName(opts.verdict) : "fail", reason.c_str(),
                BytesMoved().c_str());
    return rc == 0 && !path.empty() ? 0 : 1;
}

// Cancels once the engine reports progress (its scan is under way) and a little more.
void CancelDuringScan(IVideoRepairManager* manager, TimingObserver& observer, const std::string& damaged,
                      const std::string& sample) {
    std::atomic<bool> done{false};
    Clock::time_point returned;
    std::thread repair([&] {
        manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str());
        returned = Clock::now();
        done = true;
    });
    auto begin = Clock::now();
    while (!done && observer.progress < 1 && Clock::now() - begin < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto cancelled = Clock::now();
    bool early = !done;
    manager->Cancel(0);
    repair.join();
    std::printf("\nvr_bench-cancel %.4f %d\n", early ? std::chrono::duration<double>(returned - cancelled).count() : -1.0, int(early));
}

}  // namespace

int ChildMain(int argc, char** argv) {
    const Clock::time_point launched = Clock::now();
    if (argc < 6) return 2;
    std::string mode = argv[2], library = argv[3], damaged = argv[4], sample = argv[5];
    std::string work = std::filesystem::path(damaged).parent_path().string() + "/work";
    TimingObserver observer;
    IVideoRepairManager* manager = OpenManager(library, observer, work);
    if (manager == nullptr) return 2;
    int rc = 0;
    if (mode == "repair")
        rc = RepairOnce(manager, observer, damaged, sample, launched);
    else if (mode == "thorough")
        rc = RepairThorough(manager, damaged, sample, argc > 6 ? argv[6] : "");
    else
        CancelDuringScan(manager, observer, damaged, sample);
    manager->Release();
    return rc;
}

}  // namespace bench
