// The commands of the MCU's ROM bootloader, each a transaction of acknowledged transmissions; used
// by the firmware update. Protocol: ST application note AN3155.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "update_mcu/bootloader_link.h"

// Identifiers of AN3155's commands. The daemon sends Write Memory and Extended Erase.
enum class BootloaderCommandId : uint32_t {
    kGet = 0,
    kGetVersion = 1,
    kGetId = 2,
    kGo = 3,
    kReadMemory = 4,
    kWriteMemory = 5,
    kErase = 6,
    kExtendedErase = 7,
    kWriteProtect = 8,
    kWriteUnprotect = 9,
    kReadoutProtect = 10,
    kReadoutUnprotect = 11,
};

struct BootloaderCommand {
    BootloaderCommandId id;
    uint8_t bytes[2];  // command, complement
};

inline constexpr BootloaderCommand kBootloaderCommands[] = {
    {BootloaderCommandId::kGet, {0x00, 0xFF}},
    {BootloaderCommandId::kGetVersion, {0x01, 0xFE}},
    {BootloaderCommandId::kGetId, {0x02, 0xFD}},
    {BootloaderCommandId::kReadMemory, {0x11, 0xEE}},
    {BootloaderCommandId::kGo, {0x21, 0xDE}},
    {BootloaderCommandId::kWriteMemory, {0x31, 0xCE}},
    {BootloaderCommandId::kErase, {0x43, 0xBC}},
    {BootloaderCommandId::kExtendedErase, {0x44, 0xBB}},
    {BootloaderCommandId::kWriteProtect, {0x63, 0x9C}},
    {BootloaderCommandId::kWriteUnprotect, {0x73, 0x8C}},
    {BootloaderCommandId::kReadoutProtect, {0x82, 0x7D}},
    {BootloaderCommandId::kReadoutUnprotect, {0x92, 0x6D}},
};

// The row of a command; asking for one without a row does not compile.
[[nodiscard]] consteval const BootloaderCommand& BootloaderRow(BootloaderCommandId id) {
    const BootloaderCommand* row = kBootloaderCommands;
    while (row->id != id) ++row;  // past the last row there is no constant
    return *row;
}

// One command or block, sent in one write and acknowledged.
struct Transmission {
    std::span<const uint8_t> bytes;
    const char* failure = nullptr;  // logged when it is not acknowledged, beside the cause
    std::chrono::microseconds timeout = kAckTimeout;
};

// Sends the transmissions in order, each when the one before has been acknowledged, then fills data
// with what follows the last acknowledgement. Returns 0, or -1 at the first failure.
[[nodiscard]] int bootloader_transaction(std::initializer_list<Transmission> transmissions,
                                         std::span<uint8_t> data = {});

// How long the mass erase may take: 32 s at most on the slowest parts by their data sheets.
inline constexpr std::chrono::seconds kMassEraseTimeout{40};

// Bytes that one Write Memory takes at most, AN3155.
inline constexpr size_t kWriteMemoryMaxSize = 256;

// Erases the whole flash; blocks for seconds. Returns 0 or -1.
[[nodiscard]] int extended_erase_cmd();

// Writes one block of 1 to 256 bytes to a flash address. Blocks for three acknowledgements.
// Returns 0, or -1 as soon as one is missing.
[[nodiscard]] int write_memory_cmd(std::span<const uint8_t> data, uint32_t address);
