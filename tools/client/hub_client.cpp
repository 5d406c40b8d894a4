// The control connection: sending, the bounded wait, and the matching of replies by their order.
// Called by the tools.
#include "tools/client/hub_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/client/local_socket.h"

using namespace shd;

namespace shdclient {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Milliseconds for poll until the deadline, rounded up so that a wait never ends early.
int PollTimeout(steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

std::string Seconds(milliseconds time) {
    const bool whole = time.count() % 1000 == 0;
    return whole ? std::to_string(time.count() / 1000) + " s"
                 : std::to_string(time.count()) + " ms";
}

template <typename T>
void Store(ClientRequest& request, size_t offset, const T& value) {
    static_assert(sizeof(T) <= sizeof(request.args));
    std::memcpy(request.args + offset, &value, sizeof(value));
}

}  // namespace

Result<HubClient> HubClient::Connect(std::string_view root) {
    std::string path = SocketPath(root, kControlSocket);
    Result<UniqueFd> fd = ConnectLocal(path);
    if (!fd) return fd.error();
    return HubClient(std::move(*fd), std::move(path));
}

void HubClient::set_slow_notice(milliseconds after, SlowNotice notice) {
    notice_after_ = after;
    notice_ = std::move(notice);
}

Error HubClient::Disconnected() const {
    return {ErrorCode::kDisconnected,
            "the daemon closed the connection " + name_ + "; it may have ended or been restarted"};
}

Result<HubClient::Ticket> HubClient::Send(const ClientRequest& request) {
    uint8_t bytes[sizeof(request)];
    std::memcpy(bytes, &request, sizeof(request));
    const steady_clock::time_point deadline = steady_clock::now() + timeout_;
    for (size_t sent = 0; sent < sizeof(bytes);) {
        const ssize_t count =
            send(fd_.get(), bytes + sent, sizeof(bytes) - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return Disconnected();
        pollfd ready{fd_.get(), POLLOUT, 0};
        if (poll(&ready, 1, PollTimeout(deadline)) == 0) {
            return Error{ErrorCode::kTimeout, "the daemon behind " + name_ +
                                                  " took no request within " + Seconds(timeout_) +
                                                  "; its queue is full or it is stopped"};
        }
    }
    ++last_ticket_;
    if (HasReply(request.command)) pending_.push_back({last_ticket_, request});
    return last_ticket_;
}

bool HubClient::IsPending(Ticket ticket) const {
    return std::any_of(pending_.begin(), pending_.end(),
                       [&](const Pending& pending) { return pending.ticket == ticket; });
}

Result<Reply> HubClient::Receive(Ticket ticket) {
    if (!IsPending(ticket)) {
        return Error{ErrorCode::kInvalidArgument, "no reply is expected for this request"};
    }
    for (;;) {
        const Status complete = WaitForReply();
        if (!complete) return complete.error();
        const Pending answered = pending_.front();
        pending_.pop_front();
        record_fill_ = 0;
        if (answered.ticket != ticket) continue;
        ControlReply record;
        std::memcpy(&record, record_.data(), sizeof(record));
        return InterpretReply(answered.request, record);
    }
}

Status HubClient::WaitForReply() {
    milliseconds left = timeout_;
    if (notice_ && notice_after_ < timeout_) {
        Status early = ReadRecord(steady_clock::now() + notice_after_);
        if (early || early.error().code != ErrorCode::kTimeout) return early;
        left -= notice_after_;
        notice_(left);
    }
    return ReadRecord(steady_clock::now() + left);
}

Status HubClient::ReadRecord(steady_clock::time_point deadline) {
    while (record_fill_ < record_.size()) {
        pollfd ready{fd_.get(), POLLIN, 0};
        const int result = poll(&ready, 1, PollTimeout(deadline));
        if (result < 0 && errno == EINTR) continue;
        if (result == 0) {
            return Error{ErrorCode::kTimeout,
                         "no reply from the daemon within " + Seconds(timeout_) +
                             "; the MCU may be silent, or other clients' requests come first"};
        }
        const ssize_t count = recv(fd_.get(), record_.data() + record_fill_,
                                   record_.size() - record_fill_, MSG_DONTWAIT);
        if (count > 0) {
            record_fill_ += static_cast<size_t>(count);
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            return Disconnected();
        }
    }
    return Success();
}

Result<Reply> HubClient::Exchange(const ClientRequest& request) {
    const Result<Ticket> ticket = Send(request);
    if (!ticket) return ticket.error();
    return Receive(*ticket);
}

Status HubClient::Run(const ClientRequest& request) {
    const Result<Reply> reply = Exchange(request);
    if (!reply) return reply.error();
    return Outcome(request, *reply);
}

Result<Reply> HubClient::RunForData(const ClientRequest& request, ReplyForm form) {
    Result<Reply> reply = Exchange(request);
    if (!reply) return reply;
    const Status outcome = Outcome(request, *reply);
    if (!outcome) return outcome.error();
    if (reply->form != form) {
        return Error{ErrorCode::kRefused, RequestName(request) +
                                              ": the sensor is virtual, the daemon answers for it "
                                              "and has nothing to tell"};
    }
    return reply;
}

Status HubClient::Activate(int32_t handle) {
    return Run(MakeRequest(handle, SHB_SENSOR_ACTIVE));
}

Status HubClient::Deactivate(int32_t handle) {
    return Run(MakeRequest(handle, SHB_SENSOR_DEACTIVE));
}

Status HubClient::SetDelay(int32_t handle, int32_t period_ms) {
    ClientRequest request = MakeRequest(handle, SHB_SENSOR_DELAY);
    Store(request, 0, period_ms);
    return Run(request);
}

Status HubClient::Batch(int32_t handle, int32_t period_ms, int32_t samples, int32_t extra) {
    ClientRequest request = MakeRequest(handle, SHB_SENSOR_BATCH);
    Store(request, 0, period_ms);
    Store(request, 4, samples);
    Store(request, 8, extra);
    return Run(request);
}

Status HubClient::Flush(int32_t handle) {
    return Run(MakeRequest(handle, SHB_SENSOR_FLUSH));
}

Status HubClient::SelfTest(int32_t handle) {
    return Run(MakeRequest(handle, SHB_SENSOR_SELFTEST));
}

Status HubClient::SetParameter(int32_t handle, std::span<const uint8_t> bytes) {
    const SensorInfo* sensor = FindSensor(handle);
    const size_t expected = sensor != nullptr ? sensor->parameter_size : 0;
    if (expected == 0) {
        return Error{ErrorCode::kInvalidArgument,
                     SensorName(handle) +
                         " takes no parameter; only accelerometer, gyroscope, pressure and "
                         "raw-25 do"};
    }
    if (bytes.size() != expected) {
        return Error{ErrorCode::kInvalidArgument,
                     "the parameter of " + std::string(sensor->name) + " has " +
                         std::to_string(expected) + " bytes, not " + std::to_string(bytes.size())};
    }
    ClientRequest request = MakeRequest(handle, SHB_SENSOR_PARAMETER);
    std::memcpy(request.args, bytes.data(), bytes.size());
    return Run(request);
}

Result<Calibration> HubClient::Calibrate(int32_t handle) {
    const SensorInfo* sensor = FindSensor(handle);
    if (sensor == nullptr || sensor->parameter_size == 0) {
        return Error{ErrorCode::kInvalidArgument,
                     SensorName(handle) +
                         " has no calibration; only accelerometer, gyroscope, pressure and "
                         "raw-25 have one"};
    }
    const Result<Reply> reply =
        RunForData(MakeRequest(handle, SHB_SENSOR_CALIBRATION), ReplyForm::kResult);
    if (!reply) return reply.error();
    Calibration calibration;
    if (sensor->parameter_size == sizeof(int16_t) * 3) {
        int16_t axes[3];
        std::memcpy(axes, reply->data.data(), sizeof(axes));
        std::copy(std::begin(axes), std::end(axes), calibration.all_values.begin());
        calibration.count = std::size(axes);
    } else {
        std::memcpy(calibration.all_values.data(), reply->data.data(), sizeof(int32_t));
        calibration.count = 1;
    }
    return calibration;
}

Result<std::string> HubClient::Information(int32_t handle) {
    const Result<Reply> reply =
        RunForData(MakeRequest(handle, SHB_SENSOR_GETINFO), ReplyForm::kText);
    if (!reply) return reply.error();
    return reply->text;
}

Result<std::string> HubClient::Version(uint16_t number) {
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_MCU_VERSION);
    Store(request, 0, number);
    const Result<Reply> reply = RunForData(request, ReplyForm::kText);
    if (!reply) return reply.error();
    return reply->text;
}

Status HubClient::SetMcuLogLevel(uint8_t level) {
    constexpr uint8_t kLogSwitch = 1;  // what the daemon itself sends at start-up
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_MCU_LOG_LEVEL);
    Store(request, 0, kLogSwitch);
    Store(request, 1, level);
    return Run(request);
}

Status HubClient::SetRawData(uint16_t type) {
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_MCU_RAWDATA_CONFIG);
    Store(request, 0, type);
    return Run(request);
}

Status HubClient::SetHealth(const std::array<uint32_t, 4>& words) {
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_MCU_HEALTH_CONFIG);
    Store(request, 0, words);
    return Run(request);
}

Status HubClient::SetDateTime(uint32_t seconds_since_epoch) {
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_MCU_DATETIME_CONFIG);
    Store(request, 0, seconds_since_epoch);
    return Run(request);
}

Status HubClient::SetDebugLog(bool on) {
    const uint16_t flag = on ? 1 : 0;
    ClientRequest request = MakeRequest(kMcuWideHandle, SHB_DEBUG_LOG);
    Store(request, 0, flag);
    return Run(request);
}

Status HubClient::Notify(ControlCommand command) {
    const Result<Ticket> ticket = Send(MakeRequest(kMcuWideHandle, command));
    if (!ticket) return ticket.error();
    return Success();
}

Status HubClient::NotifySleep() {
    return Notify(SHB_MCU_SLEEP);
}

Status HubClient::NotifyWakeup() {
    return Notify(SHB_MCU_WAKEUP);
}

}  // namespace shdclient
