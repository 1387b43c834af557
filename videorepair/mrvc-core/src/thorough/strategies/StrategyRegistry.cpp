#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/Mp4Strategy.h"
#include "thorough/strategies/MpegPsStrategy.h"
#include "thorough/strategies/MpegTsStrategy.h"

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

}  // namespace

std::string MuxerFor(const std::string& formatName) {
    static const std::map<std::string, std::string> muxers = {
        {"avi", "avi"}, {"flv", "flv"},  {"mkv", "matroska"}, {"mxf", "mxf"},      {"klv", "mxf"},
        {"wmv", "asf"}, {"asf", "asf"},  {"mpeg", "mpeg"},    {"mts", "mpegts"},   {"m2ts", "mpegts"},
        {"mp4", "mp4"}, {"mov", "mov"},  {"3gp", "3gp"},      {"3g2", "3g2"},      {"m4v", "ipod"},
        {"m4a", "ipod"}, {"insv", "mp4"}, {"360", "mp4"},
    };
    auto found = muxers.find(formatName);
    return found != muxers.end() ? found->second : std::string();
}

std::string DemuxerFor(const std::string& formatName) {
    static const std::map<std::string, std::string> demuxers = {
        {"avi", "avi"}, {"flv", "flv"}, {"mkv", "matroska,webm"}, {"mxf", "mxf"},     {"klv", "mxf"},
        {"wmv", "asf"}, {"asf", "asf"}, {"mpeg", "mpeg"},         {"mts", "mpegts"}, {"m2ts", "mpegts"},
        {"mp4", kIsoDemuxer}, {"mov", kIsoDemuxer}, {"3gp", kIsoDemuxer}, {"3g2", kIsoDemuxer},
        {"m4v", kIsoDemuxer}, {"m4a", kIsoDemuxer}, {"insv", kIsoDemuxer}, {"360", kIsoDemuxer},
    };
    auto found = demuxers.find(formatName);
    return found != demuxers.end() ? found->second : std::string();
}

std::unique_ptr<ContainerStrategy> StrategyFor(const std::string& formatName) {
    if (formatName == "mts" || formatName == "m2ts") return std::make_unique<MpegTsStrategy>();
    if (formatName == "mpeg" || formatName == "mpg") return std::make_unique<MpegPsStrategy>();
    if (DemuxerFor(formatName) == kIsoDemuxer) return std::make_unique<Mp4Strategy>(formatName);
    return std::make_unique<PlainStrategy>(formatName);
}

}  // namespace thorough
