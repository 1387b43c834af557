// Notes where in the damaged file the packets a pass wrote came from, and turns
// them into the pass's record: recovered where its packets lay (with the small
// stretches of container structure between them), skipped for what the pass read
// past and used nothing of, restored for what it put in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "thorough/PacketSource.h"
#include "thorough/RepairRecord.h"

namespace thorough {

class PassRecorder {
public:
    // Packet headers, pack headers, cluster and chunk headers sit between the
    // payloads; a stretch up to this long between two kept packets is theirs.
    static constexpr int64_t kStructureBytes = 4096;

    void Packet(int64_t position, int64_t size);
    void Restored(int64_t position, int64_t bytes, const std::string& note);
    // readUpTo: how far the pass got through the damaged file.
    void Finish(const PacketSource& input, int64_t readUpTo, RepairRecord& record);

    struct Span {
        int64_t start, end;
    };

private:
    std::vector<Span> spans_;
    std::vector<RecordRange> restored_;
};

}  // namespace thorough
