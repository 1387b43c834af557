#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "AppPaths.h"
#include "VideoRepairExport.h"
#include "VideoRepairManager.h"
#include "support/TestSupport.h"

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old, had_ = true;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }

private:
    const char* name_;
    std::string old_;
    bool had_ = false;
};

}  // namespace

TEST(ManagerConfig, ExportsRefuseNullOutputPointers) {
    EXPECT_EQ(InitKzVideoRepairLib(nullptr), -1);
    EXPECT_EQ(CreateMetaDataParser(nullptr), -1);
    EXPECT_EQ(CreateRemoteRepairManager(nullptr), -1);
}

TEST(ManagerConfig, InitializeNeedsAnObserver) {
    VideoRepairManager m;
    EXPECT_EQ(m.Initialize(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(m.EngineCount(), 0u);
    EXPECT_EQ(m.Repair(L"/a.avi", L"/b.avi"), -1);  // no registry yet
}

TEST(ManagerConfig, DefaultsPointAtTheHostProgramsFolder) {
    TempDir dir;
    ScopedEnv tmp("TMPDIR", dir.path() + "/tmp/deeper");
    RecordingObserver observer;
    VideoRepairManager m;
    EXPECT_TRUE(m.IsStopped());  // starts stopped and nothing clears it
    EXPECT_EQ(m.RepairMode(), 1u);
    ASSERT_EQ(m.Initialize(&observer, nullptr, nullptr), 0);
    EXPECT_EQ(Narrow(m.FfmpegPath()), BinDir() + "/ffmpeg");
    EXPECT_EQ(Narrow(m.LogDirectory()), BinDir());
    EXPECT_EQ(Narrow(app_paths::WorkDirectory()), dir.path() + "/tmp/deeper/VR");
    EXPECT_TRUE(fs::is_directory(dir.path() + "/tmp/deeper/VR"));  // made with its parents
    EXPECT_TRUE(FileExists(BinDir() + "/KzVideoRepair.log"));
    m.Release();
}

TEST(ManagerConfig, LogDirectoryIsUsedWhenItExistsElseTheHostFolder) {
    TempDir dir;
    RecordingObserver observer;
    VideoRepairManager m;
    ASSERT_EQ(m.Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str()), 0);
    EXPECT_EQ(Narrow(m.LogDirectory()), dir.path());
    EXPECT_EQ(m.SaveAs(L"/never.avi", L"/x.avi"), -1);
    EXPECT_NE(ReadFile(dir.file("KzVideoRepair.log")).find("SaveAs failed, repair record not found: /never.avi"),
              std::string::npos);
    ASSERT_EQ(m.Initialize(&observer, dir.wfile("absent").c_str(), dir.wfile("work").c_str()), 0);
    EXPECT_EQ(Narrow(m.LogDirectory()), BinDir());
    EXPECT_FALSE(fs::exists(dir.file("absent")));  // never created
    m.Release();
}

TEST(ManagerConfig, UnwritableLogDirectoryStillInitializes) {
    // Even root cannot open a directory as the log file, so this holds for every user.
    TempDir dir;
    fs::create_directories(dir.file("logs/KzVideoRepair.log"));
    RecordingObserver observer;
    VideoRepairManager m;
    EXPECT_EQ(m.Initialize(&observer, dir.wfile("logs").c_str(), dir.wfile("w").c_str()), 0);
    EXPECT_EQ(m.SaveAs(nullptr, nullptr), -1);  // logging does nothing, and nothing fails
    m.Release();
}

TEST(ManagerConfig, TwoManagersShareTheWorkDirectory) {
    TempDir dir;
    RecordingObserver observer;
    VideoRepairManager first, second;
    ASSERT_EQ(first.Initialize(&observer, dir.wpath().c_str(), dir.wfile("one").c_str()), 0);
    EXPECT_EQ(Narrow(app_paths::WorkDirectory()), dir.file("one"));
    ASSERT_EQ(second.Initialize(&observer, dir.wpath().c_str(), dir.wfile("two/a/b").c_str()), 0);
    EXPECT_EQ(Narrow(app_paths::WorkDirectory()), dir.file("two/a/b"));
    EXPECT_TRUE(fs::is_directory(dir.file("two/a/b")));
    first.Release();
    second.Release();
}

TEST(ManagerConfig, RepairModeBounds) {
    VideoRepairManager m;
    EXPECT_EQ(m.SetRepairMode(0), 0);
    EXPECT_EQ(m.SetRepairMode(2), 0);
    EXPECT_EQ(m.SetRepairMode(3), -1);
    EXPECT_EQ(m.RepairMode(), 2u);
    EXPECT_EQ(m.SetRepairMode(0xFFFFFFFFu), -1);
    EXPECT_EQ(m.RepairMode(), 2u);
}

TEST(ManagerConfig, EngineStringsChangeOnlyWhereGiven) {
    VideoRepairManager m;
    EXPECT_EQ(m.SetEngineStrings(L"a", L"b", L"c", L"d"), 0);
    EXPECT_EQ(m.SetEngineStrings(nullptr, L"second", nullptr, nullptr), 0);
    EXPECT_EQ(m.Strings().values[0], L"a");
    EXPECT_EQ(m.Strings().values[1], L"second");
    EXPECT_EQ(m.Strings().values[2], L"c");
    EXPECT_EQ(m.Strings().values[3], L"d");
}
