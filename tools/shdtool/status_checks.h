// What status finds out about the daemon without asking it. Used by the status command.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/shdtool/base/json.h"
#include "tools/shdtool/files/image_check.h"

namespace shdtool {

enum class Verdict {
    kGood,
    kNote,     // neither good nor bad: not set, not there, not needed
    kWarning,  // works, but somebody should know
    kFailed,   // does not work
};

struct Check {
    std::string name;  // "firmware image"; its JSON fields are under "firmware_image"
    Verdict verdict;
    std::string text;  // one line, names the file and what to do
    Json fields = {};  // what the text says, for programs
};
using CheckSink = std::function<void(const Check&)>;

// "ok", "-", "warn" or "FAIL".
[[nodiscard]] std::string_view VerdictText(Verdict verdict);

// The UART and the firmware image, the properties, the stored calibration, the core dumps and the
// raw-data logs, each handed over as soon as it is known. The image is also returned when there is
// one that can be read.
[[nodiscard]] std::optional<ImageReport> CheckFiles(std::string_view root, const CheckSink& add);

// The two sockets and their clients by the kernel's table; connects to nothing. False: nobody
// listens on the control socket.
[[nodiscard]] bool CheckSockets(std::string_view root, const CheckSink& add);

// The accelerometer's calibration file, given its content: three 16-bit values that the daemon
// takes when each lies in -312..312. Public for the tests.
[[nodiscard]] Check CheckAccelerometerCalibration(std::string_view content);

// The pressure sensor's: decimal text from -499 to 499.
[[nodiscard]] Check CheckPressureCalibration(std::string_view content);

}  // namespace shdtool
