// What a container contributes to the thorough repair. The road itself is
// container-neutral (learn, take, carve, restore, write, judge); a strategy only
// carves and restores: it hands the demuxer a cleaned view of the damaged file and
// names the muxer for the result. It never writes files or runs processes.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "VideoRepairOptions.h"
#include "thorough/ByteSource.h"
#include "thorough/PacketSource.h"
#include "thorough/RepairControl.h"

class RepairLog;

namespace thorough {

class SampleModel;

// What is known of the damaged file as it is when the carver is asked.
struct CarveContext {
    bool ownDemuxerReadsFile = false;  // the container's own demuxer opened it
    ThoroughMediaCount asIs{};         // and this is what it gave
    // For a carver that walks the whole file before its first packet: where its
    // progress goes, and whether the host asked to stop (may be null).
    RepairControl* control = nullptr;
    ProgressRange progress;
};

struct MuxerChoice {
    std::string name;                           // libavformat muxer ("mpegts", "vob", ...)
    std::map<std::string, std::string> options;  // private muxer options
};

class ContainerStrategy {
public:
    virtual ~ContainerStrategy() = default;

    virtual const char* Name() const = 0;

    // A cleaned view of the damaged file, or null when the file is best read as it
    // is. samplePath may be empty. log may be null.
    virtual std::unique_ptr<ByteSource> Clean(const std::wstring& damagedPath, const std::wstring& samplePath,
                                              RepairLog* log) {
        (void)damagedPath, (void)samplePath, (void)log;
        return nullptr;
    }

    // Packets cut out of the damaged file by the container's own carver, for where
    // no demuxer reads it (a lost header or index, a cluster whose head was
    // destroyed). Judged as one more candidate. Null when the carver has nothing
    // to add to what the demuxer gave, as context tells.
    virtual std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                const CarveContext& context, RepairLog* log) {
        (void)damagedPath, (void)sample, (void)context, (void)log;
        return nullptr;
    }

    // true: the carver usually keeps more than the container's demuxer, so its
    // file is written first (while the file as it is is counted: its context
    // tells nothing of that count) and a remux only where the file as it is could
    // hold more. Only for strategies that do not clean the file.
    virtual bool CarverLeads() const { return false; }
    // For a carver that leads: whether what its file holds is worth judging
    // beside the file as it is, which context now tells.
    virtual bool CarvedAdds(const ThoroughMediaCount& carved, const CarveContext& context) const {
        (void)carved, (void)context;
        return true;
    }

    // What the strategy found worth telling the host (why it could not carve, or
    // that the sample does not fit the damaged file); empty when nothing.
    virtual std::string Remark() const { return std::string(); }

    // The libavformat demuxer that reads the cleaned view; empty: probe it.
    virtual std::string CleanedFormat() const { return std::string(); }

    // The muxer for the result. Asked after Clean, so it may depend on what the
    // cleaning found (packet size, MPEG-1 or MPEG-2 packs). Empty name: guessed
    // from the damaged file's extension.
    virtual MuxerChoice Muxer() const { return MuxerChoice(); }
};

// The muxer that writes a container, by the engine's format name; empty when unknown.
std::string MuxerFor(const std::string& formatName);

// The libavformat demuxer that reads a healthy file of the container; empty when unknown.
std::string DemuxerFor(const std::string& formatName);

// The strategy for a container by the engine's format name ("avi", "mpeg", "mts", ...).
std::unique_ptr<ContainerStrategy> StrategyFor(const std::string& formatName);

}  // namespace thorough
