// The ffmpeg-only repair and the child-process runner, with the real ffmpeg and
// with a stand-in child.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "FfmpegRunner.h"
#include "RepairLog.h"
#include "VideoRepairExport.h"
#include "IVideoRepairManager.h"
#include "support/RepairHarness.h"
#include "support/TestSupport.h"

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

std::string SourceClip() {
    return GeneratedMedia("remux_source.avi", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2",
                                               "-c:v", "mpeg4", "-q:v", "5"});
}

class FfmpegRepair : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(InitKzVideoRepairLib(&manager_), 0);
        ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("work").c_str()), 0);
    }
    void TearDown() override { manager_->Release(); }
    std::string Repaired(const std::string& video) {
        wchar_t path[4096];
        return manager_->GetRepairedFilePath(path, Wide(video).c_str()) == 0 ? Narrow(path) : std::string();
    }

    TempDir dir_;
    RecordingObserver observer_;
    IVideoRepairManager* manager_ = nullptr;
};

// Sets (or, with nullptr, removes) a variable and puts the old value back.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old, had_ = true;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }

private:
    const char* name_;
    std::string old_;
    bool had_ = false;
};

}  // namespace

TEST_F(FfmpegRepair, StreamCopiesIntoTheWorkFolderAndRecordsIt) {
    std::string source = SourceClip();
    ASSERT_FALSE(source.empty());
    std::string input = dir_.file("clip.avi");
    fs::copy_file(source, input);
    const repair_harness::InputGuard guard(input);
    ASSERT_EQ(manager_->FfmpegRepair(Wide(input).c_str()), 0);
    EXPECT_TRUE(guard.Unchanged());
    EXPECT_EQ(observer_.Events(), (std::vector<std::string>{"start", "p0:5", "p0:100", "finish"}));
    std::string first = Repaired(input);
    EXPECT_TRUE(std::regex_match(first, std::regex(".*/work/RepairedVideo/[0-9a-f-]{36}\\.avi"))) << first;
    EXPECT_EQ(CountDecodedVideoFrames(first), 50);
    ASSERT_EQ(manager_->FfmpegRepair(Wide(input).c_str()), 0);
    EXPECT_EQ(fs::directory_iterator(dir_.file("work/RepairedVideo"))->exists(), true);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.file("work/RepairedVideo")), fs::directory_iterator()), 2);
    EXPECT_EQ(Repaired(input), first);  // the first record wins
    std::string log = ReadFile(dir_.file("KzVideoRepair.log"));
    EXPECT_NE(log.find("[INFO] "), std::string::npos);
    EXPECT_NE(log.find("FfmpegRepair command: \"" + BinDir() + "/ffmpeg\" -y -i \"" + input + "\" -codec copy \""),
              std::string::npos);
    EXPECT_NE(log.find("FfmpegRepair stdout/stderr: "), std::string::npos);
}

TEST_F(FfmpegRepair, NamesWithBlanksAndShellCharactersAreNeverInterpreted) {
    std::string source = SourceClip();
    ASSERT_FALSE(source.empty());
    const std::string longDir(250, 'd');
    fs::create_directories(dir_.file("with blanks"));
    fs::create_directories(dir_.file(longDir));
    // A shell would create "pwned" in the working directory of the child, which is ours.
    for (std::string name : {std::string("with blanks/a clip.avi"), std::string("$(touch pwned).avi"),
                             std::string("a;touch pwned;.avi"), std::string("`touch pwned` 'q' \"d\".avi"),
                             std::string("\xC3\xA9\xC3\xBC \xD0\x96 \xE6\xBC\xA2.avi"),
                             longDir + "/" + std::string(246, 'n') + ".avi"}) {
        std::string input = dir_.file(name);
        fs::copy_file(source, input);
        const repair_harness::InputGuard guard(input);
        EXPECT_EQ(manager_->FfmpegRepair(Wide(input).c_str()), 0) << name;
        EXPECT_TRUE(guard.Unchanged()) << name;
        EXPECT_EQ(CountDecodedVideoFrames(Repaired(input)), 50) << name;
    }
    EXPECT_FALSE(fs::exists("pwned"));
}

TEST_F(FfmpegRepair, AFailingCopyReportsNinetyNineAndLeavesNoRecord) {
    std::string input = dir_.file("garbage.avi");
    WriteFile(input, std::string(4096, '\x17'));
    const repair_harness::InputGuard guard(input);
    EXPECT_EQ(manager_->FfmpegRepair(Wide(input).c_str()), -1);
    EXPECT_EQ(observer_.Events(), (std::vector<std::string>{"start", "p0:5", "p0:99", "finish"}));
    EXPECT_EQ(Repaired(input), "");
    EXPECT_TRUE(std::regex_search(ReadFile(dir_.file("KzVideoRepair.log")),
                                  std::regex(R"(\[ERROR\] .*FfmpegRepair failed, ret: [1-9]\d*\n)")));
    EXPECT_TRUE(guard.Unchanged());
}

TEST_F(FfmpegRepair, AWorkFolderThatCannotBeMadeFailsWithALine) {
    std::string input = dir_.file("clip.avi");
    fs::copy_file(SourceClip(), input);
    WriteFile(dir_.file("plain_file"), "x");  // a folder below a regular file cannot be made, whoever asks
    ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("plain_file/work").c_str()), 0);
    EXPECT_EQ(manager_->FfmpegRepair(Wide(input).c_str()), -1);
    EXPECT_NE(ReadFile(dir_.file("KzVideoRepair.log")).find("FfmpegRepair failed"), std::string::npos);
}

// A host in a folder without ffmpeg: the variable comes next, then PATH; a named
// path that is wrong is reported, not replaced by the one on PATH.
TEST(FfmpegLookup, BesideTheHostThenTheVariableThenPath) {
    TempDir dir;
    const std::string source = SourceClip();
    ASSERT_FALSE(source.empty());
    fs::copy_file(source, dir.file("clip.avi"));
    const std::string isolatedFfmpeg = fs::path(VR_TEST_ISOLATED_HOST).parent_path().string() + "/ffmpeg";
    const std::string withFfmpeg = dir.file("path_with_ffmpeg");
    const std::string withoutFfmpeg = dir.file("path_without_ffmpeg");
    fs::create_directories(withFfmpeg);
    fs::create_directories(withoutFfmpeg);
    fs::create_symlink(fs::canonical(BinDir() + "/ffmpeg"), withFfmpeg + "/ffmpeg");
    struct Case {
        const char* name;
        const char* variable;  // VIDEOREPAIR_FFMPEG, or nullptr for unset
        std::string path;
        std::string expectedLine;
        const char* expectedResult;
    };
    const std::string named = BinDir() + "/ffmpeg";
    const std::vector<Case> cases = {
        {"nowhere", nullptr, withoutFfmpeg, "FfmpegRepair failed, ffmpeg missing: " + isolatedFfmpeg, "rc=-1 events=start,finish,\n"},
        {"on PATH", nullptr, withoutFfmpeg + ":" + withFfmpeg, "FfmpegRepair command: \"" + withFfmpeg + "/ffmpeg\"", "rc=0 "},
        {"named", named.c_str(), withoutFfmpeg, "FfmpegRepair command: \"" + named + "\"", "rc=0 "},
        {"named wrong", "/nowhere/ffmpeg", withFfmpeg, "FfmpegRepair failed, ffmpeg missing: /nowhere/ffmpeg", "rc=-1 "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir logs;
        std::string out;
        {
            ScopedEnv variable("VIDEOREPAIR_FFMPEG", c.variable);
            ScopedEnv path("PATH", c.path.c_str());
            ASSERT_EQ(RunProgram({VR_TEST_ISOLATED_HOST, VR_TEST_LIBRARY_PATH, logs.path(), logs.file("work"),
                                  dir.file("clip.avi")},
                                 &out),
                      0);
        }
        EXPECT_EQ(out.rfind(c.expectedResult, 0), 0u) << out;
        EXPECT_NE(ReadFile(logs.file("KzVideoRepair.log")).find(c.expectedLine), std::string::npos);
    }
}

TEST(RunCommand, ExitCodesAndStartFailures) {
    ScopedEnv code("FAKE_CHILD_EXIT", "3");
    std::string output;
    EXPECT_EQ(RunCommand(Wide("\"" + BinDir() + "/fake_child\""), output), 3);
    EXPECT_EQ(RunCommand(L"\"/no/such/program\" -y", output), -1);
    EXPECT_EQ(RunCommand(L"", output), -1);
}

TEST(RunCommand, StreamCopyLogsTheChildsTailAndChecksTheOutputFile) {
    TempDir dir;
    RecordingObserver observer;
    {
        RepairLog log(0, dir.file("a.log"));
        ScopedEnv bytes("FAKE_CHILD_BYTES", "100000");
        EXPECT_EQ(RunStreamCopy(Wide(BinDir() + "/fake_child"), L"/in.avi", dir.wfile("out.avi"), &log, &observer), 0);
        ScopedEnv skip("FAKE_CHILD_SKIP_OUTPUT", "1");
        EXPECT_EQ(RunStreamCopy(Wide(BinDir() + "/fake_child"), L"/in.avi", dir.wfile("none.avi"), &log, &observer), -1);
    }
    std::string log = ReadFile(dir.file("a.log"));
    std::string tail;
    for (long i = 100000 - 65536; i < 100000; ++i) tail.push_back(char('a' + i % 26));
    EXPECT_NE(log.find("FfmpegRepair stdout/stderr: " + tail + "\n"), std::string::npos);
    EXPECT_NE(log.find("FfmpegRepair failed, ret: 0\n"), std::string::npos);  // exit 0 but no output file
    EXPECT_EQ(observer.Events(), (std::vector<std::string>{"p0:5", "p0:100", "p0:5", "p0:100"}));
}
