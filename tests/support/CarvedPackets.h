// Carver tests: hand-made input bytes, and what a carver hands the road read back
// as plain tuples.
#pragma once

#include <cstdint>
#include <tuple>
#include <vector>

#include "thorough/AvHandles.h"

namespace carved_packets {

// Hand-made container bytes: little-endian fields and recognisable payloads.
inline void Le(std::vector<uint8_t>& b, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) b.push_back(uint8_t(v >> (8 * i)));
}

inline std::vector<uint8_t> Filled(size_t n, uint8_t first) {
    std::vector<uint8_t> b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(first + i);
    return b;
}

inline thorough::ParametersPtr Parameters(AVMediaType type, AVCodecID codec) {
    thorough::ParametersPtr p(avcodec_parameters_alloc());
    p->codec_type = type;
    p->codec_id = codec;
    return p;
}

// (stream index, presentation time, size, key, first byte) of each packet given.
using Carved = std::tuple<int, int64_t, int, bool, int>;

template <typename Source>
std::vector<Carved> Drain(Source& source) {
    std::vector<Carved> out;
    thorough::PacketPtr packet = thorough::NewPacket();
    while (source.Next(packet.get())) {
        int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        out.emplace_back(packet->stream_index, time, packet->size, (packet->flags & AV_PKT_FLAG_KEY) != 0,
                         packet->size > 0 ? packet->data[0] : -1);
        av_packet_unref(packet.get());
    }
    return out;
}

}  // namespace carved_packets
