// The pseudo terminal. Read and written by the simulator's event loop.
#include "tools/mcusim/host/pty.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace mcusim {
namespace {

void Check(bool ok, const char* what) {
    if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Pty::Pty() : near_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    Check(near_.valid(), "no pty");
    Check(grantpt(near_.get()) == 0 && unlockpt(near_.get()) == 0, "pty cannot be unlocked");
    std::array<char, 128> name{};
    Check(ptsname_r(near_.get(), name.data(), name.size()) == 0, "pty without a name");
    far_name_ = name.data();
    far_.Reset(open(far_name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    Check(far_.valid(), "pty's far end cannot be opened");

    termios settings{};
    Check(tcgetattr(far_.get(), &settings) == 0, "pty's settings cannot be read");
    cfmakeraw(&settings);
    cfsetispeed(&settings, B115200);
    cfsetospeed(&settings, B115200);
    Check(tcsetattr(far_.get(), TCSANOW, &settings) == 0, "pty's settings cannot be made");

    const int on = 1;  // packet mode: each read begins with a byte that reports flushes
    Check(ioctl(near_.get(), TIOCPKT, &on) == 0, "pty without packet mode");
}

std::vector<uint8_t> Pty::Read() {
    std::array<uint8_t, 4096> buffer;
    while (true) {
        const ssize_t count = read(near_.get(), buffer.data(), buffer.size());
        if (count > 1 && buffer[0] == TIOCPKT_DATA) return {&buffer[1], &buffer[0] + count};
        if (count <= 0) break;
        if ((buffer[0] & TIOCPKT_FLUSHREAD) != 0) pending_.clear();
    }
    if (!pending_.empty()) WritePending();
    return {};
}

void Pty::Write(std::span<const uint8_t> bytes) {
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    WritePending();
}

void Pty::WritePending() {
    while (!pending_.empty()) {
        const ssize_t count = write(near_.get(), pending_.data(), pending_.size());
        if (count <= 0) return;  // no room; the event loop waits until there is
        pending_.erase(pending_.begin(), pending_.begin() + count);
    }
}

}  // namespace mcusim
