// MPEG program stream: learning the video and audio prefixes from arbitrary
// sample bytes against the streams ffmpeg extracted from a valid sample.
#include "FuzzSupport.h"
#include "MpegPrefixLearner.h"
#include "io/PositionedReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring video = fuzz::MediaFile("sample_Video");
    static const std::wstring audio = fuzz::MediaFile("sample_Audio.wav");
    const std::wstring samplePath = fuzz::WriteInput("sample.mpg", data, size);
    MpegPrefixLearner learner(MpegPrefixLearner::Control{[](int) {}, [] { return false; }, [] { return false; }});
    PositionedReader sample;
    if (!sample.Open(samplePath)) return 0;
    learner.LearnVideoPrefix(sample, video);
    sample.Seek(0);
    learner.LearnAudioPrefix(sample, audio);
    return 0;
}
