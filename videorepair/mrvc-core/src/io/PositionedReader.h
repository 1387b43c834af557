// A reader with a position and a read-ahead window: at every step the window
// holds min(remaining, windowBytes) bytes from the position. Refills happen only
// when the window runs past what is loaded, so a byte-by-byte scan stays cheap.
#pragma once

#include <cstdint>
#include <string>

#include "io/FileReader.h"

class PositionedReader {
public:
    static constexpr size_t kWindowBytes = 4194304;

    explicit PositionedReader(size_t windowBytes = kWindowBytes)
        : window_(windowBytes), file_(windowBytes * 2) {}

    bool Open(const std::wstring& path) { position_ = 0; return file_.Open(path); }
    void Close() { file_.Close(); }
    bool IsOpen() const { return file_.IsOpen(); }
    int64_t Size() const { return file_.Size(); }
    int64_t Position() const { return position_; }
    int64_t Remaining() const { return position_ < Size() ? Size() - position_ : 0; }

    void Seek(int64_t position) { position_ = position < 0 ? 0 : position; }
    void Advance(int64_t count) { position_ += count; }

    // The window at the position; false when nothing is left.
    bool Fill() {
        data_ = file_.View(position_, size_t(std::min<int64_t>(Remaining(), int64_t(window_))), length_);
        return data_ != nullptr && length_ > 0;
    }
    const uint8_t* Data() const { return data_; }
    size_t Length() const { return length_; }

    FileReader& File() { return file_; }

private:
    size_t window_;
    FileReader file_;
    int64_t position_ = 0;
    const uint8_t* data_ = nullptr;
    size_t length_ = 0;
};
