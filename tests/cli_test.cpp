// The `videorepair` program, run as a user runs it: exit codes, messages, the
// JSON lines, a thorough repair and a remux end to end, and Ctrl-C.
#include <gtest/gtest.h>

#include <Poco/Environment.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "cli/CliProcess.h"
#include "support/RepairHarness.h"
#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;
using namespace cli_testing;

Poco::JSON::Object::Ptr FirstFile(const std::string& out) {
    std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(out);
    return lines.empty() ? Poco::JSON::Object::Ptr() : lines.front();
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
Launch CopiedProgram(const TempDir& dir) {
    fs::copy_file(Program(), dir.file("videorepair"));
    fs::permissions(dir.file("videorepair"), fs::perms::owner_all, fs::perm_options::add);
    Launch launch;
    launch.program = dir.file("videorepair");
    return launch;
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
    for (const char* line : {"  0  ", "  1  ", "  2  bad command line", "  3  unsupported or refused", "  4  ",
                             "  5  ffmpeg", "  6  ", "  7  cancelled", "  8  ", "  9  a result was written but",
                             " 10  a result already exists", "130  "}) {
        EXPECT_NE(codes.find(line), std::string::npos) << "missing exit code line " << line;
    }
    CliRun version = RunCli({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("videorepair ", 0), 0u) << version.out;
    EXPECT_NE(version.out.find("\nlib_videorepair "), std::string::npos) << version.out;
    EXPECT_NE(version.out.find("\nFFmpeg "), std::string::npos) << version.out;
}

// Every case exits before any file is touched: a usage error (2), or the
// missing-file code (4) once the command line was understood.
TEST(CliUsage, CommandLinesAreUnderstoodOrRefusedWithAReason) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
        int code = kUsage;
    };
    const Case cases[] = {
        {{}, "no command given"},
        {{"frobnicate", "a.avi"}, "unknown command 'frobnicate'"},
        {{"repair", "a.avi", "--compatible"}, "repair --compatible needs a sample file"},
        {{"repair", "a.avi", "--compatible", "-s", "s.avi", "--full-check"}, "--full-check is for the thorough"},
        {{"remux", "a.mkv", "--full-check"}, "--compatible and --full-check are repair options"},
        {{"remux", "--bogus", "a.mkv"}, "unknown option '--bogus'"},
        {{"remux", "a.mkv", "-o"}, "--output: 1 required"},
        {{"remux"}, "remux needs at least one damaged file"},
        {{"remux", "a.mkv", "--sample", "s.mkv"}, "remux uses no sample"},
        {{"remux", "a.mkv", "--work-dir="}, "--work-dir: 1 required"},
        {{"remux", "-yn", "a.mkv"}, "-y and -n contradict each other"},
        {{"remux", "a.mkv", "--jobs", "0"}, "--jobs: Value 0 not in range"},
        {{"repair", "a.avi", "-s", "s.avi", "-s", "t.avi"}, "--sample: At Most 1"},
        {{"remux", "-x", "a.mkv"}, "unknown option '-x'"},
        // Understood: combined short flags, name=value, attached values, -- before a name like an option.
        {{"remux", "-yqv", "gone.mkv"}, "gone.mkv: damaged file not found", kMissingFile},
        {{"remux", "-nq", "-j2", "--work-dir=W", "gone.mkv"}, "gone.mkv: damaged file not found", kMissingFile},
        {{"repair", "-ogone_out.avi", "-q", "--", "-gone.avi"}, "-gone.avi: damaged file not found", kMissingFile},
        {{"remux", "gone.mkv", "--ffmpeg", "/nonexistent/ffmpeg"}, "--ffmpeg /nonexistent/ffmpeg: no such program",
         kFfmpegMissing},
    };
    for (const Case& c : cases) {
        CliRun run = RunCli(c.args);
        EXPECT_EQ(run.code, c.code) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(run.err.find("usage: videorepair") != std::string::npos, c.code == kUsage) << run.err;
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

    fs::create_directories(dir.file("notes"));
    WriteFile(dir.file("notes/readme.txt"), "no video here");
    CliRun directory = RunCli({"remux", dir.file("notes"), "--work-dir", dir.file("work")});
    EXPECT_EQ(directory.code, kMissingFile);
    EXPECT_NE(directory.err.find("nothing to repair: no video file"), std::string::npos) << directory.err;
}

// MP4-family files are refused by remux and the compatible repair; the thorough
// repair takes them, and fails on what is no movie.
TEST(CliFiles, RefusedAndUnknownExtensionsAreReportedAndLeftAlone) {
    TempDir dir("cli");
    const std::string bytes = "not really a movie";
    for (const std::string name : {"clip.mp4", "CLIP.MOV"}) {
        WriteFile(dir.file(name), bytes);
        WriteFile(dir.file("sample_" + name), bytes);
        const std::string sample = dir.file("sample_" + name);
        const struct {
            std::vector<std::string> args;
            int code;
        } cases[] = {{{"remux", dir.file(name)}, kUnsupported},
                     {{"repair", "--compatible", dir.file(name), "--sample", sample}, kUnsupported},
                     {{"repair", dir.file(name), "--sample", sample}, kRepairFailed}};
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
    CliRun ts = RunCli({"repair", "--compatible", dir.file("clip.ts"), "--sample", dir.file("sample_clip.mp4"),
                        "--work-dir", dir.file("work")});
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

// repair is thorough unless --compatible; the result goes where -o says, or
// beside the damaged file as NAME_repaired.EXT, and nothing else is left there
// or in the work directory.
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
        std::string repaired = c.output ? destination : dir.file("in/damaged clip_repaired.mkv");
        if (!c.json) {
            for (const char* line : {"  verdict   ", "  reason    ", "video frames      video audio packets",
                                     "  damaged   ", "  repaired  "}) {
                EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
            }
            EXPECT_NE(run.out.find("  written   " + destination), std::string::npos) << run.out;
        } else {
            ASSERT_EQ(JsonLines(run.out).size(), 1u) << run.out;
            Poco::JSON::Object::Ptr file = FirstFile(run.out);
            EXPECT_EQ(file->getValue<std::string>("status"), "repaired");
            EXPECT_EQ(file->getValue<std::string>("road"), c.road);
            EXPECT_EQ(file->getValue<std::string>("savedPath"), repaired);
            EXPECT_EQ(file->getValue<std::string>("repairedPath"), repaired);
            EXPECT_EQ(file->getArray("lostStreams")->size(), 0u);
            EXPECT_NEAR(file->getValue<int>("repairedFrames"), CountDecodedVideoFrames(repaired), 2);
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
        EXPECT_EQ(repair_harness::FilesIn(dir.file("in")), c.output ? 1u : 2u) << "what lies beside the damaged file";
        EXPECT_EQ(EntriesIn(dir.file("work")), 0u) << "intermediates left in the work directory";
        EXPECT_NE(FormatName(repaired).find("matroska"), std::string::npos);
        EXPECT_NEAR(CountDecodedVideoFrames(repaired), 45, 8);
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
    ASSERT_EQ(JsonLines(run.out).size(), 1u) << run.out;  // stdout holds nothing but the line
    Poco::JSON::Object::Ptr file = FirstFile(run.out);
    EXPECT_EQ(file->getValue<std::string>("command"), "remux");
    EXPECT_FALSE(file->getValue<std::string>("version").empty());
    EXPECT_EQ(file->getValue<std::string>("input"), damaged);
    EXPECT_EQ(file->getValue<std::string>("status"), "repaired");
    EXPECT_EQ(file->getValue<int>("exitCode"), 0);
    EXPECT_EQ(file->getValue<int>("libraryResult"), 0);
    EXPECT_TRUE(file->isNull("error"));
    EXPECT_EQ(file->getValue<std::string>("repairedPath"), dir.file("saved/clip.mkv"));
    EXPECT_EQ(file->getValue<std::string>("savedPath"), dir.file("saved/clip.mkv"));
    EXPECT_EQ(EntriesIn(dir.file("work")), 0u) << "the remux's intermediate is gone";

    Poco::JSON::Object::Ptr after = file->getObject("report")->getObject("repaired");
    ASSERT_TRUE(after);
    EXPECT_TRUE(after->getValue<bool>("opens"));
    int reportedFrames = file->getValue<int>("repairedFrames");
    EXPECT_EQ(after->getValue<int>("decodedFrames"), reportedFrames);
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
    EXPECT_NE(run.out.find("before   after  written"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("missing"), std::string::npos) << run.out;
    EXPECT_EQ(ReadFile(first), firstBytes);
    EXPECT_NEAR(CountDecodedVideoFrames(dir.file("a_repaired.mkv")), 37, 8);
    EXPECT_NEAR(CountDecodedVideoFrames(dir.file("a_repaired2.mkv")), 60, 8);
}

TEST(CliRemux, UnreadableMediaFailsWithTheLibrarysReason) {
    TempDir dir("cli");
    WriteFile(dir.file("noise.mkv"), std::string(20000, '\x5a'));
    CliRun run = RunCli({"remux", dir.file("noise.mkv"), "--json", "--work-dir", dir.file("work"), "--log-dir",
                         dir.file("logs")});
    EXPECT_EQ(run.code, kRepairFailed);
    EXPECT_NE(ReadFile(dir.file("logs/KzVideoRepair.log")).find("FfmpegRepair failed, ret:"), std::string::npos);
    EXPECT_NE(run.err.find("FfmpegRepair failed, ret:"), std::string::npos) << run.err;
    Poco::JSON::Object::Ptr file = FirstFile(run.out);
    EXPECT_EQ(file->getValue<std::string>("status"), "failed");
    EXPECT_TRUE(file->isNull("repairedPath"));
    EXPECT_NE(file->getValue<std::string>("error").find("ffmpeg:"), std::string::npos);
    EXPECT_NE(file->getValue<std::string>("advice").find("--sample"), std::string::npos);
}

TEST(CliRemux, WithoutFfmpegBesideTheProgramTheCodeSaysSo) {
    TempDir dir("cli");
    // The library looks for ffmpeg beside the running program, then on PATH: a copy
    // elsewhere, run with a PATH that holds no ffmpeg, has none.
    Launch program = CopiedProgram(dir);
    WriteFile(dir.file("clip.mkv"), "bytes");
    const std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", dir.path().c_str(), 1);
    CliProcess process({"remux", dir.file("clip.mkv"), "--work-dir", dir.file("work")}, program);
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(process.Wait(), kFfmpegMissing);
    EXPECT_NE(process.err.find("ffmpeg not found"), std::string::npos) << process.err;
    EXPECT_NE(process.out.find("--ffmpeg PATH"), std::string::npos) << process.out;
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
        Poco::JSON::Object::Ptr file = FirstFile(process.out);
        ASSERT_TRUE(file) << process.err;
        EXPECT_EQ(file->getValue<std::string>("status"), code == kCancelled ? "cancelled" : "repaired");
        std::string repaired = file->getValue<std::string>("repairedPath");
        EXPECT_EQ(FormatName(repaired), "avi") << repaired;
        if (code == 0 || std::string(road) == "thorough") {
            EXPECT_GT(CountDecodedVideoFrames(repaired), 0) << repaired;
        }
        EXPECT_TRUE(input.Unchanged());
        EXPECT_EQ(EntriesIn(dir.file("work")), 0u);
    }
}

TEST(CliSignals, CtrlCOnceCancelsYetKeepsAndSavesTheResult) {
    TempDir dir("cli");
    Launch program = CopiedProgram(dir);
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
    std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(process.out);
    ASSERT_EQ(lines.size(), 2u) << process.out;
    // The skipped file is known at once; the cancelled one when its worker ends.
    Poco::JSON::Object::Ptr first = lines[0], second = lines[1];
    if (first->getValue<std::string>("status") == "skipped") std::swap(first, second);
    EXPECT_EQ(first->getValue<std::string>("status"), "cancelled");
    EXPECT_EQ(first->getValue<std::string>("savedPath"), dir.file("out/clip.mkv"));
    EXPECT_EQ(ReadFile(dir.file("out/clip.mkv")), "what ffmpeg found");
    EXPECT_EQ(second->getValue<std::string>("status"), "skipped");
    EXPECT_EQ(second->getValue<std::string>("input"), dir.file("later.mkv"));
    EXPECT_EQ(ReadFile(dir.file("clip.mkv")), "what ffmpeg found");
    EXPECT_EQ(EntriesIn(dir.file("work")), 0u);
}

TEST(CliSignals, SecondCtrlCQuitsAtOnceAndLeavesNoIntermediates) {
    TempDir dir("cli");
    Launch program = CopiedProgram(dir);
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
    EXPECT_EQ(EntriesIn(dir.file("work")), 0u);
}

// A run killed outright (SIGKILL, a crash) cannot clean up: the next run on the
// machine removes what it left, and never another live run's folder.
TEST(CliSignals, TheNextRunRemovesWhatAKilledRunLeft) {
    TempDir dir("cli");
    std::string host = Poco::Environment::nodeName();
    std::string gone = dir.file("work/run-" + host + "-2147483646-1");
    std::string alive = dir.file("work/run-" + host + "-" + std::to_string(getpid()) + "-1");
    std::string elsewhere = dir.file("work/run-other-machine-2147483646-1");
    for (const std::string& run : {gone, alive, elsewhere}) {
        fs::create_directories(run);
        WriteFile(run + "/intermediate.avi", "bytes");
    }
    WriteFile(dir.file("clip.mkv"), "bytes");
    RunCli({"remux", dir.file("clip.mkv"), "--work-dir", dir.file("work")});
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_TRUE(fs::exists(alive));
    EXPECT_TRUE(fs::exists(elsewhere));
}
