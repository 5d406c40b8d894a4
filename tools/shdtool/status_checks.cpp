// Judges the files of the daemon's tree as the daemon itself will, and looks at its sockets. Called
// by the status command.
#include "tools/shdtool/status_checks.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
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

Check Good(std::string name, std::string text, Json fields = {}) {
    return {std::move(name), Verdict::kGood, std::move(text), std::move(fields)};
}

Check Note(std::string name, std::string text, Json fields = {}) {
    return {std::move(name), Verdict::kNote, std::move(text), std::move(fields)};
}

Check Warning(std::string name, std::string text, Json fields = {}) {
    return {std::move(name), Verdict::kWarning, std::move(text), std::move(fields)};
}

Check Failed(std::string name, std::string text, Json fields = {}) {
    return {std::move(name), Verdict::kFailed, std::move(text), std::move(fields)};
}

// When it is there but not for this user, who may be another one than the daemon's.
std::optional<Check> Hidden(const std::string& name, const std::string& path, int mode = R_OK) {
    if (access(path.c_str(), mode) == 0 || errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    return Warning(name, fmt::format("not known, cannot read {}: {}", path, std::strerror(errno)));
}

Check CheckProperty(std::string_view root, const Property& property) {
    const std::string path = PathBelow(root, "/data/property/") + property.name;
    if (auto hidden = Hidden(property.name, path)) return *hidden;
    const auto value = ReadWholeFile(path);
    if (!value) {
        return Note(property.name, fmt::format("not set: {}", property.unset),
                    {{"value", nullptr}});
    }
    const bool forbids = property.warn_unless_zero && std::atoi(value->c_str()) != 0;
    const bool unset = property.warn_unless_zero && !forbids;
    const std::string shown = Printable(*value);
    const auto judged = forbids ? Warning : Good;
    return judged(property.name,
                  fmt::format("{} ({})", shown, unset ? property.unset : property.meaning),
                  {{"value", shown}});
}

Check CheckUart(std::string_view root) {
    const std::string path = PathBelow(root, shd::kUartPath);
    if (Exists(path)) return Good("UART", "is there", {{"path", path}, {"present", true}});
    return Failed("UART",
                  path +
                      " is missing: the daemon cannot reach the MCU (on a development machine "
                      "start mcusim)",
                  {{"path", path}, {"present", false}});
}

Check CheckImage(std::string_view root, std::optional<ImageReport>& image) {
    constexpr const char* kName = "firmware image";
    const std::string path = PathBelow(root, shd::kFirmwareImagePath);
    if (!Exists(path)) {
        return Note(kName, path + " is missing: the MCU cannot be updated", {{"present", false}});
    }
    const auto content = ReadWholeFile(path);
    if (!content) return Warning(kName, content.error().message, {{"present", true}});
    image = ExamineImage(BytesOf(*content));
    const std::string version = Printable(image->version);
    const Json fields{{"present", true}, {"version", version}, {"good", image->good()}};
    if (image->good()) return Good(kName, "good, version " + version, fields);
    return Warning(kName, fmt::format("{} is not good: {}", path, image->worst()), fields);
}

Check CheckCalibrationFile(std::string_view root, const char* name, const char* device_path,
                           Check (*judge)(std::string_view)) {
    const std::string path = PathBelow(root, device_path);
    if (auto hidden = Hidden(name, path)) return *hidden;
    if (!Exists(path)) return Note(name, "none stored, 0 is used");
    const auto content = ReadWholeFile(path);
    return content ? judge(*content) : Warning(name, content.error().message + "; 0 is used");
}

Check CheckDumps(std::string_view root) {
    constexpr const char* kName = "core dumps";
    const std::string directory = PathBelow(root, shd::kDumpDir);
    if (auto hidden = Hidden(kName, directory, X_OK)) return *hidden;
    if (!Exists(directory)) {
        return Warning(kName, directory +
                                  " is missing: a dump of the MCU would be lost; make the "
                                  "directory");
    }
    const auto slots = ReadDumpSlots(root);
    const auto count = std::count_if(slots.begin(), slots.end(),
                                     [](const DumpSlot& slot) { return !slot.empty(); });
    if (count == 0) return Good(kName, "none", {{"count", 0}});
    const int64_t newest = std::ranges::max(slots, {}, &DumpSlot::written).written();
    return Warning(
        kName,
        fmt::format("{} stored, the newest of {}: the MCU has crashed; see 'shdtool dump list'",
                    count, FormatFileTime(newest)),
        {{"count", count}, {"newest", newest}});
}

Check CheckRawLog(std::string_view root, const char* file) {
    const std::string name = std::string("raw data ") + file;
    const std::string path = PathBelow(root, shd::kRawDataDir) + file;
    if (auto hidden = Hidden(name, path)) return *hidden;
    const auto content = ReadWholeFile(path);
    if (!content) return Note(name, "none", {{"bytes", 0}});
    return Good(name, fmt::format("{} bytes in {}", content->size(), path),
                {{"bytes", content->size()}});
}

Check CheckSocket(const char* name, const std::string& path, const SocketUse& use) {
    const Json fields{{"path", path}, {"served", use.served}, {"clients", use.clients.size()}};
    if (!use.served) return Failed(name, "nobody listens on " + path, fields);
    if (use.server_pid <= 0) return Good(name, "served", fields);
    return Good(name, fmt::format("served by process {}", use.server_pid), fields);
}

Check CheckClients(const std::vector<SocketUse>& uses) {
    std::vector<std::string> losing;
    for (const SocketUse& use : uses) {
        for (const SocketClient& client : use.clients) {
            if (client.losing()) losing.push_back(fmt::format("{} ({})", client.name, client.pid));
        }
    }
    const std::string text = fmt::format("{} on the control socket, {} on the data socket",
                                         uses[0].clients.size(), uses[1].clients.size());
    const Json fields{{"losing", losing.size()}};
    if (losing.empty()) return Good("clients", text, fields);
    return Warning("clients", fmt::format("{}; losing data: {}", text, fmt::join(losing, ", ")),
                   fields);
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
    const bool in_range = std::ranges::all_of(
        values, [](int16_t value) { return std::abs(value) <= shd::kAccCalibrationMax; });
    if (!in_range) {
        return Warning(kName,
                       fmt::format("{}: beyond {}, so the daemon ignores it; calibrate the "
                                   "accelerometer",
                                   text, shd::kAccCalibrationMax),
                       fields);
    }
    if (content.size() != kCalibrationReplyBytes && content.size() != sizeof(values)) {
        return Warning(kName,
                       fmt::format("{}: from a file of {} bytes, perhaps another sensor's; "
                                   "calibrate the accelerometer",
                                   text, content.size()),
                       fields);
    }
    return Good(kName, text, fields);
}

Check CheckPressureCalibration(std::string_view content) {
    constexpr const char* kName = "pressure calibration";
    const int value = std::atoi(std::string(content.substr(0, kCalibrationReadBytes)).c_str());
    const Json fields{{"value", value}};
    if (std::abs(value) <= shd::kBaroCalibrationMax) {
        return Good(kName, std::to_string(value), fields);
    }
    return Warning(
        kName,
        fmt::format("{}: beyond {}, so the daemon ignores it", value, shd::kBaroCalibrationMax),
        fields);
}

std::optional<ImageReport> CheckFiles(std::string_view root, const CheckSink& add) {
    std::optional<ImageReport> image;
    add(CheckUart(root));
    add(CheckImage(root, image));
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
    const std::string control = shdclient::SocketPath(root, shdclient::kControlSocket);
    const std::string data = shdclient::SocketPath(root, shdclient::kDataSocket);
    const auto uses = ReadSocketUse({control, data});
    if (!uses) {  // the question to the daemon will tell
        add(Note("clients", uses.error().message));
        return true;
    }
    add(CheckSocket("control socket", control, uses->front()));
    add(CheckSocket("data socket", data, uses->back()));
    add(CheckClients(*uses));
    return uses->front().served;
}

}  // namespace shdtool
