// Faults that a tester asks for: lost and damaged frames, late replies, commands that the MCU
// refuses or swallows. The application and the transmitter ask here before they act.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <span>
#include <utility>

#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

class Faults {
  public:
    // What becomes of one request.
    enum class Verdict { kServe, kSwallow, kRefuse };

    explicit Faults(uint64_t seed) : random_(seed) {}

    // Probabilities from 0 to 1.
    void set_drop_probability(double probability) { drop_ = probability; }
    void set_corrupt_probability(double probability) { corrupt_ = probability; }
    void set_reply_delay(TimePoint delay) { reply_delay_ = delay; }

    // The next count requests (0: all from now on) with this service and command are refused with
    // this status, or swallowed. A status of 0 takes an earlier order back.
    void RefuseRequests(uint8_t service, uint8_t command, uint8_t status, int count);
    void SwallowRequests(uint8_t service, uint8_t command, int count);

    [[nodiscard]] bool DropIncoming();
    [[nodiscard]] bool DropOutgoing();
    // True when it has flipped a bit.
    [[nodiscard]] bool CorruptOutgoing(std::span<uint8_t> frame);
    [[nodiscard]] TimePoint reply_delay() const { return reply_delay_; }

    // Counts the request against its order, if there is one. status is set for kRefuse.
    [[nodiscard]] Verdict Judge(uint8_t service, uint8_t command, uint8_t& status);

    [[nodiscard]] uint64_t dropped_in() const { return dropped_in_; }
    [[nodiscard]] uint64_t dropped_out() const { return dropped_out_; }
    [[nodiscard]] uint64_t corrupted_out() const { return corrupted_out_; }

  private:
    struct Order {
        Verdict verdict;
        uint8_t status;
        int left;  // 0: without end
    };

    [[nodiscard]] bool Happens(double probability);

    std::mt19937_64 random_;
    double drop_ = 0;
    double corrupt_ = 0;
    TimePoint reply_delay_{0};
    std::map<std::pair<uint8_t, uint8_t>, Order> orders_;
    uint64_t dropped_in_ = 0;
    uint64_t dropped_out_ = 0;
    uint64_t corrupted_out_ = 0;
};

}  // namespace mcusim
