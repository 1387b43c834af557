#include "thorough/StreamRestorer.h"

#include <map>

#include "thorough/ParameterSets.h"

namespace thorough {
namespace {

// Past this many packets without a key frame the stream may simply not mark them:
// keep what comes rather than lose it all.
constexpr int kMostLeadingPacketsDropped = 250;

bool LacksPicture(const AVCodecParameters* p) {
    return p->codec_type == AVMEDIA_TYPE_VIDEO && (p->width <= 0 || p->height <= 0);
}

bool LacksSound(const AVCodecParameters* p) {
    return p->codec_type == AVMEDIA_TYPE_AUDIO && (p->sample_rate <= 0 || p->ch_layout.nb_channels <= 0);
}

void CopyExtradata(AVCodecParameters* to, const AVCodecParameters* from) {
    av_freep(&to->extradata);
    to->extradata_size = 0;
    to->extradata = static_cast<uint8_t*>(av_mallocz(size_t(from->extradata_size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (to->extradata == nullptr) return;
    memcpy(to->extradata, from->extradata, size_t(from->extradata_size));
    to->extradata_size = from->extradata_size;
}

bool PrependTo(AVPacket* packet, const std::string& header) {
    PacketPtr joined = NewPacket();
    if (!joined || av_new_packet(joined.get(), int(header.size()) + packet->size) < 0) return false;
    memcpy(joined->data, header.data(), header.size());
    memcpy(joined->data + header.size(), packet->data, size_t(packet->size));
    if (av_packet_copy_props(joined.get(), packet) < 0) return false;
    av_packet_unref(packet);
    av_packet_move_ref(packet, joined.get());
    return true;
}

}  // namespace

void StreamRestorer::Prepare(const PacketSource& input) {
    streams_.clear();
    streams_.resize(input.StreamCount());
    std::map<AVMediaType, int> ordinals;
    for (unsigned i = 0; i < input.StreamCount(); ++i) {
        const AVCodecParameters* own = input.Parameters(i);
        State& state = streams_[i];
        state.parameters = CopyParameters(own);
        state.frameRate = input.FrameRate(i);
        RestoreParameters(i, own, state, ordinals[own->codec_type]++);
    }
}

void StreamRestorer::RestoreParameters(unsigned index, const AVCodecParameters* own, State& state, int ordinal) {
    AVCodecParameters* p = state.parameters.get();
    if (p == nullptr) return;
    const SampleStream* learnt = sample_.Match(p->codec_type, p->codec_id, ordinal);
    bool sameCodec = learnt != nullptr && learnt->parameters->codec_id == p->codec_id;
    if (learnt != nullptr && (p->codec_id == AV_CODEC_ID_NONE || (sameCodec && (LacksPicture(p) || LacksSound(p))))) {
        ParametersPtr kept = std::move(state.parameters);
        state.parameters = CopyParameters(learnt->parameters.get());
        if (!state.parameters) state.parameters = std::move(kept);
        p = state.parameters.get();
        Note("codec parameters", index);
        if (state.frameRate.num <= 0) state.frameRate = learnt->frameRate;
    } else if (sameCodec && p->extradata_size == 0 && learnt->parameters->extradata_size > 0) {
        CopyExtradata(p, learnt->parameters.get());
        Note("decoder configuration", index);
    }
    if (state.frameRate.num <= 0 && learnt != nullptr) state.frameRate = learnt->frameRate;
    state.ownHeader = AnnexBFromConfigurationRecord(own->codec_id, own->extradata, size_t(own->extradata_size));
    if (state.ownHeader.empty() && own->extradata_size > 0)
        state.ownHeader = InBandHeaderOf(own->codec_id, own->extradata, size_t(own->extradata_size));
    if (learnt != nullptr && learnt->parameters->codec_id == p->codec_id) state.sampleHeader = learnt->inBandHeader;
}

bool StreamRestorer::Fix(AVPacket* packet) {
    unsigned index = unsigned(packet->stream_index);
    if (index >= streams_.size() || !streams_[index].parameters) return false;
    State& state = streams_[index];
    if (state.parameters->codec_type != AVMEDIA_TYPE_VIDEO) return true;
    return FixVideo(packet, state, index);
}

bool StreamRestorer::FixVideo(AVPacket* packet, State& state, unsigned index) {
    AVCodecID codec = state.parameters->codec_id;
    bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (!state.keySeen && !key && StartsKeyPicture(codec, packet->data, size_t(packet->size))) {
        key = true;
        packet->flags |= AV_PKT_FLAG_KEY;
    }
    if (!state.keySeen && !key && state.dropped < kMostLeadingPacketsDropped) {
        ++state.dropped;
        return false;
    }
    state.keySeen = true;
    if (state.headerSettled) return true;
    state.headerSettled = true;
    bool annexB = IsAnnexB(packet->data, size_t(packet->size));
    bool mpeg = codec == AV_CODEC_ID_MPEG1VIDEO || codec == AV_CODEC_ID_MPEG2VIDEO;
    if (!CarriesInBandHeader(codec) || !(annexB || mpeg) || HasInBandHeader(codec, packet->data, size_t(packet->size)))
        return true;
    const std::string& header = !state.ownHeader.empty() ? state.ownHeader : state.sampleHeader;
    if (header.empty() || !PrependTo(packet, header)) return true;
    Note(state.ownHeader.empty() ? "parameter sets from the sample" : "parameter sets", index);
    return true;
}

void StreamRestorer::Note(const std::string& what, unsigned index) {
    restorations_.push_back(what + " of stream " + std::to_string(index));
}

}  // namespace thorough
