#include "thorough/strategies/TransportStreamCleaner.h"

#include <algorithm>
#include <cstring>

#include "AppPaths.h"
#include "RepairLog.h"
#include "thorough/strategies/TsPacket.h"

namespace thorough {

namespace {

const char* const kLogSource = "videorepair/mrvc-core/src/thorough/strategies/TransportStreamCleaner";

constexpr int kPatTable = 0x00;
constexpr int kPmtTable = 0x02;

bool Usable(const std::wstring& path) { return !path.empty() && !app_paths::IsSpecialFile(path); }

}  // namespace

TransportStreamCleaner::TransportStreamCleaner(RepairLog* log, size_t windowBytes)
    : log_(log), reader_(std::max(windowBytes, 4 * ts::kRunReach)) {}

bool TransportStreamCleaner::Open(const std::wstring& damagedPath, const std::wstring& samplePath) {
    if (Usable(samplePath) && !tables_.Load(samplePath)) {
        VR_LOG(log_, kLogWarning, "No PAT/PMT at the head of the sample", int32_t(tables_.PacketSize()));
    }
    if (!Usable(damagedPath) || !reader_.Open(damagedPath)) {
        VR_LOG(log_, kLogError, "Damaged file does not open", int32_t(-1));
        return false;
    }
    if (!FindStream()) {
        VR_LOG(log_, kLogError, "No transport stream packets in the damaged file", reader_.Size());
        return false;
    }
    // The size comes from a long run; the stream is then taken up from the start
    // with the shorter run at that size, so that damage within the first packets
    // does not cost the packets before it.
    firstPacketSize_ = packetSize_;
    cursor_ = 0;
    locked_ = false;
    FindStream();
    VR_LOG(log_, kLogInfo, "Transport stream packet size", int32_t(packetSize_));
    VR_LOG(log_, kLogInfo, "First packet at", cursor_);
    return true;
}

int64_t TransportStreamCleaner::Read(uint8_t* buffer, size_t size) {
    size_t copied = 0;
    while (copied < size) {
        if (pendingAt_ == pending_.size()) {
            pending_.clear();
            pendingAt_ = 0;
            if (!Produce()) break;
        }
        const size_t n = std::min(size - copied, pending_.size() - pendingAt_);
        std::memcpy(buffer + copied, pending_.data() + pendingAt_, n);
        copied += n;
        pendingAt_ += n;
    }
    if (copied == 0 && readError_) return -1;
    return int64_t(copied);
}

// Follows the stride while every packet starts with its sync byte. The packet in
// front of damage is kept as a demuxer would keep it: most damage overwrites
// whole packets, and that packet is often the start of a reference frame whose
// loss would break its whole group of pictures.
bool TransportStreamCleaner::Produce() {
    while (pending_.empty()) {
        if (finished_) return false;
        if ((!locked_ && !FindStream()) || !WindowAtCursor()) {
            Finish();
            return false;
        }
        if (ConfirmedAtCursor()) {
            if (ts::LooksRight(window_)) Emit(window_);
            cursor_ += packetSize_;
            continue;
        }
        locked_ = false;
        ++resyncs_;
        ++cursor_;
    }
    return true;
}

// Searches forward from the cursor, a window at a time, for a run of syncs.
bool TransportStreamCleaner::FindStream() {
    while (WindowAtCursor()) {
        const size_t limit = windowAtEnd_ ? windowLength_ : windowLength_ - ts::kRunReach;
        const ts::SyncRun run = ts::FindRun(window_, 0, limit, windowLength_, windowAtEnd_, packetSize_);
        if (run.at >= 0) {
            cursor_ += run.at;
            if (packetSize_ != 0 && run.packetSize != packetSize_) {
                VR_LOG(log_, kLogWarning, "Packet size changes", int32_t(run.packetSize));
            }
            packetSize_ = run.packetSize;
            locked_ = true;
            return true;
        }
        cursor_ += int64_t(limit);
        if (windowAtEnd_) break;
    }
    return false;
}

bool TransportStreamCleaner::WindowAtCursor() {
    reader_.Seek(cursor_);
    if (!reader_.Fill()) {
        window_ = nullptr;
        windowLength_ = 0;
        readError_ = readError_ || reader_.Remaining() > 0;
        return false;
    }
    window_ = reader_.Data();
    windowLength_ = reader_.Length();
    windowAtEnd_ = cursor_ + int64_t(windowLength_) >= reader_.Size();
    return true;
}

// A whole packet with its sync byte where the stride puts it.
bool TransportStreamCleaner::ConfirmedAtCursor() const {
    return window_[0] == ts::kSyncByte && windowLength_ >= ts::kPacketBytes;
}

void TransportStreamCleaner::Emit(const uint8_t* packet) {
    const int64_t start = cursor_ - ts::PrefixBytes(packetSize_);
    if (start > covered_) {
        skipped_ += start - covered_;
        skips_.Add(covered_, start - covered_);
    }
    covered_ = std::min(start + packetSize_, reader_.Size());
    Watch(packet);
    map_.Add(cursor_, ts::kPacketBytes);
    Append(packet);
}

// Notes the stream's own tables until its first PES start; if they have not
// come by then, the damage took them and the sample's go first.
void TransportStreamCleaner::Watch(const uint8_t* packet) {
    if (headerSettled_) return;
    const int pid = ts::Pid(packet);
    if (pid == ts::kNullPid) return;
    if (pid != 0 && ts::StartsPes(packet)) {
        headerSettled_ = true;
        if (sawPat_ && sawPmt_) return;
        if (!tables_.Found()) {
            VR_LOG(log_, kLogWarning, "Stream tables lost and no sample tables to put back", int32_t(pid));
        } else if (!tables_.Carries(pid)) {
            VR_LOG(log_, kLogWarning, "Stream tables lost and the sample does not describe PID", int32_t(pid));
        } else {
            Inject();
        }
        return;
    }
    const int table = ts::TableId(packet);
    if (pid == 0 && table == kPatTable) sawPat_ = true;
    if (pid != 0 && table == kPmtTable) sawPmt_ = true;
}

// Counters restart at 0: the demuxer takes the first counter it sees on a PID as
// given, and a section start that does not follow it only costs the tail of an
// earlier section, which these single-packet tables do not have.
void TransportStreamCleaner::Inject() {
    for (TsProgramTables::Packet packet : tables_.Packets()) {
        ts::SetContinuity(packet.data(), 0);
        map_.AddPutIn(ts::kPacketBytes);
        Append(packet.data());
    }
    putIn_.push_back({cursor_, int64_t(tables_.Packets().size() * ts::kPacketBytes), RangeKind::kRestored,
                      "PAT and PMT from the sample"});
    injected_ = true;
    VR_LOG(log_, kLogInfo, "PAT/PMT from the sample put in front", int32_t(tables_.Packets().size()));
}

void TransportStreamCleaner::Append(const uint8_t* packet) {
    pending_.insert(pending_.end(), packet, packet + ts::kPacketBytes);
}

void TransportStreamCleaner::Finish() {
    if (finished_) return;
    finished_ = true;
    if (reader_.Size() > covered_) {
        skipped_ += reader_.Size() - covered_;
        skips_.Add(covered_, reader_.Size() - covered_);
    }
    covered_ = reader_.Size();
    VR_LOG(log_, kLogInfo, "Transport stream bytes skipped", skipped_);
    VR_LOG(log_, kLogInfo, "Transport stream resynchronisations", resyncs_);
}

}  // namespace thorough
