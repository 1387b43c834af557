#include "thorough/ParameterSets.h"

#include <cstring>
#include <vector>

namespace thorough {
namespace {

const char kStartCode[] = {0, 0, 0, 1};

// One Annex B unit: where its payload starts and ends (start code excluded).
struct Unit {
    size_t begin, end;
};

// The next 00 00 01 at or after from, or size. Anchored on the 01 with memchr:
// pictures are long runs of bytes that are neither.
size_t NextStartCode(const uint8_t* data, size_t size, size_t from) {
    for (size_t i = from + 2; i < size;) {
        const void* hit = std::memchr(data + i, 0x01, size - i);
        if (hit == nullptr) break;
        size_t one = size_t(static_cast<const uint8_t*>(hit) - data);
        if (data[one - 1] == 0 && data[one - 2] == 0) return one - 2;
        i = one + 1;
    }
    return size;
}

std::vector<Unit> SplitAnnexB(const uint8_t* data, size_t size) {
    std::vector<Unit> units;
    for (size_t at = NextStartCode(data, size, 0); at < size;) {
        size_t begin = at + 3, next = NextStartCode(data, size, begin);
        size_t end = next;
        while (end > begin && data[end - 1] == 0) --end;  // trailing zeros belong to the next start code
        if (begin < size) units.push_back({begin, end});
        at = next;
    }
    return units;
}

int NalType(AVCodecID codec, uint8_t first) {
    return codec == AV_CODEC_ID_HEVC ? (first >> 1) & 0x3F : first & 0x1F;
}

bool IsParameterSet(AVCodecID codec, int type) {
    if (codec == AV_CODEC_ID_H264) return type == 7 || type == 8;
    return type >= 32 && type <= 34;  // HEVC VPS, SPS, PPS
}

bool IsSequenceParameterSet(AVCodecID codec, int type) { return type == (codec == AV_CODEC_ID_H264 ? 7 : 33); }

bool IsMpegVideo(AVCodecID codec) {
    return codec == AV_CODEC_ID_MPEG1VIDEO || codec == AV_CODEC_ID_MPEG2VIDEO;
}

// The MPEG-1/2 sequence header with its extensions and user data: everything from
// 00 00 01 B3 to the next GOP or picture start code.
std::string MpegSequenceHeader(const uint8_t* data, size_t size) {
    for (const Unit& unit : SplitAnnexB(data, size)) {
        if (unit.begin >= unit.end || data[unit.begin] != 0xB3) continue;
        size_t end = size;
        for (size_t i = unit.begin; i + 3 < size; ++i) {
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && (data[i + 3] == 0xB8 || data[i + 3] == 0x00)) {
                end = i;
                break;
            }
        }
        return std::string(reinterpret_cast<const char*>(data) + unit.begin - 3, end - (unit.begin - 3));
    }
    return std::string();
}

void AppendUnit(std::string& out, const uint8_t* data, size_t size) {
    out.append(kStartCode, sizeof kStartCode);
    out.append(reinterpret_cast<const char*>(data), size);
}

uint32_t Be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }

// Appends count units stored as 16-bit length and bytes from at on; false when
// a length runs past the record.
bool AppendLengthPrefixed(std::string& out, const uint8_t* p, size_t size, size_t& at, unsigned count) {
    for (unsigned i = 0; i < count && at + 2 <= size; ++i) {
        size_t length = Be16(p + at);
        at += 2;
        if (at + length > size) return false;
        AppendUnit(out, p + at, length);
        at += length;
    }
    return true;
}

// avcC: a list of SPS (count in the low 5 bits), then a list of PPS.
std::string FromAvcC(const uint8_t* p, size_t size) {
    std::string out;
    size_t at = 5;
    for (int list = 0; list < 2 && at < size; ++list) {
        unsigned count = list == 0 ? p[at] & 0x1F : p[at];
        ++at;
        if (!AppendLengthPrefixed(out, p, size, at, count)) break;
    }
    return out;
}

// hvcC: 23 bytes of header, then arrays of one NAL type each.
std::string FromHvcC(const uint8_t* p, size_t size) {
    std::string out;
    if (size < 23) return out;
    size_t at = 23;
    for (unsigned array = 0, arrays = p[22]; array < arrays && at + 3 <= size; ++array) {
        unsigned count = Be16(p + at + 1);
        at += 3;
        if (!AppendLengthPrefixed(out, p, size, at, count)) break;
    }
    return out;
}

}  // namespace

bool CarriesInBandHeader(AVCodecID codec) {
    return codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC || IsMpegVideo(codec);
}

bool IsAnnexB(const uint8_t* data, size_t size) {
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

std::string InBandHeaderOf(AVCodecID codec, const uint8_t* data, size_t size) {
    if (IsMpegVideo(codec)) return MpegSequenceHeader(data, size);
    std::string out;
    if (!CarriesInBandHeader(codec) || !IsAnnexB(data, size)) return out;
    for (const Unit& unit : SplitAnnexB(data, size)) {
        if (unit.begin < unit.end && IsParameterSet(codec, NalType(codec, data[unit.begin])))
            AppendUnit(out, data + unit.begin, unit.end - unit.begin);
    }
    return out;
}

bool HasInBandHeader(AVCodecID codec, const uint8_t* data, size_t size) {
    if (IsMpegVideo(codec)) return !MpegSequenceHeader(data, size).empty();
    if (!CarriesInBandHeader(codec) || !IsAnnexB(data, size)) return false;
    for (const Unit& unit : SplitAnnexB(data, size)) {
        if (unit.begin < unit.end && IsSequenceParameterSet(codec, NalType(codec, data[unit.begin]))) return true;
    }
    return false;
}

bool StartsKeyPicture(AVCodecID codec, const uint8_t* data, size_t size) {
    if (!CarriesInBandHeader(codec)) return false;
    for (const Unit& unit : SplitAnnexB(data, size)) {
        if (unit.begin >= unit.end) continue;
        const uint8_t first = data[unit.begin];
        if (IsMpegVideo(codec)) {
            // picture_coding_type sits after the 10-bit temporal reference; 1 is I.
            if (first == 0x00 && unit.begin + 2 < unit.end) return ((data[unit.begin + 2] >> 3) & 7) == 1;
            continue;
        }
        int type = NalType(codec, first);
        if (codec == AV_CODEC_ID_H264 && type == 5) return true;
        if (codec == AV_CODEC_ID_HEVC && type >= 16 && type <= 21) return true;
    }
    return false;
}

std::string AnnexBFromConfigurationRecord(AVCodecID codec, const uint8_t* extradata, size_t size) {
    if (extradata == nullptr || size == 0 || extradata[0] != 1) return std::string();
    if (codec == AV_CODEC_ID_H264) return FromAvcC(extradata, size);
    if (codec == AV_CODEC_ID_HEVC) return FromHvcC(extradata, size);
    return std::string();
}

}  // namespace thorough
