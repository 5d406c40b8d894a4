// The firmware update; run by start-up, by its handshake loop and by the recovery.
#include "update_mcu/mcu_update.h"

#include <cutils/properties.h>

#include <array>

#include "mcu_link/line.h"
#include "platform/delay.h"
#include "platform/log.h"
#include "platform/mutex.h"
#include "protocol/system.h"
#include "update_mcu/bootloader_commands.h"
#include "update_mcu/bootloader_link.h"
#include "update_mcu/firmware_image.h"
#include "update_mcu/gpio.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "update_mcu";
constexpr int kHandshakeCycles = 4;
constexpr int kHandshakeAttempts = 5;
constexpr std::chrono::milliseconds kHandshakePause{50};
constexpr size_t kHandshakeReplySize = 8;

enum class HandshakeResult { kAcknowledged, kNoAnswer, kWriteFailed };

// Threads that ask for an update: the first one runs it, the others wait and take its result.
class UpdateTurn {
  public:
    template <typename Update>
    int RunOrJoin(Update update) EXCLUDES(mutex_) {
        if (!Begin()) return Join();
        const int result = update();
        const MutexLock lock(mutex_);
        running_ = false;
        ++finished_;
        last_result_ = result;
        changed_.Broadcast();
        return result;
    }

  private:
    bool Begin() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        if (running_) return false;
        running_ = true;
        return true;
    }

    int Join() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const uint32_t finished = finished_;
        while (running_ && finished_ == finished) changed_.Wait(mutex_);
        return last_result_;
    }

    Mutex mutex_;
    CondVar changed_;
    bool running_ GUARDED_BY(mutex_) = false;
    uint32_t finished_ GUARDED_BY(mutex_) = 0;  // updates so far, wrapping
    int last_result_ GUARDED_BY(mutex_) = -1;
};

UpdateTurn g_update_turn;

HandshakeResult TryHandshake(int fd) {
    LOGD("send 7F cmd to handshake with mcu.\n");
    if (write(fd, &kBootloaderInit, sizeof(kBootloaderInit)) < 0) {
        LOGE("write 7F cmd error!\n");
        return HandshakeResult::kWriteFailed;
    }
    Delay(kHandshakePause);
    std::array<uint8_t, kHandshakeReplySize> reply{};
    (void)mcu_serial_read(fd, reply);  // what did not come stays 0 and never matches
    for (const uint8_t byte : reply) {
        LOGD("read 7F cmd response buf = %x.\n", byte);
        if (byte == kBootloaderAck) return HandshakeResult::kAcknowledged;
    }
    return HandshakeResult::kNoAnswer;
}

bool mcu_init_cmd(int fd) {
    for (int cycle = 1; cycle <= kHandshakeCycles; ++cycle) {
        LOGI("set_update_gpio, set mcu to update mode!\n");
        set_update_gpio();
        drop_pending_input(fd);  // a 'y' of the application's log would be an acknowledgement
        for (int attempt = 0; attempt < kHandshakeAttempts; ++attempt) {
            const HandshakeResult result = TryHandshake(fd);
            if (result == HandshakeResult::kAcknowledged) return true;
            if (result == HandshakeResult::kWriteFailed) return false;
        }
        LOGE("handshake over 5 times(retry:%d), error!\n", cycle);
    }
    LOGE("mcu init over 3 times, mcu int fail !\n");
    return false;
}

bool mcu_init() {
    LOGI("mcu_init enter!\n");
    const int fd = open_mcu_tty();
    if (fd < 0) {
        LOGE("open_mcu_tty error!\n");
        LOGE("mcu_init error!\n");
        return false;
    }
    if (!mcu_init_cmd(fd)) {
        LOGE("mcu_init error!\n");
        return false;
    }
    LOGD("mcu_init_cmd ok!\n");
    return true;
}

// With the update port open; every way out leaves it to the caller to close.
bool EraseAndWrite() {
    if (extended_erase_cmd() != 0) {
        LOGE("extended_erase_cmd error!\n");
        return false;
    }
    if (mcu_image_update() != 0) {
        LOGE("mcu_image_update error!\n");
        return false;
    }
    return true;
}

void mcu_end() {
    set_normal_gpio();
    LOGI("mcu_end(set gpio to normal mode) ok!\n");
}

int RunUpdate() {
    LOGI("mcu_update enter!\n");
    const bool written = mcu_init() && EraseAndWrite();
    close_mcu_tty();
    if (!written) return -1;

    mcu_head head{};
    if (get_mcu_head(&head) != 0) {
        LOGE("target mcu header get error!\n");
    } else {
        (void)property_set(kMcuVersionProperty, head.version);
        mcu_end();
    }
    LOGI("mcu_update ok!\n");
    return 0;
}

}  // namespace

int mcu_update() {
    return g_update_turn.RunOrJoin([] {
        const LinkHold hold;
        return RunUpdate();
    });
}
