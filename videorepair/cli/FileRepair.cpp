#include "FileRepair.h"

#include <Poco/Path.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "ExitCodes.h"
#include "RepairSession.h"
#include "Unreadable.h"
#include "WorkFiles.h"
#include "WorkerFiles.h"

namespace {

namespace fs = std::filesystem;

// The library refuses these on every road but the thorough one, without a word;
// named here only to explain why.
const char* const kRefusedExtensions[] = {"mp4", "mov", "3gp", "3g2", "m4v", "insv", "360", "m4a"};

bool IsRefused(const std::string& path) {
    std::string extension = work_files::LowerExtension(path);
    for (const char* refused : kRefusedExtensions) {
        if (extension == refused) return true;
    }
    return false;
}

std::string Absolute(const std::string& path) {
    std::error_code ec;
    fs::path absolute = fs::absolute(fs::u8path(path), ec);
    return ec ? path : absolute.lexically_normal().u8string();
}

bool CreateFolderOf(const std::string& path, std::string& error) {
    std::error_code ec;
    fs::path folder = fs::u8path(path).parent_path();
    if (!folder.empty()) fs::create_directories(folder, ec);
    if (ec) error = "cannot create the folder of " + path + ": " + ec.message();
    return !ec;
}

// A file name the library can be given: its own when it is plain UTF-8 and
// cannot pass for an option, else a neutral one.
std::string ViewStem(const std::string& path, const char* fallback) {
    std::string stem = fs::u8path(path).stem().u8string();
    return !stem.empty() && stem[0] != '-' && work_files::IsUtf8(stem) ? stem : std::string(fallback);
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); !from.empty() && at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

}  // namespace

std::string FileRepair::Road() const {
    if (options_.command == CliCommand::kRemux) return std::string();
    return options_.compatible ? "compatible" : "thorough";
}

std::string FileRepair::WorkPath(const std::string& name) const {
    return (fs::u8path(options_.workerDirectory) / fs::u8path(name)).u8string();
}

bool FileRepair::PrepareViews(FileResult& file, std::string& damagedView, std::string& sampleView) {
    std::string error;
    damagedView = work_files::MakeView(file.input, WorkPath("in/damaged"), ViewStem(file.input, "video"), error);
    if (!options_.sample.empty() && options_.command == CliCommand::kRepair && error.empty()) {
        sampleView = work_files::MakeView(options_.sample, WorkPath("in/sample"), "sample", error);
    }
    if (error.empty()) return true;
    file.status = "failed";
    file.exitCode = exit_codes::kRepairFailed;
    file.error = error;
    return false;
}

void FileRepair::Classify(const RepairOutcome& outcome, FileResult& file) const {
    std::string extension = Poco::Path(file.input).getExtension();
    if (!outcome.started) {
        file.status = "unsupported";
        file.exitCode = exit_codes::kUnsupported;
        file.error = IsRefused(file.input)
                         ? "refused: MP4-family files (mp4 mov 3gp 3g2 m4v insv 360 m4a) are repaired by the "
                           "thorough repair only (videorepair repair, without --compatible)"
                         : "no repair engine for " +
                               (extension.empty() ? std::string("files without an extension")
                                                  : "'." + extension + "' files") +
                               " in this library";
        return;
    }
    bool ffmpegMissing = outcome.error.find("ffmpeg missing") != std::string::npos ||
                         outcome.error.find("cmd is not exists") != std::string::npos;
    if (outcome.result == 0 && !outcome.repairedPath.empty()) {
        file.status = outcome.cancelled ? "cancelled" : "repaired";
        file.exitCode = outcome.cancelled ? exit_codes::kCancelled : exit_codes::kOk;
        if (outcome.cancelled) file.error = "cancelled: the repaired file holds what was found until then";
        return;
    }
    if (ffmpegMissing) {
        file.status = "ffmpeg-missing";
        file.exitCode = exit_codes::kFfmpegMissing;
        file.error = "ffmpeg not found (" + outcome.error + ")";
        return;
    }
    file.status = outcome.cancelled ? "cancelled" : "failed";
    file.exitCode = outcome.cancelled ? exit_codes::kCancelled : exit_codes::kRepairFailed;
    std::string reason = outcome.error.empty() ? "the library returned " + std::to_string(outcome.result)
                                               : outcome.error;
    if (!outcome.ffmpegLine.empty()) reason += " (ffmpeg: " + outcome.ffmpegLine + ")";
    if (outcome.judged && outcome.judge.reason[0] != '\0') reason += " (" + std::string(outcome.judge.reason) + ")";
    file.error = outcome.cancelled ? "cancelled before anything was repaired: " + reason : reason;
}

void FileRepair::PlaceResult(RepairSession& session, const std::string& damagedView, const RepairOutcome& outcome,
                             const std::string& landing, FileResult& file) {
    const std::string& destination = options_.output;
    std::string error;
    if (!Thorough()) {
        display_.SetPhase("saving");
        bool saved = session.Save(damagedView, landing, error);
        // The library's own copy is an intermediate: only the saved result stays.
        std::error_code ec;
        if (!fs::equivalent(fs::u8path(outcome.repairedPath), fs::u8path(landing), ec)) {
            fs::remove(fs::u8path(outcome.repairedPath), ec);
        }
        if (!saved) {
            file.status = "save-failed";
            file.exitCode = exit_codes::kSaveFailed;
            file.error = "could not save to " + destination + ": " + error;
            return;
        }
    }
    if (landing != destination && !work_files::MoveResult(landing, destination, error)) {
        file.status = "save-failed";
        file.exitCode = exit_codes::kSaveFailed;
        file.error = "could not move the result to " + destination + ": " + error;
        return;
    }
    file.repairedPath = file.savedPath = Absolute(destination);
}

// A device that would not give every byte, or a destination that would not take
// the result, gets its own exit code and words.
void FileRepair::NoteFaults(const RepairOutcome& outcome, std::vector<UnreadableRange> unreadable,
                            FileResult& file) const {
    file.unreadable = std::move(unreadable);
    std::error_code ec;
    const auto damagedBytes = fs::file_size(fs::u8path(file.input), ec);
    EstimateCost(file.unreadable, ec ? 0 : int64_t(damagedBytes), file.repaired.durationSeconds,
                 file.repairedFrames >= 0 ? file.repairedFrames : file.repaired.decodedFrames);
    if (file.exitCode == exit_codes::kOk && !file.unreadable.empty()) {
        int64_t lost = 0;
        for (const UnreadableRange& range : file.unreadable) lost += range.length;
        file.exitCode = exit_codes::kPartlyRecovered;
        file.error = "partly recovered: " + std::to_string(lost) + " bytes of the damaged file could not be read";
    }
    if (file.status == "failed" && std::string(outcome.judge.reason).find("writing the repaired file failed") == 0) {
        file.status = "save-failed";
        file.exitCode = exit_codes::kSaveFailed;
        file.error = outcome.judge.reason;  // names the cause and the folder
    }
}

void FileRepair::Measure(FileResult& file) const {
    display_.SetPhase("checking");
    // The thorough repair's judge has decoded what it counted; other roads are
    // decoded here, video only.
    bool decode = !file.judged;
    file.damaged = ProbeMedia(file.input, decode);
    if (!file.savedPath.empty()) file.repaired = ProbeMedia(file.savedPath, decode);
    file.probed = true;
    if (file.judged) {
        file.damagedFrames = file.judge.damaged.videoFrames;
        file.repairedFrames = file.judge.repaired.videoFrames;
    } else {
        file.damagedFrames = file.damaged.opens ? std::max<int64_t>(file.damaged.decodedFrames, 0) : 0;
        file.repairedFrames = file.repaired.opens ? std::max<int64_t>(file.repaired.decodedFrames, 0) : 0;
    }
    if (file.savedPath.empty()) return;
    bool damagedShowsStreams = file.damaged.opens && !file.damaged.streams.empty();
    if (damagedShowsStreams) {
        file.lostStreams = LostStreams(file.damaged, file.repaired);
    } else if (!options_.sample.empty()) {
        file.lostStreams = LostStreams(ProbeMedia(options_.sample), file.repaired);
    }
    if (file.status != "repaired") return;
    if (!file.repaired.opens) {
        file.status = "unplayable";
        file.exitCode = exit_codes::kUnplayable;
        file.error = "the result does not open (" + file.repaired.error + ")";
    } else if (file.repairedFrames == 0) {
        file.status = "unplayable";
        file.exitCode = exit_codes::kUnplayable;
        file.error = "the result holds no video frame that decodes";
    }
}

void FileRepair::Advise(FileResult& file) const {
    bool noSample = options_.sample.empty();
    bool headerGone = !file.damaged.opens || file.damagedFrames == 0;
    if (file.status == "failed" || file.status == "unplayable") {
        if (options_.command == CliCommand::kRemux) {
            file.advice = "a remux only copies what the file's header describes: try videorepair repair, with "
                          "--sample from the same camera";
        } else if (noSample && headerGone) {
            file.advice = "the header is gone: repair with --sample from the same camera";
        } else if (options_.compatible) {
            file.advice = "try the thorough repair: drop --compatible";
        } else if (noSample) {
            file.advice = "repair with --sample, a healthy file from the same camera";
        } else {
            file.advice = "try a sample recorded by the same camera with the same settings";
        }
    } else if (file.status == "ffmpeg-missing") {
        file.advice = "install ffmpeg, or name it with --ffmpeg PATH";
    } else if (file.status == "save-failed") {
        file.advice = "name a writable destination with -o";
    } else if (!file.lostStreams.empty() && noSample && options_.command == CliCommand::kRepair) {
        file.advice = "a --sample from the same camera may restore the lost streams";
    }
}

FileResult FileRepair::Run(RepairSession& session, const std::string& input) {
    FileResult file;
    file.input = input;
    file.method = options_.command == CliCommand::kRemux ? "remux" : "repair";
    file.road = Road();
    std::string damagedView, sampleView, error;
    if (!PrepareViews(file, damagedView, sampleView)) return file;
    const std::string& destination = options_.output;
    // The library writes straight to the destination when its wide-character
    // interface can carry the name; else beside its work, and the tool moves it.
    std::string landing = work_files::IsUtf8(destination)
                              ? destination
                              : WorkPath("out/result." + work_files::LowerExtension(destination));
    if (!CreateFolderOf(destination, error) || !CreateFolderOf(landing, error)) {
        file.status = "save-failed";
        file.exitCode = exit_codes::kSaveFailed;
        file.error = error;
        Advise(file);
        return file;
    }
    RepairRequest request;
    request.road = options_.command == CliCommand::kRemux ? RepairRoad::kRemux
                   : Thorough()                           ? RepairRoad::kThorough
                                                          : RepairRoad::kCompatible;
    request.sample = sampleView;
    request.fullCheck = options_.fullCheck;
    if (Thorough()) request.outputPath = landing;
    // The record is read for the unreadable ranges, and by the report when one is asked for.
    if (Thorough()) request.recordPath = WorkPath(kRecordFile);
    std::string label = options_.workerLabel.empty() ? fs::u8path(input).filename().u8string() : options_.workerLabel;
    RepairOutcome outcome = session.Run(damagedView, request, label);
    file.libraryCalled = true;
    file.libraryResult = outcome.result;
    file.seconds = outcome.seconds;
    Classify(outcome, file);
    // The user knows the files by their own names, not by the views.
    ReplaceAll(file.error, damagedView, input);
    if (!sampleView.empty()) ReplaceAll(file.error, sampleView, options_.sample);
    if (outcome.judged && outcome.started) {
        file.judged = true;
        file.judge.verdict = outcome.judge.verdict;
        file.judge.reason = outcome.judge.reason;
        ReplaceAll(file.judge.reason, damagedView, input);
        file.judge.damaged = outcome.judge.damaged;
        file.judge.repaired = outcome.judge.repaired;
        file.judge.seconds = outcome.judge.judgeSeconds;
    }
    if (outcome.result == 0 && !outcome.repairedPath.empty() && outcome.started) {
        PlaceResult(session, damagedView, outcome, landing, file);
    }
    if (outcome.started) Measure(file);
    if (!request.recordPath.empty()) {
        NoteFaults(outcome, UnreadableRanges(request.recordPath), file);
    } else if (!outcome.unreadable.empty()) {
        // The compatible road has no record: its log names what read as zeros.
        std::vector<UnreadableRange> ranges;
        for (const auto& [offset, length] : outcome.unreadable) ranges.push_back({offset, length});
        NoteFaults(outcome, std::move(ranges), file);
    }
    Advise(file);
    display_.End();
    return file;
}
