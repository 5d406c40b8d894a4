// Conversion of the MCU's sensor reports into time-stamped events for the data clients.
#pragma once

struct McuMessage;
class SensorHub;

// Sends an event for each sample of a sensor report, borrowed, and keeps account of a pending
// flush. Returns 0, or -1 without a message. Reader thread.
int ProcessSensorData(SensorHub* hub, const McuMessage* message);
