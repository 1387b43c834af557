// How the thorough road talks to the engine that runs it: pause and stop from
// other threads, progress to the host, and the shared log.
#pragma once

#include <algorithm>

class RepairLog;

namespace thorough {

class RepairControl {
public:
    virtual ~RepairControl() = default;
    // Sleeps while paused; true once the host asked to stop.
    virtual bool ShouldStop() = 0;
    // A whole percentage; values that do not grow are dropped on the way.
    virtual void Progress(int percent) = 0;
    virtual RepairLog* Log() = 0;
};

// A stretch of the progress bar given to one pass.
struct ProgressRange {
    int from = 0, to = 100;
    int At(double fraction) const {
        fraction = std::clamp(fraction, 0.0, 1.0);
        return from + int(double(to - from) * fraction);
    }
};

}  // namespace thorough
