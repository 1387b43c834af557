#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/MpegPsStrategy.h"

namespace thorough {
namespace {

// Containers whose damaged file is best read as it is, with the sample restoring
// what the damage removed.
class PlainStrategy : public ContainerStrategy {
public:
    explicit PlainStrategy(std::string name) : name_(std::move(name)) {}
    const char* Name() const override { return name_.c_str(); }

private:
    std::string name_;
};

}  // namespace

std::unique_ptr<ContainerStrategy> StrategyFor(const std::string& formatName) {
    if (formatName == "mpeg" || formatName == "mpg") return std::make_unique<MpegPsStrategy>();
    return std::make_unique<PlainStrategy>(formatName);
}

}  // namespace thorough
