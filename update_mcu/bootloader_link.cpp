// Bootloader link of the firmware update; its normal opening also serves the version check.
#include "update_mcu/bootloader_link.h"

#include <fcntl.h>
#include <termios.h>

#include <array>

#include "mcu_link/serial_port.h"
#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "update_mcu";
constexpr std::chrono::milliseconds kReadTimeout{200};
constexpr size_t kReplySize = 8;

// One at a time, used by the thread that runs the update.
UniqueFd g_update_port;

UniqueFd OpenUart(int flags) {
    return UniqueFd(open(DevicePath(kUartPath).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | flags));
}

void ConfigureUpdateLink(int fd) {
    tcflush(fd, TCIOFLUSH);
    termios settings{};
    tcgetattr(fd, &settings);
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CS8 | PARENB;
    settings.c_cflag &= ~static_cast<tcflag_t>(PARODD | CSTOPB);
    settings.c_iflag |= INPCK | ISTRIP;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHOE | ISIG);
    tcsetattr(fd, TCSANOW, &settings);
    cfsetospeed(&settings, B115200);
    cfsetispeed(&settings, B115200);
    tcsetattr(fd, TCSANOW, &settings);
    tcflush(fd, TCIOFLUSH);
}

// Fills data; -1 when it does not come.
int ReadData(int fd, std::span<uint8_t> data) {
    while (!data.empty()) {
        if (WaitReadable(fd, kAckTimeout) <= 0) return -1;
        const ssize_t count = read(fd, data.data(), data.size());
        if (count <= 0) return -1;
        data = data.subspan(static_cast<size_t>(count));
    }
    return 0;
}

}  // namespace

UniqueFd open_mcu_normal_tty() {
    UniqueFd fd = OpenUart(0);
    if (!fd.valid()) {
        LOGE("open normal tty device error!\n");
        return fd;
    }
    (void)ConfigureUart(fd.get());
    return fd;
}

int open_mcu_tty() {
    g_update_port = OpenUart(O_SYNC);
    if (!g_update_port.valid()) {
        LOGE("open update tty device error!\n");
    } else {
        ConfigureUpdateLink(g_update_port.get());
    }
    return g_update_port.get();
}

void close_mcu_tty() {
    g_update_port.Reset();
}

void drop_pending_input(int fd) {
    (void)tcflush(fd, TCIFLUSH);  // a line that cannot be flushed shows in the answers
}

int mcu_send_cmd(std::span<const uint8_t> bytes, std::chrono::microseconds timeout,
                 std::span<uint8_t> data) {
    if (bytes.empty()) {
        LOGE("mcu_send_cmd :cmd null!\n");
        return -1;
    }
    const int fd = g_update_port.get();
    if (write(fd, bytes.data(), bytes.size()) < 0) {
        LOGE("write mcu_send_cmd error!\n");
        return -1;
    }
    // An answer that does not come in time counts as one of 0 bytes. Data that is wanted stays on
    // the line.
    std::array<uint8_t, kReplySize> reply{};
    const size_t reply_size = data.empty() ? reply.size() : 1;
    if (WaitReadable(fd, timeout) > 0 && read(fd, reply.data(), reply_size) < 0) {
        LOGE("read mcu_send_cmd error!\n");
        return -1;
    }
    if (reply[0] == kBootloaderAck) return ReadData(fd, data);
    LOGE("read mcu_send_cmd return %x,error!\n", reply[0]);
    return -1;
}

ssize_t mcu_serial_read(int fd, std::span<uint8_t> buffer) {
    const int ready = WaitReadable(fd, kReadTimeout);
    if (ready <= 0) {
        LOGE("mcu serial select error or timeout ret = %d.\n", ready);
        return ready;
    }
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0) LOGE("mcu serial read error.\n");
    return count;
}
