// The command line of `videorepair`: what the user asked for, or why it is wrong.
#pragma once

#include <string>
#include <vector>

enum class CliCommand { kRepair, kRemux, kHelp, kVersion };

// What happens when a result's destination already exists.
enum class OverwritePolicy {
    kAsk,    // ask on a terminal, refuse otherwise
    kYes,    // -y: replace it
    kNever,  // -n: keep it and skip the file
};

struct CliOptions {
    CliCommand command = CliCommand::kHelp;
    std::vector<std::string> inputs;  // damaged files or folders, in the order given
    std::string sample;
    std::string output;  // -o: a file for one input, a directory for several
    std::string logDirectory;
    std::string workDirectory;
    std::string ffmpeg;  // --ffmpeg: the ffmpeg program the library runs
    bool compatible = false;  // repair: Repair with a sample instead of the thorough repair
    bool fullCheck = false;   // thorough repair: the judge decodes every video frame
    bool json = false;
    bool quiet = false;    // no progress display
    bool verbose = false;  // the library's log lines on standard error
    OverwritePolicy overwrite = OverwritePolicy::kAsk;
    int jobs = 1;
    std::string report;        // --report: the page (an index page for several files)
    std::string contactSheet;  // --contact-sheet: the frames as one PNG

    // Set by the tool for the process it starts per file; not for users.
    std::string workerDirectory;  // the file's own work directory
    std::string workerProgress;   // "bar", "lines" or "none"
    std::string workerLabel;      // how the progress display names the file
    std::string workerNote;       // where its result goes, when not where asked
    bool workerRecord = false;    // ask the library for its record of the repair
    int workerIndex = 0;          // the file's place in the run, and how many files the run has:
    int workerCount = 1;          // several files get a page and a sheet each
};

struct ParsedCommandLine {
    bool ok = false;
    std::string error;  // for the user, without the program name
    CliOptions options;
};

// args excludes the program name.
ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args);

// The arguments that give a worker process the file-independent options of
// options (the sample, the road, -v, ...); the caller adds the rest.
std::vector<std::string> WorkerArguments(const CliOptions& options);

std::string UsageText();
std::string HelpText();
