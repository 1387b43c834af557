#include "MkvAdvanceRepair.h"

#include <algorithm>

#include "IVideoMetaDataParser.h"
#include "MkvWriter.h"
#include "OutputNaming.h"
#include "VideoRepairExport.h"

namespace {
constexpr int kProgressHead = 5;
constexpr int kProgressScanEnd = 95;
// The cluster parser reads element headers and a few bytes of each block, never
// payloads: a small cache keeps it from copying the whole file a second time.
constexpr size_t kFollowerCacheBytes = 16u << 10;
}  // namespace

MkvAdvanceRepair::MkvAdvanceRepair()
    : AdvanceRepairBase("MkvAdvanceRepair", "videorepair/mrvc-core/src/MkvAdvanceRepair"),
      follower_(kFollowerCacheBytes) {}

MkvAdvanceRepair::~MkvAdvanceRepair() { CloseFiles(); }

int MkvAdvanceRepair::Repair() {
    LogEntry("Repair");
    BeginRepair();
    repaired_ = false;
    scanner_.reset();
    if (damagedPath_.empty()) {
        ENGINE_LOG(kLogError, "[MKV] Damaged file path is empty.", int32_t(-1));
        return -1;
    }
    if (!damaged_.Open(damagedPath_) || !follower_.Open(damagedPath_)) {
        ENGINE_LOG(kLogError, "[MKV] Cannot open the damaged file.", int32_t(-1));
        CloseFiles();
        return -1;
    }
    ReportProgress(1);
    ReadMetadata();
    if (!ChooseHead()) {
        CloseFiles();
        return -1;
    }
    ReportProgress(kProgressHead);
    ScanClusters();
    if (scanner_->Clusters().empty()) {
        ENGINE_LOG(kLogError, "[MKV] No valid Cluster found in the damaged file.", int32_t(-1));
        CloseFiles();
        return -1;
    }
    ENGINE_LOG(kLogInfo, "[MKV] Clusters recovered:", int64_t(scanner_->Clusters().size()));
    ENGINE_LOG(kLogInfo, "[MKV] Clusters cut short:", int64_t(scanner_->CutCount()));
    ENGINE_LOG(kLogInfo, "Flv Header is damaged, will try repairing.", int64_t(scanner_->Clusters().size()));
    ReportProgress(100);
    repaired_ = true;
    return 0;
}

// The metadata parser is asked for duration and bit rate; it answers 0.0 and 0,
// so the values are only logged.
void MkvAdvanceRepair::ReadMetadata() {
    IVideoMetaDataParser* parser = nullptr;
    if (CreateMetaDataParser(&parser) != 0 || parser == nullptr) return;
    parser->Open(damagedPath_.c_str());
    double duration = parser->GetDuration();
    int32_t bitRate = parser->GetBitRate();
    parser->Destroy(1);
    ENGINE_LOG(kLogDebug, "[MKV] Metadata duration (ms):", int64_t(duration * 1000.0));
    ENGINE_LOG(kLogDebug, "[MKV] Metadata bit rate:", bitRate);
}

// The damaged file's own head describes its clusters exactly; a sample from the
// same device is the fallback.
bool MkvAdvanceRepair::ChooseHead() {
    std::string why;
    if (MkvHeadParser::Parse(damaged_, head_, why)) {
        ENGINE_LOG(kLogInfo, "[MKV] Using the damaged file's own head, tracks:", int64_t(head_.tracks.size()));
        return true;
    }
    ENGINE_LOG(kLogWarning, "[MKV] Damaged file's head is unusable:", why);
    if (samplePath_.empty()) {
        ENGINE_LOG(kLogError, "[MKV] No sample given and the damaged file's head is unusable.", int32_t(-1));
        return false;
    }
    FileReader sample(1u << 20);
    if (!sample.Open(samplePath_)) {
        ENGINE_LOG(kLogError, "[MKV] Cannot open the sample file.", int32_t(-1));
        return false;
    }
    if (!MkvHeadParser::Parse(sample, head_, why)) {
        ENGINE_LOG(kLogError, "[MKV] Sample's head is unusable too:", why);
        return false;
    }
    head_.end = 0;  // the damaged file's head bytes are not to be trusted: scan from the start
    ENGINE_LOG(kLogInfo, "[MKV] Using the sample's head, tracks:", int64_t(head_.tracks.size()));
    return true;
}

void MkvAdvanceRepair::ScanClusters() {
    scanner_.reset(new MkvClusterScanner(damaged_, follower_, head_, head_.end));
    bool more = true;
    while (more) {
        more = scanner_->ScanBlock();
        ReportProgress(scanner_->Percent(kProgressHead, kProgressScanEnd));
        if (PauseThenShouldStop()) break;
    }
    scanner_->Finish();
}

std::wstring MkvAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    result.clear();
    if (!repaired_ || !scanner_ || !damaged_.IsOpen()) {
        ENGINE_LOG(kLogError, "[MKV] Nothing repaired to write.", int32_t(-1));
        return result;
    }
    std::wstring path;
    naming::MakeOutputPath(path, first, second, mode);
    if (!WriteOutput(path)) return result;
    result = path;
    return result;
}

bool MkvAdvanceRepair::WriteOutput(const std::wstring& path) {
    MkvWriter writer;
    if (!writer.Create(path)) {
        ENGINE_LOG(kLogError, "[MKV] Cannot create the repaired file.", int32_t(-1));
        return false;
    }
    const MkvTrack* cueTrack = head_.CueTrack();
    const auto& cues = scanner_->Cues();
    bool withCues = cueTrack != nullptr && !cues.empty();
    double duration = double(std::max<int64_t>(scanner_->EndTime(), 1));
    bool ok = writer.WriteHead(head_, duration, withCues);
    if (ok) ENGINE_LOG(kLogInfo, "Repaired Mkv Head", "");
    ok = ok && writer.WriteClusters(damaged_, scanner_->Clusters());
    if (ok) ENGINE_LOG(kLogInfo, "Repaired Mkv Body", "");
    ok = ok && (!withCues || writer.WriteCues(cues, cueTrack->number));
    ok = writer.Finish() && ok;
    if (!ok) ENGINE_LOG(kLogError, "[MKV] Writing the repaired file failed.", int32_t(-1));
    return ok;
}

void MkvAdvanceRepair::Release() {
    Stop();
    CloseFiles();
    scanner_.reset();
    repaired_ = false;
}

void MkvAdvanceRepair::CloseFiles() {
    damaged_.Close();
    follower_.Close();
}
