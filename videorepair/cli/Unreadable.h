// What a failing card or disk would not give, as the tool reports it: the damaged
// file's unreadable byte ranges (from the library's record of the repair), and a
// read-through of the sample so that one with bad sectors is named at once.
#pragma once

#include <Poco/JSON/Object.h>

#include <string>
#include <vector>

#include "RecordReader.h"

// The record's unreadable ranges; none when it is missing.
std::vector<MapRange> UnreadableRanges(const std::string& recordPath);

// "unreadable": [{"offset": ..., "length": ...}, ...]
void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<MapRange>& ranges);
// The report's lines for them; empty when there are none.
std::string UnreadableText(const std::vector<MapRange>& ranges);

// Reads the whole file; empty when it reads cleanly, else why not ("Input/output
// error at byte 196608").
std::string ReadThroughFailure(const std::string& path);
