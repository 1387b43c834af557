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

}  // namespace thorough
