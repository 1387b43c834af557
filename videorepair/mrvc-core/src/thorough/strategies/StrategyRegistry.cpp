#include "thorough/strategies/CarvingStrategies.h"
#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/AsfStrategy.h"
#include "thorough/strategies/Mp4Strategy.h"
#include "thorough/strategies/MpegPsStrategy.h"
#include "thorough/strategies/MpegTsStrategy.h"
#include "thorough/strategies/MxfStrategy.h"

#include <map>

namespace thorough {
namespace {

const char kIsoDemuxer[] = "mov,mp4,m4a,3gp,3g2,mj2";

// Containers whose damaged file is best read as it is, with the sample restoring
// what the damage removed.
class PlainStrategy : public ContainerStrategy {
public:
    explicit PlainStrategy(std::string name) : name_(std::move(name)) {}
    const char* Name() const override { return name_.c_str(); }
    MuxerChoice Muxer() const override { return MuxerChoice{MuxerFor(name_), {}}; }

private:
    std::string name_;
};

// libavformat's names for each container: the muxer that writes it, the demuxer
// that reads it.
struct FormatNames {
    const char* muxer;
    const char* demuxer;
};

const FormatNames* NamesOf(const std::string& formatName) {
    static const std::map<std::string, FormatNames> names = {
        {"avi", {"avi", "avi"}},   {"flv", {"flv", "flv"}},       {"mkv", {"matroska", "matroska,webm"}},
        {"mxf", {"mxf", "mxf"}},   {"klv", {"mxf", "mxf"}},       {"wmv", {"asf", "asf"}},
        {"asf", {"asf", "asf"}},   {"mpeg", {"mpeg", "mpeg"}},    {"mts", {"mpegts", "mpegts"}},
        {"m2ts", {"mpegts", "mpegts"}}, {"mp4", {"mp4", kIsoDemuxer}}, {"mov", {"mov", kIsoDemuxer}},
        {"3gp", {"3gp", kIsoDemuxer}},  {"3g2", {"3g2", kIsoDemuxer}},  {"m4v", {"ipod", kIsoDemuxer}},
        {"m4a", {"ipod", kIsoDemuxer}}, {"insv", {"mp4", kIsoDemuxer}}, {"360", {"mp4", kIsoDemuxer}},
    };
    auto found = names.find(formatName);
    return found != names.end() ? &found->second : nullptr;
}

}  // namespace

std::string MuxerFor(const std::string& formatName) {
    const FormatNames* names = NamesOf(formatName);
    return names != nullptr ? names->muxer : "";
}

std::string DemuxerFor(const std::string& formatName) {
    const FormatNames* names = NamesOf(formatName);
    return names != nullptr ? names->demuxer : "";
}

std::unique_ptr<ContainerStrategy> StrategyFor(const std::string& formatName) {
    if (formatName == "mts" || formatName == "m2ts") return std::make_unique<MpegTsStrategy>();
    if (formatName == "mpeg" || formatName == "mpg") return std::make_unique<MpegPsStrategy>();
    if (formatName == "wmv" || formatName == "asf") return std::make_unique<AsfStrategy>();
    if (formatName == "mxf" || formatName == "klv") return std::make_unique<MxfStrategy>();
    if (formatName == "avi") return std::make_unique<AviStrategy>();
    if (formatName == "flv") return std::make_unique<FlvStrategy>();
    if (formatName == "mkv" || formatName == "webm") return std::make_unique<MkvStrategy>(formatName);
    if (DemuxerFor(formatName) == kIsoDemuxer) return std::make_unique<Mp4Strategy>(formatName);
    return std::make_unique<PlainStrategy>(formatName);
}

}  // namespace thorough
