// The DLL as a Windows host sees it: exports, the manager's slots, a Unicode log
// directory, the ffmpeg.exe stream copy with blanks and Unicode in every path,
// and SaveAs to a Unicode destination.
#include <gtest/gtest.h>

#include <filesystem>

#include "DllHost.h"
#include "support/TestSupport.h"

using namespace testing_support;
using windows_test::DllHost;
namespace fs = std::filesystem;

namespace {

// "Видео ü 日本" in UTF-8: Cyrillic, Latin-1 and CJK, outside any ANSI code page together.
const std::string kUnicode = "\xD0\x92\xD0\xB8\xD0\xB4\xD0\xB5\xD0\xBE \xC3\xBC \xE6\x97\xA5\xE6\x9C\xAC";

std::string Clip() {
    return GeneratedMedia("win_clip.avi", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2",
                                           "-c:v", "mpeg4", "-f", "avi"});
}

}  // namespace

TEST(DllHost, ExportsExactlyTheSixEntryPoints) {
    DllHost dll;
    ASSERT_TRUE(dll.Loaded());
    for (const char* name : {"InitKzVideoRepairLib", "CreateMetaDataParser", "CreateRemoteRepairManager",
                             "DeleteRemoteRepairManager", "CheckRemoteRepairable", "SetRemoteRepairLogPath"}) {
        EXPECT_NE(dll.Export<void (*)()>(name), nullptr) << name;
    }
    EXPECT_EQ(dll.Export<void (*)()>("_ZN18VideoRepairManager7ReleaseEv"), nullptr);
    auto check = dll.Export<CheckRemoteRepairableFn>("CheckRemoteRepairable");
    RemoteRepairItem items[2];
    items[0].remotelyRepairable = items[1].remotelyRepairable = 7;
    EXPECT_EQ(check(items, 2), -1);
    EXPECT_EQ(items[1].remotelyRepairable, 0);
    EXPECT_EQ(dll.Export<SetRemoteRepairLogPathFn>("SetRemoteRepairLogPath")(nullptr), -1);
}

TEST(DllHost, ManagerSlotsAndUnicodeLogDirectory) {
    DllHost dll;
    IVideoRepairManager* manager = dll.NewManager();
    ASSERT_NE(manager, nullptr);
    TempDir dir("dll");
    std::string logs = dir.file(kUnicode + " logs");
    fs::create_directories(fs::u8path(logs));
    RecordingObserver observer;
    EXPECT_EQ(manager->Initialize(nullptr, nullptr, nullptr), -1);
    ASSERT_EQ(manager->Initialize(&observer, Wide(logs).c_str(), dir.wfile("work").c_str()), 0);
    EXPECT_EQ(manager->SetRepairMode(3), -1);
    EXPECT_EQ(manager->SetRepairMode(2), 0);
    EXPECT_EQ(manager->Repair(dir.wfile("missing.mp4").c_str(), dir.wfile("sample.mp4").c_str()), -1);
    EXPECT_EQ(manager->FfmpegRepair(dir.wfile("none.avi").c_str()), -1);  // ffmpeg.exe runs and fails
    manager->Release();
    std::string log = ReadFile(logs + "/KzVideoRepair.log");
    EXPECT_NE(log.find("FfmpegRepair command: "), std::string::npos) << log;
    EXPECT_NE(log.find("[ERROR] "), std::string::npos);
}

TEST(DllHost, StreamCopyAndSaveAsWithUnicodeAndBlanks) {
    std::string clip = Clip();
    ASSERT_FALSE(clip.empty());
    TempDir dir("dll");
    std::string folder = dir.file("in " + kUnicode);
    fs::create_directories(fs::u8path(folder));
    std::string damaged = folder + "/my clip " + kUnicode + ".avi";
    WriteFile(damaged, ReadFile(clip));
    const std::string before = ReadFile(damaged);

    DllHost dll;
    IVideoRepairManager* manager = dll.NewManager();
    ASSERT_NE(manager, nullptr);
    RecordingObserver observer;
    ASSERT_EQ(manager->Initialize(&observer, dir.wpath().c_str(), Wide(dir.file("work " + kUnicode)).c_str()), 0);
    ASSERT_EQ(manager->FfmpegRepair(Wide(damaged).c_str()), 0) << ReadFile(dir.file("KzVideoRepair.log"));

    std::wstring repaired = windows_test::RepairedPath(manager, Wide(damaged));
    ASSERT_FALSE(repaired.empty());
    EXPECT_EQ(Narrow(repaired).find(dir.file("work " + kUnicode) + "/RepairedVideo/"), 0u);
    std::string saved = folder + "/saved " + kUnicode + ".avi";
    EXPECT_EQ(manager->SaveAs(Wide(damaged).c_str(), Wide(saved).c_str()), 0);
    manager->Release();

    EXPECT_EQ(CountDecodedVideoFrames(saved), 50);
    EXPECT_EQ(ReadFile(saved), ReadFile(Narrow(repaired)));
    EXPECT_EQ(ReadFile(damaged), before);
    std::string log = ReadFile(dir.file("KzVideoRepair.log"));
    // Every path is quoted, so the blanks survive the command line.
    EXPECT_NE(log.find("ffmpeg.exe\" -y -i \"" + damaged + "\" -codec copy \""), std::string::npos) << log;
    std::vector<std::string> progress;
    for (const std::string& e : observer.Events()) progress.push_back(e);
    // The repair's progress (kind 0), then SaveAs's (kind 1).
    EXPECT_EQ(progress, (std::vector<std::string>{"start", "p0:5", "p0:100", "finish", "p1:100"}));
}
