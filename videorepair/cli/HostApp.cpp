#include "HostApp.h"

#include <Poco/Environment.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Console.h"
#include "ExitCodes.h"
#include "ReportRun.h"
#include "Unreadable.h"
#include "WorkerFiles.h"
#include "WorkerPool.h"

namespace {

namespace fs = std::filesystem;


std::string ReadText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Exists(const std::string& path) {
    std::error_code ec;
    return fs::exists(fs::u8path(path), ec);
}

// ffmpeg's question, answered on the terminal; anything but y or yes is no.
bool AskToOverwrite(const std::string& path) {
    std::fprintf(stderr, "File '%s' already exists. Overwrite? [y/N] ", path.c_str());
    std::fflush(stderr);
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace

std::string UnreadableReason(const std::string& path) {
    std::error_code ec;
    fs::path file = fs::u8path(path);
    if (!fs::exists(file, ec)) return "not found";
    if (!fs::is_regular_file(file, ec)) return "not a regular file";
    std::ifstream in(file, std::ios::binary);
    if (!in) return "cannot be read (permission denied?)";
    return std::string();
}

HostApp::HostApp(CliOptions options) : options_(std::move(options)) {
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

bool HostApp::CheckFfmpeg() {
    if (options_.ffmpeg.empty()) return true;
    std::error_code ec;
    fs::path program = fs::absolute(fs::u8path(options_.ffmpeg), ec);
    if (ec || !fs::is_regular_file(program, ec)) {
        Fail("--ffmpeg " + options_.ffmpeg + ": no such program", exit_codes::kFfmpegMissing);
        return false;
    }
    // The library reads it when it looks for ffmpeg; workers inherit it.
    Poco::Environment::set("VIDEOREPAIR_FFMPEG", program.u8string());
    return true;
}

bool HostApp::CheckSample() {
    if (options_.command != CliCommand::kRepair || options_.sample.empty()) return true;
    std::string reason = UnreadableReason(options_.sample);
    if (reason.empty()) {
        std::string failure = ReadThroughFailure(options_.sample);
        if (!failure.empty()) reason = "cannot be read: " + failure;
    }
    if (reason.empty()) return true;
    Fail("sample " + options_.sample + ": " + reason, exit_codes::kMissingFile);
    return false;
}

void HostApp::Report(const FileResult& file, const std::string& jsonLine, const std::string& humanText) {
    if (file.exitCode != exit_codes::kOk && file.status != "skipped") {
        std::fprintf(stderr, "videorepair: %s: %s\n", file.input.c_str(), file.error.c_str());
    }
    std::string text = options_.json ? jsonLine + "\n" : humanText;
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    run_.files.push_back(file);
}

void HostApp::Skip(const PlannedFile& planned, const std::string& status, int exitCode, const std::string& error) {
    FileResult file;
    file.input = planned.input;
    file.method = run_.command;
    file.road = run_.road;
    file.status = status;
    file.exitCode = exitCode;
    file.error = error;
    if (status == "exists") file.advice = "-y replaces it, -n skips it without an error";
    // A missing file was named on standard error already.
    Report(file, FileJsonLine(file, run_), status == "missing" ? std::string() : FileReport(file, run_));
}

bool HostApp::MayWrite(const PlannedFile& planned, FileResult& refused) {
    if (!Exists(planned.destination) || options_.overwrite == OverwritePolicy::kYes) return true;
    refused.input = planned.input;
    if (options_.overwrite == OverwritePolicy::kNever) {
        refused.status = "skipped";
        refused.exitCode = exit_codes::kOk;
        refused.error = planned.destination + " exists: kept (-n)";
        return false;
    }
    if (console::CanAsk() && AskToOverwrite(planned.destination)) return true;
    refused.status = "exists";
    refused.exitCode = exit_codes::kOutputExists;
    refused.error = planned.destination + " already exists; not overwritten";
    return false;
}

bool HostApp::PlanFiles() {
    InputPlan plan(options_);
    std::string error;
    if (!plan.CheckOutput(options_.inputs.size(), error)) {
        Fail(error, exit_codes::kUsage);
        return false;
    }
    std::vector<std::string> skipped;
    std::vector<std::string> inputs = plan.Expand(skipped);
    for (const std::string& reason : skipped) std::fprintf(stderr, "videorepair: skipping %s\n", reason.c_str());
    if (inputs.empty()) {
        Fail("nothing to repair: no video file among the damaged files and folders given", exit_codes::kMissingFile);
        return false;
    }
    total_ = inputs.size();
    for (const std::string& input : inputs) {
        PlannedFile planned;
        planned.input = input;
        std::string reason = UnreadableReason(input);
        if (!reason.empty()) {
            Skip(planned, "missing", exit_codes::kMissingFile, "damaged file " + reason);
            continue;
        }
        planned = plan.Plan(input);
        FileResult refused;
        if (!MayWrite(planned, refused)) {
            Skip(planned, refused.status, refused.exitCode, refused.error);
            continue;
        }
        if (!planned.note.empty()) std::fprintf(stderr, "videorepair: %s\n", planned.note.c_str());
        pending_.push_back({planned, pending_.size()});
    }
    return true;
}

std::string HostApp::ProgressStyle() const {
    if (options_.quiet) return "none";
    // Several workers drawing one bar each on a terminal would overwrite each other.
    if (options_.jobs > 1 || !console::IsTerminal(stderr)) return "lines";
    return "bar";
}

std::vector<std::string> HostApp::WorkerArgs(const Pending& pending) const {
    std::string label = fs::u8path(pending.plan.input).filename().u8string();
    if (total_ > 1)
        label = "[" + std::to_string(pending.index + 1) + "/" + std::to_string(pending_.size()) + "] " + label;
    std::vector<std::string> args = WorkerArguments(options_);
    // name=value forms, so that a name starting with '-' is never taken for an option.
    args.push_back("--worker=" + workDirectory_.FileDirectory(pending.index));
    args.push_back("--progress=" + ProgressStyle());
    args.push_back("--label=" + label);
    args.push_back("--output=" + pending.plan.destination);
    if (!pending.plan.note.empty()) args.push_back("--note=" + pending.plan.note);
    // The record costs a walk over the result's packets: only for those who show it.
    if (options_.json || !options_.report.empty() || !options_.contactSheet.empty()) args.push_back("--record");
    args.push_back("--index=" + std::to_string(pending.index));
    args.push_back("--count=" + std::to_string(pending_.size()));
    args.push_back("--");
    args.push_back(pending.plan.input);
    return args;
}

void HostApp::Collect(const Pending& pending, int exitCode) {
    fs::path directory = fs::u8path(workDirectory_.FileDirectory(pending.index));
    std::string line = ReadText(directory / kResultFile);
    FileResult file;
    if (!ReadFileJsonLine(line, file)) {
        file = FileResult();
        file.method = run_.command;
        file.road = run_.road;
        file.status = "failed";
        file.exitCode = exit_codes::kRepairFailed;
        file.error = "the repair process ended without a result (exit code " + std::to_string(exitCode) + ")";
        if (exitCode == exit_codes::kWorkFolderFull) {
            file.status = "save-failed";
            file.exitCode = exit_codes::kSaveFailed;
            file.error = "no space left (or no access) in the work folder " + workDirectory_.Path() +
                         ": free some space there or give another with --work-dir";
        }
        file.input = pending.plan.input;
        Report(file, FileJsonLine(file, run_), FileReport(file, run_));
        KeepLog(directory);
        return;
    }
    file.input = pending.plan.input;  // JSON holds a UTF-8 rendering; the name itself may be any bytes
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    Report(file, line, ReadText(directory / kReportFile));
    KeepLog(directory);
    // Nothing the library made for this file stays behind.
    std::error_code ec;
    fs::remove_all(directory, ec);
}

void HostApp::KeepLog(const fs::path& fileDirectory) const {
    if (options_.logDirectory.empty()) return;
    std::error_code ec;
    fs::create_directories(fs::u8path(options_.logDirectory), ec);
    // One file's lines after another's, never interleaved: only the tool writes here.
    std::ofstream out(fs::u8path(options_.logDirectory) / kLogFile, std::ios::binary | std::ios::app);
    out << ReadText(fileDirectory / kLogFolder / kLogFile);
}

bool HostApp::StartNext(WorkerPool& pool, size_t& next) {
    const Pending& pending = pending_[next++];
    std::string error;
    if (pool.Start(pending.index, WorkerArgs(pending), error)) return true;
    Fail(error, exit_codes::kLibraryError);
    return false;
}

int HostApp::RunWorkers() {
    WorkerPool pool(size_t(options_.jobs));
    size_t next = 0;
    int interruptsSeen = 0, togglesSeen = 0, continuesSeen = 0;
    bool cancelled = false;
    while (next < pending_.size() || !pool.Idle()) {
        int interrupts = console::InterruptCount();
        if (interrupts >= 2) {
            std::fprintf(stderr, "\nvideorepair: interrupted again, quitting at once\n");
            pool.KillAll();
            workDirectory_.Remove();
            return exit_codes::kInterrupted;
        }
        if (interrupts > interruptsSeen) {
            interruptsSeen = interrupts;
            cancelled = true;
            pool.Forward(console::Request::kInterrupt);
        }
        if (console::PauseToggleCount() > togglesSeen) {
            togglesSeen = console::PauseToggleCount();
            pool.Forward(console::Request::kPauseToggle);
        }
        if (console::ContinueCount() > continuesSeen) {
            continuesSeen = console::ContinueCount();
            pool.Forward(console::Request::kContinue);
        }
        while (!cancelled && next < pending_.size() && pool.HasRoom()) {
            if (!StartNext(pool, next)) cancelled = true;
        }
        if (cancelled) {
            for (; next < pending_.size(); ++next) {
                Skip(pending_[next].plan, "skipped", exit_codes::kCancelled, "skipped after Ctrl-C");
            }
        }
        for (const WorkerPool::Finished& done : pool.Collect()) Collect(pending_[done.tag], done.exitCode);
    }
    return exit_codes::kOk;
}

int HostApp::Run() {
    if (!CheckFfmpeg() || !CheckSample() || !PlanFiles()) return Finish();
    if (!pending_.empty()) {
        // Until now Ctrl-C simply ends the program (as at ffmpeg's question):
        // nothing was made yet.
        console::InstallInterruptHandlers(false);
        std::string error;
        if (!workDirectory_.Create(options_.workDirectory, error)) {
            Fail(error, exit_codes::kLibraryError);
            return Finish();
        }
        // Questions are over; workers and ffmpeg must not read the terminal.
        console::DetachStandardInput();
        if (RunWorkers() == exit_codes::kInterrupted) return exit_codes::kInterrupted;
    }
    run_.cancelled = console::InterruptCount() > 0 &&
                     std::any_of(run_.files.begin(), run_.files.end(), [](const FileResult& f) {
                         return f.status == "cancelled" || f.status == "skipped";
                     });
    return Finish();
}

int HostApp::Finish() {
    workDirectory_.Remove();
    if (run_.exitCode == exit_codes::kOk) {
        for (const FileResult& file : run_.files) {
            if (file.exitCode != exit_codes::kOk) {
                run_.exitCode = file.exitCode;
                break;
            }
        }
        if (run_.cancelled) run_.exitCode = exit_codes::kCancelled;
    }
    // Each file's page came from its worker; several files also get an index.
    ReportRun(options_.report, std::string(), pending_.size()).Finish(run_);
    if (options_.json && !run_.error.empty() && run_.files.empty()) {
        // A run that failed before any file still answers with one line.
        FileResult failure;
        failure.method = run_.command;
        failure.road = run_.road;
        failure.status = "failed";
        failure.exitCode = run_.exitCode;
        failure.error = run_.error;
        std::printf("%s\n", FileJsonLine(failure, run_).c_str());
    } else if (!options_.json && run_.files.size() > 1) {
        PrintSummaryTable(stdout, run_);
    }
    std::fflush(stdout);
    return run_.exitCode;
}
