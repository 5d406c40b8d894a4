// The MCU's firmware as the host sees it: the handshake, the commands of sensors and services, log
// lines and reports. The board runs it while the MCU is up and a firmware is in its flash.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tools/mcusim/application/raw_data_streams.h"
#include "tools/mcusim/application/sensor_bank.h"
#include "tools/mcusim/application/sensor_signals.h"
#include "tools/mcusim/line/faults.h"
#include "tools/mcusim/line/packet.h"
#include "tools/mcusim/line/sim_time.h"
#include "tools/mcusim/line/transmitter.h"
#include "tools/wire/frame.h"

namespace mcusim {

class Application {
  public:
    using PacketWatcher = Transmitter::PacketWatcher;

    // All must outlive the application.
    Application(SensorSignals& signals, Faults& faults, Transmitter& transmitter);

    // Starts afresh with the version text of the firmware found in flash.
    void Boot(TimePoint now, std::string version);
    // The log level is lost as well; it survives a mere reset.
    void PowerCut();
    // Runs on after it hung; what arrived and fell due meanwhile is lost.
    void Resume(TimePoint now);

    void OnByte(uint8_t byte, TimePoint arrival);
    void Advance(TimePoint now);
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    // Sends a line of the MCU's own log.
    void Log(TimePoint now, std::string_view text);

    // Called for each packet that arrives, with what became of it when nobody served it.
    void set_watcher(PacketWatcher watcher) { watcher_ = std::move(watcher); }

    [[nodiscard]] SensorBank& sensors() { return sensors_; }
    [[nodiscard]] const SensorBank& sensors() const { return sensors_; }
    [[nodiscard]] const RawDataStreams& raw_data() const { return raw_data_; }
    [[nodiscard]] uint64_t frames_in() const { return frames_in_; }
    [[nodiscard]] uint64_t bad_frames_in() const { return reader_.bad_frames(); }

  private:
    using Handler = void (Application::*)(const Request& request, TimePoint at);
    struct CommandEntry;
    static const CommandEntry kCommands[];

    [[nodiscard]] static const CommandEntry* FindCommand(const Request& request);
    void OnPacket(Bytes packet, TimePoint arrival);
    void Watch(TimePoint at, std::span<const uint8_t> packet, std::string_view note) const;
    void Execute(std::span<const uint8_t> packet, TimePoint at);
    void RunSensors(TimePoint now);
    void Reply(const Request& request, std::span<const uint8_t> data, TimePoint at);
    void ReplyStatus(const Request& request, uint8_t status, TimePoint at);
    void Refuse(const Request& request, uint8_t status, TimePoint at);
    void Log(TimePoint now, int level, std::string_view text);

    // One per command; at is when the MCU carries it out and answers.
    void Handshake(const Request& request, TimePoint at);
    void Active(const Request& request, TimePoint at);
    void Deactive(const Request& request, TimePoint at);
    void SetDelay(const Request& request, TimePoint at);
    void Batch(const Request& request, TimePoint at);
    void Flush(const Request& request, TimePoint at);
    void SelfTest(const Request& request, TimePoint at);
    void Calibrate(const Request& request, TimePoint at);
    void SetParameter(const Request& request, TimePoint at);
    void GetInfo(const Request& request, TimePoint at);
    void HealthConfig(const Request& request, TimePoint at);
    void SetClock(const Request& request, TimePoint at);
    void SetLogLevel(const Request& request, TimePoint at);
    void ConfigureRawData(const Request& request, TimePoint at);
    void Version(const Request& request, TimePoint at);

    SensorSignals& signals_;
    Faults& faults_;
    Transmitter& transmitter_;
    SensorBank sensors_;
    RawDataStreams raw_data_;
    FrameReader reader_;
    PacketWatcher watcher_;
    std::multimap<TimePoint, Bytes> deferred_;  // requests by the time of their execution
    std::string version_;
    uint8_t log_level_ = 0;
    uint64_t frames_in_ = 0;
};

}  // namespace mcusim
