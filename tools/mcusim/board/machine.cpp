// The simulated machine and its counters. Driven by the simulator's event loop.
#include "tools/mcusim/board/machine.h"

#include <fmt/core.h>

#include <algorithm>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tools/mcusim/application/dump_builder.h"

namespace mcusim {
namespace {

constexpr size_t kMaxInputBytes = 4096;

// One line of JSON, in the order of the additions. The whole of a JSON library would cost more
// compiling than the rest of the simulator.
class JsonObject {
  public:
    template <typename Number>
    requires std::is_arithmetic_v<Number>
    void Add(std::string_view name, Number value) { AddText(name, fmt::format("{}", value)); }
    void Add(std::string_view name, const JsonObject& value) { AddText(name, value.Text()); }
    void Add(std::string_view name, std::string_view value) {
        std::string quoted = "\"";
        for (const char c : value) {
            if (c == '"' || c == '\\') quoted += '\\';
            quoted += static_cast<unsigned char>(c) < ' ' ? '?' : c;
        }
        AddText(name, quoted + '"');
    }
    [[nodiscard]] std::string Text() const { return "{" + text_ + "}"; }

  private:
    void AddText(std::string_view name, const std::string& value) {
        text_ += fmt::format("{}\"{}\":{}", text_.empty() ? "" : ",", name, value);
    }

    std::string text_;
};

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
        if (board.mode() == Board::Mode::kReset || board.mode() == Board::Mode::kOff) {
            line_fault.EndSilence();
        }
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

void Machine::PassOutput(Burst& burst) {
    const std::vector<uint8_t> bytes = std::exchange(burst.bytes, {});
    for (auto byte = bytes.begin(); byte != bytes.end(); ++byte) {
        switch (line_fault.Pass(Direction::kMcuToHost, *byte, burst.bytes)) {
            case LineFault::Effect::kNone:
                break;
            case LineFault::Effect::kPause:
                return line.DelayOutput({{byte, bytes.end()}, burst.byte_time, burst.due},
                                        line_fault.duration());
            case LineFault::Effect::kPower:
                return board.Brownout(burst.due, line_fault.duration());
        }
    }
}

std::optional<Burst> Machine::TakeOutput(TimePoint now) {
    std::optional<Burst> burst = line.TakeDue(now);
    if (!burst) return burst;
    const bool bootloader_runs = board.mode() == Board::Mode::kBootloader;
    PassOutput(*burst);
    if (burst->bytes.empty()) return burst;
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
        std::vector<uint8_t> passed;
        const LineFault::Effect effect = line_fault.Pass(Direction::kHostToMcu, byte->byte, passed);
        if (effect == LineFault::Effect::kPause) {
            line.DelayInput(*byte, line_fault.duration());
        } else if (effect == LineFault::Effect::kPower) {
            board.Brownout(byte->arrival, line_fault.duration());
        }
        for (const uint8_t value : passed) board.OnByte({value, byte->arrival});
    }
    board.Advance(now);
}

std::optional<TimePoint> Machine::NextDue() const {
    return Earlier(line.NextDue(), board.NextDue());
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
    JsonObject sensors;
    for (const SensorBank::Channel& channel : application.sensors().channels()) {
        JsonObject sensor;
        sensor.Add("id", channel.traits->id);
        sensor.Add("active", channel.active);
        sensor.Add("period_ms", channel.period_ms);
        sensor.Add("batch", channel.batch);
        sensor.Add("generated", channel.generated);
        sensor.Add("sent", channel.sent);
        sensor.Add("dropped", channel.dropped);
        sensor.Add("discarded", channel.discarded);
        sensor.Add("pending", channel.pending_samples());
        sensor.Add("reports", channel.reports);
        sensors.Add(channel.traits->name, sensor);
    }
    JsonObject stats;
    stats.Add("uptime_s", Seconds(now));
    stats.Add("mode", board.ModeName());
    stats.Add("version", RunningVersion(flash).value_or(""));
    stats.Add("resets", board.resets());
    stats.Add("crashes", crashes_);
    stats.Add("power_cuts", board.power_cuts());
    stats.Add("blocks_written", bootloader.blocks_written());
    stats.Add("wakeups", wakeups_);
    stats.Add("frames_in", application.frames_in());
    stats.Add("bad_frames_in", application.bad_frames_in());
    stats.Add("frames_out", transmitter.frames_out());
    stats.Add("frames_refused", transmitter.frames_refused());
    stats.Add("raw_data_messages", application.raw_data().messages());
    stats.Add("fault_dropped_in", faults.dropped_in());
    stats.Add("fault_dropped_out", faults.dropped_out());
    stats.Add("fault_corrupted_out", faults.corrupted_out());
    stats.Add("line_faults", line_fault.happened());
    stats.Add("line_bytes_in", line.bytes_in());
    stats.Add("line_bytes_out", line.bytes_out());
    stats.Add("sensors", sensors);
    return stats.Text();
}

}  // namespace mcusim
