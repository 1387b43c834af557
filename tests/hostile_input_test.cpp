// Hostile and broken input against every engine, through the exported manager:
// empty files, directories and FIFOs, missing and wrong samples, zeros, noise,
// sizes that lie, awkward names, outputs that cannot be written and writes that
// fail half-way. Each must end in a logged failure (-1 or an empty path) or a
// best-effort file, never a crash or a hang, and never a changed input.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <sstream>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/EngineClips.h"
#include "support/RepairHarness.h"

using namespace repair_harness;
namespace fs = std::filesystem;

namespace {

std::string LogText(const std::vector<std::string>& log) {
    std::string text;
    for (const std::string& line : log) text += line + "\n";
    return text;
}

// A failure must say why: an ERROR or WARNING line, or one of the engines'
// documented failure messages (some of them are logged at INFO).
bool LoggedAFailure(const std::vector<std::string>& log) {
    for (const char* text : {"[ERROR]", "[WARNING]", "[Sprt]", "[ENCD]", "dataList is empty", "unusable",
                             "Flv Header is damaged, will try repairing. 0"}) {
        if (HasLine(log, text)) return true;
    }
    return false;
}

// The transport-stream engine's Repair fails (-1 when the damaged file cannot be
// opened, -2 when the sample is refused) with nothing logged but its "Start "
// lines, as it always has; its callers know the reason from the result code.
bool FailsQuietlyByDesign(const ManagerRun& run) { return run.result != 0 && HasLine(run.log, "MtsAdvanceRepair::Repair"); }

// What every hostile case must end in.
void ExpectHandled(const ManagerRun& run, const std::string& what) {
    EXPECT_TRUE(run.inputUnchanged) << what;
    if (run.result != 0) {
        EXPECT_TRUE(run.repairedPath.empty()) << what;
    }
    if (!run.repairedPath.empty()) {
        EXPECT_TRUE(testing_support::FileExists(run.repairedPath)) << what;
    }
    if ((run.result != 0 || run.repairedPath.empty()) && !FailsQuietlyByDesign(run)) {
        EXPECT_TRUE(LoggedAFailure(run.log)) << what << ": no line says why\n" << LogText(run.log);
    }
    ASSERT_FALSE(run.events.empty()) << what;
    EXPECT_EQ(run.events.front(), "start") << what;
    EXPECT_EQ(run.events.back(), "finish") << what;
}

// Runs the repair on a thread of its own; a FIFO that held it is opened for
// writing and closed (an end of file for the reader) so that the test can end,
// and the hang is reported.
ManagerRun RepairWithWatchdog(const std::string& damaged, const std::string& sample, const TempDir& dir,
                              const std::string& fifo, bool thorough = false) {
    auto future = std::async(std::launch::async, [&] {
        return thorough ? ThoroughRepairThroughManager(damaged, sample, dir) : RepairThroughManager(damaged, sample, dir);
    });
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "the repair hung on the FIFO " << fifo;
        int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) ::close(fd);
    }
    return future.get();
}

class HostileInput : public ::testing::TestWithParam<EngineClip> {
protected:
    void SetUp() override {
        good_ = MakeEngineClip(GetParam(), false);
        sample_ = MakeEngineClip(GetParam(), true);
        ASSERT_FALSE(good_.empty());
        ASSERT_FALSE(sample_.empty());
    }
    std::string Damaged(const std::string& bytes, const std::string& name = "damaged") {
        std::string path = dir_.file(name + "." + GetParam().extension);
        WriteFile(path, bytes);
        return path;
    }
    // A copy of the sample in the test folder (the MPEG engine writes its
    // extractions beside the sample).
    std::string Sample(const std::string& bytes, const std::string& name = "sample") {
        std::string path = dir_.file(name + "." + GetParam().extension);
        WriteFile(path, bytes);
        return path;
    }

    TempDir dir_{"hostile"};
    std::string good_, sample_;
};

}  // namespace

TEST_P(HostileInput, MissingEmptyZerosOrNoiseAsTheDamagedFile) {
    const std::string sample = Sample(ReadFile(sample_));
    for (const auto& [what, bytes] : std::vector<std::pair<std::string, std::string>>{
             {"empty", ""}, {"zeros", std::string(1 << 20, '\0')}, {"noise", Noise(1 << 20, 99)}}) {
        ManagerRun run = RepairThroughManager(Damaged(bytes, what), sample, dir_);
        ExpectHandled(run, what);
    }
    const std::string missing = dir_.file("missing." + GetParam().extension);
    ManagerRun run = RepairThroughManager(missing, sample, dir_);
    EXPECT_TRUE(run.repairedPath.empty());
    EXPECT_FALSE(testing_support::FileExists(missing)) << "a missing input must not be created";
    EXPECT_TRUE(FailsQuietlyByDesign(run) || LoggedAFailure(run.log)) << LogText(run.log);
}

TEST_P(HostileInput, DirectoryOrFifoNamedAsTheDamagedFile) {
    const std::string sample = Sample(ReadFile(sample_));
    const std::string directory = dir_.file("folder." + GetParam().extension);
    fs::create_directory(directory);
    ExpectHandled(RepairThroughManager(directory, sample, dir_), "directory");

    const std::string fifo = dir_.file("pipe." + GetParam().extension);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ManagerRun run = RepairWithWatchdog(fifo, sample, dir_, fifo);
    ExpectHandled(run, "FIFO");
    EXPECT_NE(run.result, 0) << "a FIFO is never repaired";
}

// The thorough road reads every container with libavformat and its own carvers:
// the same bad input gets a clear error or a best-effort result there too.
TEST_P(HostileInput, ThoroughRoadHandlesTheSameInput) {
    const std::string sample = Sample(ReadFile(sample_)), good = ReadFile(good_);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"empty", ""},
        {"zeros", std::string(1 << 20, '\0')},
        {"noise", Noise(1 << 20, 99)},
        {"head then noise", good.substr(0, good.size() / 2) + Noise(1 << 16, 7)},
        {"noise then tail", Noise(1 << 16, 8) + good.substr(good.size() / 2)},
    };
    for (const auto& [what, bytes] : cases) {
        ManagerRun run = ThoroughRepairThroughManager(Damaged(bytes, "thorough"), sample, dir_);
        ExpectHandled(run, what);
        if (run.result != 0) {
            EXPECT_TRUE(HasLine(run.log, "[ERROR]")) << what << "\n" << LogText(run.log);
        }
    }
    const std::string fifo = dir_.file("thorough_pipe." + GetParam().extension);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ManagerRun run = RepairWithWatchdog(fifo, sample, dir_, fifo, true);
    EXPECT_NE(run.result, 0) << "a FIFO is never repaired";
}

TEST_P(HostileInput, MissingNoiseForeignOrFifoSample) {
    // The damaged file is healthy but for its zeroed head: only the sample decides.
    std::string bytes = ReadFile(good_);
    std::fill(bytes.begin(), bytes.begin() + 4096, '\0');
    const std::string damaged = Damaged(bytes);
    const auto& all = AllEngineClips();
    size_t index = 0;
    while (all[index].engine != GetParam().engine) ++index;
    const EngineClip& other = all[(index + 1) % all.size()];
    const std::string foreign = MakeEngineClip(other, true);
    ASSERT_FALSE(foreign.empty());
    const std::string fifo = dir_.file("pipe_sample." + GetParam().extension);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const auto& [what, sample] : std::vector<std::pair<std::string, std::string>>{
             {"missing sample", dir_.file("missing." + GetParam().extension)},
             {"empty sample path", ""},
             {"noise sample", Sample(Noise(300000, 5), "noise_sample")},
             {"sample of another container (" + other.engine + ")", Sample(ReadFile(foreign), "foreign_sample")},
             {"directory sample", dir_.path()},
             {"FIFO sample", fifo}}) {
        ManagerRun run = RepairWithWatchdog(damaged, sample, dir_, fifo);
        ExpectHandled(run, what);
    }
}

// ---- sizes that lie ----

namespace {

enum class Lie { kHuge, kZero, kNegative };

const char* LieName(Lie lie) { return lie == Lie::kHuge ? "huge" : lie == Lie::kZero ? "zero" : "negative"; }

// The lie in a field of `bits` bits: all ones but the lowest bit (larger than any
// file; all ones means "unknown" in EBML), zero, or only the top bit (negative
// when read signed).
uint64_t LieValue(Lie lie, int bits) {
    const uint64_t all = bits >= 64 ? ~uint64_t(0) : (uint64_t(1) << bits) - 1;
    return lie == Lie::kHuge ? all & ~uint64_t(1) : lie == Lie::kZero ? 0 : uint64_t(1) << (bits - 1);
}

void PutField(std::string& bytes, size_t at, size_t n, bool bigEndian, uint64_t value) {
    if (at + n > bytes.size()) return;
    for (size_t k = 0; k < n; ++k) bytes[at + (bigEndian ? n - 1 - k : k)] = char(uint8_t(value >> (8 * k)));
}

void SetField(std::string& bytes, size_t at, size_t n, bool bigEndian, Lie lie) {
    if (n == 0) return;  // a BER length of no bytes has nothing to lie with
    PutField(bytes, at, n, bigEndian, LieValue(lie, int(8 * n)));
}

// Every occurrence of a marker, from `from` on.
std::vector<size_t> Find(const std::string& bytes, const std::string& marker, size_t from = 0) {
    std::vector<size_t> at;
    for (size_t p = bytes.find(marker, from); p != std::string::npos; p = bytes.find(marker, p + 1)) at.push_back(p);
    return at;
}

// Every third occurrence, so that good structures remain between the lies.
template <typename F>
void EveryThird(const std::vector<size_t>& positions, F change) {
    for (size_t i = 0; i < positions.size(); i += 3) change(positions[i]);
}

// EBML sizes: the length marker of the first byte stays, the value lies.
void LieEbmlSize(std::string& bytes, size_t at, Lie lie) {
    if (at >= bytes.size()) return;
    const uint8_t first = uint8_t(bytes[at]);
    int length = 1;
    while (length <= 8 && !(first & (0x80 >> (length - 1)))) ++length;
    if (length > 8) return;
    const int valueBits = 7 * length;
    PutField(bytes, at, size_t(length), true, (uint64_t(1) << valueBits) | LieValue(lie, valueBits));
}

std::string WithLyingSizes(const std::string& engine, std::string bytes, Lie lie) {
    if (engine == "Avi") {
        SetField(bytes, 4, 4, false, lie);  // RIFF
        EveryThird(Find(bytes, "LIST"), [&](size_t p) { SetField(bytes, p + 4, 4, false, lie); });
        EveryThird(Find(bytes, "00dc"), [&](size_t p) { SetField(bytes, p + 4, 4, false, lie); });
    } else if (engine == "Flv") {
        std::vector<size_t> tags;
        for (size_t p = 13; p + 11 <= bytes.size();) {
            tags.push_back(p);
            const size_t size = size_t(uint8_t(bytes[p + 1])) << 16 | size_t(uint8_t(bytes[p + 2])) << 8 |
                                uint8_t(bytes[p + 3]);
            p += 11 + size + 4;
        }
        EveryThird(tags, [&](size_t p) { SetField(bytes, p + 1, 3, true, lie); });
    } else if (engine == "Mkv") {
        LieEbmlSize(bytes, 4, lie);  // the EBML header
        for (const char* id : {"\x18\x53\x80\x67", "\x1F\x43\xB6\x75", "\x16\x54\xAE\x6B"})
            EveryThird(Find(bytes, id), [&](size_t p) { LieEbmlSize(bytes, p + 4, lie); });
        EveryThird(Find(bytes, "\xA3"), [&](size_t p) { LieEbmlSize(bytes, p + 1, lie); });
    } else if (engine == "Mpeg" || engine == "Mts") {
        EveryThird(Find(bytes, std::string("\x00\x00\x01\xE0", 4)), [&](size_t p) { SetField(bytes, p + 4, 2, true, lie); });
        if (engine == "Mts")
            EveryThird(Find(bytes, "\x47"), [&](size_t p) { SetField(bytes, p + 4, 1, true, lie); });
    } else if (engine == "Mxf") {
        const std::string key("\x06\x0E\x2B\x34", 4);
        EveryThird(Find(bytes, key), [&](size_t p) {
            const size_t ber = p + 16;
            if (ber >= bytes.size()) return;
            const uint8_t first = uint8_t(bytes[ber]);
            if (first & 0x80) SetField(bytes, ber + 1, std::min<size_t>(first & 0x7F, 8), true, lie);
            else bytes[ber] = char(lie == Lie::kHuge ? 0x7F : lie == Lie::kZero ? 0 : 0x40);
        });
    } else if (engine == "Wmv") {
        SetField(bytes, 16, 8, false, lie);  // the header object
        const std::string data("\x36\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
        for (size_t p : Find(bytes, data)) SetField(bytes, p + 16, 8, false, lie);
        const std::string stream("\x91\x07\xDC\xB7\xB7\xA9\xCF\x11\x8E\xE6\x00\xC0\x0C\x20\x53\x65", 16);
        for (size_t p : Find(bytes, stream)) SetField(bytes, p + 16, 8, false, lie);
        // Payload lengths inside data packets (the packet length fields follow the flags).
        EveryThird(Find(bytes, "\x82\x00\x00"), [&](size_t p) { SetField(bytes, p + 5, 2, false, lie); });
    }
    return bytes;
}

}  // namespace

TEST_P(HostileInput, SizesThatLieInTheDamagedFileOrTheSample) {
    const std::string goodBytes = ReadFile(good_), sampleBytes = ReadFile(sample_);
    for (Lie lie : {Lie::kHuge, Lie::kZero, Lie::kNegative}) {
        const std::string name = LieName(lie);
        const std::string lyingDamaged = WithLyingSizes(GetParam().engine, goodBytes, lie);
        ASSERT_NE(lyingDamaged, goodBytes) << name;
        ExpectHandled(RepairThroughManager(Damaged(lyingDamaged, name), Sample(sampleBytes), dir_), name + " damaged");
        const std::string lyingSample = WithLyingSizes(GetParam().engine, sampleBytes, lie);
        ExpectHandled(RepairThroughManager(Damaged(goodBytes, "healthy_" + name), Sample(lyingSample, name + "_sample"),
                                           dir_),
                      name + " sample");
    }
}

// ---- names ----

namespace {

// Blanks, both quotes, "$", ";", back-quotes, non-ASCII letters.
const char kAwkwardName[] = "a b 'q' \"d\" $HOME ;x `touch pwned` \xC3\xA9\xC3\xBC \xD0\x96 \xE6\xBC\xA2";

}  // namespace

TEST_P(HostileInput, AwkwardNamesAndLongComponentsRepairLikeAnyOther) {
    const std::string longDir = dir_.file(std::string(250, 'd'));
    fs::create_directories(longDir);
    const std::string ext = "." + GetParam().extension;
    const std::string cases[][2] = {
        {dir_.file(kAwkwardName + ext), dir_.file(std::string(kAwkwardName) + " sample" + ext)},
        {longDir + "/" + std::string(250 - ext.size(), 'n') + ext, longDir + "/s" + ext},
    };
    for (const auto& c : cases) {
        WriteFile(c[0], ReadFile(good_));
        WriteFile(c[1], ReadFile(sample_));
        ManagerRun run = RepairThroughManager(c[0], c[1], dir_);
        EXPECT_EQ(run.result, 0) << c[0] << "\n" << LogText(run.log);
        EXPECT_TRUE(run.inputUnchanged) << c[0];
        ASSERT_FALSE(run.repairedPath.empty()) << c[0];
        EXPECT_EQ(fs::path(run.repairedPath).parent_path(), fs::path(c[0]).parent_path());
        EXPECT_GT(testing_support::CountDecodedVideoFrames(run.repairedPath), 25) << run.repairedPath;
    }
    EXPECT_FALSE(fs::exists("pwned")) << "a name was handed to a shell";
}

// ---- outputs that cannot be written ----

namespace {

// A folder below a regular file cannot be made or written, whoever asks.
std::string UnderARegularFile(const TempDir& dir) {
    WriteFile(dir.file("plain_file"), "x");
    return dir.file("plain_file/work");
}

}  // namespace

TEST_P(HostileInput, WorkDirectoryThatCannotBeMade) {
    std::string bytes = ReadFile(good_);
    std::fill(bytes.begin(), bytes.begin() + 4096, '\0');
    ManagerRun run = RepairThroughManager(Damaged(bytes), Sample(ReadFile(sample_)), dir_.path(), UnderARegularFile(dir_));
    ExpectHandled(run, "work directory under a regular file");
}

// ---- a write that fails half-way ----

namespace {

struct ChildOutcome {
    bool exited = false;  // ended by itself, not by a signal
    int result = -1;
    std::string repairedPath;
    int64_t repairedSize = -1;
    bool inputUnchanged = false;
};

// Repairs in a child process whose files may not grow past `limitBytes`; a write
// beyond fails with EFBIG (SIGXFSZ is ignored, as a host that must not die would).
ChildOutcome RepairUnderFileSizeLimit(const std::string& damaged, const std::string& sample, const TempDir& dir,
                                      rlim_t limitBytes) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) return {};
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {limitBytes, limitBytes};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ManagerRun run = RepairThroughManager(damaged, sample, dir);
        std::ostringstream report;
        report << run.result << "\n" << run.inputUnchanged << "\n" << run.repairedPath << "\n";
        const std::string text = report.str();
        ssize_t ignored = ::write(pipeEnds[1], text.data(), text.size());
        (void)ignored;
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, size_t(n));
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ChildOutcome outcome;
    outcome.exited = WIFEXITED(status);
    std::istringstream lines(text);
    std::string line;
    if (std::getline(lines, line)) outcome.result = std::stoi(line);
    if (std::getline(lines, line)) outcome.inputUnchanged = line == "1";
    std::getline(lines, outcome.repairedPath);
    outcome.repairedSize = outcome.repairedPath.empty() ? -1 : testing_support::FileSize(outcome.repairedPath);
    return outcome;
}

}  // namespace

TEST_P(HostileInput, WriteThatFailsHalfWayGivesNoResult) {
    const std::string damaged = Damaged(ReadFile(good_));
    const std::string sample = Sample(ReadFile(sample_));
    const int64_t limit = testing_support::FileSize(good_) / 3;
    ChildOutcome outcome = RepairUnderFileSizeLimit(damaged, sample, dir_, rlim_t(limit));
    ASSERT_TRUE(outcome.exited) << "the repair crashed";
    EXPECT_TRUE(outcome.inputUnchanged);
    EXPECT_TRUE(outcome.result != 0 || outcome.repairedPath.empty())
        << "a cut output was handed out: " << outcome.repairedPath << " (" << outcome.repairedSize << " bytes)";
    const std::vector<std::string> log = testing_support::ReadLines(dir_.file("KzVideoRepair.log"));
    EXPECT_TRUE(LoggedAFailure(log)) << LogText(log);
}

INSTANTIATE_TEST_SUITE_P(Engines, HostileInput, ::testing::ValuesIn(AllEngineClips()),
                         [](const ::testing::TestParamInfo<EngineClip>& info) { return EngineName(info.param); });
