#include "thorough/strategies/MxfKlvWalker.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace mxf {
namespace {

constexpr size_t kHeadBytes = kKeyBytes + 9;  // key and the longest BER length
constexpr size_t kSearchWindow = 1u << 20;

}  // namespace

bool KlvWalker::Next(Klv& klv) {
    int64_t at = WholeAt(position_, klv) ? position_ : Search(position_ + 1, klv);
    if (at < 0) {
        skipped_ += file_.Size() - position_;
        position_ = file_.Size();
        return false;
    }
    skipped_ += at - position_;
    position_ = klv.End();
    return true;
}

bool KlvWalker::WholeAt(int64_t at, Klv& klv) {
    size_t available = 0;
    const uint8_t* head = file_.View(at, kHeadBytes, available);
    if (head == nullptr || !ReadKlv(head, available, at, klv) || klv.End() > file_.Size()) return false;
    if (klv.End() == file_.Size()) return true;
    // The whole triplet and the key behind it loaded at once: a peek past the end
    // alone would load from there, and reading the value would load it again.
    const int64_t span = klv.End() + 4 - at;
    if (span <= int64_t(file_.MaxView())) file_.View(at, size_t(span), available);
    const uint8_t* next = file_.View(klv.End(), 4, available);
    return (next != nullptr && StartsKey(next, available)) || !HoldsKey(klv);
}

// Where damage follows a triplet its end meets no key; its length still holds
// unless a key starts inside the value, which a length made longer runs over.
bool KlvWalker::HoldsKey(const Klv& klv) {
    for (int64_t from = klv.valueAt; from < klv.End();) {
        size_t available = 0;
        const uint8_t* window = file_.View(from, size_t(std::min<int64_t>(klv.End() - from, kSearchWindow)), available);
        if (window == nullptr || available < 4) return false;
        for (size_t at = 0; at + 4 <= available; ++at) {
            const void* hit = std::memchr(window + at, 0x06, available - at - 3);
            if (hit == nullptr) break;
            at = size_t(static_cast<const uint8_t*>(hit) - window);
            if (StartsKey(window + at, available - at)) return true;
        }
        from += int64_t(available - 3);
    }
    return false;
}

int64_t KlvWalker::Search(int64_t from, Klv& klv) {
    while (from < file_.Size()) {
        size_t available = 0;
        const uint8_t* window = file_.View(from, kSearchWindow, available);
        if (window == nullptr || available < 4) return -1;
        for (size_t at = 0; at + 4 <= available; ++at) {
            const void* hit = std::memchr(window + at, 0x06, available - at - 3);
            if (hit == nullptr) break;
            at = size_t(static_cast<const uint8_t*>(hit) - window);
            if (!StartsKey(window + at, available - at)) continue;
            if (WholeAt(from + int64_t(at), klv)) return from + int64_t(at);
            window = file_.View(from, kSearchWindow, available);  // WholeAt may have moved the cache
        }
        from += int64_t(available - 3);
    }
    return -1;
}

bool KlvWalker::ReadValue(const Klv& klv, uint8_t* to) {
    return klv.length == 0 || file_.ReadAt(klv.valueAt, to, size_t(klv.length)) == klv.length;
}

}  // namespace mxf
}  // namespace thorough
