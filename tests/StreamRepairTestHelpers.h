// Helpers for the end-to-end tests of the stream engines: damage a copy of a
// generated file, repair it through the public manager, and measure what a
// repaired file must still hold.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/TestSupport.h"

namespace stream_repair_test {

using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::WriteFile;

// A byte range [first, second) of the healthy file that the damage destroyed.
using Span = std::pair<int64_t, int64_t>;

struct Damage {
    std::vector<Span> destroyed;  // zeroed or overwritten ranges
    int64_t keptLength = -1;      // the file is cut here (-1: not cut)
};

// Zeroes the head, overwrites a range with noise and cuts the tail, as real
// damage does; returns what was destroyed in terms of the healthy file.
inline Damage ApplyTypicalDamage(std::string& bytes, int64_t headBytes, double noiseAt, int64_t noiseBytes,
                                 double keepFraction) {
    Damage damage;
    const int64_t size = int64_t(bytes.size());
    std::fill(bytes.begin(), bytes.begin() + std::min(headBytes, size), '\0');
    damage.destroyed.push_back({0, headBytes});
    int64_t noise = int64_t(double(size) * noiseAt);
    uint32_t state = 12345;
    for (int64_t i = noise; i < std::min(size, noise + noiseBytes); ++i) {
        state = state * 1103515245u + 12345u;
        bytes[size_t(i)] = char(state >> 24);
    }
    damage.destroyed.push_back({noise, noise + noiseBytes});
    damage.keptLength = int64_t(double(size) * keepFraction);
    bytes.resize(size_t(damage.keptLength));
    return damage;
}

struct VideoPacket {
    int64_t position = 0;
    bool key = false;
};

// The video packets of a healthy file in file order, as ffprobe reports them.
inline std::vector<VideoPacket> VideoPackets(const std::string& path) {
    std::string out;
    RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pos,flags",
                "-of", "csv=p=0", path},
               &out);
    std::vector<VideoPacket> packets;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.compare(0, 3, "N/A") == 0) continue;
        size_t comma = line.find(',');
        packets.push_back({std::stoll(line.substr(0, comma)), comma != std::string::npos && line[comma + 1] == 'K'});
    }
    std::sort(packets.begin(), packets.end(),
              [](const VideoPacket& a, const VideoPacket& b) { return a.position < b.position; });
    return packets;
}

// Video frames of the healthy file that can still be decoded from what the
// damage left: their bytes (from their packet to the next video packet) are
// untouched, and so are those of every frame back to their key frame, whose
// references and sequence header they need.
inline int SurvivingFrames(const std::string& healthyPath, const Damage& damage) {
    std::vector<VideoPacket> packets = VideoPackets(healthyPath);
    const int64_t size = testing_support::FileSize(healthyPath);
    int surviving = 0;
    bool chainIntact = false;
    for (size_t i = 0; i < packets.size(); ++i) {
        int64_t begin = packets[i].position;
        int64_t end = i + 1 < packets.size() ? packets[i + 1].position : size;
        bool hit = damage.keptLength >= 0 && end > damage.keptLength;
        for (const Span& s : damage.destroyed) hit = hit || (begin < s.second && s.first < end);
        chainIntact = !hit && (packets[i].key || chainIntact);
        if (chainIntact) ++surviving;
    }
    return surviving;
}

inline int CountStreams(const std::string& path, const std::string& type) {
    std::string out;
    if (RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", type, "-show_entries", "stream=index",
                    "-of", "csv=p=0", path},
                   &out) != 0)
        return -1;
    return int(std::count(out.begin(), out.end(), '\n'));
}

struct ManagerRun {
    int result = -1;
    std::string repairedPath;
    std::vector<std::string> log;
    std::vector<std::string> events;
};

// One Repair through the exported entry point and the manager, as a host does it.
inline ManagerRun RepairThroughManager(const std::string& damaged, const std::string& sample,
                                       const testing_support::TempDir& dir) {
    ManagerRun run;
    IVideoRepairManager* manager = nullptr;
    if (InitKzVideoRepairLib(&manager) != 0 || manager == nullptr) return run;
    testing_support::RecordingObserver observer;
    const std::wstring logs = dir.wpath();
    const std::wstring work = dir.wfile("work");
    manager->Initialize(&observer, logs.c_str(), work.c_str());
    const std::wstring damagedW = testing_support::Wide(damaged);
    const std::wstring sampleW = testing_support::Wide(sample);
    run.result = manager->Repair(damagedW.c_str(), sampleW.c_str());
    std::vector<wchar_t> path(4096, L'\0');
    if (manager->GetRepairedFilePath(path.data(), damagedW.c_str()) == 0)
        run.repairedPath = testing_support::Narrow(path.data());
    manager->Release();
    run.log = testing_support::ReadLines(dir.file("KzVideoRepair.log"));
    run.events = observer.Events();
    return run;
}

inline bool HasLine(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

inline size_t FilesIn(const std::string& directory) {
    std::string out;
    RunProgram({"find", directory, "-type", "f"}, &out);
    return size_t(std::count(out.begin(), out.end(), '\n'));
}

}  // namespace stream_repair_test
