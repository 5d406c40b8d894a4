// The simulated machine.
#include "tools/mcusim/machine.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/mcusim/firmware_image.h"

namespace mcusim {

Machine::Machine(Flash& flash_memory, const MachineOptions& options)
    : flash(flash_memory),
      line(options.baud),
      faults(options.seed),
      signals(options.seed),
      transmitter(line, faults),
      application(signals, faults, transmitter),
      bootloader(flash, options.bootloader_timings),
      board(flash, line, application, bootloader, options.boot_delay) {
    board.PowerOn(TimePoint(0));
}

void Machine::HostWrote(TimePoint at, std::span<const uint8_t> bytes) {
    line.HostWrote(at, bytes, board.bits_per_byte());
}

void Machine::Advance(TimePoint now) {
    while (const std::optional<ArrivedByte> byte = line.TakeArrived(now)) {
        board.Advance(byte->arrival);
        board.OnByte(*byte);
    }
    board.Advance(now);
}

std::optional<TimePoint> Machine::NextDue() const {
    const std::optional<TimePoint> of_line = line.NextDue();
    const std::optional<TimePoint> of_board = board.NextDue();
    if (of_line && of_board) return std::min(*of_line, *of_board);
    return of_line ? of_line : of_board;
}

std::string Machine::Stats(TimePoint now) const {
    nlohmann::ordered_json sensors;
    for (const SensorBank::Channel& channel : application.sensors().channels()) {
        sensors[std::string(channel.spec->name)] = {
            {"id", channel.spec->id},
            {"active", channel.active},
            {"period_ms", channel.period_ms},
            {"batch", channel.batch},
            {"generated", channel.generated},
            {"sent", channel.sent},
            {"dropped", channel.dropped},
            {"discarded", channel.discarded},
            {"pending", channel.pending_samples()},
            {"reports", channel.reports},
        };
    }
    const nlohmann::ordered_json stats = {
        {"uptime_s", Seconds(now)},
        {"mode", board.ModeName()},
        {"version", RunningVersion(flash).value_or("")},
        {"resets", board.resets()},
        {"power_cuts", board.power_cuts()},
        {"wakeups", wakeups_},
        {"frames_in", application.frames_in()},
        {"bad_frames_in", application.bad_frames_in()},
        {"frames_out", transmitter.frames_out()},
        {"frames_refused", transmitter.frames_refused()},
        {"fault_dropped_in", faults.dropped_in()},
        {"fault_dropped_out", faults.dropped_out()},
        {"fault_corrupted_out", faults.corrupted_out()},
        {"line_bytes_in", line.bytes_in()},
        {"line_bytes_out", line.bytes_out()},
        {"sensors", sensors},
    };
    return stats.dump();
}

}  // namespace mcusim
