// What start-up reads as text: the two calibration files, the MCU's log level and the number of a
// socket. The input: a byte of which one to try, then its content.
#include <charconv>

#include "core/startup.h"
#include "sensor_commands/mcu_parameters.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

constexpr char kSocket[] = "ANDROID_SOCKET_fuzz";
constexpr size_t kPropertyMax = 91;  // characters
constexpr size_t kFileMax = 64;      // bytes that are looked at

// The decimal number at the beginning of a text, 0 without one; empty when no int holds it.
std::optional<int> Number(std::string text) {
    text.erase(0, std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    if (text.starts_with('+') && !text.starts_with("+-")) text.erase(0, 1);
    int number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc::result_out_of_range) return std::nullopt;
    return number;
}

void CheckAccelerometer(const std::string& file) {
    WriteFile("/nvdata/accclibration", file);
    int16_t values[3] = {};
    std::memcpy(values, file.data(), std::min(file.size(), sizeof(values)));
    bool good = true;
    for (const int value : values) good = good && value >= -312 && value <= 312;
    InitParameter();
    for (size_t i = 0; i < 3; ++i) {
        Require(g_acc_calibration[i] == (good ? values[i] : 0), "the accelerometer's calibration");
    }
}

void CheckBarometer(const std::string& file) {
    WriteFile("/nvdata/BARO", file);
    const auto value = Number(file.substr(0, kFileMax).c_str());
    InitParameter();
    Require(g_baro_calibration == (value && *value >= -499 && *value <= 499 ? *value : 0) || !value,
            "the barometer's calibration");
    Require(g_baro_calibration >= -499 && g_baro_calibration <= 499, "its range");
}

void CheckLogLevel(TestHub& target, const std::string& text) {
    const std::string seen = text.substr(0, kPropertyMax).c_str();
    SetProperty("persist.velmar.shd.mculog", seen);
    const auto value = Number(seen);
    if (!value) return;  // no such property can be set
    const bool good = !seen.empty() && *value >= 0 && *value <= 5;
    Require(RestoreMcuLogLevel(&target.hub) == (good ? value : std::nullopt), "the log level");
}

void CheckSocket(const std::string& text) {
    (void)setenv(kSocket, text.c_str(), 1);
    const auto value = Number(text.c_str());
    Require(GetInheritedSocket("fuzz") == value.value_or(-1), "the socket's number");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static TestHub target;
    Input input(bytes, size);
    const uint8_t which = input.Number() % 4;
    const std::string text = Text(input.Rest());
    for (const char* path : {"/nvdata/accclibration", "/nvdata/BARO"}) WriteFile(path, "");
    std::fill(std::begin(g_acc_calibration), std::end(g_acc_calibration), int16_t{0});
    g_baro_calibration = 0;
    if (which == 0) CheckAccelerometer(text);
    if (which == 1) CheckBarometer(text);
    if (which == 2) CheckLogLevel(target, text);
    if (which == 3) CheckSocket(text);
    (void)TakeJournal();
    return 0;
}
