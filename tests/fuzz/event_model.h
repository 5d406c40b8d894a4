// What events a report of the MCU makes, worked out a second time and in another way than the
// daemon does: values by their bytes, one sample after the other. The differential target holds the
// daemon's events against it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "protocol/event.h"

namespace shdtest {

struct ModelSensor {
    int32_t enable, period_ms, batchcnt, batch_left, virtual_enable;
    int64_t last_time, time_adjust;  // ns
    int32_t flush_pending, flush_count;
};

class EventModel {
  public:
    std::array<ModelSensor, 28> sensors{};  // by handle
    bool rebooted = false;

    // The events of a report by the MCU's sensor, in their order; now in ns.
    [[nodiscard]] std::vector<shd::SensorEvent> Report(uint8_t mcu_sensor,
                                                       std::span<const uint8_t> data, int64_t now);

  private:
    using Sample = std::span<const uint8_t>;

    void Samples(Sample data, size_t size);
    void Step(uint32_t mcu_step);
    void Convert(Sample sample);
    void Stamp(int32_t index);
    void MeasureInterval(int32_t count);
    [[nodiscard]] int32_t Index(int32_t sent, int32_t* left);
    void Account(int32_t consumed);
    void SendAs(int32_t handle, int32_t type);
    ModelSensor& sensor() { return sensors[static_cast<size_t>(event_.sensor)]; }

    uint8_t id_ = 0;
    int64_t now_ = 0;
    uint32_t last_step_ = 0;
    uint32_t last_reset_ = 0;
    shd::SensorEvent event_{};
    std::vector<shd::SensorEvent> events_;
};

}  // namespace shdtest
