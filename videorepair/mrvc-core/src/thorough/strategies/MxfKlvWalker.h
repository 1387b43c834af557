// Walks an MXF file triplet by triplet. A triplet counts where the next key
// follows it (or the file ends there), or where damage follows it and its value
// holds no key, so a length that damage changed is not followed into the middle
// of some essence; past damage the walk searches for the next key that passes
// the same check.
#pragma once

#include <string>

#include "io/FileReader.h"
#include "thorough/strategies/MxfKlv.h"

namespace thorough {
namespace mxf {

class KlvWalker {
public:
    bool Open(const std::wstring& path) { return file_.Open(path); }

    // The next whole triplet; false at the end.
    bool Next(Klv& klv);
    // Copies a triplet's value; false when the file could not give all of it.
    bool ReadValue(const Klv& klv, uint8_t* to);

    int64_t Position() const { return position_; }
    int64_t Size() const { return file_.Size(); }
    // Bytes passed over in searches so far.
    int64_t Skipped() const { return skipped_; }

private:
    bool WholeAt(int64_t at, Klv& klv);
    bool HoldsKey(const Klv& klv);
    int64_t Search(int64_t from, Klv& klv);

    FileReader file_;
    int64_t position_ = 0;
    int64_t skipped_ = 0;
};

}  // namespace mxf
}  // namespace thorough
