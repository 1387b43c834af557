#include "thorough/strategies/SampleTimeline.h"

#include <algorithm>
#include <cmath>

namespace thorough {
namespace {

// A lead told from fewer pictures than this wobbles with the interleaving (and
// the encoder's start, where audio priming and reordering delay sit): such a
// stretch neither sets the writer's lead nor is corrected on its own.
constexpr int kLeastPictures = 8;

// One stretch of samples between two gaps: the video frames and audio samples
// before it, and how far audio led video at its video samples (the median, as
// interleaving makes the lead wobble by a frame either way).
struct Stretch {
    size_t begin = 0, end = 0;
    int64_t shiftFrames = 0, shiftSamples = 0;  // given back for what damage took before it
    double lead = NAN;
    int pictures = 0;
};

double Median(std::vector<double> values) {
    if (values.empty()) return NAN;
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

std::vector<Stretch> Stretches(const std::vector<CarvedSample>& samples, double frameSeconds, int audioRate) {
    std::vector<Stretch> stretches;
    int64_t frames = 0, audio = 0;
    std::vector<double> leads;
    for (size_t i = 0; i <= samples.size(); ++i) {
        if (i == samples.size() || (i > 0 && samples[i].afterGap)) {
            stretches.push_back({stretches.empty() ? 0 : stretches.back().end, i, 0, 0, Median(leads), int(leads.size())});
            leads.clear();
        }
        if (i == samples.size()) break;
        if (samples[i].video) leads.push_back(double(audio) / audioRate - double(frames++) * frameSeconds);
        else audio += samples[i].samples;
    }
    return stretches;
}

// The lead audio had over video in the first stretch long enough to tell it is
// the writer's; behind
// each gap, a lead that drifted from it by more than interleaving alone makes
// is damage, given back to the track that lost more. Measured against the first
// lead, small losses that add up over many gaps are caught too.
void KeepInStep(std::vector<Stretch>& stretches, double frameSeconds, int audioRate, double jitter) {
    double reference = NAN;
    int64_t frames = 0, samples = 0;
    for (Stretch& s : stretches) {
        const bool telling = s.pictures >= kLeastPictures;
        const double drift = s.lead + double(samples) / audioRate - double(frames) * frameSeconds - reference;
        if (std::isnan(reference) && telling) reference = s.lead;
        if (telling && !std::isnan(drift) && std::fabs(drift) > jitter) {
            if (drift > 0) frames += int64_t(std::llround(drift / frameSeconds));
            else samples += int64_t(std::llround(-drift * audioRate));
        }
        s.shiftFrames = frames, s.shiftSamples = samples;
    }
}

}  // namespace

std::vector<SampleTime> TimeSamples(const std::vector<CarvedSample>& samples, const std::vector<int64_t>& presentation,
                                    const TimelineSettings& settings) {
    const int64_t frame = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(settings.frameRate), settings.videoBase));
    const double frameSeconds = av_q2d(av_inv_q(settings.frameRate));
    const int rate = settings.audioRate > 0 ? settings.audioRate : 48000;
    const AVRational perSample{1, rate};
    // Decoding lags presentation by the deepest reordering, so no picture is
    // shown before it is decoded.
    int64_t delay = 0, index = 0, longestAudioFrame = 0;
    for (const CarvedSample& s : samples) {
        if (s.video) delay = std::max(delay, index - presentation[size_t(index)]), ++index;
        longestAudioFrame = std::max(longestAudioFrame, s.samples);
    }
    std::vector<Stretch> stretches = Stretches(samples, frameSeconds, rate);
    // Interleaving alone makes the lead wobble by up to a video or an audio frame.
    const double jitter = std::max(frameSeconds, double(longestAudioFrame) / rate);
    if (settings.keepInStep) KeepInStep(stretches, frameSeconds, rate, jitter);

    std::vector<SampleTime> times(samples.size());
    int64_t videoIndex = 0, audioSamples = 0;
    for (const Stretch& stretch : stretches) {
        for (size_t i = stretch.begin; i < stretch.end; ++i) {
            SampleTime& t = times[i];
            if (samples[i].video) {
                t.pts = (presentation[size_t(videoIndex)] + stretch.shiftFrames) * frame;
                t.dts = (videoIndex + stretch.shiftFrames - delay) * frame;
                t.duration = frame;
                ++videoIndex;
            } else {
                const int64_t at = audioSamples + stretch.shiftSamples;
                t.pts = t.dts = av_rescale_q(at, perSample, settings.audioBase);
                t.duration = av_rescale_q(samples[i].samples, perSample, settings.audioBase);
                audioSamples += samples[i].samples;
            }
        }
    }
    return times;
}

}  // namespace thorough
