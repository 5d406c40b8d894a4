// The step counter: keeps its count continuous across MCU reboots and derives the step detector
// and the significant-motion detector from it.
#pragma once

#include <cstdint>

struct McuMessage;
class SensorHub;

// Reader thread only.
class StepCounter {
  public:
    // Turns one step-counter report, borrowed, that arrived at now (ns) into events. Returns the
    // number of samples consumed: 0 for a report shorter than its count, which yields no event.
    int32_t Process(SensorHub* hub, const McuMessage& message, int64_t now);

  private:
    void SendDetectedSteps(SensorHub* hub, uint32_t value, int64_t timestamp) const;
    void SendSignificantMotion(SensorHub* hub, uint32_t value, int64_t timestamp) const;

    uint32_t last_step_ = 0;   // value last sent
    uint32_t last_reset_ = 0;  // added to the MCU's count, which restarts when the MCU does
};
