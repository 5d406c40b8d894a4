// Sends requests to the MCU, waits for replies and counts failures; every MCU command uses it.
#include "mcu_link/exchange/exchange.h"

#include <cerrno>

#include "core/hub/sensor_hub.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/serial_port.h"
#include "platform/log.h"

namespace {

constexpr char kLogTag[] = "shd";

// Failures in a row, of either kind, at which a failure of this kind asks for a reboot.
constexpr int32_t kWriteFailureLimit = 3;
constexpr int32_t kTimeoutLimit = 2;

// Counts one failure. True when the limit is reached; the count then starts again.
bool CountFailure(SensorHub* hub, int32_t limit) {
    if (++hub->error_count < limit) return false;
    hub->error_count = 0;
    return true;
}

// Says that a reply is awaited, for as long as it lives.
class AwaitedReply {
  public:
    explicit AwaitedReply(SensorHub* hub) : hub_(hub) { ++hub_->replies_awaited; }
    ~AwaitedReply() { --hub_->replies_awaited; }
    AwaitedReply(const AwaitedReply&) = delete;
    AwaitedReply& operator=(const AwaitedReply&) = delete;

  private:
    SensorHub* hub_;
};

}  // namespace

int SendSensorMsgAndWait(SensorHub* hub, const McuPacket& packet, McuMessagePtr* reply,
                         int timeout_sec) {
    if (reply == nullptr) return -1;
    const AwaitedReply awaited(hub);

    if (hub->serial_port->Write(packet.frame, packet.frame_len) < 0) {
        if (CountFailure(hub, kWriteFailureLimit)) {
            LOGD("SendSensorMsgAndWait wakeup to many error, reboot mcu");
            (void)StartMcuReboot(hub);
        }
        return -1;
    }

    McuMessagePtr message(hub->reply_queue.DequeueMessageTimeout(timeout_sec));
    if (message == nullptr) {
        LOGD("DequeueMessageTimeout Wait timeout, errno = %d", errno);
        if (CountFailure(hub, kTimeoutLimit)) {
            LOGD("SendSensorMsgAndWait to many error, reboot mcu");
            (void)StartMcuReboot(hub);
        }
        return -1;
    }
    hub->error_count = 0;
    *reply = std::move(message);
    return 0;
}
