// Opening, configuring, reading and writing of the UART; used by start-up, the reader thread, the
// exchange and the reboot procedure.
#include "mcu_link/serial_port.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "mcu_link/line.h"
#include "platform/control_file.h"
#include "platform/device_path.h"
#include "platform/log.h"

namespace {

constexpr char kLogTag[] = "shd_serial";
constexpr char kSleepPath[] = "/proc/mcusleep/sleep";

// Tells the MCU to stay awake. A system without the control file has nothing to wake.
bool WakeMcu() {
    const ControlFileResult result = WriteControlFile(kSleepPath, "0");
    if (!result.opened || result.written >= 0) return true;
    LOGE("BoardSerial wakeup mcu failure err:%d", static_cast<int>(result.written));
    return false;
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

int BoardSerial::OpenDevice() {
    fd_ = open(DevicePath(kUartPath).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return fd();
}

int BoardSerial::Open() {
    const int fd = OpenDevice();
    if (fd < 0) return -1;
    return ConfigureUart(fd);
}

void BoardSerial::Close() {
    const int fd = fd_.exchange(0);
    if (fd > 0) close(fd);
}

ssize_t BoardSerial::Read(uint8_t* buffer, size_t length) {
    const int fd = fd_.load();
    if (fd <= 0) return -1;
    return read(fd, buffer, length);
}

ssize_t BoardSerial::Write(const uint8_t* buffer, ssize_t length) {
    if (!WakeMcu()) return -1;
    const MutexLock line(g_line.mutex());
    const int fd = fd_.load();
    if (fd <= 0 || length < 0) return -1;
    return write(fd, buffer, static_cast<size_t>(length));
}
