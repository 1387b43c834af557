#include <filesystem>
#include <fstream>
#include <system_error>

#include "Console.h"
#include "ExitCodes.h"
#include "FileRepair.h"
#include "HostApp.h"
#include "MediaReport.h"
#include "RepairSession.h"
#include "ReportRun.h"
#include "WorkerFiles.h"

namespace {

namespace fs = std::filesystem;

bool WriteText(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();  // a full disk shows only when the buffer is written out
    return !out.fail();
}

}  // namespace

int RunWorker(const CliOptions& options) {
    console::LeaveTerminalGroup();
    console::InstallInterruptHandlers(true);
    console::DetachStandardInput();
    ProgressDisplay::Style style = options.workerProgress == "bar"     ? ProgressDisplay::Style::kBar
                                   : options.workerProgress == "lines" ? ProgressDisplay::Style::kLines
                                                                       : ProgressDisplay::Style::kNone;
    ProgressDisplay display(stderr, style);
    RunSummary run;
    run.command = options.command == CliCommand::kRepair ? "repair" : "remux";
    if (options.command == CliCommand::kRepair) run.road = options.compatible ? "compatible" : "thorough";
    run.sample = options.sample;
    fs::path directory = fs::u8path(options.workerDirectory);
    // A log of this file's own: its errors can only be this repair's.
    std::string logDirectory = (directory / kLogFolder).u8string();
    std::error_code ec;
    fs::create_directories(fs::u8path(logDirectory), ec);
    FileResult file;
    {
        RepairSession session(display);
        std::string error;
        if (ec || !session.Open(logDirectory, directory.u8string(), options.verbose, error)) {
            file.input = options.inputs.front();
            file.method = run.command;
            file.road = run.road;
            file.status = "failed";
            file.exitCode = exit_codes::kLibraryError;
            file.error = ec ? "cannot create " + logDirectory + ": " + ec.message() : error;
        } else {
            if (!options.sample.empty()) {
                run.sampleFacts = ProbeMedia(options.sample);
                run.sampleProbed = true;
            }
            file = FileRepair(options, display).Run(session, options.inputs.front());
        }
    }
    file.note = options.workerNote;
    if (options.workerRecord) {
        ReportRun reports(options.report, options.contactSheet, size_t(options.workerCount));
        reports.AfterFile(file, run, (directory / kRecordFile).u8string(), size_t(options.workerIndex));
    }
    // A work folder that takes nothing more (a full disk) cannot hold the result
    // either: the tool hears of it by the exit code.
    if (!WriteText(directory / kReportFile, FileReport(file, run)) ||
        !WriteText(directory / kResultFile, FileJsonLine(file, run) + "\n"))
        return exit_codes::kWorkFolderFull;
    return file.exitCode;
}
