// Which carved pictures lost the pictures they predict from. A picture found past
// damaged bytes, before its stream's next key frame, may predict from a picture
// the damage took; then it decodes to a wrong picture, and some decoders give up
// on the stream there. Where the pictures carry presentation times, a group of
// pictures whose times run on without a hole lost none of them, and is kept whole.
#pragma once

#include <vector>

#include "thorough/carving/CarvedSource.h"

namespace thorough {

// True for the codecs whose decoders stop at a picture that predicts from a lost
// one (libavcodec's VP8, VP9 and AV1 decoders fail, and ffmpeg gives up on the
// stream). Others conceal: their pictures past damage are kept, since those that
// do not predict from the lost pictures come back exactly.
bool RefusesLostReferences(AVCodecID codec);

// One flag per packet: true to leave it out. checked tells the streams to check.
std::vector<bool> PicturesWithLostReferences(const std::vector<CarvedPacket>& packets,
                                             const std::vector<bool>& checked);

}  // namespace thorough
