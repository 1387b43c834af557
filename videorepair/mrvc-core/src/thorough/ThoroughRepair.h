// The thorough repair, the same for every container: learn from the sample, take
// what the damaged file's own structure still gives, carve the rest through the
// container's strategy, restore what the damage removed, write in process, and
// judge the result against the damaged file as it is. The better file is kept.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "VideoRepairOptions.h"
#include "io/ReadFaults.h"
#include "thorough/AsIsCounter.h"
#include "thorough/Demuxer.h"
#include "thorough/MediaTally.h"
#include "thorough/RepairControl.h"
#include "thorough/RepairRecord.h"
#include "thorough/SampleModel.h"
#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

struct PassResult;
struct PassSettings;

struct ThoroughJob {
    std::wstring damagedPath;
    std::wstring samplePath;     // may be empty
    std::wstring outputPath;     // where the kept file goes
    std::wstring recordPath;     // where the record of the repair goes as JSON; empty: nowhere
    std::string formatName;      // the engine's ("avi", "mpeg", "mts", ...)
    bool fullDecodeCheck = false;
    // The container's own carving repair, where it runs in process: writes its
    // result into the given directory and returns its path (empty on failure).
    std::function<std::wstring(const std::wstring& directory, ProgressRange progress)> carvingRepair;
};

struct ThoroughOutcome {
    ThoroughVerdict verdict = kVerdictNone;
    ThoroughMediaCount damaged{};
    ThoroughMediaCount repaired{};
    double judgeSeconds = 0;
    std::string reason;
    int64_t unreadableBytes = 0;
};

class ThoroughRepair {
public:
    ThoroughRepair(ThoroughJob job, RepairControl& control) : job_(std::move(job)), control_(control) {}

    // 0 with the kept file at job.outputPath; -1 when nothing could be written.
    int Run(ThoroughOutcome& outcome);

private:
    // Where each pass's progress goes on the bar.
    struct Plan {
        ProgressRange rebuild, asIs, carver, carving, carvingRemux;
    };

    int RunPasses(ThoroughOutcome& outcome);
    bool Readable();
    std::wstring TemporaryPath();
    Candidate Rebuild(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs, bool& asIsCounted);
    std::vector<Candidate> RebuildFirst(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs);
    std::vector<Candidate> CarverFirst(const SampleModel& sample, AsIsCounter& counter, Candidate& asIs);
    ThoroughMediaCount TakeAsIsCount(AsIsCounter& counter, Candidate& asIs);
    void NoteRebuild(const Demuxer& input, const PassResult& result);
    Candidate FromCarver(const SampleModel& sample, const Candidate& asIs, const Candidate& best);
    bool CouldBeat(const SampleModel& sample, PacketSource& carved, const Candidate& best, ProgressRange progress);
    Candidate FromCarvingRepair(const SampleModel& sample);
    bool CarvingMayHelp(const Candidate& asIs) const;
    void NoteAsIsFormat(const Demuxer& input);
    Candidate Remux(const SampleModel& sample, const std::wstring& source, ProgressRange progress);
    // fromDamagedFile: the input's places are in the damaged file, so the pass records them.
    PassResult RunPass(const SampleModel& sample, PacketSource& input, PassSettings settings, bool recorded,
                       Candidate& candidate);
    Candidate Write(const SampleModel& sample, PacketSource& input, int64_t size, ProgressRange progress,
                    bool fromDamagedFile);
    void RecordWhatWasKept(const Candidate& best);
    bool Keep(const Candidate& best);
    void RemoveTemporaries(const std::wstring& except);
    void Explain(const Candidate& best, const Candidate& asIs, ThoroughOutcome& outcome) const;
    void WriteRecord(ThoroughOutcome& outcome) const;
    void NoteUnreadable(const ReadFaults& faults) const;
    void Log(int level, const std::string& message, const std::string& value) const;

    ThoroughJob job_;
    RepairControl& control_;
    Plan plan_;
    std::unique_ptr<ContainerStrategy> strategy_;
    int64_t size_ = 0;
    double judgeSeconds_ = 0;
    MuxerChoice muxer_;
    bool asIsReadsOwnFormat_ = false;  // the container's own demuxer took the damaged file
    std::string cutNote_;              // samples the end of the file cut, left out
    std::vector<std::wstring> temporaries_;
    RepairRecord record_;
    std::string writeFailure_;  // why the kept file could not be written
};

}  // namespace thorough
