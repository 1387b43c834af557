// videorepair: the command-line host of lib_videorepair.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include "CliOptions.h"
#include "Console.h"
#include "ExitCodes.h"
#include "HostApp.h"

namespace {

void PrintVersions() {
    std::printf("videorepair %s\n", VIDEOREPAIR_VERSION);
    // The tool is built with the library of the same source tree.
    std::printf("lib_videorepair %s\n", VIDEOREPAIR_VERSION);
    std::printf("FFmpeg %s (%s)\n", av_version_info(), LIBAVFORMAT_IDENT);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::vector<std::string> args = console::Utf8Arguments(argc, argv);
        ParsedCommandLine parsed = ParseCommandLine(args);
        if (!parsed.ok) {
            std::fprintf(stderr, "videorepair: %s\n%sTry 'videorepair --help' for more.\n", parsed.error.c_str(),
                         UsageText().c_str());
            return exit_codes::kUsage;
        }
        if (parsed.options.command == CliCommand::kHelp) {
            std::fputs(HelpText().c_str(), stdout);
            return exit_codes::kOk;
        }
        if (parsed.options.command == CliCommand::kVersion) {
            PrintVersions();
            return exit_codes::kOk;
        }
        if (!parsed.options.workerDirectory.empty()) return RunWorker(parsed.options);
        return HostApp(parsed.options).Run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "videorepair: unexpected error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "videorepair: unexpected error\n");
    }
    return exit_codes::kLibraryError;
}
