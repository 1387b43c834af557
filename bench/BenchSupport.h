// Pieces shared by the speed and the recovery-quality benchmarks: child processes
// with their peak memory, ffprobe questions, and the machine description.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct Measurement {
    double seconds = 0;
    long peakKiB = 0;  // the child's own peak resident set (wait4)
    double cpuSeconds = 0;  // its user and system time (wait4)
    int exitCode = -1;
    bool timedOut = false;  // killed (with the programs it started) at the time limit
};

// Runs argv (no shell), stdout to stdoutPath, stderr and stdin to /dev/null. With a
// time limit (seconds, 0 for none) the child runs in its own process group, which is
// killed when the limit passes. Safe to call from several threads at once.
Measurement Run(const std::vector<std::string>& argv, const std::string& stdoutPath = "/dev/null",
                double limitSeconds = 0);
// Runs argv and returns what it printed on stdout.
std::string Capture(const std::vector<std::string>& argv, double limitSeconds = 0);

std::string Arg(int argc, char** argv, const std::string& name, const std::string& fallback);
double Median(std::vector<double> v);
std::string Fixed(double v, int digits);
std::string Trim(const std::string& s);

// Cores, memory, kernel and ffmpeg version on one line.
std::string MachineText();
// The 1-minute load average now: the machine is shared, so every table says how busy it was.
std::string LoadText();

// The rest of the line after "tag " in text, or "" when no line starts with it.
std::string TaggedLine(const std::string& text, const std::string& tag);

std::string Quote(const std::string& s);  // for command lines shown to people
std::string JoinCommand(const std::vector<std::string>& argv);

}  // namespace bench
