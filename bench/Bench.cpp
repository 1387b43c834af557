// Speed and memory of each engine beside the tools a user would reach for instead:
// cat (page-cache read), cp (read + write), ffmpeg's stream copy, and our repair
// through the exported entry point. Each measurement runs in a child process so
// that its peak resident memory is its own.
//
//   vr_bench [--size BYTES] [--runs N] [--cache DIR] [--out DIR] [--only NAME]
//   vr_bench --child repair|cancel LIBRARY DAMAGED SAMPLE   (internal)
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "IVideoRepairManager.h"
#include "IVideoRepairObserver.h"
#include "VideoRepairExport.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct Measurement {
    double seconds = 0;
    long peakKiB = 0;
    int exitCode = -1;
};

// One container: how its sample and its large input are made, and the damage applied.
struct Row {
    std::string name;
    std::string extension;
    std::vector<std::string> codecArgs;  // after the lavfi inputs
    std::string videoSource;             // lavfi video graph, {} replaced by the duration
    bool withAudio;
};

std::string Arg(int argc, char** argv, const std::string& name, const std::string& fallback) {
    for (int i = 1; i + 1 < argc; ++i)
        if (argv[i] == name) return argv[i + 1];
    return fallback;
}

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// Runs argv (no shell) with stdout/stderr to /dev/null, timing it and reading its peak RSS.
Measurement Run(const std::vector<std::string>& argv, const std::string& stdoutPath = "/dev/null") {
    Measurement m;
    auto start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        FILE* out = std::freopen(stdoutPath.c_str(), "w", stdout);
        FILE* err = std::freopen("/dev/null", "w", stderr);
        FILE* in = std::freopen("/dev/null", "r", stdin);
        (void)out, (void)err, (void)in;
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    m.peakKiB = usage.ru_maxrss;
    m.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return m;
}

std::string Capture(const std::vector<std::string>& argv) {
    char name[] = "/tmp/vr_bench_capture_XXXXXX";
    int fd = mkstemp(name);
    close(fd);
    Run(argv, name);
    std::ifstream in(name);
    std::stringstream ss;
    ss << in.rdbuf();
    fs::remove(name);
    return ss.str();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// ---- child side: the repair as a desktop host would run it -------------------

struct QuietObserver : IVideoRepairObserver {
    std::atomic<int> progress{0};
    void OnProgress(int32_t kind, int32_t value, int32_t, void*) override {
        if (kind == 0) progress = value;
    }
    void OnStarted() override {}
    void OnStopped() override {}
    void OnPaused() override {}
    void OnResumed() override {}
    void OnFinished() override {}
};

int ChildMain(int argc, char** argv) {
    std::string mode = argv[2], library = argv[3], damaged = argv[4], sample = argv[5];
    void* lib = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return 2;
    auto init = reinterpret_cast<InitKzVideoRepairLibFn>(dlsym(lib, "InitKzVideoRepairLib"));
    IVideoRepairManager* manager = nullptr;
    if (init == nullptr || init(&manager) != 0) return 2;
    QuietObserver observer;
    std::string work = fs::path(damaged).parent_path().string() + "/work";
    manager->Initialize(&observer, Wide(work).c_str(), Wide(work).c_str());
    if (mode == "repair") {
        int rc = manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str());
        wchar_t out[4096];
        if (rc == 0 && manager->GetRepairedFilePath(out, Wide(damaged).c_str()) == 0) {
            std::wstring w(out);
            std::printf("%s\n", std::string(w.begin(), w.end()).c_str());
        }
        manager->Release();
        return rc == 0 ? 0 : 1;
    }
    // cancel: start a repair, cancel it once it is scanning, time until it returns.
    std::atomic<bool> done{false};
    Clock::time_point returned;
    std::thread repair([&] {
        manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str());
        returned = Clock::now();
        done = true;
    });
    auto begin = Clock::now();
    // Cancel once the engine reports progress (its scan is under way) and a little more.
    while (!done && observer.progress < 1 && Clock::now() - begin < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto cancelled = Clock::now();
    bool early = !done;
    manager->Cancel(0);
    repair.join();
    manager->Release();
    std::printf("%.4f %d\n", early ? std::chrono::duration<double>(returned - cancelled).count() : -1.0,
                int(early));
    return 0;
}

// ---- parent side ------------------------------------------------------------

std::vector<Row> Rows() {
    const std::string big = "testsrc2=size=1280x720:rate=25:duration={}";
    return {
        {"avi", "avi", {"-c:v", "mjpeg", "-q:v", "2", "-c:a", "pcm_s16le"}, big, true},
        {"flv", "flv", {"-c:v", "flv1", "-q:v", "2", "-c:a", "libmp3lame", "-ar", "44100"}, big, true},
        {"mkv", "mkv", {"-c:v", "mjpeg", "-q:v", "2", "-c:a", "pcm_s16le"}, big, true},
        {"mpeg", "mpg", {"-c:v", "mpeg2video", "-q:v", "2", "-c:a", "mp2", "-f", "mpeg"}, big, true},
        {"mts", "m2ts", {"-c:v", "mpeg2video", "-q:v", "2", "-c:a", "mp2", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}, big, true},
        {"mxf", "mxf", {"-c:v", "mpeg2video", "-q:v", "2", "-pix_fmt", "yuv422p", "-c:a", "pcm_s16le", "-ar", "48000"}, big, true},
        {"wmv", "wmv", {"-c:v", "wmv2", "-q:v", "2", "-c:a", "wmav2"}, big, true},
    };
}

std::vector<std::string> GenerateArgs(const Row& row, double seconds, long long maxBytes, const std::string& out,
                                      bool sample) {
    std::string video = row.videoSource;
    video.replace(video.find("{}"), 2, std::to_string(seconds));
    if (sample) video.replace(0, 8, "testsrc");  // other content, same settings
    std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y",
                                  "-f", "lavfi", "-i", video};
    if (row.withAudio) {
        a.insert(a.end(), {"-f", "lavfi", "-i", "sine=frequency=" + std::string(sample ? "660" : "440") +
                                                    ":sample_rate=48000:duration=" + std::to_string(seconds)});
    }
    a.insert(a.end(), row.codecArgs.begin(), row.codecArgs.end());
    a.insert(a.end(), {"-threads", "2"});
    if (maxBytes > 0) a.insert(a.end(), {"-fs", std::to_string(maxBytes)});
    a.push_back(out);
    return a;
}

// Overwrites three 64 KiB ranges (at 25%, 50%, 75%) with random bytes: light damage.
void Damage(const std::string& path) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    auto size = fs::file_size(path);
    std::mt19937 rng(7);
    std::string junk(65536, '\0');
    for (char& c : junk) c = char(rng());
    for (double at : {0.25, 0.5, 0.75}) {
        f.seekp(std::streamoff(double(size) * at));
        f.write(junk.data(), std::streamsize(junk.size()));
    }
}

bool Prepare(const Row& row, const std::string& cache, long long size, std::string& damaged, std::string& sample) {
    std::string tag = row.name + "_" + std::to_string(size);
    std::string source = cache + "/" + tag + "_source." + row.extension;
    sample = cache + "/" + row.name + "_sample." + row.extension;
    damaged = cache + "/" + tag + "_damaged." + row.extension;
    if (!fs::exists(sample)) {
        auto args = GenerateArgs(row, 4, 0, sample + ".part." + row.extension, true);
        if (Run(args).exitCode != 0) return false;
        fs::rename(sample + ".part." + row.extension, sample);
    }
    if (!fs::exists(source)) {
        std::fprintf(stderr, "  generating %s (%lld MB), cached for later runs\n", source.c_str(), size >> 20);
        auto args = GenerateArgs(row, 36000, size, source + ".part." + row.extension, false);
        if (Run(args).exitCode != 0) return false;
        fs::rename(source + ".part." + row.extension, source);
    }
    if (!fs::exists(damaged)) {
        fs::copy_file(source, damaged);
        Damage(damaged);
    }
    return true;
}

struct Result {
    std::string name;
    double mb = 0;
    double cat = 0, cp = 0, ffmpeg = 0, ours = 0, cancel = -1;
    long catKiB = 0, cpKiB = 0, ffmpegKiB = 0, oursKiB = 0;
    bool repaired = false;
};

Result Measure(const Row& row, const std::string& self, const std::string& library, const std::string& damaged,
               const std::string& sample, const std::string& scratch, int runs) {
    Result r;
    r.name = row.name;
    r.mb = double(fs::file_size(damaged)) / 1e6;
    std::vector<double> cat, cp, ff, ours;
    for (int i = 0; i < runs; ++i) {
        Measurement m = Run({"cat", damaged});
        cat.push_back(m.seconds);
        r.catKiB = std::max(r.catKiB, m.peakKiB);
        m = Run({"cp", damaged, scratch + "/copy"});
        cp.push_back(m.seconds);
        r.cpKiB = std::max(r.cpKiB, m.peakKiB);
        fs::remove(scratch + "/copy");
        std::string ffOut = scratch + "/ffcopy." + row.extension;
        m = Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-err_detect", "ignore_err", "-i", damaged, "-c",
                 "copy", ffOut});
        ff.push_back(m.seconds);
        r.ffmpegKiB = std::max(r.ffmpegKiB, m.peakKiB);
        fs::remove(ffOut);
        std::string outList = scratch + "/ours.txt";
        m = Run({self, "--child", "repair", library, damaged, sample}, outList);
        ours.push_back(m.seconds);
        r.oursKiB = std::max(r.oursKiB, m.peakKiB);
        r.repaired = m.exitCode == 0;
        std::ifstream list(outList);
        for (std::string line; std::getline(list, line);)
            if (!line.empty()) fs::remove(line);
    }
    r.cat = Median(cat), r.cp = Median(cp), r.ffmpeg = Median(ff), r.ours = Median(ours);
    std::vector<double> latencies;
    for (int i = 0; i < runs; ++i) {
        std::istringstream in(Capture({self, "--child", "cancel", library, damaged, sample}));
        double latency = -1;
        int early = 0;
        in >> latency >> early;
        if (early) latencies.push_back(latency);
    }
    if (!latencies.empty()) r.cancel = Median(latencies);
    fs::remove_all(fs::path(damaged).parent_path() / "work");
    return r;
}

std::string MachineText() {
    utsname u{};
    uname(&u);
    long kb = 0;
    std::ifstream mem("/proc/meminfo");
    std::string key;
    mem >> key >> kb;
    std::string ffmpeg = Capture({"ffmpeg", "-version"});
    ffmpeg = ffmpeg.substr(0, std::min(ffmpeg.find('\n'), ffmpeg.find(" Copyright")));
    std::ostringstream s;
    s << "cores " << std::thread::hardware_concurrency() << ", memory " << kb / 1024 / 1024 << " GiB, kernel "
      << u.release << ", " << ffmpeg;
    return s.str();
}

std::string Fixed(double v, int digits) {
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", digits, v);
    return b;
}

void Report(const std::vector<Result>& results, const std::string& outDir, long long size, int runs) {
    fs::create_directories(outDir);
    std::ostringstream md, csv;
    md << "# Engine speed and memory\n\n" << MachineText() << "; input " << (size >> 20) << " MiB per engine, median of "
       << runs << " runs.\n\n";
    md << "| engine | MB | cat MB/s | cp MB/s | ffmpeg copy MB/s | ours MB/s | ours/cp time | ours/ffmpeg time | "
          "peak RSS cat/cp/ffmpeg/ours (MiB) | cancel latency s | repaired |\n";
    md << "|---|---|---|---|---|---|---|---|---|---|---|\n";
    csv << "engine,mb,cat_s,cp_s,ffmpeg_s,ours_s,cat_kib,cp_kib,ffmpeg_kib,ours_kib,cancel_s,repaired\n";
    for (const Result& r : results) {
        md << "| " << r.name << " | " << Fixed(r.mb, 0) << " | " << Fixed(r.mb / r.cat, 0) << " | "
           << Fixed(r.mb / r.cp, 0) << " | " << Fixed(r.mb / r.ffmpeg, 0) << " | " << Fixed(r.mb / r.ours, 0) << " | "
           << Fixed(r.ours / r.cp, 2) << " | " << Fixed(r.ours / r.ffmpeg, 2) << " | " << r.catKiB / 1024 << "/"
           << r.cpKiB / 1024 << "/" << r.ffmpegKiB / 1024 << "/" << r.oursKiB / 1024 << " | "
           << (r.cancel < 0 ? std::string("n/a") : Fixed(r.cancel, 3)) << " | " << (r.repaired ? "yes" : "no")
           << " |\n";
        csv << r.name << "," << Fixed(r.mb, 1) << "," << Fixed(r.cat, 4) << "," << Fixed(r.cp, 4) << ","
            << Fixed(r.ffmpeg, 4) << "," << Fixed(r.ours, 4) << "," << r.catKiB << "," << r.cpKiB << ","
            << r.ffmpegKiB << "," << r.oursKiB << "," << Fixed(r.cancel, 4) << "," << int(r.repaired) << "\n";
    }
    std::ofstream(outDir + "/speed.md") << md.str();
    std::ofstream(outDir + "/speed.csv") << csv.str();
    std::printf("%s", md.str().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 6 && std::string(argv[1]) == "--child") return ChildMain(argc, argv);
    long long size = std::atoll(Arg(argc, argv, "--size", "1073741824").c_str());
    int runs = std::max(1, std::atoi(Arg(argc, argv, "--runs", "3").c_str()));
    const char* home = std::getenv("HOME");
    std::string cache = Arg(argc, argv, "--cache", std::string(home ? home : "/tmp") + "/.cache/videorepair-bench");
    std::string outDir = Arg(argc, argv, "--out", "bench/results");
    std::string only = Arg(argc, argv, "--only", "");
    std::string self = fs::canonical("/proc/self/exe").string();
    std::string library = (fs::path(self).parent_path() / "lib_videorepair.so").string();
    std::string scratch = cache + "/scratch";
    fs::create_directories(scratch);

    std::vector<Result> results;
    for (const Row& row : Rows()) {
        if (!only.empty() && row.name != only) continue;
        std::fprintf(stderr, "%s:\n", row.name.c_str());
        std::string damaged, sample;
        if (!Prepare(row, cache, size, damaged, sample)) {
            std::fprintf(stderr, "  could not generate input, skipped\n");
            continue;
        }
        results.push_back(Measure(row, self, library, damaged, sample, scratch, runs));
    }
    Report(results, outDir, size, runs);
    return 0;
}
