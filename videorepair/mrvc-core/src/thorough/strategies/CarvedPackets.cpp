#include "thorough/strategies/CarvedPackets.h"

#include <algorithm>

namespace thorough {

CarvedPackets::CarvedPackets(std::unique_ptr<FileReader> file, CarvedTrack video, CarvedTrack audio,
                             std::vector<CarvedSample> samples, const std::vector<int64_t>& presentation,
                             int64_t skipped)
    : file_(std::move(file)), samples_(std::move(samples)), skipped_(skipped) {
    tracks_[0] = std::move(video);
    tracks_[1] = std::move(audio);
    Time(presentation);
}

// Video decoding times run one frame apart and lag the presentation times by
// the deepest reordering, so no picture is shown before it is decoded.
void CarvedPackets::Time(const std::vector<int64_t>& presentation) {
    const AVRational rate = tracks_[0].frameRate.num > 0 ? tracks_[0].frameRate : AVRational{25, 1};
    const int64_t frame = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(rate), tracks_[0].timeBase));
    int64_t delay = 0, index = 0;
    for (const CarvedSample& s : samples_)
        if (s.video) delay = std::max(delay, index - presentation[size_t(index)]), ++index;
    times_.resize(samples_.size());
    int64_t videoIndex = 0, audioSamples = 0;
    for (size_t i = 0; i < samples_.size(); ++i) {
        Timed& t = times_[i];
        if (samples_[i].video) {
            t.pts = presentation[size_t(videoIndex)] * frame;
            t.dts = (videoIndex - delay) * frame;
            t.duration = frame;
            ++videoIndex;
        } else {
            const int rateHz = tracks_[1].parameters ? tracks_[1].parameters->sample_rate : 0;
            AVRational perSample{1, rateHz > 0 ? rateHz : 48000};
            t.pts = t.dts = av_rescale_q(audioSamples, perSample, tracks_[1].timeBase);
            t.duration = av_rescale_q(samples_[i].samples, perSample, tracks_[1].timeBase);
            audioSamples += samples_[i].samples;
        }
    }
}

bool CarvedPackets::Next(AVPacket* packet) {
    for (; next_ < samples_.size(); ++next_) {
        const CarvedSample& s = samples_[next_];
        if (av_new_packet(packet, int(s.size)) < 0) return false;
        if (file_->ReadAt(s.offset, packet->data, s.size) != int64_t(s.size)) {
            av_packet_unref(packet);
            continue;
        }
        const Timed& t = times_[next_];
        packet->stream_index = s.video ? 0 : 1;
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
