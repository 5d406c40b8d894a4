// Finds out which request each reply of the MCU answers, and which one the daemon takes it for.
// Used by the reader of line recordings.
#pragma once

#include <deque>
#include <span>

#include "tools/shdtool/timeline/item.h"

namespace shdtool::timeline {

// The daemon compares nothing: whoever waits gets the oldest reply there is. One that comes when
// nobody waits is therefore taken for the next request's, and so on, until a reply is missing.
class Exchanges {
  public:
    explicit Exchanges(const Sink& sink) : sink_(sink) {}

    // Frames with good packets, in the order of their times. wall_ahead: of the boot clock; the
    // daemon's time limits end at whole seconds of the wall clock.
    void OnRequest(const Frame& frame, std::span<const uint8_t> packet, int64_t wall_ahead);
    void OnReply(const Frame& frame, std::span<const uint8_t> packet);

    // Tells of the requests whose time is up by now, which is to be called ahead of the others.
    // Returns the first of them.
    [[nodiscard]] std::optional<Exchange> Expire(Time now);

    // The host resets the MCU. A daemon that starts does so behind its version check, and has no
    // earlier reply; it then returns true.
    [[nodiscard]] bool OnReset(Time now);

  private:
    // Channel, service and command: what a reply has in common with its request.
    struct Identity {
        uint8_t channel, service, command;
        bool operator==(const Identity&) const = default;
    };
    struct Asked {
        Exchange exchange;  // end: its time limit
        Identity identity;
        bool waiting = true;    // the daemon has taken no reply for it
        bool answered = false;  // by the MCU
        bool given_up = false;
    };

    [[nodiscard]] static Identity IdentityOf(std::span<const uint8_t> packet);
    void GiveUp(const Identity& identity, Time now);
    [[nodiscard]] Asked* TrueRequest(const Identity& identity);
    [[nodiscard]] Asked* Taker(const Identity& identity);
    void Tell(const Asked& asked, Time end, Mark mark, const std::string& note = "");

    const Sink& sink_;
    std::deque<Asked> asked_;         // the latest
    std::deque<std::string> queued_;  // replies that nobody waited for, in words
    bool version_check_ = false;      // the latest request is that of one
};

}  // namespace shdtool::timeline
