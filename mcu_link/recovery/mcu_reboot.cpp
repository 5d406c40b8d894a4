// MCU reboot and recovery, on a thread of its own; the exchange and the core-dump capture start it.
#include "mcu_link/recovery/mcu_reboot.h"

#include <pthread.h>

#include "core/hub/sensor_hub.h"
#include "core/hub/sensor_table.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/line.h"
#include "mcu_link/recovery/wake.h"
#include "mcu_link/serial_port.h"
#include "platform/delay.h"
#include "platform/log.h"
#include "sensor_commands/mcu_config.h"
#include "sensor_commands/mcu_parameters.h"
#include "sensor_commands/sensor_commands.h"
#include "update_mcu/gpio.h"
#include "update_mcu/mcu_update.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr std::chrono::milliseconds kReopenPause{20};
constexpr std::chrono::seconds kSettlePause{1};

// Attempts with an index above the first limit are each followed by a firmware update; one above
// the second is the last.
constexpr int kLastPlainAttempt = 10;
constexpr int kLastAttempt = 20;

// The last reboot thread. Written by whoever has set g_mcu_rebooting, never joined.
pthread_t g_mcu_reboot_thread;

// True when the port is open; the end of the hold configures it.
bool ReopenPort() REQUIRES(g_line.mutex()) {
    g_board_serial.Close();
    Delay(kReopenPause);
    if (g_board_serial.OpenDevice()) return true;
    __android_log_print(ANDROID_LOG_ERROR, "shd_serial", "BoardSerial ReInit open uart failure");
    return false;
}

// After an attempt: waits, and from the twelfth on updates the firmware. False when the procedure
// has to give up.
bool SettleUart(int index) {
    Delay(kSettlePause);
    if (index <= kLastPlainAttempt) return true;
    LOGW("SensorMcuReboot init UART timeout update mcu");
    if (mcu_update() == 0 && index <= kLastAttempt) return true;
    LOGE("SensorMcuReboot init UART timeout index:%d update mcu failure", index);
    return false;
}

// Resets the MCU into normal mode and reopens the UART. The line is held from the closing to the
// configured reopening of each attempt: its descriptor's number must not be read or written
// meanwhile, and no update may run into the reset pulse.
bool ResetAndReopen() {
    bool reopened = false;
    {
        const LinkHold hold;
        g_board_serial.Close();
        set_normal_gpio();
        LOGD("SensorMcuReboot ReInit uart");
        reopened = ReopenPort();
    }
    for (int index = 0; SettleUart(index); ++index) {
        if (reopened) return true;
        const LinkHold hold;
        reopened = ReopenPort();
    }
    return false;
}

bool Handshake(SensorHub* hub) {
    for (int index = 0; SensorHandshake(hub, kHandshakeTimeoutSec) != 0; ++index) {
        LOGW("SensorMcuReboot Handshake timeout");
        Delay(kSettlePause);
        if (index <= kLastPlainAttempt) continue;
        LOGW("SensorMcuReboot Handshake timeout update mcu");
        if (mcu_update() == 0 && index <= kLastAttempt) continue;
        LOGE("SensorMcuReboot Handshake timeout index:%d update mcu failure", index);
        return false;
    }
    LOGD("SensorMcuReboot Handshake OK");
    return true;
}

void SetVirtualEnable(int32_t handle, int32_t enable) {
    const MutexLock lock(g_sensor_state_mutex);
    StateOf(handle).virtual_enable = enable;
}

void RestoreMcuSensor(SensorHub* hub, int32_t handle, int32_t id) {
    (void)SensorDeactive(hub, id);
    if (handle == kHandleMotionHealth) {
        (void)McuDateTimeConfig(hub, static_cast<uint32_t>(WallClockSec()));
        (void)McuHealthConfig(hub, &g_mcu_health_param);
    }
    SensorBatchArgs args{};
    {
        const MutexLock lock(g_sensor_state_mutex);
        args.period_ms = StateOf(handle).period_ms;
        args.batchcnt = StateOf(handle).batchcnt;
    }
    (void)SensorBatch(hub, id, args);
    (void)SensorActive(hub, id);
}

void RestoreSensor(SensorHub* hub, int32_t handle) {
    bool enabled = false;
    {
        const MutexLock lock(g_sensor_state_mutex);
        enabled = StateOf(handle).enable != 0;
    }
    if (!enabled) {
        LOGD("SensorMcuReboot sensor:%d not enable", handle);
        return;
    }
    const int32_t id = GetMcuSensorId(handle);
    if (id == kMcuVirtualSensor) {
        SetVirtualEnable(handle, 0);
        SetVirtualEnable(handle, 1);
    } else {
        RestoreMcuSensor(hub, handle, id);
    }
    LOGD("SensorMcuReboot SensorActive:%d", handle);
}

void Recover(SensorHub* hub) {
    if (!ResetAndReopen() || !Handshake(hub)) return;
    // The reset MCU counts its steps from 0, and may report them as soon as its step counter is on
    // again; that report must already be re-based.
    g_mcu_rebooted = 1;
    if (const auto level = RestoreMcuLogLevel(hub)) {
        LOGD("SensorMcuReboot Set MCU Log Level : %d", *level);
    }
    LOGD("SensorMcuReboot Set parameter");
    SendMcuParameters(hub);
    for (int32_t handle = 0; handle < kSensorHandleCount; ++handle) {
        if (IsRestoredAfterReboot(handle)) RestoreSensor(hub, handle);
    }
}

}  // namespace

int StartMcuReboot(SensorHub* hub) {
    if (g_mcu_reboot_disable != 0) {
        LOGE("SensorMcuReboot disable");
        return -1;
    }
    // One step, because the main thread and the reader thread may both get here.
    int32_t idle = 0;
    if (!g_mcu_rebooting.compare_exchange_strong(idle, 1)) {
        LOGE("SensorMcuReboot thread has exist");
        return -1;
    }
    if (pthread_create(&g_mcu_reboot_thread, nullptr, SensorMcuRebootFn, hub) != 0) {
        LOGE("SensorMcuReboot thread create failure");
        g_mcu_rebooting = 0;
        return -1;
    }
    return 0;
}

void* SensorMcuRebootFn(void* argument) {
    if (argument == nullptr) {
        LOGE("SensorMcuRebootFn param NULL");
        return nullptr;
    }
    pthread_detach(pthread_self());  // nobody joins it, and its stack must not outlive it
    SensorMcuReboot(static_cast<SensorHub*>(argument));
    return nullptr;
}

void SensorMcuReboot(SensorHub* hub) {
    g_mcu_rebooting = 1;
    SensorWakeLockAcquiredLocked(1);
    Recover(hub);
    g_mcu_rebooting = 0;
    SensorWakeLockAcquiredLocked(0);
}
