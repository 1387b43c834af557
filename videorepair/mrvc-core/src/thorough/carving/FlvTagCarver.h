// Carves the tags of a damaged FLV file: walks tag after tag while each one's
// trailing size word repeats its length, and past damage resumes at the very next
// byte where such a tag starts, so no frame behind a damaged tag is lost. The
// AVC and AAC sequence headers become the streams' decoder configuration: the
// file's own where they survived, else the sample's, so the muxer writes each
// exactly once in front of the first frame.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "thorough/SampleModel.h"
#include "thorough/carving/CarvedSource.h"

namespace thorough {

class FlvTagCarver {
public:
    explicit FlvTagCarver(const SampleModel& sample) : sample_(sample) {}

    // Null when the file holds no tag of a stream that can be written.
    std::unique_ptr<CarvedSource> Carve(const std::wstring& path);

private:
    struct Tag {
        int64_t offset = 0;
        uint8_t type = 0;
        uint32_t size = 0;  // of the data behind the 11-byte header
        int64_t time = 0;   // milliseconds
    };
    // Where each kind of tag goes, once its codec is known.
    struct Kind {
        int stream = -1;
        int codecId = -1;
        bool ownConfiguration = false;
    };

    bool TagAt(int64_t offset, Tag& tag);
    bool StartsChain(int64_t offset, Tag& tag);
    int64_t Resync(int64_t from, Tag& tag);
    int64_t FirstTag();
    void Take(const Tag& tag);
    void TakeVideo(const Tag& tag, const uint8_t* head, size_t got);
    void TakeAudio(const Tag& tag, const uint8_t* head, size_t got);
    int StreamFor(Kind& kind, AVMediaType type, AVCodecID codec, int flags);
    void UseOwnConfiguration(Kind& kind, int64_t offset, uint32_t size);
    int64_t Continuous(int64_t time);

    const SampleModel& sample_;
    std::unique_ptr<CarvedSource> out_;
    int64_t fileSize_ = 0;
    Kind video_, audio_;
    int64_t shift_ = 0, lastTime_ = -1;
    uint32_t run_ = 0;  // how many times the walk had resumed past damage
};

}  // namespace thorough
