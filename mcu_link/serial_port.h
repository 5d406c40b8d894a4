// The UART to the MCU: the port object through which requests are written and bytes are read, and
// the settings of the line.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/types.h>

class SerialPort {
  public:
    // Both return what read and write return: a count, or a negative value on failure.
    [[nodiscard]] virtual ssize_t Read(uint8_t* buffer, size_t length) = 0;
    [[nodiscard]] virtual ssize_t Write(const uint8_t* buffer, ssize_t length) = 0;
    virtual ~SerialPort() = default;
};

// /dev/ttyHSL1. Read is called by the reader thread alone, Write by whichever thread sends a
// request, Open by start-up, Close and OpenDevice by the reboot procedure, which holds the line.
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

    // Opens and configures the device. Returns 0, or -1 with the negative descriptor kept in fd.
    [[nodiscard]] virtual int Open();

    // Closes the descriptor, if there is one.
    void Close();

    // Opens the device without configuring it and returns the descriptor, negative on failure.
    [[nodiscard]] int OpenDevice();

    [[nodiscard]] int fd() const { return fd_.load(); }
    [[nodiscard]] bool is_open() const { return fd() > 0; }

  private:
    std::atomic<int32_t> fd_{0};  // 0 or less: closed
};

extern BoardSerial g_board_serial;

// Raw mode, 8 data bits, no parity, 115200 bit/s, modem lines ignored; drops what is pending both
// ways. Ignores every failure and returns 0.
int ConfigureUart(int fd);
