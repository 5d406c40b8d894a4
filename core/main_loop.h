// The main thread's life after start-up: control requests, one at a time.
#pragma once

#include "core/hub/sensor_hub.h"

// Executes the next queued request and releases it; blocks while there is none.
void RunMainLoopOnce(SensorHub* hub);

// Executes requests in the order of their arrival for ever.
[[noreturn]] void RunMainLoop(SensorHub* hub);
