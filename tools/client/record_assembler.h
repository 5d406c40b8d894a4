// Cuts the byte stream of the data socket into SensorEvent records. Used by EventStream, and by
// whoever reads such a stream from elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "protocol/event.h"

namespace shdclient {

// The stream has no framing, only the record size, and the daemon never blocks on a slow client:
// one whose socket buffer is full misses whole records, and may receive the first part of a record
// followed by the beginning of a later one. The assembler therefore checks every record against
// what the hub can send (IsHubRecord in event_decoder.h): sensor and type belong together and all
// bytes that this type leaves unused are 0. Of a record that fails the check one byte is dropped
// at a time until 104 bytes pass again, so the truncated record is lost and the next is found where
// it begins. A cut within the bytes that carry the values can go unnoticed when the following
// record has no value other than 0.
//
// Not thread-safe; never blocks; memory is bounded by what is appended between calls of Next.
class RecordAssembler {
  public:
    // Adds bytes in the order of their arrival, any number at a time.
    void Append(std::span<const uint8_t> bytes);

    // Takes the oldest complete record. False when more bytes are needed.
    [[nodiscard]] bool Next(shd::SensorEvent& event);

    // Forgets a record begun, at a new connection. The counters go on.
    void Reset();

    [[nodiscard]] uint64_t discarded_bytes() const { return discarded_bytes_; }
    // Times that the boundary between records had to be found again.
    [[nodiscard]] uint64_t resyncs() const { return resyncs_; }

  private:
    std::vector<uint8_t> buffer_;
    size_t start_ = 0;  // of the first unread byte in buffer_
    bool in_sync_ = true;
    uint64_t discarded_bytes_ = 0;
    uint64_t resyncs_ = 0;
};

}  // namespace shdclient
