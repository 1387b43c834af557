#include "thorough/strategies/ProgramStreamCleaner.h"

#include <algorithm>
#include <cstring>

#include "RepairLog.h"

namespace thorough {
namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/thorough/strategies/ProgramStreamCleaner";

// The window must hold the longest unit and the start code behind it, or a unit
// could never be told from garbage.
size_t UsableWindow(size_t windowBytes) { return std::max(windowBytes, 2 * ps::kLongestUnit); }

}  // namespace

ProgramStreamCleaner::ProgramStreamCleaner(ps::PackForm leadingForm, RepairLog* log, size_t windowBytes)
    : reader_(UsableWindow(windowBytes)), leadingForm_(leadingForm), log_(log) {}

bool ProgramStreamCleaner::Open(const std::wstring& path) {
    if (!reader_.Open(path)) return false;
    if (reader_.Fill())
        fileForm_ = ps::FirstPackForm(reader_.Data(), reader_.Length(), reader_.Length() == size_t(reader_.Size()));
    return true;
}

ps::PackForm ProgramStreamCleaner::LearnPackForm(const std::wstring& path, size_t windowBytes) {
    FileReader file(std::max<size_t>(2 * windowBytes, 65536));
    if (!file.Open(path)) return ps::PackForm::kUnknown;
    size_t got = 0;
    const uint8_t* d = file.View(0, windowBytes, got);
    return d != nullptr ? ps::FirstPackForm(d, got, int64_t(got) == file.Size()) : ps::PackForm::kUnknown;
}

int64_t ProgramStreamCleaner::Read(uint8_t* buffer, size_t size) {
    size_t out = 0;
    while (out < size) {
        if (pendingAt_ == pending_.size()) {
            pending_.clear();
            pendingAt_ = 0;
            const Step step = Next();
            if (step == Step::kEnd) break;
            if (step == Step::kError) return out > 0 ? int64_t(out) : -1;
            continue;
        }
        const size_t n = std::min(size - out, pending_.size() - pendingAt_);
        std::memcpy(buffer + out, pending_.data() + pendingAt_, n);
        pendingAt_ += n;
        out += n;
    }
    return int64_t(out);
}

ProgramStreamCleaner::Step ProgramStreamCleaner::Next() {
    if (!reader_.Fill()) return reader_.Remaining() > 0 ? Step::kError : Step::kEnd;
    const uint8_t* d = reader_.Data();
    const size_t n = reader_.Length();
    const bool reachesEnd = reader_.Position() + int64_t(n) == reader_.Size();
    ps::Unit unit;
    // In step, a unit whose own header is right is kept whatever follows it, as a
    // demuxer keeps it: damage behind a picture's last packet leaves that picture
    // whole. Finding the way back after damage asks more: the next unit too.
    const ps::Verdict verdict = skipping_ ? ps::CheckUnit(d, n, 0, reachesEnd, unit) : ps::JudgeUnit(d, n, unit);
    if (verdict == ps::Verdict::kValid && unit.size <= n) {
        if (skipping_) VR_LOG(log_, kLogDebug, "Program stream resumes at", reader_.Position());
        skipping_ = false;
        Emit(d, n, reachesEnd, unit);
        reader_.Advance(int64_t(unit.size));
        return Step::kUnit;
    }
    if (!skipping_) VR_LOG(log_, kLogDebug, "Program stream damaged at", reader_.Position());
    skipping_ = true;
    const size_t skip = std::max<size_t>(ps::FindUnit(d, n, 1, reachesEnd), 1);
    skipped_ += int64_t(skip);
    skips_.Add(reader_.Position(), int64_t(skip));
    reader_.Advance(int64_t(skip));
    return Step::kSkipped;
}

// The demuxer wants a stream to open with a pack header, so one is made up when
// the file's own was lost.
void ProgramStreamCleaner::Emit(const uint8_t* d, size_t n, bool reachesEnd, const ps::Unit& unit) {
    if (!emitted_ && unit.kind != ps::UnitKind::kPack) {
        pending_ = ps::SyntheticPackHeader(LeadingForm(d, n, reachesEnd, unit));
        madeUpPack_ = true;
        map_.AddPutIn(int64_t(pending_.size()));
        putIn_.push_back({reader_.Position(), int64_t(pending_.size()), RangeKind::kRestored, "pack header made up"});
        VR_LOG(log_, kLogInfo, "Program stream lost its first pack header; made one up before", reader_.Position());
    }
    emitted_ = true;
    map_.Add(reader_.Position(), int64_t(unit.size));
    pending_.insert(pending_.end(), d, d + unit.size);
}

// The sample's form, else the form of the next pack in the window, else the
// form of the first PES header, else MPEG-2 as the commoner.
ps::PackForm ProgramStreamCleaner::LeadingForm(const uint8_t* d, size_t n, bool reachesEnd,
                                               const ps::Unit& first) const {
    if (leadingForm_ != ps::PackForm::kUnknown) return leadingForm_;
    const ps::PackForm later = ps::FirstPackForm(d, n, reachesEnd);
    if (later != ps::PackForm::kUnknown) return later;
    return first.form != ps::PackForm::kUnknown ? first.form : ps::PackForm::kMpeg2;
}

}  // namespace thorough
