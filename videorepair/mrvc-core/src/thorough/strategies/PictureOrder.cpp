#include "thorough/strategies/PictureOrder.h"

#include <algorithm>
#include <numeric>

namespace thorough {

PictureOrderReader::PictureOrderReader(const AVCodecParameters* parameters) {
    if (parameters == nullptr) return;
    if (parameters->codec_id != AV_CODEC_ID_H264 && parameters->codec_id != AV_CODEC_ID_HEVC) return;
    context_.reset(avcodec_alloc_context3(nullptr));
    if (!context_ || avcodec_parameters_to_context(context_.get(), parameters) < 0) return;
    parser_ = av_parser_init(parameters->codec_id);
    if (parser_ != nullptr) parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

PictureOrderReader::~PictureOrderReader() {
    if (parser_ != nullptr) av_parser_close(parser_);
}

int PictureOrderReader::OrderCount(const uint8_t* data, size_t size) {
    if (parser_ == nullptr || size > size_t(INT32_MAX)) return kUnknown;
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(parser_, context_.get(), &out, &outSize, data, int(size), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    return outSize > 0 ? parser_->output_picture_number : kUnknown;
}

namespace {

// A slice header, order count included, lies well within its first bytes.
constexpr size_t kSliceHeadBytes = 1024;

bool IsPictureUnit(AVCodecID codec, uint8_t header) {
    if (codec == AV_CODEC_ID_H264) return (header & 0x1f) >= 1 && (header & 0x1f) <= 5;
    return ((header >> 1) & 0x3f) < 32;  // HEVC: the VCL unit types
}

}  // namespace

std::string OrderCountHead(const uint8_t* prefix, size_t got, size_t sampleSize, AVCodecID codec, int lengthSize) {
    if ((codec != AV_CODEC_ID_H264 && codec != AV_CODEC_ID_HEVC) || lengthSize < 1 || lengthSize > 4) return {};
    const size_t prefixBytes = size_t(lengthSize);
    for (size_t at = 0; at + prefixBytes < got;) {
        uint64_t length = 0;
        for (size_t i = 0; i < prefixBytes; ++i) length = length << 8 | prefix[at + i];
        const size_t start = at + prefixBytes;
        if (length == 0 || length > sampleSize - start) return {};
        const bool picture = IsPictureUnit(codec, prefix[start]);
        if (start + length <= got) {
            if (picture) return std::string(reinterpret_cast<const char*>(prefix), start + length);
            at = start + size_t(length);
            continue;
        }
        const size_t kept = got - start;
        if (!picture || kept < kSliceHeadBytes || (prefixBytes < 4 && kept >> (8 * prefixBytes) != 0)) return {};
        std::string head(reinterpret_cast<const char*>(prefix), got);
        for (size_t i = 0; i < prefixBytes; ++i) head[at + i] = char(kept >> (8 * (prefixBytes - 1 - i)));
        return head;
    }
    return {};
}

std::vector<int64_t> PresentationOrder(const std::vector<int>& orderCounts, const std::vector<bool>& keys) {
    const size_t n = orderCounts.size();
    std::vector<int64_t> place(n);
    size_t groupStart = 0;
    int highest = INT_MIN;
    auto closeGroup = [&](size_t end) {
        std::vector<size_t> order(end - groupStart);
        std::iota(order.begin(), order.end(), groupStart);
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return orderCounts[a] < orderCounts[b]; });
        for (size_t rank = 0; rank < order.size(); ++rank) place[order[rank]] = int64_t(groupStart + rank);
        groupStart = end;
        highest = INT_MIN;
    };
    for (size_t i = 0; i < n; ++i) {
        const bool unknown = orderCounts[i] == PictureOrderReader::kUnknown;
        if (i > groupStart && (unknown || (keys[i] && orderCounts[i] <= highest))) closeGroup(i);
        if (unknown) {
            closeGroup(i + 1);
            continue;
        }
        highest = std::max(highest, orderCounts[i]);
    }
    closeGroup(n);
    return place;
}

}  // namespace thorough
