// What the page is told of a hub, as JSON objects: times are microseconds of the boot clock. Called
// by the feeds.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/client/event_watcher.h"
#include "tools/shdtool/base/json.h"
#include "tools/shdtool/engine/delivery.h"
#include "tools/shdtool/sockets/socket_table.h"

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

// A sample, a flush-complete event, a change of the connection, or missed events.
[[nodiscard]] std::string DeliveryJson(const Delivery& delivery);

[[nodiscard]] std::string StateJson(int64_t at_us, std::string_view state, std::string_view reason);

// uses: of the control and of the data socket.
[[nodiscard]] std::string ClientsJson(int64_t at_us, const SocketUse& control,
                                      const SocketUse& data);

}  // namespace shdtool
