#include "thorough/carving/AudioClock.h"

#include <algorithm>
#include <string>

namespace thorough {

AudioClock::AudioClock(const AVCodecParameters* parameters) : parameters_(CopyParameters(parameters)) {
    if (!parameters_ || parameters_->codec_type != AVMEDIA_TYPE_AUDIO) return;
    if (av_get_audio_frame_duration2(parameters_.get(), 4096) > 0) return;  // the size alone tells
    parser_ = av_parser_init(parameters_->codec_id);
    if (parser_ == nullptr) return;
    codec_ = CodecPtr(avcodec_alloc_context3(nullptr));
    if (codec_) avcodec_parameters_to_context(codec_.get(), parameters_.get());
}

AudioClock::AudioClock(AudioClock&& other) noexcept
    : parameters_(std::move(other.parameters_)), codec_(std::move(other.codec_)), parser_(other.parser_) {
    other.parser_ = nullptr;
}

AudioClock::~AudioClock() {
    if (parser_ != nullptr) av_parser_close(parser_);
}

int64_t AudioClock::Samples(FileReader& file, int64_t offset, uint32_t size) {
    if (!parameters_) return 0;
    int fromSize = av_get_audio_frame_duration2(parameters_.get(), int(size));
    if (fromSize > 0 || parser_ == nullptr || !codec_) return std::max(fromSize, 0);
    std::string bytes(size, '\0');
    if (file.ReadAt(offset, bytes.data(), size) != int64_t(size)) return 0;
    int64_t samples = 0;
    const uint8_t* data = reinterpret_cast<const uint8_t*>(bytes.data());
    for (int left = int(size); left > 0;) {
        uint8_t* frame = nullptr;
        int frameSize = 0;
        int used = av_parser_parse2(parser_, codec_.get(), &frame, &frameSize, data, left, AV_NOPTS_VALUE,
                                    AV_NOPTS_VALUE, 0);
        if (used < 0) break;
        if (frameSize > 0) samples += parser_->duration > 0 ? parser_->duration : codec_->frame_size;
        if (used == 0 && frameSize == 0) break;
        data += used, left -= used;
    }
    return samples;
}

}  // namespace thorough
