#include "MtsAdvanceRepair.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>

#include "AppPaths.h"
#include "OutputNaming.h"
#include "TextUtil.h"
#include "io/FileWriter.h"
#include "io/RangeCopy.h"
#include "platform/Platform.h"

namespace {

constexpr uint8_t kSyncByte = 0x47;
constexpr size_t kProbeBytes = 1024;

bool SyncAtStride(const uint8_t* head, size_t first, size_t stride) {
    for (size_t k = 0; k < 5; ++k) {
        if (head[first + k * stride] != kSyncByte) return false;
    }
    return true;
}

// libavformat must recognise the sample as a stream it can open; nothing else
// is asked of it.
bool LibavformatAccepts(const std::wstring& path) {
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, platform::ToNarrow(path).c_str(), nullptr, nullptr) < 0) return false;
    avformat_close_input(&context);
    return true;
}

std::wstring LowerCase(std::wstring text) {
    for (wchar_t& c : text) {
        if (c >= L'A' && c <= L'Z') c = wchar_t(c - L'A' + L'a');
    }
    return text;
}

}  // namespace

MtsAdvanceRepair::MtsAdvanceRepair()
    : AdvanceRepairBase("MtsAdvanceRepair", "videorepair/mrvc-core/src/MtsAdvanceRepair") {}

MtsAdvanceRepair::~MtsAdvanceRepair() { damaged_.Close(); }

void MtsAdvanceRepair::SetVideoPath(const std::wstring& damagedPath, const std::wstring& samplePath) {
    AdvanceRepairBase::SetVideoPath(damagedPath, samplePath);
    // "mts" or "m2ts" as the file says, so the registry hands this engine back
    // for the same kind of file.
    std::wstring extension = LowerCase(text::ExtensionOf(damagedPath_));
    formatName_ = extension.empty() ? L"mts" : extension;
}

MtsAdvanceRepair::PacketLayout MtsAdvanceRepair::LayoutFromHead(const uint8_t* data, size_t length) {
    uint8_t head[kProbeBytes] = {};
    std::memcpy(head, data, std::min(length, kProbeBytes));
    PacketLayout layout;
    if (SyncAtStride(head, 0, 188)) {
        layout.packetSize = 188;
        layout.syncOffset = 0;
    } else if (!SyncAtStride(head, 4, 192) && SyncAtStride(head, 16, 204)) {
        layout.packetSize = 204;
        layout.syncOffset = 16;
    }
    return layout;  // the 192-byte layout is the default answer
}

bool MtsAdvanceRepair::ProbeSampleLayout() {
    if (samplePath_.empty() || app_paths::IsSpecialFile(samplePath_)) return false;  // a FIFO would block the open
    if (!LibavformatAccepts(samplePath_)) return false;
    FileReader sample(64 * 1024);
    if (!sample.Open(samplePath_)) return false;
    uint8_t head[kProbeBytes] = {};
    int64_t got = sample.ReadAt(0, head, sizeof head);
    sample.Close();
    if (got < 0) return false;
    layout_ = LayoutFromHead(head, size_t(got));
    return true;
}

int MtsAdvanceRepair::Repair() {
    if (damagedPath_.empty() || samplePath_.empty()) return -1;
    LogEntry("Repair");
    validRanges_.clear();
    BeginRepair();
    if (!ProbeSampleLayout()) return -2;
    ReportProgress(20);
    if (!damaged_.Open(damagedPath_)) return -1;
    ScanDamagedFile();
    ReportProgress(100);
    // The message is the FLV engine's; every engine of this family logs the same text.
    ENGINE_LOG(kLogInfo, "Flv Header is damaged, will try repairing.", int64_t(validRanges_.size()));
    return 0;
}

// Ten packets at a time; five sync bytes at the packet stride start a run.
void MtsAdvanceRepair::ScanDamagedFile() {
    const size_t blockBytes = size_t(kScanPackets) * size_t(layout_.packetSize);
    int64_t position = 0;
    const int64_t size = damaged_.Size();
    while (position < size) {
        size_t count = 0;
        const uint8_t* block = damaged_.View(position, blockBytes, count);
        if (block == nullptr || count == 0) break;
        int64_t match = FindSyncRun(block, count, position);
        int64_t next = match >= 0 ? CollectRun(match) : position + int64_t(count);
        position = std::max(next, position + 1);
        if (PauseThenShouldStop()) break;
    }
}

int64_t MtsAdvanceRepair::FindSyncRun(const uint8_t* block, size_t count, int64_t blockPosition) const {
    const size_t stride = size_t(layout_.packetSize);
    const size_t span = size_t(kMatchPackets) * stride;
    if (count <= span) return -1;
    for (size_t i = 0; i + span < count; ++i) {
        if (block[i] != kSyncByte || !SyncAtStride(block, i, stride)) continue;
        if (blockPosition + int64_t(i) < layout_.syncOffset) continue;
        return blockPosition + int64_t(i);
    }
    return -1;
}

// Follows a run from its first sync byte in blocks of 5140 packets and ends it at
// the first packet whose sync byte is wrong. Each block is tested over all its
// slots even when the read came up short: the slots past the data still hold the
// previous block's bytes (zeros in the first block). The previous block passed
// over all its slots, so those hold sync bytes. Blocks are looked at in the
// reader's cache instead of being copied out.
int64_t MtsAdvanceRepair::CollectRun(int64_t syncPosition) {
    if (syncPosition < layout_.syncOffset) return -1;
    ByteRange range;
    range.begin = syncPosition - layout_.syncOffset;
    const size_t stride = size_t(layout_.packetSize);
    const size_t blockBytes = size_t(kRunBlockPackets) * stride;
    bool first = true;
    int64_t position = syncPosition;
    for (;;) {
        size_t got = 0;
        const uint8_t* block = damaged_.View(position, blockBytes, got);
        if (block == nullptr || got == 0) break;
        size_t slot = 0;
        for (; slot < got; slot += stride)
            if (block[slot] != kSyncByte) break;
        // Past the data: zeros end the run at the first such slot, left-over sync bytes pass.
        if (slot >= got && !first) slot = blockBytes;
        if (slot < blockBytes) {
            range.end = position + int64_t(slot);
            validRanges_.push_back(range);
            return range.end;
        }
        first = false;
        position += int64_t(got);
        if (PauseThenShouldStop()) break;
    }
    range.end = position;
    validRanges_.push_back(range);
    return position;
}

std::wstring MtsAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    std::wstring outputPath;
    naming::MakeOutputPath(outputPath, first, second, mode);
    FileWriter output;
    if (!output.Create(outputPath)) {
        result.clear();
        return result;
    }
    for (const ByteRange& range : validRanges_) {
        // Stop ends the current range only; later ranges are still written.
        CopyFileRange(damaged_, output, range.begin, range.end, [this]() { return !PauseThenShouldStop(); });
    }
    if (!output.Close()) {
        // A cut copy is no repair: the host hears of nothing rather than of half a file.
        ENGINE_LOG(kLogError, "[MTS] Write output file failed:", platform::ToNarrow(outputPath));
        result.clear();
        return result;
    }
    result = outputPath;
    return result;
}

void MtsAdvanceRepair::Release() {
    Stop();
    damaged_.Close();
}
