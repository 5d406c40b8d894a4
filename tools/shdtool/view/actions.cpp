// Orders of a browser as requests to the hub and commands to the simulator. Called by the web
// server.
#include "tools/shdtool/view/actions.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "tools/client/local_socket.h"
#include "tools/client/reply.h"

using namespace shd;

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;
using shdclient::Status;
using std::chrono::milliseconds;

constexpr int kLookMs = 10;        // between two looks for an outcome
constexpr size_t kMaxWaiting = 8;  // requests without an outcome; more would take all threads
constexpr int64_t kMaxPeriodUs = 3'600'000'000;
constexpr int64_t kMaxBatch = 100'000;
constexpr int kSimulatorPatienceMs = 2'000;

std::string SimulatorPath(const std::string& root) {
    return shdclient::SocketPath(root, "mcusim");
}

Error Wrong(const std::string& message) {
    return {ErrorCode::kInvalidArgument, message};
}

}  // namespace

bool HasSimulator(const std::string& root) {
    return access(SimulatorPath(root).c_str(), F_OK) == 0;
}

std::string Actions::Do(const std::string& body) {
    const auto order = Json::Parse(body);
    const Result<std::string> done = order ? Carry(*order) : Wrong("that is no JSON");
    if (!done) return Json{{"ok", false}, {"error", done.error().message}}.Text();
    return Json{{"ok", true}, {"text", *done}}.Text();
}

Result<std::string> Actions::Carry(const Json& order) {
    const std::string what = order.String("do").value_or("");
    if (what == "mcusim") return AskSimulator(order);
    if (what == "enable" || what == "disable" || what == "flush") return AskHub(what, order);
    return Wrong("\"do\" is none of enable, disable, flush, mcusim");
}

Result<std::string> Actions::AskHub(const std::string& what, const Json& order) {
    const auto handle = order.Integer("sensor").value_or(-1);
    const shdclient::SensorInfo* sensor =
        handle < kSensorHandleCount ? shdclient::FindSensor(static_cast<int32_t>(handle)) : nullptr;
    if (sensor == nullptr) return Wrong("there is no such sensor");
    const auto request = [&](ControlCommand command) {
        return shdclient::MakeRequest(sensor->handle, command);
    };
    if (what == "flush") {
        const Status done = Ask({request(SHB_SENSOR_FLUSH)});
        if (!done) return done.error();
        return fmt::format("{}: flush taken", sensor->name);
    }
    if (what == "disable") {
        const Status done = Ask({request(SHB_SENSOR_DEACTIVE)});
        if (!done) return done.error();
        asked_({sensor->handle, 0, 0});
        return fmt::format("{} is off", sensor->name);
    }
    const auto period_us = order.Integer("period_us");
    const int64_t wanted = sensor->can_batch ? order.Integer("batch").value_or(0) : 0;
    if (wanted < 0 || wanted > kMaxBatch) return Wrong("no such batch");
    const auto batch = static_cast<int32_t>(wanted);
    std::vector<ClientRequest> requests;
    if (period_us) {
        if (*period_us <= 0 || *period_us > kMaxPeriodUs) return Wrong("no such period");
        ClientRequest sampling = request(SHB_SENSOR_BATCH);
        const int32_t words[] = {static_cast<int32_t>(std::max<int64_t>(*period_us / 1000, 1)),
                                 batch};
        std::memcpy(sampling.args, words, sizeof(words));
        requests.push_back(sampling);
    }
    requests.push_back(request(SHB_SENSOR_ACTIVE));
    const Status done = Ask(requests);
    if (!done) return done.error();
    if (!period_us) return fmt::format("{} is on", sensor->name);
    asked_({sensor->handle, *period_us, batch});
    return fmt::format("{} is on, every {:.4g} ms{}", sensor->name,
                       static_cast<double>(*period_us) / 1000,
                       batch > 0 ? fmt::format(", in batches of {}", batch) : "");
}

// The first that fails; the ones behind it are carried out all the same.
Status Actions::Ask(const std::vector<ClientRequest>& requests) {
    uint64_t first = 0;
    {
        const MutexLock lock(mutex_);
        if (posted_ - taken_ >= kMaxWaiting) {
            return Error{ErrorCode::kTimeout, "the hub has not answered what it was asked before"};
        }
        first = posted_;
        for (const ClientRequest& request : requests) worker_.Post(request);
        posted_ += requests.size();
    }
    Status all = shdclient::Success();
    for (uint64_t number = first; number < first + requests.size();) {
        if (closed_) return Error{ErrorCode::kDisconnected, "shdtool view ends"};
        std::optional<Status> status;
        {
            const MutexLock lock(mutex_);
            for (const HubOutcome& outcome : worker_.TakeOutcomes()) {
                outcomes_.emplace(taken_++, outcome.status);
            }
            if (const auto found = outcomes_.find(number); found != outcomes_.end()) {
                status = found->second;
                outcomes_.erase(found);
            }
        }
        if (!status) {
            (void)poll(nullptr, 0, kLookMs);
            continue;
        }
        if (all) all = *status;
        ++number;
    }
    return all;
}

Result<std::string> Actions::AskSimulator(const Json& order) const {
    const std::string command = order.String("command").value_or("");
    if (command.empty() || command.find('\n') != std::string::npos) {
        return Wrong("a command is one line that is not empty");
    }
    auto socket = shdclient::ConnectLocal(SimulatorPath(root_));
    if (!socket) return Error{ErrorCode::kUnavailable, "no simulated MCU takes commands here"};
    const std::string line = command + "\n";
    (void)send(socket->get(), line.data(), line.size(), MSG_NOSIGNAL);  // a failure shows below
    std::string answer;
    while (!answer.ends_with('\n')) {
        pollfd ready{socket->get(), POLLIN, 0};
        std::array<char, 4096> buffer{};
        const ssize_t count = poll(&ready, 1, kSimulatorPatienceMs) == 1
                                  ? recv(socket->get(), buffer.data(), buffer.size(), 0)
                                  : -1;
        if (count <= 0) return Error{ErrorCode::kTimeout, "the simulated MCU did not answer"};
        answer.append(buffer.data(), static_cast<size_t>(count));
    }
    answer.pop_back();
    if (!answer.starts_with("ok")) return Error{ErrorCode::kRefused, answer};
    return answer;
}

}  // namespace shdtool
