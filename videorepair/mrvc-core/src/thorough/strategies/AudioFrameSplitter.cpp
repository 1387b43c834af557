#include "thorough/strategies/AudioFrameSplitter.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace {

// PCM goes out in packets of this many sample frames, as muxers like it.
constexpr int64_t kPcmPacketSamples = 1024;

bool IsPcm(AVCodecID codec) { return codec >= AV_CODEC_ID_PCM_S16LE && codec < AV_CODEC_ID_ADPCM_IMA_QT; }

}  // namespace

AudioFrameSplitter::AudioFrameSplitter(const AVCodecParameters* parameters) {
    if (parameters == nullptr || parameters->codec_type != AVMEDIA_TYPE_AUDIO) return;
    codec_ = parameters->codec_id;
    const int channels = parameters->ch_layout.nb_channels;
    if (IsPcm(parameters->codec_id)) {
        const int bits = av_get_bits_per_sample(parameters->codec_id);
        pcmBlock_ = bits > 0 && channels > 0 ? bits / 8 * channels : parameters->block_align;
        pcmUnit_ = pcmBlock_;
        return;
    }
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    if (codec == nullptr) return;
    decoder_.reset(avcodec_alloc_context3(codec));
    packet_ = NewPacket();
    frame_ = NewFrame();
    if (!decoder_ || !packet_ || !frame_ || avcodec_parameters_to_context(decoder_.get(), parameters) < 0 ||
        avcodec_open2(decoder_.get(), codec, nullptr) < 0) {
        decoder_.reset();
    }
}

void AudioFrameSplitter::SetPcmChunkUnit(int64_t bytes) {
    if (pcmBlock_ > 0 && bytes > 0 && bytes % pcmBlock_ == 0) pcmUnit_ = bytes;
}

std::vector<AudioFrame> AudioFrameSplitter::Split(const uint8_t* data, size_t size, bool cut) {
    if (pcmBlock_ > 0) return SplitPcm(size, cut);
    return decoder_ ? SplitCoded(data, size) : std::vector<AudioFrame>();
}

// A stretch that is no whole number of the writer's chunks is not this track's
// alone, unless the end of the file cut it: then its whole sample frames are.
std::vector<AudioFrame> AudioFrameSplitter::SplitPcm(size_t size, bool cut) const {
    std::vector<AudioFrame> frames;
    if (cut) size -= size % size_t(pcmBlock_);
    else if (size % size_t(pcmUnit_) != 0) return frames;
    const size_t packetBytes = size_t(kPcmPacketSamples) * size_t(pcmBlock_);
    for (size_t at = 0; at < size; at += packetBytes) {
        const size_t n = std::min(packetBytes, size - at);
        frames.push_back({at, n, int64_t(n / size_t(pcmBlock_))});
    }
    return frames;
}

// The decoder takes one frame at a time out of a packet that holds several, and
// each frame it gives tells the bytes that were left when it was taken: the
// differences are the frames' sizes. A frame followed by an error may have run
// into what is not audio, so it is not kept.
std::vector<AudioFrame> AudioFrameSplitter::SplitCoded(const uint8_t* data, size_t size) {
    std::vector<AudioFrame> frames;
    avcodec_flush_buffers(decoder_.get());
    if (size == 0 || size > size_t(INT32_MAX) - AV_INPUT_BUFFER_PADDING_SIZE) return frames;
    if (av_new_packet(packet_.get(), int(size)) < 0) return frames;
    std::memcpy(packet_->data, data, size);
    int sent = avcodec_send_packet(decoder_.get(), packet_.get());
    av_packet_unref(packet_.get());
    if (sent < 0) return frames;
    std::vector<std::pair<int64_t, int64_t>> taken;  // bytes left, samples
    int result = 0;
    while ((result = avcodec_receive_frame(decoder_.get(), frame_.get())) >= 0) {
        taken.emplace_back(frame_->pkt_size, frame_->nb_samples);
        av_frame_unref(frame_.get());
    }
    const bool clean = result == AVERROR(EAGAIN) || result == AVERROR_EOF;
    taken.emplace_back(0, 0);
    for (size_t i = 0; i + 1 < taken.size(); ++i) {
        const int64_t left = taken[i].first, next = taken[i + 1].first;
        const bool last = i + 2 == taken.size();
        if (left <= next || left > int64_t(size) || (last && !clean)) break;
        frames.push_back({size - size_t(left), size_t(left - next), taken[i].second});
    }
    return frames;
}

}  // namespace thorough
