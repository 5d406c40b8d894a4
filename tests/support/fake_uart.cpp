// The firmware updater's other end; used by the tests of the update, the recovery and the start.
#include "tests/support/fake_uart.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tests/support/test_hub.h"

namespace shdtest {

FakeUart::FakeUart() {
    WriteFile("/dev/ttyHSL1", "");
    g_hooks.on_readable = [this](int fd, auto /*timeout*/) { return Answer(fd); };
}

int FakeUart::Answer(int fd) {
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (end <= answered_) answered_ = 0;  // opened afresh
    std::vector<uint8_t> written(static_cast<size_t>(end - answered_));
    if (pread(fd, written.data(), written.size(), answered_) < 0) return -1;
    Note("uart", Hex(written));
    std::string reply = unscripted;
    if (!script.empty()) {
        reply = script.front();
        script.pop_front();
    }
    answered_ = end;
    if (reply == kSilence) return 0;
    const auto bytes = Bytes(reply);
    answered_ += static_cast<off_t>(bytes.size());
    const bool stored = ftruncate(fd, end) == 0 && pwrite(fd, bytes.data(), bytes.size(), end) >= 0;
    return stored ? 1 : -1;
}

TerminalUart::TerminalUart() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    if (grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0) std::abort();
    const std::string name = ptsname(master_.get());
    slave_.Reset(open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    LinkFile("/dev/ttyHSL1", name);
}

void TerminalUart::Send(std::string_view hex) const {
    const auto bytes = Bytes(hex);
    if (write(master_.get(), bytes.data(), bytes.size()) < 0) std::abort();
    pollfd entry{slave_.get(), POLLIN, 0};
    if (poll(&entry, 1, 10'000) != 1) std::abort();
}

std::string TerminalUart::Received() const {
    char bytes[4096];
    const ssize_t count = read(master_.get(), bytes, sizeof(bytes));
    return Hex(std::string(bytes, count > 0 ? static_cast<size_t>(count) : 0));
}

bool TerminalUart::strips_bytes() const {
    termios settings{};
    return tcgetattr(slave_.get(), &settings) == 0 && (settings.c_iflag & ISTRIP) != 0;
}

void WriteFirmwareImage(const std::string& version, const std::string& payload,
                        uint32_t header_len) {
    std::string header(header_len, '\0');
    const uint32_t words[] = {0xFFAAAAFF, header_len, static_cast<uint32_t>(payload.size())};
    std::memcpy(header.data(), words, sizeof(words));
    version.copy(header.data() + 32, 64);
    WriteFile("/system/bin/mcu.bin", header + payload);
}

}  // namespace shdtest
