#include "wmv/AviGenerator.h"

#include <vector>

namespace wmv {

namespace {

constexpr int64_t kMovieDataAt = 1024;
constexpr int64_t kTotalFramesAt = 48;
constexpr int64_t kStreamLengthAt = 140;
constexpr int64_t kMovieListSizeAt = 1016;

}  // namespace

std::atomic<uint32_t> AviGenerator::flushCounter_{0};

AviGenerator::AviGenerator(const std::string& inputPath, const std::string& outputPath,
                           const PayloadList& records, const VideoStreamInfo& info)
    : io_(inputPath, outputPath, flushCounter_), info_(info), records_(records) {}

uint32_t AviGenerator::StreamRate(double frameRate, const std::string& codec) {
    uint32_t rate = uint32_t(frameRate * 1000);
    // Each frame is preceded by an empty chunk, which players count as a frame
    // too, so the Windows Media codecs get twice the rate.
    if (codec == "WMV1" || codec == "WMV2" || codec == "WMV3" || codec == "MP43" || codec == "M4S2") rate *= 2;
    return rate;
}

double AviGenerator::Seconds(uint32_t frames, double frameRate, const std::string& codec) {
    const uint32_t rate = StreamRate(frameRate, codec);
    return rate > 0 ? 2.0 * frames * 1000.0 / rate : 0;
}

int AviGenerator::Generate() {
    if (!io_.Ok()) return -1;
    WriteHeader();
    bool hasMovieList = WritePadding();
    WriteFrames();
    Patch(hasMovieList);
    return io_.Close() ? 0 : -1;
}

void AviGenerator::WriteHeader() {
    const uint32_t n = uint32_t(records_.size());
    const uint32_t extra = uint32_t(info_.codecExtra.size());
    char codec[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < 4 && i < info_.codec.size(); ++i) codec[i] = info_.codec[i];

    io_.Tag("RIFF"); io_.U32(0); io_.Tag("AVI ");
    io_.Tag("LIST"); io_.U32(n > 0 ? extra + 188 : 68); io_.Tag("hdrl");
    io_.Tag("avih"); io_.U32(56);
    io_.U32(16666);       // microseconds per frame, whatever the frame rate
    io_.U32(39250);       // max bytes per second
    io_.U32(0);           // padding granularity
    io_.U32(0x910);       // has index, interleaved, trust chunk type
    io_.U32(n);           // total frames, patched
    io_.U32(0);           // initial frames
    io_.U32(n > 0 ? 1 : 0);
    io_.U32(1048576);     // suggested buffer size
    io_.U32(info_.width); io_.U32(info_.height);
    io_.Zeros(16);

    io_.Tag("LIST"); io_.U32(extra + 116); io_.Tag("strl");
    io_.Tag("strh"); io_.U32(56);
    io_.Tag("vids"); io_.Write(codec, 4);
    io_.U32(0);           // flags
    io_.U16(0); io_.U16(0);  // priority, language
    io_.U32(0);           // initial frames
    io_.U32(1000);        // scale
    io_.U32(StreamRate(info_.frameRate, info_.codec));
    io_.U32(0);           // start
    io_.U32(n);           // length, patched
    io_.U32(16184);       // suggested buffer size
    io_.U32(0xFFFFFFFF);  // quality
    io_.U32(0);           // sample size
    io_.U16(0); io_.U16(0); io_.U16(info_.width); io_.U16(info_.height);

    io_.Tag("strf"); io_.U32(extra + 40);
    io_.U32(40); io_.U32(info_.width); io_.U32(info_.height);
    io_.U16(1); io_.U16(24);
    io_.Write(codec, 4);
    io_.U32(uint32_t(uint32_t(info_.bitsPerPixel) * info_.height * info_.width / 8));
    io_.Zeros(16);
    if (extra > 0) io_.Write(info_.codecExtra.data(), extra);
}

// JUNK up to byte 1012, then the head of the "movi" list, so that movie data
// starts at byte 1024. A header that leaves no room for both gets neither.
bool AviGenerator::WritePadding() {
    int64_t gap = kMovieDataAt - io_.Position();
    if (gap < 20) return false;
    io_.Tag("JUNK"); io_.U32(uint32_t(gap - 20));
    io_.Zeros(size_t(gap - 20));
    io_.Tag("LIST"); io_.U32(0); io_.Tag("movi");
    return true;
}

void AviGenerator::WriteFrames() {
    std::vector<char> buffer;
    size_t i = 0;
    while (i < records_.size()) {
        const uint32_t object = records_[i].mediaObjectNumber;
        io_.Tag("00dc"); io_.U32(0);
        io_.Tag("00dc");
        int64_t sizeAt = io_.Position();
        io_.U32(uint32_t(records_[i].size));
        uint64_t total = 0;
        size_t first = i;
        for (; i < records_.size() && records_[i].mediaObjectNumber == object; ++i) {
            total += uint64_t(records_[i].size);
            if (io_.ReadRecord(records_[i], buffer)) io_.Write(buffer.data(), buffer.size());
        }
        if (i - first > 1) io_.PatchU32(sizeAt, uint32_t(total));
        ++frames_;
    }
}

void AviGenerator::Patch(bool hasMovieList) {
    int64_t length = io_.Position();
    io_.PatchU32(4, uint32_t(length - 8));
    io_.PatchU32(kTotalFramesAt, frames_);
    io_.PatchU32(kStreamLengthAt, frames_);
    // Without the "movi" list head, byte 1016 lies inside the header.
    if (hasMovieList) io_.PatchU32(kMovieListSizeAt, uint32_t(length - 1020));
    io_.Flush();
}

}  // namespace wmv
