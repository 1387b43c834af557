// videorepair.exe on Windows: Unicode arguments reach the library intact (the
// wide command line, not the ANSI argv), and ffmpeg.exe beside it does the remux.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"

using namespace testing_support;
namespace fs = std::filesystem;

TEST(WindowsCli, RemuxesAFileWithAUnicodeName) {
    std::string clip = GeneratedMedia("win_cli.mkv", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2",
                                                      "-c:v", "mpeg4", "-f", "matroska"});
    ASSERT_FALSE(clip.empty());
    TempDir dir("cli");
    const std::string name = "\xE7\x8C\xAB \xD0\xBA\xD0\xBE\xD1\x82";  // "猫 кот"
    std::string damaged = dir.file(name + ".mkv");
    std::string output = dir.file(name + " fixed.mkv");
    WriteFile(damaged, ReadFile(clip));
    std::string out;
    int rc = RunProgram({VR_TEST_CLI, "remux", damaged, "-o", output, "--quiet", "--work-dir", dir.file("w")}, &out);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_EQ(CountDecodedVideoFrames(output), 50);
    EXPECT_EQ(ReadFile(damaged), ReadFile(clip));
}

TEST(WindowsCli, MissingInputIsAUsageOrInputError) {
    TempDir dir("cli");
    std::string out;
    int rc = RunProgram({VR_TEST_CLI, "remux", dir.file("none \xC3\xBC.avi"), "--quiet"}, &out);
    EXPECT_NE(rc, 0);
    EXPECT_NE(rc, -1);
}
