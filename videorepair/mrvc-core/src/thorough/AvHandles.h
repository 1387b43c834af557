// Owners for FFmpeg's C objects, so every early return frees what was opened.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <memory>
#include <string>

namespace thorough {

struct InputCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecCloser {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct ParametersFreer {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};

using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecCloser>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using ParametersPtr = std::unique_ptr<AVCodecParameters, ParametersFreer>;

inline PacketPtr NewPacket() { return PacketPtr(av_packet_alloc()); }
inline FramePtr NewFrame() { return FramePtr(av_frame_alloc()); }

// A stream's display matrix (AV_PKT_DATA_DISPLAYMATRIX, nine 32-bit values);
// empty when it has none.
inline std::string DisplayMatrixOf(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    return data != nullptr && size == 36 ? std::string(reinterpret_cast<const char*>(data), size) : std::string();
}

inline ParametersPtr CopyParameters(const AVCodecParameters* from) {
    ParametersPtr copy(avcodec_parameters_alloc());
    if (copy && avcodec_parameters_copy(copy.get(), from) < 0) copy.reset();
    return copy;
}

}  // namespace thorough
