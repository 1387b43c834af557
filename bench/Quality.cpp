// Recovery quality: short clips per container and codec, damaged in the ways files
// get damaged, repaired three ways (our engine with a sample from the same settings,
// `videorepair remux`, ffmpeg's own error-tolerant stream copy) and scored against
// what survived in the damaged file.
//
//   vr_quality [--cache DIR] [--out DIR] [--only CONTAINER]
//
// Score: video frames that decode in the output / video frames of the original whose
// packet bytes all survived the damage; and decoded audio seconds in the output /
// decoded audio seconds of the original whose packet bytes survived.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace fs = std::filesystem;
using namespace bench;

namespace {

struct Codec {
    std::string container;  // engine row name
    std::string extension;
    std::string label;
    std::vector<std::string> args;
    double overhead;  // container bytes per payload byte, for interleaved packet layers (TS, PS)
};

std::vector<Codec> Corpus() {
    const double ts = 192.0 / 184.0 * 1.02, ps = 1.03;
    return {
        {"avi", "avi", "mjpeg+pcm", {"-c:v", "mjpeg", "-q:v", "3", "-c:a", "pcm_s16le"}, 1},
        {"avi", "avi", "mpeg4+mp3", {"-c:v", "mpeg4", "-g", "25", "-c:a", "libmp3lame"}, 1},
        {"flv", "flv", "flv1+mp3", {"-c:v", "flv1", "-q:v", "3", "-c:a", "libmp3lame", "-ar", "44100"}, 1},
        {"flv", "flv", "h264+aac", {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-c:a", "aac", "-ar", "44100"}, 1},
        {"mkv", "mkv", "h264+aac", {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-c:a", "aac"}, 1},
        {"mkv", "mkv", "mpeg4+pcm", {"-c:v", "mpeg4", "-g", "25", "-c:a", "pcm_s16le"}, 1},
        {"mts", "m2ts", "h264+ac3",
         {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-c:a", "ac3", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}, ts},
        {"mts", "m2ts", "mpeg2+mp2",
         {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "mp2", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}, ts},
        {"mpeg", "mpg", "mpeg2+mp2", {"-c:v", "mpeg2video", "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", "mpeg"}, ps},
        {"mpeg", "mpg", "mpeg1+mp2", {"-c:v", "mpeg1video", "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", "mpeg"}, ps},
        {"mxf", "mxf", "mpeg2+pcm",
         {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"}, 1},
        {"mxf", "mxf", "dv+pcm",
         {"-c:v", "dvvideo", "-s", "720x576", "-pix_fmt", "yuv420p", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"}, 1},
        {"wmv", "wmv", "wmv2+wmav2", {"-c:v", "wmv2", "-b:v", "1M", "-c:a", "wmav2"}, 1},
        {"wmv", "wmv", "wmv1+wmav1", {"-c:v", "wmv1", "-b:v", "1M", "-c:a", "wmav1"}, 1},
    };
}

// What a damage model did to the file: byte ranges whose content changed, and the
// length the file was cut to.
struct Damage {
    std::vector<std::pair<long long, long long>> ranges;  // [begin, end)
    long long keptSize = 0;
};

struct Model {
    std::string name;
    void (*apply)(std::string& bytes, Damage& d);
};

void Overwrite(std::string& bytes, Damage& d, long long at, long long length, bool random, unsigned seed) {
    at = std::clamp<long long>(at, 0, (long long)bytes.size());
    length = std::min<long long>(length, (long long)bytes.size() - at);
    std::mt19937 rng(seed);
    for (long long i = 0; i < length; ++i) bytes[size_t(at + i)] = random ? char(rng()) : '\0';
    d.ranges.push_back({at, at + length});
}

void Cut(std::string& bytes, Damage& d, double keep) {
    bytes.resize(size_t(double(bytes.size()) * keep));
}

std::vector<Model> Models() {
    return {
        {"header zeroed", [](std::string& b, Damage& d) { Overwrite(b, d, 0, 8192, false, 0); }},
        {"tail cut (last 10%)", [](std::string& b, Damage& d) { Cut(b, d, 0.9); }},
        {"3 ranges random (1% each)",
         [](std::string& b, Damage& d) {
             long long n = (long long)b.size();
             for (int i = 0; i < 3; ++i) Overwrite(b, d, n * (3 + 2 * i) / 10, n / 100, true, 11u + i);
         }},
        {"hole of zeros (5% at 45%)",
         [](std::string& b, Damage& d) {
             long long n = (long long)b.size();
             Overwrite(b, d, n * 45 / 100, n / 20, false, 0);
         }},
        {"cut at 60%", [](std::string& b, Damage& d) { Cut(b, d, 0.6); }},
        {"header zeroed + tail cut",
         [](std::string& b, Damage& d) {
             Overwrite(b, d, 0, 8192, false, 0);
             Cut(b, d, 0.9);
         }},
        {"40 scattered bit flips",
         [](std::string& b, Damage& d) {
             std::mt19937 rng(23);
             for (int i = 0; i < 40; ++i) {
                 long long at = (long long)(rng() % b.size());
                 b[size_t(at)] = char(b[size_t(at)] ^ (1 << (rng() % 8)));
                 d.ranges.push_back({at, at + 1});
             }
         }},
    };
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool Encode(const Codec& c, double seconds, bool sample, const std::string& out) {
    std::string d = std::to_string(seconds);
    std::vector<std::string> a = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                  std::string(sample ? "testsrc" : "testsrc2") + "=size=320x240:rate=25:duration=" + d,
                                  "-f", "lavfi", "-i",
                                  "sine=frequency=" + std::string(sample ? "660" : "440") + ":sample_rate=48000:duration=" + d};
    a.insert(a.end(), c.args.begin(), c.args.end());
    a.insert(a.end(), {"-threads", "1", out});
    return Run(a).exitCode == 0;
}

// Decoded frames of one stream: where their packet lay, its size, the frame's duration.
struct Frame {
    long long pos = -1, size = 0;
    double duration = 0;
};

std::string Field(const std::string& line, const std::string& key) {
    size_t at = line.find("|" + key + "=");
    if (at == std::string::npos) return std::string();
    at += key.size() + 2;
    return line.substr(at, line.find('|', at) - at);
}

std::vector<Frame> Frames(const std::string& path, const std::string& stream) {
    std::istringstream in(Capture({"ffprobe", "-v", "quiet", "-select_streams", stream, "-show_entries",
                                   "frame=pkt_pos,pkt_size,pkt_duration_time", "-of", "compact", path}));
    std::vector<Frame> out;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("frame|", 0) != 0) continue;
        Frame f;
        std::string pos = Field(line, "pkt_pos");
        f.pos = pos.empty() || pos == "N/A" ? -1 : std::atoll(pos.c_str());
        f.size = std::atoll(Field(line, "pkt_size").c_str());
        f.duration = std::atof(Field(line, "pkt_duration_time").c_str());
        out.push_back(f);
    }
    return out;
}

bool Survives(const Frame& p, const Damage& d, double overhead) {
    if (p.pos < 0) return false;
    long long end = p.pos + (long long)(double(p.size) * overhead);
    if (end > d.keptSize) return false;
    for (const auto& r : d.ranges)
        if (p.pos < r.second && r.first < end) return false;
    return true;
}

struct Score {
    long long frames = -1;  // decoded video frames; -1 when there is no output
    double audio = 0;       // seconds of audio packets
};

Score ScoreOf(const std::string& path) {
    Score s;
    if (path.empty() || !fs::exists(path) || fs::file_size(path) == 0) return s;
    s.frames = (long long)Frames(path, "v:0").size();
    for (const Frame& f : Frames(path, "a:0")) s.audio += f.duration;
    return s;
}

struct Case {
    std::string container, codec, damage;
    long long originalFrames = 0, survivingFrames = 0;
    double survivingAudio = 0;
    Score ours, remux, ffmpeg;
};

std::string RepairOurs(const std::string& bin, const std::string& damaged, const std::string& sample) {
    return TaggedLine(Capture({bin + "/vr_bench", "--child", "repair", bin + "/lib_videorepair.so", damaged, sample}),
                      "vr_bench-repaired");
}

std::string RepairRemux(const std::string& bin, const std::string& damaged, const std::string& dir,
                        const std::string& ext) {
    std::string out = dir + "/remux." + ext;
    Run({bin + "/videorepair", "remux", damaged, "-o", out, "--quiet", "--work-dir", dir + "/vr", "--log-dir",
         dir + "/vr"});
    return out;
}

std::string RepairFfmpeg(const std::string& damaged, const std::string& dir, const std::string& ext) {
    std::string out = dir + "/ffmpeg." + ext;
    Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-err_detect", "ignore_err", "-fflags",
         "+genpts+discardcorrupt", "-i", damaged, "-c", "copy", out});
    return out;
}

std::string Percent(long long got, long long of) {
    if (got < 0) return "fail";
    return of <= 0 ? std::to_string(got) : Fixed(100.0 * double(got) / double(of), 0) + "%";
}

std::string AudioText(double got, double of, const Score& s) {
    if (s.frames < 0) return "fail";
    return Fixed(got, 1) + (of > 0 ? " (" + Fixed(100 * got / of, 0) + "%)" : "");
}

void Report(const std::vector<Case>& cases, const std::string& outDir) {
    fs::create_directories(outDir);
    std::ostringstream md, csv;
    md << "# Recovery quality\n\n" << MachineText() << "; load average " << LoadText() << ".\n\n"
       << "4 s clips at 320x240, 25 fps, with a 48 kHz tone; the sample is 2 s of other content with the same "
          "settings. Video: frames that decode in the output as a share of the original's frames whose packet bytes "
          "survived the damage (more than 100% where damaged frames still decode). Audio: decoded seconds in the "
          "output (share of the original's audio whose packet bytes survived). "
          "ffmpeg: `-err_detect ignore_err -fflags +genpts+discardcorrupt -c copy`; remux: `videorepair remux`.\n\n";
    md << "| container | codecs | damage | frames orig/surviving | ours | remux | ffmpeg | audio s surviving | "
          "ours | remux | ffmpeg |\n|---|---|---|---|---|---|---|---|---|---|---|\n";
    csv << "container,codecs,damage,original_frames,surviving_frames,ours_frames,remux_frames,ffmpeg_frames,"
           "surviving_audio_s,ours_audio_s,remux_audio_s,ffmpeg_audio_s\n";
    for (const Case& c : cases) {
        md << "| " << c.container << " | " << c.codec << " | " << c.damage << " | " << c.originalFrames << "/"
           << c.survivingFrames << " | " << Percent(c.ours.frames, c.survivingFrames) << " | "
           << Percent(c.remux.frames, c.survivingFrames) << " | " << Percent(c.ffmpeg.frames, c.survivingFrames)
           << " | " << Fixed(c.survivingAudio, 1) << " | " << AudioText(c.ours.audio, c.survivingAudio, c.ours)
           << " | " << AudioText(c.remux.audio, c.survivingAudio, c.remux) << " | "
           << AudioText(c.ffmpeg.audio, c.survivingAudio, c.ffmpeg) << " |\n";
        csv << c.container << "," << c.codec << ",\"" << c.damage << "\"," << c.originalFrames << ","
            << c.survivingFrames << "," << c.ours.frames << "," << c.remux.frames << "," << c.ffmpeg.frames << ","
            << Fixed(c.survivingAudio, 3) << "," << Fixed(c.ours.audio, 3) << "," << Fixed(c.remux.audio, 3) << ","
            << Fixed(c.ffmpeg.audio, 3) << "\n";
    }
    // Per container: the weakest case against the 95% goal and against ffmpeg.
    md << "\n## Against the targets\n\n| container | cases | ours ≥ 95% of surviving frames | ours ≥ ffmpeg "
          "(frames) | lowest share |\n|---|---|---|---|---|\n";
    std::map<std::string, std::vector<const Case*>> by;
    for (const Case& c : cases) by[c.container].push_back(&c);
    for (const auto& [name, list] : by) {
        int good = 0, notWorse = 0;
        double lowest = 1e9;
        std::string where;
        for (const Case* c : list) {
            double share = c->survivingFrames > 0 ? double(std::max(0LL, c->ours.frames)) / double(c->survivingFrames) : 1;
            good += share >= 0.95;
            notWorse += c->ours.frames >= c->ffmpeg.frames;
            if (share < lowest) lowest = share, where = c->codec + ", " + c->damage;
        }
        md << "| " << name << " | " << list.size() << " | " << good << " | " << notWorse << " | "
           << Fixed(100 * lowest, 0) << "% (" << where << ") |\n";
    }
    std::ofstream(outDir + "/quality.md") << md.str();
    std::ofstream(outDir + "/quality.csv") << csv.str();
    std::printf("%s", md.str().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const char* home = std::getenv("HOME");
    std::string cache = Arg(argc, argv, "--cache", std::string(home ? home : "/tmp") + "/.cache/videorepair-bench") +
                        "/quality";
    std::string outDir = Arg(argc, argv, "--out", "bench/results");
    std::string only = Arg(argc, argv, "--only", "");
    std::string bin = fs::canonical("/proc/self/exe").parent_path().string();
    std::vector<Case> cases;
    for (const Codec& codec : Corpus()) {
        if (!only.empty() && codec.container != only) continue;
        std::string tag = codec.container + "_" + codec.label;
        std::replace(tag.begin(), tag.end(), '+', '_');
        std::string original = cache + "/" + tag + "_original." + codec.extension;
        std::string sample = cache + "/" + tag + "_sample." + codec.extension;
        fs::create_directories(cache);
        if ((!fs::exists(original) && !Encode(codec, 4, false, original)) ||
            (!fs::exists(sample) && !Encode(codec, 2, true, sample))) {
            std::fprintf(stderr, "%s: could not generate, skipped\n", tag.c_str());
            continue;
        }
        std::fprintf(stderr, "%s\n", tag.c_str());
        std::string bytes = ReadAll(original);
        std::vector<Frame> video = Frames(original, "v:0"), audio = Frames(original, "a:0");
        int index = 0;
        for (const Model& model : Models()) {
            Case c;
            c.container = codec.container, c.codec = codec.label, c.damage = model.name;
            std::string dir = cache + "/" + tag + "_" + std::to_string(index++);
            fs::remove_all(dir);
            fs::create_directories(dir);
            std::string damaged = dir + "/damaged." + codec.extension;
            std::string copy = bytes;
            Damage d;
            model.apply(copy, d);
            d.keptSize = (long long)copy.size();
            std::ofstream(damaged, std::ios::binary).write(copy.data(), std::streamsize(copy.size()));
            c.originalFrames = (long long)video.size();
            for (const Frame& p : video) c.survivingFrames += Survives(p, d, codec.overhead);
            for (const Frame& p : audio)
                if (Survives(p, d, codec.overhead)) c.survivingAudio += p.duration;
            c.ours = ScoreOf(RepairOurs(bin, damaged, sample));
            c.remux = ScoreOf(RepairRemux(bin, damaged, dir, codec.extension));
            c.ffmpeg = ScoreOf(RepairFfmpeg(damaged, dir, codec.extension));
            cases.push_back(c);
        }
    }
    Report(cases, outDir);
    return 0;
}
