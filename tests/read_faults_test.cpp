// Failing cards and full disks, through the `videorepair` program as a user runs
// it: a preloaded shim makes reads of the damaged file fail (a bad stretch, a
// card pulled half way, a bad header sector) or the output folder fill up. What a
// faulty read keeps is measured against the same repair read cleanly.
#include <gtest/gtest.h>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <algorithm>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/RepairHarness.h"
#include "support/TestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

constexpr int kMissingFile = 4;
constexpr int kSaveFailed = 6;
constexpr int kPartlyRecovered = 11;

using Faults = std::map<std::string, std::string>;

struct ToolRun {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
    double seconds = 0;
};

// The program with the shim preloaded and the faults in its environment.
ToolRun RunTool(const std::vector<std::string>& args, const Faults& faults) {
    std::vector<std::string> env;
    std::string sanitizer;  // a sanitizer's options the suite runs with, kept
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        if (!faults.empty() && entry.rfind("ASAN_OPTIONS=", 0) == 0) {
            sanitizer = entry.substr(sizeof "ASAN_OPTIONS=" - 1) + ":";
            continue;
        }
        env.push_back(entry);
    }
    if (!faults.empty()) {
        env.push_back(std::string("LD_PRELOAD=") + VR_TEST_FAULT_SHIM);
        // The shim comes before a sanitizer's runtime in the list of libraries.
        env.push_back("ASAN_OPTIONS=" + sanitizer + "verify_asan_link_order=0");
        for (const auto& [name, value] : faults) env.push_back(name + "=" + value);
    }
    std::vector<char*> envp, argv;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string program = BinDir() + "/videorepair";
    argv.push_back(program.data());
    std::vector<std::string> copies = args;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);

    ToolRun run;
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return run;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    auto begin = std::chrono::steady_clock::now();
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    char chunk[4096];
    ssize_t n;
    while ((n = read(pipeEnds[0], chunk, sizeof chunk)) > 0) run.output.append(chunk, size_t(n));
    close(pipeEnds[0]);
    if (spawned != 0) return run;
    int status = 0;
    waitpid(pid, &status, 0);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// The "unreadable" list of the first file in the program's JSON lines; frames:
// what the ranges cost, as the program estimates it (-1: not stated).
std::vector<std::pair<int64_t, int64_t>> UnreadableOf(const std::string& output, int64_t* frames = nullptr) {
    std::vector<std::pair<int64_t, int64_t>> ranges;
    if (frames != nullptr) *frames = -1;
    size_t open = output.find("{\"input\"");
    if (open == std::string::npos) return ranges;
    size_t close = output.find('\n', open);
    try {
        auto file = Poco::JSON::Parser().parse(output.substr(open, close - open)).extract<Poco::JSON::Object::Ptr>();
        auto list = file->getArray("unreadable");
        for (size_t i = 0; list && i < list->size(); ++i) {
            auto r = list->getObject(unsigned(i));
            ranges.emplace_back(r->getValue<int64_t>("offset"), r->getValue<int64_t>("length"));
            if (frames != nullptr && !r->isNull("frames")) *frames = std::max<int64_t>(*frames, 0) + r->getValue<int64_t>("frames");
        }
    } catch (...) {
    }
    return ranges;
}

std::string CopyInto(const TempDir& dir, const std::string& path) {
    std::string copy = dir.file(fs::path(path).filename().string());
    fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
    return copy;
}

size_t FilesIn(const std::string& folder) {
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator(folder)) n += entry.is_regular_file();
    return n;
}

struct Container {
    std::string extension;
    std::vector<std::string> codecArgs;
};

void PrintTo(const Container& c, std::ostream* os) { *os << c.extension; }

// A few MB each: 64 KiB is then about 1% of the file, as on a real card.
const std::vector<Container>& Containers() {
    static const std::vector<Container> all = {
        {"avi", {"-c:v", "mpeg4", "-b:v", "4M", "-g", "25"}},
        {"flv", {"-c:v", "flv", "-b:v", "4M", "-g", "25"}},
        {"mkv", {"-c:v", "mpeg4", "-b:v", "4M", "-g", "12"}},
        {"mpg", {"-c:v", "mpeg2video", "-b:v", "4M", "-maxrate", "8M", "-bufsize", "2M", "-g", "12", "-f", "dvd"}},
        {"mts", {"-c:v", "mpeg2video", "-b:v", "4M", "-g", "12", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}},
        {"mxf", {"-c:v", "mpeg2video", "-b:v", "4M", "-maxrate", "4M", "-bufsize", "2M", "-g", "12", "-bf", "0"}},
        {"wmv", {"-c:v", "wmv2", "-b:v", "4M", "-g", "25"}},
        {"mp4", {"-c:v", "libx264", "-preset", "ultrafast", "-b:v", "4M", "-g", "25"}},
    };
    return all;
}

// Noise keeps the encoder at its bit rate, so the clip has the size asked for.
std::string Clip(const Container& c, bool sample) {
    std::vector<std::string> args = {"-f", "lavfi", "-i",
                                      std::string("testsrc=size=640x360:rate=25:duration=") + (sample ? "2" : "8") +
                                          ",noise=alls=12:allf=t",
                                      "-an"};
    args.insert(args.end(), c.codecArgs.begin(), c.codecArgs.end());
    return GeneratedMedia(std::string("faults_") + (sample ? "sample." : "clip.") + c.extension, args);
}

class FailingCard : public ::testing::TestWithParam<Container> {
protected:
    void SetUp() override {
        clip_ = Clip(GetParam(), false);
        sample_ = Clip(GetParam(), true);
        ASSERT_FALSE(clip_.empty());
        ASSERT_FALSE(sample_.empty());
        size_ = FileSize(clip_);
    }

    // One repair into a folder of its own; frames that decode in its result.
    int Repair(const std::string& tag, const Faults& faults, ToolRun& run) {
        std::string out = dir_.file(tag);
        fs::create_directories(out);
        run = RunTool({"repair", clip_, "-s", sample_, "-o", out, "--work-dir", dir_.file("work"), "-q", "--json"},
                      faults);
        std::string result = out + "/" + fs::path(clip_).filename().string();
        return FileExists(result) ? CountDecodedVideoFrames(result) : 0;
    }

    Faults ReadFaults(const std::string& name, const std::string& value) const {
        return {{"VR_FAULT_READ_PATH", clip_}, {name, value}};
    }

    TempDir dir_{"faults"};
    std::string clip_, sample_;
    int64_t size_ = 0;
};

// 64 KiB unreadable at 40% (across a 64 KiB boundary), a card pulled at 70%, and a
// bad sector in the header: each against the same file read cleanly.
TEST_P(FailingCard, KeepsWhatTheCardStillGives) {
    repair_harness::InputGuard guard(clip_);
    ToolRun clean;
    const int cleanFrames = Repair("clean", {}, clean);
    ASSERT_EQ(clean.exitCode, 0) << clean.output;
    ASSERT_GT(cleanFrames, 0);

    const int64_t holeAt = size_ * 4 / 10 / 65536 * 65536 - 32768;
    ToolRun hole;
    const int holeFrames = Repair("hole", ReadFaults("VR_FAULT_EIO", std::to_string(holeAt) + ":65536"), hole);
    EXPECT_EQ(hole.exitCode, kPartlyRecovered) << hole.output;
    int64_t holeCost = -1;
    auto ranges = UnreadableOf(hole.output, &holeCost);
    ASSERT_EQ(ranges.size(), 1u) << hole.output;
    EXPECT_EQ(ranges[0], std::make_pair(holeAt, int64_t(65536)));
    EXPECT_GE(holeFrames, cleanFrames * 95 / 100);
    // The cost is told at the file's rate: a few frames for 1-2% of it.
    EXPECT_GT(holeCost, 0) << hole.output;
    EXPECT_LE(holeCost, cleanFrames * 5 / 100) << hole.output;

    const int64_t goneAt = size_ * 7 / 10;
    int before = 0;
    for (const auto& p : repair_harness::ProbeVideoPackets(clip_)) before += p.position >= 0 && p.position + p.size <= goneAt;
    ToolRun pulled;
    const int pulledFrames = Repair("pulled", ReadFaults("VR_FAULT_GONE_AT", std::to_string(goneAt)), pulled);
    EXPECT_EQ(pulled.exitCode, kPartlyRecovered) << pulled.output;
    EXPECT_GE(pulledFrames, std::min(before, cleanFrames) * 95 / 100);

    // A reader pulled from the bus says ENODEV: nothing is asked of it again.
    ToolRun gone;
    Faults goneFaults = ReadFaults("VR_FAULT_GONE_AT", std::to_string(goneAt));
    goneFaults["VR_FAULT_GONE_ERRNO"] = std::to_string(ENODEV);
    const int goneFrames = Repair("gone", goneFaults, gone);
    EXPECT_EQ(gone.exitCode, kPartlyRecovered) << gone.output;
    EXPECT_GE(goneFrames, std::min(before, cleanFrames) * 95 / 100);
    auto goneRanges = UnreadableOf(gone.output);
    ASSERT_EQ(goneRanges.size(), 1u) << gone.output;
    EXPECT_LE(goneRanges[0].first, goneAt);
    EXPECT_EQ(goneRanges[0].first + goneRanges[0].second, size_);

    ToolRun header;
    const int headerFrames = Repair("header", ReadFaults("VR_FAULT_EIO", "512:512"), header);
    EXPECT_EQ(header.exitCode, kPartlyRecovered) << header.output;
    EXPECT_GT(headerFrames, 0);

    EXPECT_TRUE(guard.Unchanged());
    std::printf("[ measured ] %s: frames clean %d, 64 KiB hole %d, pulled at 70%% %d / gone %d (of %d before), "
                "header %d; seconds clean %.2f, hole %.2f, pulled %.2f, gone %.2f\n",
                GetParam().extension.c_str(), cleanFrames, holeFrames, pulledFrames, goneFrames, before, headerFrames,
                clean.seconds, hole.seconds, pulled.seconds, gone.seconds);
}

// The engines of earlier versions read through the same reader, and the ffmpeg
// they start reads only what they carved.
TEST_P(FailingCard, CompatibleRoadStepsOverTheHole) {
    if (GetParam().extension == "mp4") GTEST_SKIP() << "MP4 files are repaired by the thorough repair only";
    // Engines write beside the damaged file: a copy here keeps the shared media folder clean.
    clip_ = CopyInto(dir_, clip_);
    ToolRun run;
    auto repair = [&](const std::string& tag, const Faults& faults) {
        std::string out = dir_.file(tag);
        fs::create_directories(out);
        run = RunTool({"repair", "--compatible", clip_, "-s", sample_, "-o", out, "--work-dir", dir_.file("work"),
                       "-q", "--json"},
                      faults);
        return CountDecodedVideoFrames(out + "/" + fs::path(clip_).filename().string());
    };
    const int cleanFrames = repair("clean", {});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    const int64_t holeAt = size_ * 4 / 10 / 65536 * 65536 - 32768;
    const int holeFrames = repair("hole", ReadFaults("VR_FAULT_EIO", std::to_string(holeAt) + ":65536"));
    // Told as on the thorough road, from the engine's log.
    EXPECT_EQ(run.exitCode, kPartlyRecovered) << run.output;
    auto ranges = UnreadableOf(run.output);
    ASSERT_EQ(ranges.size(), 1u) << run.output;
    EXPECT_EQ(ranges[0], std::make_pair(holeAt, int64_t(65536)));
    EXPECT_GE(holeFrames, cleanFrames * 95 / 100);
    EXPECT_GT(cleanFrames, 0);
    std::printf("[ measured ] %s compatible: frames clean %d, 64 KiB hole %d\n", GetParam().extension.c_str(),
                cleanFrames, holeFrames);
}

INSTANTIATE_TEST_SUITE_P(EveryContainer, FailingCard, ::testing::ValuesIn(Containers()),
                         [](const ::testing::TestParamInfo<Container>& info) { return info.param.extension; });

class FullDisk : public ::testing::Test {
protected:

    TempDir dir_{"fulldisk"};
    std::string clip_ = CopyInto(dir_, Clip(Containers()[2], false));  // engines write beside it
    std::string sample_ = Clip(Containers()[2], true);
};

// The output folder fills up after the given bytes: the candidates, then the kept
// file fail; nothing is left there and the message says why and where.
TEST_F(FullDisk, FailsCleanlyAndLeavesNothing) {
    struct Case {
        const char* limit;
        bool compatible;  // the engine writes elsewhere; SaveAs copies into the full folder
    };
    for (const Case& c : {Case{"0", false}, Case{"100000", false}, Case{"3000000", false}, Case{"100000", true}}) {
        const std::string limit = c.limit;
        std::string out = dir_.file("out" + limit + (c.compatible ? "c" : ""));
        fs::create_directories(out);
        std::vector<std::string> args = {"repair", clip_, "-s", sample_, "-o", out, "--work-dir", dir_.file("work"), "-q"};
        if (c.compatible) args.push_back("--compatible");
        ToolRun run = RunTool(args, {{"VR_FAULT_WRITE_DIR", out}, {"VR_FAULT_WRITE_LIMIT", limit}});
        EXPECT_EQ(run.exitCode, kSaveFailed) << limit << ": " << run.output;
        EXPECT_NE(run.output.find("no space left on " + out), std::string::npos) << run.output;
        EXPECT_EQ(run.output.find("repaired in"), std::string::npos) << run.output;
        EXPECT_EQ(FilesIn(out), 0u) << limit;
    }
}

// The work folder fills up instead: the engine's intermediates and the repair's
// own result cannot be written there; the tool says which folder and what to do.
TEST_F(FullDisk, AFullWorkFolderIsNamed) {
    const std::string out = dir_.file("out-work-full"), work = dir_.file("work-full");
    fs::create_directories(out);
    fs::create_directories(work);
    ToolRun run = RunTool({"repair", "--compatible", clip_, "-s", sample_, "-o", out, "--work-dir", work, "-q"},
                          {{"VR_FAULT_WRITE_DIR", work}, {"VR_FAULT_WRITE_LIMIT", "50000"}});
    EXPECT_EQ(run.exitCode, kSaveFailed) << run.output;
    EXPECT_NE(run.output.find("in the work folder"), std::string::npos) << run.output;
    EXPECT_EQ(FilesIn(out), 0u);
}

TEST_F(FullDisk, AnUnreadableSampleIsNamed) {
    ToolRun run = RunTool({"repair", clip_, "-s", sample_, "-o", dir_.file("out"), "--work-dir", dir_.file("work")},
                          {{"VR_FAULT_READ_PATH", sample_}, {"VR_FAULT_EIO", "200000:512"}});
    EXPECT_EQ(run.exitCode, kMissingFile);
    EXPECT_NE(run.output.find("sample " + sample_ + ": cannot be read: Input/output error"), std::string::npos)
        << run.output;
}

}  // namespace
