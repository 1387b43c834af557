#include "BenchSupport.h"

#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace bench {

Measurement Run(const std::vector<std::string>& argv, const std::string& stdoutPath) {
    Measurement m;
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        FILE* out = std::freopen(stdoutPath.c_str(), "w", stdout);
        FILE* err = std::freopen("/dev/null", "w", stderr);
        FILE* in = std::freopen("/dev/null", "r", stdin);
        (void)out, (void)err, (void)in;
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    m.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    m.peakKiB = usage.ru_maxrss;
    m.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return m;
}

std::string Capture(const std::vector<std::string>& argv) {
    char name[] = "/tmp/vr_bench_capture_XXXXXX";
    int fd = mkstemp(name);
    close(fd);
    Run(argv, name);
    std::ifstream in(name);
    std::stringstream ss;
    ss << in.rdbuf();
    std::filesystem::remove(name);
    return ss.str();
}

std::string Arg(int argc, char** argv, const std::string& name, const std::string& fallback) {
    for (int i = 1; i + 1 < argc; ++i)
        if (argv[i] == name) return argv[i + 1];
    return fallback;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

std::string Fixed(double v, int digits) {
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", digits, v);
    return b;
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::string MachineText() {
    utsname u{};
    uname(&u);
    long kb = 0;
    std::ifstream mem("/proc/meminfo");
    std::string key;
    mem >> key >> kb;
    std::string cpu;
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0) {
            cpu = Trim(line.substr(line.find(':') + 1));
            break;
        }
    std::string ffmpeg = Capture({"ffmpeg", "-version"});
    ffmpeg = ffmpeg.substr(0, std::min(ffmpeg.find('\n'), ffmpeg.find(" Copyright")));
    std::ostringstream s;
    s << "cores " << std::thread::hardware_concurrency() << (cpu.empty() ? "" : " (" + cpu + ")") << ", memory "
      << (kb + 512 * 1024) / 1024 / 1024 << " GiB, kernel " << u.release << ", " << ffmpeg;
    return s.str();
}

std::string LoadText() {
    std::ifstream in("/proc/loadavg");
    std::string one;
    in >> one;
    return one;
}

std::string TaggedLine(const std::string& text, const std::string& tag) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(tag + " ", 0) == 0) return line.substr(tag.size() + 1);
    return std::string();
}

std::string Quote(const std::string& s) {
    return s.find_first_of(" '\"=+") == std::string::npos ? s : "'" + s + "'";
}

std::string JoinCommand(const std::vector<std::string>& argv) {
    std::string out;
    for (const auto& a : argv) out += (out.empty() ? "" : " ") + Quote(a);
    return out;
}

}  // namespace bench
