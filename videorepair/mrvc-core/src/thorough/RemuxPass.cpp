#include "thorough/RemuxPass.h"

#include <chrono>

#include "thorough/MediaTally.h"
#include "thorough/MuxWriter.h"
#include "thorough/PassRecorder.h"
#include "thorough/StreamRestorer.h"
#include "thorough/TimelineSurvey.h"

namespace thorough {
namespace {

constexpr int kPacketsBetweenChecks = 128;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The pieces of one pass, set up for the demuxer's streams.
struct PassStreams {
    StreamRestorer restorer;
    MediaTally read, kept;
    std::vector<int> outputIndex;  // -1: not written
};

// Decoding is the judge's dear part. A pass that writes decodes what it wrote;
// what it read is the same packets but for what the restorer put back, so it
// borrows that share (see Run). A pass that only counts decodes what it read.
void SetUp(PassStreams& streams, const PacketSource& input, MuxWriter* writer, const PassSettings& settings,
           std::vector<std::string>& refused) {
    using Decode = MediaTally::Decode;
    const Decode decode = !settings.decode            ? Decode::kNone
                          : settings.fullDecodeCheck ? Decode::kEveryPacket
                                                     : Decode::kWindows;
    streams.restorer.Prepare(input);
    for (unsigned i = 0; i < input.StreamCount(); ++i) {
        const AVCodecParameters* restored = streams.restorer.Parameters(i);
        AVRational rate = streams.restorer.FrameRate(i), base = input.TimeBase(i);
        streams.read.AddStream(settings.countRead ? input.Parameters(i) : nullptr, base, rate,
                               writer != nullptr ? Decode::kNone : decode);
        int index = writer != nullptr ? writer->AddStream(restored, base, rate, input.DisplayMatrix(i)) : -1;
        if (writer != nullptr && index < 0 && restored != nullptr)
            refused.push_back("stream " + std::to_string(i) + " (" + avcodec_get_name(restored->codec_id) + ")");
        streams.outputIndex.push_back(index);
        bool kept = writer == nullptr || index >= 0;
        streams.kept.AddStream(kept ? restored : nullptr, base, rate, decode);
    }
}

}  // namespace

PassResult RemuxPass::Run(PacketSource& input, const std::wstring& outputPath, const MuxerChoice& muxer,
                          const PassSettings& settings) {
    PassResult result;
    MuxWriter writer;
    MuxWriter* out = nullptr;
    if (!outputPath.empty()) {
        if (!writer.Open(outputPath, muxer)) {
            result.error = writer.Error();
            return result;
        }
        out = &writer;
    }
    PassStreams streams{StreamRestorer(sample_), {}, {}, {}};
    SetUp(streams, input, out, settings, result.refused);

    PassRecorder recorder;
    TimelineWalk timeline;  // of what the pass writes: the kept file's, should it win
    for (unsigned i = 0; i < input.StreamCount(); ++i)
        timeline.AddStream(out == nullptr || streams.outputIndex[i] >= 0 ? streams.restorer.Parameters(i) : nullptr,
                           streams.restorer.FrameRate(i));
    size_t restorationsNoted = 0;
    PacketPtr packet = NewPacket();
    for (int64_t n = 0; input.Next(packet.get()); ++n) {
        unsigned index = unsigned(packet->stream_index);
        if (index >= input.StreamCount()) {
            av_packet_unref(packet.get());
            continue;
        }
        AVRational base = input.TimeBase(index);
        auto judging = Clock::now();
        if (settings.countRead) streams.read.Count(packet.get(), index);
        const int64_t position = input.FilePosition(packet.get()), readSize = packet->size;
        bool keep = index < streams.outputIndex.size() && streams.restorer.Fix(packet.get());
        if (keep && (out == nullptr || streams.outputIndex[index] >= 0)) streams.kept.Count(packet.get(), index);
        result.judgeSeconds += SecondsSince(judging);
        if (keep && (out == nullptr || streams.outputIndex[index] >= 0)) {
            recorder.Packet(position, readSize);
            if (settings.record != nullptr) timeline.Step(index, packet.get(), base);
            const std::vector<std::string>& restorations = streams.restorer.Restorations();
            // Only a header put in front of this packet grew it; the rest were stream-wide.
            for (; restorationsNoted < restorations.size(); ++restorationsNoted)
                recorder.Restored(position, restorationsNoted + 1 == restorations.size() ? packet->size - readSize : 0,
                                  restorations[restorationsNoted]);
        }
        if (keep && out != nullptr && streams.outputIndex[index] >= 0 &&
            !out->Write(packet.get(), streams.outputIndex[index], base)) {
            break;
        }
        av_packet_unref(packet.get());
        if (n % kPacketsBetweenChecks != 0) continue;
        if (settings.totalBytes > 0)
            control_.Progress(settings.progress.At(double(input.Consumed()) / double(settings.totalBytes)));
        if (control_.ShouldStop()) {
            result.stopped = true;
            break;
        }
    }
    auto judging = Clock::now();
    streams.read.Finish();
    streams.kept.Finish();
    result.judgeSeconds += SecondsSince(judging);
    result.kept = streams.kept.Result();
    result.keptBound = streams.kept.Bound();
    // Packets that needed their decoder configuration put back did not decode as
    // they were read.
    streams.read.AssumeShare(streams.restorer.Restorations().empty() ? streams.kept.VideoShare() : 0.0);
    result.read = streams.read.Result();
    result.restorations = streams.restorer.Restorations();
    if (settings.record != nullptr) {
        recorder.Finish(input, result.stopped ? input.Consumed() : settings.totalBytes, *settings.record);
        timeline.Finish(*settings.record);
    }
    if (out != nullptr) {
        result.written = out->Finish();
        result.error = out->Error();
    }
    return result;
}

}  // namespace thorough
