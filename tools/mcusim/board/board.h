// The board around the MCU: power, reset and boot lines, and which program the MCU runs. The
// machine feeds it the lines and the bytes of the UART.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "tools/mcusim/application/application.h"
#include "tools/mcusim/board/bootloader.h"
#include "tools/mcusim/board/flash.h"
#include "tools/mcusim/line/serial_line.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

class Board {
  public:
    enum class Mode {
        kOff,       // no power
        kReset,     // held in reset
        kStarting,  // the application initialises itself and does not listen yet
        kApplication,
        kBootloader,  // in system memory
        kBlank,       // reset into a flash without a firmware: silent
        kHung,        // silent until a reset
    };
    using EventWatcher = std::function<void(TimePoint, std::string_view event)>;

    // All must outlive the board. boot_delay is the time of kStarting.
    Board(const Flash& flash, SerialLine& line, Application& application, Bootloader& bootloader,
          TimePoint boot_delay);

    void PowerOn(TimePoint now);

    // The lines that the host drives. A rising reset latches boot pin 0: high selects the ROM
    // bootloader, low the application.
    void SetBoot0(bool high) { boot0_ = high; }
    void SetReset(bool high, TimePoint now);

    void OnByte(const ArrivedByte& byte);
    void Advance(TimePoint now);
    [[nodiscard]] std::optional<TimePoint> NextDue() const;

    // The MCU stands still: hard, through resets and power cuts until Resume, else until the next
    // reset or Resume. False in the bootloader, which cannot hang.
    [[nodiscard]] bool Hang(TimePoint now, bool hard);
    // As Hang, but what is already queued still goes out: the end of a crash.
    void HangAfterOutput(TimePoint now);
    void Resume(TimePoint now);
    void PulseReset(TimePoint now);
    // Takes the power away at this moment and gives it back after that time.
    void Brownout(TimePoint now, TimePoint off_for);

    [[nodiscard]] Mode mode() const { return mode_; }
    [[nodiscard]] std::string_view ModeName() const;
    [[nodiscard]] int bits_per_byte() const {
        return mode_ == Mode::kBootloader ? kBitsPerByte8E1 : kBitsPerByte8N1;
    }
    [[nodiscard]] uint64_t resets() const { return resets_; }
    [[nodiscard]] uint64_t power_cuts() const { return power_cuts_; }

    // Called for each change of the mode.
    void set_watcher(EventWatcher watcher) { watcher_ = std::move(watcher); }

  private:
    void Stop(TimePoint now, Mode mode);
    void Start(TimePoint now);
    void StartFromFlash(TimePoint now);
    void Enter(Mode mode, TimePoint now);
    void RunBootloader(TimePoint now);

    const Flash& flash_;
    SerialLine& line_;
    Application& application_;
    Bootloader& bootloader_;
    const TimePoint boot_delay_;
    EventWatcher watcher_;

    Mode mode_ = Mode::kOff;
    bool boot0_ = false;
    bool reset_high_ = true;
    bool hard_hang_ = false;
    bool resumable_ = false;  // kHung: the application stands where it was
    TimePoint due_{0};        // kStarting: end of the start; kOff: power comes back
    bool power_returns_ = false;
    uint64_t resets_ = 0;
    uint64_t power_cuts_ = 0;
};

}  // namespace mcusim
