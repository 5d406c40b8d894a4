// Requests and replies as the daemon pairs them. Called by the reader of line recordings.
#include "tools/shdtool/timeline/exchanges.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "protocol/control.h"
#include "tools/shdtool/log/log_line.h"

namespace shdtool::timeline {
namespace {

constexpr int64_t kNsPerSec = 1'000'000'000;
constexpr size_t kRemembered = 32;

// The version check resets the MCU, or starts its bootloader, right behind its last request.
constexpr int64_t kVersionCheckNs = kNsPerSec;

// How long the daemon waits for an answer.
struct Limit {
    uint8_t service;  // kAnySensor: every one that is not listed
    uint8_t command;
    int64_t sec;
};
constexpr uint8_t kAnySensor = 0;
constexpr Limit kSlow[] = {
    {kAnySensor, wire::kCommandSelfTest, shd::kLongestReplySec},
    {kAnySensor, wire::kCommandCalibration, shd::kLongestReplySec},
    {kAnySensor, wire::kCommandSetParameter, shd::kLongestReplySec},
    {kAnySensor, wire::kCommandGetInfo, shd::kLongestReplySec},
    {wire::kServiceLog, wire::kCommandLogLevel, shd::kLongestReplySec},
    {wire::kServiceLog, wire::kCommandRawData, shd::kLongestReplySec},
};

bool IsService(uint8_t service) {
    return service == wire::kServiceClock || service == wire::kServiceLog ||
           service == wire::kServiceVersion;
}

int64_t LimitSec(const wire::Request& request) {
    if (request.channel == wire::kChannelControl) return shd::kQuickReplySec;
    if (request.service == wire::kServiceVersion) return shd::kLongestReplySec;
    const uint8_t service = IsService(request.service) ? request.service : kAnySensor;
    const auto* found = std::ranges::find_if(kSlow, [&](const Limit& limit) {
        return limit.service == service && limit.command == request.command;
    });
    return found == std::end(kSlow) ? shd::kQuickReplySec : found->sec;
}

std::string WithoutKind(std::string words) {
    for (const std::string_view kind : {"request ", "reply "}) {
        if (words.starts_with(kind)) return words.substr(kind.size());
    }
    return words;
}

}  // namespace

Exchanges::Identity Exchanges::IdentityOf(std::span<const uint8_t> packet) {
    constexpr size_t kService = 2, kCommand = 3;
    const bool sensor = packet[0] == wire::kChannelSensor && packet.size() > kCommand;
    return {packet[0], packet.size() > kService ? packet[kService] : uint8_t{0},
            sensor ? packet[kCommand] : uint8_t{0}};
}

void Exchanges::Tell(const Asked& asked, Time end, Mark mark, const std::string& note) {
    Exchange told = asked.exchange;
    told.end = std::max(end, told.begin);
    told.mark = mark;
    told.words += note;
    sink_(told);
}

void Exchanges::OnRequest(const Frame& frame, std::span<const uint8_t> packet, int64_t wall_ahead) {
    const auto request = wire::ParseRequest(packet);
    if (!request) return;
    const int64_t asked_sec = (frame.end + wall_ahead) / kNsPerSec;
    const Time limit = (asked_sec + LimitSec(*request)) * kNsPerSec - wall_ahead;
    Asked asked{{frame.number, frame.begin, limit, WithoutKind(frame.words), Mark::kNone, {}},
                IdentityOf(packet)};
    const bool of_sensor = request->channel == wire::kChannelSensor && !IsService(request->service);
    if (of_sensor && request->command == wire::kCommandFlush) {
        asked.exchange.flushed = HandlesOfMcuSensor(request->service);
    }
    version_check_ = request->channel == wire::kChannelSensor &&
                     request->service == wire::kServiceVersion && request->command == 0;
    // The check asks again after a much shorter time; nobody else asks for it twice at once.
    if (version_check_) GiveUp(IdentityOf(packet), frame.begin);
    if (!queued_.empty()) {
        asked.waiting = false;
        Tell(asked, frame.end, Mark::kShifted,
             fmt::format(": took the late reply {}", queued_.front()));
        queued_.pop_front();
    }
    asked_.push_back(std::move(asked));
    if (asked_.size() > kRemembered) asked_.pop_front();
}

void Exchanges::GiveUp(const Identity& identity, Time now) {
    for (Asked& asked : asked_) {
        if (!asked.waiting || asked.identity != identity) continue;
        asked.waiting = false;
        asked.given_up = true;
        Tell(asked, now, Mark::kUnanswered);
    }
}

// The MCU answers in order, so it is the latest one that can be meant, unless that was answered.
Exchanges::Asked* Exchanges::TrueRequest(const Identity& identity) {
    const auto found = std::find_if(asked_.rbegin(), asked_.rend(), [&](const Asked& asked) {
        return asked.identity == identity && !asked.answered;
    });
    return found == asked_.rend() ? nullptr : &*found;
}

// Two threads of the daemon may wait; the line does not tell which of them is the faster, so the
// one whose reply it is counts as that.
Exchanges::Asked* Exchanges::Taker(const Identity& identity) {
    Asked* taker = nullptr;
    for (Asked& asked : asked_) {
        if (!asked.waiting) continue;
        if (asked.identity == identity) return &asked;
        if (taker == nullptr) taker = &asked;
    }
    return taker;
}

void Exchanges::OnReply(const Frame& frame, std::span<const uint8_t> packet) {
    const Identity identity = IdentityOf(packet);
    Asked* const taker = Taker(identity);
    Asked* const meant =
        taker != nullptr && taker->identity == identity ? taker : TrueRequest(identity);
    const std::string words = WithoutKind(frame.words);
    if (meant != nullptr) {
        meant->answered = true;
        if (meant->given_up) Tell(*meant, frame.end, Mark::kLate);
    }
    if (taker == nullptr) {
        queued_.push_back(words);
        return;
    }
    taker->waiting = false;
    if (taker == meant) return Tell(*taker, frame.end, Mark::kNone);
    Tell(*taker, frame.end, Mark::kShifted, fmt::format(": took the late reply {}", words));
}

std::optional<Exchange> Exchanges::Expire(Time now) {
    std::optional<Exchange> first;
    for (Asked& asked : asked_) {
        if (!asked.waiting || asked.exchange.end > now) continue;
        asked.waiting = false;
        asked.given_up = true;
        if (!first) first = asked.exchange;
        Tell(asked, asked.exchange.end, Mark::kUnanswered);
    }
    return first;
}

bool Exchanges::OnReset(Time now) {
    const bool started =
        version_check_ && !asked_.empty() && now - asked_.back().exchange.begin < kVersionCheckNs;
    if (!started) return false;
    for (const Asked& asked : asked_) {
        if (asked.waiting) Tell(asked, now, Mark::kUnanswered);
    }
    asked_.clear();
    queued_.clear();
    return true;
}

}  // namespace shdtool::timeline
