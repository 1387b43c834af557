// One short generated clip per engine, for the tests that run the same hostile
// case against every engine.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace repair_harness {

struct EngineClip {
    std::string engine;     // test name part: "Avi", "Flv", ...
    std::string extension;  // what selects the engine
    std::vector<std::string> codecArgs;
};

// Every engine of the library, each with a 2-second video-only clip.
const std::vector<EngineClip>& AllEngineClips();

// The healthy clip (content "testsrc") or its sample (content "testsrc2"); empty
// when ffmpeg could not make it.
std::string MakeEngineClip(const EngineClip& clip, bool sample);

// For test names and messages.
inline std::string EngineName(const EngineClip& clip) { return clip.engine; }
inline void PrintTo(const EngineClip& clip, std::ostream* os) { *os << clip.engine; }

}  // namespace repair_harness
