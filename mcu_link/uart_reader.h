// The UART reader thread: turns the byte stream into messages and hands each to the event sink.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "mcu_link/event_sink.h"
#include "mcu_link/frame_codec.h"
#include "mcu_link/mcu_packet.h"
#include "mcu_link/serial_port.h"

// Argument of the reader thread; lives as long as the thread.
struct ListenArgs {
    McuEventSink* sink;
    SerialPort* port;
};

inline constexpr size_t kUartBufferSize = 1500;  // payloads of up to 1497 bytes

// Decodes a stream of bytes into messages. Corrupt, oversized and unparseable frames are dropped.
class MessageAssembler {
  public:
    explicit MessageAssembler(McuEventSink* sink) : sink_(sink), decoder_(buffer_) {}

    void Feed(std::span<const uint8_t> bytes);

    // Forgets a frame in progress.
    void Restart() { decoder_.Reset(buffer_); }

  private:
    void Dispatch();

    McuEventSink* sink_;  // borrowed
    std::array<uint8_t, kUartBufferSize> buffer_{};
    FrameDecoder decoder_;
};

// Entry of the reader thread; argument is a ListenArgs. Never returns.
void* ListsenThread(void* argument);
