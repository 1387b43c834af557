#include "support/RepairHarness.h"

#include <functional>

#include <Poco/DigestEngine.h>
#include <Poco/DigestStream.h>
#include <Poco/SHA1Engine.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/System.h"

namespace repair_harness {

void PutLe32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s.push_back(char(uint8_t(v >> (8 * i))));
}
void PutBe32(std::string& s, uint32_t v) {
    for (int i = 3; i >= 0; --i) s.push_back(char(uint8_t(v >> (8 * i))));
}
void PutBe24(std::string& s, uint32_t v) {
    for (int i = 2; i >= 0; --i) s.push_back(char(uint8_t(v >> (8 * i))));
}
uint32_t Le32At(const std::string& s, size_t at) {
    return uint32_t(uint8_t(s[at])) | uint32_t(uint8_t(s[at + 1])) << 8 | uint32_t(uint8_t(s[at + 2])) << 16 |
           uint32_t(uint8_t(s[at + 3])) << 24;
}

std::string Noise(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng() & 0xff);
    return s;
}

// ---- damage ----

bool Damage::Hits(int64_t begin, int64_t end) const {
    if (keep >= 0 && end > keep) return true;
    auto overlaps = [&](const Range& r) { return r.begin < r.end && begin < r.end && r.begin < end; };
    if (overlaps(removed)) return true;
    for (const auto* list : {&zeroed, &noise}) {
        for (const Range& r : *list) {
            if (overlaps(r)) return true;
        }
    }
    return false;
}

std::string ApplyDamage(std::string bytes, const Damage& damage) {
    const int64_t size = int64_t(bytes.size());
    auto clamp = [size](const Range& r) { return Range{std::min(r.begin, size), std::min(r.end, size)}; };
    for (const Range& r : damage.zeroed) {
        Range c = clamp(r);
        std::fill(bytes.begin() + c.begin, bytes.begin() + c.end, '\0');
    }
    uint32_t seed = damage.seed;
    for (const Range& r : damage.noise) {
        Range c = clamp(r);
        bytes.replace(size_t(c.begin), size_t(c.end - c.begin), Noise(size_t(c.end - c.begin), seed++));
    }
    if (damage.keep >= 0 && damage.keep < int64_t(bytes.size())) bytes.resize(size_t(damage.keep));
    Range cut = clamp(damage.removed);
    cut = {std::min(cut.begin, int64_t(bytes.size())), std::min(cut.end, int64_t(bytes.size()))};
    if (cut.begin < cut.end) bytes.erase(size_t(cut.begin), size_t(cut.end - cut.begin));
    return bytes;
}

// ---- what survived ----

std::vector<ProbedPacket> ProbeVideoPackets(const std::string& path) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries",
                                 "packet=pos,size,flags", "-of", "csv=p=0", path},
                                &out);
    std::vector<ProbedPacket> packets;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        // ffprobe prints the fields in its own order: size, pos, flags.
        std::string size, pos, flags;
        std::istringstream fields(line);
        std::getline(fields, size, ',');
        std::getline(fields, pos, ',');
        std::getline(fields, flags, ',');
        if (size.empty() || !std::isdigit(uint8_t(size[0]))) continue;
        ProbedPacket p;
        p.size = std::stoll(size);
        p.position = !pos.empty() && std::isdigit(uint8_t(pos[0])) ? std::stoll(pos) : -1;
        p.key = flags.find('K') != std::string::npos;
        packets.push_back(p);
    }
    return packets;
}

std::vector<ProbedPacket> PositionedPackets(std::vector<ProbedPacket> packets) {
    packets.erase(std::remove_if(packets.begin(), packets.end(), [](const ProbedPacket& p) { return p.position < 0; }),
                  packets.end());
    std::stable_sort(packets.begin(), packets.end(),
                     [](const ProbedPacket& a, const ProbedPacket& b) { return a.position < b.position; });
    return packets;
}

std::vector<FrameSpan> OwnBytes(const std::vector<ProbedPacket>& packets, int64_t headBytes, int64_t tailBytes) {
    std::vector<FrameSpan> spans;
    for (const ProbedPacket& p : packets) {
        if (p.position >= 0) spans.push_back({p.position - headBytes, p.position + p.size + tailBytes, p.key});
    }
    return spans;
}

std::vector<FrameSpan> ToNextPacket(const std::vector<ProbedPacket>& packets, int64_t lastEnd, int64_t tailBytes) {
    std::vector<FrameSpan> spans;
    for (size_t i = 0; i < packets.size(); ++i) {
        const ProbedPacket& p = packets[i];
        int64_t end = i + 1 < packets.size() ? packets[i + 1].position
                      : lastEnd >= 0         ? lastEnd
                                             : p.position + p.size;
        spans.push_back({p.position, end + tailBytes, p.key});
    }
    return spans;
}

std::vector<FrameSpan> ToNextPosition(const std::vector<ProbedPacket>& packets, int64_t fileSize) {
    std::vector<FrameSpan> frames;
    for (const ProbedPacket& p : packets) {
        int64_t begin = p.position >= 0 ? p.position : (frames.empty() ? 0 : frames.back().begin);
        frames.push_back({begin, fileSize, p.key});
    }
    for (size_t i = 0; i < frames.size(); ++i) {
        for (size_t j = i + 1; j < frames.size(); ++j) {
            if (frames[j].begin > frames[i].begin) {
                frames[i].end = frames[j].begin;
                break;
            }
        }
    }
    return frames;
}

int CountSurvivors(const std::vector<FrameSpan>& frames, const Damage& damage, Dependence dependence) {
    int count = 0;
    bool chain = false;
    for (const FrameSpan& f : frames) {
        const bool alive = !damage.Hits(f.begin, f.end);
        switch (dependence) {
            case Dependence::kNone: chain = alive; break;
            case Dependence::kUnbrokenChain: chain = alive && (f.key || chain); break;
            case Dependence::kKeyFrame:
                if (f.key) chain = alive;
                break;
        }
        if (alive && chain) ++count;
    }
    return count;
}

// ---- probing results ----

int CountStreams(const std::string& path, const std::string& type) {
    std::string out;
    if (testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", type, "-show_entries",
                                     "stream=index", "-of", "csv=p=0", path},
                                    &out) != 0)
        return -1;
    return int(std::count(out.begin(), out.end(), '\n'));
}

bool HasLine(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

size_t FilesIn(const std::string& directory) {
    std::string out;
    testing_support::RunProgram({"find", directory, "-type", "f"}, &out);
    return size_t(std::count(out.begin(), out.end(), '\n'));
}

bool IsUuidName(const std::string& path, const std::string& dir, const std::string& ext) {
    if (path.rfind(dir + "/", 0) != 0) return false;
    std::string name = path.substr(dir.size() + 1);
    if (name.size() != 36 + 1 + ext.size() || name.substr(36) != "." + ext) return false;
    for (size_t i = 0; i < 36; ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? name[i] != '-' : !std::isxdigit(uint8_t(name[i]))) return false;
    }
    return true;
}

// ---- hashes ----

std::string FileHash(const std::string& path) {
    // A FIFO or a directory named as the damaged file is never read: opening a
    // FIFO would wait for a writer.
    std::error_code ec;
    const auto status = std::filesystem::symlink_status(path, ec);
    if (ec || !std::filesystem::exists(status)) return std::string();
    if (!std::filesystem::is_regular_file(status)) return "not a regular file: " + std::to_string(int(status.type()));
    // Only the data extents are read, each hashed behind its offset: a sparse
    // file of many GiB hashes as fast as its few real bytes, and a write into a
    // hole still shows (it makes a new extent).
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
    if (!in) return std::string();
    Poco::SHA1Engine sha1;
    std::vector<char> buffer(1 << 20);
    for (const auto& [start, end] : testing_support::DataExtents(path)) {
        sha1.update(&start, sizeof start);
        in.clear();
        in.seekg(start);
        for (int64_t at = start; at < end;) {
            in.read(buffer.data(), std::streamsize(std::min<int64_t>(end - at, int64_t(buffer.size()))));
            const std::streamsize n = in.gcount();
            if (n <= 0) break;
            sha1.update(buffer.data(), size_t(n));
            at += n;
        }
    }
    const int64_t size = int64_t(std::filesystem::file_size(std::filesystem::u8path(path), ec));
    sha1.update(&size, sizeof size);
    return Poco::DigestEngine::digestToHex(sha1.digest());
}

::testing::AssertionResult InputGuard::Unchanged() const {
    const std::string after = FileHash(path_);
    if (!before_.empty() && after == before_) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the damaged input " << path_ << " changed: SHA-1 " << before_
                                         << " before, " << after << " after";
}

// ---- the manager ----

namespace {

std::multiset<std::string> FrameHashes(const std::string& path) {
    std::string out;
    testing_support::RunProgram({testing_support::BinDir() + "/ffmpeg", "-nostdin", "-v", "quiet", "-i", path, "-map",
                                 "0:v:0", "-f", "framemd5", "-"},
                                &out);
    std::multiset<std::string> hashes;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        size_t comma = line.rfind(',');
        if (comma != std::string::npos) hashes.insert(line.substr(comma + 1));
    }
    return hashes;
}

}  // namespace

int CountBitExactFrames(const std::string& path, const std::string& original) {
    std::multiset<std::string> wanted = FrameHashes(original);
    int exact = 0;
    for (const std::string& hash : FrameHashes(path)) {
        auto found = wanted.find(hash);
        if (found == wanted.end()) continue;
        wanted.erase(found);
        ++exact;
    }
    return exact;
}

namespace {

using ManagerCall = std::function<int32_t(IVideoRepairManager&, const wchar_t*, const wchar_t*)>;

ManagerRun RunThroughManager(const std::string& damaged, const std::string& sample, const std::string& logDir,
                             const std::string& workDir, const ManagerCall& call) {
    ManagerRun run;
    InputGuard guard(damaged);
    IVideoRepairManager* manager = nullptr;
    if (InitKzVideoRepairLib(&manager) != 0 || manager == nullptr) return run;
    testing_support::RecordingObserver observer;
    const std::wstring logs = testing_support::Wide(logDir), work = testing_support::Wide(workDir);
    manager->Initialize(&observer, logs.c_str(), work.c_str());
    const std::wstring damagedW = testing_support::Wide(damaged), sampleW = testing_support::Wide(sample);
    run.result = call(*manager, damagedW.c_str(), sampleW.c_str());
    std::vector<wchar_t> path(4096, L'\0');
    if (manager->GetRepairedFilePath(path.data(), damagedW.c_str()) == 0)
        run.repairedPath = testing_support::Narrow(path.data());
    manager->Release();
    run.log = testing_support::ReadLines(logDir + "/KzVideoRepair.log");
    run.events = observer.Events();
    run.inputUnchanged = bool(guard.Unchanged());
    return run;
}

}  // namespace

ManagerRun RepairThroughManager(const std::string& damaged, const std::string& sample, const std::string& logDir,
                                const std::string& workDir) {
    return RunThroughManager(damaged, sample, logDir, workDir,
                             [](IVideoRepairManager& m, const wchar_t* d, const wchar_t* s) { return m.Repair(d, s); });
}

ManagerRun ThoroughRepairThroughManager(const std::string& damaged, const std::string& sample, const TempDir& dir,
                                        ThoroughRepairOptions* options) {
    ThoroughRepairOptions own{};
    own.size = sizeof own;
    ThoroughRepairOptions* used = options != nullptr ? options : &own;
    return RunThroughManager(damaged, sample, dir.path(), dir.file("work"),
                             [used](IVideoRepairManager& m, const wchar_t* d, const wchar_t* s) {
                                 return m.RepairWithOptions(d, s, kRepairOptionThorough, used);
                             });
}

}  // namespace repair_harness
