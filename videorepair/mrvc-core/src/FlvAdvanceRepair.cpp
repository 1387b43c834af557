#include "FlvAdvanceRepair.h"

#include <algorithm>
#include <cstring>

#include "OutputNaming.h"
#include "platform/Platform.h"

namespace {

constexpr size_t kBlockBytes = 1024;
constexpr size_t kTagHeaderBytes = 11;
constexpr size_t kFileHeadBytes = 13;  // 9-byte FLV header + the first previous-tag-size word
constexpr size_t kCopyPieceBytes = 1048576;
// Size words of tags up to 4 MiB are read from the resident window; those of bigger
// tags (a 24-bit data size allows 16 MiB) are read from the file one by one.
constexpr size_t kLookAheadBytes = (4u << 20) + (64u << 10);

bool IsTagType(uint8_t type) { return type == 8 || type == 9 || type == 18; }

uint32_t Be24(const uint8_t* p) { return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | uint32_t(p[2]); }
uint32_t Be32(const uint8_t* p) { return Be24(p) << 8 | uint32_t(p[3]); }

}  // namespace

FlvAdvanceRepair::FlvAdvanceRepair()
    : AdvanceRepairBase("FlvAdvanceRepair", "videorepair/mrvc-core/src/FlvAdvanceRepair"),
      damaged_(kLookAheadBytes),
      farWords_(4096),
      sampleFile_(64u << 10) {}

FlvAdvanceRepair::~FlvAdvanceRepair() {
    damaged_.Close();
    farWords_.Close();
    sampleFile_.Close();
}

int FlvAdvanceRepair::Repair() {
    if (damagedPath_.empty() || samplePath_.empty()) return -1;
    LogEntry("Repair");
    runs_.clear();
    if (!damaged_.Open(damagedPath_) || !farWords_.Open(damagedPath_)) {
        ENGINE_LOG(kLogError, "[FLV] Open damaged file failed:", platform::ToNarrow(damagedPath_));
        return -1;
    }
    if (!sampleFile_.Open(samplePath_)) {
        ENGINE_LOG(kLogError, "[FLV] Open sample file failed:", platform::ToNarrow(samplePath_));
        return -1;
    }
    damagedSize_ = damaged_.Size();
    BeginRepair();
    ReportProgress(20);
    ENGINE_LOG(kLogInfo, "Flv Header is damaged, will try repairing.", int32_t(-1));
    ScanForRuns();
    ReportProgress(100);
    return 0;
}

void FlvAdvanceRepair::ScanForRuns() {
    uint8_t block[kBlockBytes];
    int64_t blockOffset = 0;
    while (!IsStopRequested()) {
        const int64_t got = damaged_.ReadBlock(blockOffset, block, kBlockBytes);
        if (got <= 0) break;
        ScanBlock(block, blockOffset);
        // After a run this lands 1024 bytes past its end: tags starting in that
        // stretch are not looked at, as with every earlier version of this scan.
        blockOffset += got;
        if (PauseThenShouldStop()) break;
    }
}

// Tests every byte that could start a tag; the first that passes starts a run,
// which finishes the block. A run reaching the end of the file ends the scan.
void FlvAdvanceRepair::ScanBlock(uint8_t* block, int64_t& blockOffset) {
    ScanReader::Window window = damaged_.WindowAt(blockOffset);
    for (size_t i = 0; i < kBlockBytes; ++i) {
        if (!IsTagType(block[i])) continue;
        if (kBlockBytes - i < kTagHeaderBytes) {
            Realign(block, blockOffset, i);
            window = damaged_.WindowAt(blockOffset);
            i = 0;
        }
        const int64_t candidate = blockOffset + int64_t(i);
        const uint32_t dataSize = Be24(block + i + 1);
        if (dataSize < 1 || candidate + int64_t(dataSize) > damagedSize_) continue;
        if (!SizeWordMatches(window, candidate, dataSize)) continue;
        const int64_t end = WalkRun(candidate);
        if (end < damagedSize_) {
            blockOffset = end;
        } else {
            RequestStop();
        }
        return;
    }
}

// Moves the block's tail (from `from` on) to its front so the candidate starts
// the block. The free end is refilled from the candidate's own offset rather
// than from the old block's end: only the candidate's first four bytes (type and
// data size) are taken from the block, the size word is always read from the file.
void FlvAdvanceRepair::Realign(uint8_t* block, int64_t& blockOffset, size_t from) {
    const size_t tail = kBlockBytes - from;
    std::memmove(block, block + from, tail);
    blockOffset += int64_t(from);
    damaged_.ReadBlock(blockOffset, block + tail, from);
}

// The previous-tag-size word behind the tag must repeat the tag's length. It is
// taken from the window when there; a word past the end of the file never matches.
bool FlvAdvanceRepair::SizeWordMatches(ScanReader::Window& window, int64_t tagOffset, uint32_t dataSize) {
    const int64_t at = tagOffset + int64_t(dataSize) + int64_t(kTagHeaderBytes);
    uint32_t word = 0;
    if (window.Holds(at, 4)) {
        word = Be32(window.data + (at - window.start));
    } else if (window.End() >= damagedSize_) {
        return false;
    } else if (!farWords_.ReadU32BE(at, word)) {
        return false;
    }
    return word == dataSize + kTagHeaderBytes;
}

bool FlvAdvanceRepair::TagAt(int64_t offset, uint32_t& dataSize) {
    ScanReader::Window window = damaged_.WindowAt(offset);
    if (!window.Holds(offset, 4)) return false;
    const uint8_t* head = window.data;
    if (!IsTagType(head[0])) return false;
    dataSize = Be24(head + 1);
    if (dataSize < 1 || offset + int64_t(dataSize) > damagedSize_) return false;
    return SizeWordMatches(window, offset, dataSize);
}

int64_t FlvAdvanceRepair::WalkRun(int64_t start) {
    int64_t position = start;
    while (!IsStopRequested() && position < damagedSize_) {
        uint32_t dataSize = 0;
        if (!TagAt(position, dataSize)) break;
        position += int64_t(dataSize) + int64_t(kTagHeaderBytes) + 4;
        if (PauseThenShouldStop()) break;
    }
    runs_.push_back({start, position});
    return position;
}

std::wstring FlvAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    result.clear();
    std::wstring path;
    naming::MakeOutputPath(path, first, second, mode);
    FileWriter out;
    if (!out.Create(path)) {
        ENGINE_LOG(kLogError, "[FLV] Create output file failed:", platform::ToNarrow(path));
        return result;
    }
    ClearStopRequest();
    uint8_t head[kFileHeadBytes];
    const int64_t got = sampleFile_.ReadBlock(0, head, sizeof head);
    bool written = got <= 0 || out.Write(head, size_t(got));
    written = written && CopyRuns(out);
    if (!out.Close() || !written) {
        ENGINE_LOG(kLogError, "[FLV] Write output file failed:", platform::ToNarrow(path));
        return result;
    }
    result = path;
    return result;
}

bool FlvAdvanceRepair::CopyRuns(FileWriter& out) {
    for (const FlvRun& run : runs_) {
        for (int64_t at = run.start; at < run.end;) {
            size_t got = 0;
            const size_t want = size_t(std::min<int64_t>(run.end - at, int64_t(kCopyPieceBytes)));
            const uint8_t* data = damaged_.View(at, want, got);
            if (data == nullptr || got == 0) break;
            if (!out.Write(data, got)) return false;
            at += int64_t(got);
            if (PauseThenShouldStop()) break;
        }
    }
    return true;
}

void FlvAdvanceRepair::Release() {
    Stop();
    damaged_.Close();
    farWords_.Close();
    sampleFile_.Close();
    std::vector<FlvRun>().swap(runs_);
}
