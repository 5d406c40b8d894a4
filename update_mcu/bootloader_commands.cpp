// The bootloader's commands, built on the link's single transmissions; the update erases with them
// and the image is written with them.
#include "update_mcu/bootloader_commands.h"

#include <algorithm>
#include <array>

#include "platform/log.h"

namespace {

constexpr char kLogTag[] = "update_mcu";

constexpr const BootloaderCommand& kExtendedErase =
    BootloaderRow(BootloaderCommandId::kExtendedErase);
constexpr const BootloaderCommand& kWriteMemory = BootloaderRow(BootloaderCommandId::kWriteMemory);

// The code of the global mass erase and its XOR checksum.
constexpr std::array<uint8_t, 3> kMassErase = {0xFF, 0xFF, 0x00};

// Most significant byte first, then the XOR of the four.
std::array<uint8_t, 5> AddressBytes(uint32_t address) {
    std::array<uint8_t, 5> bytes = {
        static_cast<uint8_t>(address >> 24), static_cast<uint8_t>((address >> 16) & 0xFF),
        static_cast<uint8_t>((address >> 8) & 0xFF), static_cast<uint8_t>(address & 0xFF), 0};
    bytes[4] = bytes[0] ^ bytes[1] ^ bytes[2] ^ bytes[3];
    return bytes;
}

using BlockBytes = std::array<uint8_t, kWriteMemoryMaxSize + 2>;

// The data's length - 1, the data, the XOR of both; returns what of bytes is used.
std::span<const uint8_t> FillBlock(std::span<const uint8_t> data, BlockBytes* bytes) {
    uint8_t checksum = static_cast<uint8_t>((data.size() - 1) & 0xFF);
    bytes->front() = checksum;
    std::copy(data.begin(), data.end(), bytes->begin() + 1);
    for (const uint8_t byte : data) checksum ^= byte;
    (*bytes)[data.size() + 1] = checksum;
    return std::span(*bytes).first(data.size() + 2);
}

}  // namespace

int bootloader_transaction(std::initializer_list<Transmission> transmissions,
                           std::span<uint8_t> data) {
    const Transmission* last = transmissions.end() - 1;
    for (const Transmission& transmission : transmissions) {
        const auto wanted = &transmission == last ? data : std::span<uint8_t>();
        if (mcu_send_cmd(transmission.bytes, transmission.timeout, wanted) == 0) continue;
        if (transmission.failure != nullptr) LOGE("%s", transmission.failure);
        return -1;
    }
    return 0;
}

int extended_erase_cmd() {
    LOGD("extended_erase_cmd enter!\n");
    const int result =
        bootloader_transaction({{kExtendedErase.bytes, "write extended erase fail!\n"},
                                {kMassErase, "write erase all fail!\n", kMassEraseTimeout}});
    if (result == 0) LOGD("write extended erase cmd ok!\n");
    return result;
}

int write_memory_cmd(std::span<const uint8_t> data, uint32_t address) {
    if (data.data() == nullptr) {
        LOGE("data null!\n");
        return -1;
    }
    const auto address_bytes = AddressBytes(address);
    const Transmission command{kWriteMemory.bytes};
    const Transmission destination{address_bytes, "write memory address fail!\n"};
    if (data.size() > kWriteMemoryMaxSize) {
        if (bootloader_transaction({command, destination}) == 0) {
            LOGE("write data_temp too len!\n");
        }
        return -1;
    }
    BlockBytes bytes;
    const Transmission block{FillBlock(data, &bytes), "write memory data fail!\n"};
    return bootloader_transaction({command, destination, block});
}
