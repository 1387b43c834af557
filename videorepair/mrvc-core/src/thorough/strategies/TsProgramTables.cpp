#include "thorough/strategies/TsProgramTables.h"

#include <algorithm>
#include <cstring>

#include "io/FileReader.h"
#include "thorough/strategies/TsPacket.h"

namespace thorough {

namespace {

constexpr int kPatTable = 0x00;
constexpr int kPmtTable = 0x02;
constexpr size_t kCrcBytes = 4;

int Pid13(const uint8_t* at) { return (at[0] & 0x1F) << 8 | at[1]; }
size_t Length12(const uint8_t* at) { return size_t(at[0] & 0x0F) << 8 | at[1]; }

}  // namespace

bool TsProgramTables::Load(const std::wstring& samplePath, size_t headBytes) {
    FileReader reader(headBytes * 2);
    if (!reader.Open(samplePath)) return false;
    size_t got = 0;
    const uint8_t* head = reader.View(0, headBytes, got);
    return head != nullptr && Parse(head, got, int64_t(got) >= reader.Size());
}

// Walks the packets at their stride, finding the stream again wherever the
// head of the sample is itself damaged.
bool TsProgramTables::Parse(const uint8_t* data, size_t length, bool atFileEnd) {
    // Past the head only whole runs count, so the search stops a run short of it.
    const size_t limit = atFileEnd || length < ts::kRunReach ? length : length - ts::kRunReach;
    ts::SyncRun run = ts::FindRun(data, 0, limit, length, true, 0);
    packetSize_ = run.packetSize;
    size_t at = run.at < 0 ? length : size_t(run.at);
    while (!complete_ && at + ts::kPacketBytes <= length) {
        if (data[at] == ts::kSyncByte && ts::LooksRight(data + at)) {
            Take(data + at);
            at += size_t(run.packetSize);
            continue;
        }
        ts::SyncRun next = ts::FindRun(data, at + 1, limit, length, true, run.packetSize);
        if (next.at < 0) break;
        run = next;
        at = size_t(next.at);
    }
    if (!complete_) packets_.clear();
    return complete_;
}

void TsProgramTables::Take(const uint8_t* p) {
    size_t start = 0, length = 0;
    if (!ts::SectionInPacket(p, start, length) || length < 12) return;
    const int pid = ts::Pid(p);
    if (packets_.empty()) {
        if (pid == 0 && p[start] == kPatTable) TakePat(p, start, length);
    } else if (p[start] == kPmtTable && pmtPids_.count(pid) != 0 && pmtPidsTaken_.count(pid) == 0) {
        TakePmt(p, start, length);
    }
}

void TsProgramTables::TakePat(const uint8_t* p, size_t start, size_t length) {
    // Program loop: 4 bytes a program after the 8-byte section header.
    for (size_t at = start + 8; at + 4 <= start + length - kCrcBytes; at += 4) {
        const int program = p[at] << 8 | p[at + 1];
        if (program != 0) pmtPids_.insert(Pid13(p + at + 2));  // program 0 names the network PID
    }
    if (!pmtPids_.empty()) Keep(p);
}

void TsProgramTables::TakePmt(const uint8_t* p, size_t start, size_t length) {
    const size_t end = start + length - kCrcBytes;
    size_t at = start + 12 + Length12(p + start + 10);  // past program_info
    // Elementary stream loop: type, PID, info length, info.
    while (at + 5 <= end) {
        streamPids_.insert(Pid13(p + at + 1));
        at += 5 + Length12(p + at + 3);
    }
    pmtPidsTaken_.insert(ts::Pid(p));
    Keep(p);
    complete_ = pmtPidsTaken_.size() == pmtPids_.size();
}

void TsProgramTables::Keep(const uint8_t* p) {
    Packet packet;
    std::memcpy(packet.data(), p, packet.size());
    packets_.push_back(packet);
}

}  // namespace thorough
