#include "thorough/strategies/MxfCarver.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace thorough {
namespace {

constexpr size_t kAes3HeaderBytes = 4;
constexpr int kAes3Channels = 8;

bool IntraOnly(AVCodecID codec) {
    const AVCodecDescriptor* d = avcodec_descriptor_get(codec);
    return d != nullptr && (d->props & AV_CODEC_PROP_INTRA_ONLY) != 0;
}

}  // namespace

std::string PcmFromAes3(const uint8_t* element, size_t size, int channels, int bitsPerSample) {
    if (size < kAes3HeaderBytes || channels <= 0 || channels > kAes3Channels ||
        (bitsPerSample != 16 && bitsPerSample != 24))
        return std::string();
    const size_t word = 4, frame = word * kAes3Channels;
    std::string pcm;
    for (size_t at = kAes3HeaderBytes; at + frame <= size; at += frame) {
        for (int c = 0; c < channels; ++c) {
            const uint8_t* w = element + at + size_t(c) * word;
            uint32_t sample = (uint32_t(w[0]) | uint32_t(w[1]) << 8 | uint32_t(w[2]) << 16 | uint32_t(w[3]) << 24) >> 4;
            if (bitsPerSample == 16) sample >>= 8;
            for (int b = 0; b < bitsPerSample / 8; ++b) pcm.push_back(char((sample >> (8 * b)) & 0xFF));
        }
    }
    return pcm;
}

MxfCarver::MxfCarver(AVRational editRate, std::vector<MxfTrack> tracks)
    : editRate_(editRate), tracks_(std::move(tracks)) {}

AVRational MxfCarver::FrameRate(unsigned stream) const {
    return tracks_[stream].parameters->codec_type == AVMEDIA_TYPE_VIDEO ? editRate_ : AVRational{0, 1};
}

bool MxfCarver::Next(AVPacket* packet) {
    mxf::Klv klv;
    while (walker_.Next(klv)) {
        if (klv.kind == mxf::ItemKind::kOther) continue;
        int index = IndexOf(klv.track);
        if (index < 0 || klv.length <= 0 || klv.length > kLargestElement) continue;
        CountUnit(klv.track, klv.at);
        lastAt_ = klv.at;
        if (ToPacket(klv, unsigned(index), packet)) return true;
    }
    return false;
}

int MxfCarver::IndexOf(uint32_t track) const {
    for (size_t i = 0; i < tracks_.size(); ++i)
        if (tracks_[i].number == track) return int(i);
    return -1;
}

// Content packages lost to damage are counted from the bytes passed over, in
// whole packages of the mean size so far (a package only partly lost is not one
// more), so what follows a hole keeps its time.
void MxfCarver::CountUnit(uint32_t track, int64_t at) {
    if (firstElementAt_ < 0) {
        firstElementAt_ = at;
        skippedAtFirst_ = skippedAtLastUnit_ = walker_.Skipped();
    }
    auto known = std::find(order_.begin(), order_.end(), track);
    int position = int(known - order_.begin());
    if (known == order_.end()) order_.push_back(track);
    bool sameUnit = unit_ >= 0 && position > lastPosition_;
    lastPosition_ = position;
    if (sameUnit) return;
    int64_t lost = 0, skipped = walker_.Skipped() - skippedAtLastUnit_;
    if (unit_ >= 0 && skipped > 0) {
        double read = double(at - firstElementAt_ - (walker_.Skipped() - skippedAtFirst_));
        double meanUnit = read / double(unit_ + 1);
        if (meanUnit > 0) lost = int64_t(double(skipped) / meanUnit);
    }
    skippedAtLastUnit_ = walker_.Skipped();
    unit_ += 1 + lost;
}

bool MxfCarver::ToPacket(const mxf::Klv& klv, unsigned index, AVPacket* packet) {
    if (av_new_packet(packet, int(klv.length)) < 0) return false;
    if (!walker_.ReadValue(klv, packet->data)) {
        av_packet_unref(packet);
        return false;
    }
    const AVCodecParameters* p = tracks_[index].parameters.get();
    if (klv.kind == mxf::ItemKind::kSound && klv.elementType == mxf::kAes3ElementType) {
        std::string pcm = PcmFromAes3(packet->data, size_t(packet->size), p->ch_layout.nb_channels,
                                      p->bits_per_coded_sample > 0 ? p->bits_per_coded_sample : 16);
        av_packet_unref(packet);
        if (pcm.empty() || av_new_packet(packet, int(pcm.size())) < 0) return false;
        std::memcpy(packet->data, pcm.data(), pcm.size());
    }
    packet->stream_index = int(index);
    Stamp(packet, index);
    return true;
}

// Times in the stream's own time base from the edit unit. Pictures of a codec that
// reorders them get no presentation time: the muxer and decoder derive it.
void MxfCarver::Stamp(AVPacket* packet, unsigned index) const {
    const AVCodecParameters* p = tracks_[index].parameters.get();
    packet->dts = av_rescale_q(unit_, av_inv_q(editRate_), tracks_[index].timeBase);
    bool video = p->codec_type == AVMEDIA_TYPE_VIDEO;
    packet->pts = video && p->video_delay > 0 ? AV_NOPTS_VALUE : packet->dts;
    if (!video || IntraOnly(p->codec_id)) packet->flags |= AV_PKT_FLAG_KEY;
}

}  // namespace thorough
