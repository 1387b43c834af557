#include "support/EngineClips.h"

#include "support/TestSupport.h"

namespace repair_harness {

const std::vector<EngineClip>& AllEngineClips() {
    static const std::vector<EngineClip> clips = {
        {"Avi", "avi", {"-c:v", "mpeg4", "-q:v", "5"}},
        {"Flv", "flv", {"-c:v", "flv", "-q:v", "5"}},
        {"Mkv", "mkv", {"-c:v", "mpeg4", "-q:v", "5", "-g", "12"}},
        {"Mpeg", "mpg", {"-c:v", "mpeg2video", "-g", "12", "-b:v", "1000k", "-f", "dvd"}},
        {"Mts", "m2ts", {"-c:v", "mpeg2video", "-g", "12", "-q:v", "5", "-f", "mpegts", "-mpegts_m2ts_mode", "1"}},
        {"Mxf", "mxf", {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-q:v", "5"}},
        {"Wmv", "wmv", {"-c:v", "wmv2", "-b:v", "400k", "-g", "10"}},
    };
    return clips;
}

std::string MakeEngineClip(const EngineClip& clip, bool sample) {
    std::vector<std::string> args = {"-f", "lavfi", "-i",
                                     sample ? "testsrc2=size=320x240:rate=25:duration=2"
                                            : "testsrc=size=320x240:rate=25:duration=2",
                                     "-an"};
    args.insert(args.end(), clip.codecArgs.begin(), clip.codecArgs.end());
    return testing_support::GeneratedMedia("engineclip_" + clip.engine + (sample ? "_sample." : ".") + clip.extension,
                                           args);
}

}  // namespace repair_harness
