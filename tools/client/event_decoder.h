// The meaning of a SensorEvent: which sensor, which values in which unit. Used by everything that
// reads the data socket or a recording of it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "protocol/event.h"
#include "tools/client/sensor_info.h"

namespace shdclient {

inline constexpr size_t kMaxOpaqueBytes = 16;

struct DecodedEvent {
    const SensorInfo* sensor = nullptr;  // never null in a decoded event
    bool flush_complete = false;         // the end of a flush of that sensor; it has no values
    int64_t timestamp_ns = 0;  // since boot, suspend included; 0 in a flush-complete event
    size_t value_count = 0;
    std::array<double, kMaxAxes> all_values{};  // as sensor->axes names them
    size_t byte_count = 0;
    std::array<uint8_t, kMaxOpaqueBytes> all_bytes{};

    [[nodiscard]] std::span<const double> values() const {
        return std::span(all_values).first(value_count);
    }
    // The record as it came from the MCU, for the sensors whose bytes it alone understands.
    [[nodiscard]] std::span<const uint8_t> bytes() const {
        return std::span(all_bytes).first(byte_count);
    }
};

// True when the hub can have sent this record: version, sensor and type belong together, and
// every byte that the type leaves unused is 0.
[[nodiscard]] bool IsHubRecord(const shd::SensorEvent& event);

// Decodes a record; empty when it is not a record of the hub.
[[nodiscard]] std::optional<DecodedEvent> DecodeEvent(const shd::SensorEvent& event);

}  // namespace shdclient
