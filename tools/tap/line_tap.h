// A tap on the line between daemon and MCU: a pseudo terminal in the place of the tty, everything
// that either end says or sets passed on, and told as the steps of a recording. Run by shdtool tap.
#pragma once

#include <termios.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tools/client/result.h"
#include "tools/tap/displaced_file.h"
#include "tools/wire/recording.h"

namespace tap {

// One thread owns it and runs it.
class LineTap {
  public:
    // Told at once, with the boot clock's time.
    using Listener = std::function<void(const wire::RecordedStep& step)>;

    // root: the directory tree of the daemon, empty for the device's own. Fails with kUnavailable
    // when a daemon has the line open already (it would go on using the real one), with kSystem
    // when there is no line, no pseudo terminal, or no right to take its place.
    [[nodiscard]] static shdclient::Result<std::unique_ptr<LineTap>> Open(const std::string& root);

    LineTap(const LineTap&) = delete;
    LineTap& operator=(const LineTap&) = delete;
    ~LineTap();

    // Passes on until stop says so, asked at least ten times a second, or the real line hangs up,
    // which is an error. A byte spends a fraction of a millisecond here.
    [[nodiscard]] shdclient::Status Run(const Listener& listener,
                                        const std::function<bool()>& stop);

  private:
    // A control file of the MCU: what the daemon writes into the pipe in its place goes on into it.
    struct PinFile {
        wire::Pin pin;
        UniqueFd real;
        UniqueFd pipe;
    };
    static constexpr size_t kRoomBytes = 4096;  // for what one end has not taken yet, as a tty has

    LineTap() = default;

    void PutBack();
    [[nodiscard]] shdclient::Status OpenLine(const std::string& path);
    [[nodiscard]] shdclient::Status OpenPin(wire::Pin pin, const std::string& path, bool bind);
    // Both return false at a hang-up.
    [[nodiscard]] bool FromMcu();
    [[nodiscard]] bool FromHost();
    void FromPin(PinFile& pin);
    void PassOnSettings();
    void Tell(wire::RecordedStep step);
    void TellBytes(wire::StepKind kind, const uint8_t* bytes, size_t count);

    std::string directory_;  // of the pipes; removed in the end
    UniqueFd real_;
    UniqueFd near_;  // ours of the pseudo terminal
    UniqueFd far_;   // the daemon's; kept open, so that its closing is no hang-up
    std::vector<PinFile> pins_;
    std::vector<DisplacedFile> displaced_;
    std::unique_ptr<Guardian> guardian_;

    std::optional<termios> settings_;  // those that have been passed on
    std::vector<uint8_t> to_mcu_;      // not taken yet
    std::vector<uint8_t> to_host_;
    const Listener* listener_ = nullptr;
};

}  // namespace tap
