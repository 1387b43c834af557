#include "thorough/strategies/MpegPsStrategy.h"

#include "RepairLog.h"
#include "thorough/strategies/ProgramStreamCleaner.h"

namespace thorough {
namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/thorough/strategies/MpegPsStrategy";

const char* FormName(ps::PackForm form) {
    switch (form) {
        case ps::PackForm::kMpeg1: return "MPEG-1";
        case ps::PackForm::kMpeg2: return "MPEG-2";
        default: return "unknown";
    }
}

}  // namespace

std::unique_ptr<ByteSource> MpegPsStrategy::Clean(const std::wstring& damagedPath, const std::wstring& samplePath,
                                                  RepairLog* log) {
    const ps::PackForm sampleForm =
        samplePath.empty() ? ps::PackForm::kUnknown : ProgramStreamCleaner::LearnPackForm(samplePath);
    auto cleaner = std::make_unique<ProgramStreamCleaner>(sampleForm, log);
    if (!cleaner->Open(damagedPath)) {
        VR_LOG(log, kLogError, "Program stream cleaning cannot open the damaged file", 0);
        return nullptr;
    }
    // The file's own packs decide the result's form; the sample's stand in when
    // the damage took every pack of the first window.
    form_ = cleaner->FilePackForm() != ps::PackForm::kUnknown ? cleaner->FilePackForm() : sampleForm;
    VR_LOG(log, kLogInfo, "Program stream packs", FormName(form_));
    return cleaner;
}

// MPEG-2 packs go to "vob" rather than "dvd": the DVD navigation packets
// (private stream 2) come out of the demuxer as a data stream that the program
// stream muxers cannot carry, and the "dvd" muxer would only put placeholder
// navigation packets with no real addresses in their place, under DVD limits
// the repaired stream need not meet. With no pack found at all, MPEG-2 is the
// likelier form.
MuxerChoice MpegPsStrategy::Muxer() const {
    MuxerChoice choice;
    choice.name = form_ == ps::PackForm::kMpeg1 ? "mpeg" : "vob";
    return choice;
}

}  // namespace thorough
