// The transport stream strategy of the thorough road: the cleaned packet stream
// from hand-made 188/192/204-byte blocks with damage between packets, the
// sample's tables put back when the damage took the stream's own, and generated
// clips damaged in code and demuxed from the cleaned view by libavformat.
#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "thorough/strategies/MpegTsStrategy.h"
#include "thorough/strategies/TransportStreamCleaner.h"

using testing_support::GeneratedMedia;
using testing_support::TempDir;
using testing_support::WriteFile;
using thorough::TransportStreamCleaner;

namespace {

using Bytes = std::string;

// A packet whose last two bytes carry its number; no 0x47 after the sync byte.
Bytes Packet(int pid, int number, const Bytes& payloadHead = Bytes(), bool unitStart = false) {
    Bytes p(188, '\x5A');
    p[0] = 0x47;
    p[1] = char((unitStart ? 0x40 : 0) | (pid >> 8));
    p[2] = char(pid & 0xFF);
    p[3] = char(0x10 | (number & 15));
    p.replace(4, payloadHead.size(), payloadHead);
    p[186] = char(0x80 | (number >> 6));
    p[187] = char(0x80 | (number & 63));
    return p;
}
int NumberOf(const char* p) { return (p[186] & 63) << 6 | (p[187] & 63); }

// The stored form: a 4-byte header in front (192) or 16 parity bytes behind
// (204), here bytes that differ from packet to packet, or a sync byte at a fixed
// place (a time stamp passing 0x47).
Bytes Stored(const Bytes& packet, int size, bool straySync = false) {
    const char varying = char(0x80 | NumberOf(packet.data()));
    const char extra = straySync ? '\x47' : varying;
    if (size == 192) return Bytes{'\x00', extra, varying, '\x00'} + packet;
    if (size == 204) return packet + Bytes(7, varying) + extra + Bytes(8, '\xA5');
    return packet;
}

int SyncOffset(int size) { return size == 192 ? 4 : 0; }

Bytes Stream(int size, int first, int count, int strayUntil = -1) {
    Bytes out;
    for (int n = first; n < first + count; ++n) out += Stored(Packet(0x100, n), size, n < strayUntil);
    return out;
}

// Noise with stray syncs, among them four in a row at each packet size.
Bytes Garbage(size_t length) {
    Bytes g(length, 0);
    uint32_t state = 12345;
    for (char& c : g) {
        state = state * 1103515245u + 12345u;
        c = char(state >> 24 == 0x47 ? 0x46 : state >> 24);
    }
    for (size_t at = 13; at < length; at += 97) g[at] = 0x47;
    const int strides[] = {188, 192, 204};
    for (int k = 0; k < 3; ++k) {
        for (int i = 0; i < 4; ++i) {
            const size_t at = size_t(40 + 700 * k + i * strides[k]);
            if (at < length) g[at] = 0x47;
        }
    }
    return g;
}

struct Cleaned {
    std::vector<int> numbers;  // of the PID 0x100 packets: the one stream a demuxer would follow
    size_t packets = 0;
    Bytes bytes;
    int packetSize = 0;
    int64_t skipped = 0;
    bool injected = false;
};

Cleaned Clean(const Bytes& damaged, const Bytes& sample = Bytes()) {
    TempDir dir("tsclean");
    WriteFile(dir.file("d.ts"), damaged);
    if (!sample.empty()) WriteFile(dir.file("s.ts"), sample);
    TransportStreamCleaner cleaner;
    Cleaned out;
    if (!cleaner.Open(dir.wfile("d.ts"), sample.empty() ? std::wstring() : dir.wfile("s.ts"))) return out;
    char buffer[1000];  // not a multiple of 188, so packets straddle reads
    for (int64_t got; (got = cleaner.Read(reinterpret_cast<uint8_t*>(buffer), sizeof buffer)) > 0;) out.bytes.append(buffer, size_t(got));
    out.packets = out.bytes.size() / 188;
    for (size_t at = 0; at + 188 <= out.bytes.size(); at += 188) {
        if (out.bytes[at + 1] == 0x01 && out.bytes[at + 2] == 0x00) out.numbers.push_back(NumberOf(&out.bytes[at]));
    }
    out.packetSize = cleaner.PacketSize();
    out.skipped = cleaner.Skipped();
    out.injected = cleaner.InjectedTables();
    EXPECT_EQ(out.bytes.size() % 188, 0u);
    EXPECT_EQ(cleaner.Consumed(), int64_t(damaged.size()));
    return out;
}

std::vector<int> Numbers(int count, std::vector<int> except = {}) {
    std::vector<int> n;
    for (int i = 0; i < count; ++i) {
        if (std::find(except.begin(), except.end(), i) == except.end()) n.push_back(i);
    }
    return n;
}

// Damage between packets 9 and 16 of a 40-packet stream, by stored packet size.
Bytes Overwritten(Bytes stored, size_t at, size_t length, char with) { return stored.replace(at, length, length, with); }
Bytes Impossible(int size) {
    Bytes out = Stream(size, 0, 40);
    char* p = &out[size_t(SyncOffset(size))];
    p[10 * size + 3] = 0x05;                                   // adaptation_field_control 00
    p[12 * size + 3] = 0x35, p[12 * size + 4] = char(183);     // field and payload, field fills the packet
    p[14 * size + 3] = 0x25, p[14 * size + 4] = char(183);     // field only (as for a PCR): kept
    return out;
}

}  // namespace

TEST(MpegTsCleaner, FollowsEachPacketSizeThroughDamage) {
    struct Case {
        const char* name;
        Bytes (*damaged)(int size);
        std::vector<int> lost;  // packet numbers missing from the cleaned stream
    };
    const Case cases[] = {
        {"intact", [](int s) { return Stream(s, 0, 40); }, {}},
        {"garbage between", [](int s) { return Stream(s, 0, 11) + Garbage(3001) + Stream(s, 11, 29); }, {}},
        {"zero hole", [](int s) { return Overwritten(Stream(s, 0, 40), 10 * s, 5 * s + 90, 0); }, {10, 11, 12, 13, 14, 15}},
        // The cut packet keeps its place and runs into the next one, as in a demuxer.
        {"cut packet", [](int s) { return Stream(s, 0, 10) + Stream(s, 10, 1).substr(0, 100) + Stream(s, 11, 29); }, {10, 11}},
        {"garbage first", [](int s) { return Garbage(4000) + Stream(s, 0, 40); }, {}},
        {"zeros first", [](int s) { return Bytes(8192, 0) + Stream(s, 0, 40); }, {}},
        {"impossible packets", Impossible, {10, 12}},
    };
    for (int size : {188, 192, 204}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::to_string(size) + " " + c.name);
            const Bytes damaged = c.damaged(size);
            const Cleaned cleaned = Clean(damaged);
            EXPECT_EQ(cleaned.packetSize, size);
            std::vector<int> numbers;  // packets made of damaged bytes carry junk numbers
            for (int n : cleaned.numbers)
                if (n < 40) numbers.push_back(n);
            EXPECT_EQ(numbers, Numbers(40, c.lost));
            // Skipped is all that was not emitted. A garbage packet whose stray sync
            // sits a stride before the stream is emitted (under a PID that no
            // demuxer follows), so the count goes by packets rather than numbers.
            EXPECT_EQ(cleaned.skipped, int64_t(damaged.size() - cleaned.packets * size_t(size)));
        }
    }
}

TEST(MpegTsCleaner, FindsTheStreamOnlyWhereARunSaysSo) {
    struct Case {
        const char* name;
        Bytes damaged;
        std::vector<int> numbers;
        int packetSize;
    };
    const Case cases[] = {
        {"stray syncs only", Garbage(100000), {}, 0},
        {"too short a run", Garbage(5000) + Stream(188, 0, 3), {}, 0},
        {"size changes", Stream(192, 0, 20) + Garbage(999) + Stream(204, 20, 20), Numbers(40), 192},
        // a time stamp in front of 25 packets passing 0x47, parity holding one
        {"sync in 192 headers", Garbage(3000) + Stream(192, 0, 60, 25), Numbers(60), 192},
        {"sync in 204 parity", Garbage(3000) + Stream(204, 0, 60, 25), Numbers(60), 204},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Cleaned cleaned = Clean(c.damaged);
        EXPECT_EQ(cleaned.numbers, c.numbers);
        EXPECT_EQ(cleaned.packetSize, c.packetSize);
    }
}

namespace {

// A PAT naming one program whose PMT (PID 0x1000) lists the given stream PIDs.
// The CRCs are left zero: the cleaner does not check them.
Bytes Tables(std::vector<int> streamPids, int continuity) {
    const Bytes pat("\x00\x00\xB0\x0D\x00\x01\xC1\x00\x00\x00\x01\xF0\x00\0\0\0\0", 17);
    Bytes pmt("\x00\x02\xB0\x00\x00\x01\xC1\x00\x00\xE1\x00\xF0\x00", 13);
    for (int pid : streamPids) pmt += Bytes{'\x1B', char(0xE0 | pid >> 8), char(pid & 0xFF), '\xF0', '\x00'};
    pmt += Bytes(4, '\0');
    pmt[3] = char(pmt.size() - 4);  // section_length: after itself, pointer_field aside
    Bytes out = Packet(0, 900, pat, true) + Packet(0x1000, 901, pmt, true);
    out[3] = out[188 + 3] = char(0x10 | continuity);
    return out;
}

// PES starts for video and audio, then continuation packets.
Bytes Payloads(int first, int count) {
    Bytes out;
    for (int n = first; n < first + count; ++n) {
        const bool start = n % 4 == 0;
        const int pid = n % 8 < 4 ? 0x100 : 0x101;
        out += Packet(pid, n, start ? Bytes("\x00\x00\x01\xE0", 4) : Bytes(), start);
    }
    return out;
}

Bytes StoredAll(const Bytes& packets, int size) {
    Bytes out;
    for (size_t at = 0; at < packets.size(); at += 188) out += Stored(packets.substr(at, 188), size);
    return out;
}

}  // namespace

TEST(MpegTsCleaner, PutsTheSampleTablesFirstOnlyWhenTheStreamLostItsOwn) {
    const Bytes sampleTables = Tables({0x100, 0x101}, 7);
    struct Case {
        const char* name;
        Bytes damaged;
        Bytes sample;
        int tablesBefore;  // packet of the damaged file the tables go in front of; -1: none
    };
    const Case cases[] = {
        {"tables present", Tables({0x100, 0x101}, 3) + Payloads(0, 30), sampleTables + Payloads(0, 20), -1},
        {"tables lost", Payloads(0, 30), sampleTables + Payloads(0, 20), 0},
        {"PMT lost", Tables({0x100, 0x101}, 3).substr(0, 188) + Payloads(0, 30), sampleTables + Payloads(0, 20), 1},
        {"tables after the first PES", Payloads(0, 4) + Tables({0x100}, 3) + Payloads(4, 26),
         sampleTables + Payloads(0, 20), 0},
        {"192-byte sample", Payloads(0, 30), StoredAll(sampleTables + Payloads(0, 20), 192), 0},
        {"sample of other PIDs", Payloads(0, 30), Tables({0x200}, 7) + Payloads(0, 20), -1},
        {"sample without tables", Payloads(0, 30), Payloads(0, 20), -1},
        {"no sample", Payloads(0, 30), Bytes(), -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Cleaned cleaned = Clean(c.damaged, c.sample);
        EXPECT_EQ(cleaned.injected, c.tablesBefore >= 0);
        Bytes expected = c.damaged;
        if (c.tablesBefore >= 0) {
            Bytes tables = sampleTables;
            tables[3] = tables[188 + 3] = 0x10;  // counters restart
            expected.insert(size_t(c.tablesBefore) * 188, tables);
        }
        EXPECT_EQ(cleaned.bytes, expected);
    }
}

namespace {

std::vector<std::string> ClipArgs(const std::string& video, const std::string& audio, int seconds, int tone,
                                  int m2tsMode) {
    const std::string d = ":duration=" + std::to_string(seconds);
    std::vector<std::string> args = {"-f", "lavfi", "-i", "testsrc=size=320x240:rate=25" + d, "-f", "lavfi", "-i",
                                     "sine=frequency=" + std::to_string(tone) + ":sample_rate=48000" + d,
                                     "-c:v", video, "-g", "25", "-c:a", audio};
    if (video == "libx264") args.insert(args.end(), {"-preset", "veryfast"});
    args.insert(args.end(), {"-f", "mpegts", "-mpegts_m2ts_mode", std::to_string(m2tsMode)});
    return args;
}

Bytes H264Clip(bool sample) {
    return testing_support::ReadFile(GeneratedMedia(sample ? "thorough_ts_sample.m2ts" : "thorough_ts_clip.m2ts",
                                                    ClipArgs("libx264", "ac3", sample ? 2 : 4, sample ? 660 : 440, 1)));
}
Bytes Mpeg2Clip(bool sample) {
    return testing_support::ReadFile(GeneratedMedia(sample ? "thorough_ts_sample.ts" : "thorough_ts_clip.ts",
                                                    ClipArgs("mpeg2video", "mp2", sample ? 2 : 4, sample ? 660 : 440, 0)));
}
// The 204-byte form: 16 bytes (not real parity) after every 188-byte packet.
Bytes WithParity(const Bytes& ts) { return StoredAll(ts.substr(0, ts.size() / 188 * 188), 204); }

struct Demuxed {
    AVCodecID videoCodec = AV_CODEC_ID_NONE;
    std::vector<int64_t> videoAt;  // where each video frame starts in the file
    int audio = 0;                 // audio frames (their positions are not kept by the parser)
};

int ReadSource(void* opaque, uint8_t* buffer, int size) {
    const int64_t got = static_cast<thorough::ByteSource*>(opaque)->Read(buffer, size_t(size));
    return got > 0 ? int(got) : got == 0 ? AVERROR_EOF : AVERROR(EIO);
}

Demuxed Count(AVFormatContext* context) {
    Demuxed d;
    if (avformat_find_stream_info(context, nullptr) < 0) return d;
    const int video = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video >= 0) d.videoCodec = context->streams[video]->codecpar->codec_id;
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        const AVMediaType type = context->streams[packet->stream_index]->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_VIDEO) d.videoAt.push_back(packet->pos);
        d.audio += type == AVMEDIA_TYPE_AUDIO;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return d;
}

Demuxed DemuxFile(const std::string& path) {
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return Demuxed();
    Demuxed d = Count(context);
    avformat_close_input(&context);
    return d;
}

Demuxed DemuxSource(thorough::ByteSource& source) {
    const int kBufferBytes = 32768;
    AVIOContext* io = avio_alloc_context(static_cast<uint8_t*>(av_malloc(kBufferBytes)), kBufferBytes, 0, &source,
                                         ReadSource, nullptr, nullptr);
    AVFormatContext* context = avformat_alloc_context();
    context->pb = io;
    Demuxed d;
    if (avformat_open_input(&context, nullptr, av_find_input_format("mpegts"), nullptr) == 0) {
        d = Count(context);
        avformat_close_input(&context);
    }
    av_freep(&io->buffer);
    avio_context_free(&io);
    return d;
}

// The stored stream without its PAT, PMT and SDT packets (PIDs 0, 0x1000, 0x11).
Bytes WithoutTables(const Bytes& stored, int size) {
    Bytes out;
    for (size_t at = 0; at + size_t(size) <= stored.size(); at += size_t(size)) {
        const char* p = &stored[at + size_t(SyncOffset(size))];
        const int pid = (p[1] & 0x1F) << 8 | uint8_t(p[2]);
        if (pid != 0 && pid != 0x1000 && pid != 0x11) out.append(stored, at, size_t(size));
    }
    return out;
}

// Frames that start or run within [from, to): a frame runs until the next one.
int FramesTouched(std::vector<int64_t> at, int64_t from, int64_t to, int64_t fileSize) {
    std::sort(at.begin(), at.end());
    int touched = 0;
    for (int64_t start : at) {
        const auto next = std::upper_bound(at.begin(), at.end(), start);
        touched += start < to && (next == at.end() ? fileSize : *next) > from;
    }
    return touched;
}

}  // namespace

TEST(MpegTsStrategy, DemuxedFromTheCleanedViewOfDamagedClips) {
    av_log_set_level(AV_LOG_QUIET);  // damaged input makes the decoders talk
    enum Kind { GarbageInside, ZeroHole, HeaderZeroed, TablesStripped };
    struct Case {
        const char* name;
        Bytes clip;
        Bytes sample;
        int packetSize;
        Kind kind;
    };
    const Case cases[] = {
        {"m2ts garbage", H264Clip(false), H264Clip(true), 192, GarbageInside},
        {"m2ts hole", H264Clip(false), H264Clip(true), 192, ZeroHole},
        {"m2ts header", H264Clip(false), H264Clip(true), 192, HeaderZeroed},
        {"ts garbage", Mpeg2Clip(false), Mpeg2Clip(true), 188, GarbageInside},
        {"ts header", Mpeg2Clip(false), Mpeg2Clip(true), 188, HeaderZeroed},
        {"204 hole", WithParity(Mpeg2Clip(false)), WithParity(Mpeg2Clip(true)), 204, ZeroHole},
        {"204 header", WithParity(Mpeg2Clip(false)), WithParity(Mpeg2Clip(true)), 204, HeaderZeroed},
        {"m2ts tables", H264Clip(false), H264Clip(true), 192, TablesStripped},
        {"ts tables", Mpeg2Clip(false), Mpeg2Clip(true), 188, TablesStripped},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_GT(c.clip.size(), 100000u);
        TempDir dir("tsclip");
        WriteFile(dir.file("original"), c.clip);
        WriteFile(dir.file("sample"), c.sample);
        const Demuxed original = DemuxFile(dir.file("original"));
        const int64_t size = int64_t(c.clip.size());
        Bytes damaged = c.clip;
        int64_t from = 0, to = 8192;  // what the damage covers, in the original
        if (c.kind == GarbageInside) {
            from = size * 2 / 5 + 77;
            to = from + 1;
            damaged.insert(size_t(from), Garbage(40000));
            from -= 2 * c.packetSize;  // with the packet before it
        } else if (c.kind == ZeroHole) {
            from = size * 3 / 5 + 33;
            to = from + 65536;
            damaged.replace(size_t(from), size_t(to - from), size_t(to - from), '\0');
            from -= c.packetSize;
        } else if (c.kind == HeaderZeroed) {
            damaged.replace(0, 8192, 8192, '\0');
        } else {
            damaged = WithoutTables(c.clip, c.packetSize);
            to = 0;  // no frame is touched: only the tables go
        }
        WriteFile(dir.file("damaged"), damaged);

        thorough::MpegTsStrategy strategy;
        std::unique_ptr<thorough::ByteSource> source = strategy.Clean(dir.wfile("damaged"), dir.wfile("sample"), nullptr);
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(strategy.Muxer().options["mpegts_m2ts_mode"], c.packetSize == 192 ? "1" : "0");
        const Demuxed cleaned = DemuxSource(*source);
        const int video = int(original.videoAt.size());
        const int expected = video - FramesTouched(original.videoAt, from, to, size);
        const int cleanedVideo = int(cleaned.videoAt.size());
        std::printf("[ %-12s ] video %d original, %d cleaned, %d untouched by the damage; audio %d original, %d cleaned\n",
                    c.name, video, cleanedVideo, expected, original.audio, cleaned.audio);
        EXPECT_GE(cleanedVideo, expected - 1);
        EXPECT_LE(cleanedVideo, video);
        // Audio is interleaved ahead of or behind the video, so it is held to the
        // share of video kept rather than to positions.
        EXPECT_GE(double(cleaned.audio) / original.audio, double(cleanedVideo) / video - 0.15);
        EXPECT_LE(cleaned.audio, original.audio);
        EXPECT_EQ(cleaned.videoCodec, original.videoCodec);
        EXPECT_EQ(static_cast<TransportStreamCleaner&>(*source).InjectedTables(), c.kind >= HeaderZeroed);
    }
}
