// A program stream read forward through a window and handed on unit by unit:
// only pack headers, system headers, PES packets and end codes whose headers
// validate and whose ends meet the next unit (or the file's end). Garbage, holes
// and units cut by them are skipped, so the demuxer sees whole packets only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/PositionedReader.h"
#include "thorough/ByteSource.h"
#include "thorough/ViewMap.h"
#include "thorough/strategies/ProgramStreamUnits.h"

class RepairLog;

namespace thorough {

class ProgramStreamCleaner : public ByteSource {
public:
    static constexpr size_t kWindowBytes = 1u << 20;

    // leadingForm: the form of the pack header put ahead of a stream whose own
    // first pack was lost (known from a sample); unknown: learnt from the file.
    explicit ProgramStreamCleaner(ps::PackForm leadingForm = ps::PackForm::kUnknown, RepairLog* log = nullptr,
                                  size_t windowBytes = kWindowBytes);

    bool Open(const std::wstring& path);

    int64_t Read(uint8_t* buffer, size_t size) override;
    int64_t Consumed() const override { return reader_.Position(); }
    int64_t Skipped() const override { return skipped_; }
    bool ChangedAnything() const override { return skipped_ > 0 || madeUpPack_; }
    int64_t FileOffset(int64_t viewOffset) const override { return map_.FileOffset(viewOffset); }
    std::vector<RecordRange> PutIn() const override { return putIn_; }
    std::vector<RecordRange> SkippedRanges() const override { return skips_.Ranges(); }

    // The form of the first valid pack header in the file's first window.
    ps::PackForm FilePackForm() const { return fileForm_; }

    // The form of the first valid pack header in the first bytes of a file.
    static ps::PackForm LearnPackForm(const std::wstring& path, size_t windowBytes = 65536);

private:
    enum class Step { kUnit, kSkipped, kEnd, kError };

    Step Next();
    void Emit(const uint8_t* d, size_t n, bool reachesEnd, const ps::Unit& unit);
    ps::PackForm LeadingForm(const uint8_t* d, size_t n, bool reachesEnd, const ps::Unit& first) const;

    PositionedReader reader_;
    ps::PackForm leadingForm_;
    ps::PackForm fileForm_ = ps::PackForm::kUnknown;
    RepairLog* log_;
    ViewMap map_;
    SkipList skips_;
    std::vector<RecordRange> putIn_;
    std::vector<uint8_t> pending_;
    size_t pendingAt_ = 0;
    bool emitted_ = false;
    bool madeUpPack_ = false;
    bool skipping_ = false;
    int64_t skipped_ = 0;
};

}  // namespace thorough
