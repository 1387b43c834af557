// Decoder configuration carried inside the stream (H.264/HEVC parameter sets,
// the MPEG-1/2 sequence header): found, taken out of a healthy sample and put
// back in front of a damaged stream whose own copy was lost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace thorough {

// True for the codecs whose configuration travels in band in Annex B form.
bool CarriesInBandHeader(AVCodecID codec);

// True when data starts with an Annex B start code (00 00 01 or 00 00 00 01).
bool IsAnnexB(const uint8_t* data, size_t size);

// The parameter sets / sequence header found in one packet, with start codes;
// empty when the packet has none.
std::string InBandHeaderOf(AVCodecID codec, const uint8_t* data, size_t size);

// True when the packet carries the codec's sequence-level configuration.
bool HasInBandHeader(AVCodecID codec, const uint8_t* data, size_t size);

// True when the packet starts a picture that decodes on its own (an H.264 IDR, an
// HEVC IRAP, an MPEG-1/2 I picture), read from the bitstream itself: without
// its parameter sets a parser cannot tell, and marks no key frame at all.
bool StartsKeyPicture(AVCodecID codec, const uint8_t* data, size_t size);

// Annex B parameter sets from an avcC or hvcC decoder configuration record;
// empty when extradata is neither.
std::string AnnexBFromConfigurationRecord(AVCodecID codec, const uint8_t* extradata, size_t size);

}  // namespace thorough
