#include "thorough/DecodeCheck.h"

#include <algorithm>

namespace thorough {
namespace {

constexpr int64_t kFirstWindow = 24;  // packets decoded from the first key frame
constexpr int64_t kLaterWindow = 8;   // packets decoded from a later key frame
// Packets between the first two windows; each gap doubles, so a long file costs a
// few windows more than a short one, not a share of its length.
constexpr int64_t kFirstSpacing = 300;

bool IsClean(const AVFrame* frame) {
    return frame->decode_error_flags == 0 && (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
}

}  // namespace

bool DecodeCheck::Open(const AVCodecParameters* parameters, bool everyPacket) {
    everyPacket_ = everyPacket;
    const AVCodec* decoder = avcodec_find_decoder(parameters->codec_id);
    if (decoder == nullptr) {
        noDecoder_ = parameters->codec_id != AV_CODEC_ID_NONE;
        return false;
    }
    codec_.reset(avcodec_alloc_context3(decoder));
    frame_ = NewFrame();
    if (!codec_ || !frame_ || avcodec_parameters_to_context(codec_.get(), parameters) < 0) return false;
    codec_->thread_count = 1;
    opened_ = avcodec_open2(codec_.get(), decoder, nullptr) >= 0;
    return opened_;
}

bool DecodeCheck::InWindow(const AVPacket* packet) {
    if (everyPacket_) return true;
    bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (!inWindow_ && key && (sent_ == 0 || seen_ >= spacing_)) {
        inWindow_ = true;
        windowLeft_ = sent_ == 0 ? kFirstWindow : kLaterWindow;
        seen_ = 0;
    }
    return inWindow_;
}

void DecodeCheck::Feed(const AVPacket* packet) {
    if (!opened_) {
        sent_ += !noDecoder_;
        return;
    }
    bool checked = InWindow(packet);
    ++seen_;
    if (!checked) return;
    ++sent_;
    if (avcodec_send_packet(codec_.get(), packet) >= 0) Drain();
    if (!everyPacket_ && --windowLeft_ <= 0) EndWindow();
}

void DecodeCheck::Drain() {
    while (avcodec_receive_frame(codec_.get(), frame_.get()) >= 0) {
        good_ += IsClean(frame_.get());
        av_frame_unref(frame_.get());
    }
}

void DecodeCheck::EndWindow() {
    avcodec_send_packet(codec_.get(), nullptr);
    Drain();
    avcodec_flush_buffers(codec_.get());
    inWindow_ = false;
    seen_ = 0;
    spacing_ = spacing_ == 0 ? kFirstSpacing : spacing_ * 2;
}

void DecodeCheck::Finish() {
    if (opened_ && (everyPacket_ || inWindow_)) EndWindow();
}

double DecodeCheck::GoodShare() const {
    if (noDecoder_ && !opened_) return 1.0;
    if (sent_ == 0) return opened_ ? 1.0 : 0.0;
    return std::min(1.0, double(good_) / double(sent_));
}

}  // namespace thorough
