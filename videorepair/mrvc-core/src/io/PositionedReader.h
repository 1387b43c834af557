// A reader with a position and a read-ahead window: at every step the window
// holds min(remaining, windowBytes) bytes from the position. Refills happen only
// when the window runs past what is loaded, so a byte-by-byte scan stays cheap:
// the reader keeps a view half a window longer than the window and serves every
// Fill inside it without asking the file cache again.
#pragma once

#include <cstdint>
#include <string>

#include "io/FileReader.h"

class PositionedReader {
public:
    static constexpr size_t kWindowBytes = 4194304;

    explicit PositionedReader(size_t windowBytes = kWindowBytes)
        : window_(windowBytes), span_(windowBytes + windowBytes / 2), file_(span_ * 2) {}

    bool Open(const std::wstring& path) {
        position_ = 0;
        Forget();
        return file_.Open(path);
    }
    void Close() {
        Forget();
        file_.Close();
    }
    bool IsOpen() const { return file_.IsOpen(); }
    int64_t Size() const { return file_.Size(); }
    int64_t Position() const { return position_; }
    int64_t Remaining() const { return position_ < Size() ? Size() - position_ : 0; }

    void Seek(int64_t position) { position_ = position < 0 ? 0 : position; }
    void Advance(int64_t count) { position_ += count; }

    // The window at the position; false when nothing is left.
    bool Fill() {
        const size_t want = size_t(std::min<int64_t>(Remaining(), int64_t(window_)));
        if (want > 0 && position_ >= viewStart_ && position_ + int64_t(want) <= viewStart_ + int64_t(viewLength_)) {
            data_ = view_ + (position_ - viewStart_);
            length_ = want;
            return true;
        }
        return Refill(want);
    }
    const uint8_t* Data() const { return data_; }
    size_t Length() const { return length_; }

    // Direct reads move the file cache, so the reader's view is dropped first.
    FileReader& File() {
        Forget();
        return file_;
    }

private:
    bool Refill(size_t want) {
        size_t got = 0;
        view_ = want > 0 ? file_.View(position_, span_, got) : nullptr;
        viewStart_ = position_;
        viewLength_ = view_ != nullptr ? got : 0;
        data_ = view_;
        length_ = std::min(want, viewLength_);
        return data_ != nullptr && length_ > 0;
    }
    void Forget() {
        view_ = data_ = nullptr;
        viewLength_ = length_ = 0;
    }

    size_t window_;
    size_t span_;  // bytes asked of the file cache at a refill
    FileReader file_;
    int64_t position_ = 0;
    const uint8_t* data_ = nullptr;
    size_t length_ = 0;
    const uint8_t* view_ = nullptr;
    int64_t viewStart_ = 0;
    size_t viewLength_ = 0;
};
