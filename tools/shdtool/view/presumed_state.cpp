// The statistics of each sensor, taken together. Called by the live feed.
#include "tools/shdtool/view/presumed_state.h"

#include <algorithm>

#include "tools/client/sensor_info.h"
#include "tools/shdtool/engine/line_budget.h"

namespace shdtool {
namespace {

constexpr int64_t kFreshNs = 2'000'000'000;  // as long as a sample without a known period tells

}  // namespace

void StateFromEvents::Take(const Delivery& delivery) {
    const int64_t at_ns = delivery.event.arrival_ns;
    if (delivery.kind == DeliveryKind::kEvent) {
        const shdclient::SensorInfo& sensor = *delivery.event.decoded.sensor;
        if (delivery.event.decoded.flush_complete) return;
        sensors_.try_emplace(sensor.handle, sensor, StatsOptions{}, at_ns)
            .first->second.Add(delivery.event);
    } else if (delivery.kind == DeliveryKind::kMissed) {
        for (auto& [handle, sensor] : sensors_) sensor.OnChange(delivery);
    } else {
        connected_ = delivery.kind == DeliveryKind::kReconnected;
        changed_ns_ = at_ns;
        sensors_.clear();  // what a new daemon has switched on shows
    }
}

PresumedState StateFromEvents::At(int64_t now_ns) const {
    if (!connected_) return {changed_ns_, "down", "no daemon answers on its sockets"};
    int64_t latest_ns = 0;
    bool fresh = false;
    std::string silent;
    for (const auto& [handle, sensor] : sensors_) {
        // The virtual sensors are the daemon's own: they say nothing of the MCU's health.
        if (sensor.sensor().is_virtual || !sensor.last()) continue;
        const int64_t last_ns = sensor.last()->arrival_ns;
        if (sensor.SilentFor(now_ns)) {
            silent.append(silent.empty() ? "" : ", ").append(sensor.sensor().name);
        } else {
            fresh = fresh || sensor.Measured() || now_ns - last_ns < kFreshNs;
        }
        latest_ns = std::max(latest_ns, last_ns);
    }
    if (fresh) return {latest_ns, "service", "samples come as they are due"};
    if (!silent.empty()) {
        return {latest_ns, "silent",
                "nothing comes from " + silent + ": the MCU is silent, or they were switched off"};
    }
    return {std::max(changed_ns_, latest_ns), "unknown", "no sample is due: nothing tells"};
}

double StateFromEvents::LineBytesPerSec(int64_t now_ns) const {
    std::map<int32_t, double> loads;
    for (const auto& [handle, sensor] : sensors_) {
        const auto measured = sensor.Measured();
        if (!measured || sensor.SilentFor(now_ns)) continue;
        loads[handle] =
            LineLoad(sensor.sensor(), 1e9 / measured->mean_ns, static_cast<double>(sensor.batch()));
    }
    return SumOfLoads(loads);
}

}  // namespace shdtool
