#include "BenchSupport.h"

#include <fcntl.h>
#include <signal.h>
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

Measurement Run(const std::vector<std::string>& argv, const std::string& stdoutPath, double limitSeconds) {
    Measurement m;
    // Everything the child needs is made before fork: after it, in a program with
    // threads, only async-signal-safe calls are allowed.
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const char* outPath = stdoutPath.c_str();
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        if (limitSeconds > 0) setpgid(0, 0);
        int out = open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int null = open("/dev/null", O_RDWR);
        if (out >= 0) dup2(out, 1);
        if (null >= 0) dup2(null, 2), dup2(null, 0);
        execvp(args[0], args.data());
        _exit(127);
    }
    if (pid < 0) return m;
    int status = 0;
    rusage usage{};
    if (limitSeconds <= 0) {
        wait4(pid, &status, 0, &usage);
    } else {
        setpgid(pid, pid);  // also here: the child may not have run yet
        for (;;) {
            pid_t done = wait4(pid, &status, WNOHANG, &usage);
            if (done == pid || done < 0) break;
            if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > limitSeconds) {
                kill(-pid, SIGKILL);
                wait4(pid, &status, 0, &usage);
                m.timedOut = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    m.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    m.peakKiB = usage.ru_maxrss;
    m.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                   double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    m.exitCode = WIFEXITED(status) && !m.timedOut ? WEXITSTATUS(status) : -1;
    return m;
}

std::string Capture(const std::vector<std::string>& argv, double limitSeconds) {
    char name[] = "/tmp/vr_bench_capture_XXXXXX";
    int fd = mkstemp(name);
    close(fd);
    Run(argv, name, limitSeconds);
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
