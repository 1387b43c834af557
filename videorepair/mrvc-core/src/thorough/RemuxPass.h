// One pass over a demuxer: every packet counted as it was read (the damaged file
// as it is), restored from the sample, written by the muxer and counted again as
// written. Pause and stop are honoured between packets; a stopped pass still
// finishes its file, so what was found stays playable.
#pragma once

#include <string>
#include <vector>

#include "VideoRepairOptions.h"
#include "thorough/PacketSource.h"
#include "thorough/RepairControl.h"
#include "thorough/RepairRecord.h"
#include "thorough/SampleModel.h"
#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

struct PassResult {
    bool written = false;          // the output file is complete
    bool stopped = false;          // the host asked to stop during the pass
    ThoroughMediaCount read{};     // what the demuxer gave, as it was
    ThoroughMediaCount kept{};     // what was written
    ThoroughMediaCount keptBound{};  // the same as if every frame decoded
    double judgeSeconds = 0;
    std::vector<std::string> restorations;
    std::vector<std::string> refused;  // streams the muxer cannot carry, left out
    std::string error;
};

struct PassSettings {
    bool fullDecodeCheck = false;
    bool countRead = false;    // also judge the packets as read, before restoring
    int64_t totalBytes = 0;    // for progress
    ProgressRange progress;
    // Where the pass notes which bytes of the damaged file it used; null: it reads
    // another file (the carving repair's), whose places say nothing of the damaged one.
    RepairRecord* record = nullptr;
    // false: nothing is decoded and every packet after a key frame counts as
    // good, which bounds from above what a written pass of the same packets holds.
    bool decode = true;
};

class RemuxPass {
public:
    RemuxPass(const SampleModel& sample, RepairControl& control) : sample_(sample), control_(control) {}

    // outputPath empty: count only, nothing is written.
    PassResult Run(PacketSource& input, const std::wstring& outputPath, const MuxerChoice& muxer,
                   const PassSettings& settings);

private:
    const SampleModel& sample_;
    RepairControl& control_;
};

}  // namespace thorough
