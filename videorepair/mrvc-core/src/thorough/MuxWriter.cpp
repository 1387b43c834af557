#include "thorough/MuxWriter.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/opt.h>
}

#include "platform/Platform.h"

namespace thorough {

MuxWriter::~MuxWriter() {
    if (output_ == nullptr) return;
    if (output_->pb != nullptr) avio_closep(&output_->pb);
    avformat_free_context(output_);
}

bool MuxWriter::Open(const std::wstring& path, const MuxerChoice& muxer) {
    std::string url = "file:" + platform::ToNarrow(path);
    std::string name = platform::ToNarrow(path);
    const AVOutputFormat* format = muxer.name.empty() ? av_guess_format(nullptr, name.c_str(), nullptr)
                                                      : av_guess_format(muxer.name.c_str(), nullptr, nullptr);
    if (format == nullptr) return Fail("no muxer for the file", 0), false;
    if (avformat_alloc_output_context2(&output_, format, nullptr, url.c_str()) < 0) return false;
    for (const auto& [key, value] : muxer.options) av_opt_set(output_->priv_data, key.c_str(), value.c_str(), 0);
    int result = avio_open(&output_->pb, url.c_str(), AVIO_FLAG_WRITE);
    if (result < 0) return Fail("cannot create the file", result), false;
    return true;
}

int MuxWriter::AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate,
                         const std::string& displayMatrix) {
    if (output_ == nullptr || started_ || parameters == nullptr) return -1;
    AVMediaType type = parameters->codec_type;
    if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_SUBTITLE) return -1;
    if (parameters->codec_id == AV_CODEC_ID_NONE) return -1;
    if (avformat_query_codec(output_->oformat, parameters->codec_id, FF_COMPLIANCE_NORMAL) == 0) return -1;
    AVStream* stream = avformat_new_stream(output_, nullptr);
    if (stream == nullptr || avcodec_parameters_copy(stream->codecpar, parameters) < 0) return -1;
    // A tag that means another codec in this container would mislabel the stream.
    unsigned tag = stream->codecpar->codec_tag;
    if (tag != 0 && av_codec_get_id(output_->oformat->codec_tag, tag) != parameters->codec_id)
        stream->codecpar->codec_tag = 0;
    if (output_->oformat->codec_tag == nullptr) stream->codecpar->codec_tag = 0;
    stream->time_base = timeBase;
    if (frameRate.num > 0) stream->avg_frame_rate = stream->r_frame_rate = frameRate;
    // MP4 and MOV write it into the track header; a phone's upright recording stays upright.
    if (!displayMatrix.empty()) {
        uint8_t* side = av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, displayMatrix.size());
        if (side != nullptr) std::memcpy(side, displayMatrix.data(), displayMatrix.size());
    }
    clocks_.emplace_back();
    return int(output_->nb_streams) - 1;
}

bool MuxWriter::Start() {
    started_ = true;
    int result = avformat_write_header(output_, nullptr);
    if (result < 0) Fail("the muxer refused the streams", result);
    return !failed_;
}

bool MuxWriter::Write(AVPacket* packet, int index, AVRational inputTimeBase) {
    if (output_ == nullptr || failed_ || index < 0 || unsigned(index) >= output_->nb_streams) return false;
    if (!started_ && !Start()) return false;
    packet->stream_index = index;
    av_packet_rescale_ts(packet, inputTimeBase, output_->streams[index]->time_base);
    packet->pos = -1;
    MakeTimesSane(packet, clocks_[size_t(index)]);
    int result = av_interleaved_write_frame(output_, packet);
    if (result < 0) {
        // One refused packet (a muxer's own check) is not worth the whole file.
        return result != AVERROR(EIO) && result != AVERROR(ENOSPC) ? true : (Fail("write error", result), false);
    }
    ++written_;
    return true;
}

// A decoding time the demuxer left open stays open for the muxer to derive from
// the presentation times (streams with B-frames need it so); a packet with no
// time at all follows the one before; decoding times that run backwards (damage)
// move both times forward together, so the frame order is kept.
void MuxWriter::MakeTimesSane(AVPacket* packet, Clock& clock) {
    if (packet->dts == AV_NOPTS_VALUE && packet->pts == AV_NOPTS_VALUE) {
        packet->dts = clock.lastDts == AV_NOPTS_VALUE ? 0 : clock.lastDts + std::max<int64_t>(clock.lastDuration, 1);
        packet->pts = packet->dts;
    }
    if (packet->dts != AV_NOPTS_VALUE) {
        if (clock.lastDts != AV_NOPTS_VALUE && packet->dts <= clock.lastDts) {
            int64_t shift = clock.lastDts + 1 - packet->dts;
            packet->dts += shift;
            if (packet->pts != AV_NOPTS_VALUE) packet->pts += shift;
        }
        if (packet->pts != AV_NOPTS_VALUE && packet->pts < packet->dts) packet->pts = packet->dts;
        clock.lastDts = packet->dts;
    }
    if (packet->duration > 0) clock.lastDuration = packet->duration;
}

bool MuxWriter::Finish() {
    if (output_ == nullptr) return false;
    if (!started_ && !failed_) Start();  // an empty but valid file
    if (!failed_) {
        int result = av_write_trailer(output_);
        if (result < 0) Fail("the trailer could not be written", result);
    }
    int closed = avio_closep(&output_->pb);
    if (closed < 0) Fail("the file could not be closed", closed);
    return !failed_;
}

void MuxWriter::Fail(const std::string& what, int code) {
    failed_ = true;
    if (!error_.empty()) return;
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (code < 0) av_strerror(code, text, sizeof text);
    error_ = code < 0 ? what + ": " + text : what;
}

}  // namespace thorough
