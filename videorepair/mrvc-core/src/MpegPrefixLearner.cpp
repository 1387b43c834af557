#include "MpegPrefixLearner.h"

#include <algorithm>
#include <cstring>

#include "MpegPesMatcher.h"
#include "io/FileReader.h"
#include "io/PositionedReader.h"

namespace {

const uint8_t kStartCodePrefix[3] = {0x00, 0x00, 0x01};
constexpr uint8_t kVideoStreamId = 0xE0;
constexpr uint8_t kAudioStreamId = 0xC0;

constexpr size_t kVideoStartCodeFreeBytes = 30;  // behind the start code, no 00 00 01 allowed
constexpr size_t kVideoCopyBytes = 40;
constexpr size_t kVideoProbeBytes = 20;
constexpr size_t kVideoProbeShifts = 15;
constexpr size_t kAudioWindowBytes = 100;
constexpr size_t kAudioNeedleBytes = 40;

uint32_t ReadLe32(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 | uint32_t(b[at + 3]) << 24;
}

}  // namespace

uint8_t MpegPrefixLearner::LearnVideoPrefix(PositionedReader& sample, const std::wstring& extractedVideoPath) {
    headPath_ = extractedVideoPath;
    head_.clear();
    headComplete_ = false;
    return Learn(sample, kVideoStreamId, [this](const uint8_t* w, size_t n, size_t q, uint8_t& prefix) {
        return JudgeVideo(w, n, q, prefix);
    });
}

uint8_t MpegPrefixLearner::LearnAudioPrefix(PositionedReader& sample, const std::wstring& extractedAudioPath) {
    headPath_ = extractedAudioPath;
    head_.clear();
    headComplete_ = false;
    const std::vector<uint8_t>& head = HeadOf(extractedAudioPath, 64 * 1024);
    size_t start = std::min(AudioPayloadStart(head), head.size());
    size_t n = std::min(kAudioNeedleBytes, head.size() - start);
    audioNeedle_.assign(head.begin() + int64_t(start), head.begin() + int64_t(start + n));
    return Learn(sample, kAudioStreamId, [this](const uint8_t* w, size_t len, size_t q, uint8_t& prefix) {
        return JudgeAudio(w, len, q, prefix);
    });
}

// The candidate walk. Quirks kept on purpose: after a skipped candidate the
// reader moves to just behind its start code and the next search still starts
// q bytes into the new window; after a candidate that did not match, the reader
// moves the same way but the search offset stays.
uint8_t MpegPrefixLearner::Learn(PositionedReader& sample, uint8_t streamId, const Judge& judge) {
    uint8_t prefix = 0;
    if (control_.stopRequested && control_.stopRequested()) return prefix;
    const uint8_t startCode[4] = {0x00, 0x00, 0x01, streamId};
    const int64_t size = sample.Size();
    size_t q = 0;
    size_t resume = 0;
    while (sample.Position() < size) {
        if (control_.progress) control_.progress(int(sample.Position() * 100 / size));
        if (!sample.Fill()) break;
        const uint8_t* window = sample.Data();
        const size_t length = sample.Length();
        int64_t match = mpeg_bytes::Find(window, length, resume, startCode, sizeof startCode);
        if (match < 0) {
            // Nothing from the search offset on. Before any candidate there is no
            // previous q to move by, so move past what was searched instead.
            sample.Advance(q > 0 ? int64_t(q) : std::max<int64_t>(int64_t(length) - 3, 1));
        } else {
            q = size_t(match) + 4;
            Verdict verdict = judge(window, length, q, prefix);
            if (verdict == Verdict::kMatched) return prefix;
            sample.Advance(int64_t(q));
            if (verdict == Verdict::kSkipped) resume = q;
        }
        if (control_.pauseThenShouldStop && control_.pauseThenShouldStop()) return prefix;
    }
    return prefix;
}

// Finds 20 bytes of the packet, taken at shifts 0..14 behind its length field,
// within the first q bytes of the extracted stream. Comparing only q bytes is
// the established behaviour: a packet near the window's start compares little.
MpegPrefixLearner::Verdict MpegPrefixLearner::JudgeVideo(const uint8_t* window, size_t length, size_t q,
                                                         uint8_t& prefix) {
    size_t freeEnd = std::min(length, q + kVideoStartCodeFreeBytes);
    if (q < freeEnd && mpeg_bytes::Find(window, freeEnd, q, kStartCodePrefix, sizeof kStartCodePrefix) >= 0)
        return Verdict::kSkipped;  // an elementary-stream start code right behind the header
    prefix = 2;
    const size_t copyStart = std::min(length, q + 2);
    const size_t copyLength = std::min(kVideoCopyBytes, length - copyStart);
    const uint8_t* copy = window + copyStart;
    const std::vector<uint8_t>& head = HeadOf(headPath_, q);
    const size_t compared = std::min(q, head.size());
    for (size_t i = 0; i < kVideoProbeShifts && i + kVideoProbeBytes <= copyLength; ++i) {
        if (mpeg_bytes::Find(head.data(), compared, 0, copy + i, kVideoProbeBytes) >= 0) {
            prefix = uint8_t(2 + i);
            return Verdict::kMatched;
        }
    }
    return Verdict::kNoMatch;
}

MpegPrefixLearner::Verdict MpegPrefixLearner::JudgeAudio(const uint8_t* window, size_t length, size_t q,
                                                         uint8_t& prefix) const {
    if (audioNeedle_.empty() || q >= length) return Verdict::kNoMatch;
    size_t end = std::min(length, q + kAudioWindowBytes);
    int64_t at = mpeg_bytes::Find(window, end, q, audioNeedle_.data(), audioNeedle_.size());
    if (at < 0) return Verdict::kNoMatch;
    prefix = uint8_t(size_t(at) - q);
    return Verdict::kMatched;
}

const std::vector<uint8_t>& MpegPrefixLearner::HeadOf(const std::wstring& path, size_t n) {
    if (head_.size() >= n || headComplete_) return head_;
    FileReader file(1 << 20);
    if (!file.Open(path)) {
        headComplete_ = true;
        return head_;
    }
    // Grown geometrically: q creeps up candidate by candidate.
    size_t want = size_t(std::min<int64_t>(int64_t(std::max(n, head_.size() * 2)), file.Size()));
    head_.resize(want);
    int64_t got = file.ReadAt(0, head_.data(), want);
    head_.resize(got > 0 ? size_t(got) : 0);
    headComplete_ = int64_t(head_.size()) >= file.Size();
    return head_;
}

size_t MpegPrefixLearner::AudioPayloadStart(const std::vector<uint8_t>& head) {
    if (head.size() < 12 || std::memcmp(head.data(), "RIFF", 4) != 0 || std::memcmp(head.data() + 8, "WAVE", 4) != 0)
        return 0;
    size_t at = 12;
    while (at + 8 <= head.size()) {
        uint32_t chunkSize = ReadLe32(head, at + 4);
        if (std::memcmp(head.data() + at, "data", 4) == 0) return at + 8;
        uint64_t next = uint64_t(at) + 8 + chunkSize + (chunkSize & 1);
        if (next > head.size()) break;
        at = size_t(next);
    }
    return 0;
}
