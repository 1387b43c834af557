#include "AviAdvanceRepair.h"

#include <algorithm>
#include <cstring>

#include "OutputNaming.h"
#include "platform/Platform.h"

namespace {

constexpr uint32_t FourCC(const char (&s)[5]) {
    return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
           uint32_t(uint8_t(s[3])) << 24;
}

constexpr uint32_t kMovi = FourCC("movi");
constexpr uint32_t kIdx1 = FourCC("idx1");
constexpr uint32_t kJunk = FourCC("JUNK");
constexpr uint32_t kList = FourCC("LIST");
constexpr uint32_t kHdrl = FourCC("hdrl");
constexpr uint32_t kAvih = FourCC("avih");
constexpr uint32_t kStrl = FourCC("strl");
constexpr uint32_t kStrh = FourCC("strh");
constexpr uint32_t kStrf = FourCC("strf");
constexpr uint32_t kIndx = FourCC("indx");
constexpr uint32_t kOdml = FourCC("odml");
constexpr uint32_t kInfo = FourCC("INFO");
constexpr uint32_t kVids = FourCC("vids");
constexpr uint32_t kAuds = FourCC("auds");

// The data chunks this engine recognises; all other ids are garbage to it.
constexpr uint32_t kDataChunkIds[10] = {FourCC("00dc"), FourCC("00db"), FourCC("01dc"), FourCC("01db"),
                                        FourCC("00pc"), FourCC("00wb"), FourCC("01pc"), FourCC("01wb"),
                                        FourCC("ix00"), FourCC("00__")};

constexpr size_t kBlockBytes = 1024;
constexpr int kResyncSteps = 1016;
constexpr size_t kSampleWorkBytes = 65536;
constexpr size_t kCopyPieceBytes = 1048576;
constexpr uint32_t kKeyFrameFlag = 16;
constexpr size_t kMainHeaderBytes = 8 + 56;
constexpr size_t kStreamHeaderBytes = 64;
constexpr size_t kVideoFormatBytes = 40;
constexpr size_t kAudioFormatBytes = 16;
// The index is gathered in one 1 MiB buffer; it fills at the 65,536th entry.
constexpr size_t kMaxWrittenEntries = kCopyPieceBytes / sizeof(AviIndexEntry) - 1;

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// A word inside a buffer of `length` bytes; 0 where the buffer ends.
uint32_t Le32In(const uint8_t* base, size_t length, uint64_t offset) {
    return offset + 4 <= length ? Le32(base + offset) : 0;
}

void PutLe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}

// n bytes from a buffer, zero where the buffer ends.
std::vector<uint8_t> BytesIn(const uint8_t* base, size_t length, uint64_t offset, size_t n) {
    std::vector<uint8_t> out(n, 0);
    if (offset < length) std::copy_n(base + offset, std::min<uint64_t>(n, length - offset), out.begin());
    return out;
}

bool IsDataChunkId(uint32_t word) {
    for (uint32_t id : kDataChunkIds) {
        if (word == id) return true;
    }
    return false;
}

// Video chunks ("..dc", "..db") are all marked as key frames.
bool IsVideoChunkId(uint32_t word) {
    const uint32_t tail = word >> 16;
    return tail == (FourCC("00dc") >> 16) || tail == (FourCC("00db") >> 16);
}

// True when one of the eight bytes in `group` equals a byte repeated in a pattern.
bool GroupHasByte(uint64_t group, const uint64_t* patterns, int count) {
    constexpr uint64_t kOnes = 0x0101010101010101ull, kHighs = 0x8080808080808080ull;
    for (int k = 0; k < count; ++k) {
        const uint64_t v = group ^ patterns[k];
        if (((v - kOnes) & ~v & kHighs) != 0) return true;
    }
    return false;
}

// Byte order does not matter: the group is only searched for repeated bytes.
uint64_t Load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

constexpr uint64_t Repeat(char c) { return 0x0101010101010101ull * uint8_t(c); }

// The first position from `from` on (below length - 3) whose byte starts a word still
// looked for, or length - 3 (a word that cannot teach anything may be passed over).
// One word left (only "idx1", the usual case for most of the file) is found with
// memchr; several first bytes by testing eight bytes at a time.
size_t NextCandidate(const uint8_t* block, size_t from, size_t length, const uint64_t* patterns, int count) {
    const size_t words = length - 3;
    if (from >= words) return words;
    if (count == 1) {
        // One word is left ("idx1", or "movi" after a tentative start): its first byte
        // by memchr, the other three checked here, since no other word can teach anything.
        const uint8_t first = uint8_t(patterns[0]);
        const uint32_t wanted = first == 'i' ? kIdx1 : kMovi;
        for (size_t j = from; j < words; ++j) {
            const void* hit = std::memchr(block + j, first, words - j);
            if (hit == nullptr) return words;
            j = size_t(static_cast<const uint8_t*>(hit) - block);
            if (Le32(block + j) == wanted) return j;
        }
        return words;
    }
    for (size_t j = from; j < words; ++j) {
        if (j % 8 == 0 && j + 8 <= length && !GroupHasByte(Load64(block + j), patterns, count)) {
            j += 7;
            continue;
        }
        for (int k = 0; k < count; ++k)
            if (block[j] == uint8_t(patterns[k])) return j;
    }
    return words;
}

// Steps 1, 2, ... from byte 4: the first chunk id or "JUNK" at byte 4 + step.
int ResyncSteps(const uint8_t* block, bool& found) {
    for (int step = 1; step <= kResyncSteps; ++step) {
        uint32_t word = Le32(block + 4 + step);
        if (IsDataChunkId(word) || word == kJunk) {
            found = true;
            return step;
        }
    }
    found = false;
    return kResyncSteps;
}

// AVI 1.0 sizes and idx1 offsets are 32-bit. A chunk is indexed and copied only
// while the whole output (header, movi list with this chunk, idx1 with its entry)
// still fits them; past that the RIFF size and the offsets would wrap.
bool FitsAvi10(uint64_t moviSize, uint64_t paddedChunk, size_t entries) {
    const uint64_t indexBytes = 16 * uint64_t(entries) + 8;
    const uint64_t frame = kCopyPieceBytes + 12;  // the largest copied header and "RIFF" size "AVI "
    return moviSize + paddedChunk + 8 + indexBytes + frame <= 0xFFFFFFFFull;
}

}  // namespace

AviAdvanceRepair::AviAdvanceRepair()
    : AdvanceRepairBase("AviAdvanceRepair", "videorepair/mrvc-core/src/AviAdvanceRepair"),
      damaged_(2u << 20),
      sampleFile_(256u << 10) {}

AviAdvanceRepair::~AviAdvanceRepair() {
    damaged_.Close();
    sampleFile_.Close();
}

void AviAdvanceRepair::ResetFindings() {
    moviOffset_ = idx1Offset_ = -1;
    moviKnown_ = moviTentative_ = moviFound_ = idx1Known_ = false;
    hasOldIndexHead_ = false;
    moviSize_ = 4;
    chunkCount_ = oldIndexSize_ = outputSize_ = 0;
}

int AviAdvanceRepair::Repair() {
    if (damagedPath_.empty() || samplePath_.empty()) return -1;
    LogEntry("Repair");
    BeginRepair();
    ReportProgress(2);

    int parsed = ParseSampleHeader();
    if (parsed < 0) return parsed;
    entries_.clear();

    ResetFindings();
    if (!damaged_.Open(damagedPath_)) {
        ENGINE_LOG(kLogError, "[AVI] Open damaged file failed:", platform::ToNarrow(damagedPath_));
        return -1;
    }
    damagedSize_ = damaged_.Size();
    ScanDamaged();

    ReportProgress(75);
    if (moviFound_) {
        chunkCount_ = WalkChunks(true);
    } else if (moviKnown_) {
        chunkCount_ = WalkChunks(false);
    } else {
        chunkCount_ = 0;
    }

    ReportProgress(85);
    ReadOldIndexHead();
    oldIndexSize_ = hasOldIndexHead_ ? (Le32(oldIndexHead_ + 4) / 16) * 16 : 0;
    outputSize_ = oldIndexSize_ + moviSize_ + 16 + uint32_t(sample_.headerLength);
    storedRiffSize_ = outputSize_;
    storedTotalFrames_ = chunkCount_;

    ReportProgress(100);
    ENGINE_LOG(kLogInfo, "Flv Header is damaged, will try repairing.", int32_t(-1));
    if (chunkCount_ < 1) {
        ENGINE_LOG(kLogError, "[AVI] No data chunk found in damaged file.", int32_t(-1));
        return -1;
    }
    return 0;
}

// Everything in front of the sample's LIST movi becomes the output's header; the
// other pieces are kept for diagnostics only.
int AviAdvanceRepair::ParseSampleHeader() {
    sample_ = AviSampleInfo();
    sampleSize_ = 0;
    if (!sampleFile_.Open(samplePath_)) {
        ENGINE_LOG(kLogWarning, "[AVI] Open sample file failed:", platform::ToNarrow(samplePath_));
        return 0;
    }
    sampleSize_ = uint64_t(sampleFile_.Size());
    std::vector<uint8_t> work(kSampleWorkBytes);
    const uint8_t* chunk = work.data();
    for (uint64_t offset = 12; offset < sampleSize_;) {
        if (sampleFile_.ReadBlock(int64_t(offset), work.data(), work.size()) <= 0) break;
        ReportProgress(int(5 + 0.35 * (100.0 * double(offset) / double(sampleSize_))));
        const uint32_t id = Le32(chunk), size = Le32(chunk + 4), type = Le32(chunk + 8);
        if (type == kHdrl) {
            ParseHeaderList(chunk, work.size());
        } else if (type == kInfo) {
            if (size < 1024) sample_.infoList = BytesIn(chunk, work.size(), 0, size + 8);
        } else if (type == kMovi) {
            platform::DebugTrace("AVI Data\n");
            sample_.headerLength = offset;
            sample_.moviOffset = int64_t(offset);
        } else if (id == kIdx1) {
            platform::DebugTrace("AVI Index\n");
            sample_.idx1Offset = int64_t(offset);
        }
        offset += uint64_t(size) + 8;
        if (PauseThenShouldStop()) break;
    }
    return 0;
}

// hdrl: avih, LIST strl..., LIST odml; anything else ends the list.
void AviAdvanceRepair::ParseHeaderList(const uint8_t* list, size_t available) {
    const uint32_t listSize = Le32In(list, available, 4);
    for (uint64_t sub = 12; sub < listSize && sub + 4 <= available;) {
        const uint32_t id = Le32In(list, available, sub);
        const uint32_t type = Le32In(list, available, sub + 8);
        if (id == kAvih) {
            sample_.mainHeader = BytesIn(list, available, sub, kMainHeaderBytes);
        } else if (id == kList && type == kStrl) {
            ParseStreamList(list + sub, size_t(available - sub));
        } else if (!(id == kList && type == kOdml)) {
            break;
        }
        sub += 8 + uint64_t(Le32In(list, available, sub + 4));
    }
}

// strl: strh, strf, indx (traced), JUNK; anything else ends the list.
void AviAdvanceRepair::ParseStreamList(const uint8_t* list, size_t available) {
    const uint32_t listSize = Le32In(list, available, 4);
    for (uint64_t sub = 12; sub < listSize && sub + 4 <= available;) {
        const uint32_t id = Le32In(list, available, sub);
        if (id == kStrh) {
            sample_.streamHeaders.push_back(BytesIn(list, available, sub + 8, kStreamHeaderBytes));
        } else if (id == kStrf) {
            const uint32_t streamType =
                sample_.streamHeaders.empty() ? 0 : Le32(sample_.streamHeaders.back().data());
            if (streamType == kVids) {
                sample_.videoFormats.push_back(BytesIn(list, available, sub + 8, kVideoFormatBytes));
            } else if (streamType == kAuds) {
                sample_.audioFormats.push_back(BytesIn(list, available, sub + 8, kAudioFormatBytes));
            }
        } else if (id == kIndx) {
            platform::DebugTrace("avi internal indx.");
        } else if (id != kJunk) {
            break;
        }
        sub += 8 + uint64_t(Le32In(list, available, sub + 4));
    }
}

// Blocks of 1024 bytes overlapping by 3, so a word across a border is seen.
// Each block is looked at in the reader's cache rather than copied out.
void AviAdvanceRepair::ScanDamaged() {
    int64_t position = 0;
    for (;;) {
        size_t got = 0;
        const uint8_t* block = damaged_.View(position, kBlockBytes, got);
        if (block == nullptr || got < 4) break;
        ScanBlock(block, got, position);
        position += int64_t(got) - 3;
        if (damagedSize_ > 0) ReportProgress(int(40 + 0.35 * (100.0 * double(position) / double(damagedSize_))));
        if (PauseThenShouldStop()) break;
    }
}

// Tests the word at every byte of the block, in order, until both offsets are
// known. Groups of eight bytes holding no first byte of a word still looked for
// are passed over at once; that changes no result, only the speed.
void AviAdvanceRepair::ScanBlock(const uint8_t* block, size_t length, int64_t position) {
    if (moviKnown_ && idx1Known_) {
        TestWord(Le32(block), position);
        return;
    }
    const size_t words = length - 3;
    uint64_t patterns[4];
    int count = StartBytePatterns(patterns);
    for (size_t j = NextCandidate(block, 0, length, patterns, count); j < words;
         j = NextCandidate(block, j + 1, length, patterns, count)) {
        if (!TestWord(Le32(block + j), position + int64_t(j))) continue;
        if (moviKnown_ && idx1Known_) return;
        count = StartBytePatterns(patterns);
    }
}

// First bytes of the words still looked for: "movi", the chunk ids ("0...",
// "1...", "ix00") and "idx1".
int AviAdvanceRepair::StartBytePatterns(uint64_t* patterns) const {
    int count = 0;
    if (!moviKnown_ || moviTentative_) patterns[count++] = Repeat('m');
    if (!moviKnown_) {
        patterns[count++] = Repeat('0');
        patterns[count++] = Repeat('1');
    }
    if (!moviKnown_ || !idx1Known_) patterns[count++] = Repeat('i');
    return count;
}

// One word of the scan; true when it taught something.
bool AviAdvanceRepair::TestWord(uint32_t word, int64_t at) {
    if (word == kMovi && (!moviKnown_ || moviTentative_)) {
        moviOffset_ = at;
        moviKnown_ = true;
        moviTentative_ = false;
        moviFound_ = true;
        return true;
    }
    if (!moviKnown_ && IsDataChunkId(word)) {
        // Where a "movi" word would stand in front of the first chunk.
        moviOffset_ = at - 4;
        moviKnown_ = true;
        moviTentative_ = true;
        return true;
    }
    if (word == kIdx1 && !idx1Known_) {
        idx1Offset_ = at;
        idx1Known_ = true;
        return true;
    }
    return false;
}

// Walks the chunks from the movi offset and appends an index entry for each data
// chunk. Without a "movi" word (the tentative case) the list length starts at 0
// instead of 4, so the output announces and copies four bytes less; kept so, as
// files repaired earlier were written that way.
uint32_t AviAdvanceRepair::WalkChunks(bool stopAtIdx1) {
    moviSize_ = stopAtIdx1 ? 4 : 0;
    if (moviOffset_ >= damagedSize_) return 0;
    uint8_t block[kBlockBytes];
    int64_t relative = 0;
    for (;;) {
        if (damaged_.ReadBlock(moviOffset_ + relative, block, kBlockBytes) <= 0) break;
        uint32_t id = Le32(block + 4);
        if (stopAtIdx1 && id == kIdx1) break;
        if (!IsDataChunkId(id) && id != kJunk) {
            bool found = false;
            relative += ResyncSteps(block, found);
            if (!found) {
                if (PauseThenShouldStop() || moviOffset_ + relative >= damagedSize_) break;
                continue;
            }
            // The chunk found takes the size word that follows its id.
            if (damaged_.ReadBlock(moviOffset_ + relative, block, kBlockBytes) <= 0) break;
            id = Le32(block + 4);
        }
        const uint64_t size = Le32(block + 8);
        const uint64_t padded = size + (size & 1);
        if (IsDataChunkId(id)) {
            entries_.push_back({id, IsVideoChunkId(id) ? kKeyFrameFlag : 0, moviSize_, uint32_t(padded)});
        }
        relative += int64_t(padded + 8);
        if (relative > damagedSize_) break;
        if (!FitsAvi10(moviSize_, padded, entries_.size())) {
            if (IsDataChunkId(id)) entries_.pop_back();
            ENGINE_LOG(kLogWarning, "[AVI] The movi list reaches the 4 GiB limit of AVI 1.0, indexing stops at:",
                       int64_t(moviOffset_ + relative - int64_t(padded + 8) + 4));
            break;
        }
        moviSize_ += uint32_t(padded + 8);
        if (PauseThenShouldStop() || moviOffset_ + relative >= damagedSize_) break;
    }
    return uint32_t(entries_.size());
}

void AviAdvanceRepair::ReadOldIndexHead() {
    if (!idx1Known_ || idx1Offset_ <= 0) return;
    uint8_t block[kBlockBytes];
    if (damaged_.ReadBlock(idx1Offset_, block, kBlockBytes) >= 8) {
        std::copy_n(block, 8, oldIndexHead_);
        hasOldIndexHead_ = true;
    }
}

std::wstring AviAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    result.clear();
    std::wstring path;
    naming::MakeOutputPath(path, first, second, mode);
    FileWriter out;
    if (!out.Create(path)) {
        ENGINE_LOG(kLogError, "[AVI] Create output file failed:", platform::ToNarrow(path));
        return result;
    }
    bool written = WriteSampleHeader(out) && WriteMoviList(out) && WriteIndex(out);
    if (!out.Close() || !written) {
        ENGINE_LOG(kLogError, "[AVI] Write output file failed:", platform::ToNarrow(path));
        return result;
    }
    result = path;
    return result;
}

// The sample's bytes in front of its movi list, with the RIFF size and the total
// frame count patched. A header of 1 MiB or more is not copied at all.
bool AviAdvanceRepair::WriteSampleHeader(FileWriter& out) {
    if (sample_.headerLength < 1 || sample_.headerLength >= kCopyPieceBytes) return true;
    std::vector<uint8_t> piece(size_t(sample_.headerLength));
    const int64_t got = sampleFile_.ReadBlock(0, piece.data(), piece.size());
    if (got < 0) return true;
    piece.resize(size_t(got));
    const uint32_t riffSize = outputSize_ - 8 - oldIndexSize_ + 16 * uint32_t(entries_.size());
    if (piece.size() >= 8) PutLe32(piece.data() + 4, riffSize);
    if (piece.size() >= 52) PutLe32(piece.data() + 48, chunkCount_);
    return out.Write(piece.data(), piece.size());
}

bool AviAdvanceRepair::WriteMoviList(FileWriter& out) {
    uint8_t head[12];
    PutLe32(head, kList);
    PutLe32(head + 4, moviSize_);
    PutLe32(head + 8, kMovi);
    if (!out.Write(head, sizeof head)) return false;
    if (!moviKnown_) return true;
    const int64_t end = moviOffset_ + int64_t(moviSize_);
    for (int64_t at = moviOffset_ + 4; at < end;) {
        size_t got = 0;
        const uint8_t* data = damaged_.View(at, size_t(std::min<int64_t>(end - at, kCopyPieceBytes)), got);
        if (data == nullptr || got == 0) break;
        if (!out.Write(data, got)) return false;
        at += int64_t(got);
    }
    return true;
}

// The idx1 head always announces every entry, but the entries are written only
// while they fit one 1 MiB piece: up to 65,535 of them. From the 65,536th on, no
// entry at all is written (players then fall back to reading the data in order).
bool AviAdvanceRepair::WriteIndex(FileWriter& out) {
    const uint32_t indexBytes = 16 * uint32_t(entries_.size());
    uint8_t head[8];
    PutLe32(head, kIdx1);
    PutLe32(head + 4, indexBytes);
    oldIndexSize_ = indexBytes;
    if (!out.Write(head, sizeof head)) return false;
    if (entries_.empty() || entries_.size() > kMaxWrittenEntries) return true;
    std::vector<uint8_t> gathered(entries_.size() * sizeof(AviIndexEntry));
    uint8_t* p = gathered.data();
    for (const AviIndexEntry& entry : entries_) {
        PutLe32(p, entry.chunkId);
        PutLe32(p + 4, entry.flags);
        PutLe32(p + 8, entry.offset);
        PutLe32(p + 12, entry.size);
        p += 16;
    }
    return out.Write(gathered.data(), gathered.size());
}

// Closes the damaged file (a second time when a sample is open: harmless, and
// the order hosts have always seen); the sample stays open until destruction.
void AviAdvanceRepair::Release() {
    Stop();
    damaged_.Close();
    if (sampleFile_.IsOpen()) damaged_.Close();
    sample_.streamHeaders.clear();
    sample_.videoFormats.clear();
    sample_.audioFormats.clear();
    hasOldIndexHead_ = false;
    sample_.infoList.clear();
}
