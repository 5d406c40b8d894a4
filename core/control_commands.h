// Execution of the control requests: one handler for each command id.
#pragma once

#include "core/hub/sensor_hub.h"

// Executes one request, borrowed, and answers its client. Blocks for as long as the MCU takes (2 or
// 10 s at most, after a wait for the line, see SendSensorMsgAndWait), and for 2 s while the MCU is
// being rebooted. Main thread. The result is 0, or -1 where a handler could not send its reply and
// says so.
int ProcessMessage(SensorHub* hub, const QueuedRequest& queued);
