// The command-line host's exit codes: one per kind of outcome, so scripts can
// tell a refused file from a missing one or from a repair that found nothing.
#pragma once

namespace exit_codes {

constexpr int kOk = 0;
constexpr int kRepairFailed = 1;
constexpr int kUsage = 2;
constexpr int kUnsupported = 3;
constexpr int kMissingFile = 4;
constexpr int kFfmpegMissing = 5;
constexpr int kSaveFailed = 6;
constexpr int kCancelled = 7;
constexpr int kLibraryError = 8;
constexpr int kUnplayable = 9;
constexpr int kOutputExists = 10;
constexpr int kPartlyRecovered = 11;
constexpr int kInterrupted = 130;  // second Ctrl-C: 128 + SIGINT, as shells report it
// Between a worker and the tool only: the work folder took no more (no result written).
constexpr int kWorkFolderFull = 64;

struct Meaning {
    int code;
    const char* text;
};

// In the order --help lists them.
constexpr Meaning kAll[] = {
    {kOk, "every file was repaired (or skipped with -n because its result exists)"},
    {kRepairFailed, "the library could not repair a file (ffmpeg or the engine failed)"},
    {kUsage, "bad command line (unknown option, missing argument, -o would overwrite an input)"},
    {kUnsupported, "unsupported or refused file type (MP4 family, or no engine for the extension)"},
    {kMissingFile, "a damaged file or the sample file does not exist or cannot be read"},
    {kFfmpegMissing, "ffmpeg was not found (beside the program, $VIDEOREPAIR_FFMPEG, PATH, --ffmpeg)"},
    {kSaveFailed, "the repaired file could not be written to its destination"},
    {kCancelled, "cancelled with Ctrl-C; what was found so far is kept, remaining files skipped"},
    {kLibraryError, "the repair library could not be loaded or initialised"},
    {kUnplayable, "a result was written but does not open or holds no video frame"},
    {kOutputExists, "a result already exists and was kept: -y replaces it, -n skips quietly"},
    {kPartlyRecovered, "repaired, but parts of the damaged file could not be read (failing card or disk)"},
    {kInterrupted, "a second Ctrl-C quit at once"},
};

}  // namespace exit_codes
