#include "wmv/GeneratorStreams.h"

#include "platform/Platform.h"

namespace wmv {

GeneratorStreams::GeneratorStreams(const std::string& inputPath, const std::string& outputPath,
                                   std::atomic<uint32_t>& flushCounter)
    : flushCounter_(flushCounter) {
    try {
        input_ = std::make_shared<Poco::FileInputStream>(inputPath, std::ios::in | std::ios::binary);
    } catch (...) {
        input_.reset();
    }
    try {
        output_ = std::make_shared<Poco::FileOutputStream>(outputPath,
                                                           std::ios::out | std::ios::binary | std::ios::trunc);
    } catch (...) {
        output_.reset();
    }
}

void GeneratorStreams::Write(const void* data, size_t n) {
    output_->write(static_cast<const char*>(data), std::streamsize(n));
    uint32_t counted = flushCounter_.fetch_add(uint32_t(n)) + uint32_t(n);
    if (counted >= kFlushBytes) {
        output_->flush();
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

bool GeneratorStreams::ReadRecord(const PayloadRecord& record, std::vector<char>& buffer) {
    buffer.resize(size_t(record.size));
    input_->clear();
    input_->seekg(record.offset, std::ios::beg);
    input_->read(buffer.data(), std::streamsize(buffer.size()));
    if (input_->fail()) {
        // Never on standard output: a host may be writing its own results there.
        platform::DebugTrace("read buf failed");
        input_->clear();
        return false;
    }
    return true;
}

int64_t GeneratorStreams::Position() { return int64_t(output_->tellp()); }

void GeneratorStreams::PatchU32(int64_t offset, uint32_t value) {
    auto end = output_->tellp();
    output_->seekp(offset, std::ios::beg);
    U32(value);
    output_->flush();
    output_->seekp(end);
}

void GeneratorStreams::Flush() { output_->flush(); }

void GeneratorStreams::Close() {
    if (output_) output_->close();
    if (input_) input_->close();
}

}  // namespace wmv
