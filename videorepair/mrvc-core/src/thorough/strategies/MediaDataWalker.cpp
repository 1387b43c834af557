#include "thorough/strategies/MediaDataWalker.h"

#include <algorithm>

#include "io/FileReader.h"

namespace thorough {
namespace {

// Read ahead past the largest believed video sample, so a sample is never
// judged on a window that cuts it.
constexpr int64_t kReadAhead = 4 << 20;
// An audio stretch longer than this is not one writer's chunk.
constexpr int64_t kLongestAudioRun = 2 << 20;
// Room over the sample's longest stretch: chunks vary with the content.
constexpr int64_t kAudioRunSlack = 2;
// Stop requests and progress are looked at after this many bytes walked.
constexpr int64_t kBytesBetweenChecks = 8 << 20;
// Audio alone is cut in pieces this long; behind damage, shorter ones are tried
// at every byte until frames follow each other again.
constexpr int64_t kAudioPiece = 1 << 20;
constexpr int64_t kResyncPiece = 16 << 10;
constexpr size_t kFramesToResync = 3;
// How far into a stretch between video samples coded audio is looked for, past
// another track's samples (timed metadata) written in front of it.
constexpr size_t kAudioSearch = 4 << 10;

}  // namespace

MediaDataWalker::MediaDataWalker(FileReader& file, const AccessUnitReader& video, AudioFrameSplitter* audio,
                                 int64_t largestAudioRun)
    : file_(file), video_(video), audio_(audio),
      longestRun_(largestAudioRun > 0 ? std::min(largestAudioRun * kAudioRunSlack, kLongestAudioRun)
                                      : kLongestAudioRun) {}

// The buffer holds at least the largest believed sample from at on (or all that
// is left), and is reloaded only once a scan has moved the read-ahead on.
bool MediaDataWalker::Load(int64_t at, int64_t end) {
    const int64_t need = std::min<int64_t>(end - at, int64_t(video_.MostBytes()));
    const int64_t bufferEnd = bufferStart_ + int64_t(buffer_.size());
    if (at >= bufferStart_ && at + need <= bufferEnd) return true;
    const int64_t want = std::min<int64_t>(end - at, int64_t(video_.MostBytes()) + kReadAhead);
    buffer_.resize(size_t(want));
    bufferStart_ = at;
    int64_t got = file_.ReadAt(at, buffer_.data(), size_t(want));
    buffer_.resize(size_t(std::max<int64_t>(got, 0)));
    return got >= need;
}

size_t MediaDataWalker::VideoAt(int64_t at, int64_t end, bool& key) {
    if (!Load(at, end)) return 0;
    return video_.Measure(At(at), AvailableAt(at), key);
}

// The next video sample from `from` on, measured once: its length and key flag
// come back with it (length 0 at the end).
int64_t MediaDataWalker::NextVideo(int64_t from, int64_t end, size_t& length, bool& key) {
    for (int64_t at = from; at < end; ++at)
        if ((length = VideoAt(at, end, key)) > 0) return at;
    length = 0;
    return end;
}

void MediaDataWalker::Watch(RepairControl* control, ProgressRange progress, int64_t total) {
    control_ = control;
    progress_ = progress;
    total_ = total;
}

bool MediaDataWalker::Stopped(int64_t walkedInRange) {
    const int64_t walked = walked_ + walkedInRange;
    if (control_ == nullptr || walked - lastCheck_ < kBytesBetweenChecks) return false;
    lastCheck_ = walked;
    if (total_ > 0) control_->Progress(progress_.At(double(walked) / double(total_)));
    return control_->ShouldStop();
}

bool MediaDataWalker::Walk(int64_t begin, int64_t end, std::vector<CarvedSample>& out) {
    rangeEnd_ = end;
    if (!video_.Supported()) return WalkAudioOnly(begin, end, out);
    for (int64_t at = begin; at < end;) {
        if (Stopped(at - begin)) return false;
        bool key = false;
        size_t length = VideoAt(at, end, key);
        if (length == 0) {
            const int64_t next = NextVideo(at + 1, end, length, key);
            if (!TakeAudio(at, next, out)) DoubtLastVideo(out);
            at = next;
        }
        if (length > 0) {
            Add(out, {at, uint32_t(length), true, key, 0});
            at += int64_t(length);
        }
    }
    walked_ += end - begin;
    return true;
}

// A piece's last frame is not kept where the piece cut it (the splitter drops a
// frame followed by an error), so the next piece starts on a frame.
bool MediaDataWalker::WalkAudioOnly(int64_t begin, int64_t end, std::vector<CarvedSample>& out) {
    std::string piece;
    bool inStep = true;
    for (int64_t at = begin; at < end && audio_ != nullptr;) {
        if (Stopped(at - begin)) return false;
        const int64_t length = std::min(end - at, inStep ? kAudioPiece : kResyncPiece);
        piece.resize(size_t(length));
        if (file_.ReadAt(at, piece.data(), piece.size()) != length) break;
        std::vector<AudioFrame> frames =
            audio_->Split(reinterpret_cast<const uint8_t*>(piece.data()), piece.size(), at + length == end);
        if (frames.empty() || (!inStep && frames.size() < std::min(kFramesToResync, size_t(length) / 64))) {
            Skip(1);
            ++at;
            inStep = false;
            continue;
        }
        for (const AudioFrame& f : frames) Add(out, {at + int64_t(f.offset), uint32_t(f.size), false, true, f.samples});
        at += int64_t(frames.back().offset + frames.back().size);
        inStep = true;
    }
    walked_ += end - begin;
    return true;
}

// A stretch far longer than the writer's chunks holds what is not its audio (a
// picture whose head the damage took, a metadata track): PCM would take any
// bytes, so only what follows a broken picture's end, where one shows, is tried.
bool MediaDataWalker::TakeAudio(int64_t begin, int64_t end, std::vector<CarvedSample>& out) {
    int64_t taken = 0;
    bool headTaken = false;
    if (audio_ != nullptr) {
        const int64_t length = std::min(end - begin, kLongestAudioRun);
        std::string run(size_t(length), '\0');
        const auto* bytes = reinterpret_cast<const uint8_t*>(run.data());
        if (file_.ReadAt(begin, run.data(), run.size()) == length) {
            size_t from = length > longestRun_ ? video_.EndOfBrokenPicture(bytes, run.size()) : 0;
            if (end - begin - int64_t(from) > longestRun_) from = run.size();
            // A stretch the end cut is taken only where whole ones showed the track.
            const bool cut = end == rangeEnd_ && audioFound_;
            std::vector<AudioFrame> frames = FramesFrom(bytes, run.size(), from, cut);
            for (const AudioFrame& f : frames) {
                Add(out, {begin + int64_t(from + f.offset), uint32_t(f.size), false, true, f.samples});
                taken += int64_t(f.size);
                headTaken = headTaken || from + f.offset == 0;
            }
        }
    }
    Skip(end - begin - taken);
    return headTaken;
}

// The frames from `from` on; where none begins there and the frames prove
// themselves, the first few kilobytes are searched for where they begin (from
// is moved there): a few frames in a row, or frames that end exactly where the
// stretch does, are no chance.
std::vector<AudioFrame> MediaDataWalker::FramesFrom(const uint8_t* run, size_t size, size_t& from, bool cut) {
    std::vector<AudioFrame> frames =
        from < size ? audio_->Split(run + from, size - from, cut) : std::vector<AudioFrame>();
    if (!frames.empty() || !audio_->ProvesFrames()) return frames;
    const size_t last = std::min(size, from + kAudioSearch);
    for (size_t at = from + 1; at < last; ++at) {
        frames = audio_->Split(run + at, size - at);
        const bool toTheEnd = !frames.empty() && frames.back().offset + frames.back().size == size - at;
        if (frames.size() >= kFramesToResync || toTheEnd) {
            from = at;
            return frames;
        }
    }
    return {};
}

// Random bytes now and then read as a length prefix and a NAL header whose
// length runs on over more random bytes. A real sample is followed by another
// sample; one far larger than any of the sample's, followed by what is no
// sample, is such a phantom.
void MediaDataWalker::DoubtLastVideo(std::vector<CarvedSample>& out) {
    if (out.empty() || !out.back().video || !video_.Oversized(out.back().size)) return;
    Skip(out.back().size);
    out.pop_back();
}

void MediaDataWalker::Add(std::vector<CarvedSample>& out, CarvedSample sample) {
    audioFound_ = audioFound_ || !sample.video;
    sample.afterGap = gap_;
    gap_ = false;
    out.push_back(sample);
}

void MediaDataWalker::Skip(int64_t bytes) {
    skipped_ += bytes;
    gap_ = gap_ || bytes > 0;
}

}  // namespace thorough
