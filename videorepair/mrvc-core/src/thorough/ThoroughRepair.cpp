#include "thorough/ThoroughRepair.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <chrono>
#include <cstdio>

#include "OutputNaming.h"
#include "RepairLog.h"
#include "io/FileReader.h"
#include "io/FileWriter.h"
#include "io/RangeCopy.h"
#include "io/ReadFaults.h"
#include "io/WriteFailure.h"
#include "platform/Platform.h"
#include "thorough/Demuxer.h"
#include "thorough/RemuxPass.h"
#include "thorough/TimelineSurvey.h"

namespace thorough {
namespace {

const char* const kLogSource = "videorepair/mrvc-core/src/thorough/ThoroughRepair";

const char* KindName(ThoroughVerdict kind) {
    switch (kind) {
        case kVerdictRebuilt: return "rebuilt";
        case kVerdictRemuxed: return "remuxed";
        case kVerdictAsIs: return "as is";
        default: return "none";
    }
}

std::string CountText(const ThoroughMediaCount& count) {
    char text[128];
    std::snprintf(text, sizeof text, "%lld video frames, %.1f s of audio", (long long)count.videoFrames,
                  count.audioSeconds);
    return text;
}

bool RemoveFile(const std::wstring& path) {
    try {
        Poco::File file(platform::ToNarrow(path));
        if (file.exists()) file.remove();
        return true;
    } catch (...) {
        return false;
    }
}

// Copies the whole file; on failure names the cause and the folder in why.
bool CopyWhole(const std::wstring& from, const std::wstring& to, std::string& why) {
    FileReader in(FileWriter::kPieceBytes * 2);
    FileWriter out;
    if (!in.Open(from)) return false;
    if (!RoomFor(FolderOf(to), in.Size(), why)) return false;
    bool written = out.Create(to) && CopyFileRange(in, out, 0, in.Size()) == in.Size();
    written = out.Close() && written;
    if (!written) why = WriteFailureText(out.Failure(), FolderOf(to), in.Size());
    return written;
}

Candidate BestOf(const Candidate& asIs, const std::vector<Candidate>& candidates) {
    Candidate best = asIs;
    for (const Candidate& c : candidates)
        if (Better(c, best)) best = c;
    return best;
}

}  // namespace

int ThoroughRepair::Run(ThoroughOutcome& outcome) {
    // Every reader of the damaged file shares what it could not read, and the
    // record hears of each unreadable range once.
    ReadFaultWatch watch(job_.damagedPath, [this](int64_t offset, int64_t length) {
        record_.AddRange(offset, length, RangeKind::kUnreadable);
    });
    int result = RunPasses(outcome);
    NoteUnreadable(*watch.Faults());
    WriteRecord(outcome);
    return result;
}

int ThoroughRepair::RunPasses(ThoroughOutcome& outcome) {
    QuietFfmpegLog();
    if (!Readable()) return -1;
    record_.SetFileSize(size_);
    bool carving = static_cast<bool>(job_.carvingRepair);
    strategy_ = StrategyFor(job_.formatName);
    const bool carverLeads = strategy_->CarverLeads();
    plan_ = carverLeads ? Plan{{75, 88}, {2, 2}, {2, 75}, {88, 92}, {92, 97}}
                        : Plan{{2, 40}, {40, 55}, {55, 75}, {75, 88}, {88, 97}};
    SampleModel sample;
    if (sample.Load(job_.samplePath)) Log(kLogInfo, "[Thorough] sample streams:", std::to_string(sample.Streams().size()));
    control_.Progress(plan_.rebuild.from);

    Candidate asIs{kVerdictAsIs, std::wstring(), {}, true, std::make_shared<RepairRecord>()};
    asIs.record->AddRange(0, size_, RangeKind::kRecovered);
    AsIsCounter counter(job_.damagedPath, sample, control_, job_.fullDecodeCheck);
    std::vector<Candidate> candidates =
        carverLeads ? CarverFirst(sample, counter, asIs) : RebuildFirst(sample, counter, asIs);
    if (carving && CarvingMayHelp(asIs) && !control_.ShouldStop()) candidates.push_back(FromCarvingRepair(sample));

    Candidate best = BestOf(asIs, candidates);
    Explain(best, asIs, outcome);
    if (ScoreOf(best.count) <= 0) {
        RemoveTemporaries(std::wstring());
        Log(kLogError, "[Thorough] nothing playable was found in:", platform::ToNarrow(job_.damagedPath));
        return -1;
    }
    bool kept = Keep(best);
    RemoveTemporaries(kept ? best.path : std::wstring());
    if (!kept) {
        outcome.verdict = kVerdictNone;
        outcome.reason = "writing the repaired file failed: " + writeFailure_;
        return -1;
    }
    RecordWhatWasKept(best);
    control_.Progress(100);
    return 0;
}

std::vector<Candidate> ThoroughRepair::RebuildFirst(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs) {
    bool asIsCounted = false;
    std::vector<Candidate> candidates{Rebuild(sample, counter, asIs, asIsCounted)};
    if (!asIsCounted) TakeAsIsCount(counter, asIs);
    if (!control_.ShouldStop()) candidates.push_back(FromCarver(sample, asIs, BestOf(asIs, candidates)));
    return candidates;
}

// The carver's file is written while the file as it is is counted beside it
// (the carver does not wait for that count); a remux of the file as it is
// follows unless its packets, all taken as good, fall short of what the carver
// kept. On a tie the remux goes first and so wins: it also keeps what no carver
// looks for (subtitles, chapters, tags).
std::vector<Candidate> ThoroughRepair::CarverFirst(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs) {
    std::vector<Candidate> candidates;
    muxer_ = strategy_->Muxer();
    counter.Start();
    candidates.push_back(FromCarver(sample, asIs, Candidate{}));
    ThoroughMediaCount remuxBound = TakeAsIsCount(counter, asIs);
    if (control_.ShouldStop()) return candidates;
    Candidate& carved = candidates.front();
    const CarveContext counted{asIsReadsOwnFormat_, asIs.count, nullptr, {}};
    if (carved.usable && !strategy_->CarvedAdds(carved.count, counted)) {
        Log(kLogInfo, "[Thorough] the carver's file adds nothing to the file as it is:", CountText(carved.count));
        carved.usable = false;
    }
    if (carved.usable && ScoreOf(remuxBound) < ScoreOf(carved.count)) {
        Log(kLogInfo, "[Thorough] a remux would hold less than the carver's file:", CountText(remuxBound));
        return candidates;
    }
    bool asIsCounted = true;
    candidates.insert(candidates.begin(), Rebuild(sample, counter, asIs, asIsCounted));
    return candidates;
}

bool ThoroughRepair::Readable() {
    int fd = platform::OpenForRead(job_.damagedPath);
    if (fd >= 0) {
        size_ = platform::Seek(fd, 0, SEEK_END);
        platform::Close(fd);
    }
    if (fd < 0 || size_ <= 0) {
        Log(kLogError, "[Thorough] cannot read the damaged file:", platform::ToNarrow(job_.damagedPath));
        return false;
    }
    return true;
}

std::wstring ThoroughRepair::TemporaryPath() {
    Poco::Path output(platform::ToNarrow(job_.outputPath));
    std::string name = ".vr-" + platform::ToNarrow(naming::NewUuidText()) + "." + output.getExtension();
    std::wstring path = platform::ToWide(Poco::Path(output.parent(), name).toString());
    temporaries_.push_back(path);
    return path;
}

Candidate ThoroughRepair::Rebuild(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs,
                                  bool& asIsCounted) {
    ContainerStrategy* strategy = strategy_.get();
    std::unique_ptr<ByteSource> cleaned = strategy->Clean(job_.damagedPath, job_.samplePath, control_.Log());
    bool remux = cleaned == nullptr;
    if (!remux) counter.Start();
    Candidate candidate{remux ? kVerdictRemuxed : kVerdictRebuilt, std::wstring(), {}, false, nullptr};
    Demuxer input;
    bool opened = remux ? input.OpenFile(job_.damagedPath) : input.OpenSource(std::move(cleaned), strategy->CleanedFormat());
    if (remux) NoteAsIsFormat(input);
    muxer_ = strategy->Muxer();
    if (!opened) {
        Log(kLogWarning, "[Thorough] no stream could be read from the damaged file:", strategy->Name());
        asIsCounted = remux;  // the file does not open as it is either
        return candidate;
    }
    candidate.path = TemporaryPath();
    PassResult result =
        RunPass(sample, input, PassSettings{job_.fullDecodeCheck, true, size_, plan_.rebuild}, true, candidate);
    // Where the cleaning changed nothing, what was read is the file as it is, and
    // a second pass over it would only count the same packets again.
    if (!input.ReadOtherThanFile() && !result.stopped) {
        counter.Abandon();
        asIs.count = result.read;
        asIsCounted = true;
        NoteAsIsFormat(input);
    }
    NoteRebuild(input, result);
    return candidate;
}

void ThoroughRepair::NoteRebuild(const Demuxer& input, const PassResult& result) {
    for (const std::string& restored : result.restorations) Log(kLogInfo, "[Thorough] restored", restored);
    for (const std::string& refused : result.refused) Log(kLogWarning, "[Thorough] the muxer cannot carry", refused);
    if (input.Skipped() > 0) Log(kLogInfo, "[Thorough] bytes skipped as unusable:", std::to_string(input.Skipped()));
    if (input.CutSamples() > 0) {
        cutNote_ = std::to_string(input.CutSamples()) + " samples that the end of the file cut were left out";
        Log(kLogInfo, "[Thorough]", cutNote_);
    }
    if (!result.written) Log(kLogWarning, "[Thorough] writing the rebuilt file failed:", result.error);
}

// Once the host asked to stop, what the rebuild found is kept, quickly: a count
// of the damaged file (stopped half way, or done) would only pick a copy of the
// whole file, which the host did not wait for.
ThoroughMediaCount ThoroughRepair::TakeAsIsCount(AsIsCounter& counter, Candidate& asIs) {
    if (control_.ShouldStop()) {
        counter.Abandon();
        return {};
    }
    // What the count costs the repair: all of it in the foreground, only the wait
    // for it when it ran beside the rebuild.
    auto waited = std::chrono::steady_clock::now();
    AsIsCounter::Result result = counter.Started() ? counter.Finish() : counter.Count(plan_.asIs, size_);
    judgeSeconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - waited).count();
    asIsReadsOwnFormat_ = result.format == DemuxerFor(job_.formatName);
    if (result.complete && !control_.ShouldStop()) asIs.count = result.count;
    return result.remuxBound;
}

void ThoroughRepair::NoteAsIsFormat(const Demuxer& input) {
    asIsReadsOwnFormat_ = input.FormatName() == DemuxerFor(job_.formatName);
}

// The container's carving repair rebuilds around a lost header. Where the file's
// own demuxer still reads it, its own index and structure serve better, and the
// carving would only cost time and offer the judge a worse candidate.
bool ThoroughRepair::CarvingMayHelp(const Candidate& asIs) const {
    return !asIsReadsOwnFormat_ || asIs.count.videoFrames == 0;
}

Candidate ThoroughRepair::FromCarver(const SampleModel& sample, const Candidate& asIs, const Candidate& best) {
    const Candidate none{kVerdictRebuilt, std::wstring(), {}, false, nullptr};
    // A carver that walks the file first has the first half of the pass's bar.
    const int middle = (plan_.carver.from + plan_.carver.to) / 2;
    CarveContext context{asIsReadsOwnFormat_, asIs.count, &control_, {plan_.carver.from, middle}};
    std::unique_ptr<PacketSource> carved = strategy_->Carve(job_.damagedPath, sample, context, control_.Log());
    if (!carved) return none;
    // Where something already plays, the carver's file is written only when what
    // it carved could beat it: writing a second copy of a large file costs more
    // than walking it twice.
    if (ScoreOf(best.count) > 0) {
        if (!CouldBeat(sample, *carved, best, {plan_.carver.from, middle})) return none;
        carved = strategy_->Carve(job_.damagedPath, sample, context, control_.Log());
        if (!carved) return none;
    }
    Candidate candidate = Write(sample, *carved, size_, {middle, plan_.carver.to}, true);
    if (carved->Skipped() > 0) Log(kLogInfo, "[Thorough] carver skipped bytes:", std::to_string(carved->Skipped()));
    return candidate;
}

// Counts the carved packets without writing or decoding them: every frame after a
// key frame taken as good, the most a written file of them could score.
bool ThoroughRepair::CouldBeat(const SampleModel& sample, PacketSource& carved, const Candidate& best,
                               ProgressRange progress) {
    PassSettings settings{job_.fullDecodeCheck, false, size_, progress};
    settings.decode = false;
    PassResult counted = RemuxPass(sample, control_).Run(carved, std::wstring(), muxer_, settings);
    Candidate bound{kVerdictRebuilt, std::wstring(), counted.kept, true, nullptr};
    bool could = !counted.stopped && Better(bound, best);
    if (!could) Log(kLogInfo, "[Thorough] the carver found no more than what plays already:", CountText(counted.kept));
    return could;
}

Candidate ThoroughRepair::FromCarvingRepair(const SampleModel& sample) {
    std::wstring directory = platform::ToWide(Poco::Path(platform::ToNarrow(job_.outputPath)).parent().toString());
    std::wstring carved = job_.carvingRepair(directory, plan_.carving);
    if (carved.empty()) return Candidate{kVerdictRebuilt, std::wstring(), {}, false, nullptr};
    temporaries_.push_back(carved);
    return Remux(sample, carved, plan_.carvingRemux);
}

Candidate ThoroughRepair::Remux(const SampleModel& sample, const std::wstring& source, ProgressRange progress) {
    Candidate candidate{kVerdictRebuilt, std::wstring(), {}, false, nullptr};
    Demuxer input;
    if (!input.OpenFile(source)) return candidate;
    int64_t size = 0;
    if (int fd = platform::OpenForRead(source); fd >= 0) {
        size = platform::Seek(fd, 0, SEEK_END);
        platform::Close(fd);
    }
    return Write(sample, input, size, progress, false);
}

// One pass into candidate.path; recorded: the pass notes which bytes of the
// damaged file it used (only passes that read the damaged file itself).
PassResult ThoroughRepair::RunPass(const SampleModel& sample, PacketSource& input, PassSettings settings,
                                   bool recorded, Candidate& candidate) {
    if (recorded) {
        candidate.record = std::make_shared<RepairRecord>();
        settings.record = candidate.record.get();
    }
    PassResult result = RemuxPass(sample, control_).Run(input, candidate.path, muxer_, settings);
    judgeSeconds_ += result.judgeSeconds;
    Log(kLogInfo, recorded ? "[Thorough] written from the damaged file:" : "[Thorough] written from the carving repair:",
        CountText(result.kept));
    candidate.count = result.kept;
    candidate.usable = result.written;
    return result;
}

Candidate ThoroughRepair::Write(const SampleModel& sample, PacketSource& input, int64_t size, ProgressRange progress,
                                bool fromDamagedFile) {
    Candidate candidate{kVerdictRebuilt, TemporaryPath(), {}, false, nullptr};
    PassResult result = RunPass(sample, input, PassSettings{job_.fullDecodeCheck, false, size, progress},
                                fromDamagedFile, candidate);
    for (const std::string& refused : result.refused) Log(kLogWarning, "[Thorough] the muxer cannot carry", refused);
    if (!result.written) Log(kLogWarning, "[Thorough] writing a carved candidate failed:", result.error);
    return candidate;
}

// The kept file comes into place whole or not at all: the as-is copy is written
// under a temporary name beside the output first, then renamed, like every candidate.
bool ThoroughRepair::Keep(const Candidate& best) {
    std::wstring from = best.path;
    if (best.kind == kVerdictAsIs) {
        from = TemporaryPath();
        if (!CopyWhole(job_.damagedPath, from, writeFailure_)) from.clear();
    }
    bool kept = !from.empty() && platform::RenameReplacing(from, job_.outputPath);
    if (!kept) {
        if (writeFailure_.empty()) writeFailure_ = WriteFailureText(platform::LastIoFailure(), FolderOf(job_.outputPath), -1);
        Log(kLogError, "[Thorough] writing the repaired file failed:", writeFailure_);
    }
    return kept;
}

void ThoroughRepair::NoteUnreadable(const ReadFaults& faults) const {
    for (const auto& range : faults.Ranges())
        Log(kLogWarning, "[Thorough] unreadable bytes (offset, length):",
            std::to_string(range.first) + ", " + std::to_string(range.second));
    if (faults.GoneAt() >= 0) Log(kLogWarning, "[Thorough] the device stopped answering at offset", std::to_string(faults.GoneAt()));
}

void ThoroughRepair::RemoveTemporaries(const std::wstring& except) {
    for (const std::wstring& path : temporaries_)
        if (path != except) RemoveFile(path);
    temporaries_.clear();
}

void ThoroughRepair::Explain(const Candidate& best, const Candidate& asIs, ThoroughOutcome& outcome) const {
    outcome.verdict = best.kind;
    outcome.damaged = asIs.count;
    outcome.repaired = best.count;
    outcome.judgeSeconds = judgeSeconds_;
    outcome.reason = best.kind == kVerdictAsIs
                         ? "kept the damaged file as it is (" + CountText(asIs.count) +
                               "): no rebuilt file played better"
                         : std::string(KindName(best.kind)) + ": " + CountText(best.count) + " against " +
                               CountText(asIs.count) + " in the damaged file as it is";
    if (!cutNote_.empty() && best.kind != kVerdictAsIs) outcome.reason += "; " + cutNote_;
    if (strategy_ && !strategy_->Remark().empty()) outcome.reason += "; " + strategy_->Remark();
    Log(kLogInfo, "[Thorough] verdict:", outcome.reason);
    Log(kLogInfo, "[Thorough] judge seconds:", std::to_string(judgeSeconds_));
}

// The kept candidate's own record becomes the repair's (beside what the reading
// itself noted, such as unreadable ranges), with the kept file's streams and holes.
void ThoroughRepair::RecordWhatWasKept(const Candidate& best) {
    if (best.record) {
        record_.AddFrom(*best.record);
    } else {
        record_.AddWarning("the container's carving repair rebuilt the file; which bytes of the damaged file it "
                           "used is not known");
    }
    if (best.kind == kVerdictAsIs) record_.AddWarning("no rebuilt file played better: the damaged file was kept as it is");
    // The pass that wrote the kept file noted its timeline as it went; a file no
    // pass wrote is walked, which costs a read of it: only for a caller who asked.
    bool timed = best.record && !best.record->Streams().empty();
    if (!timed && !job_.recordPath.empty() && !TimelineSurvey::Survey(job_.outputPath, record_))
        record_.AddWarning("the repaired file's timeline could not be read");
}

void ThoroughRepair::WriteRecord(ThoroughOutcome& outcome) const {
    outcome.unreadableBytes = record_.BytesOf(RangeKind::kUnreadable);
    if (job_.recordPath.empty()) return;
    FileWriter out;
    std::string json = record_.ToJson();
    bool written = out.Create(job_.recordPath) && out.Write(json.data(), json.size()) && out.Close();
    if (!written) Log(kLogWarning, "[Thorough] writing the record of the repair failed:", platform::ToNarrow(job_.recordPath));
}

void ThoroughRepair::Log(int level, const std::string& message, const std::string& value) const {
    VR_LOG(control_.Log(), level, message, value);
}

}  // namespace thorough
