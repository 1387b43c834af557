#include "thorough/carving/CarvedSource.h"

#include <cstring>

#include "thorough/carving/ReferenceChains.h"

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
    if (!settled_) {
        std::vector<bool> checked;
        for (const Stream& s : streams_) checked.push_back(RefusesLostReferences(s.parameters->codec_id));
        leaveOut_ = PicturesWithLostReferences(packets_, checked);
        settled_ = true;
    }
    while (next_ < packets_.size()) {
        const CarvedPacket& carved = packets_[next_];
        bool leftOut = leaveOut_[next_++];
        consumed_ = carved.offset + carved.size;
        if (leftOut) continue;
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

}  // namespace thorough
