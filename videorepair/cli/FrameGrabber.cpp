#include "FrameGrabber.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <map>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

namespace {

// A seek that lands between key frames reads on to the next one: a group of
// pictures and the audio beside it, or more where the damage is.
constexpr int kMostPacketsPerFrame = 3000;

struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

}  // namespace

FrameGrabber::~FrameGrabber() {
    sws_freeContext(scaler_);
    avcodec_free_context(&decoder_);
    avformat_close_input(&input_);
}

bool FrameGrabber::Open(const std::string& path, int thumbnailWidth) {
    width_ = thumbnailWidth;
    if (avformat_open_input(&input_, path.c_str(), nullptr, nullptr) < 0) return false;
    if (avformat_find_stream_info(input_, nullptr) < 0) return false;
    const AVCodec* codec = nullptr;
    stream_ = av_find_best_stream(input_, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream_ < 0 || codec == nullptr) return false;
    decoder_ = avcodec_alloc_context3(codec);
    if (decoder_ == nullptr || avcodec_parameters_to_context(decoder_, input_->streams[stream_]->codecpar) < 0)
        return false;
    // A thumbnail a fifth of the picture's width hides what the loop filter smooths.
    decoder_->skip_loop_filter = AVDISCARD_ALL;
    decoder_->flags2 |= AV_CODEC_FLAG2_FAST;
    return avcodec_open2(decoder_, codec, nullptr) >= 0;
}

double FrameGrabber::SecondsOf(int64_t stamp) const {
    double origin = input_->start_time != AV_NOPTS_VALUE ? double(input_->start_time) / AV_TIME_BASE : 0.0;
    return double(stamp) * av_q2d(input_->streams[stream_]->time_base) - origin;
}

std::vector<Thumbnail> FrameGrabber::Grab(const std::vector<FrameWanted>& wanted) {
    std::vector<Thumbnail> out;
    std::map<long long, size_t> taken;  // milliseconds to the thumbnail
    for (const FrameWanted& want : wanted) {
        Thumbnail thumbnail;
        if (!Take(want, thumbnail)) continue;
        auto known = taken.emplace(std::llround(thumbnail.seconds * 1000), out.size());
        // A regular frame that is also the first after a gap is shown as the latter.
        if (!known.second) {
            out[known.first->second].afterGap = out[known.first->second].afterGap || want.afterGap;
            continue;
        }
        out.push_back(std::move(thumbnail));
    }
    std::sort(out.begin(), out.end(), [](const Thumbnail& a, const Thumbnail& b) { return a.seconds < b.seconds; });
    return out;
}

bool FrameGrabber::Take(const FrameWanted& wanted, Thumbnail& out) {
    const AVStream* stream = input_->streams[stream_];
    double origin = input_->start_time != AV_NOPTS_VALUE ? double(input_->start_time) / AV_TIME_BASE : 0.0;
    int64_t target = int64_t((wanted.seconds + origin) / av_q2d(stream->time_base));
    // Before a gap the key frame behind the target would be a picture from before it.
    if (av_seek_frame(input_, stream_, target, wanted.afterGap ? 0 : AVSEEK_FLAG_BACKWARD) < 0 &&
        av_seek_frame(input_, stream_, target, AVSEEK_FLAG_BACKWARD) < 0)
        return false;
    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    const double slack = 0.001;
    // Only a key frame is decoded, on its own: no picture before or after it is
    // needed, and without an index the seek may land anywhere in a group.
    for (int n = 0; n < kMostPacketsPerFrame && av_read_frame(input_, packet.get()) >= 0; ++n) {
        bool key = packet->stream_index == stream_ && (packet->flags & AV_PKT_FLAG_KEY) != 0;
        int64_t stamp = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (key && wanted.afterGap && stamp != AV_NOPTS_VALUE && SecondsOf(stamp) + slack < wanted.seconds) key = false;
        if (!key) {
            av_packet_unref(packet.get());
            continue;
        }
        avcodec_flush_buffers(decoder_);
        int sent = avcodec_send_packet(decoder_, packet.get());
        av_packet_unref(packet.get());
        if (sent < 0 || avcodec_send_packet(decoder_, nullptr) < 0) continue;
        bool decoded = avcodec_receive_frame(decoder_, frame.get()) >= 0;
        avcodec_flush_buffers(decoder_);
        if (!decoded || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) continue;
        int64_t shown = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp : frame->pts;
        out.seconds = std::max(0.0, shown != AV_NOPTS_VALUE ? SecondsOf(shown) : wanted.seconds);
        out.afterGap = wanted.afterGap;
        return Scale(frame.get(), out.picture);
    }
    return false;
}

bool FrameGrabber::Scale(const AVFrame* frame, Picture& out) {
    if (frame->width <= 0 || frame->height <= 0) return false;
    double aspect = frame->sample_aspect_ratio.num > 0 ? av_q2d(frame->sample_aspect_ratio) : 1.0;
    out.width = width_;
    out.height = std::max(2, int(std::lround(width_ * frame->height / (frame->width * aspect) / 2)) * 2);
    scaler_ = sws_getCachedContext(scaler_, frame->width, frame->height, AVPixelFormat(frame->format), out.width,
                                   out.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (scaler_ == nullptr) return false;
    out.rgb.assign(size_t(out.width) * out.height * 3, 0);
    uint8_t* planes[4] = {out.rgb.data(), nullptr, nullptr, nullptr};
    int strides[4] = {out.width * 3, 0, 0, 0};
    return sws_scale(scaler_, frame->data, frame->linesize, 0, frame->height, planes, strides) > 0;
}

std::string EncodePng(const Picture& picture) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr || picture.width <= 0 || picture.height <= 0) return std::string();
    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    if (encoder == nullptr) return std::string();
    encoder->width = picture.width;
    encoder->height = picture.height;
    encoder->pix_fmt = AV_PIX_FMT_RGB24;
    encoder->time_base = {1, 25};
    std::string png;
    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    if (avcodec_open2(encoder, codec, nullptr) >= 0 && frame && packet) {
        frame->width = picture.width;
        frame->height = picture.height;
        frame->format = AV_PIX_FMT_RGB24;
        frame->data[0] = const_cast<uint8_t*>(picture.rgb.data());
        frame->linesize[0] = picture.width * 3;
        if (avcodec_send_frame(encoder, frame.get()) >= 0 && avcodec_send_frame(encoder, nullptr) >= 0 &&
            avcodec_receive_packet(encoder, packet.get()) >= 0)
            png.assign(reinterpret_cast<const char*>(packet->data), size_t(packet->size));
    }
    avcodec_free_context(&encoder);
    return png;
}
