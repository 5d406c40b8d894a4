// Judges the files of the daemon's tree as the daemon itself will, and looks at its sockets. Called
// by the status command.
#include "tools/shdtool/status_checks.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "tools/client/local_socket.h"
#include "tools/shdtool/files/dump_store.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/sockets/socket_table.h"

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
        return {property.name,
                Verdict::kNote,
                fmt::format("not set: {}", property.unset),
                {{"value", nullptr}}};
    }
    const bool harmless = !property.warn_unless_zero || std::atoi(value->c_str()) == 0;
    const char* meaning = harmless && property.warn_unless_zero ? property.unset : property.meaning;
    return {property.name,
            harmless ? Verdict::kGood : Verdict::kWarning,
            fmt::format("{} ({})", Printable(*value), meaning),
            {{"value", Printable(*value)}}};
}

Check CheckUart(std::string_view root) {
    const std::string path = PathBelow(root, shd::kUartPath);
    const bool there = Exists(path);
    return {"UART",
            there ? Verdict::kGood : Verdict::kFailed,
            there ? "is there"
                  : path +
                        " is missing: the daemon cannot reach the MCU (on a development machine "
                        "start mcusim)",
            {{"path", path}, {"present", there}}};
}

std::optional<ImageReport> CheckImage(std::string_view root, const CheckSink& add) {
    constexpr const char* kName = "firmware image";
    const std::string path = PathBelow(root, shd::kFirmwareImagePath);
    if (!Exists(path)) {
        add({kName,
             Verdict::kNote,
             path + " is missing: the MCU cannot be updated",
             {{"present", false}}});
        return std::nullopt;
    }
    const auto content = ReadWholeFile(path);
    if (!content) {
        add({kName, Verdict::kWarning, content.error().message, {{"present", true}}});
        return std::nullopt;
    }
    const std::vector<uint8_t> bytes(content->begin(), content->end());
    ImageReport image = ExamineImage(bytes);
    const std::string version = Printable(image.version);
    add({kName,
         image.good() ? Verdict::kGood : Verdict::kWarning,
         image.good() ? "good, version " + version
                      : fmt::format("{} is not good: {}", path, image.worst()),
         {{"present", true}, {"version", version}, {"good", image.good()}}});
    return image;
}

Check CheckCalibrationFile(std::string_view root, const char* name, const char* device_path,
                           Check (*judge)(std::string_view)) {
    const std::string path = PathBelow(root, device_path);
    if (!Exists(path)) return {name, Verdict::kNote, "none stored, 0 is used"};
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
        newest = std::max(newest, slot.written());
    }
    if (count == 0) return {kName, Verdict::kGood, "none", {{"count", 0}}};
    return {kName,
            Verdict::kWarning,
            fmt::format("{} stored, the newest of {}: the MCU has crashed; see 'shdtool dump list'",
                        count, FormatFileTime(newest)),
            {{"count", count}, {"newest", newest}}};
}

Check CheckRawLog(std::string_view root, const char* file) {
    const std::string name = std::string("raw data ") + file;
    const std::string path = PathBelow(root, shd::kRawDataDir) + file;
    const auto content = ReadWholeFile(path);
    if (!content) return {name, Verdict::kNote, "none", {{"bytes", 0}}};
    return {name,
            Verdict::kGood,
            fmt::format("{} bytes in {}", content->size(), path),
            {{"bytes", content->size()}}};
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
    const Json fields{{"values", Json::List(values)}};
    const bool in_range = std::all_of(values.begin(), values.end(), [](int16_t value) {
        return std::abs(value) <= shd::kAccCalibrationMax;
    });
    if (!in_range) {
        return {kName, Verdict::kWarning,
                fmt::format("{}: beyond {}, so the daemon ignores it; calibrate the accelerometer",
                            text, shd::kAccCalibrationMax),
                fields};
    }
    if (content.size() != kCalibrationReplyBytes && content.size() != sizeof(values)) {
        return {kName, Verdict::kWarning,
                fmt::format("{}: from a file of {} bytes, perhaps another sensor's; calibrate the "
                            "accelerometer",
                            text, content.size()),
                fields};
    }
    return {kName, Verdict::kGood, text, fields};
}

Check CheckPressureCalibration(std::string_view content) {
    constexpr const char* kName = "pressure calibration";
    const std::string text(content.substr(0, kCalibrationReadBytes));
    const int value = std::atoi(text.c_str());
    const bool good = std::abs(value) <= shd::kBaroCalibrationMax;
    return {kName,
            good ? Verdict::kGood : Verdict::kWarning,
            good ? std::to_string(value)
                 : fmt::format("{}: beyond {}, so the daemon ignores it", value,
                               shd::kBaroCalibrationMax),
            {{"value", value}}};
}

std::optional<ImageReport> CheckFiles(std::string_view root, const CheckSink& add) {
    add(CheckUart(root));
    std::optional<ImageReport> image = CheckImage(root, add);
    for (const Property& property : kProperties) add(CheckProperty(root, property));
    add(CheckCalibrationFile(root, "accelerometer calibration", shd::kAccCalibrationPath,
                             CheckAccelerometerCalibration));
    add(CheckCalibrationFile(root, "pressure calibration", shd::kBaroCalibrationPath,
                             CheckPressureCalibration));
    add(CheckDumps(root));
    for (const char* file : {"alg.txt", "hrm.txt"}) add(CheckRawLog(root, file));
    return image;
}

bool CheckSockets(std::string_view root, const CheckSink& add) {
    const std::pair<const char*, std::string> sockets[] = {
        {"control socket", shdclient::SocketPath(root, shdclient::kControlSocket)},
        {"data socket", shdclient::SocketPath(root, shdclient::kDataSocket)}};
    const auto uses = ReadSocketUse({sockets[0].second, sockets[1].second});
    if (!uses) {  // the question to the daemon will tell
        add({"clients", Verdict::kNote, uses.error().message});
        return true;
    }
    for (size_t i = 0; i < std::size(sockets); ++i) {
        const auto& [name, path] = sockets[i];
        const SocketUse& use = (*uses)[i];
        const std::string server =
            use.server_pid > 0 ? fmt::format(" by process {}", use.server_pid) : std::string();
        const std::string text =
            use.served ? "served" + server : fmt::format("nobody listens on {}", path);
        add({name,
             use.served ? Verdict::kGood : Verdict::kFailed,
             text,
             {{"path", path}, {"served", use.served}, {"clients", use.clients.size()}}});
    }
    std::vector<std::string> losing;
    for (const SocketUse& use : *uses) {
        for (const SocketClient& client : use.clients) {
            if (client.losing()) losing.push_back(fmt::format("{} ({})", client.name, client.pid));
        }
    }
    std::string text = fmt::format("{} on the control socket, {} on the data socket",
                                   (*uses)[0].clients.size(), (*uses)[1].clients.size());
    if (!losing.empty()) text += fmt::format("; losing data: {}", fmt::join(losing, ", "));
    add({"clients",
         losing.empty() ? Verdict::kGood : Verdict::kWarning,
         text,
         {{"losing", losing.size()}}});
    return (*uses)[0].served;
}

}  // namespace shdtool
