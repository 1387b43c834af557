#include "thorough/carving/PictureSize.h"

#include <string>

#include "thorough/carving/AviChunkCarver.h"

namespace thorough {
namespace {

constexpr int kPacketsToTry = 30;

CodecPtr OpenDecoder(const AVCodecParameters* p) {
    const AVCodec* decoder = avcodec_find_decoder(p->codec_id);
    if (decoder == nullptr) return nullptr;
    CodecPtr codec(avcodec_alloc_context3(decoder));
    if (!codec || avcodec_parameters_to_context(codec.get(), p) < 0) return nullptr;
    codec->thread_count = 1;
    if (avcodec_open2(codec.get(), decoder, nullptr) < 0) return nullptr;
    return codec;
}

bool ReadPacket(FileReader& file, const AviCarvedChunk& chunk, AVPacket* packet) {
    if (av_new_packet(packet, int(chunk.size)) < 0) return false;
    if (file.ReadAt(chunk.offset, packet->data, chunk.size) == int64_t(chunk.size)) return true;
    av_packet_unref(packet);
    return false;
}

// The size of the first picture the stream's packets decode to; false when none does.
bool DecodedSize(FileReader& file, const std::vector<AviCarvedChunk>& chunks, unsigned stream,
                 const AVCodecParameters* p, int& width, int& height) {
    CodecPtr codec = OpenDecoder(p);
    PacketPtr packet = NewPacket();
    FramePtr frame = NewFrame();
    if (!codec || !packet || !frame) return false;
    int tried = 0;
    for (const AviCarvedChunk& chunk : chunks) {
        if (chunk.stream != stream || chunk.size == 0) continue;
        if (++tried > kPacketsToTry) break;
        if (!ReadPacket(file, chunk, packet.get())) continue;
        int sent = avcodec_send_packet(codec.get(), packet.get());
        av_packet_unref(packet.get());
        if (sent < 0 && sent != AVERROR(EAGAIN)) continue;
        if (avcodec_receive_frame(codec.get(), frame.get()) == 0 && frame->width > 0 && frame->height > 0) {
            width = frame->width, height = frame->height;
            return true;
        }
    }
    return false;
}

}  // namespace

void FitPictureSize(FileReader& file, const std::vector<AviCarvedChunk>& chunks, CarvedSource& out) {
    for (unsigned i = 0; i < out.StreamCount(); ++i) {
        AVCodecParameters* p = out.MutableParameters(i);
        int width = 0, height = 0;
        if (p->codec_type != AVMEDIA_TYPE_VIDEO || !DecodedSize(file, chunks, i, p, width, height)) continue;
        p->width = width;
        p->height = height;
    }
}

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
