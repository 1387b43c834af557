#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "RepairLog.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {
const char* const kLogSource = "tests/log_test";
}

TEST(RepairLog, WritesPrefixLocalTimeLineMessageAndValue) {
    TempDir dir;
    {
        RepairLog log(0, dir.file("a.log"));
        log.Log("some/source", 412, kLogError, "FfmpegRepair failed, ret:", int32_t(1));
        log.Log("some/source", 7, kLogDebug, "Start ", std::string("AviAdvanceRepair::Repair"));
        log.Log("some/source", 8, kLogInfo, "char", 'x');
        log.Log("some/source", 9, kLogWarning, "big", int64_t(1) << 40);
        log.Log("some/source", 10, 7, "no prefix for level", "c-string");
    }
    auto lines = ReadLines(dir.file("a.log"));
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(\[ERROR\] \d{4}-\d\d-\d\d \d\d:\d\d:\d\d \(412\) FfmpegRepair failed, ret: 1)")))
        << lines[0];
    EXPECT_TRUE(std::regex_search(lines[1], std::regex(R"(^\[DEBUG\] .*\(7\) Start  AviAdvanceRepair::Repair$)")));
    EXPECT_TRUE(std::regex_search(lines[2], std::regex(R"(^\[INFO\] .*\(8\) char x$)")));
    EXPECT_TRUE(std::regex_search(lines[3], std::regex(R"(^\[WARNING\] .*\(9\) big 1099511627776$)")));
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \(10\) no prefix for level c-string)")))
        << lines[4];
    for (const auto& line : lines) EXPECT_EQ(line.find("some/source"), std::string::npos);
}

TEST(RepairLog, DropsLinesBelowTheMinimumLevel) {
    TempDir dir;
    {
        RepairLog log(2, dir.file("a.log"));
        log.Log("s", 1, kLogInfo, "dropped", int32_t(0));
        log.Log("s", 2, kLogError, "kept", int32_t(0));
    }
    auto lines = ReadLines(dir.file("a.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("kept"), std::string::npos);
}

TEST(RepairLog, AppendsAndFlushesEveryLine) {
    TempDir dir;
    WriteFile(dir.file("a.log"), "earlier line\n");
    RepairLog log(0, dir.file("a.log"));
    log.Log("s", 1, kLogInfo, "now", int32_t(5));
    // Readable at once, while the log is still open.
    auto lines = ReadLines(dir.file("a.log"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_NE(lines[1].find("now 5"), std::string::npos);
}

TEST(RepairLog, UnopenableFileIsSilent) {
    TempDir dir;
    RepairLog log(0, dir.file("missing/dir/a.log"));
    EXPECT_FALSE(log.IsOpen());
    log.Log("s", 1, kLogError, "lost", int32_t(1));  // must not crash
    EXPECT_FALSE(FileExists(dir.file("missing/dir/a.log")));
}

TEST(RepairLog, ThreadsNeverMixALine) {
    TempDir dir;
    const int perThread = 2000;
    {
        RepairLog log(0, dir.file("a.log"));
        auto writer = [&log](char c) {
            std::string payload(200, c);
            for (int i = 0; i < perThread; ++i) log.Log("s", uint32_t(i), kLogInfo, payload, payload);
        };
        std::thread a(writer, 'a'), b(writer, 'b');
        a.join();
        b.join();
    }
    auto lines = ReadLines(dir.file("a.log"));
    ASSERT_EQ(lines.size(), size_t(2 * perThread));
    std::regex whole(R"(\[INFO\] [-0-9: ]+ \(\d+\) (a{200} a{200}|b{200} b{200}))");
    for (const auto& line : lines) ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

TEST(RepairLog, LogMacroIgnoresMissingLog) {
    RepairLog* none = nullptr;
    VR_LOG(none, kLogError, "nothing", int32_t(1));
    SUCCEED();
}
