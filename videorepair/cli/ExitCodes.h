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
constexpr int kPartlyRecovered = 9;
constexpr int kInterrupted = 130;  // second Ctrl-C: 128 + SIGINT, as shells report it

struct Meaning {
    int code;
    const char* text;
};

// In the order --help lists them.
constexpr Meaning kAll[] = {
    {kOk, "every file was repaired (and saved, with -o)"},
    {kRepairFailed, "the library could not repair a file (ffmpeg or the engine failed)"},
    {kUsage, "bad command line (unknown option, missing argument, -o would overwrite an input)"},
    {kUnsupported, "unsupported or refused file type (MP4 family, or no engine for the extension)"},
    {kMissingFile, "a damaged file or the sample file does not exist or cannot be read"},
    {kFfmpegMissing, "ffmpeg was not found beside the videorepair program"},
    {kSaveFailed, "the repaired file could not be copied to the -o destination"},
    {kCancelled, "cancelled with Ctrl-C; what was found so far is kept, remaining files skipped"},
    {kLibraryError, "the repair library could not be loaded or initialised"},
    {kPartlyRecovered, "repaired, but parts of the damaged file could not be read (failing card or disk)"},
    {kInterrupted, "a second Ctrl-C quit at once"},
};

}  // namespace exit_codes
