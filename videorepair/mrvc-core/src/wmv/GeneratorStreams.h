// What the AVI and WAV writers share: the input and output files, a
// little-endian writer that flushes every 524288 bytes counted on a process-wide
// counter of the writer's class, and reading one payload record. Records are read
// through one large cache (they come in file order), and writes are buffered.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/FileReader.h"
#include "io/FileWriter.h"
#include "wmv/AsfTypes.h"

namespace wmv {

class GeneratorStreams {
public:
    static constexpr uint32_t kFlushBytes = 524288;

    // Opens both files; Ok() tells whether both opened.
    GeneratorStreams(const std::string& inputPath, const std::string& outputPath,
                     std::atomic<uint32_t>& flushCounter);

    bool Ok() const { return input_.IsOpen() && output_.Ok(); }

    void Write(const void* data, size_t n);
    void Tag(const char fourcc[4]) { Write(fourcc, 4); }
    void U16(uint16_t v);
    void U32(uint32_t v);
    void Zeros(size_t n);

    // The record's bytes into buffer; false (and "read buf failed" on the console)
    // when the input cannot give them all.
    bool ReadRecord(const PayloadRecord& record, std::vector<char>& buffer);

    int64_t Position() const { return output_.Written(); }
    void PatchU32(int64_t offset, uint32_t value);  // the position returns to the end
    void Flush();
    bool Close();  // false when any write failed

private:
    FileReader input_;
    FileWriter output_;
    std::atomic<uint32_t>& flushCounter_;
};

}  // namespace wmv
