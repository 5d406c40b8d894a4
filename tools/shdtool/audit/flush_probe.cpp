// The bookkeeping of flushes under way. Called by the audit.
#include "tools/shdtool/audit/flush_probe.h"

#include "tools/client/reply.h"

using namespace shd;

namespace shdtool {

FlushProbe::FlushProbe(const std::string& root, std::chrono::milliseconds reply_timeout,
                       int64_t interval_ns, int64_t wait_ns)
    : interval_ns_(interval_ns), wait_ns_(wait_ns), worker_(root, reply_timeout) {}

void FlushProbe::Include(int32_t handle, int64_t now_ns) {
    const auto [sensor, added] = sensors_.try_emplace(handle);
    if (added) sensor->second.next_ns = now_ns + interval_ns_;
}

void FlushProbe::OnFlushComplete(int32_t handle) {
    const auto found = sensors_.find(handle);
    if (found == sensors_.end()) return;
    Sensor& sensor = found->second;
    if (!sensor.waiting) {
        ++sensor.counts.unasked;
        return;
    }
    ++sensor.counts.completed;
    sensor.waiting = false;
}

void FlushProbe::Tick(int64_t now_ns) {
    for (const HubOutcome& outcome : worker_.TakeOutcomes()) Note(outcome, now_ns);
    for (auto& [handle, sensor] : sensors_) Check(handle, sensor, now_ns);
}

void FlushProbe::Note(const HubOutcome& outcome, int64_t now_ns) {
    Sensor& sensor = sensors_.at(outcome.request.handle);
    sensor.requested = false;
    if (outcome.status) {
        sensor.taken_ns = now_ns;
        return;
    }
    sensor.waiting = false;
    ++sensor.counts.refused;
    sensor.counts.refusal = outcome.status.error().message;
}

void FlushProbe::Check(int32_t handle, Sensor& sensor, int64_t now_ns) {
    if (sensor.waiting && sensor.taken_ns && now_ns - *sensor.taken_ns > wait_ns_) {
        ++sensor.counts.missed;
        sensor.waiting = false;
    }
    if (sensor.waiting || sensor.requested || now_ns < sensor.next_ns) return;
    sensor.next_ns = now_ns + interval_ns_;
    sensor.waiting = true;
    sensor.requested = true;
    sensor.taken_ns.reset();
    ++sensor.counts.sent;
    worker_.Post(shdclient::MakeRequest(handle, SHB_SENSOR_FLUSH));
}

FlushCounts FlushProbe::counts(int32_t handle) const {
    const auto found = sensors_.find(handle);
    if (found == sensors_.end()) return {};
    FlushCounts counts = found->second.counts;
    if (found->second.waiting) counts.open = 1;
    return counts;
}

}  // namespace shdtool
