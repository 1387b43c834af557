// Decoder configuration in the bitstream: what is taken from a sample, what
// counts as present, and which pictures decode on their own.
#include <gtest/gtest.h>

#include <string>

#include "thorough/ParameterSets.h"

using namespace thorough;

namespace {

std::string Bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) out.push_back(char(v));
    return out;
}

const std::string kSps = Bytes({0x67, 0x64, 0x00, 0x0d, 0xac});
const std::string kPps = Bytes({0x68, 0xef, 0x0f, 0xcb});
const std::string kStart = Bytes({0, 0, 0, 1});

std::string Annex(std::initializer_list<std::string> units) {
    std::string out;
    for (const std::string& u : units) out += kStart + u;
    return out;
}

const uint8_t* Data(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

}  // namespace

TEST(ThoroughParameterSets, TakesOnlyTheConfigurationOutOfAPacket) {
    const std::string aud = Bytes({0x09, 0xf0}), sei = Bytes({0x06, 0x05, 0x01}), idr = Bytes({0x65, 0x88, 0x84});
    const std::string key = Annex({aud, kSps, kPps, sei, idr});
    EXPECT_EQ(InBandHeaderOf(AV_CODEC_ID_H264, Data(key), key.size()), Annex({kSps, kPps}));
    EXPECT_TRUE(HasInBandHeader(AV_CODEC_ID_H264, Data(key), key.size()));
    const std::string bare = Annex({aud, idr});
    EXPECT_EQ(InBandHeaderOf(AV_CODEC_ID_H264, Data(bare), bare.size()), "");
    EXPECT_FALSE(HasInBandHeader(AV_CODEC_ID_H264, Data(bare), bare.size()));

    // MPEG-2: the sequence header with its extension, up to the GOP header.
    const std::string sequence = Bytes({0, 0, 1, 0xB3, 0x14, 0x00, 0xF0}) + Bytes({0, 0, 1, 0xB5, 0x14, 0x8A});
    const std::string picture = Bytes({0, 0, 1, 0xB8, 0x00, 0x08}) + Bytes({0, 0, 1, 0x00, 0x00, 0x0F});
    const std::string mpeg = sequence + picture;
    EXPECT_EQ(InBandHeaderOf(AV_CODEC_ID_MPEG2VIDEO, Data(mpeg), mpeg.size()), sequence);
    EXPECT_FALSE(HasInBandHeader(AV_CODEC_ID_MPEG2VIDEO, Data(picture), picture.size()));
}

TEST(ThoroughParameterSets, ConfigurationRecordsBecomeAnnexB) {
    const std::string avcC = Bytes({1, 0x64, 0, 0x0d, 0xff, 0xe1, 0, 5}) + kSps + Bytes({1, 0, 4}) + kPps;
    EXPECT_EQ(AnnexBFromConfigurationRecord(AV_CODEC_ID_H264, Data(avcC), avcC.size()), Annex({kSps, kPps}));
    const std::string vps = Bytes({0x40, 0x01, 0x0c}), hevcSps = Bytes({0x42, 0x01, 0x01});
    std::string hvcC(22, '\0');
    hvcC[0] = 1;
    hvcC += Bytes({2, 0x20, 0, 1, 0, 3}) + vps + Bytes({0x21, 0, 1, 0, 3}) + hevcSps;
    EXPECT_EQ(AnnexBFromConfigurationRecord(AV_CODEC_ID_HEVC, Data(hvcC), hvcC.size()), Annex({vps, hevcSps}));
    // A length that runs past the record keeps what came before it.
    const std::string lying = Bytes({1, 0x64, 0, 0x0d, 0xff, 0xe2, 0, 5}) + kSps + Bytes({0, 90});
    EXPECT_EQ(AnnexBFromConfigurationRecord(AV_CODEC_ID_H264, Data(lying), lying.size()), Annex({kSps}));
    EXPECT_EQ(AnnexBFromConfigurationRecord(AV_CODEC_ID_H264, Data(kSps), kSps.size()), "") << "not a record";
}

TEST(ThoroughParameterSets, KeyPicturesReadFromTheBitstream) {
    struct Case {
        AVCodecID codec;
        std::string packet;
        bool key;
    } cases[] = {
        {AV_CODEC_ID_H264, Annex({Bytes({0x09, 0xf0}), Bytes({0x65, 0x88})}), true},
        {AV_CODEC_ID_H264, Annex({Bytes({0x09, 0xf0}), Bytes({0x41, 0x9a})}), false},
        {AV_CODEC_ID_HEVC, Annex({Bytes({0x26, 0x01, 0xaf})}), true},   // IDR_W_RADL
        {AV_CODEC_ID_HEVC, Annex({Bytes({0x02, 0x01, 0xd0})}), false},  // TRAIL_R
        {AV_CODEC_ID_MPEG2VIDEO, Bytes({0, 0, 1, 0x00, 0x00, 0x0F, 0xFF}), true},   // coding type 1
        {AV_CODEC_ID_MPEG2VIDEO, Bytes({0, 0, 1, 0x00, 0x00, 0x17, 0xFF}), false},  // coding type 2
        {AV_CODEC_ID_MPEG4, Annex({Bytes({0x65, 0x88})}), false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(StartsKeyPicture(c.codec, Data(c.packet), c.packet.size()), c.key) << avcodec_get_name(c.codec);
}
