// Exchange of one command and the test of its reply; used by the commands whose reply must hold
// data.
#include "sensor_commands/command_reply.h"

#include "mcu_link/exchange/exchange.h"

CommandReply ExchangeCommand(SensorHub* hub, const McuPacket& packet, int timeout_sec) {
    McuMessagePtr message;
    if (SendSensorMsgAndWait(hub, packet, &message, timeout_sec) != 0) {
        return {ReplyFault::kTimeout, nullptr};
    }
    if (message->data_len < 1) return {ReplyFault::kEmpty, nullptr};
    return {ReplyFault::kNone, std::move(message)};
}
