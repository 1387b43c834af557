#include "thorough/carving/CarvedSource.h"

#include <cstring>

namespace thorough {

unsigned CarvedSource::AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate) {
    Stream stream;
    stream.parameters = parameters != nullptr ? CopyParameters(parameters) : ParametersPtr(avcodec_parameters_alloc());
    stream.timeBase = timeBase;
    stream.frameRate = frameRate;
    streams_.push_back(std::move(stream));
    return unsigned(streams_.size() - 1);
}

bool CarvedSource::Next(AVPacket* packet) {
    while (next_ < packets_.size()) {
        const CarvedPacket& carved = packets_[next_++];
        consumed_ = carved.offset + carved.size;
        if (ReferencesLost(carved)) continue;
        // A payload the file no longer holds whole (cut short) is left out.
        if (av_new_packet(packet, int(carved.size)) < 0) return false;
        if (file_.ReadAt(carved.offset, packet->data, carved.size) != int64_t(carved.size)) {
            av_packet_unref(packet);
            continue;
        }
        packet->stream_index = int(carved.stream);
        packet->pts = carved.pts;
        packet->dts = carved.dts;
        packet->duration = carved.duration;
        packet->pos = carved.offset;
        if (carved.key) packet->flags |= AV_PKT_FLAG_KEY;
        return true;
    }
    return false;
}

// A picture found past damaged bytes, before its stream's next key frame, predicts
// from pictures the damage took: it decodes to a wrong picture (and some decoders
// give up on the stream there), so it is left out. The picture just before the
// damage is kept: the damage may have begun behind it.
bool CarvedSource::ReferencesLost(const CarvedPacket& packet) {
    if (streams_[packet.stream].parameters->codec_type != AVMEDIA_TYPE_VIDEO) return false;
    if (chains_.size() < streams_.size()) chains_.resize(streams_.size());
    Chain& chain = chains_[packet.stream];
    if (chain.seen && packet.run != chain.run) chain.broken = true;
    chain.seen = true;
    chain.run = packet.run;
    if (packet.key) chain.broken = false;
    return chain.broken;
}

}  // namespace thorough
