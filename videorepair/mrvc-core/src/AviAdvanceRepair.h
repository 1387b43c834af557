// Repairs a RIFF AVI file with the header of a healthy sample from the same
// device: the damaged file's `movi` data is found (or, without a header, its
// first data chunk), the chunks are walked to rebuild a legacy idx1 index, and
// the output is the sample's header + the damaged data + the new index.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "io/FileWriter.h"
#include "io/ScanReader.h"

// One AVI 1.0 index entry, exactly as it is written to idx1.
struct AviIndexEntry {
    uint32_t chunkId;
    uint32_t flags;
    uint32_t offset;  // relative to the `movi` type word
    uint32_t size;
};
static_assert(sizeof(AviIndexEntry) == 16, "idx1 entries are 16 bytes");

// What the sample's header holds; informational except the header length.
struct AviSampleInfo {
    uint64_t headerLength = 0;  // offset of the sample's LIST movi = bytes copied to the output
    int64_t moviOffset = -1;
    int64_t idx1Offset = -1;
    std::vector<uint8_t> mainHeader;                 // avih chunk head + 56-byte main header
    std::vector<std::vector<uint8_t>> streamHeaders; // 64 bytes per strh
    std::vector<std::vector<uint8_t>> videoFormats;  // 40-byte BITMAPINFOHEADER per vids strf
    std::vector<std::vector<uint8_t>> audioFormats;  // first 16 bytes of WAVEFORMATEX per auds strf
    std::vector<uint8_t> infoList;                   // LIST INFO when under 1024 bytes
};

class AviAdvanceRepair : public AdvanceRepairBase {
public:
    AviAdvanceRepair();
    ~AviAdvanceRepair() override;

    std::wstring GetFormatName() override { return L"avi"; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                  const std::wstring& second, int mode) override;
    void Release() override;

    // What the last repair found, for diagnostics and tests.
    const std::vector<AviIndexEntry>& IndexEntries() const { return entries_; }
    const AviSampleInfo& SampleInfo() const { return sample_; }
    int64_t MoviOffset() const { return moviKnown_ ? moviOffset_ : -1; }
    bool MoviTentative() const { return moviTentative_; }
    int64_t Idx1Offset() const { return idx1Offset_; }
    uint32_t MoviSize() const { return moviSize_; }

protected:
    bool CarvesInProcess() const override { return true; }

private:
    void ResetFindings();
    int ParseSampleHeader();
    void ParseHeaderList(const uint8_t* list, size_t available);
    void ParseStreamList(const uint8_t* list, size_t available);
    void ScanDamaged();
    void ScanBlock(const uint8_t* block, size_t length, int64_t position);
    bool TestWord(uint32_t word, int64_t at);
    int StartBytePatterns(uint64_t* patterns) const;
    uint32_t WalkChunks(bool stopAtIdx1);
    void ReadOldIndexHead();

    bool WriteSampleHeader(FileWriter& out);
    bool WriteMoviList(FileWriter& out);
    bool WriteIndex(FileWriter& out);

    ScanReader damaged_;
    ScanReader sampleFile_;
    int64_t damagedSize_ = 0;
    uint64_t sampleSize_ = 0;
    AviSampleInfo sample_;

    // Findings of the scan. The movi offset may be tentative: taken four bytes in
    // front of the first chunk id when no "movi" word was seen.
    int64_t moviOffset_ = -1;
    int64_t idx1Offset_ = -1;
    bool moviKnown_ = false;
    bool moviTentative_ = false;
    bool moviFound_ = false;
    bool idx1Known_ = false;

    bool hasOldIndexHead_ = false;
    uint8_t oldIndexHead_[8] = {};
    uint32_t moviSize_ = 4;
    uint32_t chunkCount_ = 0;
    uint32_t oldIndexSize_ = 0;
    uint32_t outputSize_ = 0;
    uint32_t storedRiffSize_ = 0;
    uint32_t storedTotalFrames_ = 0;
    // 16 bytes an entry, in one block of memory.
    std::vector<AviIndexEntry> entries_;
};
