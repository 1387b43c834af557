#include "thorough/strategies/SampleFit.h"

#include <string>

namespace thorough {
namespace {

constexpr int kKeyPicturesTried = 3;

// One picture on a fresh decoder that stops at the first error it sees.
bool DecodesCleanly(const AVCodecParameters* video, const std::string& bytes) {
    const AVCodec* codec = avcodec_find_decoder(video->codec_id);
    CodecPtr decoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder || avcodec_parameters_to_context(decoder.get(), video) < 0) return true;  // cannot tell
    decoder->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_CRCCHECK;
    decoder->thread_count = 1;
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0) return true;
    PacketPtr packet = NewPacket();
    FramePtr frame = NewFrame();
    if (av_new_packet(packet.get(), int(bytes.size())) < 0) return true;
    memcpy(packet->data, bytes.data(), bytes.size());
    packet->flags = AV_PKT_FLAG_KEY;
    if (avcodec_send_packet(decoder.get(), packet.get()) < 0) return false;
    avcodec_send_packet(decoder.get(), nullptr);
    int result = avcodec_receive_frame(decoder.get(), frame.get());
    return result >= 0 && frame->decode_error_flags == 0 && (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
}

}  // namespace

bool KeyPicturesDecode(const AVCodecParameters* video, const std::vector<CarvedSample>& samples, FileReader& file) {
    int tried = 0;
    std::string bytes;
    for (const CarvedSample& s : samples) {
        if (!s.video || !s.key) continue;
        bytes.resize(s.size);
        if (file.ReadAt(s.offset, bytes.data(), s.size) != int64_t(s.size)) continue;
        if (DecodesCleanly(video, bytes)) return true;
        if (++tried == kKeyPicturesTried) return false;
    }
    return tried == 0;
}

}  // namespace thorough
