// Flushes sensors now and then and watches for the flush-complete events. Used by the audit of the
// live stream.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/shdtool/engine/hub_worker.h"

namespace shdtool {

struct FlushCounts {
    uint64_t sent = 0;
    uint64_t completed = 0;
    uint64_t missed = 0;   // no flush-complete event within the wait
    uint64_t refused = 0;  // by the hub, or not answered
    uint64_t open = 0;     // the end came before the wait was over
    uint64_t unasked = 0;  // flush-complete events of others' flushes
    std::string refusal;   // the last one in words
};

// Each sensor has one flush at a time under way, for the hub merges a second one into the first.
// Times are of CLOCK_BOOTTIME. One thread.
class FlushProbe {
  public:
    // wait_ns counts from when the hub took the flush.
    FlushProbe(const std::string& root, std::chrono::milliseconds reply_timeout,
               int64_t interval_ns, int64_t wait_ns);

    // From here on the sensor is flushed every interval.
    void Include(int32_t handle, int64_t now_ns);

    void OnFlushComplete(int32_t handle);

    // Sends what is due and judges what is overdue. Never waits.
    void Tick(int64_t now_ns);

    [[nodiscard]] FlushCounts counts(int32_t handle) const;

  private:
    struct Sensor {
        FlushCounts counts;
        bool waiting = false;             // for the flush-complete event
        bool requested = false;           // waiting for the hub's reply
        std::optional<int64_t> taken_ns;  // when the hub took it
        int64_t next_ns = 0;
    };

    void Note(const HubOutcome& outcome, int64_t now_ns);
    void Check(int32_t handle, Sensor& sensor, int64_t now_ns);

    const int64_t interval_ns_;
    const int64_t wait_ns_;
    std::map<int32_t, Sensor> sensors_;  // by handle
    HubWorker worker_;
};

}  // namespace shdtool
