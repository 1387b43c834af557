// The `videorepair` program on what users bring: folders and globs with the
// sample and earlier results among the files, camera names in upper case, names
// that are not UTF-8, read-only cards, results that already exist, results that
// do not play, every container in one batch, and Ctrl-C from a terminal while
// ffmpeg works for the library.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "cli/CliProcess.h"
#include "support/EngineClips.h"
#include "support/RepairHarness.h"
#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;
using namespace cli_testing;

std::string ClipWithAudio(const std::string& name, int seconds, const std::vector<std::string>& codecs) {
    std::vector<std::string> args = {
        "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=" + std::to_string(seconds),
        "-f", "lavfi", "-i", "sine=duration=" + std::to_string(seconds)};
    args.insert(args.end(), codecs.begin(), codecs.end());
    return GeneratedMedia(name, args);
}

std::string ShortMkv() {
    return ClipWithAudio("cli_batch.mkv", 2, {"-c:v", "mpeg4", "-q:v", "5", "-c:a", "pcm_s16le"});
}

std::string Status(const Poco::JSON::Object::Ptr& line) { return line->getValue<std::string>("status"); }

std::set<std::string> Names(const std::vector<Poco::JSON::Object::Ptr>& lines) {
    std::set<std::string> names;
    for (const auto& line : lines) names.insert(fs::path(line->getValue<std::string>("input")).filename().string());
    return names;
}

}  // namespace

// Every engine's clip, truncated and named with an upper-case extension as
// cameras name files, in one folder: one JSON line per file as each finishes,
// and each result decodes as many frames as its line says.
TEST(CliBatch, EveryContainerInAFolderGivesOneJsonLinePerFile) {
    TempDir dir("cli");
    fs::create_directories(dir.file("card"));
    std::set<std::string> expected;
    for (const repair_harness::EngineClip& clip : repair_harness::AllEngineClips()) {
        std::string source = repair_harness::MakeEngineClip(clip, false);
        ASSERT_FALSE(source.empty()) << clip.engine;
        std::string extension = clip.extension;
        for (char& c : extension) c = char(std::toupper(static_cast<unsigned char>(c)));
        std::string name = "CLIP_" + clip.engine + "." + extension;
        Truncated(source, 0.8, dir.file("card/" + name));
        expected.insert(name);
    }
    CliRun run = RunCli({"repair", dir.file("card"), "--json", "-j2", "--work-dir", dir.file("work")});
    EXPECT_EQ(run.code, 0) << run.err;
    std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(run.out);
    EXPECT_EQ(Names(lines), expected) << run.out;
    for (const auto& line : lines) {
        std::string input = line->getValue<std::string>("input");
        SCOPED_TRACE(input);
        EXPECT_EQ(Status(line), "repaired") << line->getValue<std::string>("error");
        std::string result = line->getValue<std::string>("savedPath");
        EXPECT_EQ(fs::path(result).parent_path(), dir.file("card"));
        EXPECT_NE(result.find("_repaired."), std::string::npos);
        EXPECT_NEAR(line->getValue<int>("repairedFrames"), CountDecodedVideoFrames(result), 2);
        EXPECT_GT(line->getValue<int>("repairedFrames"), 0);
    }
    EXPECT_EQ(EntriesIn(dir.file("work")), 0u);
}

// The compatible road's engines pick by exact lower-case extension; the tool
// shows them a lower-case view, so camera names work there too.
TEST(CliBatch, UpperCaseCameraNamesOnTheCompatibleRoad) {
    for (const repair_harness::EngineClip& clip : repair_harness::AllEngineClips()) {
        if (clip.engine != "Avi" && clip.engine != "Mts") continue;
        SCOPED_TRACE(clip.engine);
        TempDir dir("cli");
        std::string name = clip.engine == "Avi" ? "MVI_0001.AVI" : "00000.MTS";
        std::string damaged = Truncated(repair_harness::MakeEngineClip(clip, false), 0.8, dir.file(name));
        std::string sample = repair_harness::MakeEngineClip(clip, true);
        CliRun run =
            RunCli({"repair", "--compatible", damaged, "-s", sample, "--json", "--work-dir", dir.file("work")});
        EXPECT_EQ(run.code, 0) << run.err;
        Poco::JSON::Object::Ptr line = JsonLines(run.out).at(0);
        EXPECT_EQ(Status(line), "repaired");
        EXPECT_EQ(line->getValue<std::string>("savedPath"), dir.file(fs::path(name).stem().string() + "_repaired" +
                                                                     fs::path(name).extension().string()));
        EXPECT_GT(CountDecodedVideoFrames(line->getValue<std::string>("savedPath")), 0);
        EXPECT_EQ(repair_harness::FilesIn(dir.path()), 2u) << "the damaged file and its result, nothing else";
    }
}

// A folder or a glob that holds the sample and earlier results: neither is
// repaired; a rerun with -n skips what is done; names may be any bytes.
TEST(CliBatch, FolderInputSkipsTheSampleAndEarlierResults) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    TempDir dir("cli");
    fs::create_directories(dir.file("card/sub"));
    Truncated(source, 0.7, dir.file("card/a.mkv"));
    Truncated(source, 0.5, dir.file("card/a_repaired.mkv"));  // an earlier run's
    fs::copy_file(source, dir.file("card/sample.mkv"));
    Truncated(source, 0.7, dir.file("card/sub/B.MKV"));
    std::string odd = dir.file("card/c\xff\xfe.mkv");  // not UTF-8
    Truncated(source, 0.7, odd);
    WriteFile(dir.file("card/notes.txt"), "not a video");

    CliRun first = RunCli({"repair", dir.file("card"), "-s", dir.file("card/sample.mkv"), "-n", "--json", "--work-dir",
                           dir.file("work")});
    EXPECT_EQ(first.code, 0) << first.err;
    EXPECT_NE(first.err.find("sample.mkv: the sample"), std::string::npos) << first.err;
    EXPECT_NE(first.err.find("a_repaired.mkv: an earlier result"), std::string::npos) << first.err;
    std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(first.out);
    ASSERT_EQ(lines.size(), 3u) << first.out;
    for (const auto& line : lines) {
        std::string input = line->getValue<std::string>("input");
        EXPECT_EQ(Status(line), input.find("a.mkv") != std::string::npos ? "skipped" : "repaired") << input;
    }
    EXPECT_GT(CountDecodedVideoFrames(dir.file("card/sub/B_repaired.MKV")), 0);
    EXPECT_GT(CountDecodedVideoFrames(dir.file("card/c\xff\xfe_repaired.mkv")), 0);

    // A rerun finds its own results and skips every file.
    CliRun again = RunCli({"repair", dir.file("card"), "-s", dir.file("card/sample.mkv"), "-n", "--json", "--work-dir",
                           dir.file("work")});
    EXPECT_EQ(again.code, 0) << again.err;
    lines = JsonLines(again.out);
    EXPECT_EQ(lines.size(), 3u) << again.out;
    for (const auto& line : lines) EXPECT_EQ(Status(line), "skipped");

    // A glob includes the sample: it is not repaired against itself.
    CliRun glob = RunCli({"repair", dir.file("card/sample.mkv"), dir.file("card/sub/B.MKV"), "-s",
                          dir.file("card/sample.mkv"), "-y", "--json", "--work-dir", dir.file("work")});
    EXPECT_EQ(glob.code, 0) << glob.err;
    EXPECT_EQ(Names(JsonLines(glob.out)), std::set<std::string>{"B.MKV"});
    EXPECT_FALSE(fs::exists(dir.file("card/sample_repaired.mkv")));
}

// An existing result is never replaced without -y: on no terminal the tool
// refuses (exit 10), with -n it skips quietly (exit 0).
TEST(CliFiles, AnExistingResultIsNeverReplacedSilently) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    const struct {
        std::vector<std::string> flags;
        int code;
        const char* status;
        bool replaced;
    } cases[] = {
        {{}, kOutputExists, "exists", false},
        {{"-n"}, 0, "skipped", false},
        {{"-y"}, 0, "repaired", true},
        {{"-qy"}, 0, "repaired", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        TempDir dir("cli");
        std::string damaged = Truncated(source, 0.7, dir.file("clip.mkv"));
        WriteFile(dir.file("clip_repaired.mkv"), "an earlier result");
        std::vector<std::string> args = {"repair", damaged, "--json", "--work-dir", dir.file("work")};
        args.insert(args.end(), c.flags.begin(), c.flags.end());
        CliRun run = RunCli(args);
        EXPECT_EQ(run.code, c.code) << run.err;
        EXPECT_EQ(Status(JsonLines(run.out).at(0)), c.status);
        EXPECT_EQ(ReadFile(dir.file("clip_repaired.mkv")) != "an earlier result", c.replaced);
    }
}

// A card mounted read-only: the result goes to the current directory, and the
// tool says so. Root writes anywhere, so as root the tool runs as nobody.
TEST(CliFiles, ReadOnlyInputFolderPutsTheResultInTheCurrentDirectory) {
    std::string source = ShortMkv();
    ASSERT_FALSE(source.empty());
    TempDir dir("cli");
    fs::create_directories(dir.file("card"));
    fs::create_directories(dir.file("here"));
    fs::create_directories(dir.file("work"));
    std::string damaged = Truncated(source, 0.7, dir.file("card/clip.mkv"));
    Launch launch;
    launch.cwd = dir.file("here");
    if (geteuid() == 0) {
        if (RunProgram({"setpriv", "--version"}) != 0) GTEST_SKIP() << "running as root without setpriv";
        launch.wrapper = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
        for (const char* open : {"here", "work"}) fs::permissions(dir.file(open), fs::perms::all);
    }
    fs::permissions(dir.file("card"), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    CliRun run = RunCli({"repair", damaged, "--json", "--work-dir", dir.file("work")}, launch);
    fs::permissions(dir.file("card"), fs::perms::owner_write, fs::perm_options::add);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.err.find("is read-only: the result goes to the current directory"), std::string::npos) << run.err;
    Poco::JSON::Object::Ptr line = JsonLines(run.out).at(0);
    EXPECT_EQ(line->getValue<std::string>("savedPath"), dir.file("here/clip_repaired.mkv"));
    EXPECT_FALSE(line->isNull("note"));
    EXPECT_GT(CountDecodedVideoFrames(dir.file("here/clip_repaired.mkv")), 0);
    EXPECT_EQ(repair_harness::FilesIn(dir.file("card")), 1u);
}

// A result that holds no video, or no result at all, is not "repaired": the
// exit code says so and the message says what to do next.
TEST(CliRepair, ResultsWithoutVideoExitNonZeroAndSayWhatToDo) {
    std::string audio =
        GeneratedMedia("cli_audio_only.mkv", {"-f", "lavfi", "-i", "sine=duration=2", "-c:a", "pcm_s16le"});
    std::string source = ShortMkv();
    ASSERT_FALSE(audio.empty() || source.empty());
    TempDir dir("cli");
    std::string headless = dir.file("headless.mkv");
    std::string bytes = ReadFile(source);
    WriteFile(headless, std::string(8192, '\0') + bytes.substr(8192));
    const struct {
        std::vector<std::string> args;
        int code;
        const char* status;
        const char* advice;
    } cases[] = {
        {{"remux", audio}, kUnplayable, "unplayable", "try videorepair repair"},
        {{"repair", headless},
         kRepairFailed,
         "failed",
         "the header is gone: repair with --sample from the same camera"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"-o", dir.file("out/result.mkv"), "-y", "--work-dir", dir.file("work")});
        std::vector<std::string> verbose = args;
        verbose.push_back("-v");  // the library's log lines, of this run only, on standard error
        CliRun human = RunCli(verbose);
        EXPECT_EQ(human.code, c.code) << human.err;
        EXPECT_NE(human.err.find("[INFO] "), std::string::npos) << human.err;
        EXPECT_NE(human.out.find("  next      "), std::string::npos) << human.out;
        EXPECT_NE(human.out.find(c.advice), std::string::npos) << human.out;
        args.push_back("--json");
        CliRun json = RunCli(args);
        Poco::JSON::Object::Ptr line = JsonLines(json.out).at(0);
        EXPECT_EQ(Status(line), c.status);
        EXPECT_EQ(line->getValue<int>("exitCode"), c.code);
    }
}

// Ctrl-C from a terminal reaches the whole foreground process group. ffmpeg,
// which the WMV and MPEG engines run on the compatible road, must not die of
// it: the repair still ends with a playable file and an empty work directory.
TEST(CliSignals, CtrlCToTheProcessGroupWhileFfmpegRunsStillGivesAPlayableResult) {
    // The signal comes while ffmpeg writes the result: the WMV engine's first
    // call, the MPEG engine's third (the first two take the sample apart, and an
    // engine cancelled before its scan has nothing to write).
    const struct {
        const char* extension;
        std::vector<std::string> codecs;
        int call;
    } cases[] = {
        {"wmv", {"-c:v", "wmv2", "-c:a", "wmav2"}, 1},
        {"mpg", {"-c:v", "mpeg2video", "-c:a", "mp2", "-f", "mpeg"}, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extension);
        std::string sample = ClipWithAudio(std::string("cli_group_sample.") + c.extension, 2, c.codecs);
        std::string source = ClipWithAudio(std::string("cli_group_clip.") + c.extension, 6, c.codecs);
        ASSERT_FALSE(sample.empty() || source.empty());
        TempDir dir("cli");
        Launch launch;
        launch.program = dir.file("videorepair");
        launch.ownGroup = true;
        fs::copy_file(Program(), launch.program);
        // The library runs the ffmpeg beside the program: one that counts its
        // calls and takes a second before the real one runs.
        fs::create_directories(dir.file("calls"));
        WriteFile(dir.file("ffmpeg"), "#!/bin/sh\nn=$(ls '" + dir.file("calls") + "' | wc -l)\ntouch '" +
                                          dir.file("calls") + "/'$((n + 1))\nsleep 1\nexec '" + BinDir() +
                                          "/ffmpeg' \"$@\"\n");
        fs::permissions(dir.file("ffmpeg"), fs::perms::owner_all, fs::perm_options::add);
        std::string damaged = Truncated(source, 0.8, dir.file(std::string("clip.") + c.extension));
        CliProcess process({"repair", "--compatible", damaged, "-s", sample, "--json", "--work-dir", dir.file("work")},
                           launch);
        ASSERT_TRUE(process.WaitForFile(dir.file("calls/" + std::to_string(c.call)))) << process.err;
        process.SignalGroup(SIGINT);
        int code = process.Wait();
        EXPECT_TRUE(code == 0 || code == kCancelled) << code << process.err;
        std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(process.out);
        ASSERT_EQ(lines.size(), 1u) << process.err;
        ASSERT_FALSE(lines[0]->isNull("savedPath")) << process.out << process.err;
        std::string result = lines[0]->getValue<std::string>("savedPath");
        EXPECT_GT(CountDecodedVideoFrames(result), 0) << Status(lines[0]) << " " << process.err;
        EXPECT_EQ(EntriesIn(dir.file("work")), 0u);
    }
}

// The MPEG engine writes beside its sample; it gets a view in the work
// directory, so a sample named like an option, in a folder, is left alone.
TEST(CliBatch, ASampleNamedLikeAnOptionLeavesItsFolderAlone) {
    for (const repair_harness::EngineClip& clip : repair_harness::AllEngineClips()) {
        if (clip.engine != "Mpeg") continue;
        TempDir dir("cli");
        Truncated(repair_harness::MakeEngineClip(clip, false), 0.8, dir.file("clip.mpg"));
        fs::copy_file(repair_harness::MakeEngineClip(clip, true), dir.file("-s2.mpg"));
        Launch launch;
        launch.cwd = dir.path();
        CliRun run = RunCli({"repair", "--compatible", "--sample=-s2.mpg", "--json", "--work-dir", dir.file("work"),
                             "--", "clip.mpg"},
                            launch);
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_GT(CountDecodedVideoFrames(dir.file("clip_repaired.mpg")), 0);
        EXPECT_EQ(repair_harness::FilesIn(dir.path()), 3u) << "the damaged file, the sample and the result";
    }
}
