// What a person sees of a repair: the record's ranges against the damage done,
// the contact sheet's frames against the repaired file, the report page in a
// real browser, the index of a several-file run, and a result without video.
#include <gtest/gtest.h>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

using namespace testing_support;
using Poco::JSON::Array;
using Poco::JSON::Object;

constexpr int64_t kStructure = 4096 + 188;  // what the record may count of the packets' neighbours

std::string Program() { return BinDir() + "/videorepair"; }

struct Span {
    int64_t offset, length;
    int64_t End() const { return offset + length; }
};

// A transport stream whose header is wiped, with a hole of zeros and a stretch
// of garbage further on.
struct DamagedClip {
    std::string path;
    Span header, hole, garbage;
    int64_t size = 0;
};

DamagedClip MakeDamagedClip(const std::string& folder, const std::string& name) {
    std::string healthy = GeneratedMedia(
        "report_clip.ts", {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=20", "-f", "lavfi", "-i",
                           "sine=frequency=440:duration=20", "-c:v", "libx264", "-preset", "veryfast", "-g", "25",
                           "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest", "-f", "mpegts"});
    std::string bytes = ReadFile(healthy);
    DamagedClip clip;
    clip.size = int64_t(bytes.size());
    clip.header = {0, 8192};
    clip.hole = {clip.size * 40 / 100, clip.size / 20};
    clip.garbage = {clip.size * 70 / 100, clip.size / 25};
    std::fill_n(bytes.begin(), clip.header.length, '\0');
    std::fill_n(bytes.begin() + clip.hole.offset, clip.hole.length, '\0');
    std::mt19937 noise(7);
    for (int64_t i = 0; i < clip.garbage.length; ++i) bytes[size_t(clip.garbage.offset + i)] = char(noise() & 0xFF);
    clip.path = folder + "/" + name;
    WriteFile(clip.path, bytes);
    return clip;
}

// The first file's JSON line.
Object::Ptr RunJson(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {Program(), "repair", "--json", "-q"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out;
    RunProgram(argv, &out);
    try {
        return Poco::JSON::Parser().parse(out.substr(0, out.find('\n'))).extract<Object::Ptr>();
    } catch (...) {
        ADD_FAILURE() << "not JSON: " << out;
        return nullptr;
    }
}

std::vector<Span> RangesOf(const Object::Ptr& map, const std::string& kind) {
    std::vector<Span> spans;
    Array::Ptr ranges = map->getArray("ranges");
    for (size_t i = 0; i < ranges->size(); ++i) {
        Object::Ptr r = ranges->getObject(unsigned(i));
        if (r->getValue<std::string>("kind") == kind)
            spans.push_back({r->getValue<int64_t>("offset"), r->getValue<int64_t>("length")});
    }
    return spans;
}

// The rest of a picture the damage cut is no use either: the demuxer drops it.
constexpr int64_t kCutPicture = 64 * 1024;

// One skipped range that covers the damage, give or take the packets' structure
// in front and the rest of a cut picture behind.
bool SkippedAround(const std::vector<Span>& skipped, const Span& damage) {
    return std::any_of(skipped.begin(), skipped.end(), [&](const Span& s) {
        return s.offset <= damage.offset + 188 && s.offset >= damage.offset - kStructure &&
               s.End() >= damage.End() - 188 && s.End() <= damage.End() + kStructure + kCutPicture;
    });
}

TEST(ReportTest, RecordedRangesAreTheDamageDone) {
    TempDir dir("report");
    DamagedClip clip = MakeDamagedClip(dir.path(), "damaged.mts");
    Object::Ptr json = RunJson({clip.path, "-o", dir.path() + "/out.mts"});
    ASSERT_TRUE(json);
    Object::Ptr file = json;
    ASSERT_EQ(file->getValue<std::string>("status"), "repaired");
    Object::Ptr map = file->getObject("map");
    ASSERT_TRUE(map);
    EXPECT_EQ(map->getValue<int64_t>("fileSize"), clip.size);
    std::vector<Span> skipped = RangesOf(map, "skipped"), recovered = RangesOf(map, "recovered");
    ASSERT_FALSE(skipped.empty());
    EXPECT_EQ(skipped.front().offset, 0) << "the wiped header";
    EXPECT_GE(skipped.front().length, clip.header.length);
    EXPECT_TRUE(SkippedAround(skipped, clip.hole)) << "the hole of zeros";
    EXPECT_TRUE(SkippedAround(skipped, clip.garbage)) << "the garbage";
    int64_t recoveredBytes = 0;
    for (const Span& r : recovered) recoveredBytes += r.length;
    const int64_t undamaged = clip.size - clip.header.length - clip.hole.length - clip.garbage.length;
    EXPECT_GT(recoveredBytes, undamaged * 8 / 10);
    EXPECT_LE(recoveredBytes, undamaged);
    // Nothing is both recovered and skipped.
    for (const Span& r : recovered)
        for (const Span& s : skipped) EXPECT_TRUE(r.End() <= s.offset || s.End() <= r.offset);
    // The hole and the garbage each leave a gap in the video, in order.
    Array::Ptr gaps = map->getArray("gaps");
    std::vector<double> videoGapStarts;
    for (size_t i = 0; i < gaps->size(); ++i) {
        Object::Ptr g = gaps->getObject(unsigned(i));
        EXPECT_LT(g->getValue<double>("start"), g->getValue<double>("end"));
        if (g->getValue<std::string>("stream") == "video") videoGapStarts.push_back(g->getValue<double>("start"));
    }
    EXPECT_TRUE(std::any_of(videoGapStarts.begin(), videoGapStarts.end(), [](double t) { return t > 6 && t < 10; }));
    EXPECT_TRUE(std::any_of(videoGapStarts.begin(), videoGapStarts.end(), [](double t) { return t > 12 && t < 16; }));
}

// Presentation times of the video frames that decode, from the file's start.
std::vector<double> VideoFrameTimes(const std::string& path) {
    std::vector<double> times;
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return times;
    avformat_find_stream_info(input, nullptr);
    const AVCodec* codec = nullptr;
    int stream = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    AVCodecContext* decoder = stream >= 0 ? avcodec_alloc_context3(codec) : nullptr;
    if (decoder != nullptr && avcodec_parameters_to_context(decoder, input->streams[stream]->codecpar) >= 0 &&
        avcodec_open2(decoder, codec, nullptr) >= 0) {
        double origin = double(input->start_time) / AV_TIME_BASE, base = av_q2d(input->streams[stream]->time_base);
        AVPacket* packet = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        auto drain = [&] {
            while (avcodec_receive_frame(decoder, frame) >= 0)
                times.push_back(double(frame->best_effort_timestamp) * base - origin);
        };
        while (av_read_frame(input, packet) >= 0) {
            if (packet->stream_index == stream) avcodec_send_packet(decoder, packet);
            av_packet_unref(packet);
            drain();
        }
        avcodec_send_packet(decoder, nullptr);
        drain();
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
    avcodec_free_context(&decoder);
    avformat_close_input(&input);
    return times;
}

// Width and height of the one picture in an image file; {0, 0} when it does not decode.
std::pair<int, int> DecodedImageSize(const std::string& path) {
    AVFormatContext* input = nullptr;
    std::pair<int, int> size{0, 0};
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return size;
    avformat_find_stream_info(input, nullptr);
    if (input->nb_streams > 0) size = {input->streams[0]->codecpar->width, input->streams[0]->codecpar->height};
    avformat_close_input(&input);
    return size;
}

std::vector<double> StatedTimes(const std::string& html) {
    std::vector<double> stated;
    std::regex seconds("data-seconds=\"([0-9.]+)\"");
    for (auto it = std::sregex_iterator(html.begin(), html.end(), seconds); it != std::sregex_iterator(); ++it)
        stated.push_back(std::stod((*it)[1]));
    return stated;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(ReportTest, SheetFramesSitAtTheTimesStated) {
    TempDir dir("report");
    DamagedClip clip = MakeDamagedClip(dir.path(), "damaged.mts");
    std::string out = dir.path() + "/out.mts", page = dir.path() + "/page.html", sheet = dir.path() + "/sheet.png";
    Object::Ptr json = RunJson({clip.path, "-o", out, "--report", page, "--contact-sheet", sheet});
    ASSERT_TRUE(json);
    std::string html = ReadFile(page);
    std::vector<double> stated = StatedTimes(html);
    EXPECT_GE(stated.size(), 14u);
    EXPECT_LE(stated.size(), 24u);
    EXPECT_GE(Count(html, "after-gap"), 1u) << "the first frame after a gap is shown";
    std::vector<double> frames = VideoFrameTimes(out);
    ASSERT_FALSE(frames.empty());
    for (double t : stated) {
        bool found = std::any_of(frames.begin(), frames.end(), [t](double f) { return std::fabs(f - t) < 0.002; });
        EXPECT_TRUE(found) << "no frame of the repaired file at " << t;
    }
    // The sheet is one PNG of five columns of thumbnails.
    std::pair<int, int> size = DecodedImageSize(sheet);
    EXPECT_GT(size.first, 5 * 240);
    EXPECT_GT(size.second, 240);
}

// The page as Debian's chromium renders it, headless.
class BrowserTest : public testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::exists("/usr/bin/chromium"))
            GTEST_SKIP() << "/usr/bin/chromium is absent: `make test-browser` installs it and runs these tests";
    }
    // The screenshot's path; empty when chromium failed.
    std::string Screenshot(const std::string& page, const std::string& folder) {
        std::string shot = folder + "/shot.png";
        std::string ignored;
        RunProgram({"/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                    "--user-data-dir=" + folder + "/profile", "--screenshot=" + shot, "--window-size=1200,2000",
                    "file://" + page},
                   &ignored);
        return FileExists(shot) ? shot : std::string();
    }
};

// Share of pixels of the picture that are not the page's white.
double InkShare(const std::string& png) {
    AVFormatContext* input = nullptr;
    double share = 0;
    if (avformat_open_input(&input, png.c_str(), nullptr, nullptr) < 0) return 0;
    avformat_find_stream_info(input, nullptr);
    const AVCodec* codec = avcodec_find_decoder(input->streams[0]->codecpar->codec_id);
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    if (avcodec_parameters_to_context(decoder, input->streams[0]->codecpar) >= 0 &&
        avcodec_open2(decoder, codec, nullptr) >= 0 && av_read_frame(input, packet) >= 0 &&
        avcodec_send_packet(decoder, packet) >= 0 && avcodec_receive_frame(decoder, frame) >= 0) {
        const int bytes = frame->format == AV_PIX_FMT_RGBA ? 4 : 3;
        int64_t ink = 0;
        for (int y = 0; y < frame->height; ++y)
            for (int x = 0; x < frame->width; ++x) {
                const uint8_t* p = frame->data[0] + y * frame->linesize[0] + x * bytes;
                ink += (p[0] < 230 || p[1] < 230 || p[2] < 230) ? 1 : 0;
            }
        share = double(ink) / double(int64_t(frame->width) * frame->height);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&input);
    return share;
}

TEST_F(BrowserTest, PageShowsMapLegendAndEveryThumbnail) {
    TempDir dir("report");
    DamagedClip clip = MakeDamagedClip(dir.path(), "damaged.mts");
    std::string page = dir.path() + "/page.html";
    ASSERT_TRUE(RunJson({clip.path, "-o", dir.path() + "/out.mts", "--report", page}));
    std::string html = ReadFile(page);
    EXPECT_NE(html.find("class=\"damage-map\""), std::string::npos);
    EXPECT_NE(html.find("class=\"legend\""), std::string::npos);
    EXPECT_NE(html.find("class=\"timeline\""), std::string::npos);
    for (const char* kind : {"recovered: ", "skipped: ", "unreadable: ", "restored: "})
        EXPECT_NE(html.find(kind), std::string::npos) << kind;
    const size_t thumbnails = StatedTimes(html).size();
    EXPECT_GE(thumbnails, 14u);
    EXPECT_EQ(Count(html, "src=\"data:image/png;base64,"), thumbnails);
    EXPECT_EQ(Count(html, "http://"), Count(html, "xmlns=\"http://www.w3.org/2000/svg\""))
        << "nothing but the SVG namespace names a network address";
    EXPECT_EQ(Count(html, "https://"), 0u);
    EXPECT_EQ(html.find("<script"), std::string::npos);
    std::string shot = Screenshot(page, dir.path());
    ASSERT_FALSE(shot.empty());
    // The map, the timeline and twenty thumbnails cover much of the window.
    EXPECT_GT(InkShare(shot), 0.15);
}

TEST_F(BrowserTest, SeveralFilesGetAnIndexLinkingEveryPage) {
    TempDir dir("report");
    DamagedClip first = MakeDamagedClip(dir.path(), "first.mts");
    DamagedClip second = MakeDamagedClip(dir.path(), "second.mts");
    std::string missing = dir.path() + "/missing.mts";
    std::string index = dir.path() + "/index.html";
    ASSERT_TRUE(RunJson({first.path, second.path, missing, "-o", dir.path() + "/out/", "--report", index}));
    std::string html = ReadFile(index);
    std::regex link("href=\"([^\"]+)\"");
    std::vector<std::string> pages;
    for (auto it = std::sregex_iterator(html.begin(), html.end(), link); it != std::sregex_iterator(); ++it)
        pages.push_back((*it)[1]);
    ASSERT_EQ(pages.size(), 2u);
    for (const std::string& page : pages) {
        ASSERT_TRUE(FileExists(dir.path() + "/" + page)) << page;
        EXPECT_NE(ReadFile(dir.path() + "/" + page).find("<h1>"), std::string::npos);
    }
    EXPECT_NE(html.find("missing.mts"), std::string::npos) << "the file that never reached a repair is listed";
    EXPECT_FALSE(Screenshot(index, dir.path()).empty());
}

TEST(ReportTest, ResultWithoutVideoSaysSo) {
    TempDir dir("report");
    std::string audio = GeneratedMedia("report_audio.ts", {"-f", "lavfi", "-i", "sine=frequency=440:duration=6",
                                                            "-c:a", "mp2", "-f", "mpegts"});
    std::string damaged = dir.path() + "/sound.mts";
    std::string bytes = ReadFile(audio);
    std::fill_n(bytes.begin() + bytes.size() / 2, 4096, '\0');
    WriteFile(damaged, bytes);
    std::string page = dir.path() + "/page.html", sheet = dir.path() + "/sheet.png";
    ASSERT_TRUE(RunJson({damaged, "-o", dir.path() + "/out.mts", "--report", page, "--contact-sheet", sheet}));
    std::string html = ReadFile(page);
    EXPECT_NE(html.find("has no video"), std::string::npos);
    EXPECT_EQ(html.find("data:image/png"), std::string::npos);
    EXPECT_FALSE(FileExists(sheet)) << "no empty sheet is drawn";
}

}  // namespace
