#include "thorough/strategies/AsfObjectAssembler.h"

namespace thorough {
namespace asf {

void ObjectAssembler::Add(const Fragment& f, const uint8_t* packet) {
    auto found = open_.find(f.stream);
    bool continues = found != open_.end() && found->second.number == f.object &&
                     found->second.object.bytes.size() == f.offset && f.offset > 0;
    if (!continues) {
        if (found != open_.end()) Drop(f.stream);
        if (f.offset != 0) {
            ++dropped_;  // the object's start was lost
            return;
        }
        Start(f, packet);
    } else {
        Open& open = found->second;
        open.object.bytes.insert(open.object.bytes.end(), packet + f.at, packet + f.at + f.size);
        if (open.object.bytes.size() > open.size) Drop(f.stream);
    }
    found = open_.find(f.stream);
    if (found != open_.end() && found->second.object.bytes.size() == found->second.size) {
        done_.push_back(std::move(found->second.object));
        open_.erase(found);
    }
}

void ObjectAssembler::Start(const Fragment& f, const uint8_t* packet) {
    // Without replicated data the fragment is taken for the whole object.
    uint32_t size = f.objectSize > 0 ? f.objectSize : uint32_t(f.size);
    if (size > kLargestObject || f.size > size) {
        ++dropped_;
        return;
    }
    Open& open = open_[f.stream];
    open.number = f.object;
    open.size = size;
    open.object.stream = f.stream;
    open.object.key = f.key;
    open.object.presentationMs = f.presentationMs;
    open.object.bytes.reserve(size);
    open.object.bytes.assign(packet + f.at, packet + f.at + f.size);
}

void ObjectAssembler::Drop(uint8_t stream) {
    if (open_.erase(stream) > 0) ++dropped_;
}

bool ObjectAssembler::Take(MediaObject& object) {
    if (done_.empty()) return false;
    object = std::move(done_.front());
    done_.pop_front();
    return true;
}

}  // namespace asf
}  // namespace thorough
