// libavformat reading either a file or a strategy's cleaned byte source, told to
// keep going over damage: missing timestamps are made up, and a few read errors
// in a row are stepped over. Files are read through this library's FileReader,
// not FFmpeg's own file protocol, so sectors a failing device refuses reach the
// demuxer as the zeros every other reader sees.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "io/FileReader.h"
#include "thorough/AvHandles.h"
#include "thorough/ByteSource.h"
#include "thorough/PacketSource.h"

namespace thorough {

// FFmpeg reports every damaged packet on standard error, where a host's own
// output would drown in it. Silenced unless the host chose a log level itself.
void QuietFfmpegLog();

class Demuxer : public PacketSource {
public:
    Demuxer() = default;
    ~Demuxer() override;
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    // format: a libavformat demuxer name, or empty to probe.
    bool OpenFile(const std::wstring& path, const std::string& format = std::string());
    bool OpenSource(std::unique_ptr<ByteSource> source, const std::string& format);

    AVFormatContext* Context() const { return input_.get(); }
    std::string FormatName() const { return input_ && input_->iformat ? input_->iformat->name : ""; }
    AVStream* Stream(unsigned index) const { return input_->streams[index]; }

    unsigned StreamCount() const override { return input_ ? input_->nb_streams : 0; }
    const AVCodecParameters* Parameters(unsigned stream) const override { return Stream(stream)->codecpar; }
    AVRational TimeBase(unsigned stream) const override { return Stream(stream)->time_base; }
    AVRational FrameRate(unsigned stream) const override;
    std::string DisplayMatrix(unsigned stream) const override { return DisplayMatrixOf(Stream(stream)); }
    // The next packet; false at the end or on an error that ends reading.
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override;
    int64_t Skipped() const override { return source_ ? source_->Skipped() : 0; }
    int64_t FilePosition(const AVPacket* packet) const override;
    std::vector<RecordRange> PutIn() const override { return source_ ? source_->PutIn() : std::vector<RecordRange>(); }
    std::vector<RecordRange> SkippedRanges() const override {
        return source_ ? source_->SkippedRanges() : std::vector<RecordRange>();
    }
    // Samples left out because the file ends inside them.
    int64_t CutSamples() const { return cutSamples_; }
    // True when what was read differs from the file as it is.
    bool ReadOtherThanFile() const { return source_ && source_->ChangedAnything(); }

private:
    // depth: how many times FFmpeg's usual probe to read.
    bool Open(AVFormatContext* context, const char* url, const std::string& format, int depth);
    bool OpenThroughReader(const std::string& format, int depth);
    bool NewIo(int (*read)(void*, uint8_t*, int), int64_t (*seek)(void*, int64_t, int));
    void FreeIo();
    static int ReadSource(void* opaque, uint8_t* buffer, int size);
    static int ReadFromFile(void* opaque, uint8_t* buffer, int size);
    static int64_t SeekInFile(void* opaque, int64_t offset, int whence);
    bool CutByTheEnd(const AVPacket* packet) const;

    std::unique_ptr<ByteSource> source_;
    std::unique_ptr<FileReader> file_;
    int64_t filePosition_ = 0;
    AVIOContext* io_ = nullptr;  // ours, over the source or the file
    InputPtr input_;
    int64_t cutSamples_ = 0;
};

}  // namespace thorough
