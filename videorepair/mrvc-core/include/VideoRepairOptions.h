// Options for IVideoRepairManager::RepairWithOptions (slot 9).
//
// kRepairOptionThorough asks for the thorough repair: what the damaged file's own
// structure still gives, what can be carved from the rest and what the sample
// restores are written in process and judged against the damaged file as it is;
// the better file is kept, so the result is never worse than the damaged file.
// Every other option code answers -1 and does nothing.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t kRepairOptionThorough = 1;

// ThoroughRepairOptions::flags
constexpr uint32_t kThoroughFullDecodeCheck = 1u << 0;  // the judge decodes every video frame

// ThoroughRepairOptions::verdict: which candidate became the repaired file.
enum ThoroughVerdict : int32_t {
    kVerdictNone = 0,     // nothing was written
    kVerdictRebuilt = 1,  // carved and restored by the library
    kVerdictRemuxed = 2,  // the damaged file's own streams, remuxed with a fresh index
    kVerdictAsIs = 3,     // a copy of the damaged file: nothing else played better
};

// What one file holds, as the judge counted it.
struct ThoroughMediaCount {
    int64_t videoFrames;      // video frames that demux (and decode, as far as checked)
    int64_t audioPackets;
    double videoSeconds;
    double audioSeconds;
};

// Versioned by its first field: a caller sets size to sizeof(ThoroughRepairOptions)
// as it knows it, and the library reads and writes only what lies within size.
struct ThoroughRepairOptions {
    uint32_t size;
    uint32_t flags;
    // Where the repaired file goes; null or empty: beside the damaged file, named
    // as Repair names its results. An existing file there is replaced.
    const wchar_t* outputPath;

    // Filled by the library.
    int32_t verdict;
    int32_t reserved;
    ThoroughMediaCount damaged;   // the damaged file as it is
    ThoroughMediaCount repaired;  // the file that was kept
    double judgeSeconds;          // time spent judging, included in the repair's time
    char reason[256];             // one line: why the judge chose as it did

    // Optional, read when within size: a file the library writes as JSON with its
    // record of the repair (the damaged file's byte ranges by what became of them,
    // the kept file's gaps per stream). Null or empty: no record is written.
    const wchar_t* recordPath;
    // Filled: bytes of the damaged file that could not be read (device read errors).
    int64_t unreadableBytes;
};

// The smallest size the library accepts (the fields up to outputPath).
constexpr uint32_t kThoroughOptionsMinimumSize = uint32_t(offsetof(ThoroughRepairOptions, verdict));
