// Keeps sensors switched on for a watching command. Called by the watch loop.
#include "tools/shdtool/engine/sampling.h"

#include <algorithm>
#include <cmath>

using namespace shd;

namespace shdtool {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kRetryAfter{2};
constexpr double kNsPerMs = 1e6;

}  // namespace

std::optional<int32_t> SamplingRequest::hub_period_ms() const {
    if (!period_ms) return std::nullopt;
    return static_cast<int32_t>(std::max(std::lround(*period_ms), 1L));
}

std::optional<int64_t> SamplingRequest::asked_ns() const {
    if (!period_ms) return std::nullopt;
    return std::llround((enable ? *hub_period_ms() : *period_ms) * kNsPerMs);
}

SensorEnabler::SensorEnabler(const std::string& root, std::chrono::milliseconds timeout,
                             const SamplingRequest& sampling)
    : sampling_(sampling), worker_(root, timeout) {}

void SensorEnabler::Ask() {
    retry_at_.reset();
    failed_ = false;
    waiting_ = true;
    for (const int32_t handle : sampling_.handles) {
        const auto requests =
            EnableRequests(handle, sampling_.hub_period_ms(), sampling_.batch.value_or(0));
        for (const ClientRequest& request : requests) worker_.Post(request);
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
