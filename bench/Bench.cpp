// Speed and memory of each engine beside the tools a user would reach for instead:
// cat (page-cache read), cp (read + write), ffmpeg's stream copy, and our repair
// through the exported entry point. Each measurement runs in a child process so
// that its peak resident memory is its own.
//
//   vr_bench [--size BYTES] [--runs N] [--cache DIR] [--out DIR] [--only NAME]
//   vr_bench --child repair|cancel|thorough LIBRARY DAMAGED SAMPLE [OUTPUT] (internal, see RepairChild.h)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "BenchSupport.h"
#include "RepairChild.h"

namespace fs = std::filesystem;
using namespace bench;

namespace {

// One container: the codec settings of its "device" (the sample and the large input
// share them) and whether the engine hands its result to ffmpeg.
struct Row {
    std::string name;
    std::string extension;
    std::vector<std::string> codecArgs;  // after the lavfi inputs, including the muxer options
    std::vector<std::string> muxArgs;    // muxer options again for the container-level repeat
    bool runsFfmpeg;
    // The thorough road's goal: within this many times cp's time (0: none), or no
    // slower than ffmpeg's stream copy.
    double thoroughOverCp = 0;
    bool thoroughWithinFfmpeg = false;
    // The MP4 family: the compatible road refuses it, and its damage is the
    // recording that was never finished (the index at the end lost).
    bool compatible = true;
};

// Camera-like settings: 1280x720 at 25 fps with sound, at bit rates such devices record.
std::vector<Row> Rows() {
    return {
        {"avi", "avi", {"-c:v", "mjpeg", "-q:v", "3", "-c:a", "pcm_s16le"}, {}, false, 1.3},
        {"flv", "flv", {"-c:v", "flv1", "-q:v", "3", "-c:a", "libmp3lame", "-ar", "44100", "-b:a", "128k"}, {}, false, 1.3},
        {"mkv", "mkv",
         {"-c:v", "libx264", "-preset", "veryfast", "-b:v", "16M", "-g", "50", "-c:a", "aac", "-b:a", "192k"}, {}, false,
         1.3},
        {"mts", "m2ts",
         {"-c:v", "libx264", "-preset", "veryfast", "-b:v", "16M", "-g", "25", "-c:a", "ac3", "-b:a", "192k", "-f",
          "mpegts", "-mpegts_m2ts_mode", "1"},
         {"-f", "mpegts", "-mpegts_m2ts_mode", "1"}, false},
        {"mpeg", "mpg",
         {"-c:v", "mpeg2video", "-b:v", "15M", "-maxrate", "15M", "-bufsize", "2M", "-g", "12", "-c:a", "mp2", "-b:a",
          "224k", "-f", "mpeg"},
         {"-f", "mpeg"}, true},
        {"mxf", "mxf",
         {"-c:v", "mpeg2video", "-pix_fmt", "yuv422p", "-b:v", "50M", "-maxrate", "50M", "-bufsize", "8M", "-g", "12",
          "-bf", "0", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"},
         {}, true, 0, true},
        {"wmv", "wmv", {"-c:v", "wmv2", "-b:v", "12M", "-c:a", "wmav2", "-b:a", "192k"}, {}, true, 0, true},
        {"mp4", "mp4",
         {"-c:v", "libx264", "-preset", "veryfast", "-b:v", "16M", "-g", "50", "-c:a", "aac", "-b:a", "192k"}, {}, false,
         1.5, false, false},
    };
}

// Encodes `seconds` of test picture and tone with the row's settings. The sample gets
// other content (testsrc, 660 Hz) with the same settings, as from the same device.
bool Encode(const Row& row, double seconds, bool sample, const std::string& out) {
    std::string d = std::to_string(seconds);
    std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi",
                                  "-i", std::string(sample ? "testsrc" : "testsrc2") + "=size=1280x720:rate=25:duration=" + d,
                                  "-f", "lavfi", "-i",
                                  "sine=frequency=" + std::string(sample ? "660" : "440") + ":sample_rate=48000:duration=" + d};
    a.insert(a.end(), row.codecArgs.begin(), row.codecArgs.end());
    a.insert(a.end(), {"-threads", "2", out});
    return Run(a).exitCode == 0;
}

// The large input is one encoded segment repeated by ffmpeg's concat demuxer with a
// stream copy: timestamps continue across the joins and the muxer writes a proper
// container of the requested size, at disk speed instead of encoder speed.
bool Repeat(const Row& row, const std::string& segment, long long size, const std::string& out) {
    std::string list = out + ".txt";
    long long copies = size / std::max<long long>(1, fs::file_size(segment)) + 2;
    {
        std::ofstream l(list);
        for (long long i = 0; i < copies; ++i) l << "file '" << segment << "'\n";
    }
    std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-f", "concat",
                                  "-safe", "0", "-i", list, "-c", "copy", "-fs", std::to_string(size)};
    a.insert(a.end(), row.muxArgs.begin(), row.muxArgs.end());
    a.push_back(out);
    bool ok = Run(a).exitCode == 0;
    fs::remove(list);
    return ok;
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

// The recording that was never finished: the file ends where its top-level
// `moov` box began.
void CutIndex(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    long long at = 0, size = (long long)fs::file_size(path);
    unsigned char head[16];
    while (at + 16 <= size && f.seekg(at) && f.read(reinterpret_cast<char*>(head), 16)) {
        long long box = 0;
        for (int i = 0; i < 4; ++i) box = (box << 8) | head[i];
        if (box == 1) {
            box = 0;
            for (int i = 8; i < 16; ++i) box = (box << 8) | head[i];
        }
        if (std::string(reinterpret_cast<char*>(head) + 4, 4) == "moov") {
            f.close();
            fs::resize_file(path, std::uintmax_t(at));
            return;
        }
        if (box < 8) return;
        at += box;
    }
}

// Video packets of at least 64 bytes as libavformat reads them: a quick check that the
// repaired file holds the input's frames (tiny chunks, such as AVI index pieces that a
// rebuilt idx1 lists as video, are not frames).
long long VideoPackets(const std::string& path) {
    std::istringstream sizes(Capture({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                      "packet=size", "-of", "csv=p=0", path}));
    long long count = 0;
    for (long long size = 0; sizes >> size;) count += size >= 64;
    return count;
}

struct Input {
    std::string damaged, sample, source, folder;
    long long sourcePackets = 0;
    double generationSeconds = 0;
};

// Makes what is missing: sample, segment, large source, damaged copy (in a folder of its
// own, so repaired files written beside it are easy to find and remove).
bool Prepare(const Row& row, const std::string& cache, long long size, Input& in) {
    auto start = std::chrono::steady_clock::now();
    std::string tag = row.name + "_" + std::to_string(size);
    std::string segment = cache + "/" + row.name + "_segment." + row.extension;
    in.sample = cache + "/" + row.name + "_sample." + row.extension;
    in.source = cache + "/" + tag + "_source." + row.extension;
    in.folder = cache + "/" + tag;
    in.damaged = in.folder + "/damaged." + row.extension;
    auto make = [&](const std::string& path, auto&& how) {
        if (fs::exists(path)) return true;
        std::string part = path + ".part." + row.extension;
        if (!how(part)) return false;
        fs::rename(part, path);
        return true;
    };
    if (!make(in.sample, [&](const std::string& p) { return Encode(row, 4, true, p); })) return false;
    if (!make(segment, [&](const std::string& p) { return Encode(row, 12, false, p); })) return false;
    if (!fs::exists(in.source)) std::fprintf(stderr, "  generating %s (%lld MiB), cached\n", in.source.c_str(), size >> 20);
    if (!make(in.source, [&](const std::string& p) { return Repeat(row, segment, size, p); })) return false;
    std::string count = in.source + ".packets";
    if (!fs::exists(count)) std::ofstream(count) << VideoPackets(in.source);
    std::ifstream(count) >> in.sourcePackets;
    if (!fs::exists(in.damaged)) {
        fs::create_directories(in.folder);
        fs::copy_file(in.source, in.damaged + ".part");
        Damage(in.damaged + ".part");
        if (!row.compatible) CutIndex(in.damaged + ".part");
        fs::rename(in.damaged + ".part", in.damaged);
    }
    in.generationSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return true;
}

// Everything in the input's folder but the damaged file: repaired copies and work files.
void CleanBeside(const Input& in) {
    for (const auto& entry : fs::directory_iterator(in.folder))
        if (entry.path() != fs::path(in.damaged)) fs::remove_all(entry.path());
}

struct Result {
    std::string name;
    bool runsFfmpeg = false, compatible = true;
    double thoroughOverCp = 0;
    bool thoroughWithinFfmpeg = false;
    double mb = 0, load = 0;
    double cat = 0, cp = 0, ffmpeg = 0, ours = 0, oursPass = 0, oursChildCpu = 0, oursLoad = 0, cancel = -1;
    double thorough = 0, thoroughJudge = 0;
    // CPU seconds (user + system), and what the thorough repair read and wrote.
    double cpCpu = 0, ffmpegCpu = 0, thoroughCpu = 0;
    double thoroughReadGB = -1, thoroughWrittenGB = -1;
    long catKiB = 0, cpKiB = 0, ffmpegKiB = 0, oursKiB = 0, oursChildKiB = 0, thoroughKiB = 0;
    std::string thoroughVerdict = "fail";
    bool repaired = false;
    double keptShare = 0;  // video packets in the repaired file / in the undamaged source
};

// Each measurement starts with no other run's writes still going to the disk,
// which would otherwise slow whichever program comes next.
void Settle() {
    sync();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

// One run of our repair; returns the repaired path (kept for the first run's check).
std::string RunOurs(const std::string& self, const std::string& library, const Input& in, const std::string& scratch,
                    Result& r, std::vector<double>& total, std::vector<double>& pass, std::vector<double>& childCpus,
                    std::vector<double>& loads) {
    std::string listing = scratch + "/ours.txt";
    Measurement m = Run({self, "--child", "repair", library, in.damaged, in.sample}, listing);
    std::ifstream list(listing);
    std::string text((std::istreambuf_iterator<char>(list)), std::istreambuf_iterator<char>());
    std::string path = TaggedLine(text, "vr_bench-repaired");
    double passSeconds = 0, childCpu = 0, loading = 0;
    long childKiB = 0;
    std::istringstream(TaggedLine(text, "vr_bench-times")) >> passSeconds >> childKiB >> childCpu >> loading;
    total.push_back(m.seconds);
    pass.push_back(passSeconds);
    childCpus.push_back(childCpu);
    loads.push_back(loading);
    r.oursKiB = std::max(r.oursKiB, m.peakKiB);
    r.oursChildKiB = std::max(r.oursChildKiB, childKiB);
    r.repaired = m.exitCode == 0 && !path.empty() && fs::exists(path);
    return r.repaired ? path : std::string();
}

// One thorough repair, written into the scratch folder (nothing beside the input).
void RunThorough(const std::string& self, const std::string& library, const Input& in, const std::string& scratch,
                 const std::string& extension, Result& r, std::vector<double>& total, std::vector<double>& judge,
                 std::vector<double>& cpu) {
    std::string listing = scratch + "/thorough.txt", output = scratch + "/thorough." + extension;
    Measurement m = Run({self, "--child", "thorough", library, in.damaged, in.sample, output}, listing);
    std::ifstream list(listing);
    std::string text((std::istreambuf_iterator<char>(list)), std::istreambuf_iterator<char>());
    double judgeSeconds = 0;
    std::istringstream(TaggedLine(text, "vr_bench-judge")) >> judgeSeconds;
    std::istringstream verdict(TaggedLine(text, "vr_bench-thorough"));
    int rc = -1;
    verdict >> rc >> r.thoroughVerdict;
    double read = -1, written = -1;
    std::istringstream(TaggedLine(text, "vr_bench-io")) >> read >> written;
    if (read >= 0) r.thoroughReadGB = read / 1e9, r.thoroughWrittenGB = written / 1e9;
    total.push_back(m.seconds);
    cpu.push_back(m.cpuSeconds);
    judge.push_back(judgeSeconds);
    r.thoroughKiB = std::max(r.thoroughKiB, m.peakKiB);
    fs::remove(output);
}

void MeasureCancel(const std::string& self, const std::string& library, const Input& in, int runs, Result& r) {
    std::vector<double> latencies;
    for (int i = 0; i < runs; ++i) {
        std::istringstream out(TaggedLine(Capture({self, "--child", "cancel", library, in.damaged, in.sample}),
                                          "vr_bench-cancel"));
        double latency = -1;
        int early = 0;
        out >> latency >> early;
        if (early) latencies.push_back(latency);
        CleanBeside(in);
    }
    if (!latencies.empty()) r.cancel = Median(latencies);
}

Result Measure(const Row& row, const std::string& self, const std::string& library, const Input& in,
               const std::string& scratch, int runs) {
    Result r;
    r.name = row.name;
    r.runsFfmpeg = row.runsFfmpeg;
    r.compatible = row.compatible;
    r.thoroughOverCp = row.thoroughOverCp;
    r.thoroughWithinFfmpeg = row.thoroughWithinFfmpeg;
    r.load = std::atof(LoadText().c_str());
    r.mb = double(fs::file_size(in.damaged)) / 1e6;
    std::vector<double> cat, cp, ff, ours, pass, childCpus, loads, thorough, judge, cpCpu, ffCpu, thoroughCpu;
    for (int i = 0; i < runs; ++i) {
        Settle();
        Measurement m = Run({"cat", in.damaged});
        cat.push_back(m.seconds);
        r.catKiB = std::max(r.catKiB, m.peakKiB);
        Settle();
        m = Run({"cp", in.damaged, scratch + "/copy"});
        cp.push_back(m.seconds);
        cpCpu.push_back(m.cpuSeconds);
        r.cpKiB = std::max(r.cpKiB, m.peakKiB);
        fs::remove(scratch + "/copy");
        std::string ffOut = scratch + "/ffcopy." + row.extension;
        Settle();
        m = Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-err_detect", "ignore_err", "-i", in.damaged, "-c",
                 "copy", ffOut});
        ff.push_back(m.seconds);
        ffCpu.push_back(m.cpuSeconds);
        r.ffmpegKiB = std::max(r.ffmpegKiB, m.peakKiB);
        fs::remove(ffOut);
        if (row.compatible) {
            Settle();
            std::string repaired = RunOurs(self, library, in, scratch, r, ours, pass, childCpus, loads);
            if (i == 0 && !repaired.empty() && in.sourcePackets > 0)
                r.keptShare = double(VideoPackets(repaired)) / double(in.sourcePackets);
            CleanBeside(in);
        }
        Settle();
        RunThorough(self, library, in, scratch, row.extension, r, thorough, judge, thoroughCpu);
        CleanBeside(in);
    }
    r.thorough = Median(thorough), r.thoroughJudge = Median(judge);
    r.cpCpu = Median(cpCpu), r.ffmpegCpu = Median(ffCpu), r.thoroughCpu = Median(thoroughCpu);
    r.cat = Median(cat), r.cp = Median(cp), r.ffmpeg = Median(ff), r.ours = Median(ours), r.oursPass = Median(pass);
    r.oursChildCpu = Median(childCpus);
    r.oursLoad = Median(loads);
    if (row.compatible) MeasureCancel(self, library, in, runs, r);
    return r;
}

// ---- report ------------------------------------------------------------------

std::string Mark(bool met) { return met ? "met" : "**missed**"; }

std::string ThoroughTarget(const Result& r) {
    if (r.thoroughWithinFfmpeg)
        return "thorough/ffmpeg " + Fixed(r.thorough / r.ffmpeg, 2) + " ≤ 1 " + Mark(r.thorough <= r.ffmpeg);
    if (r.thoroughOverCp > 0)
        return "thorough/cp " + Fixed(r.thorough / r.cp, 2) + " ≤ " + Fixed(r.thoroughOverCp, 1) + " " +
               Mark(r.thorough <= r.thoroughOverCp * r.cp);
    return "thorough: no speed goal";
}

std::string TargetText(const Result& r) {
    if (!r.compatible) return "compatible road refuses the container; " + ThoroughTarget(r);
    std::string speed = r.runsFfmpeg
                            ? "ours/ffmpeg " + Fixed(r.ours / r.ffmpeg, 2) + " ≤ 1.3 " + Mark(r.ours <= 1.3 * r.ffmpeg)
                            : "ours/cp " + Fixed(r.ours / r.cp, 2) + " ≤ 1.5 " + Mark(r.ours <= 1.5 * r.cp) +
                                  "; ffmpeg/ours " + Fixed(r.ffmpeg / r.ours, 1) + " ≥ 10 " +
                                  Mark(r.ffmpeg >= 10 * r.ours);
    std::string memory = "RSS " + std::to_string(r.oursKiB / 1024) + " MiB " + Mark(r.oursKiB <= 64 * 1024);
    std::string cancel = r.cancel < 0 ? "cancel n/a" : "cancel " + Fixed(r.cancel, 2) + " s " + Mark(r.cancel <= 0.6);
    return speed + "; " + memory + "; " + cancel + "; " + ThoroughTarget(r);
}

void Report(const std::vector<Result>& results, const std::string& outDir, long long size, int runs,
            const std::string& loadBefore, double generation) {
    fs::create_directories(outDir);
    std::ostringstream md, csv;
    md << "# Engine speed and memory\n\n"
       << MachineText() << ".\nInput " << (size >> 20) << " MiB per engine, lightly damaged (three 64 KiB ranges of "
       << "random bytes); median of " << runs << " runs. Load average " << loadBefore << " before, " << LoadText()
       << " after; inputs generated in " << Fixed(generation, 0) << " s this run (0 when cached).\n\n";
    md << "| engine | MB | load | cat MB/s | cp MB/s | ffmpeg copy MB/s | ours MB/s | ours: library load + engine pass + output s "
          "| ours/cp time | ours/ffmpeg time | peak RSS MiB cat/cp/ffmpeg/ours (+ffmpeg it ran) | cancel s | "
          "video packets kept |\n";
    md << "|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    csv << "engine,mb,load,cat_s,cp_s,ffmpeg_s,ours_s,ours_load_s,ours_pass_s,cat_kib,cp_kib,ffmpeg_kib,ours_kib,ours_ffmpeg_kib,ours_ffmpeg_cpu_s,"
           "cancel_s,repaired,video_packets_kept,thorough_s,thorough_judge_s,thorough_kib,thorough_verdict\n";
    for (const Result& r : results) {
        csv << r.name << "," << Fixed(r.mb, 1) << "," << Fixed(r.load, 2) << "," << Fixed(r.cat, 4) << ","
            << Fixed(r.cp, 4) << "," << Fixed(r.ffmpeg, 4) << "," << Fixed(r.ours, 4) << "," << Fixed(r.oursLoad, 4) << "," << Fixed(r.oursPass, 4)
            << "," << r.catKiB << "," << r.cpKiB << "," << r.ffmpegKiB << "," << r.oursKiB << "," << r.oursChildKiB
            << "," << Fixed(r.oursChildCpu, 3) << "," << Fixed(r.cancel, 4) << "," << int(r.repaired) << "," << Fixed(r.keptShare, 4)
            << "," << Fixed(r.thorough, 4) << "," << Fixed(r.thoroughJudge, 4) << "," << r.thoroughKiB << ","
            << r.thoroughVerdict << "\n";
        md << "| " << r.name << " | " << Fixed(r.mb, 0) << " | " << Fixed(r.load, 1) << " | " << Fixed(r.mb / r.cat, 0)
           << " | " << Fixed(r.mb / r.cp, 0) << " | " << Fixed(r.mb / r.ffmpeg, 0) << " | ";
        if (!r.compatible) {
            md << "refused | | | | " << r.catKiB / 1024 << "/" << r.cpKiB / 1024 << "/" << r.ffmpegKiB / 1024
               << "/- | n/a | |\n";
            continue;
        }
        md << Fixed(r.mb / r.ours, 0)
           << " | " << Fixed(r.oursLoad, 2) << " + " << Fixed(r.oursPass, 2) << " + "
           << Fixed(r.ours - r.oursPass - r.oursLoad, 2)
           << (r.runsFfmpeg ? " (ffmpeg CPU " + Fixed(r.oursChildCpu, 1) + ")" : std::string()) << " | "
           << Fixed(r.ours / r.cp, 2) << " | " << Fixed(r.ours / r.ffmpeg, 2) << " | " << r.catKiB / 1024 << "/"
           << r.cpKiB / 1024 << "/" << r.ffmpegKiB / 1024 << "/" << r.oursKiB / 1024
           << (r.runsFfmpeg ? " (+" + std::to_string(r.oursChildKiB / 1024) + ")" : std::string()) << " | "
           << (r.cancel < 0 ? std::string("n/a") : Fixed(r.cancel, 3)) << " | "
           << (r.repaired ? Fixed(100 * r.keptShare, 1) + "%" : std::string("not repaired")) << " |\n";
    }
    md << "\n## Thorough repair\n\nIn process, written into another folder; the judge's share is its time "
          "spent counting and decoding what each candidate holds. CPU seconds are user and system time; where a "
          "virtual machine makes page-cache writes slow at times, they and the bytes moved tell more than the "
          "clock.\n\n| engine | thorough s | of which judge s | thorough without judge / ffmpeg copy | CPU s cp / "
          "ffmpeg copy / thorough | thorough read + written GB | peak RSS MiB | verdict |\n"
          "|---|---|---|---|---|---|---|---|\n";
    for (const Result& r : results) {
        md << "| " << r.name << " | " << Fixed(r.thorough, 2) << " | " << Fixed(r.thoroughJudge, 2) << " | "
           << Fixed((r.thorough - r.thoroughJudge) / r.ffmpeg, 2) << " | " << Fixed(r.cpCpu, 2) << " / "
           << Fixed(r.ffmpegCpu, 2) << " / " << Fixed(r.thoroughCpu, 2) << " | " << Fixed(r.thoroughReadGB, 2)
           << " + " << Fixed(r.thoroughWrittenGB, 2) << " | " << r.thoroughKiB / 1024 << " | " << r.thoroughVerdict
           << " |\n";
    }
    md << "\n## Targets\n\n| engine | targets |\n|---|---|\n";
    for (const Result& r : results) md << "| " << r.name << " | " << TargetText(r) << " |\n";
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
    std::string loadBefore = LoadText();

    std::vector<Result> results;
    double generation = 0;
    for (const Row& row : Rows()) {
        if (!only.empty() && row.name != only) continue;
        std::fprintf(stderr, "%s:\n", row.name.c_str());
        Input in;
        if (!Prepare(row, cache, size, in)) {
            std::fprintf(stderr, "  could not generate input, skipped\n");
            continue;
        }
        generation += in.generationSeconds;
        results.push_back(Measure(row, self, library, in, scratch, runs));
        std::fprintf(stderr, "  ours %.2f s, cp %.2f s, ffmpeg %.2f s\n", results.back().ours, results.back().cp,
                     results.back().ffmpeg);
    }
    Report(results, outDir, size, runs, loadBefore, generation);
    return 0;
}
