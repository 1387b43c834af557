// What a failing card or disk would not give, as the host reports it: the damaged
// file's unreadable byte ranges (from the record the library writes as JSON), and
// a read-through of the sample so that one with bad sectors is named at once.
#pragma once

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

struct ByteRange {
    int64_t offset = 0;
    int64_t length = 0;
};

// Where the library is asked to write the record of one repair (in the work folder).
std::string RecordPathIn(const std::string& workDirectory);

// The record's unreadable ranges; none when it is missing or unreadable. The record
// is removed afterwards.
std::vector<ByteRange> TakeUnreadableRanges(const std::string& recordPath);

// "unreadable": [{"offset": ..., "length": ...}, ...]
void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<ByteRange>& ranges);
void PrintUnreadable(std::FILE* out, const std::vector<ByteRange>& ranges);

// Reads the whole file; empty when it reads cleanly, else why not ("input/output
// error at byte 1048576").
std::string ReadThroughFailure(const std::string& path);
