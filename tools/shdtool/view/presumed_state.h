// What the state of the MCU must be, seen from the data socket alone: samples that are due and do
// not come are all that tells of it there. Used by the live feed where neither the line nor the log
// tells.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tools/shdtool/engine/delivery.h"
#include "tools/shdtool/engine/sensor_stats.h"

namespace shdtool {

struct PresumedState {
    int64_t since_ns = 0;
    std::string_view name;  // as the page knows it; "unknown" without any sign
    std::string reason;
};

// Not thread-safe. Times are of the boot clock.
class StateFromEvents {
  public:
    // The connection at the beginning, too.
    void Take(const Delivery& delivery);
    // A sensor that this program has switched off is not awaited any more.
    void Forget(int32_t handle) { sensors_.erase(handle); }

    [[nodiscard]] PresumedState At(int64_t now_ns) const;

    // Bytes a second that the sensors' samples take on the line from the MCU.
    [[nodiscard]] double LineBytesPerSec(int64_t now_ns) const;

  private:
    std::map<int32_t, SensorStats> sensors_;  // that have sent something, by handle
    bool connected_ = false;
    int64_t changed_ns_ = 0;  // the connection
};

}  // namespace shdtool
