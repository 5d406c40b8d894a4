// Judges the files of the daemon's tree as the daemon itself will. Called by the status command.
#include "tools/shdtool/status_checks.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tools/client/local_socket.h"
#include "tools/shdtool/files/dump_store.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/image_check.h"

namespace shdtool {
namespace {

using shdclient::PathBelow;

constexpr size_t kCalibrationReplyBytes = 7;  // three values and the status of the reply
constexpr size_t kCalibrationReadBytes = 64;  // more the daemon does not read

struct Property {
    const char* name;
    const char* unset;  // what it means when it is not set
    bool warn_unless_zero;
    const char* meaning;  // of the value, behind it
};

constexpr std::array<Property, 5> kProperties{{
    {shd::kMcuLogProperty, "the MCU keeps its own log level", false, "MCU log level"},
    {shd::kDebugProperty, "the verbose event log is off", false, "verbose event log, 0 is off"},
    {shd::kMcuRebootProperty, "the daemon restarts a silent MCU", true,
     "the daemon will not restart a silent MCU; remove the property to allow it"},
    {shd::kRawDataTypeProperty, "no raw data", false,
     "raw data: 0 off, 1 steps, 2 heart rate, 3 both"},
    {shd::kMcuVersionProperty, "no firmware was written yet", false, "firmware last written"},
}};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

Check CheckProperty(std::string_view root, const Property& property) {
    const auto value =
        ReadWholeFile(PathBelow(root, "/data/property/") + std::string(property.name));
    if (!value || value->empty()) {
        return {property.name, Verdict::kNote, fmt::format("not set: {}", property.unset)};
    }
    const bool harmless = !property.warn_unless_zero || std::atoi(value->c_str()) == 0;
    const char* meaning = harmless && property.warn_unless_zero ? property.unset : property.meaning;
    return {property.name, harmless ? Verdict::kGood : Verdict::kWarning,
            fmt::format("{} ({})", Printable(*value), meaning)};
}

Check CheckUart(std::string_view root) {
    const std::string path = PathBelow(root, shd::kUartPath);
    if (Exists(path)) return {"UART", Verdict::kGood, path + " is there"};
    return {"UART", Verdict::kFailed,
            path +
                " is missing: the daemon cannot reach the MCU (on a development machine start "
                "mcusim)"};
}

Check CheckImage(std::string_view root, std::string_view mcu_version) {
    constexpr const char* kName = "firmware image";
    const std::string path = PathBelow(root, shd::kFirmwareImagePath);
    if (!Exists(path)) {
        return {kName, Verdict::kNote, path + " is missing: the MCU cannot be updated"};
    }
    const auto content = ReadWholeFile(path);
    if (!content) return {kName, Verdict::kWarning, content.error().message};
    std::vector<uint8_t> bytes(content->begin(), content->end());
    const ImageReport image = ExamineImage(bytes);
    if (!image.refusals.empty()) {
        return {kName, Verdict::kWarning,
                fmt::format("{} would be refused: {}", path, image.refusals[0])};
    }
    const std::string version = Printable(image.version);
    if (mcu_version.empty()) return {kName, Verdict::kGood, "version " + version};
    if (image.version == mcu_version) {
        return {kName, Verdict::kGood, fmt::format("version {}, as the MCU runs", version)};
    }
    return {kName, Verdict::kWarning,
            fmt::format("version {}, but the MCU runs {}; the next start of shd writes the image",
                        version, Printable(mcu_version))};
}

Check CheckCalibrationFile(std::string_view root, const char* name, const char* device_path,
                           Check (*judge)(std::string_view)) {
    const std::string path = PathBelow(root, device_path);
    if (!Exists(path)) return {name, Verdict::kNote, "none stored, 0 is used (" + path + ")"};
    const auto content = ReadWholeFile(path);
    if (!content) return {name, Verdict::kWarning, content.error().message};
    if (content->empty()) return {name, Verdict::kWarning, path + " is empty, 0 is used"};
    return judge(*content);
}

Check CheckDumps(std::string_view root) {
    constexpr const char* kName = "core dumps";
    const std::string directory = PathBelow(root, shd::kDumpDir);
    if (!Exists(directory)) {
        return {kName, Verdict::kWarning,
                directory + " is missing: a dump of the MCU would be lost; make the directory"};
    }
    int count = 0;
    int64_t newest = 0;
    for (const DumpSlot& slot : ReadDumpSlots(root)) {
        if (slot.empty()) continue;
        ++count;
        for (const auto& file : {slot.raw, slot.text}) {
            if (file) newest = std::max(newest, file->modified);
        }
    }
    if (count == 0) return {kName, Verdict::kGood, "none"};
    return {kName, Verdict::kWarning,
            fmt::format("{} stored, the newest of {}: the MCU has crashed; see 'shdtool dump list'",
                        count, FormatFileTime(newest))};
}

Check CheckRawLog(std::string_view root, const char* file) {
    const std::string name = std::string("raw data ") + file;
    const std::string path = PathBelow(root, shd::kRawDataDir) + file;
    const auto content = ReadWholeFile(path);
    if (!content) return {name, Verdict::kNote, "none"};
    return {name, Verdict::kGood, fmt::format("{} bytes in {}", content->size(), path)};
}

}  // namespace

std::string_view VerdictText(Verdict verdict) {
    constexpr std::array<std::string_view, 4> kTexts{"ok", "-", "warn", "FAIL"};
    return kTexts[static_cast<size_t>(verdict)];
}

Check CheckAccelerometerCalibration(std::string_view content) {
    constexpr const char* kName = "accelerometer calibration";
    std::array<int16_t, 3> values{};
    std::memcpy(values.data(), content.data(), std::min(content.size(), sizeof(values)));
    const std::string text = fmt::format("x {}, y {}, z {}", values[0], values[1], values[2]);
    const bool in_range = std::all_of(values.begin(), values.end(), [](int16_t value) {
        return std::abs(value) <= shd::kAccCalibrationMax;
    });
    if (!in_range) {
        return {kName, Verdict::kWarning,
                fmt::format("{}: beyond {}, so the daemon ignores it; calibrate the accelerometer",
                            text, shd::kAccCalibrationMax)};
    }
    if (content.size() != kCalibrationReplyBytes && content.size() != sizeof(values)) {
        return {kName, Verdict::kWarning,
                fmt::format("{}: from a file of {} bytes, perhaps another sensor's; calibrate the "
                            "accelerometer",
                            text, content.size())};
    }
    return {kName, Verdict::kGood, text};
}

Check CheckPressureCalibration(std::string_view content) {
    constexpr const char* kName = "pressure calibration";
    const std::string text(content.substr(0, kCalibrationReadBytes));
    const int value = std::atoi(text.c_str());
    if (std::abs(value) <= shd::kBaroCalibrationMax)
        return {kName, Verdict::kGood, std::to_string(value)};
    return {
        kName, Verdict::kWarning,
        fmt::format("{}: beyond {}, so the daemon ignores it", value, shd::kBaroCalibrationMax)};
}

std::vector<Check> CheckFiles(std::string_view root, std::string_view mcu_version) {
    std::vector<Check> checks{CheckUart(root), CheckImage(root, mcu_version)};
    for (const Property& property : kProperties) checks.push_back(CheckProperty(root, property));
    checks.push_back(CheckCalibrationFile(root, "accelerometer calibration",
                                          shd::kAccCalibrationPath, CheckAccelerometerCalibration));
    checks.push_back(CheckCalibrationFile(root, "pressure calibration", shd::kBaroCalibrationPath,
                                          CheckPressureCalibration));
    checks.push_back(CheckDumps(root));
    for (const char* file : {"alg.txt", "hrm.txt"}) checks.push_back(CheckRawLog(root, file));
    return checks;
}

}  // namespace shdtool
