#include "io/ReadFaults.h"

#include <algorithm>
#include <map>

void ReadFaults::AddUnreadable(int64_t offset, int64_t length) {
    if (length <= 0) return;
    std::vector<std::pair<int64_t, int64_t>> fresh;  // the parts not known before
    {
        std::lock_guard<std::mutex> lock(mutex_);
        int64_t at = offset;
        const int64_t end = offset + length;
        for (const auto& r : ranges_) {
            if (r.first + r.second <= at || r.first >= end) continue;
            if (r.first > at) fresh.emplace_back(at, r.first - at);
            at = std::max(at, r.first + r.second);
        }
        if (at < end) fresh.emplace_back(at, end - at);
        for (const auto& f : fresh) ranges_.push_back(f);
        std::sort(ranges_.begin(), ranges_.end());
        std::vector<std::pair<int64_t, int64_t>> merged;
        for (const auto& r : ranges_) {
            if (!merged.empty() && merged.back().first + merged.back().second >= r.first) {
                int64_t stop = std::max(merged.back().first + merged.back().second, r.first + r.second);
                merged.back().second = stop - merged.back().first;
            } else {
                merged.push_back(r);
            }
        }
        ranges_.swap(merged);
    }
    if (listener_)
        for (const auto& f : fresh) listener_(f.first, f.second);
}

bool ReadFaults::KnownUnreadable(int64_t offset, int64_t& until) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& r : ranges_) {
        if (offset >= r.first && offset < r.first + r.second) {
            until = r.first + r.second;
            return true;
        }
    }
    return false;
}

int64_t ReadFaults::NextUnreadable(int64_t offset) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& r : ranges_)
        if (r.first + r.second > offset) return std::max(r.first, offset);
    return -1;
}

std::vector<std::pair<int64_t, int64_t>> ReadFaults::Ranges() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ranges_;
}

int64_t ReadFaults::UnreadableBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    int64_t total = 0;
    for (const auto& r : ranges_) total += r.second;
    return total;
}

void ReadFaults::DeviceGoneAt(int64_t offset, int64_t fileSize) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (goneAt_ >= 0 && goneAt_ <= offset) return;
        goneAt_ = offset;
    }
    AddUnreadable(offset, fileSize - offset);
}

int64_t ReadFaults::GoneAt() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return goneAt_;
}

namespace {

std::mutex watchMutex;
std::map<std::wstring, std::weak_ptr<ReadFaults>>& Watched() {
    static std::map<std::wstring, std::weak_ptr<ReadFaults>> watched;
    return watched;
}

}  // namespace

ReadFaultWatch::ReadFaultWatch(const std::wstring& path, ReadFaults::Listener listener)
    : path_(path), faults_(std::make_shared<ReadFaults>(std::move(listener))) {
    std::lock_guard<std::mutex> lock(watchMutex);
    Watched()[path_] = faults_;
}

ReadFaultWatch::~ReadFaultWatch() {
    std::lock_guard<std::mutex> lock(watchMutex);
    auto it = Watched().find(path_);
    if (it != Watched().end() && it->second.lock() == faults_) Watched().erase(it);
}

std::shared_ptr<ReadFaults> ReadFaultWatch::For(const std::wstring& path) {
    {
        std::lock_guard<std::mutex> lock(watchMutex);
        auto it = Watched().find(path);
        if (it != Watched().end())
            if (auto shared = it->second.lock()) return shared;
    }
    return std::make_shared<ReadFaults>();
}
