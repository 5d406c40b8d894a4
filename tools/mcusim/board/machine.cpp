// The simulated machine.
#include "tools/mcusim/board/machine.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/mcusim/application/dump_builder.h"

namespace mcusim {
namespace {

constexpr size_t kMaxInputBytes = 4096;

}  // namespace

Machine::Machine(Flash& flash_memory, const MachineOptions& options)
    : flash(flash_memory),
      line(options.baud),
      faults(options.seed),
      signals(options.seed),
      transmitter(line, faults),
      application(signals, faults, transmitter),
      bootloader(flash, options.bootloader_timings),
      board(flash, line, application, bootloader, options.boot_delay),
      seed_(options.seed) {
    ConnectWatchers();
    board.PowerOn(TimePoint(0));
}

void Machine::ConnectWatchers() {
    const auto watch_packets = [this](Direction direction) {
        return [this, direction](TimePoint at, std::span<const uint8_t> packet,
                                 std::string_view note) {
            for (Observer* observer : observers_) observer->OnPacket(at, direction, packet, note);
        };
    };
    application.set_watcher(watch_packets(Direction::kHostToMcu));
    transmitter.set_watcher(watch_packets(Direction::kMcuToHost));
    board.set_watcher([this](TimePoint at, std::string_view mode) {
        for (Observer* observer : observers_) observer->OnMode(at, mode);
    });
}

void Machine::AddObserver(Observer& observer, TimePoint now) {
    observers_.push_back(&observer);
    observer.OnMode(now, board.ModeName());
}

void Machine::HostWrote(TimePoint at, std::span<const uint8_t> bytes) {
    line.HostWrote(at, bytes, board.bits_per_byte());
    const bool bootloader_runs = board.mode() == Board::Mode::kBootloader;
    for (Observer* observer : observers_) {
        observer->OnBytes(at, Direction::kHostToMcu, bytes, bootloader_runs);
    }
}

std::optional<Burst> Machine::TakeOutput(TimePoint now) {
    std::optional<Burst> burst = line.TakeDue(now);
    if (!burst) return burst;
    const bool bootloader_runs = board.mode() == Board::Mode::kBootloader;
    for (Observer* observer : observers_) {
        observer->OnBytes(burst->due, Direction::kMcuToHost, burst->bytes, bootloader_runs);
    }
    return burst;
}

void Machine::SetPin(TimePoint at, Pin pin, bool high) {
    for (Observer* observer : observers_) observer->OnPin(at, pin, high);
    if (pin == Pin::kBoot0) return board.SetBoot0(high);
    board.SetReset(high, at);
}

bool Machine::HasRoom() const {
    return line.input_bytes() < kMaxInputBytes;
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

std::vector<uint8_t> Machine::Crash(TimePoint now, int pieces, bool ask_for_reset) {
    const auto count = static_cast<size_t>(pieces);
    // Each crash of a run leaves another dump.
    std::vector<uint8_t> dump =
        BuildCoreDump(seed_ + crashes_++, std::min(kDumpBytes, count * kMaxDumpPieceBytes));
    uint8_t index = 0;
    for (const std::span<const uint8_t> piece : CutDump(dump, count)) {
        Bytes data = {static_cast<uint8_t>(ask_for_reset), static_cast<uint8_t>(pieces), ++index};
        data.insert(data.end(), piece.begin(), piece.end());
        (void)transmitter.Send(now, BuildChannelPacket(kChannelCoreDump, data),
                               FrameKind::kCoreDump);  // never refused
    }
    board.HangAfterOutput(now);
    return dump;
}

std::string Machine::Stats(TimePoint now) const {
    nlohmann::ordered_json sensors;
    for (const SensorBank::Channel& channel : application.sensors().channels()) {
        sensors[std::string(channel.traits->name)] = {
            {"id", channel.traits->id},
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
        {"crashes", crashes_},
        {"power_cuts", board.power_cuts()},
        {"blocks_written", bootloader.blocks_written()},
        {"wakeups", wakeups_},
        {"frames_in", application.frames_in()},
        {"bad_frames_in", application.bad_frames_in()},
        {"frames_out", transmitter.frames_out()},
        {"frames_refused", transmitter.frames_refused()},
        {"raw_data_messages", application.raw_data().messages()},
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
