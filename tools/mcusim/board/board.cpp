// The board around the MCU. Driven by the machine, and by a tester's commands.
#include "tools/mcusim/board/board.h"

#include <array>
#include <vector>

namespace mcusim {
namespace {

// By Board::Mode.
constexpr std::array<std::string_view, 7> kModeNames = {"off",        "reset", "boot", "app",
                                                        "bootloader", "blank", "hung"};

}  // namespace

Board::Board(const Flash& flash, SerialLine& line, Application& application, Bootloader& bootloader,
             TimePoint boot_delay)
    : flash_(flash),
      line_(line),
      application_(application),
      bootloader_(bootloader),
      boot_delay_(boot_delay) {}

std::string_view Board::ModeName() const {
    return kModeNames[static_cast<size_t>(mode_)];
}

void Board::Enter(Mode mode, TimePoint now) {
    mode_ = mode;
    if (watcher_) watcher_(now, ModeName());
}

// Everything volatile is lost; what has not left the line by now never does.
void Board::Stop(TimePoint now, Mode mode) {
    if (mode_ == Mode::kBootloader) bootloader_.PowerCut(now);
    line_.CutOutput(now);
    line_.DropInput();
    resumable_ = false;
    Enter(mode, now);
}

void Board::Start(TimePoint now) {
    if (hard_hang_) return Enter(Mode::kHung, now);
    if (!boot0_) return StartFromFlash(now);
    bootloader_.Reset();
    Enter(Mode::kBootloader, now);
}

void Board::StartFromFlash(TimePoint now) {
    due_ = now + boot_delay_;
    Enter(RunningVersion(flash_) ? Mode::kStarting : Mode::kBlank, now);
}

void Board::PowerOn(TimePoint now) {
    power_returns_ = false;
    if (reset_high_) {
        Start(now);
    } else {
        Enter(Mode::kReset, now);
    }
}

void Board::SetReset(bool high, TimePoint now) {
    const bool rising = high && !reset_high_;
    reset_high_ = high;
    if (rising) ++resets_;
    if (mode_ == Mode::kOff) return;
    if (rising) {
        Start(now);
    } else if (!high && mode_ != Mode::kReset) {
        Stop(now, Mode::kReset);
    }
}

void Board::PulseReset(TimePoint now) {
    SetReset(false, now);
    SetReset(true, now);
}

void Board::Brownout(TimePoint now, TimePoint off_for) {
    ++power_cuts_;
    Stop(now, Mode::kOff);
    application_.PowerCut();
    power_returns_ = true;
    due_ = now + off_for;
}

bool Board::Hang(TimePoint now, bool hard) {
    if (mode_ == Mode::kBootloader) return false;
    hard_hang_ = hard_hang_ || hard;
    if (mode_ == Mode::kOff || mode_ == Mode::kReset || mode_ == Mode::kHung) return true;
    const bool resumable = mode_ == Mode::kApplication;
    Stop(now, Mode::kHung);
    resumable_ = resumable;
    return true;
}

void Board::HangAfterOutput(TimePoint now) {
    resumable_ = false;
    Enter(Mode::kHung, now);
}

void Board::Resume(TimePoint now) {
    hard_hang_ = false;
    if (mode_ != Mode::kHung) return;
    if (!resumable_) return Start(now);
    application_.Resume(now);
    Enter(Mode::kApplication, now);
}

void Board::OnByte(const ArrivedByte& byte) {
    if (mode_ == Mode::kApplication) {
        application_.OnByte(byte.byte, byte.arrival);
    } else if (mode_ == Mode::kBootloader) {
        bootloader_.OnByte(byte.byte, byte.arrival);
        RunBootloader(byte.arrival);
    }
}

void Board::RunBootloader(TimePoint now) {
    std::vector<uint8_t> run;  // bytes that may start together
    TimePoint earliest{0};
    const auto send = [&] {
        if (!run.empty()) line_.Send(earliest, run, kBitsPerByte8E1);
        run.clear();
    };
    for (const TimedByte& output : bootloader_.Poll(now)) {
        if (output.earliest != earliest) send();
        earliest = output.earliest;
        run.push_back(output.byte);
    }
    send();
    if (bootloader_.TakeGo()) StartFromFlash(now);
}

void Board::Advance(TimePoint now) {
    if (mode_ == Mode::kOff && power_returns_ && now >= due_) PowerOn(due_);
    if (mode_ == Mode::kStarting && now >= due_) {
        Enter(Mode::kApplication, due_);
        application_.Boot(due_, RunningVersion(flash_).value_or(""));
    }
    if (mode_ == Mode::kApplication) application_.Advance(now);
    if (mode_ == Mode::kBootloader) RunBootloader(now);
}

std::optional<TimePoint> Board::NextDue() const {
    switch (mode_) {
        case Mode::kOff:
        case Mode::kStarting:
            return due_;
        case Mode::kApplication:
            return application_.NextDue();
        case Mode::kBootloader:
            return bootloader_.NextDue();
        default:
            return std::nullopt;
    }
}

}  // namespace mcusim
