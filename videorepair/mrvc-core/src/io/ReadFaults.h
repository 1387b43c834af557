// What a failing card or disk would not give: byte ranges of one file that stayed
// unreadable after reading them sector by sector, and where the device went away.
// Every reader of the damaged file shares one map (by path, while a watch is held),
// so a sector found bad is not asked for again, and whoever keeps the record of
// the repair hears of each range once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class ReadFaults {
public:
    using Listener = std::function<void(int64_t offset, int64_t length)>;

    explicit ReadFaults(Listener listener = nullptr) : listener_(std::move(listener)) {}

    // [offset, offset + length) could not be read; merged with what is known.
    void AddUnreadable(int64_t offset, int64_t length);
    // True when the byte at offset is known to be unreadable; `until` is where that range ends.
    bool KnownUnreadable(int64_t offset, int64_t& until) const;
    // Where the first known unreadable byte at or after offset is; -1 when none is known.
    int64_t NextUnreadable(int64_t offset) const;
    std::vector<std::pair<int64_t, int64_t>> Ranges() const;  // (offset, length) by offset
    int64_t UnreadableBytes() const;

    // The device answered no more from offset on; the rest of the file is lost.
    void DeviceGoneAt(int64_t offset, int64_t fileSize);
    int64_t GoneAt() const;  // -1 while the device answers

private:
    mutable std::mutex mutex_;
    Listener listener_;
    std::vector<std::pair<int64_t, int64_t>> ranges_;
    int64_t goneAt_ = -1;
};

// While a watch is alive, every FileReader that opens this path shares its faults.
class ReadFaultWatch {
public:
    ReadFaultWatch(const std::wstring& path, ReadFaults::Listener listener);
    ~ReadFaultWatch();
    ReadFaultWatch(const ReadFaultWatch&) = delete;
    ReadFaultWatch& operator=(const ReadFaultWatch&) = delete;
    const std::shared_ptr<ReadFaults>& Faults() const { return faults_; }

    // The shared map for a path under watch, or a fresh one of its own.
    static std::shared_ptr<ReadFaults> For(const std::wstring& path);

private:
    std::wstring path_;
    std::shared_ptr<ReadFaults> faults_;
};
