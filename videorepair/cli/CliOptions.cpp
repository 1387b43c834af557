#include "CliOptions.h"

#include <sstream>

#include "ExitCodes.h"

namespace {

struct ValueOption {
    const char* shortName;  // may be empty
    const char* longName;
    std::string CliOptions::*target;  // null for flags
};

const ValueOption kValueOptions[] = {
    {"-s", "--sample", &CliOptions::sample},
    {"-o", "--output", &CliOptions::output},
    {"", "--log-dir", &CliOptions::logDirectory},
    {"", "--work-dir", &CliOptions::workDirectory},
    {"", "--report", &CliOptions::report},
    {"", "--contact-sheet", &CliOptions::contactSheet},
};

const ValueOption* FindValueOption(const std::string& name) {
    for (const ValueOption& option : kValueOptions) {
        if (name == option.longName || (option.shortName[0] != '\0' && name == option.shortName)) return &option;
    }
    return nullptr;
}

class Parser {
public:
    explicit Parser(const std::vector<std::string>& args) : args_(args) {}

    ParsedCommandLine Run() {
        std::vector<std::string> positional;
        bool optionsEnded = false;
        for (index_ = 0; index_ < args_.size(); ++index_) {
            const std::string& arg = args_[index_];
            if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
                positional.push_back(arg);
            } else if (arg == "--") {
                optionsEnded = true;
            } else if (!TakeOption(arg)) {
                return result_;
            }
        }
        if (wantsHelp_) return Finish(CliCommand::kHelp);
        if (wantsVersion_) return Finish(CliCommand::kVersion);
        return TakeCommand(positional);
    }

private:
    bool TakeOption(const std::string& arg) {
        if (arg == "-h" || arg == "--help") return wantsHelp_ = true;
        if (arg == "-V" || arg == "--version") return wantsVersion_ = true;
        if (arg == "--json") return result_.options.json = true;
        if (arg == "-q" || arg == "--quiet") return result_.options.quiet = true;
        if (arg == "--compatible") return result_.options.compatible = true;
        if (arg == "--full-check") return result_.options.fullCheck = true;

        std::string name = arg;
        std::string value;
        bool hasValue = false;
        size_t equals = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
            hasValue = true;
        }
        const ValueOption* option = FindValueOption(name);
        if (option == nullptr) return Fail("unknown option '" + arg + "'");
        if (!hasValue) {
            if (index_ + 1 >= args_.size()) return Fail("option " + name + " needs a value");
            value = args_[++index_];
        }
        if (value.empty()) return Fail("option " + name + " needs a non-empty value");
        std::string& slot = result_.options.*(option->target);
        if (!slot.empty()) return Fail("option " + name + " given twice");
        slot = value;
        return true;
    }

    ParsedCommandLine TakeCommand(const std::vector<std::string>& positional) {
        if (positional.empty()) {
            Fail("no command given (repair or remux)");
            return result_;
        }
        const std::string& verb = positional.front();
        CliOptions& o = result_.options;
        o.inputs.assign(positional.begin() + 1, positional.end());
        if (verb == "repair") {
            o.command = CliCommand::kRepair;
            if (o.compatible && o.sample.empty()) Fail("repair --compatible needs a sample file: --sample SAMPLE");
            if (o.compatible && o.fullCheck) Fail("--full-check is for the thorough repair; drop --compatible");
        } else if (verb == "remux") {
            o.command = CliCommand::kRemux;
            if (!o.sample.empty()) Fail("remux uses no sample; drop --sample or use repair");
            if (o.compatible || o.fullCheck) Fail("--compatible and --full-check are repair options");
        } else if (verb == "help") {
            return Finish(CliCommand::kHelp);
        } else {
            Fail("unknown command '" + verb + "' (expected repair or remux)");
        }
        if (result_.error.empty() && o.inputs.empty()) Fail(verb + " needs at least one damaged file");
        if (result_.error.empty()) result_.ok = true;
        return result_;
    }

    ParsedCommandLine Finish(CliCommand command) {
        result_.options.command = command;
        result_.ok = true;
        return result_;
    }

    bool Fail(const std::string& error) {
        if (result_.error.empty()) result_.error = error;
        result_.ok = false;
        return false;
    }

    const std::vector<std::string>& args_;
    size_t index_ = 0;
    bool wantsHelp_ = false;
    bool wantsVersion_ = false;
    ParsedCommandLine result_;
};

}  // namespace

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args) { return Parser(args).Run(); }

std::string UsageText() {
    return "usage: videorepair repair DAMAGED... [--sample SAMPLE] [-o OUTPUT] [--full-check] [options]\n"
           "       videorepair repair --compatible DAMAGED... --sample SAMPLE [-o OUTPUT] [options]\n"
           "       videorepair remux DAMAGED... [-o OUTPUT] [options]\n"
           "       videorepair --help | --version\n";
}

std::string HelpText() {
    std::ostringstream text;
    text << "videorepair - repairs damaged video files with lib_videorepair\n\n"
         << UsageText()
         << "\nCommands:\n"
            "  repair     repair each damaged file thoroughly with the engine for its container\n"
            "             (avi, flv, mkv, mts/m2ts, mxf/klv, wmv/asf, mpeg/mpg, and the MP4\n"
            "             family: mp4, mov, 3gp, 3g2, m4v, insv, 360): what the file's\n"
            "             own structure gives, what can be carved from the rest and what the\n"
            "             SAMPLE restores are written and judged against the damaged file as it\n"
            "             is; the better one is kept (rebuilt, remuxed, or as is). The sample, a\n"
            "             healthy file from the same device, is optional; one serves all files\n"
            "  remux      copy the streams of each damaged file into a new container with\n"
            "             ffmpeg (no sample needed); often enough for a truncated file\n"
            "\nOptions:\n"
            "  -s, --sample SAMPLE  healthy file from the same camera (repair only)\n"
            "      --compatible     repair as earlier versions did: the engine rebuilds the file\n"
            "                       from the SAMPLE (required) and nothing is judged\n"
            "      --full-check     the thorough repair's judge decodes every video frame (slower)\n"
            "  -o, --output PATH    put the result there (a thorough repair writes it there\n"
            "                       directly; others are copied); with several damaged files, or\n"
            "                       when PATH is an existing directory, PATH is a directory and\n"
            "                       each result keeps its damaged file's name\n"
            "      --log-dir DIR    where the library writes KzVideoRepair.log (default: the\n"
            "                       work directory)\n"
            "      --work-dir DIR   where remux results are made, under RepairedVideo/\n"
            "                       (default: $TMPDIR/VR, or /tmp/VR)\n"
            "      --json           print one JSON object with every result on standard output;\n"
            "                       progress then goes to standard error\n"
            "      --report PAGE    write a page that shows what was saved: the damaged file's\n"
            "                       bytes by what became of them, the gaps, frames of the\n"
            "                       result; with several files PAGE indexes one page per file\n"
            "      --contact-sheet PNG  the repaired video's frames, with their times, as one image\n"
            "  -q, --quiet          no progress display\n"
            "  -h, --help           this text\n"
            "  -V, --version        the program's version\n"
            "\nWhile a repair runs:\n"
            "  Ctrl-C once          cancel: the engine keeps what it found and the repaired file is\n"
            "                       still written; remaining files are skipped\n"
            "  Ctrl-C twice         quit at once\n"
            "  Ctrl-Z               pause / resume the engine (the program stays in the foreground;\n"
            "                       an ffmpeg remux cannot be paused)\n"
            "\nThe damaged files are only read, never changed. Without -o an engine repair is\n"
            "written beside its damaged file under a new unique name; a remux under\n"
            "WORKDIR/RepairedVideo/. With -o a thorough repair leaves nothing beside the damaged file.\n"
            "\nExit codes:\n";
    for (const exit_codes::Meaning& m : exit_codes::kAll) {
        text << "  " << (m.code < 10 ? "  " : "") << m.code << "  " << m.text << "\n";
    }
    text << "With several files the exit code is that of the first file that did not succeed.\n";
    return text.str();
}
