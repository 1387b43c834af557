// ffmpeg runs on behalf of engines: missing programs, exit codes, output and the time limit.
#include <gtest/gtest.h>

#include <cstdlib>

#include "EngineProcess.h"
#include "RepairLog.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

const char* const kSource = "tests/engine_process_test";

struct EnvGuard {
    EnvGuard(const char* n, const char* v) : name(n) { setenv(n, v, 1); }
    ~EnvGuard() { unsetenv(name); }
    const char* name;
};

std::wstring FakeChild() { return Wide(BinDir() + "/fake_child"); }

}  // namespace

TEST(EngineProcess, MissingOrEmptyProgramIsLoggedAndNotStarted) {
    TempDir dir;
    EngineProcessResult empty, missing;
    {
        RepairLog log(0, dir.file("a.log"));
        empty = RunEngineProcess(&log, kSource, L"", {"-y"}, 30);
        missing = RunEngineProcess(&log, kSource, dir.wfile("ffmpeg"), {"-y"}, 30);
    }
    EXPECT_FALSE(empty.started);
    EXPECT_FALSE(missing.started);
    EXPECT_FALSE(Succeeded(missing));
    std::string log = ReadFile(dir.file("a.log"));
    EXPECT_NE(log.find("[ERROR] "), std::string::npos);
    EXPECT_NE(log.find("[ENCD] cmd is empty."), std::string::npos);
    EXPECT_NE(log.find("[ENCD] cmd is not exists. cmd is: " + dir.file("ffmpeg")), std::string::npos);
}

TEST(EngineProcess, ReportsExitCodeAndKeepsTheOutputTail) {
    EnvGuard bytes("FAKE_CHILD_BYTES", "200000");
    EnvGuard code("FAKE_CHILD_EXIT", "4");
    EngineProcessResult r = RunEngineProcess(nullptr, kSource, FakeChild(), {"-y", "/dev/null"}, 30);
    EXPECT_TRUE(r.started);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_FALSE(Succeeded(r));
    ASSERT_EQ(r.output.size(), 65536u);
    EXPECT_EQ(r.output.back(), char('a' + 199999 % 26));
}

TEST(EngineProcess, AChildOverItsTimeLimitIsKilled) {
    EnvGuard sleep("FAKE_CHILD_SLEEP_MS", "60000");
    EngineProcessResult r = RunEngineProcess(nullptr, kSource, FakeChild(), {}, 1);
    EXPECT_TRUE(r.started);
    EXPECT_TRUE(r.timedOut);
    EXPECT_FALSE(Succeeded(r));
}

TEST(EngineProcess, ASuccessfulRunSucceeds) {
    EngineProcessResult r = RunEngineProcess(nullptr, kSource, FakeChild(), {"x"}, 30);
    EXPECT_TRUE(Succeeded(r));
}
