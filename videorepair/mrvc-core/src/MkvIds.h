// Matroska element ids (with their marker bits, as files carry them).
#pragma once

#include <cstdint>

namespace mkv_id {

constexpr uint32_t kEbml = 0x1A45DFA3;
constexpr uint32_t kDocType = 0x4282;
constexpr uint32_t kEbmlMaxIdLength = 0x42F2;
constexpr uint32_t kEbmlMaxSizeLength = 0x42F3;

constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114D9B74;
constexpr uint32_t kSeek = 0x4DBB;
constexpr uint32_t kSeekId = 0x53AB;
constexpr uint32_t kSeekPosition = 0x53AC;
constexpr uint32_t kInfo = 0x1549A966;
constexpr uint32_t kTimestampScale = 0x2AD7B1;
constexpr uint32_t kDuration = 0x4489;
constexpr uint32_t kTracks = 0x1654AE6B;
constexpr uint32_t kTrackEntry = 0xAE;
constexpr uint32_t kTrackNumber = 0xD7;
constexpr uint32_t kTrackType = 0x83;
constexpr uint32_t kCodecId = 0x86;
constexpr uint32_t kCodecPrivate = 0x63A2;
constexpr uint32_t kDefaultDuration = 0x23E383;
constexpr uint32_t kCues = 0x1C53BB6B;
constexpr uint32_t kCuePoint = 0xBB;
constexpr uint32_t kCueTime = 0xB3;
constexpr uint32_t kCueTrackPositions = 0xB7;
constexpr uint32_t kCueTrack = 0xF7;
constexpr uint32_t kCueClusterPosition = 0xF1;
constexpr uint32_t kTags = 0x1254C367;
constexpr uint32_t kChapters = 0x1043A770;
constexpr uint32_t kAttachments = 0x1941A469;

constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint32_t kTimestamp = 0xE7;
constexpr uint32_t kPosition = 0xA7;
constexpr uint32_t kPrevSize = 0xAB;
constexpr uint32_t kSimpleBlock = 0xA3;
constexpr uint32_t kBlockGroup = 0xA0;
constexpr uint32_t kBlock = 0xA1;
constexpr uint32_t kBlockDuration = 0x9B;
constexpr uint32_t kReferenceBlock = 0xFB;

constexpr uint32_t kVoid = 0xEC;
constexpr uint32_t kCrc32 = 0xBF;

constexpr uint64_t kTrackTypeVideo = 1;

}  // namespace mkv_id
