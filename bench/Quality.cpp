// Recovery quality: short clips per container, made by several writers and codecs,
// damaged in the ways files get damaged, and compared four ways: the damaged file as
// it is, ffmpeg's own error-tolerant stream copy, the compatible repair (Repair, with a
// sample from the same writer) and the thorough repair (RepairWithOptions with
// kRepairOptionThorough).
//
//   vr_quality [--cache DIR] [--out DIR] [--only CONTAINER] [--writers LIST] [--jobs N]
//
// LIST: comma-separated writer names (ffmpeg, gstreamer, mkvmerge, mencoder, yamdi);
// writers whose program is missing are skipped and named in the report. N: writers
// benchmarked at once (default 1; the scores do not depend on it).
//
// Scores of each output, all from one decode (ffmpeg's framemd5 of the first video and
// audio stream):
//  - decodable video frames, as a share of the original's frames whose packet bytes all
//    survived the damage;
//  - bit-exact video frames: output frames whose picture MD5 is one of the original's
//    (each original frame counted once), as a share of the original's frames;
//  - decoded audio seconds, beside the original's audio whose packet bytes survived.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"

namespace fs = std::filesystem;
using namespace bench;

namespace {

constexpr double kClipSeconds = 4, kSampleSeconds = 2;
constexpr double kRepairLimitSeconds = 300;  // per repair child; a hang shows as "fail"

// One clip to make: the original (testsrc2, 440 Hz) or the sample (testsrc, 660 Hz).
struct Clip {
    double seconds;
    bool sample;
};

// Writes the clip to `out`; `scratch` is a directory for intermediate files.
using Maker = std::function<bool(const Clip&, const std::string& out, const std::string& scratch)>;

struct Writer {
    std::string container;  // engine row name
    std::string extension;
    std::string writer;     // family (what --writers selects) and variant, e.g. "ffmpeg vob"
    std::string label;      // codecs
    std::string program;    // must be on PATH besides ffmpeg
    Maker make;
    double overhead;        // container bytes per payload byte, for interleaved packet layers (TS, PS)
};

std::string Family(const Writer& w) { return w.writer.substr(0, w.writer.find(' ')); }

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

std::vector<std::string> Lavfi(const Clip& c, int audioRate = 48000) {
    std::string d = std::to_string(c.seconds);
    return {"-f", "lavfi", "-i",
            std::string(c.sample ? "testsrc" : "testsrc2") + "=size=320x240:rate=25:duration=" + d, "-f", "lavfi", "-i",
            "sine=frequency=" + std::string(c.sample ? "660" : "440") + ":sample_rate=" + std::to_string(audioRate) +
                ":duration=" + d};
}

bool FfmpegEncode(const Clip& c, const std::vector<std::string>& args, const std::string& out) {
    std::vector<std::string> a = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y"};
    std::vector<std::string> in = Lavfi(c);
    a.insert(a.end(), in.begin(), in.end());
    a.insert(a.end(), args.begin(), args.end());
    a.insert(a.end(), {"-threads", "1", out});
    return Run(a).exitCode == 0 && fs::exists(out) && fs::file_size(out) > 0;
}

Maker Ffmpeg(std::vector<std::string> args) {
    return [args](const Clip& c, const std::string& out, const std::string&) { return FfmpegEncode(c, args, out); };
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool WriteAll(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return bool(out);
}

// A 188-byte transport stream from ffmpeg with 16 bytes after every packet, as
// 204-byte (Reed-Solomon sized) recorders write it; the pad bytes are zeros.
Maker Ts204(std::vector<std::string> args) {
    return [args](const Clip& c, const std::string& out, const std::string& scratch) {
        std::string ts = scratch + "/188.ts";
        if (!FfmpegEncode(c, args, ts)) return false;
        std::string in = ReadAll(ts), padded;
        if (in.empty() || in.size() % 188 != 0) return false;
        padded.reserve(in.size() / 188 * 204);
        for (size_t at = 0; at < in.size(); at += 188) padded.append(in, at, 188).append(16, '\0');
        return WriteAll(out, padded);
    };
}

// ffmpeg encodes, then another program rewrites the container: {program, args..., IN, OUT}
// with "IN" and "OUT" standing for the paths.
Maker Rewrap(std::vector<std::string> args, std::string extension, std::vector<std::string> command) {
    return [args, extension, command](const Clip& c, const std::string& out, const std::string& scratch) {
        std::string in = scratch + "/in." + extension;
        if (!FfmpegEncode(c, args, in)) return false;
        std::vector<std::string> a;
        for (const std::string& s : command) a.push_back(s == "IN" ? in : s == "OUT" ? out : s);
        Measurement m = Run(a, "/dev/null", 120);
        // mkvmerge answers 1 for warnings with a good file.
        return (m.exitCode == 0 || m.exitCode == 1) && fs::exists(out) && fs::file_size(out) > 0;
    };
}

// A GStreamer pipeline from videotestsrc and audiotestsrc: `video` and `audio` are
// the encoder chains, `mux` the muxer element (named m).
Maker Gstreamer(std::string video, std::string audio, std::string mux, int audioRate = 48000) {
    return [=](const Clip& c, const std::string& out, const std::string&) {
        int frames = int(c.seconds * 25), perBuffer = audioRate / 25;
        std::string pipeline =
            "videotestsrc num-buffers=" + std::to_string(frames) + " pattern=" + (c.sample ? "smpte horizontal-speed=3" : "ball") +
            " ! video/x-raw,width=320,height=240,framerate=25/1 ! videoconvert ! " + video + " ! " + mux +
            " name=m ! filesink location=" + out + " audiotestsrc num-buffers=" + std::to_string(frames) +
            " samplesperbuffer=" + std::to_string(perBuffer) + " freq=" + (c.sample ? "660" : "440") +
            " ! audio/x-raw,rate=" + std::to_string(audioRate) + ",channels=2 ! audioconvert ! " + audio + " ! m.";
        std::vector<std::string> a = {"gst-launch-1.0", "-q", "-e"};
        std::istringstream words(pipeline);
        for (std::string w; words >> w;) a.push_back(w);
        return Run(a, "/dev/null", 120).exitCode == 0 && fs::exists(out) && fs::file_size(out) > 0;
    };
}

std::vector<Writer> Corpus() {
    const double ts = 192.0 / 184.0 * 1.02, ts188 = 188.0 / 184.0 * 1.02, ts204 = 204.0 / 184.0 * 1.02, ps = 1.03;
    // lavfi's testsrc (the sample) is RGB, for which libx264 would choose 4:4:4 while
    // testsrc2 (the original) gets 4:2:0: the same settings need the format named.
    const std::vector<std::string> x264 = {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-preset", "veryfast", "-g", "25"};
    auto with = [](std::vector<std::string> a, std::vector<std::string> b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const std::string gx264 = "x264enc key-int-max=25 speed-preset=veryfast threads=1 ! h264parse";
    return {
        {"avi", "avi", "ffmpeg", "mjpeg+pcm", "", Ffmpeg({"-c:v", "mjpeg", "-q:v", "3", "-c:a", "pcm_s16le"}), 1},
        {"avi", "avi", "ffmpeg", "mpeg4+mp3", "", Ffmpeg({"-c:v", "mpeg4", "-g", "25", "-c:a", "libmp3lame"}), 1},
        {"avi", "avi", "ffmpeg", "h264+mp3", "", Ffmpeg(with(x264, {"-c:a", "libmp3lame"})), 1},
        {"avi", "avi", "mencoder", "mpeg4+mp3", "mencoder",
         Rewrap({"-c:v", "mpeg4", "-g", "25", "-c:a", "libmp3lame"}, "avi",
                {"mencoder", "IN", "-ovc", "copy", "-oac", "copy", "-o", "OUT"}),
         1},
        {"avi", "avi", "gstreamer", "h264+mp3", "gst-launch-1.0",
         Gstreamer(gx264, "lamemp3enc ! mpegaudioparse", "avimux"), 1},
        {"flv", "flv", "ffmpeg", "flv1+mp3", "", Ffmpeg({"-c:v", "flv1", "-q:v", "3", "-c:a", "libmp3lame", "-ar", "44100"}), 1},
        {"flv", "flv", "ffmpeg", "h264+aac", "", Ffmpeg(with(x264, {"-c:a", "aac", "-ar", "44100"})), 1},
        {"flv", "flv", "yamdi", "h264+aac", "yamdi",
         Rewrap(with(x264, {"-c:a", "aac", "-ar", "44100"}), "flv", {"yamdi", "-i", "IN", "-o", "OUT"}), 1},
        {"flv", "flv", "gstreamer", "h264+mp3", "gst-launch-1.0",
         Gstreamer(gx264, "lamemp3enc ! mpegaudioparse", "flvmux", 44100), 1},
        {"mkv", "mkv", "ffmpeg", "h264+aac", "", Ffmpeg(with(x264, {"-c:a", "aac"})), 1},
        {"mkv", "mkv", "ffmpeg", "mpeg4+pcm", "", Ffmpeg({"-c:v", "mpeg4", "-g", "25", "-c:a", "pcm_s16le"}), 1},
        {"mkv", "mkv", "ffmpeg", "vp9+opus", "",
         Ffmpeg({"-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8", "-b:v", "500k", "-g", "25", "-c:a",
                 "libopus"}),
         1},
        {"mkv", "mkv", "ffmpeg", "mpeg2+mp2", "", Ffmpeg({"-c:v", "mpeg2video", "-g", "12", "-b:v", "2M", "-c:a", "mp2"}), 1},
        {"mkv", "mkv", "mkvmerge", "h264+aac", "mkvmerge",
         Rewrap(with(x264, {"-c:a", "aac"}), "mkv", {"mkvmerge", "-q", "-o", "OUT", "IN"}), 1},
        {"mkv", "mkv", "gstreamer", "h264+vorbis", "gst-launch-1.0", Gstreamer(gx264, "vorbisenc", "matroskamux"), 1},
        {"mts", "m2ts", "ffmpeg 192", "h264+ac3",
         "", Ffmpeg(with(x264, {"-c:a", "ac3", "-f", "mpegts", "-mpegts_m2ts_mode", "1"})), ts},
        {"mts", "m2ts", "ffmpeg 192", "h264+aac",
         "", Ffmpeg(with(x264, {"-c:a", "aac", "-f", "mpegts", "-mpegts_m2ts_mode", "1"})), ts},
        {"mts", "m2ts", "ffmpeg 192", "mpeg2+mp2", "",
         Ffmpeg({"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "mp2", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}), ts},
        {"mts", "mts", "ffmpeg 188", "h264+aac", "", Ffmpeg(with(x264, {"-c:a", "aac", "-f", "mpegts"})), ts188},
        {"mts", "mts", "ffmpeg 204 (padded)", "mpeg2+mp2", "",
         Ts204({"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "mp2", "-f", "mpegts"}), ts204},
        {"mts", "mts", "gstreamer 188", "h264+aac", "gst-launch-1.0",
         Gstreamer(gx264, "avenc_aac ! aacparse", "mpegtsmux"), ts188},
        {"mpeg", "mpg", "ffmpeg mpeg-1 system", "mpeg2+mp2",
         "", Ffmpeg({"-c:v", "mpeg2video", "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", "mpeg"}), ps},
        {"mpeg", "mpg", "ffmpeg mpeg-1 system", "mpeg1+mp2",
         "", Ffmpeg({"-c:v", "mpeg1video", "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", "mpeg"}), ps},
        {"mpeg", "mpg", "ffmpeg vob", "mpeg2+ac3",
         "", Ffmpeg({"-c:v", "mpeg2video", "-g", "12", "-b:v", "2M", "-c:a", "ac3", "-f", "vob"}), ps},
        {"mxf", "mxf", "ffmpeg", "mpeg2+pcm", "",
         Ffmpeg({"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"}), 1},
        {"mxf", "mxf", "ffmpeg", "dv+pcm", "",
         Ffmpeg({"-c:v", "dvvideo", "-s", "720x576", "-pix_fmt", "yuv420p", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"}), 1},
        {"wmv", "wmv", "ffmpeg", "wmv2+wmav2", "", Ffmpeg({"-c:v", "wmv2", "-b:v", "1M", "-c:a", "wmav2"}), 1},
        {"wmv", "wmv", "ffmpeg", "wmv1+wmav1", "", Ffmpeg({"-c:v", "wmv1", "-b:v", "1M", "-c:a", "wmav1"}), 1},
        // As phones, action cameras and screen recorders write them: the index last,
        // 4:2:0 pictures (the sample's testsrc is RGB and would otherwise be 4:4:4).
        {"mp4", "mp4", "ffmpeg", "h264+aac", "", Ffmpeg(with(x264, {"-pix_fmt", "yuv420p", "-c:a", "aac"})), 1},
        {"mp4", "mp4", "ffmpeg", "hevc+aac", "",
         Ffmpeg({"-c:v", "libx265", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p", "-x265-params",
                 "log-level=none", "-c:a", "aac"}),
         1},
        {"mp4", "mov", "ffmpeg", "h264+pcm", "", Ffmpeg(with(x264, {"-pix_fmt", "yuv420p", "-c:a", "pcm_s16le"})), 1},
        {"mp4", "mov", "ffmpeg", "mjpeg+pcm", "",
         Ffmpeg({"-c:v", "mjpeg", "-q:v", "3", "-pix_fmt", "yuvj420p", "-c:a", "pcm_s16le"}), 1},
        {"mp4", "mp4", "ffmpeg fragmented", "h264+aac", "",
         Ffmpeg(with(x264, {"-pix_fmt", "yuv420p", "-c:a", "aac", "-movflags", "frag_keyframe+empty_moov"})), 1},
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
    bool isoOnly = false;  // only for files with an ISO base media index (moov)
};

void Overwrite(std::string& bytes, Damage& d, long long at, long long length, bool random, unsigned seed) {
    at = std::clamp<long long>(at, 0, (long long)bytes.size());
    length = std::min<long long>(length, (long long)bytes.size() - at);
    std::mt19937 rng(seed);
    for (long long i = 0; i < length; ++i) bytes[size_t(at + i)] = random ? char(rng()) : '\0';
    d.ranges.push_back({at, at + length});
}

void Cut(std::string& bytes, Damage&, double keep) { bytes.resize(size_t(double(bytes.size()) * keep)); }

unsigned long long Be(const std::string& b, size_t at, int n) {
    unsigned long long v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | (unsigned char)b[at + size_t(i)];
    return v;
}

// Where a top-level box of this type starts; npos when there is none.
size_t TopLevelBox(const std::string& b, const char* type) {
    for (size_t at = 0; at + 8 <= b.size();) {
        unsigned long long size = Be(b, at, 4);
        if (size == 1 && at + 16 <= b.size()) size = Be(b, at + 8, 8);
        if (b.compare(at + 4, 4, type) == 0) return at;
        if (size < 8) break;
        at += size_t(size);
    }
    return std::string::npos;
}

// The recording stopped before the index (written last) was: the file ends where
// the moov would begin, and the media data's size is the 0 a writer puts first
// where `sizeZero`.
void IndexLost(std::string& b, bool sizeZero) {
    size_t moov = TopLevelBox(b, "moov"), mdat = TopLevelBox(b, "mdat");
    if (moov == std::string::npos || mdat == std::string::npos || moov < mdat) return;
    b.resize(moov);
    if (sizeZero) b.replace(mdat, 4, std::string(4, '\0'));
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
        {"index lost (recording stopped)", [](std::string& b, Damage&) { IndexLost(b, false); }, true},
        {"index lost, mdat size 0, cut at 70%",
         [](std::string& b, Damage& d) {
             IndexLost(b, true);
             Cut(b, d, 0.7);
         },
         true},
        {"index lost + noise (1% at 50%)",
         [](std::string& b, Damage& d) {
             IndexLost(b, false);
             long long n = (long long)b.size();
             Overwrite(b, d, n / 2, n / 100, true, 31u);
         },
         true},
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

// Decoded frames of one stream as ffprobe reports them: where their packet lay, its
// size, the frame's duration. Used for the original only, to know what survived.
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

// One decode of a file: the MD5 of every decoded picture of its first video stream and
// the decoded seconds of its first audio stream. Timestamps pass through as they are,
// so no frame is dropped or repeated on the way.
struct Decoded {
    std::vector<std::string> video;
    double audioSeconds = 0;
};

Decoded Decode(const std::string& path) {
    std::istringstream in(Capture({"ffmpeg", "-nostdin", "-loglevel", "quiet", "-i", path, "-map", "0:v:0?", "-map",
                                   "0:a:0?", "-fps_mode", "passthrough", "-f", "framemd5", "-"},
                                  kRepairLimitSeconds));
    Decoded d;
    std::map<int, std::string> kind;
    std::map<int, double> timeBase;
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) continue;
        if (line[0] == '#') {
            int index = 0;
            char value[64] = {0};
            unsigned num = 0, den = 0;
            if (std::sscanf(line.c_str(), "#tb %d: %u/%u", &index, &num, &den) == 3 && den != 0)
                timeBase[index] = double(num) / double(den);
            else if (std::sscanf(line.c_str(), "#media_type %d: %63s", &index, value) == 2)
                kind[index] = value;
            continue;
        }
        // stream, dts, pts, duration, size, hash
        std::vector<std::string> cols;
        std::istringstream fields(line);
        for (std::string f; std::getline(fields, f, ',');) cols.push_back(Trim(f));
        if (cols.size() < 6) continue;
        int index = std::atoi(cols[0].c_str());
        if (kind[index] == "video")
            d.video.push_back(cols[5]);
        else if (kind[index] == "audio")
            d.audioSeconds += double(std::atoll(cols[3].c_str())) * timeBase[index];
    }
    return d;
}

struct Score {
    long long frames = -1;  // decodable video frames; -1 when there is no output
    long long exact = 0;    // of those, bit-exact copies of an original frame
    double audio = 0;       // decoded audio seconds
};

Score ScoreOf(const std::string& path, const std::unordered_map<std::string, int>& original) {
    Score s;
    std::error_code ec;
    if (path.empty() || !fs::exists(path, ec) || fs::file_size(path, ec) == 0) return s;
    Decoded d = Decode(path);
    s.frames = (long long)d.video.size();
    s.audio = d.audioSeconds;
    std::unordered_map<std::string, int> left = original;
    for (const std::string& hash : d.video) {
        auto it = left.find(hash);
        if (it != left.end() && it->second > 0) --it->second, ++s.exact;
    }
    return s;
}

struct Case {
    std::string container, writer, codec, damage;
    long long originalFrames = 0, survivingFrames = 0;
    double originalAudio = 0, survivingAudio = 0;
    Score asIs, ffmpeg, compatible, thorough;
    std::string verdict = "fail", reason;
};

std::string RepairCompatible(const std::string& bin, const std::string& damaged, const std::string& sample) {
    return TaggedLine(Capture({bin + "/vr_bench", "--child", "repair", bin + "/lib_videorepair.so", damaged, sample},
                              kRepairLimitSeconds),
                      "vr_bench-repaired");
}

std::string RepairThorough(const std::string& bin, const std::string& damaged, const std::string& sample,
                           const std::string& output, Case& c) {
    std::string text = Capture(
        {bin + "/vr_bench", "--child", "thorough", bin + "/lib_videorepair.so", damaged, sample, output},
        kRepairLimitSeconds);
    std::string line = TaggedLine(text, "vr_bench-thorough");
    if (line.empty()) {
        c.verdict = "fail", c.reason = "no answer (crashed or over the time limit)";
        return std::string();
    }
    std::istringstream in(line);
    int rc = -1;
    in >> rc >> c.verdict;
    std::getline(in, c.reason);
    c.reason = Trim(c.reason);
    return TaggedLine(text, "vr_bench-repaired");
}

std::string RepairFfmpeg(const std::string& damaged, const std::string& dir, const std::string& ext) {
    std::string out = dir + "/ffmpeg." + ext;
    Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-err_detect", "ignore_err", "-fflags",
         "+genpts+discardcorrupt", "-i", damaged, "-c", "copy", out},
        "/dev/null", kRepairLimitSeconds);
    return out;
}

std::string Percent(long long got, long long of) {
    if (got < 0) return "fail";
    return of <= 0 ? std::to_string(got) : Fixed(100.0 * double(got) / double(of), 0) + "%";
}

std::string AudioText(const Score& s, double of) {
    if (s.frames < 0) return "fail";
    return Fixed(s.audio, 1) + (of > 0 ? " (" + Fixed(100 * s.audio / of, 0) + "%)" : "");
}

std::string CsvText(std::string s) {
    std::string out = "\"";
    for (char ch : s) out += ch == '"' ? std::string("\"\"") : std::string(1, ch);
    return out + "\"";
}

double ExactShare(const Score& s, long long of) { return of > 0 ? double(std::max(0LL, s.exact)) / double(of) : 1; }

const char* const kColumns[] = {"as is", "ffmpeg", "compatible", "thorough"};
const Score& Column(const Case& c, int i) {
    return i == 0 ? c.asIs : i == 1 ? c.ffmpeg : i == 2 ? c.compatible : c.thorough;
}

// Cases where the thorough repair keeps fewer bit-exact frames than `other` by more
// than 2% of the original's frames, with the worst of them.
std::string BelowText(const std::vector<const Case*>& list, int other) {
    int count = 0;
    double worst = 0;
    std::string where;
    for (const Case* c : list) {
        double gap = ExactShare(Column(*c, other), c->originalFrames) - ExactShare(c->thorough, c->originalFrames);
        if (gap <= 0.02) continue;
        ++count;
        if (gap > worst) worst = gap, where = c->writer + " " + c->codec + ", " + c->damage;
    }
    if (count == 0) return "no";
    return "yes, " + std::to_string(count) + " (worst " + Fixed(100 * worst, 0) + " points: " + where + ")";
}

void Report(const std::vector<Case>& cases, const std::vector<std::string>& skipped, double seconds,
            const std::string& outDir) {
    fs::create_directories(outDir);
    std::ostringstream md, csv;
    md << "# Recovery quality\n\n" << MachineText() << "; load average " << LoadText() << "; " << cases.size()
       << " cases in " << Fixed(seconds / 60, 1) << " min.\n\n"
       << "4 s clips at 320x240, 25 fps, with a 48 kHz tone (44.1 kHz in FLV); the sample is 2 s of other content "
          "from the same writer with the same settings. Columns: the damaged file as it is; ffmpeg's stream copy "
          "(`-err_detect ignore_err -fflags +genpts+discardcorrupt -c copy`); the compatible repair (`Repair`); the "
          "thorough repair (`RepairWithOptions` with `kRepairOptionThorough`), with the verdict it gave. "
          "Decodable: video frames that decode, as a share of the original's frames whose packet bytes survived "
          "the damage (above 100% where damaged frames still decode). Bit-exact: decoded frames whose picture MD5 "
          "is one of the original's (each original frame counted once), as a share of the original's frames. "
          "Audio: decoded seconds (share of the original's audio whose packet bytes survived). \"fail\": no "
          "output, or an empty file; as the verdict: the call answered an error.\n\n";
    md << "| container | writer | codecs | damage | frames orig/surviving | decodable: as is | ffmpeg | compatible | "
          "thorough | bit-exact: as is | ffmpeg | compatible | thorough | thorough verdict | audio s surviving | as is "
          "| ffmpeg | compatible | thorough |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"
          "---|\n";
    csv << "container,writer,codecs,damage,original_frames,surviving_frames,original_audio_s,surviving_audio_s";
    for (const char* name : {"asis", "ffmpeg", "compatible", "thorough"})
        csv << "," << name << "_frames," << name << "_exact_frames," << name << "_audio_s";
    csv << ",thorough_verdict,thorough_reason\n";
    for (const Case& c : cases) {
        md << "| " << c.container << " | " << c.writer << " | " << c.codec << " | " << c.damage << " | "
           << c.originalFrames << "/" << c.survivingFrames;
        for (int i = 0; i < 4; ++i) md << " | " << Percent(Column(c, i).frames, c.survivingFrames);
        for (int i = 0; i < 4; ++i)
            md << " | " << (Column(c, i).frames < 0 ? "fail" : Percent(Column(c, i).exact, c.originalFrames));
        md << " | " << c.verdict << " | " << Fixed(c.survivingAudio, 1);
        for (int i = 0; i < 4; ++i) md << " | " << AudioText(Column(c, i), c.survivingAudio);
        md << " |\n";
        csv << c.container << "," << CsvText(c.writer) << "," << c.codec << "," << CsvText(c.damage) << ","
            << c.originalFrames << "," << c.survivingFrames << "," << Fixed(c.originalAudio, 3) << ","
            << Fixed(c.survivingAudio, 3);
        for (int i = 0; i < 4; ++i)
            csv << "," << Column(c, i).frames << "," << (Column(c, i).frames < 0 ? -1 : Column(c, i).exact) << ","
                << Fixed(Column(c, i).audio, 3);
        csv << "," << c.verdict << "," << CsvText(c.reason) << "\n";
    }
    md << "\n## Against the targets\n\nBit-exact frames as a share of the original's. \"Below\": cases where the "
          "thorough repair keeps fewer bit-exact frames than the other by more than 2% of the original's frames. "
          "A failed repair counts as 0.\n\n"
          "| container | cases | thorough: lowest share | below as is | below ffmpeg | mean: as is | ffmpeg | "
          "compatible | thorough | thorough verdicts |\n|---|---|---|---|---|---|---|---|---|---|\n";
    std::map<std::string, std::vector<const Case*>> by;
    for (const Case& c : cases) by[c.container].push_back(&c);
    for (const auto& [name, list] : by) {
        double lowest = 1e9, mean[4] = {0, 0, 0, 0};
        std::string where;
        for (const Case* c : list) {
            double share = ExactShare(c->thorough, c->originalFrames);
            if (share < lowest) lowest = share, where = c->writer + " " + c->codec + ", " + c->damage;
            for (int i = 0; i < 4; ++i) mean[i] += ExactShare(Column(*c, i), c->originalFrames) / double(list.size());
        }
        md << "| " << name << " | " << list.size() << " | " << Fixed(100 * lowest, 0) << "% (" << where << ") | "
           << BelowText(list, 0) << " | " << BelowText(list, 1);
        for (double m : mean) md << " | " << Fixed(100 * m, 0) << "%";
        std::map<std::string, int> verdicts;
        for (const Case* c : list) ++verdicts[c->verdict];
        std::string tally;
        for (const auto& [verdict, count] : verdicts)
            tally += (tally.empty() ? "" : ", ") + verdict + " " + std::to_string(count);
        md << " | " << tally << " |\n";
    }
    if (!skipped.empty()) {
        md << "\nNot made on this machine:\n\n";
        for (const std::string& s : skipped) md << "- " << s << "\n";
    }
    std::ofstream(outDir + "/quality.md") << md.str();
    std::ofstream(outDir + "/quality.csv") << csv.str();
    std::printf("%s", md.str().c_str());
}

std::set<std::string> Split(const std::string& list) {
    std::set<std::string> out;
    std::istringstream in(list);
    for (std::string s; std::getline(in, s, ',');)
        if (!Trim(s).empty()) out.insert(Trim(s));
    return out;
}

std::string Tag(const Writer& w) {
    std::string tag = w.container + "_" + w.writer + "_" + w.label;
    for (char& ch : tag)
        if (!std::isalnum((unsigned char)ch)) ch = '_';
    return tag;
}

// Makes the writer's original and sample (cached) and runs every damage model on it.
// Returns false with `why` when the clips could not be made.
bool RunWriter(const Writer& w, const std::string& cache, const std::string& bin, std::vector<Case>& out,
               std::string& why) {
    std::string tag = Tag(w);
    std::string original = cache + "/" + tag + "_original." + w.extension;
    std::string sample = cache + "/" + tag + "_sample." + w.extension;
    std::string scratch = cache + "/" + tag + "_scratch";
    fs::create_directories(scratch);
    if ((!fs::exists(original) && !w.make({kClipSeconds, false}, original, scratch)) ||
        (!fs::exists(sample) && !w.make({kSampleSeconds, true}, sample, scratch))) {
        fs::remove(original), fs::remove(sample);
        why = "could not be made";
        return false;
    }
    fs::remove_all(scratch);
    Decoded reference = Decode(original);
    if (reference.video.empty()) {
        why = "ffmpeg decodes no video frame of it";
        return false;
    }
    std::unordered_map<std::string, int> hashes;
    for (const std::string& h : reference.video) ++hashes[h];
    std::string bytes = ReadAll(original);
    std::vector<Frame> video = Frames(original, "v:0"), audio = Frames(original, "a:0");
    int index = 0;
    const bool iso = TopLevelBox(bytes, "moov") != std::string::npos;
    for (const Model& model : Models()) {
        if (model.isoOnly && !iso) continue;
        Case c;
        c.container = w.container, c.writer = w.writer, c.codec = w.label, c.damage = model.name;
        std::string dir = cache + "/" + tag + "_" + std::to_string(index++);
        fs::remove_all(dir);
        fs::create_directories(dir);
        std::string damaged = dir + "/damaged." + w.extension;
        std::string copy = bytes;
        Damage d;
        model.apply(copy, d);
        d.keptSize = (long long)copy.size();
        WriteAll(damaged, copy);
        c.originalFrames = (long long)reference.video.size();
        c.originalAudio = reference.audioSeconds;
        for (const Frame& p : video) c.survivingFrames += Survives(p, d, w.overhead);
        for (const Frame& p : audio)
            if (Survives(p, d, w.overhead)) c.survivingAudio += p.duration;
        c.asIs = ScoreOf(damaged, hashes);
        c.ffmpeg = ScoreOf(RepairFfmpeg(damaged, dir, w.extension), hashes);
        c.compatible = ScoreOf(RepairCompatible(bin, damaged, sample), hashes);
        c.thorough = ScoreOf(RepairThorough(bin, damaged, sample, dir + "/thorough." + w.extension, c), hashes);
        out.push_back(c);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const char* home = std::getenv("HOME");
    std::string cache = Arg(argc, argv, "--cache", std::string(home ? home : "/tmp") + "/.cache/videorepair-bench") +
                        "/quality";
    std::string outDir = Arg(argc, argv, "--out", "bench/results");
    std::string only = Arg(argc, argv, "--only", "");
    std::set<std::string> families = Split(Arg(argc, argv, "--writers", ""));
    int jobs = std::max(1, std::atoi(Arg(argc, argv, "--jobs", "1").c_str()));
    std::string bin = fs::canonical("/proc/self/exe").parent_path().string();
    fs::create_directories(cache);
    auto start = std::chrono::steady_clock::now();

    std::vector<Writer> writers;
    std::vector<std::string> skipped;
    for (const Writer& w : Corpus()) {
        if (!only.empty() && w.container != only) continue;
        if (!families.empty() && !families.count(Family(w))) continue;
        if (!w.program.empty() && !OnPath(w.program)) {
            skipped.push_back(w.container + ", " + w.writer + " " + w.label + ": " + w.program + " is not installed");
            continue;
        }
        writers.push_back(w);
    }
    // Writers run in parallel (each one's cases in order); results keep the corpus order.
    std::vector<std::vector<Case>> results(writers.size());
    std::vector<std::string> why(writers.size());
    std::vector<char> made(writers.size(), 0);  // not vector<bool>: written from several threads
    std::atomic<size_t> next{0};
    std::mutex printing;
    auto worker = [&] {
        for (size_t i; (i = next++) < writers.size();) {
            const Writer& w = writers[i];
            made[i] = RunWriter(w, cache, bin, results[i], why[i]);
            std::lock_guard<std::mutex> guard(printing);
            std::fprintf(stderr, "%s, %s %s: %s\n", w.container.c_str(), w.writer.c_str(), w.label.c_str(),
                         made[i] ? "done" : why[i].c_str());
        }
    };
    std::vector<std::thread> pool;
    for (int j = 0; j < std::min<int>(jobs, int(writers.size())); ++j) pool.emplace_back(worker);
    for (std::thread& t : pool) t.join();

    std::vector<Case> cases;
    for (size_t i = 0; i < writers.size(); ++i) {
        if (!made[i])
            skipped.push_back(writers[i].container + ", " + writers[i].writer + " " + writers[i].label + ": " + why[i]);
        cases.insert(cases.end(), results[i].begin(), results[i].end());
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    Report(cases, skipped, seconds, outDir);
    return 0;
}
