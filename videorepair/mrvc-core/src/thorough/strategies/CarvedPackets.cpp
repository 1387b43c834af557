#include "thorough/strategies/CarvedPackets.h"

#include <algorithm>

namespace thorough {

CarvedPackets::CarvedPackets(std::unique_ptr<FileReader> file, CarvedTrack video, CarvedTrack audio,
                             std::vector<CarvedSample> samples, const std::vector<int64_t>& presentation,
                             int64_t skipped, bool keepInStep)
    : file_(std::move(file)), samples_(std::move(samples)), skipped_(skipped) {
    tracks_[0] = std::move(video);
    tracks_[1] = std::move(audio);
    for (int t = 0; t < 2; ++t) {
        if (!tracks_[t].parameters) continue;
        streamOf_[t] = int(streams_.size());
        streams_.push_back(t);
    }
    TimelineSettings settings;
    settings.videoBase = tracks_[0].timeBase;
    if (tracks_[0].frameRate.num > 0) settings.frameRate = tracks_[0].frameRate;
    settings.audioBase = tracks_[1].timeBase;
    if (tracks_[1].parameters && tracks_[1].parameters->sample_rate > 0)
        settings.audioRate = tracks_[1].parameters->sample_rate;
    settings.keepInStep = keepInStep && tracks_[1].parameters;
    times_ = TimeSamples(samples_, presentation, settings);
}

bool CarvedPackets::Next(AVPacket* packet) {
    for (; next_ < samples_.size(); ++next_) {
        const CarvedSample& s = samples_[next_];
        if (streamOf_[s.video ? 0 : 1] < 0) continue;
        if (av_new_packet(packet, int(s.size)) < 0) return false;
        if (file_->ReadAt(s.offset, packet->data, s.size) != int64_t(s.size)) {
            av_packet_unref(packet);
            continue;
        }
        const SampleTime& t = times_[next_];
        packet->stream_index = streamOf_[s.video ? 0 : 1];
        packet->pts = t.pts;
        packet->dts = t.dts;
        packet->duration = t.duration;
        packet->flags = s.key ? AV_PKT_FLAG_KEY : 0;
        consumed_ = s.offset + s.size;
        ++next_;
        return true;
    }
    return false;
}

}  // namespace thorough
