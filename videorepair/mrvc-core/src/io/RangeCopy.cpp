#include "io/RangeCopy.h"

#include <algorithm>

#include "io/FileReader.h"
#include "io/FileWriter.h"

int64_t CopyFileRange(FileReader& in, FileWriter& out, int64_t begin, int64_t end,
                      const std::function<bool()>& betweenPieces) {
    int64_t position = begin;
    while (position < end) {
        if (position != begin && betweenPieces && !betweenPieces()) break;
        size_t want = size_t(std::min<int64_t>(end - position, int64_t(FileWriter::kPieceBytes)));
        size_t got = 0;
        const uint8_t* data = in.View(position, want, got);
        if (data == nullptr || got == 0) break;
        if (!out.Write(data, got)) break;
        position += int64_t(got);
    }
    return position - begin;
}
