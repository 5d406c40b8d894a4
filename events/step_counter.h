// The step counter: keeps its count continuous across MCU reboots and derives the step detector
// and the significant-motion detector from it.
#pragma once

#include <cstdint>

class SensorHub;

// What the count has come to. Reader thread only.
struct StepHistory {
    uint32_t last_step;   // value last sent
    uint32_t last_reset;  // added to the MCU's count, which restarts when the MCU does
};
extern StepHistory g_step_history;

// Turns one step-counter report that arrived at now (ns) into events. A run of step-detector events
// ends early when the detector is switched off or when another thread asks for the line, and beyond
// 10,000 events when one waits for a reply. Reader thread.
void ProcessStepCount(SensorHub* hub, uint32_t mcu_step, int64_t now);
