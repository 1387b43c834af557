// The judge's yardstick: what the damaged file gives as it is, read by its own
// demuxer and counted, nothing written. Where a strategy cleans the file, this
// count runs on a thread of its own beside the rebuild (the two read the same
// file on two cores), and is abandoned when the rebuild shows that the cleaning
// changed nothing, since what it read then is the file as it is.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "VideoRepairOptions.h"
#include "thorough/RepairControl.h"
#include "thorough/SampleModel.h"

namespace thorough {

class AsIsCounter {
public:
    struct Result {
        ThoroughMediaCount count{};
        std::string format;     // the demuxer that read the file; empty when none did
        bool complete = false;  // read to its end (not stopped or abandoned)
        // The most that a remux of the file as it is could hold.
        ThoroughMediaCount remuxBound{};
    };

    AsIsCounter(const std::wstring& path, const SampleModel& sample, RepairControl& control, bool fullDecodeCheck)
        : path_(path), sample_(sample), control_(control), fullDecodeCheck_(fullDecodeCheck) {}
    ~AsIsCounter();
    AsIsCounter(const AsIsCounter&) = delete;
    AsIsCounter& operator=(const AsIsCounter&) = delete;

    // On this thread, reporting progress over the range.
    Result Count(ProgressRange progress, int64_t totalBytes);
    // On a thread of its own, silently; Finish waits for it.
    void Start();
    bool Started() const { return worker_.joinable(); }
    Result Finish();
    void Abandon() { abandoned_.store(true); }

private:
    class Silent;
    Result CountWith(RepairControl& control, ProgressRange progress, int64_t totalBytes) const;

    std::wstring path_;
    const SampleModel& sample_;
    RepairControl& control_;
    bool fullDecodeCheck_;
    std::atomic<bool> abandoned_{false};
    std::thread worker_;
    Result background_;
};

}  // namespace thorough
