#include "wmv/GeneratorStreams.h"

#include "platform/Platform.h"

namespace wmv {

GeneratorStreams::GeneratorStreams(const std::string& inputPath, const std::string& outputPath,
                                   std::atomic<uint32_t>& flushCounter)
    : flushCounter_(flushCounter) {
    input_.Open(platform::ToWide(inputPath));
    output_.Create(platform::ToWide(outputPath));
}

void GeneratorStreams::Write(const void* data, size_t n) {
    output_.Write(data, n);
    uint32_t counted = flushCounter_.fetch_add(uint32_t(n)) + uint32_t(n);
    if (counted >= kFlushBytes) {
        output_.Flush();
        flushCounter_.store(0);
    }
}

void GeneratorStreams::U16(uint16_t v) {
    uint8_t b[2] = {uint8_t(v), uint8_t(v >> 8)};
    Write(b, 2);
}

void GeneratorStreams::U32(uint32_t v) {
    uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    Write(b, 4);
}

void GeneratorStreams::Zeros(size_t n) {
    static const char zeros[256] = {};
    while (n > 0) {
        size_t piece = n < sizeof zeros ? n : sizeof zeros;
        Write(zeros, piece);
        n -= piece;
    }
}

// A record the file cannot give whole is reported on the console, never on
// standard output (a host may be writing its own results there), and skipped.
bool GeneratorStreams::ReadRecord(const PayloadRecord& record, std::vector<char>& buffer) {
    buffer.resize(size_t(record.size));
    if (input_.ReadAt(record.offset, buffer.data(), buffer.size()) == int64_t(buffer.size())) return true;
    platform::DebugTrace("read buf failed");
    return false;
}

// The patched word is counted like any write.
void GeneratorStreams::PatchU32(int64_t offset, uint32_t value) {
    uint8_t b[4] = {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
    output_.PatchAt(offset, b, 4);
    uint32_t counted = flushCounter_.fetch_add(4) + 4;
    if (counted >= kFlushBytes) flushCounter_.store(0);
    output_.Flush();
}

void GeneratorStreams::Flush() { output_.Flush(); }

bool GeneratorStreams::Close() {
    input_.Close();
    return output_.Close();
}

}  // namespace wmv
