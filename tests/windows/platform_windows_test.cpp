// The Windows platform calls themselves: the host program's path, "USERPROFILE",
// UuidCreate, share-deny-none descriptors with 64-bit positions, and children
// started with CreateProcessW whose stdout and stderr share one pipe.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>

#include "AppPaths.h"
#include "VideoRepairManager.h"
#include "platform/Platform.h"
#include "support/TestSupport.h"

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const std::wstring& value) : name_(name) {
        wchar_t old[1024];
        DWORD n = GetEnvironmentVariableW(name, old, 1024);
        had_ = n > 0 && n < 1024;
        if (had_) old_.assign(old, n);
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~ScopedEnv() { SetEnvironmentVariableW(name_, had_ ? old_.c_str() : nullptr); }

private:
    const wchar_t* name_;
    bool had_ = false;
    std::wstring old_;
};

const std::string kUnicode = "\xD0\xB4\xD0\xB8\xD1\x80 \xC3\xA9 \xE4\xB8\xAD";  // "дир é 中"

}  // namespace

TEST(WindowsPlatform, HostProgramPathAndDefaultWorkDirectory) {
    std::wstring exe = platform::ExecutablePath();
    EXPECT_EQ(exe.substr(exe.size() - 22), L"\\videorepair_tests.exe");
    EXPECT_EQ(platform::FfmpegProgramName(), L"ffmpeg.exe");

    TempDir dir("profile");
    std::wstring profile = Wide(dir.path());
    for (wchar_t& c : profile) c = c == L'/' ? L'\\' : c;
    ScopedEnv env(L"USERPROFILE", profile);
    EXPECT_EQ(platform::UserTemporaryDirectory(), profile + L"\\AppData\\Local\\Temp");
    VideoRepairManager manager;
    RecordingObserver observer;
    ASSERT_EQ(manager.Initialize(&observer, dir.wpath().c_str(), nullptr), 0);
    // The mixed separators are the library's own.
    EXPECT_EQ(app_paths::WorkDirectory(), profile + L"\\AppData\\Local\\Temp/VR");
    EXPECT_TRUE(fs::is_directory(fs::path(profile + L"\\AppData\\Local\\Temp\\VR")));
    manager.Release();
}

// PATH is set whole here: it may be longer than the fixed buffer ScopedEnv keeps.
TEST(WindowsPlatform, ProgramsAreFoundInTheAbsoluteDirectoriesOfPath) {
    TempDir dir("path");
    std::wstring folder = Wide(dir.path());
    for (wchar_t& c : folder) c = c == L'/' ? L'\\' : c;
    WriteFile(dir.file("ffmpeg.exe"), "MZ");
    fs::create_directories(fs::path(folder + L"\\empty"));
    DWORD size = GetEnvironmentVariableW(L"PATH", nullptr, 0);
    std::wstring saved(size, L'\0');
    saved.resize(GetEnvironmentVariableW(L"PATH", &saved[0], size));
    struct Case {
        std::wstring path;
        std::wstring found;
    };
    const std::vector<Case> cases = {
        {L"", L""},
        {folder + L"\\empty;\"" + folder + L"\"", folder + L"\\ffmpeg.exe"},
        {folder + L"\\;" + folder + L"\\empty", folder + L"\\ffmpeg.exe"},
        {L"relative;" + folder + L"\\empty", L""},
    };
    for (const Case& c : cases) {
        SetEnvironmentVariableW(L"PATH", c.path.c_str());
        EXPECT_EQ(platform::FindProgramOnPath(L"ffmpeg.exe"), c.found) << Narrow(c.path);
    }
    SetEnvironmentVariableW(L"PATH", size == 0 ? nullptr : saved.c_str());
}

TEST(WindowsPlatform, UuidsAreRandomVersionFour) {
    platform::Uuid a, b;
    ASSERT_TRUE(platform::NewUuid(a));
    ASSERT_TRUE(platform::NewUuid(b));
    EXPECT_EQ(a.data3 >> 12, 4);
    EXPECT_EQ(a.data4[0] & 0xC0, 0x80);
    EXPECT_FALSE(a.data1 == b.data1 && a.data2 == b.data2 && a.data3 == b.data3);
}

TEST(WindowsPlatform, DescriptorsShareAndSeekPastFourGigabytes) {
    TempDir dir("fd");
    std::wstring path = Wide(dir.file(kUnicode + ".bin"));
    int writer = platform::OpenForWrite(path);
    ASSERT_GE(writer, 0);
    int reader = platform::OpenForRead(path);  // share-deny-none: open while being written
    ASSERT_GE(reader, 0);
    const int64_t beyond = (int64_t(5) << 30) + 3;
    EXPECT_EQ(platform::Seek(writer, beyond, SEEK_SET), beyond);
    EXPECT_EQ(platform::Write(writer, "xyz", 3), 3);
    EXPECT_EQ(platform::Tell(writer), beyond + 3);
    EXPECT_EQ(platform::Seek(reader, -2, SEEK_END), beyond + 1);
    char got[4] = {};
    EXPECT_EQ(platform::Read(reader, got, 4), 2);
    EXPECT_STREQ(got, "yz");
    EXPECT_EQ(platform::Close(reader), 0);
    EXPECT_EQ(platform::Close(writer), 0);
    EXPECT_EQ(platform::OpenForRead(Wide(dir.file("missing"))), -1);
    EXPECT_TRUE(platform::SameFile(path, Wide(dir.path() + "\\" + kUnicode + ".BIN")));
}

TEST(WindowsPlatform, LogFileStaysOpenToOtherWriters) {
    TempDir dir("log");
    std::string path = dir.file(kUnicode + ".log");
    RepairLog log(0, path);
    ASSERT_TRUE(log.IsOpen());
    log.Log("x", 1, kLogInfo, "first", int32_t(1));
    HANDLE other = CreateFileW(Wide(path).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    ::WriteFile(other, "other\n", 6, &written, nullptr);
    CloseHandle(other);
    log.Log("x", 2, kLogInfo, "second", int32_t(2));
    log.Close();
    std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("(1) first 1"), std::string::npos);
    EXPECT_EQ(lines[1], "other");
    EXPECT_NE(lines[2].find("(2) second 2"), std::string::npos);
}

TEST(WindowsPlatform, ChildOutputThroughOnePipeWithUnicodePathAndBlanks) {
    TempDir dir("child");
    std::string folder = dir.file("child " + kUnicode);
    fs::create_directories(fs::u8path(folder));
    std::string child = folder + "/fake child.exe";
    fs::copy_file(fs::u8path(BinDir() + "/fake_child.exe"), fs::u8path(child));
    ScopedEnv bytes(L"FAKE_CHILD_BYTES", L"1048576");
    ScopedEnv code(L"FAKE_CHILD_EXIT", L"7");
    std::string text;
    // The stand-in child opens its output through the ANSI argv, so that name stays ASCII.
    std::string output = dir.file("out put.avi");
    int rc = platform::RunCommandLine(Wide("\"" + child + "\" -i \"" + output + "\""),
                                      [&](const char* data, size_t n) { text.append(data, n); });
    EXPECT_EQ(rc, 7);
    ASSERT_EQ(text.size(), 1048576u);
    for (size_t i = 0; i < text.size(); i += 4099) ASSERT_EQ(text[i], char('a' + i % 26)) << i;
    EXPECT_TRUE(FileExists(output));
    EXPECT_EQ(platform::RunCommandLine(Wide("\"" + folder + "/none.exe\""), [](const char*, size_t) {}), -1);
}
