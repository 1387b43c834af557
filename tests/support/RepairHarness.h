// The end-to-end harness shared by the engine tests: byte builders, damage
// models, what ffprobe says about a healthy file's video packets, which frames a
// damage spared, one repair through the exported manager, and a hash that proves
// the damaged input was left alone.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VideoRepairOptions.h"
#include "support/TestSupport.h"

namespace repair_harness {

using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

// ---- bytes ----

void PutLe32(std::string& s, uint32_t v);
void PutBe32(std::string& s, uint32_t v);
void PutBe24(std::string& s, uint32_t v);
uint32_t Le32At(const std::string& s, size_t at);

// Bytes that never spell an AVI chunk id or an FLV tag type.
inline std::string Filler(size_t n, char c = 'Z') { return std::string(n, c); }

// Deterministic noise that avoids nothing.
std::string Noise(size_t n, uint32_t seed);

// ---- damage ----

struct Range {
    int64_t begin = 0;
    int64_t end = 0;
};

// A damage in the healthy file's coordinates. Applied in this order: zeroed
// ranges, noise ranges, the tail cut at `keep`, then `removed` is cut out of the
// middle (the bytes behind it move up), as a lost cluster or sector run does.
struct Damage {
    std::vector<Range> zeroed;
    std::vector<Range> noise;
    Range removed;       // empty when begin == end
    int64_t keep = -1;   // bytes kept from the start, -1 keeps all
    uint32_t seed = 7;   // first seed of the noise ranges

    // True when [begin, end) of the healthy file lost any byte.
    bool Hits(int64_t begin, int64_t end) const;
};

std::string ApplyDamage(std::string bytes, const Damage& damage);


// ---- what survived ----

// One video packet as ffprobe reports it; position -1 where it said N/A.
struct ProbedPacket {
    int64_t position = -1;
    int64_t size = 0;
    bool key = false;
};

// The first video stream's packets, in the order ffprobe reports them.
std::vector<ProbedPacket> ProbeVideoPackets(const std::string& path);
// Only those with a position, sorted by it.
std::vector<ProbedPacket> PositionedPackets(std::vector<ProbedPacket> packets);

// The bytes a frame needs, and whether it is a key frame.
struct FrameSpan {
    int64_t begin = 0;
    int64_t end = 0;
    bool key = false;
};

// Each packet's own bytes, widened by the container framing in front and behind.
std::vector<FrameSpan> OwnBytes(const std::vector<ProbedPacket>& packets, int64_t headBytes, int64_t tailBytes);

// From each packet to the next one's position (plus tailBytes); the last runs to
// lastEnd, or to its own end when lastEnd is -1.
std::vector<FrameSpan> ToNextPacket(const std::vector<ProbedPacket>& packets, int64_t lastEnd, int64_t tailBytes);

// From each frame to the next frame that starts further on; a frame without a
// position of its own (N/A) shares the one before (program streams, where a
// frame can start inside the previous frame's packet).
std::vector<FrameSpan> ToNextPosition(const std::vector<ProbedPacket>& packets, int64_t fileSize);

// How a frame's survival depends on others. The engines' tests differ here on
// purpose: AVI/FLV/WMV count carved packets (each packet is copied on its own),
// the stream engines need every frame back to the key frame (a lost frame breaks
// the rest of its group of pictures), and MKV needs only the group's key frame
// (blocks are re-clustered one by one behind the key frame that opens them).
enum class Dependence { kNone, kUnbrokenChain, kKeyFrame };

int CountSurvivors(const std::vector<FrameSpan>& frames, const Damage& damage, Dependence dependence);

// ---- probing results ----

int CountStreams(const std::string& path, const std::string& type);  // "v", "a"; -1 if unreadable
// Frames of the first video stream that decode to exactly a frame of the original
// (each original frame counted once); 0 when the file does not decode.
int CountBitExactFrames(const std::string& path, const std::string& original);
bool HasLine(const std::vector<std::string>& lines, const std::string& text);
size_t FilesIn(const std::string& directory);  // regular files, recursively
// True when the file name is a 36-character UUID followed by "." + ext, in dir.
bool IsUuidName(const std::string& path, const std::string& dir, const std::string& ext);

// ---- the damaged input stays as it was ----

// SHA-1 of a file's data (each extent behind its offset) and size, as hex; "" when
// it cannot be read, a fixed text for a directory or a FIFO.
std::string FileHash(const std::string& path);

// Remembers a file's hash when made; Unchanged() compares it with the file now.
class InputGuard {
public:
    explicit InputGuard(std::string path) : path_(std::move(path)), before_(FileHash(path_)) {}
    ::testing::AssertionResult Unchanged() const;

private:
    std::string path_;
    std::string before_;
};

// ---- one repair through the exported manager, as a host does it ----

struct ManagerRun {
    int result = -1;
    std::string repairedPath;
    std::vector<std::string> log;     // KzVideoRepair.log in the log directory
    std::vector<std::string> events;  // the observer's calls
    bool inputUnchanged = false;      // the damaged file's hash after equals before
};

ManagerRun RepairThroughManager(const std::string& damaged, const std::string& sample, const std::string& logDir,
                                const std::string& workDir);
// The same through RepairWithOptions with the thorough option; options (may be
// null) is handed in and comes back filled.
ManagerRun ThoroughRepairThroughManager(const std::string& damaged, const std::string& sample, const TempDir& dir,
                                        ThoroughRepairOptions* options = nullptr);
// Logs in dir, work files in dir/work.
inline ManagerRun RepairThroughManager(const std::string& damaged, const std::string& sample, const TempDir& dir) {
    return RepairThroughManager(damaged, sample, dir.path(), dir.file("work"));
}

}  // namespace repair_harness
