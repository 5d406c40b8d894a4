// Capture of MCU core dumps: every piece goes, raw and as base64 text, into the files of one of
// six rotating slots below /data/mcudumplog.
#pragma once

struct McuMessage;
class SensorHub;

// Stores one piece, borrowed, and asks for an MCU reboot when it is the last one of a dump that
// wants it. Returns 0, or -1 without a message. Reader thread only.
int McuCoreDumpProcess(SensorHub* hub, const McuMessage* message);
