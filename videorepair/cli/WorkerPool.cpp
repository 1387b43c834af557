#include "WorkerPool.h"

#include <Poco/Thread.h>

#include <exception>

namespace {

constexpr long kCollectIntervalMs = 100;

}  // namespace

bool WorkerPool::Start(size_t tag, const std::vector<std::string>& args, std::string& error) {
    try {
        Poco::Process::Args rest(args.begin(), args.end());
        running_.push_back({tag, Poco::Process::launch(console::ProgramPath(), rest)});
        return true;
    } catch (const std::exception& e) {
        error = std::string("cannot start a worker process: ") + e.what();
        return false;
    }
}

std::vector<WorkerPool::Finished> WorkerPool::Collect() {
    std::vector<Finished> finished;
    for (auto it = running_.begin(); it != running_.end();) {
        int code = it->handle.tryWait();
        if (code == -1) {
            ++it;
            continue;
        }
        finished.push_back({it->tag, code});
        it = running_.erase(it);
    }
    if (finished.empty()) Poco::Thread::sleep(kCollectIntervalMs);
    return finished;
}

void WorkerPool::Forward(console::Request request) const {
    for (const Worker& worker : running_) console::Forward(int(worker.handle.id()), request);
}

void WorkerPool::KillAll() {
    for (Worker& worker : running_) {
        console::KillWorker(int(worker.handle.id()));
        try {
            worker.handle.wait();
        } catch (const std::exception&) {
        }
    }
    running_.clear();
}
