// Where the reader thread delivers inbound messages; implemented by the hub.
#pragma once

struct McuMessage;

class McuEventSink {
  public:
    // Takes ownership of the message. Called on the reader thread, in the order of arrival; must
    // not wait for the MCU. The result is not used.
    virtual int OnEvent(McuMessage* message) = 0;
    virtual ~McuEventSink() = default;
};
