// Recordings made by hand, sample by sample. Used by the tests of audit and of the views.
#pragma once

#include "tools/shdtool/engine/record_file.h"

inline constexpr int64_t kMs = 1'000'000;
inline constexpr int64_t kSec = 1'000 * kMs;
inline constexpr int64_t kBegin = 1'000 * kSec;

inline shdtool::Delivery SampleOf(int32_t handle, int64_t stamp_ns, int64_t arrival_ns) {
    shdtool::Delivery delivery;
    delivery.event.record.timestamp = stamp_ns;
    delivery.event.record.sensor = handle;
    delivery.event.record.type = shdclient::FindSensor(handle)->type;
    delivery.event.record.version = shd::kSampleEventVersion;
    delivery.event.decoded = shdclient::DecodeEvent(delivery.event.record).value();
    delivery.event.arrival_ns = arrival_ns;
    return delivery;
}

inline shdtool::Delivery Change(shdtool::DeliveryKind kind, int64_t from_ns, int64_t at_ns) {
    shdtool::Delivery delivery{kind};
    delivery.from_ns = from_ns;
    delivery.event.arrival_ns = at_ns;
    return delivery;
}
