// Copies a byte range of one file into a writer in pieces of at most 1 MiB.
#pragma once

#include <cstdint>
#include <functional>

class FileReader;
class FileWriter;

// Copies [begin, end) of in to out, stopping early at the end of the file, on a
// read or write error, or when betweenPieces (asked before every piece after the
// first) answers false. Returns the bytes copied.
int64_t CopyFileRange(FileReader& in, FileWriter& out, int64_t begin, int64_t end,
                      const std::function<bool()>& betweenPieces = nullptr);
