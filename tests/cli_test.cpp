// The `videorepair` program, run as a user runs it: exit codes, messages, the
// JSON object, a thorough repair and a remux end to end, and Ctrl-C during an
// engine repair.
#include <gtest/gtest.h>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/RepairHarness.h"
#include "support/TestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

constexpr int kRepairFailed = 1;
constexpr int kUsage = 2;
constexpr int kUnsupported = 3;
constexpr int kMissingFile = 4;
constexpr int kFfmpegMissing = 5;
constexpr int kCancelled = 7;

std::string Program() { return BinDir() + "/videorepair"; }

// The program as a child with its stdout and stderr captured apart, so that
// a test can wait for a line on stderr and send it a signal.
class CliProcess {
public:
    explicit CliProcess(const std::vector<std::string>& args, const std::string& program = Program()) {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> raw;
        for (auto& a : argv) raw.push_back(const_cast<char*>(a.c_str()));
        raw.push_back(nullptr);
        int outPipe[2], errPipe[2];
        if (pipe(outPipe) != 0 || pipe(errPipe) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) posix_spawn_file_actions_addclose(&actions, fd);
        if (posix_spawn(&pid_, raw[0], &actions, nullptr, raw.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(outPipe[1]);
        close(errPipe[1]);
        outFd_ = outPipe[0];
        errFd_ = errPipe[0];
    }

    ~CliProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
    }

    // Reads output until stderr holds text or both pipes are closed.
    bool WaitForStderr(const std::string& text) {
        while (err.find(text) == std::string::npos) {
            if (!ReadSome()) return false;
        }
        return true;
    }

    void Signal(int signalNumber) {
        if (pid_ > 0) kill(pid_, signalNumber);
    }

    // Exit code, or 128 + signal.
    int Wait() {
        while (ReadSome()) {
        }
        if (pid_ <= 0) return -1;
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string out;
    std::string err;

private:
    bool ReadSome() {
        std::vector<pollfd> fds;
        for (int fd : {outFd_, errFd_}) {
            if (fd >= 0) fds.push_back({fd, POLLIN, 0});
        }
        if (fds.empty()) return false;
        if (poll(fds.data(), nfds_t(fds.size()), -1) < 0) return false;
        for (const pollfd& p : fds) {
            if ((p.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buffer[4096];
            ssize_t n = read(p.fd, buffer, sizeof buffer);
            int& fd = p.fd == outFd_ ? outFd_ : errFd_;
            std::string& sink = p.fd == outFd_ ? out : err;
            if (n > 0) {
                sink.append(buffer, size_t(n));
            } else {
                close(fd);
                fd = -1;
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
};

struct CliRun {
    int code;
    std::string out;
    std::string err;
};

CliRun RunCli(const std::vector<std::string>& args) {
    CliProcess process(args);
    int code = process.Wait();
    return {code, process.out, process.err};
}

Poco::JSON::Object::Ptr ParseJson(const std::string& text) {
    Poco::JSON::Parser parser;
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

Poco::JSON::Object::Ptr FirstFile(const Poco::JSON::Object::Ptr& run) {
    return run->getArray("files")->getObject(0);
}

std::string Truncated(const std::string& source, double keep, const std::string& target) {
    std::string bytes = ReadFile(source);
    WriteFile(target, bytes.substr(0, size_t(double(bytes.size()) * keep)));
    return target;
}

std::string ShortMkv() {
    return GeneratedMedia("cli_clip.mkv", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=3", "-f",
                                           "lavfi", "-i", "sine=duration=3", "-c:v", "mpeg4", "-q:v", "5", "-c:a",
                                           "pcm_s16le"});
}

// The demuxer ffprobe picks for a file, empty when it does not open.
std::string FormatName(const std::string& path) {
    std::string out;
    if (RunProgram({VR_TEST_FFPROBE, "-v", "error", "-show_entries", "format=format_name", "-of", "csv=p=0", path},
                   &out) != 0) {
        return std::string();
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

// A copy of the program in dir: the library then looks for ffmpeg in dir.
std::string CopiedProgram(const TempDir& dir) {
    fs::copy_file(Program(), dir.file("videorepair"));
    fs::permissions(dir.file("videorepair"), fs::perms::owner_all, fs::perm_options::add);
    return dir.file("videorepair");
}

// An "ffmpeg" beside the copied program that takes its time. The library calls
// it as: -y -i INPUT -codec copy OUTPUT.
void SlowFfmpeg(const TempDir& dir, const std::string& seconds) {
    WriteFile(dir.file("ffmpeg"), "#!/bin/sh\nsleep " + seconds + "\ncp \"$3\" \"$6\"\n");
    fs::permissions(dir.file("ffmpeg"), fs::perms::owner_all, fs::perm_options::add);
}

}  // namespace

TEST(CliUsage, HelpListsEveryExitCodeAndVersionAnswers) {
    CliRun help = RunCli({"--help"});
    ASSERT_EQ(help.code, 0);
    size_t section = help.out.find("Exit codes:");
    ASSERT_NE(section, std::string::npos) << help.out;
    std::string codes = help.out.substr(section);
    for (const char* line : {"  0  ", "  1  ", "  2  bad command line", "  3  unsupported or refused",
                             "  4  ", "  5  ffmpeg", "  6  ", "  7  cancelled", "  8  ", "130  "}) {
        EXPECT_NE(codes.find(line), std::string::npos) << "missing exit code line " << line;
    }
    CliRun version = RunCli({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("videorepair ", 0), 0u) << version.out;
}

TEST(CliUsage, BadArgumentsGiveTheUsageCodeAndSayWhy) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {{}, "no command given"},
        {{"frobnicate", "a.avi"}, "unknown command 'frobnicate'"},
        {{"repair", "a.avi", "--compatible"}, "repair --compatible needs a sample file"},
        {{"repair", "a.avi", "--compatible", "-s", "s.avi", "--full-check"}, "--full-check is for the thorough"},
        {{"remux", "a.mkv", "--full-check"}, "--compatible and --full-check are repair options"},
        {{"remux", "--bogus", "a.mkv"}, "unknown option '--bogus'"},
        {{"remux", "a.mkv", "-o"}, "option -o needs a value"},
        {{"remux"}, "remux needs at least one damaged file"},
        {{"remux", "a.mkv", "--sample", "s.mkv"}, "remux uses no sample"},
        {{"remux", "a.mkv", "--work-dir="}, "needs a non-empty value"},
    };
    for (const Case& c : cases) {
        CliRun run = RunCli(c.args);
        EXPECT_EQ(run.code, kUsage) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("usage: videorepair"), std::string::npos) << run.err;
        EXPECT_TRUE(run.out.empty()) << run.out;
    }
}

TEST(CliFiles, MissingDamagedFileOrSampleIsNamed) {
    TempDir dir("cli");
    WriteFile(dir.file("sample.avi"), "RIFF");
    CliRun noInput = RunCli({"remux", dir.file("gone.mkv"), "--work-dir", dir.file("work")});
    EXPECT_EQ(noInput.code, kMissingFile);
    EXPECT_NE(noInput.err.find(dir.file("gone.mkv") + ": damaged file not found"), std::string::npos) << noInput.err;

    CliRun noSample = RunCli({"repair", dir.file("sample.avi"), "--sample", dir.file("nosample.avi"), "--work-dir",
                           dir.file("work")});
    EXPECT_EQ(noSample.code, kMissingFile);
    EXPECT_NE(noSample.err.find("sample " + dir.file("nosample.avi") + ": not found"), std::string::npos)
        << noSample.err;

    CliRun directory = RunCli({"remux", dir.path(), "--work-dir", dir.file("work")});
    EXPECT_EQ(directory.code, kMissingFile);
    EXPECT_NE(directory.err.find("not a regular file"), std::string::npos) << directory.err;
}

// MP4-family files are refused by remux and the compatible repair; the thorough
// repair takes them, and fails on what is no movie.
TEST(CliFiles, RefusedAndUnknownExtensionsAreReportedAndLeftAlone) {
    TempDir dir("cli");
    const std::string bytes = "not really a movie";
    for (const std::string name : {"clip.mp4", "CLIP.MOV"}) {
        WriteFile(dir.file(name), bytes);
        const struct {
            std::vector<std::string> args;
            int code;
        } cases[] = {{{"remux", dir.file(name)}, kUnsupported},
                     {{"repair", "--compatible", dir.file(name), "--sample", dir.file(name)}, kUnsupported},
                     {{"repair", dir.file(name), "--sample", dir.file(name)}, kRepairFailed}};
        for (const auto& c : cases) {
            std::vector<std::string> full = c.args;
            full.insert(full.end(), {"--work-dir", dir.file("work")});
            CliRun run = RunCli(full);
            EXPECT_EQ(run.code, c.code) << name << " " << c.args[0];
            EXPECT_EQ(run.err.find(dir.file(name) + ": refused") != std::string::npos, c.code == kUnsupported)
                << run.err;
        }
        EXPECT_EQ(ReadFile(dir.file(name)), bytes);
    }
    WriteFile(dir.file("clip.ts"), bytes);
    CliRun ts = RunCli({"repair", dir.file("clip.ts"), "--sample", dir.file("clip.ts"), "--work-dir", dir.file("work")});
    EXPECT_EQ(ts.code, kUnsupported);
    EXPECT_NE(ts.err.find("no repair engine for '.ts' files"), std::string::npos) << ts.err;
}

TEST(CliFiles, OutputOntoTheDamagedFileIsRefusedBeforeAnythingRuns) {
    TempDir dir("cli");
    WriteFile(dir.file("clip.mkv"), "damaged bytes");
    CliRun run = RunCli({"remux", dir.file("clip.mkv"), "-o", dir.file("clip.mkv"), "--work-dir", dir.file("work")});
    EXPECT_EQ(run.code, kUsage);
    EXPECT_NE(run.err.find("never overwritten"), std::string::npos) << run.err;
    CliRun sample = RunCli({"repair", dir.file("clip.mkv"), "--sample", dir.file("clip.mkv"), "-o", dir.file("clip.mkv"),
                         "--work-dir", dir.file("work")});
    EXPECT_EQ(sample.code, kUsage);
    EXPECT_EQ(ReadFile(dir.file("clip.mkv")), "damaged bytes");
}

// repair is thorough unless --compatible; with -o the library writes the result
// there and nothing is left beside the damaged file.
TEST(CliRepair, ThoroughByDefaultReportsTheJudgeAndWritesWhereAsked) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    struct Case {
        const char* name;
        std::vector<std::string> args;  // "OUT" stands for the -o destination
        bool json;
        const char* road;
        bool output;
    };
    const Case cases[] = {
        {"no sample, beside the input", {"--json"}, true, "thorough", false},
        {"sample, -o file, full check", {"-s", source, "-o", "OUT", "--full-check", "--json"}, true, "thorough", true},
        {"human report", {"-o", "OUT"}, false, "thorough", true},
        {"compatible", {"--compatible", "-s", source, "-o", "OUT", "--json"}, true, "compatible", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir("cli");
        fs::create_directories(dir.file("in"));
        std::string damaged = Truncated(source, 0.6, dir.file("in/damaged clip.mkv"));
        const repair_harness::InputGuard input(damaged);
        std::string destination = dir.file("out/fixed.mkv");
        std::vector<std::string> args = {"repair", damaged, "--work-dir", dir.file("work")};
        for (const std::string& a : c.args) args.push_back(a == "OUT" ? destination : a);
        CliRun run = RunCli(args);
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_TRUE(input.Unchanged());
        std::string repaired = destination;
        if (!c.json) {
            for (const char* line : {"  verdict   ", "  reason    ", "video frames      video audio packets",
                                     "  damaged   ", "  repaired  "}) {
                EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
            }
            EXPECT_EQ(run.out.find("saved as"), std::string::npos) << "written in place, not copied\n" << run.out;
        } else {
            Poco::JSON::Object::Ptr json = ParseJson(run.out);
            EXPECT_EQ(json->getValue<std::string>("road"), c.road);
            Poco::JSON::Object::Ptr file = FirstFile(json);
            EXPECT_EQ(file->getValue<std::string>("status"), "repaired");
            EXPECT_EQ(file->getValue<std::string>("road"), c.road);
            repaired = file->getValue<std::string>("repairedPath");
            if (c.output) {
                EXPECT_EQ(file->getValue<std::string>("savedPath"), destination);
            }
            bool thorough = std::string(c.road) == "thorough";
            EXPECT_EQ(file->isNull("verdict"), !thorough);
            if (thorough) {
                std::string verdict = file->getValue<std::string>("verdict");
                EXPECT_TRUE(verdict == "rebuilt" || verdict == "remuxed" || verdict == "as is") << verdict;
                EXPECT_FALSE(file->getValue<std::string>("reason").empty());
                EXPECT_GE(file->getValue<double>("judgeSeconds"), 0.0);
                Poco::JSON::Object::Ptr before = file->getObject("damaged"), after = file->getObject("repaired");
                EXPECT_GT(after->getValue<double>("videoSeconds"), 1.0);
                EXPECT_GT(after->getValue<int>("audioPackets"), 0);
                EXPECT_GE(after->getValue<int>("videoFrames"), before->getValue<int>("videoFrames"));
                EXPECT_NEAR(CountDecodedVideoFrames(repaired), after->getValue<int>("videoFrames"), 2);
            }
        }
        if (std::string(c.road) == "thorough") {
            if (c.output) {
                EXPECT_EQ(repaired, destination);
            }
            EXPECT_EQ(repair_harness::FilesIn(dir.file("in")), c.output ? 1u : 2u) << "what lies beside the damaged file";
        }
        EXPECT_NE(FormatName(c.output ? destination : repaired).find("matroska"), std::string::npos);
        EXPECT_NEAR(CountDecodedVideoFrames(c.output ? destination : repaired), 45, 8);
    }
}

TEST(CliRemux, TruncatedMkvIsRemuxedSavedAndReportedInJson) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    TempDir dir("cli");
    std::string damaged = Truncated(source, 0.6, dir.file("damaged clip.mkv"));
    const repair_harness::InputGuard input(damaged);

    CliRun run = RunCli({"remux", damaged, "-o", dir.file("saved/clip.mkv"), "--json", "--work-dir", dir.file("work")});
    ASSERT_EQ(run.code, 0) << run.err;
    Poco::JSON::Object::Ptr json = ParseJson(run.out);  // stdout holds nothing but the object
    EXPECT_EQ(json->getValue<std::string>("command"), "remux");
    EXPECT_FALSE(json->getValue<std::string>("version").empty());
    EXPECT_EQ(json->getValue<int>("exitCode"), 0);
    EXPECT_FALSE(json->getValue<bool>("cancelled"));
    EXPECT_EQ(json->getValue<std::string>("logFile"), dir.file("work") + "/KzVideoRepair.log");
    Poco::JSON::Object::Ptr file = FirstFile(json);
    EXPECT_EQ(file->getValue<std::string>("input"), damaged);
    EXPECT_EQ(file->getValue<std::string>("status"), "repaired");
    EXPECT_EQ(file->getValue<int>("exitCode"), 0);
    EXPECT_EQ(file->getValue<int>("libraryResult"), 0);
    EXPECT_TRUE(file->isNull("error"));
    std::string repaired = file->getValue<std::string>("repairedPath");
    EXPECT_EQ(repaired.rfind(dir.file("work") + "/RepairedVideo/", 0), 0u) << repaired;
    EXPECT_EQ(fs::path(repaired).extension(), ".mkv");
    EXPECT_EQ(file->getValue<std::string>("savedPath"), dir.file("saved/clip.mkv"));

    Poco::JSON::Object::Ptr after = file->getObject("report")->getObject("repaired");
    ASSERT_TRUE(after);
    EXPECT_TRUE(after->getValue<bool>("opens"));
    int reportedFrames = after->getValue<int>("videoFrames");
    EXPECT_GT(after->getValue<double>("durationSeconds"), 1.0);
    EXPECT_EQ(after->getArray("streams")->size(), 2u);
    EXPECT_EQ(after->getArray("streams")->getObject(0)->getValue<std::string>("codec"), "mpeg4");

    // About 60% of 75 frames survive; the saved copy decodes as many as reported.
    int decoded = CountDecodedVideoFrames(dir.file("saved/clip.mkv"));
    EXPECT_NEAR(decoded, 45, 8);
    EXPECT_NEAR(reportedFrames, decoded, 1);
    EXPECT_TRUE(file->getObject("report")->getObject("damaged")->getValue<bool>("opens"));
    EXPECT_TRUE(input.Unchanged());
}

TEST(CliRemux, SeveralFilesIntoOneDirectoryEndWithASummaryTable) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    TempDir dir("cli");
    std::string first = Truncated(source, 0.5, dir.file("a.mkv"));
    fs::create_directories(dir.file("card"));
    std::string second = Truncated(source, 0.8, dir.file("card/a.mkv"));  // same name, other folder

    std::string firstBytes = ReadFile(first);

    // Into the folder that holds the first damaged file: it must survive.
    CliRun run = RunCli({"remux", first, second, dir.file("missing.mkv"), "-o", dir.path(), "--work-dir",
                         dir.file("work")});
    EXPECT_EQ(run.code, kMissingFile) << run.err;  // the first file that did not succeed
    EXPECT_NE(run.out.find("video frames"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("frames before"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("missing"), std::string::npos) << run.out;
    EXPECT_EQ(ReadFile(first), firstBytes);
    EXPECT_NEAR(CountDecodedVideoFrames(dir.file("a_repaired.mkv")), 37, 8);
    EXPECT_NEAR(CountDecodedVideoFrames(dir.file("a_repaired2.mkv")), 60, 8);
}

TEST(CliRemux, UnreadableMediaFailsWithTheLibrarysReason) {
    TempDir dir("cli");
    WriteFile(dir.file("noise.mkv"), std::string(20000, '\x5a'));
    CliRun run = RunCli({"remux", dir.file("noise.mkv"), "--json", "--work-dir", dir.file("work")});
    EXPECT_EQ(run.code, kRepairFailed);
    EXPECT_NE(run.err.find("FfmpegRepair failed, ret:"), std::string::npos) << run.err;
    Poco::JSON::Object::Ptr file = FirstFile(ParseJson(run.out));
    EXPECT_EQ(file->getValue<std::string>("status"), "failed");
    EXPECT_TRUE(file->isNull("repairedPath"));
    EXPECT_NE(file->getValue<std::string>("error").find("ffmpeg:"), std::string::npos);
}

TEST(CliRemux, WithoutFfmpegBesideTheProgramTheCodeSaysSo) {
    TempDir dir("cli");
    // The library looks for ffmpeg beside the running program, then on PATH: a copy
    // elsewhere, run with a PATH that holds no ffmpeg, has none.
    std::string program = CopiedProgram(dir);
    WriteFile(dir.file("clip.mkv"), "bytes");
    const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", dir.path().c_str(), 1);
    CliProcess process({"remux", dir.file("clip.mkv"), "--work-dir", dir.file("work")}, program);
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(process.Wait(), kFfmpegMissing);
    EXPECT_NE(process.err.find("ffmpeg not found beside the videorepair program"), std::string::npos) << process.err;
}

TEST(CliRepair, CtrlCDuringAnAviRepairStillLeavesARepairedFile) {
    std::string sample = GeneratedMedia("cli_sample.avi", {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=2",
                                                          "-f", "lavfi", "-i", "sine=duration=2", "-c:v", "mjpeg",
                                                          "-c:a", "pcm_s16le"});
    ASSERT_FALSE(sample.empty());
    std::string large = GeneratedMedia("cli_large.avi", {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25:duration=40",
                                                        "-f", "lavfi", "-i", "sine=duration=40", "-c:v", "mjpeg",
                                                        "-q:v", "2", "-c:a", "pcm_s16le"});
    ASSERT_FALSE(large.empty());
    // The thorough repair keeps a playable file with what it found; the compatible
    // engine still writes a whole AVI around it.
    for (const char* road : {"thorough", "compatible"}) {
        SCOPED_TRACE(road);
        TempDir dir("cli");
        std::string damaged = Truncated(large, 0.9, dir.file("large.avi"));
        const repair_harness::InputGuard input(damaged);
        std::vector<std::string> args = {"repair", damaged, "--sample", sample, "--json", "--work-dir", dir.file("work")};
        if (std::string(road) == "compatible") args.push_back("--compatible");
        CliProcess process(args);
        // The first progress line means the scan is under way.
        ASSERT_TRUE(process.WaitForStderr("% (")) << process.err;
        process.Signal(SIGINT);
        int code = process.Wait();
        // The signal may land after the engine finished; either way a result is there.
        EXPECT_TRUE(code == kCancelled || code == 0) << code << process.err;
        Poco::JSON::Object::Ptr file = FirstFile(ParseJson(process.out));
        EXPECT_EQ(file->getValue<std::string>("status"), code == kCancelled ? "cancelled" : "repaired");
        std::string repaired = file->getValue<std::string>("repairedPath");
        EXPECT_EQ(FormatName(repaired), "avi") << repaired;
        if (code == 0 || std::string(road) == "thorough") {
            EXPECT_GT(CountDecodedVideoFrames(repaired), 0) << repaired;
        }
        EXPECT_TRUE(input.Unchanged());
    }
}

TEST(CliSignals, CtrlCOnceCancelsYetKeepsAndSavesTheResult) {
    TempDir dir("cli");
    std::string program = CopiedProgram(dir);
    SlowFfmpeg(dir, "1");
    WriteFile(dir.file("clip.mkv"), "what ffmpeg found");
    WriteFile(dir.file("later.mkv"), "never reached");
    CliProcess process({"remux", dir.file("clip.mkv"), dir.file("later.mkv"), "-o", dir.file("out"), "--json",
                        "--work-dir", dir.file("work")},
                       program);
    ASSERT_TRUE(process.WaitForStderr("started")) << process.err;
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait(), kCancelled) << process.err;
    EXPECT_NE(process.err.find("Cancelling"), std::string::npos) << process.err;
    Poco::JSON::Object::Ptr json = ParseJson(process.out);
    EXPECT_TRUE(json->getValue<bool>("cancelled"));
    Poco::JSON::Object::Ptr first = FirstFile(json);
    EXPECT_EQ(first->getValue<std::string>("status"), "cancelled");
    EXPECT_EQ(ReadFile(first->getValue<std::string>("repairedPath")), "what ffmpeg found");
    EXPECT_EQ(ReadFile(dir.file("out/clip.mkv")), "what ffmpeg found");
    Poco::JSON::Object::Ptr second = json->getArray("files")->getObject(1);
    EXPECT_EQ(second->getValue<std::string>("status"), "skipped");
    EXPECT_EQ(ReadFile(dir.file("clip.mkv")), "what ffmpeg found");
}

TEST(CliSignals, SecondCtrlCQuitsAtOnce) {
    TempDir dir("cli");
    std::string program = CopiedProgram(dir);
    SlowFfmpeg(dir, "3");
    WriteFile(dir.file("clip.mkv"), "bytes");
    // With --json the progress lines go to stderr, where the test watches them.
    CliProcess process({"remux", dir.file("clip.mkv"), "--json", "--work-dir", dir.file("work")}, program);
    ASSERT_TRUE(process.WaitForStderr("started")) << process.err;
    process.Signal(SIGINT);
    ASSERT_TRUE(process.WaitForStderr("Ctrl-C again")) << process.out << process.err;
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait(), 130);
    EXPECT_NE(process.err.find("quitting at once"), std::string::npos) << process.err;
}
