// What status finds out about the daemon's tree from its files alone. Used by the status command.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

enum class Verdict {
    kGood,
    kNote,     // neither good nor bad: not set, not there, not needed
    kWarning,  // works, but somebody should know
    kFailed,   // does not work
};

struct Check {
    std::string name;
    Verdict verdict;
    std::string text;  // one line, names the file and what to do
};

// "ok", "-", "warn" or "FAIL".
[[nodiscard]] std::string_view VerdictText(Verdict verdict);

// The UART and the firmware image, the properties, the stored calibration, the core dumps and the
// raw-data logs, each as one or more checks. mcu_version is the version of the running firmware,
// empty when it is not known.
[[nodiscard]] std::vector<Check> CheckFiles(std::string_view root, std::string_view mcu_version);

// The accelerometer's calibration file, given its content: three 16-bit values that the daemon
// takes when each lies in -312..312. Public for the tests.
[[nodiscard]] Check CheckAccelerometerCalibration(std::string_view content);

// The pressure sensor's: decimal text from -499 to 499.
[[nodiscard]] Check CheckPressureCalibration(std::string_view content);

}  // namespace shdtool
