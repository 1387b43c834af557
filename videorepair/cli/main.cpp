// videorepair: the command-line host of lib_videorepair.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "CliOptions.h"
#include "Console.h"
#include "ExitCodes.h"
#include "HostApp.h"

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
            std::printf("videorepair %s\n", VIDEOREPAIR_VERSION);
            return exit_codes::kOk;
        }
        return HostApp(parsed.options).Run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "videorepair: unexpected error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "videorepair: unexpected error\n");
    }
    return exit_codes::kLibraryError;
}
