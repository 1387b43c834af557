#include "thorough/strategies/CarvingStrategies.h"
#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/MpegPsStrategy.h"
#include "thorough/strategies/MpegTsStrategy.h"

#include <map>

namespace thorough {
namespace {

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

}  // namespace

std::string MuxerFor(const std::string& formatName) {
    static const std::map<std::string, std::string> muxers = {
        {"avi", "avi"}, {"flv", "flv"},  {"mkv", "matroska"}, {"mxf", "mxf"},      {"klv", "mxf"},
        {"wmv", "asf"}, {"asf", "asf"},  {"mpeg", "mpeg"},    {"mts", "mpegts"},   {"m2ts", "mpegts"},
    };
    auto found = muxers.find(formatName);
    return found != muxers.end() ? found->second : std::string();
}

std::string DemuxerFor(const std::string& formatName) {
    static const std::map<std::string, std::string> demuxers = {
        {"avi", "avi"}, {"flv", "flv"}, {"mkv", "matroska,webm"}, {"mxf", "mxf"},     {"klv", "mxf"},
        {"wmv", "asf"}, {"asf", "asf"}, {"mpeg", "mpeg"},         {"mts", "mpegts"}, {"m2ts", "mpegts"},
    };
    auto found = demuxers.find(formatName);
    return found != demuxers.end() ? found->second : std::string();
}

std::unique_ptr<ContainerStrategy> StrategyFor(const std::string& formatName) {
    if (formatName == "mts" || formatName == "m2ts") return std::make_unique<MpegTsStrategy>();
    if (formatName == "mpeg" || formatName == "mpg") return std::make_unique<MpegPsStrategy>();
    if (formatName == "avi") return std::make_unique<AviStrategy>();
    if (formatName == "flv") return std::make_unique<FlvStrategy>();
    if (formatName == "mkv" || formatName == "webm") return std::make_unique<MkvStrategy>(formatName);
    return std::make_unique<PlainStrategy>(formatName);
}

}  // namespace thorough
