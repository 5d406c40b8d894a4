// What the page is told of a hub, as JSON objects: times are microseconds of the boot clock. Called
// by the feeds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/shdtool/timeline/item.h"

namespace shdtool {

inline constexpr int64_t kNsPerUs = 1000;

// What a page must know before anything else.
struct Greeting {
    int64_t now_us = 0;
    int64_t wall_us = 0;  // since 1970, at that moment
    bool live = false;
    bool simulator = false;  // takes commands
    std::string title;
    bool line = false;  // the line's bytes are there
    bool log = false;   // the daemon's log is
};
[[nodiscard]] std::string GreetingJson(const Greeting& greeting);

// Empty for what the page does not show.
[[nodiscard]] std::string ItemJson(const timeline::Item& item);

// A state that no item has: what is known from less than the line or the log.
[[nodiscard]] std::string StateJson(int64_t at_us, std::string_view state, std::string_view reason);

// Until when the item was; empty for what holds on or is told again.
[[nodiscard]] std::optional<timeline::Time> PassedAt(const timeline::Item& item);

// The key of what holds until something of the same key takes its place; empty for all else.
[[nodiscard]] std::string StandingKey(const timeline::Item& item);

}  // namespace shdtool
