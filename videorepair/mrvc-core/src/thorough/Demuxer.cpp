#include "thorough/Demuxer.h"

#include <cstring>


namespace thorough {
namespace {

constexpr int kIoBufferBytes = 1 << 16;
// Demuxers jump about (an index at the end, tracks apart): a small cache costs
// each jump no more than FFmpeg's own file reading does.
constexpr size_t kFileCacheBytes = size_t(kIoBufferBytes) * 2;
// Damaged files hide their streams behind garbage: probe further than usual.
// FFmpeg's own probe first; a file whose streams it leaves undescribed (garbage
// in front, a lost header) is probed again, further.
constexpr int64_t kProbeBytes = 5 << 20;
constexpr int64_t kAnalyzeMicroseconds = 5 * int64_t(AV_TIME_BASE);
constexpr int kDeepProbeFactor = 8;

bool Undescribed(const AVFormatContext* context) {
    if (context->nb_streams == 0) return true;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVCodecParameters* p = context->streams[i]->codecpar;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO && (p->codec_id == AV_CODEC_ID_NONE || p->width <= 0)) return true;
        if (p->codec_type == AVMEDIA_TYPE_AUDIO && p->codec_id == AV_CODEC_ID_NONE) return true;
    }
    return false;
}

}  // namespace

void QuietFfmpegLog() {
    if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_QUIET);
}

Demuxer::~Demuxer() {
    input_.reset();
    FreeIo();
}

void Demuxer::FreeIo() {
    if (io_ == nullptr) return;
    av_freep(&io_->buffer);
    avio_context_free(&io_);
}

bool Demuxer::NewIo(int (*read)(void*, uint8_t*, int), int64_t (*seek)(void*, int64_t, int)) {
    FreeIo();
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
    if (buffer == nullptr) return false;
    io_ = avio_alloc_context(buffer, kIoBufferBytes, 0, this, read, nullptr, seek);
    if (io_ == nullptr) av_free(buffer);
    return io_ != nullptr;
}

bool Demuxer::OpenFile(const std::wstring& path, const std::string& format) {
    file_ = std::make_unique<FileReader>(kFileCacheBytes);
    if (!file_->Open(path)) return false;
    if (OpenThroughReader(format, 1) && !Undescribed(input_.get())) return true;
    input_.reset();
    return OpenThroughReader(format, kDeepProbeFactor) || OpenThroughReader(format, 1);
}

bool Demuxer::OpenThroughReader(const std::string& format, int depth) {
    filePosition_ = 0;
    if (!NewIo(&Demuxer::ReadFromFile, &Demuxer::SeekInFile)) return false;
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) return false;
    context->pb = io_;
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    return Open(context, "", format, depth);
}

bool Demuxer::OpenSource(std::unique_ptr<ByteSource> source, const std::string& format) {
    source_ = std::move(source);
    if (!NewIo(&Demuxer::ReadSource, nullptr)) return false;
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) return false;
    context->pb = io_;
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    return Open(context, "", format, 1);
}

bool Demuxer::Open(AVFormatContext* context, const char* url, const std::string& format, int depth) {
    if (context == nullptr) return false;
    // Packets flagged corrupt stay: a frame damaged at its end still decodes mostly
    // right, and dropping a reference frame would break its whole group of pictures.
    context->flags |= AVFMT_FLAG_GENPTS;
    context->error_recognition = 0;
    context->probesize = kProbeBytes * depth;
    context->max_analyze_duration = kAnalyzeMicroseconds * depth;
    const AVInputFormat* input = format.empty() ? nullptr : av_find_input_format(format.c_str());
    if (avformat_open_input(&context, url, input, nullptr) < 0) return false;  // frees context
    input_.reset(context);
    if (avformat_find_stream_info(context, nullptr) < 0 && context->nb_streams == 0) {
        input_.reset();
        return false;
    }
    return true;
}

int Demuxer::ReadSource(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<Demuxer*>(opaque);
    int64_t n = self->source_->Read(buffer, size_t(size));
    if (n < 0) return AVERROR(EIO);
    return n == 0 ? AVERROR_EOF : int(n);
}

int Demuxer::ReadFromFile(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<Demuxer*>(opaque);
    int64_t n = self->file_->ReadAt(self->filePosition_, buffer, size_t(size));
    if (n < 0) return AVERROR(EIO);
    self->filePosition_ += n;
    return n == 0 ? AVERROR_EOF : int(n);
}

int64_t Demuxer::SeekInFile(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<Demuxer*>(opaque);
    const int64_t size = self->file_->Size();
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE: return size;
        case SEEK_SET: break;
        case SEEK_CUR: offset += self->filePosition_; break;
        case SEEK_END: offset += size; break;
        default: return AVERROR(EINVAL);
    }
    if (offset < 0) return AVERROR(EINVAL);
    self->filePosition_ = offset;
    return offset;
}

AVRational Demuxer::FrameRate(unsigned stream) const {
    const AVStream* s = Stream(stream);
    return s->avg_frame_rate.num > 0 ? s->avg_frame_rate : s->r_frame_rate;
}

bool Demuxer::Next(AVPacket* packet) {
    // A few errors in a row are damage the demuxer could not step over by itself.
    for (int failures = 0; failures < 64; ++failures) {
        int result = av_read_frame(input_.get(), packet);
        if (result >= 0 && !CutByTheEnd(packet)) return true;
        if (result >= 0) {
            av_packet_unref(packet);
            ++cutSamples_;
            continue;
        }
        if (result == AVERROR_EOF || avio_feof(input_->pb)) return false;
    }
    return false;
}

// An index (MP4/MOV) names each sample's size; a sample the file ends inside is
// read short and marked corrupt, and is only the head of a picture or frame.
bool Demuxer::CutByTheEnd(const AVPacket* packet) const {
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) == 0 || !input_->iformat) return false;
    return std::strcmp(input_->iformat->name, "mov,mp4,m4a,3gp,3g2,mj2") == 0;
}

int64_t Demuxer::FilePosition(const AVPacket* packet) const {
    if (packet->pos < 0 || !source_) return packet->pos;
    return source_->FileOffset(packet->pos);
}

int64_t Demuxer::Consumed() const {
    if (source_) return source_->Consumed();
    return input_ && input_->pb ? avio_tell(input_->pb) : 0;
}

}  // namespace thorough
