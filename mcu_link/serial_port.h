// The UART to the MCU: the port object through which requests are written and bytes are read, and
// the settings of the line.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/types.h>

#include "mcu_link/line.h"

class SerialPort {
  public:
    // Both return what read and write return: a count, or a negative value on failure.
    [[nodiscard]] virtual ssize_t Read(uint8_t* buffer, size_t length) = 0;
    [[nodiscard]] virtual ssize_t Write(const uint8_t* buffer, ssize_t length) = 0;
    virtual ~SerialPort() = default;
};

// /dev/ttyHSL1. Read is called by the reader thread alone, Write by whichever thread sends a
// request. The descriptor belongs to whoever has the line: its number is only changed and used
// under the line's lock, except by the reader's read, which a hold keeps away.
class BoardSerial final : public SerialPort {
  public:
    // Blocks until a byte arrives; -1 at once while the port is closed.
    [[nodiscard]] ssize_t Read(uint8_t* buffer, size_t length) override;

    // Wakes the MCU, then writes once; a short count is returned as it is. Waits while another
    // thread holds the line (LinkHold): seconds for a reset, minutes for a firmware update. -1 for
    // a failed wake-up, a closed port or a negative length, which is how a packet that did not fit
    // its frame arrives.
    [[nodiscard]] ssize_t Write(const uint8_t* buffer, ssize_t length) override;

    // The descriptor stays open for the life of the process.
    ~BoardSerial() override {}

    // Opens and configures the device; start-up. Returns 0, or -1 with the negative descriptor kept
    // in fd.
    [[nodiscard]] virtual int Open() EXCLUDES(g_line.mutex());

    // Closes the descriptor, if there is one.
    void Close() REQUIRES(g_line.mutex());

    // Opens the device, which must be closed, and leaves its settings to the end of the hold. False
    // on failure.
    [[nodiscard]] bool OpenDevice() REQUIRES(g_line.mutex());

    // Gives the line its normal settings and drops what is pending; nothing while the port is
    // closed.
    void Configure() REQUIRES(g_line.mutex());

    [[nodiscard]] int fd() const REQUIRES(g_line.mutex()) { return fd_; }

    // On any thread; what it says holds for as long as the caller has the line.
    [[nodiscard]] bool is_open() const { return IsOpen(fd_); }

  private:
    [[nodiscard]] static bool IsOpen(int fd) { return fd > 0; }

    std::atomic<int32_t> fd_{0};  // 0 or less: closed
};

extern BoardSerial g_board_serial;

// Raw mode, 8 data bits, no parity, 115200 bit/s, modem lines ignored; drops what is pending both
// ways. Ignores every failure and returns 0.
int ConfigureUart(int fd);
