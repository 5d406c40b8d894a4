// Opening, configuring, reading and writing of the UART; used by start-up, the reader thread, the
// exchange and the reboot procedure.
#include "mcu_link/serial_port.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "platform/control_file.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd_serial";

// Tells the MCU to stay awake; negative when it cannot be told. A system without the control file
// has nothing to wake.
ssize_t WakeMcu() {
    const ControlFileResult result = WriteControlFile(kMcuSleepPath, "0");
    return result.opened ? result.written : 0;
}

}  // namespace

BoardSerial g_board_serial;

int ConfigureUart(int fd) {
    tcflush(fd, TCIOFLUSH);
    termios settings{};
    tcgetattr(fd, &settings);
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CS8;
    tcsetattr(fd, TCSANOW, &settings);
    cfsetospeed(&settings, B115200);
    cfsetispeed(&settings, B115200);
    tcsetattr(fd, TCSANOW, &settings);
    tcflush(fd, TCIOFLUSH);
    return 0;
}

bool BoardSerial::OpenDevice() {
    fd_ = open(DevicePath(kUartPath).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return is_open();
}

void BoardSerial::Configure() {
    if (is_open()) (void)ConfigureUart(fd());  // always 0
}

int BoardSerial::Open() {
    const MutexLock line(g_line.mutex());
    if (!OpenDevice()) return -1;
    Configure();
    return 0;
}

void BoardSerial::Close() {
    const int fd = fd_.exchange(0);
    if (IsOpen(fd)) close(fd);
}

ssize_t BoardSerial::Read(uint8_t* buffer, size_t length) {
    const int fd = fd_;
    return IsOpen(fd) ? read(fd, buffer, length) : -1;
}

ssize_t BoardSerial::Write(const uint8_t* buffer, ssize_t length) {
    ssize_t wake_result = 0;
    {
        // The MCU is woken with the line in hand: after a wait for another owner it may have gone
        // back to sleep, or been reset.
        const MutexLock line(g_line.mutex());
        wake_result = WakeMcu();
        if (wake_result >= 0) {
            if (!is_open() || length < 0) return -1;
            return write(fd(), buffer, static_cast<size_t>(length));
        }
    }
    LOGE("BoardSerial wakeup mcu failure err:%d", static_cast<int>(wake_result));
    return -1;
}
