#include <gtest/gtest.h>

#include <filesystem>

#include "VideoRepairManager.h"
#include "support/FakeEngine.h"

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

// A manager with one finished repair of <dir>/damaged/clip.avi whose result is <dir>/result.avi.
class SaveAs : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(dir_.file("damaged"));
        WriteFile(damaged_, "DAMAGED INPUT");
        WriteFile(result_, std::string(3 << 20, 'r') + "end");  // several copy pieces
        table_ = {{L"avi", [this] {
                       auto* e = new FakeEngine(L"avi");
                       e->outputPath = Wide(result_);
                       return e;
                   }}};
        manager_ = std::make_unique<VideoRepairManager>(table_);
        ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wfile("work").c_str()), 0);
        ASSERT_EQ(manager_->Repair(Wide(damaged_).c_str(), L"/s/good.avi"), 0);
        observer_.Clear();
    }
    void TearDown() override { manager_->Release(); }
    std::string Log() { return ReadFile(dir_.file("KzVideoRepair.log")); }

    TempDir dir_;
    std::string damaged_ = dir_.file("damaged/clip.avi");
    std::string result_ = dir_.file("result.avi");
    RecordingObserver observer_;
    EngineTable table_;
    std::unique_ptr<VideoRepairManager> manager_;
};

}  // namespace

TEST_F(SaveAs, CopiesCreatesParentsAndOverwritesOnASecondSave) {
    std::string dest = dir_.file("saved/deep/copy.avi");
    ASSERT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), Wide(dest).c_str()), 0);
    ASSERT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), Wide(dest).c_str()), 0);
    EXPECT_EQ(ReadFile(dest), ReadFile(result_));
    // Without a callback the observer hears one save report per call, at the end.
    EXPECT_EQ(observer_.Events(), (std::vector<std::string>{"p1:100", "p1:100"}));
    EXPECT_EQ(ReadFile(damaged_), "DAMAGED INPUT");
}

TEST_F(SaveAs, CallbackHearsStartAndEndInsteadOfTheObserver) {
    std::vector<std::pair<int, int>> calls;
    ASSERT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("cb.avi").c_str(),
                               [&](int kind, int value) { calls.emplace_back(kind, value); }),
              0);
    EXPECT_EQ(calls, (std::vector<std::pair<int, int>>{{1, 1}, {1, 100}}));
    EXPECT_TRUE(observer_.Events().empty());
}

TEST_F(SaveAs, RecordIsFoundIgnoringCase) {
    std::string upper = damaged_;
    upper.replace(upper.size() - 3, 3, "AVI");
    EXPECT_EQ(manager_->SaveAs(Wide(upper).c_str(), dir_.wfile("case.avi").c_str()), 0);
}

TEST_F(SaveAs, FailuresLogTheirMessage) {
    int calls = 0;
    auto counting = [&](int, int) { ++calls; };
    EXPECT_EQ(manager_->SaveAs(nullptr, L"/x.avi"), -1);
    EXPECT_EQ(manager_->SaveAs(L"/x.avi", nullptr, counting), -1);
    EXPECT_EQ(manager_->SaveAs(L"/never/repaired.avi", dir_.wfile("n.avi").c_str(), counting), -1);
    fs::remove(result_);
    EXPECT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("gone.avi").c_str(), counting), -1);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(observer_.Events().empty());
    std::string log = Log();
    EXPECT_NE(log.find("[ERROR] "), std::string::npos);
    EXPECT_NE(log.find("SaveAs failed, invalid parameter -1"), std::string::npos);
    EXPECT_NE(log.find("SaveAs failed, repair record not found: /never/repaired.avi"), std::string::npos);
    EXPECT_NE(log.find("SaveAs failed, repaired file missing: " + result_), std::string::npos);
}

TEST_F(SaveAs, IntoAnExistingDirectoryUsesTheDamagedFilesName) {
    fs::create_directories(dir_.file("outdir"));
    ASSERT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("outdir").c_str()), 0);
    EXPECT_EQ(ReadFile(dir_.file("outdir/clip.avi")), ReadFile(result_));
}

TEST_F(SaveAs, NeverOverwritesTheDamagedInput) {
    EXPECT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), Wide(damaged_).c_str()), -1);
    // Saving into the damaged file's own folder falls back to the repaired file's name.
    ASSERT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("damaged").c_str()), 0);
    EXPECT_EQ(ReadFile(damaged_), "DAMAGED INPUT");
    EXPECT_EQ(ReadFile(dir_.file("damaged/result.avi")), ReadFile(result_));
}

TEST_F(SaveAs, UnwritableDestinationFailsWithAnErrorLine) {
    fs::create_directories(dir_.file("blocked/target.avi"));  // a directory where the file must go
    EXPECT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("blocked/target.avi/").c_str()), 0);
    WriteFile(dir_.file("afile"), "x");
    EXPECT_EQ(manager_->SaveAs(Wide(damaged_).c_str(), dir_.wfile("afile/sub/out.avi").c_str()), -1);
    EXPECT_NE(Log().find("SaveAs failed, copy error: " + dir_.file("afile/sub/out.avi")), std::string::npos);
}
