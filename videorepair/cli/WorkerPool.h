// Runs each file's repair in a process of its own (this program, started as a
// worker), at most a given number at once. The library's manager repairs one
// file at a time per process, and a worker in a process group of its own keeps
// a terminal's Ctrl-C away from the ffmpeg children the library starts: the
// tool passes Ctrl-C and Ctrl-Z on to the workers, and can end them with their
// children at once.
#pragma once

#include <Poco/Process.h>

#include <string>
#include <vector>

#include "Console.h"

class WorkerPool {
public:
    explicit WorkerPool(size_t limit) : limit_(limit) {}

    bool HasRoom() const { return running_.size() < limit_; }
    bool Idle() const { return running_.empty(); }

    // false with the reason when the process could not be started.
    bool Start(size_t tag, const std::vector<std::string>& args, std::string& error);

    struct Finished {
        size_t tag;
        int exitCode;  // 256 + signal when a signal ended it
    };
    // The workers that ended since the last call; waits a little when none did.
    std::vector<Finished> Collect();

    void Forward(console::Request request) const;
    void KillAll();  // ends every worker and its children, and waits for them

private:
    struct Worker {
        size_t tag;
        Poco::ProcessHandle handle;
    };

    size_t limit_;
    std::vector<Worker> running_;
};
