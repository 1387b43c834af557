#include "thorough/SampleModel.h"

#include "thorough/Demuxer.h"
#include "thorough/ParameterSets.h"

namespace thorough {
namespace {

// The sample's first key frames lie near its start; never read all of a long sample.
constexpr int kPacketsToLearnFrom = 2000;

int OrdinalOf(const std::vector<SampleStream>& streams, size_t index) {
    int ordinal = 0;
    for (size_t i = 0; i < index; ++i) ordinal += streams[i].type == streams[index].type;
    return ordinal;
}

}  // namespace

bool SampleModel::Load(const std::wstring& path) {
    streams_.clear();
    path_ = path;
    if (path.empty()) return false;
    Demuxer demuxer;
    if (!demuxer.OpenFile(path)) return false;
    for (unsigned i = 0; i < demuxer.StreamCount(); ++i) {
        AVStream* stream = demuxer.Stream(i);
        SampleStream learnt;
        learnt.type = stream->codecpar->codec_type;
        learnt.id = stream->id;
        learnt.parameters = CopyParameters(stream->codecpar);
        learnt.timeBase = stream->time_base;
        learnt.displayMatrix = DisplayMatrixOf(stream);
        learnt.frameRate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
        const AVCodecParameters* p = stream->codecpar;
        learnt.inBandHeader = AnnexBFromConfigurationRecord(p->codec_id, p->extradata, size_t(p->extradata_size));
        if (learnt.inBandHeader.empty() && CarriesInBandHeader(p->codec_id) && p->extradata_size > 0)
            learnt.inBandHeader = InBandHeaderOf(p->codec_id, p->extradata, size_t(p->extradata_size));
        streams_.push_back(std::move(learnt));
    }
    LearnInBandHeaders(demuxer.Context());
    if (!streams_.empty()) path_ = path;
    return !streams_.empty();
}

void SampleModel::LearnInBandHeaders(AVFormatContext* input) {
    PacketPtr packet = NewPacket();
    for (int n = 0; n < kPacketsToLearnFrom && av_read_frame(input, packet.get()) >= 0; ++n) {
        size_t index = size_t(packet->stream_index);
        if (index < streams_.size() && streams_[index].inBandHeader.empty() && streams_[index].parameters) {
            streams_[index].inBandHeader =
                InBandHeaderOf(streams_[index].parameters->codec_id, packet->data, size_t(packet->size));
        }
        av_packet_unref(packet.get());
    }
}

const SampleStream* SampleModel::Match(AVMediaType type, AVCodecID codec, int ordinalOfType) const {
    const SampleStream* sameCodec = nullptr;
    const SampleStream* samePlace = nullptr;
    for (size_t i = 0; i < streams_.size(); ++i) {
        const SampleStream& s = streams_[i];
        if (s.type != type || !s.parameters) continue;
        bool codecFits = codec == AV_CODEC_ID_NONE || s.parameters->codec_id == codec;
        bool placeFits = OrdinalOf(streams_, i) == ordinalOfType;
        if (codecFits && placeFits) return &s;
        if (codecFits && sameCodec == nullptr) sameCodec = &s;
        if (placeFits && samePlace == nullptr) samePlace = &s;
    }
    return sameCodec != nullptr ? sameCodec : samePlace;
}

}  // namespace thorough
