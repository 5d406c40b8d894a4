// Keeps sensors switched on for a watching command. Called by the watch loop.
#include "tools/shdtool/engine/sampling.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "tools/client/reply.h"

using namespace shd;

namespace shdtool {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kRetryAfter{2};
constexpr double kNsPerMs = 1e6;

}  // namespace

std::optional<int32_t> WatchRequest::hub_period_ms() const {
    if (!period_ms) return std::nullopt;
    return static_cast<int32_t>(std::max(std::lround(*period_ms), 1L));
}

std::optional<int64_t> WatchRequest::asked_ns() const {
    if (!period_ms) return std::nullopt;
    return std::llround((enable ? *hub_period_ms() : *period_ms) * kNsPerMs);
}

SensorEnabler::SensorEnabler(const std::string& root, std::chrono::milliseconds timeout,
                             const WatchRequest& request)
    : request_(request), worker_(root, timeout) {}

void SensorEnabler::Ask() {
    retry_at_.reset();
    failed_ = false;
    waiting_ = true;
    for (const int32_t handle : request_.handles) {
        if (request_.period_ms) {
            ClientRequest batch = shdclient::MakeRequest(handle, SHB_SENSOR_BATCH);
            const int32_t words[] = {*request_.hub_period_ms(), request_.batch};
            std::memcpy(batch.args, words, sizeof(words));
            worker_.Post(batch);
        }
        worker_.Post(shdclient::MakeRequest(handle, SHB_SENSOR_ACTIVE));
    }
}

shdclient::Result<bool> SensorEnabler::Check() {
    for (const HubOutcome& outcome : worker_.TakeOutcomes()) {
        if (outcome.status) continue;
        if (!ever_succeeded_) return outcome.status.error();
        failed_ = true;
    }
    if (waiting_ && !worker_.busy()) {
        waiting_ = false;
        ever_succeeded_ = ever_succeeded_ || !failed_;
        if (failed_) retry_at_ = steady_clock::now() + kRetryAfter;
        return !failed_;
    }
    if (retry_at_ && steady_clock::now() >= *retry_at_) Ask();
    return false;
}

}  // namespace shdtool
