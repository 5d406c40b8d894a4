// Storing of MCU core dumps; called by the inbound routing for every piece.
#include "diagnostics/core_dump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "diagnostics/base64.h"
#include "mcu_link/exchange/reboot_trigger.h"
#include "mcu_link/mcu_packet.h"
#include "platform/device_path.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "protocol/system.h"

using namespace shd;

namespace {

constexpr char kLogTag[] = "shd";
constexpr size_t kHeaderSize = 3;  // ctl, count, index
constexpr uint8_t kFirstPiece = 1;
constexpr size_t kBase64BufferSize = 2048;
constexpr mode_t kFileMode = 0666;

// Reader thread only.
int32_t g_mcu_dump_slot = 0;         // slot of the next dump
std::string g_mcu_dump_path;         // empty while no dump is stored
std::string g_mcu_dump_base64_path;  // likewise
std::array<char, kBase64BufferSize> g_mcu_dump_base64_buf;

void StartDump() {
    g_mcu_dump_path.clear();
    g_mcu_dump_base64_path.clear();
    if (access(DevicePath(kDumpDir).c_str(), F_OK) != 0) {
        LOGE("access MCU_DATA_DIR err:%s!\n", strerror(errno));
        return;
    }
    const std::string slot = std::to_string(g_mcu_dump_slot);
    g_mcu_dump_path = std::string(kDumpDir) + kDumpName + "_" + slot;
    g_mcu_dump_base64_path = std::string(kDumpDir) + kDumpBase64Name;
    if (g_mcu_dump_slot != 0) g_mcu_dump_base64_path += "." + slot;
    g_mcu_dump_slot = (g_mcu_dump_slot + 1) % kDumpSlots;
}

// Opens a dump file for appending; the first piece starts it afresh.
UniqueFd OpenDumpFile(const std::string& path, bool first_piece) {
    const DevicePath device_path(path.c_str());
    if (first_piece) unlink(device_path.c_str());
    return UniqueFd(open(device_path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
}

void StoreRaw(std::span<const uint8_t> bytes, bool first_piece) {
    const UniqueFd file = OpenDumpFile(g_mcu_dump_path, first_piece);
    // A piece that cannot be stored is lost; the later ones are still appended.
    if (file.valid()) (void)!write(file.get(), bytes.data(), bytes.size());
}

void StoreBase64(std::span<const uint8_t> bytes, bool first_piece) {
    const UniqueFd file = OpenDumpFile(g_mcu_dump_base64_path, first_piece);
    if (!file.valid()) return;
    const size_t size = Base64Size(bytes.size());
    if (size == 0 || size >= g_mcu_dump_base64_buf.size()) return;
    if (Base64Encode(bytes.data(), bytes.size(), g_mcu_dump_base64_buf.data()) != 0) return;
    (void)!write(file.get(), g_mcu_dump_base64_buf.data(), size);
    fchmod(file.get(), kFileMode);
}

}  // namespace

int McuCoreDumpProcess(SensorHub* hub, const McuMessage* message) {
    if (message == nullptr) {
        LOGE("McuCoreDumpProcess param null");
        return -1;
    }
    const auto data = message->payload();
    if (data.size() < kHeaderSize) return 0;
    const uint8_t ctl = data[0];
    const uint8_t count = data[1];
    const uint8_t index = data[2];
    const auto bytes = data.subspan(kHeaderSize);
    const bool first_piece = index == kFirstPiece;

    if (first_piece) StartDump();
    if (!g_mcu_dump_path.empty()) StoreRaw(bytes, first_piece);
    if (!g_mcu_dump_base64_path.empty()) StoreBase64(bytes, first_piece);
    if (ctl != 0) {
        LOGD("McuCoreDumpProcess ctl:%x dump count:%x dump index:%x reboot", ctl, count, index);
        if (index == count) StartMcuReboot(hub);
    }
    return 0;
}
