// Carves the chunks of a damaged AVI file: walks RIFF, LIST movi/rec and the
// OpenDML AVIX extensions chunk by chunk, and past damage resumes at the next
// byte where a chain of stream chunks starts, with every packet's true offset.
// Index records (idx1) are recognised and stepped over rather than taken for
// frames. Stream parameters are the file's own where its header survived, else
// the sample's with the picture size the damaged stream really has.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "thorough/SampleModel.h"
#include "thorough/carving/CarvedSource.h"

namespace thorough {

// One stream chunk as the walk found it.
struct AviCarvedChunk {
    int64_t offset = 0;  // of the chunk's data
    uint32_t size = 0;
    unsigned stream = 0;
    uint32_t run = 0;  // how many times the walk had resumed past damage
};

// The walk alone, over bytes in a file.
class AviChunkWalk {
public:
    AviChunkWalk(FileReader& file, unsigned streams) : file_(file), streams_(streams) {}
    void Run();
    const std::vector<AviCarvedChunk>& Chunks() const { return chunks_; }
    int64_t Skipped() const { return skipped_; }

private:
    enum class Kind { kStream, kDescend, kSkip, kBad };
    Kind Classify(int64_t at, uint32_t& size, unsigned& stream);
    bool Step(int64_t& at, bool take);
    int64_t Resync(int64_t from);
    bool ChainAt(int64_t at);
    int64_t PastIndexRecords(int64_t at);
    bool IndexRecordAt(int64_t at, int64_t& offset);

    FileReader& file_;
    unsigned streams_;
    std::vector<AviCarvedChunk> chunks_;
    int64_t skipped_ = 0;
    uint32_t run_ = 0;
};

class AviChunkCarver {
public:
    explicit AviChunkCarver(const SampleModel& sample) : sample_(sample) {}

    // Null when no chunk of a known stream was found.
    std::unique_ptr<CarvedSource> Carve(const std::wstring& path);

private:
    bool LearnStreams(const std::wstring& path, CarvedSource& out);
    void TimeAndKey(CarvedSource& out, const std::vector<AviCarvedChunk>& chunks);

    const SampleModel& sample_;
    bool ownHeader_ = false;
};

}  // namespace thorough
