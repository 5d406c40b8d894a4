// Re-assembly of event records and the search for the next one after a truncated record. Called by
// EventStream.
#include "tools/client/record_assembler.h"

#include <cstring>

#include "tools/client/event_decoder.h"

using namespace shd;

namespace shdclient {

void RecordAssembler::Append(std::span<const uint8_t> bytes) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

bool RecordAssembler::Next(SensorEvent& event) {
    while (buffer_.size() - start_ >= sizeof(SensorEvent)) {
        std::memcpy(&event, buffer_.data() + start_, sizeof(event));
        if (IsHubRecord(event)) {
            start_ += sizeof(event);
            in_sync_ = true;
            return true;
        }
        ++start_;
        ++discarded_bytes_;
        if (in_sync_) ++resyncs_;
        in_sync_ = false;
    }
    return false;
}

void RecordAssembler::Reset() {
    buffer_.clear();
    start_ = 0;
    in_sync_ = true;
}

}  // namespace shdclient
