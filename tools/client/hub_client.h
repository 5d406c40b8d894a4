// A connection to the control socket "shdctl": sends requests to the hub and waits for its replies.
// Used by the command line tools, and usable by a sensors HAL.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/unique_fd.h"
#include "protocol/control.h"
#include "tools/client/reply.h"
#include "tools/client/result.h"
#include "tools/client/sensor_info.h"

namespace shdclient {

// The hub executes the requests of all its clients one at a time, in the order of their arrival,
// and answers each (but sleep and wake-up) with one reply in that order. A request takes up to
// shd::kLongestReplySec while the MCU does not answer and 2 s while it is being restarted, plus the
// time of the requests queued before it; this limit leaves room for a short wait beside the own
// one.
inline constexpr std::chrono::milliseconds kDefaultReplyTimeout =
    std::chrono::seconds(shd::kLongestReplySec + 5);

struct Calibration {
    // x, y, z of the accelerometer (16-bit), one value of the others (32-bit); units of the MCU.
    std::array<int32_t, 3> all_values{};
    size_t count = 0;

    [[nodiscard]] std::span<const int32_t> values() const {
        return std::span(all_values).first(count);
    }
};

// Not thread-safe: one thread at a time. Calls block until the reply is there or the time is over;
// no call throws. After kDisconnected or kProtocol the connection is of no further use: connect
// anew. After kTimeout it stays usable: the late reply is recognised and dropped.
class HubClient {
  public:
    // Connects to root/dev/socket/shdctl. Errors as ConnectLocal (local_socket.h).
    [[nodiscard]] static Result<HubClient> Connect(std::string_view root);

    // Takes over a connected stream socket; name stands for it in error messages.
    HubClient(UniqueFd connected, std::string name)
        : fd_(std::move(connected)), name_(std::move(name)) {}

    // The limit of every call below that waits for a reply.
    void set_timeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

    // Called once per reply that is not there after the given time, with the time left.
    using SlowNotice = std::function<void(std::chrono::milliseconds left)>;
    void set_slow_notice(std::chrono::milliseconds after, SlowNotice notice);

    // Requests may be sent ahead: Send returns a ticket, Receive waits for the reply to it and
    // drops the replies to earlier tickets. A Receive that ended in kTimeout may be repeated.
    // kInvalidArgument for a ticket that was received before or whose command has no reply.
    using Ticket = uint64_t;
    [[nodiscard]] Result<Ticket> Send(const shd::ClientRequest& request);
    [[nodiscard]] Result<Reply> Receive(Ticket ticket);

    // Send and Receive. The caller judges the reply, see Outcome.
    [[nodiscard]] Result<Reply> Exchange(const shd::ClientRequest& request);

    // One call per command. Each fails with kRefused when the hub or the MCU says no, with the
    // reason in words and the MCU's status. For virtual sensors all but Activate, Deactivate and
    // Flush have no effect and succeed; those that return something fail.
    [[nodiscard]] Status Activate(int32_t handle);
    [[nodiscard]] Status Deactivate(int32_t handle);
    [[nodiscard]] Status SetDelay(int32_t handle, int32_t period_ms);
    // samples: 0 means no batching; the hub uses 0 for handles 9, 10, 11 and 15 in any case. extra
    // is passed on to the MCU.
    [[nodiscard]] Status Batch(int32_t handle, int32_t period_ms, int32_t samples,
                               int32_t extra = 0);
    // Success says that the flush was taken; its end is a flush-complete event on the data socket,
    // which may come before this call returns.
    [[nodiscard]] Status Flush(int32_t handle);
    [[nodiscard]] Status SelfTest(int32_t handle);
    // bytes: exactly SensorInfo::parameter_size of the sensor, else kInvalidArgument.
    [[nodiscard]] Status SetParameter(int32_t handle, std::span<const uint8_t> bytes);
    // Only for sensors with parameter_size, else kInvalidArgument. Makes the MCU calibrate anew;
    // the daemon stores the accelerometer's values.
    [[nodiscard]] Result<Calibration> Calibrate(int32_t handle);
    [[nodiscard]] Result<std::string> Information(int32_t handle);
    // number 0 is the firmware's version; 1, 2 and 3 are further texts of the MCU.
    [[nodiscard]] Result<std::string> Version(uint16_t number);
    [[nodiscard]] Status SetMcuLogLevel(uint8_t level);
    // Bit 0 algorithm data (steps), bit 1 heart-rate data.
    [[nodiscard]] Status SetRawData(uint16_t type);
    [[nodiscard]] Status SetHealth(const std::array<uint32_t, 4>& words);
    [[nodiscard]] Status SetDateTime(uint32_t seconds_since_epoch);
    [[nodiscard]] Status SetDebugLog(bool on);
    // Never answered: success says only that the request was sent.
    [[nodiscard]] Status NotifySleep();
    [[nodiscard]] Status NotifyWakeup();

  private:
    struct Pending {
        Ticket ticket;
        shd::ClientRequest request;
    };

    [[nodiscard]] Status Run(const shd::ClientRequest& request);
    [[nodiscard]] Result<Reply> RunForData(const shd::ClientRequest& request, ReplyForm form);
    [[nodiscard]] Status Notify(shd::ControlCommand command);
    [[nodiscard]] bool IsPending(Ticket ticket) const;
    [[nodiscard]] Status WaitForReply();
    [[nodiscard]] Status ReadRecord(std::chrono::steady_clock::time_point deadline);
    [[nodiscard]] Error Disconnected() const;

    UniqueFd fd_;
    std::string name_;
    std::chrono::milliseconds timeout_ = kDefaultReplyTimeout;
    std::chrono::milliseconds notice_after_{0};
    SlowNotice notice_;
    Ticket last_ticket_ = 0;
    std::deque<Pending> pending_;  // requests whose reply has not come, oldest first
    std::array<uint8_t, sizeof(shd::ControlReply)> record_{};
    size_t record_fill_ = 0;
};

}  // namespace shdclient
