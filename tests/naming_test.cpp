#include <gtest/gtest.h>

#include <regex>
#include <filesystem>
#include <set>

#include "OutputNaming.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {
const std::regex kUuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
}

TEST(OutputNaming, UuidTextHasTheFixedLowerCaseForm) {
    std::set<std::wstring> seen;
    for (int i = 0; i < 50; ++i) {
        std::wstring text = naming::NewUuidText();
        ASSERT_EQ(text.size(), 36u);
        EXPECT_TRUE(std::regex_match(Narrow(text), kUuid)) << Narrow(text);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 50u);
}

TEST(OutputNaming, OtherModesUseTheBaseNameWithRepaired) {
    std::wstring out;
    naming::MakeOutputPath(out, L"/v/clip.avi", L"", 1);
    EXPECT_EQ(Narrow(out), "/v/clip_repaired.avi");
    naming::MakeOutputPath(out, L"/v/clip.avi", L"/elsewhere", 2);
    EXPECT_EQ(Narrow(out), "/elsewhere/clip_repaired.avi");
}

TEST(OutputNaming, NoExtensionMeansNoDotAndBareNamesGoToTheCurrentDirectory) {
    std::wstring out;
    naming::MakeOutputPath(out, L"/v/clip", L"", 1);
    EXPECT_EQ(Narrow(out), "/v/clip_repaired");
    naming::MakeOutputPath(out, L"/v/clip", L"", 0);
    EXPECT_TRUE(std::regex_match(Narrow(out), std::regex("/v/[0-9a-f-]{36}"))) << Narrow(out);
    naming::MakeOutputPath(out, L"clip.flv", L"", 1);
    EXPECT_EQ(Narrow(out), "./clip_repaired.flv");
}

TEST(OutputNaming, AnExistingFileIsNeverReused) {
    TempDir dir;
    WriteFile(dir.file("clip_repaired.avi"), "taken");
    std::wstring out;
    naming::MakeOutputPath(out, dir.wfile("clip.avi"), L"", 1);
    EXPECT_NE(Narrow(out), dir.file("clip_repaired.avi"));
    EXPECT_FALSE(FileExists(Narrow(out)));
    EXPECT_EQ(Narrow(out).find(dir.path() + "/clip_repaired"), 0u);
    EXPECT_EQ(ReadFile(dir.file("clip_repaired.avi")), "taken");
}
