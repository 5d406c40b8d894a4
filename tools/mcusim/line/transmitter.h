// The MCU's sending side: packets become frames on the line, with the faults that a tester has
// asked for. Everything that the MCU says passes through here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "tools/mcusim/line/faults.h"
#include "tools/mcusim/line/serial_line.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

enum class FrameKind { kReply, kReport, kLog, kRawData, kCoreDump };

class Transmitter {
  public:
    // What the MCU's send buffer holds. Beyond it reports, log lines and raw data are discarded;
    // replies may use the rest of the buffer.
    static constexpr size_t kReportBacklogBytes = 8192;
    static constexpr size_t kReplyBacklogBytes = 16'384;

    using PacketWatcher =
        std::function<void(TimePoint, std::span<const uint8_t> packet, std::string_view note)>;

    // Both must outlive the transmitter.
    Transmitter(SerialLine& line, Faults& faults) : line_(line), faults_(faults) {}

    // Queues a packet that may start on the line at the time given. False when the buffer is full
    // and the packet is lost.
    bool Send(TimePoint earliest, std::span<const uint8_t> packet, FrameKind kind);

    // Bytes that have left the line but that the host's driver has no room for.
    void set_stalled_bytes(size_t bytes) { stalled_bytes_ = bytes; }
    // Called for each packet, with what became of it when it did not go out whole.
    void set_watcher(PacketWatcher watcher) { watcher_ = std::move(watcher); }

    [[nodiscard]] uint64_t frames_out() const { return frames_out_; }
    [[nodiscard]] uint64_t frames_refused() const { return frames_refused_; }

  private:
    void Watch(TimePoint at, std::span<const uint8_t> packet, std::string_view note) const;

    SerialLine& line_;
    Faults& faults_;
    PacketWatcher watcher_;
    size_t stalled_bytes_ = 0;
    uint64_t frames_out_ = 0;
    uint64_t frames_refused_ = 0;
};

}  // namespace mcusim
