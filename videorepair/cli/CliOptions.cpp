#include "CliOptions.h"

#include <CLI/CLI.hpp>

#include <sstream>

#include "ExitCodes.h"

namespace {

// What the user typed, before the checks that need several options at once.
struct RawCommandLine {
    std::vector<std::string> words;  // the command, then the damaged files
    bool help = false;
    bool version = false;
    bool yes = false;
    bool no = false;
};

const CLI::Validator kNonEmpty(
    [](std::string& value) { return value.empty() ? std::string("needs a non-empty value") : std::string(); }, "",
    "non-empty");

// The option table: one line per option. CLI11 gives combined short flags
// (-yv), --name=value, -oFILE and "--" for free.
void DefineOptions(CLI::App& app, CliOptions& o, RawCommandLine& raw) {
    app.add_option("words", raw.words)->expected(0, -1);
    app.add_option("-s,--sample", o.sample)->check(kNonEmpty);
    app.add_option("-o,--output", o.output)->check(kNonEmpty);
    app.add_option("--log-dir", o.logDirectory)->check(kNonEmpty);
    app.add_option("--work-dir", o.workDirectory)->check(kNonEmpty);
    app.add_option("--ffmpeg", o.ffmpeg)->check(kNonEmpty);
    app.add_option("-j,--jobs", o.jobs)->check(CLI::Range(1, 64));
    app.add_option("--report", o.report)->check(kNonEmpty);
    app.add_option("--contact-sheet", o.contactSheet)->check(kNonEmpty);
    app.add_flag("--compatible", o.compatible);
    app.add_flag("--full-check", o.fullCheck);
    app.add_flag("--json", o.json);
    app.add_flag("-q,--quiet", o.quiet);
    app.add_flag("-v,--verbose", o.verbose);
    app.add_flag("-y,--yes", raw.yes);
    app.add_flag("-n,--no", raw.no);
    app.add_flag("-h,--help", raw.help);
    app.add_flag("-V,--version", raw.version);
    app.add_option("--worker", o.workerDirectory)->check(kNonEmpty)->group("");
    app.add_option("--progress", o.workerProgress)->check(CLI::IsMember({"bar", "lines", "none"}))->group("");
    app.add_option("--label", o.workerLabel)->group("");
    app.add_option("--note", o.workerNote)->group("");
    app.add_flag("--record", o.workerRecord)->group("");
    app.add_option("--index", o.workerIndex)->check(CLI::NonNegativeNumber)->group("");
    app.add_option("--count", o.workerCount)->check(CLI::PositiveNumber)->group("");
}

// CLI11's messages, in this program's words where a user meets them most.
std::string Explain(const CLI::ParseError& error) {
    std::string text = error.what();
    const std::string extras = "The following argument was not expected: ";
    if (text.rfind(extras, 0) == 0) return "unknown option '" + text.substr(extras.size()) + "'";
    const std::string manyExtras = "The following arguments were not expected: ";
    if (text.rfind(manyExtras, 0) == 0) return "unknown options '" + text.substr(manyExtras.size()) + "'";
    return text;
}

bool Fail(ParsedCommandLine& result, const std::string& error) {
    result.ok = false;
    result.error = error;
    return false;
}

// The checks that look at several options together.
bool CheckCommand(ParsedCommandLine& result, const RawCommandLine& raw) {
    CliOptions& o = result.options;
    if (raw.yes && raw.no) return Fail(result, "-y and -n contradict each other");
    o.overwrite = raw.yes ? OverwritePolicy::kYes : raw.no ? OverwritePolicy::kNever : OverwritePolicy::kAsk;
    if (raw.words.empty()) return Fail(result, "no command given (repair or remux)");
    const std::string& verb = raw.words.front();
    o.inputs.assign(raw.words.begin() + 1, raw.words.end());
    if (verb == "repair") {
        o.command = CliCommand::kRepair;
        if (o.compatible && o.sample.empty())
            return Fail(result, "repair --compatible needs a sample file: --sample SAMPLE");
        if (o.compatible && o.fullCheck)
            return Fail(result, "--full-check is for the thorough repair; drop --compatible");
    } else if (verb == "remux") {
        o.command = CliCommand::kRemux;
        if (!o.sample.empty()) return Fail(result, "remux uses no sample; drop --sample or use repair");
        if (o.compatible || o.fullCheck) return Fail(result, "--compatible and --full-check are repair options");
    } else if (verb == "help") {
        o.command = CliCommand::kHelp;
        return true;
    } else {
        return Fail(result, "unknown command '" + verb + "' (expected repair or remux)");
    }
    if (o.inputs.empty()) return Fail(result, verb + " needs at least one damaged file or folder");
    if (!o.workerDirectory.empty() && o.inputs.size() != 1) return Fail(result, "a worker repairs one file");
    return true;
}

}  // namespace

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args) {
    ParsedCommandLine result;
    RawCommandLine raw;
    CLI::App app("videorepair");
    app.set_help_flag();  // our own --help, with the exit codes
    DefineOptions(app, result.options, raw);
    try {
        // CLI11 takes the arguments in reverse order.
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        Fail(result, Explain(error));
        return result;
    }
    if (raw.help || raw.version) {
        result.options.command = raw.help ? CliCommand::kHelp : CliCommand::kVersion;
        result.ok = true;
        return result;
    }
    result.ok = CheckCommand(result, raw);
    return result;
}

std::vector<std::string> WorkerArguments(const CliOptions& o) {
    std::vector<std::string> args = {o.command == CliCommand::kRemux ? "remux" : "repair"};
    if (!o.sample.empty()) args.push_back("--sample=" + o.sample);  // a name may start with '-'
    if (o.compatible) args.push_back("--compatible");
    if (o.fullCheck) args.push_back("--full-check");
    if (o.verbose) args.push_back("--verbose");
    if (!o.report.empty()) args.push_back("--report=" + o.report);
    if (!o.contactSheet.empty()) args.push_back("--contact-sheet=" + o.contactSheet);
    return args;
}

std::string UsageText() {
    return "usage: videorepair repair DAMAGED... [--sample SAMPLE] [-o OUTPUT] [--full-check] [options]\n"
           "       videorepair repair --compatible DAMAGED... --sample SAMPLE [-o OUTPUT] [options]\n"
           "       videorepair remux DAMAGED... [-o OUTPUT] [options]\n"
           "       videorepair --help | --version\n"
           "DAMAGED may be a folder: its video files are repaired, the sample and earlier results skipped.\n";
}

std::string HelpText() {
    std::ostringstream text;
    text << "videorepair - repairs damaged video files with lib_videorepair\n\n"
         << UsageText()
         << "\nCommands:\n"
            "  repair     repair each damaged file thoroughly with the engine for its container\n"
            "             (avi, flv, mkv, mts/m2ts, mxf/klv, wmv/asf, mpeg/mpg, and the MP4\n"
            "             family: mp4, mov, 3gp, 3g2, m4v, insv, 360, in any letter case):\n"
            "             what the file's own structure gives, what can be carved from the rest\n"
            "             and what the SAMPLE restores are written and judged against the damaged\n"
            "             file as it is; the better one is kept (rebuilt, remuxed, or as is). The\n"
            "             sample, a healthy file from the same device, is optional; one serves all\n"
            "  remux      copy the streams of each damaged file into a new container with\n"
            "             ffmpeg (no sample needed); often enough for a truncated file\n"
            "\nOptions:\n"
            "  -s, --sample SAMPLE  healthy file from the same camera (repair only)\n"
            "      --compatible     repair as earlier versions did: the engine rebuilds the file\n"
            "                       from the SAMPLE (required) and nothing is judged\n"
            "      --full-check     the thorough repair's judge decodes every video frame (slower)\n"
            "  -o, --output PATH    put the result there; with several damaged files, a folder,\n"
            "                       or when PATH is an existing directory, PATH is a directory\n"
            "                       and each result keeps its damaged file's name\n"
            "  -y, --yes            replace results that already exist\n"
            "  -n, --no             never replace a result: skip its damaged file (for reruns)\n"
            "                       (neither: ask on a terminal, refuse otherwise)\n"
            "  -j, --jobs N         repair N files at once, each in a process of its own\n"
            "      --ffmpeg PATH    the ffmpeg program to run (default: beside this program,\n"
            "                       then $VIDEOREPAIR_FFMPEG, then the PATH)\n"
            "      --log-dir DIR    keep the library's log lines in DIR/KzVideoRepair.log, file\n"
            "                       after file (default: kept only while the run lasts)\n"
            "      --work-dir DIR   where this run's intermediates are made, in a folder of its\n"
            "                       own that is removed at the end (default: $TMPDIR/videorepair-UID)\n"
            "      --json           one JSON line per file on standard output, as each finishes\n"
            "      --report PAGE    write a page that shows what was saved: the damaged file's\n"
            "                       bytes by what became of them, the gaps, frames of the\n"
            "                       result; with several files PAGE indexes one page per file\n"
            "      --contact-sheet PNG  the repaired video's frames, with their times, as one image\n"
            "  -q, --quiet          no progress display\n"
            "  -v, --verbose        show the library's log lines on standard error\n"
            "  -h, --help           this text\n"
            "  -V, --version        the program's, the library's and FFmpeg's versions\n"
            "Short options combine: -yv is -y -v.\n"
            "\nWhile a repair runs:\n"
            "  Ctrl-C once          cancel: the engine keeps what it found and the repaired file is\n"
            "                       still written; remaining files are skipped\n"
            "  Ctrl-C twice         quit at once; the work directory is removed\n"
            "  Ctrl-Z               pause / resume the engine (the program stays in the foreground;\n"
            "                       an ffmpeg remux cannot be paused)\n"
            "\nThe damaged files are only read, never changed, and nothing is written beside them\n"
            "but the result: without -o it is NAME_repaired.EXT beside the damaged file, or in the\n"
            "current directory when that folder is read-only. Progress goes to standard error.\n"
            "\nExit codes:\n";
    for (const exit_codes::Meaning& m : exit_codes::kAll) {
        text << "  " << (m.code < 10 ? "  " : m.code < 100 ? " " : "") << m.code << "  " << m.text << "\n";
    }
    text << "With several files the exit code is that of the first file that did not succeed.\n";
    return text.str();
}
