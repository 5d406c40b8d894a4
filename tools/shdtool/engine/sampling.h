// What the user of a watching command asks for: which sensors, how long, and their sampling, which
// they are measured against and, when asked, switched on with. Used by watch, record and audit.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/client/result.h"
#include "tools/shdtool/engine/hub_worker.h"

namespace shdtool {

// The daemon tells nobody what was asked of it, so the user says it.
struct WatchRequest {
    std::vector<int32_t> handles;           // empty: all sensors
    std::optional<double> period_ms;        // empty: not named
    int32_t batch = 0;                      // samples
    bool enable = false;                    // switch the sensors on
    uint64_t max_samples = 0;               // 0: no limit; flush-complete events do not count
    std::chrono::milliseconds duration{0};  // of the source's time; 0: no limit

    // The period as the hub is asked for it, in whole milliseconds of at least 1.
    [[nodiscard]] std::optional<int32_t> hub_period_ms() const;

    // What the spacing of the samples is to be; empty when it was not named.
    [[nodiscard]] std::optional<int64_t> asked_ns() const;
};

// Switches the sensors on beside an event loop, and again when the daemon was restarted. One
// thread.
class SensorEnabler {
  public:
    SensorEnabler(const std::string& root, std::chrono::milliseconds timeout,
                  const WatchRequest& request);

    // Asks for all sensors; called at each connection.
    void Ask();

    // To be called now and then; true once when all sensors asked for have been switched on. Fails
    // when the hub refused the first time; later refusals, as while the hub is restarting the MCU,
    // are followed by another try after 2 s.
    [[nodiscard]] shdclient::Result<bool> Check();

  private:
    const WatchRequest request_;
    HubWorker worker_;
    bool ever_succeeded_ = false;
    bool waiting_ = false;  // for the outcome of the last Ask
    bool failed_ = false;   // one of its requests has
    std::optional<std::chrono::steady_clock::time_point> retry_at_;
};

}  // namespace shdtool
