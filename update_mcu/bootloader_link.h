// The link to the MCU's ROM bootloader: opening the UART for it, one acknowledged transmission at a
// time, and reads with a time limit. Protocol: the USART protocol of the STM32 system-memory
// bootloader, ST application note AN3155.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/unique_fd.h"

inline constexpr uint8_t kBootloaderInit = 0x7F;
inline constexpr uint8_t kBootloaderAck = 0x79;

// How long an acknowledgement, or the data behind it, may take; erasing the flash takes longer.
inline constexpr std::chrono::seconds kAckTimeout{1};

// Opens the UART with the normal link's settings: raw, 8 data bits, no parity, 115200 bit/s.
// Invalid on failure.
[[nodiscard]] UniqueFd open_mcu_normal_tty();

// Opens the UART as the update port: raw, 8 data bits, even parity, 1 stop bit, 115200 bit/s, and
// keeps the descriptor until close_mcu_tty. Returns it, negative on failure. One update port may
// be open at a time; mcu_update sees to that.
[[nodiscard]] int open_mcu_tty();
void close_mcu_tty();

// Drops what has arrived on the line and was not read: after a reset, what whoever ran before it
// had to say.
void drop_pending_input(int fd);

// Sends one command or block to the update port in one write and waits for its acknowledgement;
// then, if data is not empty, until as many bytes have come behind that. Returns 0 when all of it
// came; -1 for any other answer, for none in time, and for failures.
[[nodiscard]] int mcu_send_cmd(std::span<const uint8_t> bytes,
                               std::chrono::microseconds timeout = kAckTimeout,
                               std::span<uint8_t> data = {});

// Reads once, waiting for at most 200 ms. Returns the bytes read, 0 when nothing came, a negative
// value on an error.
[[nodiscard]] ssize_t mcu_serial_read(int fd, std::span<uint8_t> buffer);
