#include "HostApp.h"

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/String.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Console.h"
#include "ExitCodes.h"
#include "MediaReport.h"
#include "RepairSession.h"

namespace {

// The library refuses these on every road but the thorough one, without a word;
// named here only to explain why.
const char* const kRefusedExtensions[] = {"mp4", "mov", "3gp", "3g2", "m4v", "insv", "360", "m4a"};

bool IsRefused(const std::string& path) {
    std::string extension = Poco::toLower(Poco::Path(path).getExtension());
    for (const char* refused : kRefusedExtensions) {
        if (extension == refused) return true;
    }
    return false;
}

bool SameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    return std::filesystem::equivalent(std::filesystem::u8path(a), std::filesystem::u8path(b), ec) && !ec;
}

std::string DefaultWorkDirectory() { return Poco::Path(Poco::Path::temp()).pushDirectory("VR").toString(); }

ProgressDisplay::Style StyleFor(const CliOptions& options) {
    if (options.quiet) return ProgressDisplay::Style::kNone;
    std::FILE* out = options.json ? stderr : stdout;
    return console::IsTerminal(out) ? ProgressDisplay::Style::kBar : ProgressDisplay::Style::kLines;
}

bool IsFailure(const FileResult& file) { return file.exitCode != exit_codes::kOk; }

}  // namespace

std::string UnreadableReason(const std::string& path) {
    try {
        Poco::File file(path);
        if (!file.exists()) return "not found";
        if (!file.isFile()) return "not a regular file";
        std::ifstream in(std::filesystem::u8path(path), std::ios::binary);  // UTF-8 names on every system
        if (!in) return "cannot be read (permission denied?)";
        return std::string();
    } catch (const std::exception& e) {
        return std::string("cannot be examined: ") + e.what();
    }
}

HostApp::HostApp(CliOptions options)
    : options_(std::move(options)), display_(options_.json ? stderr : stdout, StyleFor(options_)) {
    run_.command = options_.command == CliCommand::kRepair ? "repair" : "remux";
    if (options_.command == CliCommand::kRepair) run_.road = options_.compatible ? "compatible" : "thorough";
    run_.sample = options_.sample;
    run_.output = options_.output;
}

void HostApp::Fail(const std::string& message, int exitCode) {
    std::fprintf(stderr, "videorepair: %s\n", message.c_str());
    if (run_.error.empty()) run_.error = message;
    run_.exitCode = exitCode;
}

bool HostApp::PrepareDirectories() {
    if (options_.workDirectory.empty()) options_.workDirectory = DefaultWorkDirectory();
    if (options_.logDirectory.empty()) options_.logDirectory = options_.workDirectory;
    // Trailing separators would double up in the paths the library makes.
    options_.workDirectory = Poco::Path(options_.workDirectory, Poco::Path::PATH_NATIVE).makeDirectory().toString();
    options_.logDirectory = Poco::Path(options_.logDirectory, Poco::Path::PATH_NATIVE).makeDirectory().toString();
    for (std::string* directory : {&options_.workDirectory, &options_.logDirectory}) {
        if (directory->size() > 1 && directory->back() == '/') directory->pop_back();
        try {
            Poco::File(*directory).createDirectories();
        } catch (const std::exception& e) {
            Fail("cannot create directory " + *directory + ": " + e.what(), exit_codes::kLibraryError);
            return false;
        }
    }
    run_.workDirectory = options_.workDirectory;
    run_.logFile = options_.logDirectory + "/KzVideoRepair.log";
    return true;
}

bool HostApp::CheckSample() {
    if (options_.command != CliCommand::kRepair || options_.sample.empty()) return true;
    std::string reason = UnreadableReason(options_.sample);
    if (reason.empty()) reason = ReadThroughFailure(options_.sample);
    if (!reason.empty() && reason.find("cannot") == std::string::npos && reason != "not found") reason = "cannot be read: " + reason;
    if (reason.empty()) return true;
    Fail("sample " + options_.sample + ": " + reason, exit_codes::kMissingFile);
    return false;
}

bool HostApp::PrepareOutput() {
    if (options_.output.empty()) return true;
    const std::string& output = options_.output;
    bool existingDirectory = Poco::File(output).exists() && Poco::File(output).isDirectory();
    outputIsDirectory_ = existingDirectory || options_.inputs.size() > 1 || output.back() == '/';
    if (!outputIsDirectory_ && IsProtected(output)) {
        Fail("-o " + output + " is a damaged file or the sample; they are never overwritten", exit_codes::kUsage);
        return false;
    }
    if (outputIsDirectory_ && Poco::File(output).exists() && !existingDirectory) {
        Fail("-o " + output + " must be a directory when several damaged files are given", exit_codes::kUsage);
        return false;
    }
    return true;
}

bool HostApp::IsProtected(const std::string& path) const {
    if (!options_.sample.empty() && SameFile(path, options_.sample)) return true;
    for (const std::string& input : options_.inputs) {
        if (SameFile(path, input)) return true;
    }
    return false;
}

std::string HostApp::DestinationFor(const std::string& input) {
    if (!outputIsDirectory_) return options_.output;
    Poco::Path name(input);
    Poco::Path directory = Poco::Path(options_.output).makeDirectory();
    std::string candidate = Poco::Path(directory, name.getFileName()).toString();
    // Never onto a damaged file or the sample, never twice onto one name.
    for (int n = 1; IsProtected(candidate) || destinationsUsed_.count(candidate) > 0; ++n) {
        std::string suffix = n == 1 ? "_repaired" : "_repaired" + std::to_string(n);
        Poco::Path renamed(directory, name.getBaseName() + suffix);
        if (!name.getExtension().empty()) renamed.setExtension(name.getExtension());
        candidate = renamed.toString();
    }
    destinationsUsed_.insert(candidate);
    return candidate;
}

void HostApp::Classify(const RepairOutcome& outcome, FileResult& file) const {
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
        // The library names it relative to the damaged path as given; ours is the same folder.
        file.repairedPath = Poco::Path(outcome.repairedPath).absolute().toString();
        if (outcome.cancelled) file.error = "cancelled: the repaired file holds what was found until then";
        return;
    }
    if (ffmpegMissing) {
        file.status = "ffmpeg-missing";
        file.exitCode = exit_codes::kFfmpegMissing;
        file.error = "ffmpeg not found beside the videorepair program (" + outcome.error + ")";
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

// A device that would not give every byte, or a destination that would not take
// the result, gets its own exit code.
void HostApp::NoteFaults(const RepairOutcome& outcome, FileResult& file) const {
    file.unreadable = outcome.unreadable;
    if (file.exitCode == exit_codes::kOk && !file.unreadable.empty()) {
        int64_t lost = 0;
        for (const ByteRange& range : file.unreadable) lost += range.length;
        file.exitCode = exit_codes::kPartlyRecovered;
        file.error = "partly recovered: " + std::to_string(lost) + " bytes of the damaged file could not be read";
    }
    if (file.status == "failed" && file.error.find("writing the repaired file failed") != std::string::npos) {
        file.status = "save-failed";
        file.exitCode = exit_codes::kSaveFailed;
        file.error = outcome.judge.reason;  // names the cause and the folder
    }
}

FileResult HostApp::Process(RepairSession& session, const std::string& input, size_t position) {
    FileResult file;
    file.input = input;
    file.method = run_.command;
    file.road = run_.road;
    if (session.CancelRequested()) {
        file.status = "skipped";
        file.exitCode = exit_codes::kCancelled;
        file.error = "skipped after Ctrl-C";
        return file;
    }
    std::string reason = UnreadableReason(input);
    if (!reason.empty()) {
        file.status = "missing";
        file.exitCode = exit_codes::kMissingFile;
        file.error = "damaged file " + reason;
        return file;
    }
    std::string label = Poco::Path(input).getFileName();
    if (options_.inputs.size() > 1) {
        label = "[" + std::to_string(position + 1) + "/" + std::to_string(options_.inputs.size()) + "] " + label;
    }
    RepairRequest request;
    request.road = options_.command == CliCommand::kRemux ? RepairRoad::kRemux
                   : Thorough()                           ? RepairRoad::kThorough
                                                          : RepairRoad::kCompatible;
    request.sample = options_.sample;
    request.fullCheck = options_.fullCheck;
    if (Thorough() && !options_.output.empty()) {
        // The library writes straight there, so nothing is left beside the damaged file.
        request.outputPath = DestinationFor(input);
        std::filesystem::path folder = std::filesystem::u8path(request.outputPath).parent_path();
        std::error_code ec;
        if (!folder.empty()) std::filesystem::create_directories(folder, ec);
        if (ec) {
            file.status = "save-failed";
            file.exitCode = exit_codes::kSaveFailed;
            file.error = "cannot create the folder of " + request.outputPath + ": " + ec.message();
            return file;
        }
    }
    RepairOutcome outcome = session.Run(input, request, label);
    file.libraryCalled = true;
    file.libraryResult = outcome.result;
    file.seconds = outcome.seconds;
    Classify(outcome, file);
    NoteFaults(outcome, file);
    if (outcome.judged && outcome.started) {
        file.judged = true;
        file.judge.verdict = outcome.judge.verdict;
        file.judge.reason = outcome.judge.reason;
        file.judge.damaged = outcome.judge.damaged;
        file.judge.repaired = outcome.judge.repaired;
        file.judge.seconds = outcome.judge.judgeSeconds;
    }
    if (!request.outputPath.empty()) {
        if (!file.repairedPath.empty()) file.savedPath = file.repairedPath;
    } else if (!file.repairedPath.empty() && !options_.output.empty()) {
        std::string destination = DestinationFor(input);
        std::string error;
        if (session.Save(input, destination, error)) {
            file.savedPath = Poco::Path(destination).absolute().toString();
        } else {
            file.status = "save-failed";
            file.exitCode = exit_codes::kSaveFailed;
            file.error = "could not save to " + destination + ": " + error;
        }
    }
    if (outcome.started) {
        file.damaged = ProbeMedia(input);
        if (!file.repairedPath.empty()) file.repaired = ProbeMedia(file.repairedPath);
        file.probed = true;
    }
    return file;
}

int HostApp::Run() {
    console::DetachStandardInput();
    console::InstallInterruptHandlers();
    if (!PrepareOutput() || !CheckSample() || !PrepareDirectories()) return Finish();

    RepairSession session(display_);
    std::string error;
    if (!session.Open(options_.logDirectory, options_.workDirectory, error)) {
        Fail(error, exit_codes::kLibraryError);
        return Finish();
    }
    if (!options_.sample.empty()) {
        run_.sampleFacts = ProbeMedia(options_.sample);
        run_.sampleProbed = true;
    }
    for (size_t i = 0; i < options_.inputs.size(); ++i) {
        FileResult file = Process(session, options_.inputs[i], i);
        if (IsFailure(file) && file.status != "skipped") {
            std::fprintf(stderr, "videorepair: %s: %s\n", file.input.c_str(), file.error.c_str());
        }
        if (!options_.json) PrintFileReport(stdout, file, run_);
        run_.files.push_back(file);
    }
    // A Ctrl-C that lands after the last repair ended cancelled nothing.
    run_.cancelled = std::any_of(run_.files.begin(), run_.files.end(), [](const FileResult& f) {
        return f.status == "cancelled" || f.status == "skipped";
    });
    return Finish();
}

int HostApp::Finish() {
    if (run_.exitCode == exit_codes::kOk) {
        for (const FileResult& file : run_.files) {
            if (IsFailure(file)) {
                run_.exitCode = file.exitCode;
                break;
            }
        }
        if (run_.cancelled) run_.exitCode = exit_codes::kCancelled;
    }
    if (options_.json) {
        PrintJson(stdout, run_);
    } else if (run_.files.size() > 1) {
        PrintSummaryTable(stdout, run_);
    }
    std::fflush(stdout);
    return run_.exitCode;
}
