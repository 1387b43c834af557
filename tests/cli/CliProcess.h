// Runs the built `videorepair` program as a user runs it, with its standard
// output and error captured apart, optionally in a process group of its own
// as a shell puts a job, so that a test can send the terminal's Ctrl-C.
#pragma once

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.h"

extern char** environ;

namespace cli_testing {

namespace fs = std::filesystem;

constexpr int kRepairFailed = 1;
constexpr int kUsage = 2;
constexpr int kUnsupported = 3;
constexpr int kMissingFile = 4;
constexpr int kFfmpegMissing = 5;
constexpr int kCancelled = 7;
constexpr int kUnplayable = 9;
constexpr int kOutputExists = 10;

inline std::string Program() { return testing_support::BinDir() + "/videorepair"; }

struct Launch {
    std::string program = Program();
    bool ownGroup = false;        // as a shell starts a job: the test can signal the whole group
    std::vector<std::string> wrapper;  // e.g. setpriv ... to run as another user
    std::string cwd;                   // empty: the test's own
};

class CliProcess {
public:
    explicit CliProcess(const std::vector<std::string>& args, const Launch& launch = Launch()) {
        std::vector<std::string> argv = launch.wrapper;
        argv.push_back(launch.program);
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> raw;
        for (auto& a : argv) raw.push_back(const_cast<char*>(a.c_str()));
        raw.push_back(nullptr);
        int outPipe[2], errPipe[2];
        if (pipe(outPipe) != 0 || pipe(errPipe) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        if (!launch.cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, launch.cwd.c_str());
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) posix_spawn_file_actions_addclose(&actions, fd);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        if (launch.ownGroup) {
            posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
            posix_spawnattr_setpgroup(&attributes, 0);
        }
        if (posix_spawnp(&pid_, raw[0], &actions, &attributes, raw.data(), environ) != 0) pid_ = -1;
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        close(outPipe[1]);
        close(errPipe[1]);
        outFd_ = outPipe[0];
        errFd_ = errPipe[0];
    }

    ~CliProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
    }

    // Reads output until stderr holds text or both pipes are closed.
    bool WaitForStderr(const std::string& text) {
        while (err.find(text) == std::string::npos) {
            if (!ReadSome()) return false;
        }
        return true;
    }

    // Reads output until path exists or both pipes are closed.
    bool WaitForFile(const std::string& path) {
        while (!fs::exists(path)) {
            if (!ReadSome(100)) return false;
        }
        return true;
    }

    void Signal(int signalNumber) {
        if (pid_ > 0) kill(pid_, signalNumber);
    }
    // To every process of the program's group, as a terminal sends Ctrl-C.
    void SignalGroup(int signalNumber) {
        if (pid_ > 0) kill(-pid_, signalNumber);
    }

    // Exit code, or 128 + signal.
    int Wait() {
        while (ReadSome()) {
        }
        if (pid_ <= 0) return -1;
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string out;
    std::string err;

private:
    // false once both pipes are closed; with a timeout, true when it passes.
    bool ReadSome(int timeoutMs = -1) {
        std::vector<pollfd> fds;
        for (int fd : {outFd_, errFd_}) {
            if (fd >= 0) fds.push_back({fd, POLLIN, 0});
        }
        if (fds.empty()) return false;
        if (poll(fds.data(), nfds_t(fds.size()), timeoutMs) < 0) return false;
        for (const pollfd& p : fds) {
            if ((p.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buffer[4096];
            ssize_t n = read(p.fd, buffer, sizeof buffer);
            int& fd = p.fd == outFd_ ? outFd_ : errFd_;
            std::string& sink = p.fd == outFd_ ? out : err;
            if (n > 0) {
                sink.append(buffer, size_t(n));
            } else {
                close(fd);
                fd = -1;
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
};

struct CliRun {
    int code;
    std::string out;
    std::string err;
};

inline CliRun RunCli(const std::vector<std::string>& args, const Launch& launch = Launch()) {
    CliProcess process(args, launch);
    int code = process.Wait();
    return {code, process.out, process.err};
}

inline Poco::JSON::Object::Ptr ParseJson(const std::string& text) {
    Poco::JSON::Parser parser;
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

// --json prints one object per line, one line per file.
inline std::vector<Poco::JSON::Object::Ptr> JsonLines(const std::string& out) {
    std::vector<Poco::JSON::Object::Ptr> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(ParseJson(line));
    return lines;
}

inline std::string Truncated(const std::string& source, double keep, const std::string& target) {
    std::string bytes = testing_support::ReadFile(source);
    testing_support::WriteFile(target, bytes.substr(0, size_t(double(bytes.size()) * keep)));
    return target;
}

// What a run left in its work directory: nothing, once it has ended.
inline size_t EntriesIn(const std::string& directory) {
    std::error_code ec;
    size_t n = 0;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) ++n;
    return n;
}

}  // namespace cli_testing
