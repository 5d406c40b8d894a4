// The simulated machine without its surroundings: line, board, MCU and flash wired together. The
// simulator moves the bytes between it and the device files and passes commands on to it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/mcusim/application/application.h"
#include "tools/mcusim/application/sensor_signals.h"
#include "tools/mcusim/board/board.h"
#include "tools/mcusim/board/bootloader.h"
#include "tools/mcusim/board/far_end.h"
#include "tools/mcusim/board/flash.h"
#include "tools/mcusim/board/observer.h"
#include "tools/mcusim/line/faults.h"
#include "tools/mcusim/line/line_fault.h"
#include "tools/mcusim/line/serial_line.h"
#include "tools/mcusim/line/transmitter.h"

namespace mcusim {

struct MachineOptions {
    uint32_t baud = 115200;  // 0: bytes take no time
    uint64_t seed = 1;
    TimePoint boot_delay = std::chrono::milliseconds(300);
    BootloaderTimings bootloader_timings;
};

class Machine : public FarEnd {
  public:
    // flash must outlive the machine. Switches the power on at time 0.
    Machine(Flash& flash_memory, const MachineOptions& options);

    void HostWrote(TimePoint at, std::span<const uint8_t> bytes) override;
    void SetPin(TimePoint at, Pin pin, bool high) override;
    [[nodiscard]] bool HasRoom() const override;
    void Advance(TimePoint now) override;
    [[nodiscard]] std::optional<Burst> TakeOutput(TimePoint now) override;
    [[nodiscard]] std::optional<TimePoint> NextDue() const override;
    void SetStalled(size_t bytes) override { transmitter.set_stalled_bytes(bytes); }

    // The MCU has been woken through its sleep file.
    void CountWakeups(uint64_t count) { wakeups_ += count; }

    // The firmware crashes: it sends a core dump in that many pieces, which asks the host for a
    // reset or does not, and stands still. Returns the dump. The application must be running.
    std::vector<uint8_t> Crash(TimePoint now, int pieces, bool ask_for_reset);

    // The figures of the "stats" command as one line of JSON.
    [[nodiscard]] std::string Stats(TimePoint now) const;

    // observer must outlive the machine; it is told the present mode at once.
    void AddObserver(Observer& observer, TimePoint now);

    Flash& flash;
    SerialLine line;
    Faults faults;
    LineFault line_fault;
    SensorSignals signals;
    Transmitter transmitter;
    Application application;
    Bootloader bootloader;
    Board board;

  private:
    void ConnectWatchers();
    // What of the burst reaches the host now.
    void PassOutput(Burst& burst);

    const uint64_t seed_;
    std::vector<Observer*> observers_;
    uint64_t wakeups_ = 0;
    uint64_t crashes_ = 0;
};

}  // namespace mcusim
