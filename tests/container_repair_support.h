// Helpers for the AVI and FLV engine tests: byte builders, damage, a manager
// round trip and counting which video packets survived a damage.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/TestSupport.h"

namespace container_tests {

using testing_support::ReadFile;
using testing_support::WriteFile;

inline void PutLe32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s.push_back(char(uint8_t(v >> (8 * i))));
}
inline void PutBe32(std::string& s, uint32_t v) {
    for (int i = 3; i >= 0; --i) s.push_back(char(uint8_t(v >> (8 * i))));
}
inline void PutBe24(std::string& s, uint32_t v) {
    for (int i = 2; i >= 0; --i) s.push_back(char(uint8_t(v >> (8 * i))));
}
inline uint32_t Le32At(const std::string& s, size_t at) {
    return uint32_t(uint8_t(s[at])) | uint32_t(uint8_t(s[at + 1])) << 8 | uint32_t(uint8_t(s[at + 2])) << 16 |
           uint32_t(uint8_t(s[at + 3])) << 24;
}

// Bytes that never spell a chunk id or an FLV tag type.
inline std::string Filler(size_t n, char c = 'Z') { return std::string(n, c); }

// Deterministic noise that avoids nothing: used as damage.
inline std::string Noise(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng() & 0xff);
    return s;
}

struct Range {
    int64_t begin;
    int64_t end;
};

struct Damage {
    std::vector<Range> zeroed;   // overwritten with zeros
    std::vector<Range> garbage;  // overwritten with noise
    int64_t keep = -1;           // bytes kept (tail cut), -1 keeps all
};

inline std::string ApplyDamage(std::string bytes, const Damage& d) {
    uint32_t seed = 7;
    for (const Range& r : d.zeroed) bytes.replace(size_t(r.begin), size_t(r.end - r.begin), size_t(r.end - r.begin), '\0');
    for (const Range& r : d.garbage) bytes.replace(size_t(r.begin), size_t(r.end - r.begin), Noise(size_t(r.end - r.begin), seed++));
    if (d.keep >= 0 && d.keep < int64_t(bytes.size())) bytes.resize(size_t(d.keep));
    return bytes;
}

// (position, size) of each video packet of a file, as the demuxer reports them.
inline std::vector<Range> VideoPacketSpans(const std::string& path) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries",
                                 "packet=pos,size", "-of", "csv=p=0", path},
                                &out);
    std::vector<Range> spans;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        auto comma = line.find(',');
        if (comma == std::string::npos) continue;
        int64_t size = std::stoll(line.substr(0, comma));
        int64_t pos = std::stoll(line.substr(comma + 1));
        spans.push_back({pos, pos + size});
    }
    return spans;
}

// Packets whose bytes (with `headBytes` of container framing in front and
// `tailBytes` behind) were neither overwritten nor cut away.
inline int SurvivingPackets(const std::vector<Range>& packets, const Damage& d, int64_t headBytes,
                            int64_t tailBytes) {
    int count = 0;
    for (const Range& packet : packets) {
        const int64_t begin = packet.begin - headBytes;
        const int64_t end = packet.end + tailBytes;
        bool hit = d.keep >= 0 && end > d.keep;
        for (const auto* list : {&d.zeroed, &d.garbage}) {
            for (const Range& r : *list) hit = hit || (begin < r.end && r.begin < end);
        }
        if (!hit) ++count;
    }
    return count;
}

// One Repair through the exported entry point and the manager, as a host does it.
struct ManagerRun {
    int result = -1;
    std::string repairedPath;
    std::vector<std::string> events;
};

inline ManagerRun RepairThroughManager(const std::string& damaged, const std::string& sample,
                                       const std::string& workDir) {
    ManagerRun run;
    testing_support::RecordingObserver observer;
    IVideoRepairManager* manager = nullptr;
    if (InitKzVideoRepairLib(&manager) != 0 || manager == nullptr) return run;
    std::wstring work = testing_support::Wide(workDir);
    manager->Initialize(&observer, work.c_str(), work.c_str());
    std::wstring wd = testing_support::Wide(damaged), ws = testing_support::Wide(sample);
    run.result = manager->Repair(wd.c_str(), ws.c_str());
    std::vector<wchar_t> out(4096, L'\0');
    if (manager->GetRepairedFilePath(out.data(), wd.c_str()) == 0) {
        run.repairedPath = testing_support::Narrow(out.data());
    }
    manager->Release();
    run.events = observer.Events();
    return run;
}

// True when the name is a 36-character UUID followed by the extension.
inline bool IsUuidName(const std::string& path, const std::string& dir, const std::string& ext) {
    if (path.rfind(dir + "/", 0) != 0) return false;
    std::string name = path.substr(dir.size() + 1);
    if (name.size() != 36 + 1 + ext.size() || name.substr(36) != "." + ext) return false;
    for (size_t i = 0; i < 36; ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? name[i] != '-' : !std::isxdigit(uint8_t(name[i]))) return false;
    }
    return true;
}

}  // namespace container_tests
