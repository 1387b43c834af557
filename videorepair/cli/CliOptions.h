// The command line of `videorepair`: what the user asked for, or why it is wrong.
#pragma once

#include <string>
#include <vector>

enum class CliCommand { kRepair, kRemux, kHelp, kVersion };

struct CliOptions {
    CliCommand command = CliCommand::kHelp;
    std::vector<std::string> inputs;  // damaged files, in the order given
    std::string sample;
    std::string output;  // -o: a file for one input, a directory for several
    std::string logDirectory;
    std::string workDirectory;
    bool compatible = false;  // repair: Repair with a sample instead of the thorough repair
    bool fullCheck = false;   // thorough repair: the judge decodes every video frame
    bool json = false;
    bool quiet = false;  // no progress display
    std::string report;        // --report: the page (an index page for several files)
    std::string contactSheet;  // --contact-sheet: the frames as one PNG
};

struct ParsedCommandLine {
    bool ok = false;
    std::string error;  // for the user, without the program name
    CliOptions options;
};

// args excludes the program name.
ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args);

std::string UsageText();
std::string HelpText();
