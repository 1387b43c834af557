// A forward-only stream of bytes that the demuxer reads in place of the damaged
// file: a strategy's cleaned view of it (garbage dropped, packets realigned, lost
// headers put back from the sample). Sources read the file through small windows,
// never the whole file at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "thorough/RepairRecord.h"

namespace thorough {

class ByteSource {
public:
    virtual ~ByteSource() = default;
    // Up to size bytes into buffer; 0 at the end, -1 on an error.
    virtual int64_t Read(uint8_t* buffer, size_t size) = 0;
    // How far into the damaged file the source has got, for progress.
    virtual int64_t Consumed() const = 0;
    // Bytes of the damaged file skipped as unusable so far (for the report).
    virtual int64_t Skipped() const { return 0; }
    // True once the view differs from the file in what a demuxer would read: bytes
    // skipped or put in. While false, the file as it is reads the same.
    virtual bool ChangedAnything() const { return Skipped() > 0; }
    // Where in the damaged file the byte at viewOffset of this view came from;
    // -1 where it came from nowhere in the file or the source does not know.
    virtual int64_t FileOffset(int64_t viewOffset) const { (void)viewOffset; return -1; }
    // What the source put in that the file did not have (tables, headers), as
    // restored ranges for the record of the repair.
    virtual std::vector<RecordRange> PutIn() const { return {}; }
    // Where the source stepped over the file's bytes, by file offset; a packet read
    // across such a stretch never took anything from it.
    virtual std::vector<RecordRange> SkippedRanges() const { return {}; }
};

}  // namespace thorough
