#include "MediaReport.h"

#include <algorithm>
#include <limits>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

namespace {

struct InputCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using InputPointer = std::unique_ptr<AVFormatContext, InputCloser>;

struct PacketFreer {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

struct CodecFreer {
    void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
};

struct FrameFreer {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

// Counts the frames one stream's packets decode to. A player shows these, not
// packets: a damaged file may hold many packets that decode to nothing.
class FrameCounter {
public:
    bool Open(const AVCodecParameters& parameters) {
        const AVCodec* decoder = avcodec_find_decoder(parameters.codec_id);
        if (decoder == nullptr) return false;
        codec_.reset(avcodec_alloc_context3(decoder));
        frame_.reset(av_frame_alloc());
        if (!codec_ || !frame_ || avcodec_parameters_to_context(codec_.get(), &parameters) < 0) return false;
        codec_->thread_count = 0;  // as many threads as the machine has
        return avcodec_open2(codec_.get(), decoder, nullptr) >= 0;
    }

    void Add(const AVPacket* packet) {  // null flushes
        if (!codec_) return;
        if (avcodec_send_packet(codec_.get(), packet) < 0 && packet != nullptr) return;
        while (avcodec_receive_frame(codec_.get(), frame_.get()) >= 0) {
            ++frames_;
            av_frame_unref(frame_.get());
        }
    }

    int64_t Frames() const { return frames_; }

private:
    std::unique_ptr<AVCodecContext, CodecFreer> codec_;
    std::unique_ptr<AVFrame, FrameFreer> frame_;
    int64_t frames_ = 0;
};

std::string ErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// Earliest start and latest end over all packets, in seconds, per stream.
class TimeSpan {
public:
    explicit TimeSpan(size_t streams)
        : start_(streams, std::numeric_limits<double>::max()), end_(streams, std::numeric_limits<double>::lowest()) {}

    void Add(const AVPacket& packet, AVRational timeBase) {
        int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
        if (stamp == AV_NOPTS_VALUE) return;
        double begin = double(stamp) * av_q2d(timeBase);
        double end = double(stamp + std::max<int64_t>(packet.duration, 0)) * av_q2d(timeBase);
        size_t i = size_t(packet.stream_index);
        start_[i] = std::min(start_[i], begin);
        end_[i] = std::max(end_[i], end);
    }

    double Longest() const {
        double longest = 0.0;
        for (size_t i = 0; i < start_.size(); ++i) {
            if (end_[i] >= start_[i]) longest = std::max(longest, end_[i] - start_[i]);
        }
        return longest;
    }

private:
    std::vector<double> start_;
    std::vector<double> end_;
};

void DescribeStreams(const AVFormatContext& context, MediaFacts& facts) {
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        const AVCodecParameters* codec = context.streams[i]->codecpar;
        StreamFacts stream;
        stream.index = int(i);
        const char* type = av_get_media_type_string(codec->codec_type);
        stream.type = type != nullptr ? type : "unknown";
        stream.codec = avcodec_get_name(codec->codec_id);
        facts.streams.push_back(stream);
    }
}

void CountPackets(AVFormatContext& context, MediaFacts& facts, bool decodeVideo) {
    int video = av_find_best_stream(&context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    FrameCounter decoded;
    bool decoding = decodeVideo && video >= 0 && decoded.Open(*context.streams[video]->codecpar);
    std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
    if (!packet) return;
    TimeSpan span(context.nb_streams);
    // A read error ends the count: what came before it is what a player gets.
    while (av_read_frame(&context, packet.get()) >= 0) {
        int index = packet->stream_index;
        if (index >= 0 && unsigned(index) < context.nb_streams) {
            ++facts.packets;
            ++facts.streams[size_t(index)].packets;
            if (index == video) ++facts.videoPackets;
            if (index == video && decoding) decoded.Add(packet.get());
            span.Add(*packet, context.streams[index]->time_base);
        }
        av_packet_unref(packet.get());
    }
    if (decodeVideo) {
        decoded.Add(nullptr);
        facts.decodedFrames = decoded.Frames();
    }
    facts.durationSeconds = span.Longest();
    if (facts.durationSeconds <= 0.0 && context.duration > 0) {
        facts.durationSeconds = double(context.duration) / AV_TIME_BASE;
    }
}

}  // namespace

std::string MediaFacts::StreamSummary() const {
    std::string text;
    for (const StreamFacts& stream : streams) {
        if (!text.empty()) text += ", ";
        text += stream.codec + " " + stream.type;
    }
    return text.empty() ? "no streams" : text;
}

std::vector<std::string> LostStreams(const MediaFacts& reference, const MediaFacts& result) {
    std::vector<std::string> lost;
    std::vector<bool> matched(result.streams.size(), false);
    for (const StreamFacts& wanted : reference.streams) {
        if (wanted.type != "video" && wanted.type != "audio" && wanted.type != "subtitle") continue;
        bool found = false;
        for (size_t i = 0; i < result.streams.size() && !found; ++i) {
            if (matched[i] || result.streams[i].type != wanted.type) continue;
            matched[i] = found = true;  // a stream of the same kind, even if re-encoded
        }
        if (!found) lost.push_back(wanted.codec + " " + wanted.type);
    }
    return lost;
}

MediaFacts ProbeMedia(const std::string& path, bool decodeVideo) {
    av_log_set_level(AV_LOG_QUIET);  // damaged files make the demuxers chatty
    MediaFacts facts;
    facts.path = path;
    AVFormatContext* raw = nullptr;
    int opened = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (opened < 0) {
        facts.error = ErrorText(opened);
        return facts;
    }
    InputPointer context(raw);
    // Like ffprobe, go on when the probe fails but streams were found.
    int found = avformat_find_stream_info(context.get(), nullptr);
    if (found < 0 && context->nb_streams == 0) {
        facts.error = ErrorText(found);
        return facts;
    }
    facts.opens = true;
    facts.format = context->iformat != nullptr ? context->iformat->name : "";
    DescribeStreams(*context, facts);
    CountPackets(*context, facts, decodeVideo);
    return facts;
}
