#include "FfmpegRunner.h"

#include "AppPaths.h"
#include "IVideoRepairObserver.h"
#include "RepairLog.h"
#include "platform/Platform.h"

namespace {

const char* const kLogSource = "videorepair/mrvc-core/src/VideoRepairManager";

// One argument in double quotes, by the rules the command line is split with: a
// quote inside (possible in POSIX names) and backslashes in front of a quote are
// escaped with backslashes.
std::wstring Quoted(const std::wstring& text) {
    std::wstring out = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : text) {
        if (c == L'\\') {
            ++backslashes;
        } else {
            if (c == L'"') out.append(backslashes + 1, L'\\');
            backslashes = 0;
        }
        out.push_back(c);
    }
    out.append(backslashes, L'\\');
    return out + L"\"";
}

void ReportProgress(IVideoRepairObserver* observer, int value) {
    if (observer != nullptr) observer->OnProgress(0, value, 0, nullptr);
}

}  // namespace

int RunCommand(const std::wstring& commandLine, std::string& output) {
    return platform::RunCommandLine(commandLine, [&output](const char* data, size_t n) {
        if (n >= kChildOutputTailBytes) {
            output.assign(data + (n - kChildOutputTailBytes), kChildOutputTailBytes);
            return;
        }
        size_t overflow = output.size() + n > kChildOutputTailBytes
                              ? output.size() + n - kChildOutputTailBytes
                              : 0;
        output.erase(0, overflow);
        output.append(data, n);
    });
}

int RunStreamCopy(const std::wstring& ffmpegPath, const std::wstring& videoPath,
                  const std::wstring& outputPath, RepairLog* log, IVideoRepairObserver* observer) {
    if (!app_paths::RegularFileExists(ffmpegPath)) {
        VR_LOG(log, kLogError, "FfmpegRepair failed, ffmpeg missing:", platform::ToNarrow(ffmpegPath));
        return -1;
    }
    if (app_paths::IsSpecialFile(videoPath)) {
        VR_LOG(log, kLogError, "FfmpegRepair failed, not a regular file:", platform::ToNarrow(videoPath));
        return -1;
    }
    ReportProgress(observer, 5);
    std::wstring command = Quoted(ffmpegPath) + L" -y -i " + Quoted(videoPath) + L" -codec copy " +
                           Quoted(outputPath);
    VR_LOG(log, kLogInfo, "FfmpegRepair command:", platform::ToNarrow(command));
    std::string output;
    int exitCode = RunCommand(command, output);
    if (!output.empty()) VR_LOG(log, kLogInfo, "FfmpegRepair stdout/stderr:", output);
    // A negative exit code reports 100 like success; only a positive one stops at 99.
    ReportProgress(observer, exitCode > 0 ? 99 : 100);
    if (exitCode != 0 || !app_paths::RegularFileExists(outputPath)) {
        VR_LOG(log, kLogError, "FfmpegRepair failed, ret:", int32_t(exitCode));
        return -1;
    }
    return 0;
}
