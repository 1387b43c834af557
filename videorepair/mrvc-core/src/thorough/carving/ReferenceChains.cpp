#include "thorough/carving/ReferenceChains.h"

#include <algorithm>

namespace thorough {
namespace {

// A step between two presentation times larger than this many usual steps is a
// picture missing (ms-rounded times jitter by a tick, never by half a frame).
constexpr double kHoleSteps = 1.5;

// True when the group's presentation times, up to the next key frame's, run on
// in even steps: no picture of it is missing. False when any time is unknown.
bool NoneMissing(const std::vector<const CarvedPacket*>& group, int64_t nextKeyPts) {
    std::vector<int64_t> times;
    for (const CarvedPacket* p : group) {
        if (p->pts == AV_NOPTS_VALUE) return false;
        times.push_back(p->pts);
    }
    if (nextKeyPts != AV_NOPTS_VALUE) times.push_back(nextKeyPts);
    std::sort(times.begin(), times.end());
    std::vector<int64_t> steps;
    for (size_t i = 1; i < times.size(); ++i) steps.push_back(times[i] - times[i - 1]);
    if (steps.empty()) return true;
    std::vector<int64_t> sorted = steps;
    std::nth_element(sorted.begin(), sorted.begin() + long(sorted.size() / 2), sorted.end());
    double usual = double(sorted[sorted.size() / 2]);
    if (usual <= 0) return false;
    return std::all_of(steps.begin(), steps.end(), [&](int64_t s) { return s > 0 && double(s) <= kHoleSteps * usual; });
}

// Marks, within one group of pictures (a key frame and what follows it), those
// from the first one found past damage on, unless the group is whole.
void CheckGroup(const std::vector<size_t>& group, const std::vector<CarvedPacket>& packets, int64_t nextKeyPts,
                std::vector<bool>& leaveOut) {
    size_t firstPast = group.size();
    for (size_t i = 1; i < group.size() && firstPast == group.size(); ++i)
        if (packets[group[i]].run != packets[group[i - 1]].run) firstPast = i;
    if (firstPast == group.size()) return;
    std::vector<const CarvedPacket*> members;
    for (size_t index : group) members.push_back(&packets[index]);
    if (packets[group[0]].key && NoneMissing(members, nextKeyPts)) return;
    for (size_t i = firstPast; i < group.size(); ++i) leaveOut[group[i]] = true;
}

}  // namespace

bool RefusesLostReferences(AVCodecID codec) {
    return codec == AV_CODEC_ID_VP8 || codec == AV_CODEC_ID_VP9 || codec == AV_CODEC_ID_AV1;
}

std::vector<bool> PicturesWithLostReferences(const std::vector<CarvedPacket>& packets,
                                             const std::vector<bool>& checked) {
    std::vector<bool> leaveOut(packets.size(), false);
    std::vector<std::vector<size_t>> groups(checked.size());
    auto close = [&](unsigned stream, int64_t nextKeyPts) {
        CheckGroup(groups[stream], packets, nextKeyPts, leaveOut);
        groups[stream].clear();
    };
    for (size_t i = 0; i < packets.size(); ++i) {
        unsigned stream = packets[i].stream;
        if (stream >= checked.size() || !checked[stream]) continue;
        if (packets[i].key) close(stream, packets[i].pts);
        groups[stream].push_back(i);
    }
    for (unsigned stream = 0; stream < groups.size(); ++stream) close(stream, AV_NOPTS_VALUE);
    return leaveOut;
}

}  // namespace thorough
