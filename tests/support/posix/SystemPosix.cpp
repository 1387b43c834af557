// POSIX side of the test helpers: children through posix_spawn.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/System.h"
#include "support/TestSupport.h"

extern char** environ;

namespace testing_support {

int ProcessId() { return int(getpid()); }

int RunProgram(const std::vector<std::string>& argv, std::string* out) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    std::string collected;
    char buf[4096];
    ssize_t n;
    while ((n = read(pipeEnds[0], buf, sizeof buf)) > 0) collected.append(buf, size_t(n));
    close(pipeEnds[0]);
    if (rc != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    if (out) *out = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool MakeMedia(const std::string& target, const std::vector<std::string>& ffmpegArgs) {
    std::vector<std::string> argv = {BinDir() + "/ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
    argv.insert(argv.end(), ffmpegArgs.begin(), ffmpegArgs.end());
    argv.push_back(target);
    return RunProgram(argv) == 0;
}

std::vector<std::pair<int64_t, int64_t>> DataExtents(const std::string& path) {
    std::vector<std::pair<int64_t, int64_t>> extents;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return extents;
    const off_t size = ::lseek(fd, 0, SEEK_END);
    off_t data = ::lseek(fd, 0, SEEK_DATA);
    if (data < 0 && errno != ENXIO) data = 0;  // no hole support: one extent
    while (data >= 0 && data < size) {
        off_t hole = ::lseek(fd, data, SEEK_HOLE);
        if (hole < 0) hole = size;
        extents.emplace_back(int64_t(data), int64_t(hole));
        data = ::lseek(fd, hole, SEEK_DATA);
    }
    ::close(fd);
    return extents;
}

}  // namespace testing_support
