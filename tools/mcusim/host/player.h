// Plays the MCU's side of a recorded session to a host, in virtual time. The simulator runs it in
// place of the machine for --replay.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/mcusim/board/far_end.h"
#include "tools/wire/frame.h"
#include "tools/wire/recording.h"

namespace mcusim {

// Each part of what the MCU said is sent when everything that the host did before it has come. An
// answer keeps its time after its request, since the host's limits depend on that; what the MCU
// says unasked follows what went before at the recorded distance, but at most max_gap later, and
// at once when the host is ahead of it; behind a gate not before the tester has opened that.
class Player : public FarEnd {
  public:
    // Called with the recording's line and what the host did otherwise there.
    using Complaint = std::function<void(int line, const std::string& what)>;

    Player(const std::vector<RecordedStep>& steps, TimePoint max_gap, Complaint complain);

    void HostWrote(TimePoint at, std::span<const uint8_t> bytes) override;
    void SetPin(TimePoint at, Pin pin, bool high) override;
    [[nodiscard]] bool HasRoom() const override { return true; }
    void Advance(TimePoint) override {}
    [[nodiscard]] std::optional<Burst> TakeOutput(TimePoint now) override;
    [[nodiscard]] std::optional<TimePoint> NextDue() const override;
    void SetStalled(size_t) override {}
    // Opens the next gate.
    void Go() { ++gates_; }

    // The host has done, and has been told, everything.
    [[nodiscard]] bool complete() const;
    [[nodiscard]] int differences() const { return differences_; }
    // As one line of JSON.
    [[nodiscard]] std::string Stats() const;

  private:
    // A request, or bytes for the bootloader as they were written together.
    struct Demand {
        int line;
        TimePoint recorded;
        bool bootloader;
        Bytes bytes;         // of a request without its framing
        TimePoint came{-1};  // when it was complete
    };
    struct Reset {
        int line;  // of the reset line's release
        bool bootloader;
    };
    struct Part {
        TimePoint recorded;
        TimePoint pause;                // since the step before it
        size_t demands;                 // of the host that must have come before
        size_t resets;                  // likewise
        size_t gates;                   // that must be open, unless it answers
        std::optional<size_t> answers;  // the demand
        Bytes bytes;
    };

    void AddHostBytes(const RecordedStep& step, bool bootloader);
    void AddPart(const RecordedStep& step, TimePoint pause, bool bootloader);
    [[nodiscard]] std::optional<size_t> DemandOf(const Bytes& reply) const;
    void Met(TimePoint at);
    void TakeRequest(TimePoint at, const Bytes& request);
    void Differ(int line, const std::string& what);

    const TimePoint max_gap_;
    const Complaint complain_;
    std::vector<Demand> demands_;
    std::vector<Part> parts_;
    std::vector<Reset> recorded_resets_;
    size_t all_gates_ = 0;

    FrameReader reader_;  // of the host, in the recording and then in the replay
    Bytes reply_;         // the MCU's frame in progress, in the recording
    bool reply_escaped_ = false;
    size_t met_ = 0;        // demands
    size_t bytes_met_ = 0;  // of the next demand, when it is the bootloader's
    bool byte_differed_ = false;
    size_t resets_ = 0;
    bool reset_high_ = true, boot0_high_ = false;
    size_t gates_ = 0;
    size_t sent_ = 0;    // parts
    TimePoint last_{0};  // when the latest of all these came or went
    int differences_ = 0;
};

}  // namespace mcusim
