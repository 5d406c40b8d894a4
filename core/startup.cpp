// Start-up: the one place that wires the daemon together; called by main.
#include "core/startup.h"

#include <cutils/properties.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "core/hub/debug_flag.h"
#include "core/hub/sensor_hub.h"
#include "core/hub/sensor_table.h"
#include "core/main_loop.h"
#include "mcu_link/byte_order.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/serial_port.h"
#include "mcu_link/uart_reader.h"
#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "protocol/system.h"
#include "sensor_commands/mcu_config.h"
#include "sensor_commands/mcu_parameters.h"
#include "sensor_commands/sensor_commands.h"
#include "sockets/control_server.h"
#include "sockets/data_server.h"
#include "update_mcu/mcu_update.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr int kListenBacklog = 5;
constexpr int kReservedNamespace = 1;
constexpr std::chrono::seconds kHandshakePause{2};
constexpr int kPlainHandshakeFailures = 11;  // from the next one on, each is followed by an update
constexpr size_t kCalibrationFileSize = 64;

using CalibrationBytes = std::array<uint8_t, kCalibrationFileSize>;

// Bytes read, or 0 when there is nothing to read. The bytes behind them are 0.
size_t ReadCalibrationFile(const char* path, CalibrationBytes* bytes) {
    bytes->fill(0);
    const UniqueFd file(open(DevicePath(path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) return 0;
    const ssize_t count = read(file.get(), bytes->data(), bytes->size());
    return count > 0 ? static_cast<size_t>(count) : 0;
}

bool InRange(int value, int max) {
    return value >= -max && value <= max;
}

void InitAccCalibration() {
    CalibrationBytes bytes;
    if (ReadCalibrationFile(kAccCalibrationPath, &bytes) == 0) return;
    const int16_t x = ReadLe<int16_t>(bytes.data());
    const int16_t y = ReadLe<int16_t>(bytes.data() + 2);
    const int16_t z = ReadLe<int16_t>(bytes.data() + 4);
    if (InRange(x, kAccCalibrationMax) && InRange(y, kAccCalibrationMax) &&
        InRange(z, kAccCalibrationMax)) {
        g_acc_calibration[0] = x;
        g_acc_calibration[1] = y;
        g_acc_calibration[2] = z;
    }
    LOGD("InitParameter read clibration info :%d %d %d res:%d\n", x, y, z, kAccCalibrationMax + 1);
}

void InitBaroCalibration() {
    CalibrationBytes bytes;
    const size_t size = ReadCalibrationFile(kBaroCalibrationPath, &bytes);
    if (size == 0) return;
    const auto end = std::find(bytes.begin(), bytes.begin() + size, uint8_t{0});
    const std::string text(bytes.begin(), end);
    const int value = std::atoi(text.c_str());
    if (InRange(value, kBaroCalibrationMax)) g_baro_calibration = value;
    LOGD("InitParameter read clibration info :%s\n", text.c_str());
}

// The listening socket that init passed on, or one made here. May be negative.
int TakeServerSocket(const char* name) {
    int fd = GetInheritedSocket(name);
    if (fd <= 0) {
        LOGD("Failed to get %s from environment: %s\n", name, strerror(errno));
        fd = socket_local_server(name, kReservedNamespace, SOCK_STREAM);
    } else if (listen(fd, kListenBacklog) != 0) {
        LOGE("Listen on socket failed: %s\n", strerror(errno));
        std::exit(1);
    }
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

void Handshake(SensorHub* hub) {
    LOGD("Send Handshake to sensorhub");
    for (int failures = 0; SensorHandshake(hub, kHandshakeTimeoutSec) != 0; ++failures) {
        LOGW("Handshake timeout");
        Delay(kHandshakePause);
        if (failures < kPlainHandshakeFailures) continue;
        LOGW("SensorMcuReboot Handshake timeout update mcu");
        if (mcu_update() != 0) LOGE("SensorMcuReboot Handshake timeout update mcu failure");
    }
    LOGD("Handshake OK");
}

// False when the property is not set or empty.
bool ReadProperty(const char* name, int* value) {
    char text[PROPERTY_VALUE_MAX];
    if (property_get(name, text, nullptr) == 0) return false;
    *value = std::atoi(text);
    return true;
}

void ApplyProperties(SensorHub* hub) {
    if (const auto level = RestoreMcuLogLevel(hub)) LOGD("Set MCU Log Level : %d", *level);
    int value = 0;
    if (ReadProperty(kDebugProperty, &value)) {
        g_shd_log_debug = value;
        LOGD("Set shd log debug : %d", value);
    }
    if (ReadProperty(kMcuRebootProperty, &value)) {
        g_mcu_reboot_disable = value;
        LOGD("Set shd mcu reboot disable : %d", value);
    }
}

void ApplyRawDataProperty(SensorHub* hub) {
    int type = 0;
    if (!ReadProperty(kRawDataTypeProperty, &type) || type < 1 || type > 3) return;
    McuRawDataConfig(hub, static_cast<uint16_t>(type));
    LOGD("Set MCU Raw data Log Level : %d", type);
}

// Up to FD_SETSIZE descriptors are for clients. What the limit allows beyond that, a few at least,
// is left for the port, when a recovery reopens it, and for files.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

bool StartReader(ListenArgs* args) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, ListsenThread, args) == 0) return true;
    LOGE("pthread_create ListsenThread failure");
    return false;
}

}  // namespace

int SetCoreDumpLimit() {
    rlimit limit{};
    if (const int result = getrlimit(RLIMIT_CORE, &limit); result != 0) return result;
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) == 0) return 0;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_CORE, &limit);
}

void InitParameter() {
    InitAccCalibration();
    InitBaroCalibration();
}

int GetInheritedSocket(const char* name) {
    constexpr size_t kMaxNameSize = 47;
    const std::string variable = "ANDROID_SOCKET_" + std::string(name).substr(0, kMaxNameSize);
    const char* value = std::getenv(variable.c_str());
    if (value == nullptr) return -1;
    errno = 0;
    const long number = std::strtol(value, nullptr, 10);
    return errno != 0 || !std::in_range<int>(number) ? -1 : static_cast<int>(number);
}

int RunDaemon() {
    // A client or a control file whose other end has gone must show as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
    {
        const MutexLock lock(g_sensor_state_mutex);
        g_sensor_state.fill(SensorState{});
    }
    SetCoreDumpLimit();
    RaiseDescriptorLimit();
    InitParameter();
    const int control_socket = TakeServerSocket(kControlSocketName);
    const int data_socket = TakeServerSocket(kDataSocketName);
    if (mcu_version_check() == 0 && mcu_update() != 0) return -1;
    (void)g_board_serial.Open();  // a port that stays closed shows up as failing writes

    // From here on threads run that use these, and nobody ends them: they live for the whole
    // process, also when start-up fails.
    auto& hub = *new SensorHub;
    auto& control_server = *new ControlServer(control_socket);
    control_server.set_owner(&hub);
    hub.control_server = &control_server;
    auto& data_server = *new DataServer(data_socket);
    // Without one of its sockets the daemon serves the other.
    (void)control_server.Start();
    (void)data_server.Start();
    LOGD("Start sensorhub daemon, control server create ok");

    hub.serial_port = &g_board_serial;
    hub.data_server = &data_server;
    if (!StartReader(new ListenArgs{&hub, &g_board_serial})) return -1;
    Handshake(&hub);
    ApplyProperties(&hub);
    LOGD("Set parameter");
    SendMcuParameters(&hub);
    LOGD("Set parameter OK, start loop");
    ApplyRawDataProperty(&hub);
    RunMainLoop(&hub);
}
