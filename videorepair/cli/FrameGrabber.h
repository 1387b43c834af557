// Single frames of a video file at chosen times, decoded with libavcodec and
// scaled with libswscale to thumbnails. Each frame costs one seek to a key frame
// and the decoding of that picture, so a sheet of twenty stays cheap on any length.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // packed RGB24, width * 3 bytes a row
};

struct Thumbnail {
    double seconds = 0;     // where the frame sits, from the file's start
    bool afterGap = false;  // the first frame after a hole in the video
    Picture picture;
};

struct FrameWanted {
    double seconds = 0;
    bool afterGap = false;  // take the first frame at or after seconds, not the key frame before
};

class FrameGrabber {
public:
    FrameGrabber() = default;
    ~FrameGrabber();
    FrameGrabber(const FrameGrabber&) = delete;
    FrameGrabber& operator=(const FrameGrabber&) = delete;

    // False when the file does not open or has no video stream that decodes.
    bool Open(const std::string& path, int thumbnailWidth);
    // One thumbnail per wanted time; times that land on a frame already taken add nothing.
    std::vector<Thumbnail> Grab(const std::vector<FrameWanted>& wanted);

private:
    bool Take(const FrameWanted& wanted, Thumbnail& out);
    bool Scale(const struct AVFrame* frame, Picture& out);
    double SecondsOf(int64_t stamp) const;

    struct AVFormatContext* input_ = nullptr;
    struct AVCodecContext* decoder_ = nullptr;
    struct SwsContext* scaler_ = nullptr;
    int stream_ = -1;
    int width_ = 0;
};

// PNG bytes of a picture (libavcodec's encoder); empty on failure.
std::string EncodePng(const Picture& picture);
