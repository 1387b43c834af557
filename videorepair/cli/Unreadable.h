// What a failing card or disk would not give, as the tool reports it: the damaged
// file's unreadable byte ranges (from the library's record of the repair), and a
// read-through of the sample so that one with bad sectors is named at once.
#pragma once

#include <Poco/JSON/Object.h>

#include <string>
#include <vector>

#include "RecordReader.h"

// A stretch the device would not give, and what it cost the result: estimated
// from the repaired file's playing time per byte of the damaged file (-1: unknown).
struct UnreadableRange {
    int64_t offset = 0;
    int64_t length = 0;
    double seconds = -1;
    int64_t frames = -1;
};

// The record's unreadable ranges; none when it is missing.
std::vector<UnreadableRange> UnreadableRanges(const std::string& recordPath);

// Prices every range at the result's rate: seconds played per byte of the
// damaged file, video frames per second played.
void EstimateCost(std::vector<UnreadableRange>& ranges, int64_t damagedBytes, double seconds, int64_t videoFrames);

// "unreadable": [{"offset": ..., "length": ..., "seconds": ..., "frames": ...}, ...]
void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<UnreadableRange>& ranges);
// The report's lines for them; empty when there are none.
std::string UnreadableText(const std::vector<UnreadableRange>& ranges);

// Reads the whole file; empty when it reads cleanly, else why not ("Input/output
// error at byte 196608").
std::string ReadThroughFailure(const std::string& path);
