// The daemon's one central object: the queues between its threads and what the MCU commands and
// the event code work on.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/hub/message_queue.h"
#include "mcu_link/event_sink.h"
#include "mcu_link/mcu_packet.h"
#include "protocol/control.h"

class ControlServer;
class DataServer;
class SerialPort;

// A control request on its way to the main thread: one heap block allocated with malloc by the
// control server's thread and released with free by the main loop.
struct QueuedRequest {
    int32_t client;              // @0 descriptor that the reply goes to
    shd::ClientRequest request;  // @4
};
static_assert(sizeof(QueuedRequest) == 36 && offsetof(QueuedRequest, request) == 4);

using ReplyQueue = MessageQueue<McuMessage>;
using RequestQueue = MessageQueue<QueuedRequest>;

// Start-up fills the pointers before the threads that read them start; all are borrowed.
class SensorHub final : public McuEventSink {
  public:
    SensorHub() = default;
    SensorHub(const SensorHub&) = delete;
    SensorHub& operator=(const SensorHub&) = delete;

    // Routes one inbound message (events/inbound.cpp). Reader thread.
    int OnEvent(McuMessage* message) override;

    ReplyQueue reply_queue;
    RequestQueue request_queue;
    SerialPort* serial_port = nullptr;
    DataServer* data_server = nullptr;
    ControlServer* control_server = nullptr;

    // Requests that have gone out and whose reply has not been taken; written by whichever thread
    // sends.
    std::atomic<int32_t> replies_awaited{0};

    // Consecutive failures of the exchange; written by whichever thread sends.
    std::atomic<int32_t> error_count{0};
};
